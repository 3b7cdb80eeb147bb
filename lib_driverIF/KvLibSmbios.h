#pragma once
/// @file
/// The SMBIOS table reader: finds the entry point in physical memory, indexes the structures once, and answers requests
/// about them. Functions give 0 or a negative errno value, which has been traced where it arose.
///
/// All that is read is the firmware's word. Lengths and counts are held against the bytes that there are; a walk over a
/// damaged table ends where it stops making sense, and what came before it can be used.
///
/// The interface's own names stand by themselves, the reader's helpers in namespace sb.

#include <cstddef>
#include <cstdint>
#include <span>

#include "lib_driverIF/KvLibSmbios_State.h"
#include "libplatform/smbios_ioctl.h"

/// Finds the entry point and builds the index; once. @return 0; -5, -6 no table; -12 out of memory
int Init_SmbiosIF();
/// Frees the index. Init_SmbiosIF may follow.
void Terminate_SmbiosIF();

/// @param copyMode  1: works on a private copy of the block; else on the caller's
int sb_ioctl(uint32_t code, void* block, int copyMode);
/// sb_ioctl on the caller's block.
int smbios_getinfo(uint32_t code, void* block);

// ---- Physical memory (KvLibSmbios_Memory.cpp) ----

/// Reads through the memory driver when its module file is installed, else through /dev/mem.
/// @return bytes read; 0 on failure
uint32_t ReadMem(void* buffer, uint32_t address, uint32_t length);
/// Copies bytes of the table: of a structure in the index.
int sb_cp_rmem2vmem(void* buffer, uint32_t address, uint32_t size);

namespace sb {
/// Whether a kernel release ("6.1.0-13-amd64") is 2.6 or later, by its numbers.
bool IsKernel26(const char* release);
/// Whether the running kernel is.
bool IsKernel26();
/// The two ways through /dev/mem: kernels before 2.6 seek and read, later ones map. @return bytes read; 0 on failure
uint32_t ReadBySeek(int fd, void* buffer, uint32_t address, uint32_t length);
uint32_t ReadByMap(int fd, void* buffer, uint32_t address, uint32_t length);
}  // namespace sb

// ---- Finding the entry point (KvLibSmbios_Entry.cpp) ----

namespace sb {
/// What to scan for, and how far to go on after a mismatch at each of its bytes.
struct Pattern {
    std::span<const uint8_t> bytes;
    std::span<const uint8_t> skip;
};
/// Bytes to look through: only the entry point itself where the EFI system table says where it is.
uint32_t SearchLength();
}  // namespace sb

/// Where to look: what the EFI system table says, else 0xF0000.
uint32_t GetSbBaseAddr();
/// The value of a line "name=value"; ends the line there.
/// @param text  lines, changed @return inside text; null when no line has exactly that name
char* GetParameter(char* text, const char* name, const char* delimiter);
/// Scans while at least `remaining` bytes lie ahead. @return position from `from` on; -1 when there is none
ptrdiff_t sb_search_string(std::span<const uint8_t> area, size_t from, const sb::Pattern& pattern, size_t remaining);
/// Searches physical memory and takes the entry point over.
int sb_search_header(uint32_t address, uint32_t length);

// ---- The index (KvLibSmbios_Index.cpp) ----

namespace sb {
/// Indexes a table.
/// @param address       of its first byte, for the index
/// @param count         structures to look for at most
/// @param stopAtMarker  ends after the structure of type 127, as tables do whose entry point gives no count
int IndexTable(std::span<const uint8_t> table, uint32_t address, uint32_t count, bool stopAtMarker);
/// Size of the largest structure in the index.
uint32_t LargestStructure();

using Compare = int (*)(const void*, const void*);
}  // namespace sb

/// Reads the table that the entry point names, and indexes it.
int sb_set_tableinfo();
/// Heap sort.
void hsort(void* base, uint32_t count, uint32_t size, sb::Compare compare);
/// Binary search. @return the first of equal elements; null when there is none
void* bsrch(const void* key, const void* base, uint32_t count, uint32_t size, sb::Compare compare);

// ---- The operating system's copy of the table (KvLibSmbios_Sysfs.cpp) ----

namespace sb {
/// Takes entry point and table from the kernel's files, where physical memory shows neither: firmware with a 64-bit
/// entry point only, a locked-down kernel, a container. @return 0; -6 there are none; -12
int TakeKernelTable();
}  // namespace sb
