// The log files of trace messages: lines, and which messages are written.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_trace.h"

namespace trace {

namespace {

[[gnu::format(printf, 3, 0)]] void WriteSingle(int mask, int level, const char* format, va_list args) {
    const CallerGuard guard;
    if (!g_singleTrace.Wants(level)) return;
    g_singleTrace.Write(MakeMessage(mask, level, kNewLine, PXR_TRACE_TEXT_SIZE, format, args).body.message);
}

}  // namespace

MessageLog g_ipmiLog;
MessageLog g_singleTrace;

int MessageLog::Open(const char* path, const PXR_trace_config& config, LogFile::Report* report) {
    const int error = file_.Open(path, config.traceSize, report);
    highestLevel_.store(error == 0 ? static_cast<int>(config.traceLevel) : kClosed, std::memory_order_relaxed);
    return error;
}

void MessageLog::Close() {
    highestLevel_.store(kClosed, std::memory_order_relaxed);
    file_.Close();
}

void MessageLog::Write(const PXR_trace_message& message) {
    CommandName command;
    CopyCommandName(command);
    char line[PXR_TRACE_LINE_BUFFER_SIZE];
    const size_t length = PXR_trace_format_line(line, command, static_cast<uint32_t>(getpid()), &message);
    file_.Write(line, length);
}

}  // namespace trace

size_t PXR_trace_format_line(char* line, const char* command, uint32_t pid, const PXR_trace_message* message) {
    constexpr size_t kLimit = PXR_TRACE_LINE_MAX;
    size_t length = 0;
    if (message->header == trace::kNewLine) {
        const auto when = static_cast<time_t>(message->time);
        tm local{};
        if (localtime_r(&when, &local) == nullptr) local = {};  // beyond every calendar: filled in part
        const int wanted = snprintf(
            line, kLimit + 1, "[%04lld/%02d/%02d %02d-%02d-%02d] %s[%d]: %.*s: ", local.tm_year + 1900LL,
            local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, command, static_cast<int>(pid),
            static_cast<int>(strnlen(message->thread, sizeof message->thread)), message->thread);
        length = std::min(static_cast<size_t>(std::max(wanted, 0)), kLimit);
    }
    const size_t textLength = strnlen(message->text, std::min<size_t>(message->length, sizeof message->text));
    const size_t taken = std::min(textLength, kLimit - length);
    memcpy(line + length, message->text, taken);
    length += taken;
    if (length == 0 || line[length - 1] != '\n') line[length++] = '\n';
    line[length] = '\0';
    return length;
}

int PXR_Single_trace(int mask, const char* format, ...) {
    va_list args;
    va_start(args, format);
    trace::WriteSingle(mask, PXR_TRACE_LEVEL_ERROR, format, args);
    va_end(args);
    return 0;
}

int PXR_Single_trace_pxraaedit(int level, int, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    trace::WriteSingle(PXR_TRACE_MASK_TOOL_FILE, level, format, args);
    va_end(args);
    return 0;
}
