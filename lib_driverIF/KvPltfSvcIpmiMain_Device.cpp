// The BMC and the way to it.

#include <cstring>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "libplatform/KvPsDevice.h"

namespace {

constexpr uint8_t kBmcAddress = 0x20;

}  // namespace

uint32_t KvPsGetDeviceId(KVPS_DEVICE_ID* out) {
    if (out == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument));
    const ktx_ipmi::IpmiBracket bracket;
    if (!bracket) return PXR_ReportError(ktx_ipmi::reason::kNotOpened);
    ktx_ipmi::DeviceId id{};
    if (const uint32_t rc = ktx_ipmi::GetDeviceId(bracket.Handle(), kBmcAddress, &id)) return rc;
    static_assert(sizeof *out == sizeof id);
    memcpy(out, &id, sizeof id);
    return 0;
}

uint32_t KvPsGetIpmiInterface(KVPS_IPMI_INTERFACE* out) {
    if (out == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument));
    if (!ktx_ipmi::IsIpmiLibStarted()) return PXR_ReportError(ktx_ipmi::reason::kNotOpened);
    *out = {
        .type = IPMI_IFTYPE,
        .slaveAddress = IPMI_SLAVE_ADDR,
        .dataRegister = IPMI_REG_DATA,
        .statusRegister = IPMI_REG_STATUS,
        .segment = g_pMMapSegmentAddress,
    };
    return 0;
}
