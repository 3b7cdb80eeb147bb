#pragma once
/// @file
/// The copy of the SMBIOS structures that the queries answer from, grouped by type.

#include <cstdint>

#include "libplatform/KvPsSmbios.h"

/// The structures of one type, in the order of their handles; null without any.
struct SmbiosTypeData {
    uint32_t count;
    KVPS_SMBIOS_TPHEAD** records;
};

// Built by KvPsInitializeSmbios and read-only afterwards; KvPltfSvcSmbiosView has the ways to read it.
extern KVPS_SMBIOS_HEAD g_SmbiosHeader;
extern SmbiosTypeData g_SmbiosData[KVPS_SMBIOS_TYPES];
extern uint32_t g_dwStructCount;

namespace ktx_smbios {

/// Finds the table. @return whether there is one
bool InitSmbiosLib();
void TerminateSmbiosLib();

// These give 0; the value of a failed request | 0x10000000, or its status | 0x20000000.

uint32_t GetHeader(KVPS_SMBIOS_HEAD* header);
/// @param size  receives what a slot for the largest structure takes
uint32_t GetSructurMaxSize(uint32_t* size);
/// Copies the structures of types 0 to 127. @param maxSize  of a slot @return also 0x30000001 out of memory
uint32_t GetAllTableData(uint32_t maxSize);

}  // namespace ktx_smbios
