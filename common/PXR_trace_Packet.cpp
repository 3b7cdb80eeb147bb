// Packets, and what is recorded of the process for all of them: its command name, and whether tracing is on.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_thread.h"
#include "libplatform/PXR_trace.h"

namespace trace {

constinit std::atomic<unsigned> g_state{0};

namespace {

std::mutex g_commandMutex;  // guards the two below
CommandName g_command = {};
char g_originLetter = 'O';

// The text field may be filled to its last byte, without a terminator.
[[gnu::format(printf, 3, 0)]] void SetText(PXR_trace_message& message, size_t limit, const char* format, va_list args) {
    char text[PXR_TRACE_TEXT_SIZE + 1];
    const int wanted = format == nullptr ? 0 : vsnprintf(text, limit + 1, format, args);
    if (wanted <= 0) return;
    message.length = static_cast<uint32_t>(std::min(static_cast<size_t>(wanted), limit));
    memcpy(message.text, text, message.length);
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

}  // namespace trace

void PXR_set_command_name(const char* argv0) {
    if (argv0 == nullptr) return;
    const char* slash = strrchr(argv0, '/');
    const char* name = slash == nullptr ? argv0 : slash + 1;
    const std::lock_guard lock(trace::g_commandMutex);
    trace::CopyName(trace::g_command, name);
    trace::g_originLetter = strcmp(name, "pxragt") == 0 ? 'A' : 'O';
}
