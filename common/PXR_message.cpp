// Messages of the catalogues: printed on a stream, or written to the system log.
#include "libplatform/PXR_message.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/PXR_message_internal.h"
#include "common/PXR_texts.h"
#include "common/PXR_trace_internal.h"
#include "cover/Heap.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_trace.h"

// The texts of the catalogues are the formats here; the compiler cannot know them.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

constexpr size_t kTraceTextSize = 448;  // what PXR_output_message_trace keeps of a text, terminator included
constexpr char kIdentity[] = "pxragt";  // kept by openlog, so it must live for ever

char SeverityOfPriority(int priority) {
    if (priority <= LOG_ERR) return 'E';
    return priority == LOG_WARNING ? 'W' : 'I';
}

struct Message {
    const char* catalogue;
    int set;
    int number;
};

/// @param format  out: the text; null when the catalogue has none
/// @return the catalogue's error
uint32_t Fetch(const Message& message, OwnedText& format) {
    char* text = nullptr;
    const uint32_t error = GetCatMessageCollectLocale(message.catalogue, message.set, message.number, &text);
    format.reset(text);
    return error;
}

int OutputMessage(FILE* stream, const Message& message, OwnedText& format, va_list args) {
    if (const uint32_t error = Fetch(message, format)) return static_cast<int>(error);
    if (stream == nullptr) return EOF;
    vfprintf(stream, format.get(), args);
    fputc('\n', stream);
    return fflush(stream);
}

// ---- system log ----

enum class Output { SystemLog, Stream, Nowhere };

std::mutex g_outputMutex;  // guards the two below, and keeps openlog to closelog in one thread
Output g_output = Output::SystemLog;
FILE* g_stream = nullptr;

bool IsOutputDisabled() {
    const std::lock_guard lock(g_outputMutex);
    return g_output == Output::Nowhere;
}

// The identity is this line's alone: afterwards the process speaks under its own name and the usual facility again.
// (What a host has set with openlog itself cannot be asked for, so it cannot be restored.)
void WriteSystemLog(int priority, const char* head, const char* text) {
    openlog(kIdentity, 0, LOG_USER);
    syslog(LOG_DAEMON | priority, "%s %s", head, text);
    closelog();
}

void WriteOutput(int priority, const char* head, const char* text) {
    const std::lock_guard lock(g_outputMutex);
    switch (g_output) {
        case Output::SystemLog:
            WriteSystemLog(priority, head, text);
            break;
        case Output::Stream:
            fprintf(g_stream, "%s\n", text);
            fflush(g_stream);
            break;
        case Output::Nowhere:
            break;
    }
}

struct EventLevel {
    int priority;
    int number;
    char letter;
    const char* name;
};
constexpr EventLevel kEventLevels[] = {
    {LOG_CRIT, 906, 'W', "Warning"},
    {LOG_ERR, 907, 'E', "Error"},
    {LOG_WARNING, 906, 'W', "Warning"},
    {LOG_INFO, 905, 'I', "Information"},
};

/// No configuration file of the agent has switches for these messages: every level is on.
bool IsWanted(const EventLevel& /*level*/) {
    return true;
}

/// Copies of the inserts of a message, in one list that frees them.
class Inserts {
public:
    Inserts(int count, va_list args) : texts_(static_cast<char**>(calloc(Slots(count), sizeof(char*)))) {
        for (; texts_ != nullptr && count_ < count; ++count_) {
            const char* text = va_arg(args, const char*);
            texts_[count_] = strdup(text == nullptr ? "" : text);
            complete_ = texts_[count_] != nullptr;
            if (!complete_) break;
        }
    }
    Inserts(const Inserts&) = delete;
    Inserts& operator=(const Inserts&) = delete;
    ~Inserts() {
        for (int i = 0; i < count_; ++i)
            free(texts_[i]);
        free(texts_);
    }
    bool Complete() const { return texts_ != nullptr && complete_; }
    const char** Texts() const { return const_cast<const char**>(texts_); }
    /// The texts with blanks between them: what is left to say when the catalogue is lost.
    OwnedText Joined() const {
        char* joined = strdup("");
        for (int i = 0; i < count_ && joined != nullptr; ++i) {
            const OwnedText before(joined);
            if (asprintf(&joined, "%s%s%s", before.get(), i == 0 ? "" : " ", texts_[i]) < 0) joined = nullptr;
        }
        return OwnedText(joined);
    }
    int Count() const { return count_; }

private:
    static size_t Slots(int count) { return count > 0 ? static_cast<size_t>(count) : 1; }

    char** texts_;
    int count_ = 0;
    bool complete_ = true;
};

}  // namespace

int PXR_output_message(FILE* stream, const char* catalogue, int set, int number, ...) {
    OwnedText format;
    va_list args;
    va_start(args, number);
    const int result = OutputMessage(stream, {catalogue, set, number}, format, args);
    va_end(args);
    return result;
}

int PXR_output_message_trace(FILE* stream, const char* catalogue, int set, int number, ...) {
    OwnedText format;
    va_list args;
    va_start(args, number);
    const int result = OutputMessage(stream, {catalogue, set, number}, format, args);
    va_end(args);
    if (format == nullptr) return result;
    char text[kTraceTextSize];
    va_start(args, number);
    vsnprintf(text, sizeof text, format.get(), args);
    va_end(args);
    PXR_Single_trace(PXR_TRACE_MASK_TOOL_FILE, "%s\n", text);
    return result;
}

int PXR_sprint_message(char* buffer, const char* catalogue, int set, int number, ...) {
    if (buffer == nullptr) return EOF;
    OwnedText format;
    if (const uint32_t error = Fetch({catalogue, set, number}, format)) return static_cast<int>(error);
    va_list args;
    va_start(args, number);
    vsprintf(buffer, format.get(), args);
    va_end(args);
    return 0;
}

void PXR_syslog_message(int priority, const char* catalogue, int set, int number, int count, ...) {
    const trace::CallerGuard guard;
    if (IsOutputDisabled()) return;
    va_list args;
    va_start(args, count);
    const Inserts inserts(count, args);
    va_end(args);
    if (!inserts.Complete()) return;
    char* text = nullptr;
    GetCatInsMessage(KV_LOCALE_NEUTRAL, catalogue, set, number, inserts.Count(), inserts.Texts(), "", &text);
    const OwnedText message = text != nullptr ? OwnedText(text) : inserts.Joined();
    char head[32];
    snprintf(head, sizeof head, "WXPLG%04dA%c-%c", number, trace::OriginLetter(), SeverityOfPriority(priority));
    WriteOutput(priority, head, message == nullptr ? "" : message.get());
}

void PutSyslogMessage(uint32_t messageId, int priority) {
    const trace::CallerGuard guard;
    for (const EventLevel& level : kEventLevels) {
        if (level.priority != priority || !IsWanted(level)) continue;
        char head[32];
        snprintf(head, sizeof head, "WXPLG%04dA-%c", level.number, level.letter);
        char* text = nullptr;
        GetCatMessage(KV_LOCALE_NEUTRAL, texts::kAgent, texts::kHardwareLog, static_cast<int>(messageId), &text);
        const OwnedText message(text);
        char line[1024];  // what a syslog daemon takes
        snprintf(line, sizeof line, "An alert occured at agent. (ID=0x%04x:LEVEL=%s:MSG=%s)", messageId, level.name,
                 message != nullptr ? message.get() : "");
        WriteOutput(priority, head, line);
    }
}

void PXR_set_syslog_output(FILE* stream) {
    const std::lock_guard lock(g_outputMutex);
    g_output = stream == nullptr ? Output::SystemLog : Output::Stream;
    g_stream = stream;
}

void PXR_disable_syslog_output() {
    const std::lock_guard lock(g_outputMutex);
    g_output = Output::Nowhere;
}
