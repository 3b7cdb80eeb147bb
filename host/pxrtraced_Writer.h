#pragma once
/// @file
/// What the trace daemon does with packets: filters messages and writes them to its log, and keeps binary data in the
/// packet trace file. Nothing in a packet is trusted.

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libplatform/PXR_trace.h"

/// Who sent a packet.
struct Sender {
    std::string command = "?";  ///< until the connection start tells
    uint32_t pid = 0;
};

/// What gets into the log.
struct Filter {
    std::vector<uint32_t> masks;  ///< a message passes when its mask is one of these; empty: any
    int level = 0;                ///< and its level is not above this

    bool Passes(const PXR_trace_message& message) const {
        const bool wanted = masks.empty() || std::ranges::find(masks, message.mask) != masks.end();
        return wanted && static_cast<int32_t>(message.level) <= level;
    }
};

class TraceWriter {
public:
    /// Opens the files that the settings ask for; those of an earlier call are closed. Also after the log was renamed.
    /// @throws std::system_error  a file cannot be opened (the earlier ones stay in use)
    void Open(const std::string& logPath, const Filter& filter, const PXR_trace_config& config);

    void WriteMessage(const Sender& sender, const PXR_trace_message& message);
    /// Writes nothing when the packet's count cannot be one.
    void WriteData(const Sender& sender, const PXR_trace_data& data);
    /// Writes a remark of the daemon itself.
    void WriteNote(std::string_view text);

private:
    struct CloseLog {
        void operator()(PXR_log_file* log) const { PXR_log_file_close(log); }
    };
    using Log = std::unique_ptr<PXR_log_file, CloseLog>;

    static Log OpenLog(const std::string& path, uint32_t limitKiB);

    Filter filter_;
    Log log_;          ///< null: network logging is off
    Log packetTrace_;  ///< null: packet tracing is off
};

/// A text of a fixed-size field, up to its first zero, in which no byte can break a line or drive a terminal: control
/// characters but the tab are shown as ".". Bytes above 0x7F stay (Japanese texts).
std::string CleanText(const char* field, size_t size);
