#include <limits.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "common/PXR_texts.h"
#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_trace.h"

namespace trace {

namespace {

constexpr const char* kVariantLink = "/opt/velmora/lantrel/lib/lib10platform.so";
constexpr std::string_view kVariantWithIpmiLog = "libplatform.so.1.0.0";

MessageLog g_singleTrace;

[[gnu::format(printf, 3, 0)]] void WriteSingle(int mask, int level, const char* format, va_list args) {
    const CallerGuard guard;
    if (!g_singleTrace.Wants(level)) return;
    g_singleTrace.Write(MakeMessage(mask, level, kNewLine, PXR_TRACE_TEXT_SIZE, format, args).body.message);
}

}  // namespace

MessageLog g_ipmiLog;

int MessageLog::Open(const char* path, const PXR_trace_config& config) {
    const int error = file_.Open(path, config.traceSize);
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

// The installation whose plug-in link leads to the first generation of the library does.
bool KeepsIpmiLog() {
    char target[PATH_MAX];
    const ssize_t length = readlink(kVariantLink, target, sizeof target);
    return length > 0 &&
           std::string_view(target, static_cast<size_t>(length)).find(kVariantWithIpmiLog) != std::string_view::npos;
}

bool OpenIpmiLog(const PXR_trace_config& config) {
    const bool editTool = (State() & kEditTool) != 0;
    const int error = g_ipmiLog.Open(editTool ? PXR_TRACE_IPMI_EDIT_LOG : PXR_TRACE_IPMI_LOG, config);
    if (error == 0) return true;
    CommandName command;
    CopyCommandName(command);
    char number[12];
    snprintf(number, sizeof number, "%d", error);
    texts::Log<texts::Id::IpmiLogNotOpened>(LOG_ERR, command, "open", number);
    return false;
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

int PXR_single_trace_init(const char* path) {
    const trace::CallerGuard guard;
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    return trace::g_singleTrace.Open(path, config) == 0 ? 0 : -1;
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

void PXR_Single_trace_term() {
    const trace::CallerGuard guard;
    trace::g_singleTrace.Close();
}

int PXR_trace_init_ipmi_pxraaedit_log() {
    const trace::CallerGuard guard;
    trace::g_state.fetch_or(trace::kEditTool, std::memory_order_relaxed);
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    return trace::OpenIpmiLog(config) ? 0 : -1;
}

int PXR_trace_term_ipmi_pxraaedit_log() {
    const trace::CallerGuard guard;
    trace::g_ipmiLog.Close();
    return 0;
}
