// The capability record of a blade's BMC: read at start-up, kept in memory and in a file, and what it says about the
// kind of BMC.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"

namespace {

constexpr const char* kCapabilityFile = "/var/opt/velmora/lantrel/log/BMCCapabilityA.bin";

/// Names of BMC types as the record spells them, in the order of the type numbers from kBmcTypePilot2 on.
constexpr size_t kTypeNameLength = 10;
constexpr char szBMCType[3][kTypeNameLength + 1] = {"PILOT_2   ", "QVM_LBMC  ", "SH7757    "};
constexpr size_t kTypeNameOffset = 1;

constexpr uint32_t kCommandFailed = 204;
constexpr uint32_t kNotSupported = 0x6000B121;

using Record = std::array<uint8_t, kBmcCapabilitySize>;

// Guarded by g_capabilityMutex.
Record g_BMC_CapabilityA{};
const uint8_t* gp_BMC_CapabilityA = nullptr;  // null while g_BMC_CapabilityA holds nothing

void Keep(const Record& record) {
    g_BMC_CapabilityA = record;
    gp_BMC_CapabilityA = g_BMC_CapabilityA.data();
}

bool ReadFile(Record& record) {
    const std::optional<std::string> content = ReadWholeFile(kCapabilityFile);
    if (!content) return false;
    if (content->size() != record.size()) {
        LOG_CAPABILITY(kLogError, "FileRead Error.(%s)", kCapabilityFile);
        return false;
    }
    memcpy(record.data(), content->data(), record.size());
    return true;
}

/// The record that is kept, or that of the file, which is kept from then on.
bool Kept(Record& record) {
    const std::lock_guard lock(g_capabilityMutex);
    if (gp_BMC_CapabilityA == nullptr) {
        if (!ReadFile(record)) return false;
        Keep(record);
    }
    record = g_BMC_CapabilityA;
    return true;
}

bool ReadFromBmc(Record& record) {
    const ktx_ipmi::IpmiBracket bracket;
    if (!bracket) {
        LOG_CAPABILITY(kLogError, "IPMI Driver Open Error. (AGT_IPMI_DRIVER_OPEN_FAIL)");
        return false;
    }
    return ktx_ipmi::GetBMCStatus(bracket.Handle(), g_bBmcAdr, record.data()) == 0;
}

/// Sixteen bytes to a line.
void LogRecord(const uint8_t* record) {
    constexpr uint32_t kPerLine = 16;
    for (uint32_t start = 0; start < kBmcCapabilitySize; start += kPerLine) {
        char line[3 * kPerLine + 1] = "";
        const uint32_t end = std::min(start + kPerLine, kBmcCapabilitySize);
        for (uint32_t i = start; i < end; ++i)
            snprintf(line + size_t{3} * (i - start), 4, "%02X ", record[i]);
        LOG_CAPABILITY(kLogDebug, "BMC Capability Code : [ %s]", line);
    }
}

/// The type name of a record as the table has it: some controllers fill up with NULs instead of blanks.
std::array<char, kTypeNameLength> TypeName(const Record& record) {
    std::array<char, kTypeNameLength> name;
    name.fill(' ');
    const auto begin = record.begin() + kTypeNameOffset;
    std::copy(begin, std::find(begin, begin + kTypeNameLength, uint8_t{0}), name.begin());
    return name;
}

/// Position of a record's BMC type in the table; -1 for none.
int IndexOfType(const Record& record) {
    const std::array<char, kTypeNameLength> name = TypeName(record);
    const auto found =
        std::ranges::find_if(szBMCType, [&](const char* type) { return memcmp(type, name.data(), name.size()) == 0; });
    return found == std::end(szBMCType) ? -1 : static_cast<int>(found - std::begin(szBMCType));
}

}  // namespace

uint32_t ktx_ipmi::GetBMCStatus(int handle, uint8_t address, uint8_t* record) {
    if (record == nullptr) return PXR_ReportError(reason::kNullOutput);
    if (CheckSMBIOSCode() == kSmbiosCode002) {
        OemAnswer answer;
        if (ReadBMCCapability(handle, address, &answer) != 0) return kCommandFailed;
        memset(record, 0, kBmcCapabilitySize);
        memcpy(record, answer.bytes.data(), std::min(answer.length, kBmcCapabilitySize));
        LogRecord(record);
        return 0;
    }
    const std::lock_guard lock(g_capabilityMutex);
    if (gp_BMC_CapabilityA == nullptr) {
        LOG_CAPABILITY(kLogTrace, "OEM BMC Capability A Command is not supported.");
        return PXR_ReportError(kNotSupported);
    }
    memcpy(record, gp_BMC_CapabilityA, kBmcCapabilitySize);
    return 0;
}

bool InitBMCCapability() {
    uint32_t family = kFamilyUnknown;
    if (!IsVaristel(&family)) return false;
    if (family != kFamilyBlade) {
        LOG_CAPABILITY(kLogTrace, "Not Varistel.(Not Call BMCCapabilityA)");
        return false;
    }
    Record record{};
    if (!ReadFromBmc(record)) return false;
    const std::lock_guard lock(g_capabilityMutex);
    if (gp_BMC_CapabilityA != nullptr) return true;
    Keep(record);
    return WriteWholeFile(kCapabilityFile, {reinterpret_cast<const char*>(record.data()), record.size()});
}

bool ReadBMCCapabilityBin(uint8_t* record) {
    Record read;
    if (record == nullptr || !ReadFile(read)) return false;
    memcpy(record, read.data(), read.size());
    return true;
}

bool GetBMCCapability(uint8_t* record) {
    Record kept;
    if (record == nullptr || !Kept(kept)) return false;
    memcpy(record, kept.data(), kept.size());
    return true;
}

bool CheckBMCCapability(const uint8_t* mask, uint32_t size) {
    Record kept;
    Record current{};
    if (mask == nullptr || !Kept(kept) || !ReadFromBmc(current)) return false;
    for (uint32_t i = 0; i < std::min(size, kBmcCapabilitySize); ++i) {
        if ((kept[i] & mask[i]) == (current[i] & mask[i])) continue;
        LOG_CAPABILITY(kLogError, "File:BMC Comp Error. (Err pos offset i=%d)", static_cast<int>(i));
        return false;
    }
    return true;
}

int CheckBMCType() {
    switch (CheckSMBIOSCode()) {
        case kSmbiosCode002: {
            Record record;
            const int index = Kept(record) ? IndexOfType(record) : -1;
            return index < 0 ? 0 : kBmcTypePilot2 + index;
        }
        case kSmbiosCode003:
            return kBmcTypeSh;
        default:
            return 0;
    }
}

bool IsPilot2(int* flag) {
    Record record;
    if (flag == nullptr) return false;
    *flag = 0;
    if (!Kept(record)) return false;
    *flag = IndexOfType(record) >= 0 ? 1 : 0;
    return true;
}

bool IsPilot2_File(int* flag) {
    if (flag != nullptr) *flag = 0;
    return true;
}

bool CheckSelLinked() {
    int pilot2 = 0;
    return IsPilot2_File(&pilot2) && pilot2 != 0;
}
