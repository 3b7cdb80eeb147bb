#include "platform_IF/src/ipmi_if.h"

#include "libplatform/KvPsSensor.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr uint32_t kReasonBits = 0xFFFF;
constexpr uint32_t kReasonTerminating = 0xB10D;

}  // namespace

uint32_t InitIpmiIf() {
    if (const uint32_t rc = KvPsInitializeSmbios()) return rc;
    const uint32_t rc = KvPsInitializeIpmi();
    if ((rc & kReasonBits) == kReasonTerminating) return rc;
    if (rc != 0) PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "No sensors of the BMC. (0x%08x)", rc);
    return 0;
}

uint32_t TerminateIpmiIf() {
    KvPsTerminateIpmi();
    return KvPsTerminateSmbios();
}
