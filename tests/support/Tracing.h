#pragma once
/// @file
/// What a piece of code traces, line by line.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "libplatform/PXR_trace.h"
#include "tests/support/TraceListener.h"

/// Tracing to a listening daemon.
class Tracing {
public:
    Tracing() { EXPECT_EQ(0, PXR_trace_init()); }
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;
    ~Tracing() { PXR_trace_term(); }

    /// What body traces, as "mask level header text".
    std::vector<std::string> LinesOf(const std::function<void()>& body) {
        const std::string begin = "0 0 0 begin";
        const std::string end = "0 0 0 end";
        PXR_trace_ext(0, 0, 0, "begin");
        body();
        PXR_trace_ext(0, 0, 0, "end");
        std::vector<std::string> lines;
        while (lines.empty() || lines.back() != end) {
            const auto packets = listener_.WaitFor(seen_ + 1);
            if (packets.size() <= seen_) break;
            for (; seen_ < packets.size(); ++seen_) {
                if (packets[seen_].type == PXR_TRACE_TYPE_MESSAGE) lines.push_back(Line(packets[seen_].body.message));
            }
        }
        EXPECT_EQ(end, lines.empty() ? "" : lines.back());
        const auto first = std::find(lines.begin(), lines.end(), begin);
        if (first == lines.end()) return {};
        return {first + 1, lines.end() - 1};
    }

private:
    static std::string Line(const PXR_trace_message& m) {
        char intro[64];
        std::snprintf(intro, sizeof intro, "%x %u %u ", m.mask, m.level, m.header);
        return intro + std::string(m.text, m.length);
    }

    TraceListener listener_;
    size_t seen_ = 0;
};
