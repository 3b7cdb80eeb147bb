#pragma once
/// @file
/// What is remembered of memory while the agent runs: counted errors, the configuration of the last start, the total.

#include "libplatform/KvDfRecords.h"

/// Correctable errors counted.
unsigned long KvIfGetEcc1ErrorCount();
void KvIfSetEcc1ErrorCount(unsigned long count);
void KvIfIncrementEcc1ErrorCount();

/// Copies what the last start has found. Count 0 or null: nothing is known of it.
/// @return 0; 0x607D1202 out of memory
uint32_t KvIfSetOldMemory(unsigned long count, const KVDF_TMP_MEMORY* records);
/// The records stay the library's, until the next KvIfSetOldMemory or KvIfDeleteOldMemory.
KVDF_TMP_MEMORY* KvIfGetOldMemory();
unsigned long KvIfGetOldMemoryCount();
void KvIfDeleteOldMemory();
/// The size that a socket had at the last start; its own where nothing is known of it.
/// @return 0; 0x609C4201 null socket or size
uint32_t KvIfGetOldMemorySize(unsigned long count, const KVDF_TMP_MEMORY* old, const KVDF_MEMSOCKET* socket,
                              unsigned long* size);
/// The same, asked of what is remembered.
unsigned long KvIfOldMemorySizeOf(const KVDF_MEMSOCKET& socket);

/// Of all sockets, in MB.
void KvIfSetTotalMemorySize(unsigned long size);
unsigned long KvIfGetTotalMemorySize();
