// Bytes in the trace: dumps as text, and binary data in packets of their own.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "common/PXR_trace_internal.h"
#include "cover/Heap.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr int kBytesPerLine = 16;
constexpr char kTableHead[] = " address   +0 +1 +2 +3 +4 +5 +6 +7 +8 +9 +A +B +C +D +E +F    0123456789ABCDEF\n";
constexpr char kRuler[] = "------------------------------------------------------------------------------\n";
static_assert(sizeof kRuler == 78 + 2);

constexpr char kDataMarker[] = "@Qel_01-01_@";
constexpr size_t kDataMarkerLength = sizeof kDataMarker - 1;

/// One line of a dump: the bytes in hexadecimal, padded to a full line's width, and as characters.
struct DumpLine {
    char hex[kBytesPerLine * 3 + 1];
    char characters[kBytesPerLine + 1];

    DumpLine(const uint8_t* data, int count) {
        for (int i = 0; i < kBytesPerLine; ++i) {
            char* const cell = hex + static_cast<ptrdiff_t>(i) * 3;
            if (i < count) {
                snprintf(cell, 4, "%02X ", static_cast<unsigned>(data[i]));
                characters[i] = data[i] >= 0x20 && data[i] < 0x7F ? static_cast<char>(data[i]) : '.';
            } else {
                memcpy(cell, "   ", 4);
            }
        }
        characters[std::min(count, kBytesPerLine)] = '\0';
    }
};

}  // namespace

int PXR_mem_trace(int mask, int level, const char* title, const uint8_t* data, int length) {
    if (!trace::IsOn()) return 0;
    trace::Trace(mask, level, trace::kNewLine, "%s", title == nullptr ? "" : title);
    if (data == nullptr || length <= 0) return 0;
    trace::Trace(mask, level, trace::kContinued, "%s", kTableHead);
    trace::Trace(mask, level, trace::kContinued, "%s", kRuler);
    for (int left = length; left > 0; left -= kBytesPerLine, data += kBytesPerLine) {
        const DumpLine line(data, left);
        // Hexadecimal bytes and blanks for those that are missing stand in one text.
        trace::Trace(mask, level, trace::kContinued, "0x%08X %s   %s\n", reinterpret_cast<uintptr_t>(data), line.hex,
                     line.characters);
    }
    trace::Trace(mask, level, trace::kContinued, "\n");
    return 0;
}

int PXR_trace_sp(const char* name, const uint8_t* data, int length) {
    if (data == nullptr || length < 0 || !trace::IsSwitchedOn()) return 0;
    const trace::CallerGuard guard;
    const size_t total = kDataMarkerLength + static_cast<size_t>(length);
    const HeapOwned<uint8_t> copy(static_cast<uint8_t*>(malloc(total)));
    if (copy == nullptr) return -1;
    memcpy(copy.get(), kDataMarker, kDataMarkerLength);
    memcpy(copy.get() + kDataMarkerLength, data, static_cast<size_t>(length));
    PXR_trace_packet packet = trace::EmptyPacket(PXR_TRACE_TYPE_DATA);
    PXR_trace_data& piece = packet.body.data;
    trace::CopyName(piece.name, name);
    for (size_t sent = 0; sent < total; sent += piece.count) {
        piece.count = static_cast<uint32_t>(std::min<size_t>(total - sent, PXR_TRACE_DATA_MAX));
        memcpy(piece.data, copy.get() + sent, piece.count);
        memset(piece.data + piece.count, 0, PXR_TRACE_DATA_MAX - piece.count);
        trace::SendPacket(packet);
    }
    return 0;
}
