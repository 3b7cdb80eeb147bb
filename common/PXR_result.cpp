// The report of a failure: its code and its text, to the trace.
#include "common/PXR_result.h"

#include "common/PXR_texts.h"
#include "common/PXR_trace_internal.h"
#include "cover/Heap.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_trace.h"

char* PXR_GetErrCodeMes(const char* catalogue, uint32_t numberOrCode) {
    char* text = nullptr;
    const int number = static_cast<int>(numberOrCode & 0xFFFF);
    return GetCatMessageLocale(catalogue, texts::kReasons, number, &text) == 0 ? text : nullptr;
}

uint32_t PXR_ReportError(uint32_t code, std::source_location where) {
    return PXR_ReportError(code, texts::kAgent, where);
}

uint32_t PXR_ReportError(uint32_t code, const char* catalogue, std::source_location where) {
    // The text of a report comes from a catalogue; what goes wrong there is not reported in turn.
    static thread_local bool reporting = false;
    if (!trace::ReachesDaemon() || reporting) return code;
    const trace::CallerGuard guard;
    struct Reporting {
        Reporting() { reporting = true; }
        Reporting(const Reporting&) = delete;
        Reporting& operator=(const Reporting&) = delete;
        ~Reporting() { reporting = false; }
    } const inProgress;
    const OwnedText message(PXR_GetErrCodeMes(catalogue, code));
    const OwnedText printed(PXR_GetErrCodeString(code));
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "%s %s (%d)\n", printed == nullptr ? "" : printed.get(),
              message == nullptr ? "" : message.get(), static_cast<int>(where.line()));
    return code;
}
