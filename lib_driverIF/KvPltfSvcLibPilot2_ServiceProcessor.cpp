// Which service processor (SVP) the machine has, and whether its driver works.

#include <array>
#include <bit>

#include "common/ByteReader.h"
#include "common/PXR_host.h"
#include "common/TextCursor.h"
#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"

namespace {

constexpr const char* kPciDevices = "/proc/bus/pci/devices";

/// PCI vendor and device of the rack family's SVP board, eight hexadecimal digits. The board's maker has not published
/// them; as long as this is empty no device is taken for the board.
constexpr std::string_view kSvpBoardId;

/// A byte buffer that grows.
using COptMem = std::vector<uint8_t>;

/// Settings of the BMC's functions as the host hands them over: 32-bit values one after the other, in the machine's order
/// of bytes. How many there are is the host's affair.
class CRuntimeOpt {
public:
    void Add(uint32_t value) {
        const auto bytes = std::bit_cast<std::array<uint8_t, sizeof value>>(value);
        memory_.insert(memory_.end(), bytes.begin(), bytes.end());
    }
    bool Empty() const { return memory_.empty(); }
    /// @return 0 for a setting that is not there
    uint32_t Value(size_t index) const { return U32At(memory_, index * sizeof(uint32_t)); }

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
    for (std::string_view line; text::TakeLine(rest, line);) {
        text::TakeWord(line);
        if (text::TakeWord(line) != id) continue;
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
