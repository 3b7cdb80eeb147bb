// The system resources: I/O port ranges, interrupt lines and DMA channels.

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/TextCursor.h"
#include "platform_IF/src/proc_if.h"
#include "platform_IF/src/proc_if_Lists.h"

// Found by their arguments, hence outside of the namespace below.
static void FreeTexts(const SysresPort& record) {
    std::free(record.device);
    std::free(record.typeText);
}
static void FreeTexts(const SysresIrqDma& record) {
    std::free(record.device);
    std::free(record.typeText);
}

namespace {

/// A kind of resource, as its records tell.
struct Kind {
    uint32_t code;
    std::string_view text;
};
constexpr Kind kPort{4, "I/O"};
constexpr Kind kInterrupt{5, "IRQ"};
constexpr Kind kDma{6, "DMA"};

// The interrupt list is read in pieces of this size at most; of a piece's text, that many characters count.
constexpr size_t kInterruptLineMax = 1024;
constexpr size_t kInterruptTextMax = 255;

/// Appends a record, completed by its index, device and kind. @return false without memory
template <typename Record>
bool Append(ListInMaking<Record>& list, Record record, std::string_view device, const Kind& kind) {
    OwnedText ownDevice = CopyForRecord(device);
    OwnedText ownType = CopyForRecord(kind.text);
    if (!ownDevice || !ownType) return false;
    record.index = static_cast<uint32_t>(list.Count()) + 1;
    record.device = ownDevice.get();
    record.typeCode = kind.code;
    record.typeText = ownType.get();
    if (list.Append(record) == nullptr) return false;
    static_cast<void>(ownDevice.release());
    static_cast<void>(ownType.release());
    return true;
}

bool IsBlank(std::string_view line) {
    text::SkipBlanks(line);
    return line.empty();
}

/// Reads the entries "<key>:<device>" of a list until a line does not begin with a key. Lines without a colon are none.
/// @param takeKey  bool(std::string_view& line, Record&): takes the key off the line's front; false: no key
/// @return false without memory
template <typename Record, typename TakeKey>
bool ReadEntries(std::string_view text, const Kind& kind, TakeKey takeKey, ListInMaking<Record>& list) {
    for (std::string_view line; text::TakeLine(text, line);) {
        if (IsBlank(line)) continue;
        Record record{};
        std::string_view rest = line;
        if (!takeKey(rest, record)) return true;
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos && !Append(list, record, line.substr(colon + 1), kind)) return false;
    }
    return true;
}

/// Reads a list of the kernel's that consists of such entries.
template <typename Record, typename TakeKey>
uint32_t ReadList(const char* path, uint32_t function, const Kind& kind, TakeKey takeKey, int* count, Record** list) {
    if (!PrepareOutputs(count, list)) return PXR_ReportError(MakeResult(function, Reason::NullArgument));
    KernelList file;
    if (const uint32_t failure = file.Read(path, function)) return PXR_ReportError(failure);
    ListInMaking<Record> records;
    if (!ReadEntries(file.Text(), kind, takeKey, records)) {
        return PXR_ReportError(MakeResult(function, Reason::OutOfMemory));
    }
    records.HandOut(count, list);
    return 0;
}

// ---- Interrupts

bool IsCountCharacter(char c) {
    return c == ' ' || (c >= '0' && c <= '9');
}
bool IsControllerCharacter(unsigned char c) {
    return (c < 0x80 && std::isalpha(c) != 0) || c == '\\' || c == '-';
}

/// Where the device names begin behind the colon of an interrupt line:
/// blanks and digits (the counts), letters and dashes (the controller), blanks.
const char* SkipCountsAndController(const char* at, const char* end) {
    at = std::find_if_not(at, end, IsCountCharacter);
    at = std::find_if_not(at, end, IsControllerCharacter);
    return std::find_if_not(at, end, [](char c) { return c == ' '; });
}

char* MoveDown(const char* from, const char* to, char* out) {
    std::memmove(out, from, static_cast<size_t>(to - from));
    return out + (to - from);
}

/// Reduces the interrupt list, in place, to its numbered lines: number, colon, device names. This is what
///     grep "^[ 0-9]*:" | sed -e "s/\(^[ 0-9]*\):[ 0-9]*[A-Za-z\-]* */\1:/g"
/// makes of it.
void ReduceInterrupts(std::string& list) {
    list += '\n';  // the end of a last line that has none
    char* out = list.data();
    const char* const end = out + list.size() - 1;
    for (const char* line = out; line < end;) {
        const char* lineEnd = std::find(line, end, '\n');
        const char* colon = std::find_if_not(line, lineEnd, IsCountCharacter);
        if (colon != lineEnd && *colon == ':') {
            const char* device = SkipCountsAndController(colon + 1, lineEnd);
            out = MoveDown(line, colon + 1, out);
            out = MoveDown(device, lineEnd, out);
            *out++ = '\n';
        }
        line = lineEnd + 1;
    }
    list.resize(static_cast<size_t>(out - list.data()));
}

/// Takes the next line with its line end off the text, or as much of it as is read at a time.
bool TakePiece(std::string_view& text, std::string_view& piece) {
    if (text.empty()) return false;
    const size_t lineEnd = std::min(text.find('\n'), text.size() - 1);
    piece = text.substr(0, std::min(lineEnd + 1, kInterruptLineMax));
    text.remove_prefix(piece.size());
    return true;
}

/// The text behind the colon without its last character (the line end); cut off where it is too long.
std::string_view DeviceText(std::string_view rest) {
    rest = rest.substr(0, kInterruptTextMax);
    return rest.substr(0, rest.size() - 1);
}

/// Takes a number as the records hold it: with its sign.
bool TakeSigned(std::string_view& line, uint32_t& number) {
    int32_t value = 0;
    if (!text::TakeNumber(line, value)) return false;
    number = static_cast<uint32_t>(value);
    return true;
}

}  // namespace

uint32_t GetSysresPort(int* count, SysresPort** list) {
    const auto takeRange = [](std::string_view& line, SysresPort& port) {
        return text::TakeNumber(line, port.start, 16) && text::Take(line, '-') && text::TakeNumber(line, port.end, 16);
    };
    return ReadList("/proc/ioports", fn::kGetSysresPort, kPort, takeRange, count, list);
}

uint32_t GetSysresIrq(int* count, SysresIrqDma** list) {
    if (!PrepareOutputs(count, list)) return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::NullArgument));
    KernelList file;
    if (const uint32_t failure = file.Read("/proc/interrupts", fn::kGetSysresIrq)) return PXR_ReportError(failure);
    ReduceInterrupts(file.Content());

    ListInMaking<SysresIrqDma> lines;
    std::string_view text = file.Text();
    for (std::string_view piece; TakePiece(text, piece);) {
        SysresIrqDma line{};
        if (!TakeSigned(piece, line.number) || !text::Take(piece, ':') || piece.empty()) {
            return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::KernelListFormat));
        }
        if (!Append(lines, line, DeviceText(piece), kInterrupt)) {
            return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::OutOfMemory));
        }
    }
    lines.HandOut(count, list);
    return 0;
}

uint32_t GetSysresDma(int* count, SysresIrqDma** list) {
    const auto takeChannel = [](std::string_view& line, SysresIrqDma& channel) {
        return TakeSigned(line, channel.number);
    };
    return ReadList("/proc/dma", fn::kGetSysresDma, kDma, takeChannel, count, list);
}

void FreeSysresPort(SysresPort* list, int count) {
    FreeRecords(list, count);
}

void FreeSysresIrqDma(SysresIrqDma* list, int count) {
    FreeRecords(list, count);
}
