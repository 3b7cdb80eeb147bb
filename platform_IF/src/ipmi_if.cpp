// The start and end of what the classes read from.

#include "platform_IF/src/ipmi_if.h"

#include "libplatform/KvDfFru.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr uint32_t kReasonBits = 0xFFFF;
constexpr uint32_t kReasonTerminating = 0xB10D;

}  // namespace

uint32_t InitIpmiIf() {
    if (const uint32_t rc = KvPsInitializeSmbios()) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "Not all structures of the firmware. (0x%08x)", rc);
    }
    // The layer below asks by it whether the board was replaced, as it starts.
    KvPsSetKvDf_GetFruInventoryDataFunc(KvDf_GetFruInventoryData);
    const uint32_t rc = KvPsInitializeIpmi();
    if ((rc & kReasonBits) == kReasonTerminating) return rc;
    if (rc != 0) PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "No sensors of the BMC. (0x%08x)", rc);
    return 0;
}

uint32_t TerminateIpmiIf() {
    KvPsTerminateIpmi();
    return KvPsTerminateSmbios();
}
