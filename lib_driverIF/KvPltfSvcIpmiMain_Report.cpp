// What all functions of the IPMI service layer go by and report.

#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"

#include <signal.h>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_trace.h"

std::atomic<uint8_t> g_bBmcAdr{ktx_ipmi::kBmcAddress};

namespace ktx_ipmi {

uint32_t ReportNull(std::source_location where) {
    return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument), where);
}

uint32_t ReportNotOpened(uint32_t code, std::source_location where) {
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "An attempt to open the IPMI driver failed. %d",
              static_cast<int>(code));
    return PXR_ReportError(code, where);
}

bool ShallEnd() {
    if (IsTerminateProcess() != 0) return true;
    sigset_t pending;
    return sigpending(&pending) == 0 && (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1);
}

}  // namespace ktx_ipmi
