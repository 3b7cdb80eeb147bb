// Where the entry point is: the EFI system table, and the scan of the firmware's segment.

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "common/ByteReader.h"
#include "common/Checksum.h"
#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr uint32_t kFirmwareSegment = 0xF0000;
constexpr uint32_t kFirmwareSegmentSize = 0x10000;
constexpr const char* kSystemTable = "/sys/firmware/efi/systab";
constexpr const char* kSystemTableBefore26 = "/proc/efi/systab";
constexpr size_t kSystemTableLimit = 64 * 1024;

constexpr uint8_t kAnchor[] = {'_', 'S', 'M', '_'};
constexpr uint8_t kAnchorSkip[] = {1, 1, 2, 4};
constexpr uint8_t kIntermediateAnchor[] = {'_', 'D', 'M', 'I', '_'};
constexpr size_t kSkipAfterRejected = 3;
/// Of an entry point: up to the BCD revision, which firmware of version 2.1 did not count.
constexpr size_t kShortestEntryPoint = 30;

/// Converts the whole value, decimal, 0x hexadecimal or 0 octal.
/// @return index of the character that does not belong; -1 when all belong
ptrdiff_t ConvertAddress(const char* value, uint32_t* address) {
    if (isdigit(static_cast<unsigned char>(*value)) == 0) return 0;  // strtoull would take signs
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(value, &end, 0);
    if (*end != '\0') return end - value;
    if (errno == ERANGE || number > UINT32_MAX) return 0;  // out of this reader's reach
    *address = static_cast<uint32_t>(number);
    return -1;
}

/// Reads the address out of the system table, and traces what stands in the way. @return whether there is one
bool ReadSystemTable(uint32_t* address) {
    constexpr int kMask = PXR_TRACE_MASK_SMBIOS;
    constexpr int kLevel = PXR_TRACE_LEVEL_EVENT;
    const char* const file = sb::FileName(std::source_location::current());
    std::string table;
    const int error = FileDataAllRead(sb::IsKernel26() ? kSystemTable : kSystemTableBefore26, kSystemTableLimit, table);
    if (error != 0) {
        PXR_trace(kMask, kLevel, "%s(%d) : FileDataAllRead Error(ret=%d)\n", file, __LINE__, error);
        return false;
    }
    const char* const value = GetParameter(table.data(), "SMBIOS", "=");
    if (value == nullptr) {
        PXR_trace(kMask, kLevel, "%s(%d) : GetParameter Error(ret=NULL)\n", file, __LINE__);
        return false;
    }
    if (*value == '\0') {
        PXR_trace(kMask, kLevel, "%s(%d) : SMBIOS Data Error(leng=0)\n", file, __LINE__);
        return false;
    }
    const size_t blanks = strspn(value, " \t");
    if (value[blanks] == '\0') {
        PXR_trace(kMask, kLevel, "%s(%d) : SMBIOS Data Error(blank leng=%Lu)\n", file, __LINE__, uint64_t{blanks});
        return false;
    }
    const ptrdiff_t wrong = ConvertAddress(value + blanks, address);
    if (wrong < 0) return true;
    const size_t index = blanks + static_cast<size_t>(wrong);
    PXR_trace(kMask, kLevel, "%s(%d) : SMBIOS Data Error(invalid char=0x%02X, index=%Lu)\n", file, __LINE__,
              static_cast<unsigned char>(value[index]), uint64_t{index});
    return false;
}

bool IsEntryPoint(std::span<const uint8_t> candidate) {
    const size_t length = candidate[entry_point::kLength];
    return memcmp(candidate.data(), kAnchor, sizeof(kAnchor)) == 0 &&
           memcmp(candidate.data() + entry_point::kIntermediate, kIntermediateAnchor, sizeof(kIntermediateAnchor)) ==
               0 &&
           length >= kShortestEntryPoint && length <= candidate.size() && IsSumZero(candidate.first(length)) &&
           IsSumZero(candidate.subspan(entry_point::kIntermediate, entry_point::kIntermediateSize));
}

void TraceEntryPoint() {
    constexpr int kMask = PXR_TRACE_MASK_SMBIOS;
    constexpr int kLevel = PXR_TRACE_LEVEL_DETAIL;
    using namespace entry_point;
    const std::span<const uint8_t> header = smbios_header;
    PXR_trace(kMask, kLevel, "SMBIOS table length      = %d\n", U16At(header, kTableLength));
    PXR_trace(kMask, kLevel, "SMBIOS table address     = 0x%x\n", U32At(header, kTableAddress));
    PXR_trace(kMask, kLevel, "SMBIOS structure count   = %d\n", U16At(header, kStructureCount));
    PXR_trace(kMask, kLevel, "SMBIOS max size          = %d\n", U16At(header, kMaxStructureSize));
    PXR_trace(kMask, kLevel, "SMBIOS major version     = %d\n", header[kMajorVersion]);
    PXR_trace(kMask, kLevel, "SMBIOS minor version     = %d\n", header[kMinorVersion]);
    PXR_trace(kMask, kLevel, "SMBIOS revision          = 0x%x\n", header[kRevision]);
}

}  // namespace

char* GetParameter(char* text, const char* name, const char* delimiter) {
    const std::string_view wanted = name;
    for (char* line = text; line != nullptr;) {
        char* const newline = strchr(line, '\n');
        if (newline != nullptr) *newline = '\0';
        char* const found = strstr(line, delimiter);
        if (found != nullptr && std::string_view(line, static_cast<size_t>(found - line)) == wanted) {
            return found + strlen(delimiter);
        }
        line = newline != nullptr ? newline + 1 : nullptr;
    }
    return nullptr;
}

uint32_t GetSbBaseAddr() {
    uint32_t address = 0;
    return ReadSystemTable(&address) ? address : kFirmwareSegment;
}

uint32_t sb::SearchLength() {
    return sb::IsKernel26() && access(kSystemTable, F_OK) == 0 ? kSmbiosHeaderSize : kFirmwareSegmentSize;
}

ptrdiff_t sb_search_string(std::span<const uint8_t> area, size_t from, const sb::Pattern& pattern, size_t remaining) {
    const size_t needed = std::max(remaining, pattern.bytes.size());
    for (size_t at = from; at <= area.size() && area.size() - at >= needed;) {
        size_t same = 0;
        while (same < pattern.bytes.size() && area[at + same] == pattern.bytes[same])
            ++same;
        if (same == pattern.bytes.size()) return static_cast<ptrdiff_t>(at);
        at += pattern.skip[same];
    }
    return -1;
}

int sb_search_header(uint32_t address, uint32_t length) {
    const size_t size = size_t{length} + 1;
    const std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]());
    if (buffer == nullptr) return sb::Error(-ENOMEM);
    if (ReadMem(buffer.get(), address, length) == 0) return sb::Error(-EIO);

    const std::span<const uint8_t> area(buffer.get(), length);
    const sb::Pattern anchor = {kAnchor, kAnchorSkip};
    ptrdiff_t at = sb_search_string(area, 0, anchor, kSmbiosHeaderSize);
    while (at >= 0 && !IsEntryPoint(area.subspan(static_cast<size_t>(at)))) {
        at = sb_search_string(area, static_cast<size_t>(at) + kSkipAfterRejected, anchor, kSmbiosHeaderSize);
    }
    if (at < 0) {
        PXR_trace(PXR_TRACE_MASK_SMBIOS, PXR_TRACE_LEVEL_ERROR, "Can't found SMBIOS header.\n");
        return sb::Error(-ENXIO);
    }
    memcpy(smbios_header, buffer.get() + at, kSmbiosHeaderSize);
    smbios_headsize = smbios_header[entry_point::kLength];
    TraceEntryPoint();
    return 0;
}
