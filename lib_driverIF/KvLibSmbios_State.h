#pragma once
/// @file
/// What the files of the table reader share: the entry point, the index, and how a failure is told.

#include <cstddef>
#include <cstdint>
#include <source_location>
#include <span>
#include <string>
#include <string_view>

inline constexpr uint32_t kSmbiosHeaderSize = 32;

/// One structure of the index.
struct smbios_table_entry {
    uint32_t address;  ///< physical, or the offset in the operating system's copy of the table
    uint32_t type;
    uint16_t size;  ///< up to and including the NUL of the last string
    uint16_t handle;
};
static_assert(sizeof(smbios_table_entry) == 12);

extern uint8_t smbios_header[kSmbiosHeaderSize];  ///< entry point copy
extern uint8_t smbios_headsize;                   ///< what the entry point says of its length
extern uint8_t smbios_major;                      ///< not 0: initialised
extern smbios_table_entry* smbios_tableinfo;      ///< by type, then handle
extern uint32_t smbios_tablecnt;

/// Reads a whole file of at most limit bytes. @return 0 or a negative errno value
int FileDataAllRead(const char* path, size_t limit, std::string& content);

namespace sb {

/// Frees and empties all that is kept here.
void ClearState();

/// The operating system's copy of the table, where that is the one in use; empty when the table was found in memory.
std::span<const uint8_t> KernelTable();
void KeepKernelTable(std::string table);

/// Traces a failure with its place. @return error
int Error(int error, std::source_location where = std::source_location::current());
/// A source file's name without its directories.
const char* FileName(std::source_location where);

inline std::span<const uint8_t> BytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace sb

/// Offsets in the entry point.
namespace entry_point {
inline constexpr size_t kChecksum = 4;
inline constexpr size_t kLength = 5;
inline constexpr size_t kMajorVersion = 6;
inline constexpr size_t kMinorVersion = 7;
inline constexpr size_t kMaxStructureSize = 8;
inline constexpr size_t kIntermediate = 16;
inline constexpr size_t kIntermediateSize = 15;  ///< what the intermediate checksum covers
inline constexpr size_t kIntermediateChecksum = 21;
inline constexpr size_t kTableLength = 22;
inline constexpr size_t kTableAddress = 24;
inline constexpr size_t kStructureCount = 28;
inline constexpr size_t kRevision = 30;
}  // namespace entry_point
