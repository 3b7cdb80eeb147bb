#include "pxrtraced_Writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

namespace {

constexpr uint32_t kNewLine = 1;
constexpr size_t kBytesPerLine = 16;

bool IsControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
}

void SetText(PXR_trace_message& message, std::string_view text) {
    const size_t length = std::min(text.size(), sizeof message.text);
    memcpy(message.text, text.data(), length);
    message.length = static_cast<uint32_t>(length);
}

PXR_trace_message MessageNow(std::string_view text) {
    PXR_trace_message message{};
    message.time = time(nullptr);
    message.header = kNewLine;
    SetText(message, text);
    return message;
}

std::string FormatLine(const Sender& sender, const PXR_trace_message& message) {
    char line[PXR_TRACE_LINE_BUFFER_SIZE];
    return {line, PXR_trace_format_line(line, sender.command.c_str(), sender.pid, &message)};
}

std::string DumpLine(size_t offset, const uint8_t* bytes, size_t count) {
    std::string line(80, '\0');
    line.resize(static_cast<size_t>(snprintf(line.data(), line.size(), "%04X  ", static_cast<unsigned>(offset))));
    for (size_t i = 0; i < kBytesPerLine; ++i) {
        char cell[4] = "   ";
        if (i < count) snprintf(cell, sizeof cell, "%02X ", static_cast<unsigned>(bytes[i]));
        line += cell;
    }
    line += ' ';
    for (size_t i = 0; i < count; ++i)
        line += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
    return line += '\n';
}

}  // namespace

std::string CleanText(const char* field, size_t size) {
    std::string text(field, strnlen(field, size));
    std::replace_if(text.begin(), text.end(), IsControl, '.');
    return text;
}

TraceWriter::Log TraceWriter::OpenLog(const std::string& path, uint32_t limitKiB) {
    Log log(PXR_log_file_open(path.c_str(), limitKiB));
    if (log == nullptr) throw std::system_error(errno, std::generic_category(), path);
    return log;
}

void TraceWriter::Open(const std::string& logPath, const Filter& filter, const PXR_trace_config& config) {
    Log log;
    Log packetTrace;
    if (config.networkLogMode != 0) log = OpenLog(logPath, config.traceSize);
    if (config.packetTraceMode != 0) packetTrace = OpenLog(config.packetTraceFile, config.packetTraceSize);
    filter_ = filter;
    log_ = std::move(log);
    packetTrace_ = std::move(packetTrace);
}

void TraceWriter::WriteMessage(const Sender& sender, const PXR_trace_message& message) {
    if (log_ == nullptr || !filter_.Passes(message)) return;
    const size_t length = strnlen(message.text, std::min<size_t>(message.length, sizeof message.text));
    const bool endsLine = length > 0 && message.text[length - 1] == '\n';
    std::string text = CleanText(message.text, length);
    if (endsLine) text.back() = '\n';  // the one line break that a message may have is its last character
    PXR_trace_message clean = message;
    SetText(clean, text);
    const std::string thread = CleanText(message.thread, sizeof message.thread - 1);
    memcpy(clean.thread, thread.c_str(), thread.size() + 1);
    const std::string line = FormatLine(sender, clean);
    PXR_log_file_write(log_.get(), line.data(), line.size());
}

void TraceWriter::WriteData(const Sender& sender, const PXR_trace_data& data) {
    if (packetTrace_ == nullptr || data.count == 0 || data.count > sizeof data.data) return;
    const std::string title = CleanText(data.name, sizeof data.name) + ", " + std::to_string(data.count) + " bytes\n";
    std::string lines = FormatLine(sender, MessageNow(title));
    for (size_t done = 0; done < data.count; done += kBytesPerLine) {
        lines += DumpLine(done, data.data + done, std::min<size_t>(data.count - done, kBytesPerLine));
    }
    PXR_log_file_write(packetTrace_.get(), lines.data(), lines.size());
}

void TraceWriter::WriteNote(std::string_view text) {
    if (log_ == nullptr) return;
    const std::string line = FormatLine({"pxrtraced", static_cast<uint32_t>(getpid())}, MessageNow(text));
    PXR_log_file_write(log_.get(), line.data(), line.size());
}
