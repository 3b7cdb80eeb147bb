// The firmware and the machine as a whole, from SMBIOS.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "common/FileText.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvIfSmbios.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"
#include "kvdatafactory/KvDfRecordArray.h"
#include "libplatform/KvDfHardware.h"

namespace {

// Where the address of the first network interface is kept that the firmware tells in the machine's UUID.
constexpr char kAddressFile[] = "/var/opt/velmora/lantrel/dat/MacAddrFromSmbios.dat";

constexpr uint8_t kBios = 0;
constexpr uint8_t kBiosVersion = 5;
constexpr uint8_t kBiosReleaseDate = 8;
constexpr uint8_t kSystem = 1;
constexpr uint8_t kSystemUuid = 8;

using Address = std::array<uint8_t, 6>;

bool IsToldAddress(const Address& address) {
    const auto all = [&address](uint8_t value) {
        return std::ranges::all_of(address, [value](uint8_t byte) { return byte == value; });
    };
    return !all(0x00) && !all(0xFF);
}

int KeepAddress(const Address& address) {
    char text[18];
    const int length = snprintf(text, sizeof text, "%02x-%02x-%02x-%02x-%02x-%02x", address[0], address[1], address[2],
                                address[3], address[4], address[5]);
    const std::string_view content(text, static_cast<size_t>(length));
    std::string before;
    if (ReadWhole(kAddressFile, sizeof text, before) == 0 && before == content) return 0;
    return ReplaceWhole(kAddressFile, content, 0644);
}

/// Records of all structures of a type.
template <typename Record, typename Fill>
uint32_t GetStructureRecords(uint32_t function, uint8_t type, unsigned long* count, Record** records, Fill fill,
                             std::source_location where = std::source_location::current()) {
    if (const uint32_t rc = EmptyOutputs(function, count, records, where)) return rc;
    const KvIfStructures structures(type);
    if (structures.Code() != 0) return structures.Code();
    const auto all = structures.All();
    return FillRecords(
        function, static_cast<unsigned long>(all.size()), count, records,
        [&](Record& record, unsigned long i) { return fill(all[i], &record); }, where);
}

}  // namespace

uint32_t KvIfSetSmbiosSystemBios(const KVPS_SMBIOS_TPHEAD* structure, KVDF_SYSBIOS* record) {
    constexpr uint32_t kNull = MakeResult(fn::kSetSmbiosSystemBios, Reason::NullArgument);
    static_assert(kNull == 0x60934201);
    if (structure == nullptr || record == nullptr) return PXR_ReportError(kNull);
    const uint32_t rc = KvIfGetSmbiosString(structure, kBiosVersion, record->version);
    return rc != 0 ? rc : KvIfGetSmbiosString(structure, kBiosReleaseDate, record->releaseDate);
}

uint32_t KvIfSetSmbiosSystemInfo(const KVPS_SMBIOS_TPHEAD* structure, KVDF_SYSINFO* record) {
    if (structure == nullptr || record == nullptr) {
        return PXR_ReportError(MakeResult(fn::kSetSmbiosSystemInfo, Reason::NullArgument));
    }
    Address address{};
    const uint32_t rc =
        KvIfGetSmbiosMultiByte(structure, kSystemUuid, static_cast<int>(address.size()), address.data());
    if (rc != 0) return rc;
    if (!IsToldAddress(address) || KeepAddress(address) == 0) return 0;
    return PXR_ReportError(MakeResult(fn::kSetSmbiosSystemInfo, Reason::FileWrite));
}

uint32_t KvDfGetSystemBios(unsigned long* count, KVDF_SYSBIOS** records) {
    return GetStructureRecords(fn::kGetSystemBios, kBios, count, records, KvIfSetSmbiosSystemBios);
}

uint32_t KvDfGetSystemInformation(unsigned long* count, KVDF_SYSINFO** records) {
    return GetStructureRecords(fn::kGetSystemInformation, kSystem, count, records, KvIfSetSmbiosSystemInfo);
}
