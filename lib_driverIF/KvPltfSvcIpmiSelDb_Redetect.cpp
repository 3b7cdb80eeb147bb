// Entries that were handed out before and are seen again: they are withheld, and what may explain it is kept.

#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "common/PXR_message_internal.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "common/PXR_thread_internal.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

void TraceRedetection(const KVPS_SEL_ENTRY& entry) {
    std::array<uint8_t, sizeof entry> bytes;
    memcpy(bytes.data(), &entry, sizeof entry);
    char text[3 * sizeof entry + 1] = "";
    for (size_t i = 0; i < bytes.size(); ++i)
        snprintf(text + 3 * i, sizeof text - 3 * i, "%02X ", bytes[i]);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
              "The processed system event log was detected again. SEL=%s\n", text);
}

void ReportRedetection(const SelLog& log) {
    const CancelBlock block;
    PutSyslogMessage(texts::Of(texts::Id::EventsReadAgain).number, LOG_INFO);
    CopyFilesOfRedetection(log.Device());
}

uint32_t CheckRedetection(const SelLog& log, uint32_t function, const KVPS_SEL_ENTRY& entry, uint8_t& flags) {
    if ((flags & KVPS_SEL_CHECK_DATABASE) == 0 || !log.Knows(entry)) return 0;
    TraceRedetection(entry);
    if ((flags & KVPS_SEL_REPORT_REDETECTION) != 0) ReportRedetection(log);
    flags = static_cast<uint8_t>(flags & ~KVPS_SEL_REPORT_REDETECTION);
    return PXR_ReportError(MakeResult(function & kFunctionNumbers, kReasonRedetected));
}

}  // namespace ktx_ipmi
