// The table as the kernel keeps it in files: the way left where physical memory does not show a 32-bit entry point.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "common/ByteReader.h"
#include "common/Checksum.h"
#include "lib_driverIF/KvLibSmbios.h"

namespace {

constexpr const char* kEntryPointFile = "/sys/firmware/dmi/tables/smbios_entry_point";
constexpr const char* kTableFile = "/sys/firmware/dmi/tables/DMI";
constexpr size_t kEntryPointLimit = 4096;
constexpr size_t kTableLimit = 16 * 1024 * 1024;

constexpr uint8_t kHeaderLength = 31;  ///< of a 32-bit entry point
/// The smallest structure: its header and two NULs.
constexpr size_t kSmallestStructure = 6;

struct Version {
    uint8_t major;
    uint8_t minor;
};

/// What an entry point of either form says about the version, once its checksum holds.
struct EntryPointForm {
    std::string_view anchor;
    size_t lengthAt;
    size_t majorAt;
    size_t smallest;
};
constexpr EntryPointForm kForms[] = {{"_SM3_", 6, 7, 24}, {"_SM_", 5, 6, 30}};

bool ReadVersion(const std::string& content, Version* version) {
    const std::span<const uint8_t> bytes = sb::BytesOf(content);
    for (const EntryPointForm& form : kForms) {
        if (bytes.size() < form.smallest || !content.starts_with(form.anchor)) continue;
        const size_t length = bytes[form.lengthAt];
        if (length < form.smallest || length > bytes.size() || !IsSumZero(bytes.first(length))) return false;
        *version = {bytes[form.majorAt], bytes[form.majorAt + 1]};
        return true;
    }
    return false;
}

void Put16(size_t offset, size_t value) {
    const size_t most = std::min<size_t>(value, UINT16_MAX);
    smbios_header[offset] = static_cast<uint8_t>(most & 0xFF);
    smbios_header[offset + 1] = static_cast<uint8_t>(most >> 8);
}

void PutText(size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), smbios_header + offset);
}

/// Tells of the table in the form of a 32-bit entry point, whose table address is 0.
void MakeHeader(Version version, size_t tableLength) {
    const std::span<uint8_t> header = smbios_header;
    memset(smbios_header, 0, sizeof(smbios_header));
    PutText(0, "_SM_");
    PutText(entry_point::kIntermediate, "_DMI_");
    smbios_header[entry_point::kLength] = kHeaderLength;
    smbios_header[entry_point::kMajorVersion] = version.major;
    smbios_header[entry_point::kMinorVersion] = version.minor;
    smbios_header[entry_point::kRevision] = static_cast<uint8_t>((version.major & 0x0F) << 4 | (version.minor & 0x0F));
    Put16(entry_point::kMaxStructureSize, sb::LargestStructure());
    Put16(entry_point::kTableLength, tableLength);
    Put16(entry_point::kStructureCount, smbios_tablecnt);
    smbios_header[entry_point::kIntermediateChecksum] =
        ChecksumOf(header.subspan(entry_point::kIntermediate, entry_point::kIntermediateSize));
    smbios_header[entry_point::kChecksum] = ChecksumOf(header.first(kHeaderLength));
    smbios_headsize = kHeaderLength;
}

}  // namespace

int sb::TakeKernelTable() {
    std::string entryPoint;
    std::string table;
    Version version = {};
    int error = FileDataAllRead(kEntryPointFile, kEntryPointLimit, entryPoint);
    if (error == 0 && !ReadVersion(entryPoint, &version)) error = -ENXIO;
    if (error == 0) error = FileDataAllRead(kTableFile, kTableLimit, table);
    if (error != 0) return sb::Error(error == -ENOMEM ? error : -ENXIO);

    const auto most = static_cast<uint32_t>(std::min<size_t>(table.size() / kSmallestStructure + 1, UINT16_MAX));
    error = sb::IndexTable(sb::BytesOf(table), 0, most, true);
    if (error != 0) return error;
    if (smbios_tablecnt == 0) return sb::Error(-ENXIO);
    MakeHeader(version, table.size());
    sb::KeepKernelTable(std::move(table));
    return 0;
}
