#pragma once
/// @file
/// What the files of the trace facility share.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>

#include "common/PXR_thread_internal.h"
#include "common/PXR_trace_LogFile.h"
#include "libplatform/trace_protocol.h"

namespace trace {

/// Whether a trace call has anything to do: zero while tracing is off, which is all that such a call tests.
enum : unsigned { kSwitchedOn = 1, kEditTool = 2 };
extern std::atomic<unsigned> g_state;

inline unsigned State() {
    return g_state.load(std::memory_order_relaxed);
}
inline bool IsOn() {
    return State() != 0;
}
inline bool IsSwitchedOn() {
    return (State() & kSwitchedOn) != 0;
}
/// Whether a message that is not about IPMI traffic would be sent.
inline bool ReachesDaemon() {
    return State() == kSwitchedOn;
}

/// The recorded command name, cut at a file name's usual limit.
using CommandName = char[256];
void CopyCommandName(CommandName& name);
/// Who speaks in the system log: 'A' the agent, 'O' any other command.
char OriginLetter();

/// Header flags of a message.
inline constexpr int kNewLine = 1;
inline constexpr int kContinued = 0;

PXR_trace_packet EmptyPacket(PXR_trace_type type);
/// @param limit  characters that the text may have, up to PXR_TRACE_TEXT_SIZE
[[gnu::format(printf, 5, 0)]] PXR_trace_packet MakeMessage(int mask, int level, int header, size_t limit,
                                                           const char* format, va_list args);
/// Traces one message where PXR_trace would, with any header flag.
[[gnu::format(printf, 4, 5)]] void Trace(int mask, int level, int header, const char* format, ...);
/// Sends a packet to the daemon, or drops it.
void SendPacket(const PXR_trace_packet& packet);

/// Copies as much of a text as leaves room for the terminator, and clears the rest. null counts as "".
template <size_t N>
void CopyName(char (&target)[N], const char* source) {
    const size_t length = source == nullptr ? 0 : strnlen(source, N - 1);
    if (length > 0) memcpy(target, source, length);
    memset(target + length, 0, N - length);
}

/// Stands around all tracing: it changes no errno, for those who look at theirs after a failing call, and no thread is
/// cancelled in it, where that would lose a descriptor or half a line.
class CallerGuard {
public:
    CallerGuard() : errno_(errno) {}
    CallerGuard(const CallerGuard&) = delete;
    CallerGuard& operator=(const CallerGuard&) = delete;
    ~CallerGuard() { errno = errno_; }

private:
    int errno_;
    CancelBlock noCancel_;
};

/// A log file of trace messages: everything up to a level.
class MessageLog {
public:
    /// @return 0 or an errno value
    int Open(const char* path, const PXR_trace_config& config, LogFile::Report* report);
    void Close();
    /// Whether the log is open and takes messages of this level.
    bool Wants(int level) const {
        const int highest = highestLevel_.load(std::memory_order_relaxed);
        return highest >= 0 && level <= highest;
    }
    void Write(const PXR_trace_message& message);

private:
    static constexpr int kClosed = -1;
    LogFile file_;
    std::atomic<int> highestLevel_{kClosed};
};

/// Tells the system log that a log file begins to fail.
void ReportFailingLog(const char* path);

extern MessageLog g_ipmiLog;      ///< messages of mask 0x8000
extern MessageLog g_singleTrace;  ///< what command-line tools trace

/// Whether this process writes into an IPMI log at present.
inline bool WritesIpmiLog() {
    return IsOn() && g_ipmiLog.Wants(PXR_TRACE_LEVEL_ERROR);
}

}  // namespace trace
