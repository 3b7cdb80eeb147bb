// Start and end of the IPMI service layer.

#include <ctime>
#include <optional>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Bmc.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Sdr.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/PXR_trace.h"

namespace {

using namespace ktx_ipmi;

constexpr uint32_t kDriverNotOpened = MakeResult(fn::kInitializeIpmi, service_reason::kNotOpened);

void LearnBmcAddress() {
    uint8_t address = kBmcAddress;
    KvPsGetBmcAdr(&address);  // leaves it where the firmware does not tell
    g_bBmcAdr = address;
}

void LearnBmcCapability() {
    SetLogFunction(KvRasLog);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "InitBMCCapability. (%d)", InitBMCCapability() ? 1 : 0);
}

/// Sets the clock of the event log and finds the controllers. A clock that cannot be set is no reason to stop, nor is a
/// damaged repository: what was found before the damage serves.
/// @return 0; 0x6050B104; 0x6000B10D the process is terminating
uint32_t FindControllers() {
    IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(kDriverNotOpened);
    ClearSensorTables();
    SetSelTime(bracket.Handle(), g_bBmcAdr, static_cast<uint32_t>(time(nullptr)));
    const uint32_t rc = GetDeviceInfo(bracket);
    constexpr uint32_t kTerminating = MakeResult(fn::kNone, service_reason::kTerminating);
    return rc == kTerminating ? rc : 0;
}

bool HasCapacityOnDemand(int handle) {
    int pilot2 = 0;
    if (!IsPilot2(&pilot2) || pilot2 == 0) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "[init] not Supported Pilot2.");
        return false;
    }
    OemAnswer modifiers;
    const uint32_t rc = OEMGetModelModifiers(handle, g_bBmcAdr, &modifiers);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
              rc == 0 ? "[init] Supported Cod Model Blade. (%d)" : "[init] not Supported Cod Model Blade. (%d)",
              static_cast<int>(rc));
    return rc == 0;
}

uint32_t IdentifyBmc(int handle) {
    DeviceId id{};
    if (const uint32_t rc = GetDeviceId(handle, g_bBmcAdr, &id)) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "[init] Reading Device ID Failed. (%d)",
                  static_cast<int>(rc));
        return rc;
    }
    SetCoDBladeInfo(id, HasCapacityOnDemand(handle));
    return 0;
}

uint32_t ReadSensors(IpmiBracket& bracket) {
    if (g_dwSnsDevCnt == 0) return PXR_ReportError(MakeResult(fn::kInitializeIpmi, service_reason::kNoDevices));
    if (!MakeSdrTable()) return PXR_ReportError(MakeResult(fn::kInitializeIpmi, Reason::OutOfMemory));
    return GetAllSdr(bracket);
}

}  // namespace

uint32_t KvPsInitializeIpmi(void) {
    InitializeSELDatabase();
    LearnBmcAddress();
    LearnBmcCapability();
    if (const uint32_t rc = FindControllers()) return rc;
    LoadSelDeviceInfo();  // takes the event log's lock, which comes before the bracket

    std::optional<IpmiBracket> bracket(std::in_place);
    if (!*bracket) return ReportNotOpened(kDriverNotOpened);
    if (const uint32_t rc = IdentifyBmc(bracket->Handle())) {
        bracket.reset();
        KvPsTerminateIpmi();
        return rc;
    }
    return ReadSensors(*bracket);
}

uint32_t KvPsTerminateIpmi(void) {
    FreeSdrTable();
    TerminateSELDatabase();
    g_dwBmcTimezone = 0;
    return 0;
}
