// Which service processor (SVP) the machine has, and whether its driver works.

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "common/PXR_host.h"
#include "cover/FileCover.h"
#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"

namespace {

constexpr const char* kPciDevices = "/proc/bus/pci/devices";

/// PCI vendor and device of the rack family's SVP board, eight hexadecimal digits. The board's maker has not published
/// them; as long as this is empty no device is taken for the board.
constexpr std::string_view kSvpBoardId;

/// A byte buffer that grows.
class COptMem {
public:
    bool Append(std::span<const uint8_t> bytes) {
        auto* const grown = static_cast<uint8_t*>(realloc(bytes_.get(), size_ + bytes.size()));
        if (grown == nullptr) return false;
        static_cast<void>(bytes_.release());  // realloc has taken it
        bytes_.reset(grown);
        memcpy(grown + size_, bytes.data(), bytes.size());
        size_ += bytes.size();
        return true;
    }
    std::span<const uint8_t> Bytes() const { return {bytes_.get(), size_}; }

private:
    struct Freed {
        void operator()(uint8_t* bytes) const { free(bytes); }
    };
    std::unique_ptr<uint8_t, Freed> bytes_;
    size_t size_ = 0;
};

/// Settings of the BMC's functions, as the host hands them over: 32-bit values one after the other.
class CRuntimeOpt {
public:
    bool Add(uint32_t value) {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&value);
        return memory_.Append({bytes, sizeof value});
    }
    bool Empty() const { return memory_.Bytes().empty(); }
    /// @return 0 for a setting that is not there
    uint32_t Value(size_t index) const {
        uint32_t value = 0;
        const std::span<const uint8_t> bytes = memory_.Bytes();
        if ((index + 1) * sizeof value <= bytes.size()) memcpy(&value, &bytes[index * sizeof value], sizeof value);
        return value;
    }

private:
    COptMem memory_;
};

constexpr size_t kWatchdogSetting = 0;  // nonzero: the SVP's driver is in use

// Guarded by g_capabilityMutex.
CRuntimeOpt g_BmcCfg;
int g_bmcCfgResult = 0;

uint32_t BladeState() {
    if (IsRunningSVPDriver_VS()) {
        LOG_CAPABILITY(kLogDebug, "AA SVP Installed.");
        return kSvpBlade;
    }
    LOG_CAPABILITY(kLogDebug, "AA SVP Not Installed.");
    return kSvpNone;
}

uint32_t RackState() {
    if (IsRunningSVPDriver_RK()) {
        LOG_CAPABILITY(kLogDebug, "SVP driver  Mounting & is operating.");
        return kSvpRack;
    }
    LOG_CAPABILITY(kLogDebug, "SVP driver  stopping?");
    return kSvpNone;
}

/// The second word of a line.
std::string_view SecondField(std::string_view line) {
    constexpr std::string_view kBlanks = " \t";
    line.remove_prefix(std::min(line.find_first_of(kBlanks), line.size()));
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    return line.substr(0, line.find_first_of(kBlanks));
}

}  // namespace

int LibP2_GetSVPConfigType() {
    return host::ServiceProcessorType();
}

int ReadBmccfg() {
    const std::lock_guard lock(g_capabilityMutex);
    if (!g_BmcCfg.Empty()) return g_bmcCfgResult;
    const std::array<uint32_t, 7> values = host::BmcFunctionConfig(g_bmcCfgResult);
    if (g_bmcCfgResult != 0) {
        LOG_CAPABILITY(kLogError, "ReadConfigData Error. BMC config Data no load. <code %d>", g_bmcCfgResult);
    }
    for (const uint32_t value : values)
        g_BmcCfg.Add(value);
    return g_bmcCfgResult;
}

bool IsRunningSVPDriver_VS() {
    const std::lock_guard lock(g_capabilityMutex);
    ReadBmccfg();
    const bool running = g_BmcCfg.Value(kWatchdogSetting) != 0;
    LOG_CAPABILITY(kLogDebug, "IsRunningSVPDriver_VS()...%s", running ? "WDT == 0  (enable)" : "WDT != 0  (disable)");
    return running;
}

bool IsPciDeviceListed(std::string_view id) {
    if (id.empty()) return false;
    const std::optional<std::string> list = ReadWholeFile(kPciDevices);
    if (!list) return false;
    std::string_view rest = *list;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (SecondField(line) != id) continue;
        LOG_CAPABILITY(kLogDebug, "DEVICE_ID/VENDOR_ID ... Mounted.(%.*s)", static_cast<int>(id.size()), id.data());
        return true;
    }
    return false;
}

bool IsRunningSVPDriver_RK() {
    return IsPciDeviceListed(kSvpBoardId);
}

uint32_t MySVPFunction(int /*functionType*/) {
    uint32_t family = kFamilyUnknown;
    IsVaristel(&family);
    switch (family) {
        case kFamilyBlade:
            return BladeState();
        case kFamilyRack:
            return RackState();
        default:
            LOG_CAPABILITY(kLogError, "Model Check ... Abnormal  LIB_PILOT2_SELECT_NO");
            return kSvpNone;
    }
}

uint32_t MyCMDFunction(int functionType) {
    const uint32_t state = MySVPFunction(functionType);
    LOG_CAPABILITY(kLogDebug, "MyCMDFunction():Not Pilot2. return(dwRes=%d)", static_cast<int>(state));
    return state;
}
