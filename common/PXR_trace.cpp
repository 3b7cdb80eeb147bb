// Messages on their way: to the daemon, or to the IPMI log.
#include "libplatform/PXR_trace.h"

#include <cstdio>
#include <iterator>

#include "common/PXR_trace_internal.h"

namespace trace {

namespace {

[[gnu::format(printf, 4, 0)]] void Emit(int mask, int level, int header, const char* format, va_list args) {
    const CallerGuard guard;
    const bool toIpmiLog = mask == PXR_TRACE_MASK_IPMI;
    if (toIpmiLog ? !g_ipmiLog.Wants(level) : !ReachesDaemon()) return;
    const PXR_trace_packet packet = MakeMessage(mask, level, header, PXR_TRACE_TEXT_MAX, format, args);
    if (toIpmiLog) {
        g_ipmiLog.Write(packet.body.message);
    } else {
        SendPacket(packet);
    }
}

}  // namespace

void Trace(int mask, int level, int header, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(mask, level, header, format, args);
    va_end(args);
}

}  // namespace trace

int PXR_trace(int mask, int level, const char* format, ...) {
    if (!trace::IsOn()) return 0;
    va_list args;
    va_start(args, format);
    trace::Emit(mask, level, trace::kNewLine, format, args);
    va_end(args);
    return 0;
}

int PXR_trace_ext(int mask, int level, int headerFlag, const char* format, ...) {
    if (!trace::IsSwitchedOn()) return 0;
    va_list args;
    va_start(args, format);
    trace::Emit(mask, level, headerFlag, format, args);
    va_end(args);
    return 0;
}

void KvRasLog(int level, const char* sourceFile, int line, const char* format, ...) {
    struct RasLevel {
        const char* name;
        int traceLevel;  // -1: not written
    };
    static constexpr RasLevel kLevels[] = {{"GAP", -1}, {"Error", 5}, {"Trace", 10}, {"Debug", 30}};
    constexpr int kLevelCount = std::size(kLevels);
    if (!trace::ReachesDaemon() || level < 0 || level >= kLevelCount || kLevels[level].traceLevel < 0) return;
    const trace::CallerGuard guard;
    char message[PXR_TRACE_TEXT_MAX + 1] = "";  // more of it would not fit into a trace message
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        vsnprintf(message, sizeof message, format, args);
        va_end(args);
    }
    PXR_trace(PXR_TRACE_MASK_LIBRARY, kLevels[level].traceLevel, "[%s] %s (%s@%d)", kLevels[level].name, message,
              sourceFile == nullptr ? "" : sourceFile, line);
}
