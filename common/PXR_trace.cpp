#include "libplatform/PXR_trace.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "common/PXR_trace_Connection.h"
#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_thread.h"

namespace trace {

constinit std::atomic<unsigned> g_state{0};

namespace {

std::mutex g_commandMutex;  // guards the two below
CommandName g_command = {};
char g_originLetter = 'O';

Connection g_connection;

// The text field may be filled to its last byte, without a terminator.
[[gnu::format(printf, 3, 0)]] void SetText(PXR_trace_message& message, size_t limit, const char* format, va_list args) {
    char text[PXR_TRACE_TEXT_SIZE + 1];
    const int wanted = format == nullptr ? 0 : vsnprintf(text, limit + 1, format, args);
    if (wanted <= 0) return;
    message.length = static_cast<uint32_t>(std::min(static_cast<size_t>(wanted), limit));
    memcpy(message.text, text, message.length);
}

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

void CopyCommandName(CommandName& name) {
    const std::lock_guard lock(g_commandMutex);
    memcpy(name, g_command, sizeof name);
}

char OriginLetter() {
    const std::lock_guard lock(g_commandMutex);
    return g_originLetter;
}

PXR_trace_packet EmptyPacket(PXR_trace_type type) {
    PXR_trace_packet packet;
    memset(&packet, 0, sizeof packet);
    memcpy(packet.magic, PXR_TRACE_MAGIC, sizeof packet.magic);
    packet.type = static_cast<uint8_t>(type);
    return packet;
}

PXR_trace_packet MakeMessage(int mask, int level, int header, size_t limit, const char* format, va_list args) {
    PXR_trace_packet packet = EmptyPacket(PXR_TRACE_TYPE_MESSAGE);
    PXR_trace_message& message = packet.body.message;
    message.time = time(nullptr);
    message.mask = static_cast<uint32_t>(mask);
    message.level = static_cast<uint32_t>(level);
    message.header = static_cast<uint32_t>(header);
    CopyName(message.thread, PXR_THREAD_SELFNAME());
    SetText(message, limit, format, args);
    return packet;
}

void Trace(int mask, int level, int header, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Emit(mask, level, header, format, args);
    va_end(args);
}

void SendPacket(const PXR_trace_packet& packet) {
    g_connection.Send(packet);
}

}  // namespace trace

using trace::CallerGuard;

int PXR_trace_init() {
    const CallerGuard guard;
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    if (trace::KeepsIpmiLog()) trace::OpenIpmiLog(config);
    if (!trace::g_connection.Open()) return -1;
    trace::g_state.fetch_or(trace::kSwitchedOn, std::memory_order_relaxed);
    return 0;
}

int PXR_trace_term() {
    const CallerGuard guard;
    const std::lock_guard lock(trace::g_connection.Mutex());
    trace::g_state.fetch_and(~trace::kSwitchedOn, std::memory_order_relaxed);
    trace::g_ipmiLog.Close();
    trace::g_connection.CloseLocked();
    return 0;
}

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

void PXR_set_command_name(const char* argv0) {
    if (argv0 == nullptr) return;
    const char* slash = strrchr(argv0, '/');
    const char* name = slash == nullptr ? argv0 : slash + 1;
    const std::lock_guard lock(trace::g_commandMutex);
    trace::CopyName(trace::g_command, name);
    trace::g_originLetter = strcmp(name, "pxragt") == 0 ? 'A' : 'O';
}

void KvRasLog(int level, const char* sourceFile, int line, const char* format, ...) {
    struct RasLevel {
        const char* name;
        int traceLevel;  // -1: not written
    };
    static constexpr RasLevel kLevels[] = {{"GAP", -1}, {"Error", 5}, {"Trace", 10}, {"Debug", 30}};
    constexpr int kLevelCount = std::size(kLevels);
    if (!trace::ReachesDaemon() || level < 0 || level >= kLevelCount || kLevels[level].traceLevel < 0) return;
    const CallerGuard guard;
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
