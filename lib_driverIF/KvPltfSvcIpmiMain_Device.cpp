// The BMC and the way to it.

#include <cstring>

#include "common/PXR_result.h"
#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvLibIpmi_State.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "libplatform/KvPsDevice.h"

uint32_t KvPsGetDeviceId(KVPS_DEVICE_ID* out) {
    if (out == nullptr) return ktx_ipmi::ReportNull();
    const ktx_ipmi::IpmiBracket bracket;
    if (!bracket) return ktx_ipmi::ReportNotOpened(ktx_ipmi::reason::kNotOpened);
    ktx_ipmi::DeviceId id{};
    if (const uint32_t rc = ktx_ipmi::GetDeviceId(bracket.Handle(), ktx_ipmi::kBmcAddress, &id)) return rc;
    static_assert(sizeof *out == sizeof id);
    memcpy(out, &id, sizeof id);
    return 0;
}

uint32_t KvPsGetIpmiInterface(KVPS_IPMI_INTERFACE* out) {
    if (out == nullptr) return ktx_ipmi::ReportNull();
    if (!ktx_ipmi::IsIpmiLibStarted()) return PXR_ReportError(ktx_ipmi::reason::kNotOpened);
    *out = {};
    out->slaveAddress = IPMI_SLAVE_ADDR;
    if (!IsIpmiIFUp()) return 0;
    out->type = IPMI_IFTYPE;
    out->dataRegister = IPMI_REG_DATA;
    out->statusRegister = IPMI_REG_STATUS;
    out->segment = g_pMMapSegmentAddress;
    return 0;
}
