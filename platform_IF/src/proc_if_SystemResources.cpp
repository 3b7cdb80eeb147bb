#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "common/PXR_data_access_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"
#include "libplatform/PXR_syscall.h"
#include "platform_IF/src/proc_if.h"

namespace {

constexpr uint32_t kTypePort = 4;
constexpr uint32_t kTypeInterrupt = 5;
constexpr uint32_t kTypeDma = 6;

// The interrupt list is read in pieces of this size at most; of a piece's text, that many characters count.
constexpr size_t kInterruptLineMax = 1024;
constexpr size_t kInterruptTextMax = 255;

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using OwnedText = std::unique_ptr<char, FreeMemory>;

// ---- Records

void FreeTexts(const SysresPort& record) {
    std::free(record.device);
    std::free(record.typeText);
}
void FreeTexts(const SysresIrqDma& record) {
    std::free(record.device);
    std::free(record.typeText);
}

template <typename Record>
void FreeList(Record* list, int count) {
    if (list == nullptr) return;
    std::for_each(list, list + std::max(count, 0), [](const Record& record) { FreeTexts(record); });
    std::free(list);
}

/// A list in the making: frees everything unless it is handed out.
template <typename Record>
class ListInMaking {
public:
    ListInMaking() = default;
    ~ListInMaking() { FreeList(list_, count_); }
    ListInMaking(const ListInMaking&) = delete;
    ListInMaking& operator=(const ListInMaking&) = delete;

    /// Appends a record and gives it its index and texts. @return null without memory
    Record* Append(std::string_view device, uint32_t typeCode, std::string_view typeText) {
        if (!MakeRoom()) return nullptr;
        OwnedText ownDevice = Copy(device);
        OwnedText ownType = Copy(typeText);
        if (!ownDevice || !ownType) return nullptr;
        Record& record = list_[count_++];
        record = Record{};
        record.index = static_cast<uint32_t>(count_);
        record.device = ownDevice.release();
        record.typeCode = typeCode;
        record.typeText = ownType.release();
        return &record;
    }

    void HandOut(int* count, Record** list) {
        *count = std::exchange(count_, 0);
        *list = std::exchange(list_, nullptr);
    }

private:
    static OwnedText Copy(std::string_view text) {
        OwnedText copy(static_cast<char*>(std::calloc(1, AdjustAlignmentSize(static_cast<uint32_t>(text.size() + 1)))));
        if (copy) std::copy(text.begin(), text.end(), copy.get());
        return copy;
    }

    bool MakeRoom() {
        if (count_ < room_) return true;
        const int room = std::max(16, 2 * room_);
        const uint32_t bytes = AdjustAlignmentSize(static_cast<uint32_t>(room) * sizeof(Record));
        void* longer = std::realloc(list_, bytes);
        if (longer == nullptr) return false;
        list_ = static_cast<Record*>(longer);
        room_ = room;
        return true;
    }

    Record* list_ = nullptr;
    int count_ = 0;
    int room_ = 0;
};

// ---- Text

void SkipBlanks(std::string_view& text) {
    const auto isBlank = [](unsigned char c) { return std::isspace(c) != 0; };
    text.remove_prefix(static_cast<size_t>(std::find_if_not(text.begin(), text.end(), isBlank) - text.begin()));
}

bool Take(std::string_view& text, char expected) {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(1);
    return true;
}

/// Takes a number off the front, blanks before it included. A number that does not fit gives the nearest that does.
template <typename Number>
bool TakeNumber(std::string_view& text, Number& value, int base) {
    SkipBlanks(text);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error == std::errc::invalid_argument) return false;
    if (error == std::errc::result_out_of_range) {
        value = text.starts_with('-') ? std::numeric_limits<Number>::min() : std::numeric_limits<Number>::max();
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

/// Takes the next line off the text, without its line end.
bool TakeLine(std::string_view& text, std::string_view& line) {
    if (text.empty()) return false;
    const size_t end = std::min(text.find('\n'), text.size());
    line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return true;
}

bool IsBlank(std::string_view line) {
    SkipBlanks(line);
    return line.empty();
}

// ---- The kernel's lists

/// A file of the kernel, whole.
class KernelList {
public:
    /// @param function  number of the reader, whose failure it is when the file cannot be read
    uint32_t Read(const char* path, uint32_t function) {
        char* buffer = nullptr;
        const uint32_t result = ReadFileToBuffer(path, &buffer, &size_);
        text_.reset(buffer);
        if (result == 0) return 0;
        const uint32_t noMemory = MakeResult(fn::kReadFileToBuffer, Reason::OutOfMemory);
        return MakeResult(function, result == noMemory ? Reason::OutOfMemory : Reason::KernelListRead);
    }
    std::string_view Text() const { return {text_.get(), static_cast<size_t>(size_)}; }
    char* Data() { return text_.get(); }

private:
    OwnedText text_;
    int size_ = 0;
};

/// Reads the entries "<key>:<device>" of a list until a line does not begin with a key. Lines without a colon are none.
/// @param takeKey  takes the key off the line's front; false: no key
/// @param append   appends the record of a device text and the key last taken; false: no memory
template <typename TakeKey, typename Append>
bool ReadEntries(std::string_view text, TakeKey takeKey, Append append) {
    for (std::string_view line; TakeLine(text, line);) {
        if (IsBlank(line)) continue;
        if (!takeKey(line)) return true;
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos && !append(line.substr(colon + 1))) return false;
    }
    return true;
}

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
/// @param text  with one byte of room behind it, for the end of a last line that has none
/// @return the length of what is left
size_t ReduceInterrupts(char* text, size_t size) {
    char* out = text;
    const char* const end = text + size;
    for (const char* line = text; line < end;) {
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
    return static_cast<size_t>(out - text);
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

// ---- Whole files

size_t ReportedSize(int fd) {
    struct stat info {};
    if (fstat(fd, &info) != 0) return 0;
    return static_cast<size_t>(std::clamp<int64_t>(info.st_size, 0, INT_MAX - 1));
}

/// @return false with errno
bool Enlarge(OwnedText& buffer, size_t size) {
    void* longer = size > INT_MAX ? nullptr : std::realloc(buffer.get(), AdjustAlignmentSize(size));
    if (longer == nullptr) {
        errno = ENOMEM;
        return false;
    }
    static_cast<void>(buffer.release());
    buffer.reset(static_cast<char*>(longer));
    return true;
}

/// Reads to the end of the file, into a buffer with room for one byte more.
/// @return false with errno
bool ReadToEnd(int fd, OwnedText& buffer, size_t& size) {
    constexpr size_t kStep = 4096;
    size_t room = ReportedSize(fd) + kStep;
    if (!Enlarge(buffer, room + 1)) return false;
    for (size = 0;;) {
        const int got = PXR_read(fd, buffer.get() + size, room - size);
        if (got < 0) return false;
        size += static_cast<size_t>(got);
        if (size < room) return true;
        room += room / 2;
        if (!Enlarge(buffer, room + 1)) return false;
    }
}

template <typename Record>
bool TakesNothing(int* count, Record** list) {
    if (count == nullptr || list == nullptr) return true;
    *count = 0;
    *list = nullptr;
    return false;
}

bool TakeRange(std::string_view& line, uint32_t& start, uint32_t& end) {
    return TakeNumber(line, start, 16) && Take(line, '-') && TakeNumber(line, end, 16);
}

}  // namespace

uint32_t ReadFileToBuffer(const char* path, char** buffer, int* size) {
    if (buffer != nullptr) *buffer = nullptr;
    if (size != nullptr) *size = 0;
    if (path == nullptr || buffer == nullptr || size == nullptr) {
        return MakeResult(fn::kReadFileToBuffer, Reason::NullArgument);
    }
    const CancelBlock whileOpen;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return MakeResult(fn::kReadFileToBuffer, Reason::KernelListRead);
    OwnedText text;
    size_t length = 0;
    const bool complete = ReadToEnd(fd, text, length);
    const bool noMemory = !complete && errno == ENOMEM;
    close(fd);
    if (!complete) {
        return MakeResult(fn::kReadFileToBuffer, noMemory ? Reason::OutOfMemory : Reason::KernelListRead);
    }
    text.get()[length] = '\0';
    *buffer = text.release();
    *size = static_cast<int>(length);
    return 0;
}

uint32_t GetSysresPort(int* count, SysresPort** list) {
    if (TakesNothing(count, list)) return PXR_ReportError(MakeResult(fn::kGetSysresPort, Reason::NullArgument));
    KernelList file;
    if (const uint32_t failure = file.Read("/proc/ioports", fn::kGetSysresPort)) return PXR_ReportError(failure);

    ListInMaking<SysresPort> ports;
    uint32_t start = 0;
    uint32_t end = 0;
    const auto takeKey = [&](std::string_view line) { return TakeRange(line, start, end); };
    const auto append = [&](std::string_view device) {
        SysresPort* port = ports.Append(device, kTypePort, "I/O");
        if (port == nullptr) return false;
        port->start = start;
        port->end = end;
        return true;
    };
    if (!ReadEntries(file.Text(), takeKey, append)) {
        return PXR_ReportError(MakeResult(fn::kGetSysresPort, Reason::OutOfMemory));
    }
    ports.HandOut(count, list);
    return 0;
}

uint32_t GetSysresIrq(int* count, SysresIrqDma** list) {
    if (TakesNothing(count, list)) return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::NullArgument));
    KernelList file;
    if (const uint32_t failure = file.Read("/proc/interrupts", fn::kGetSysresIrq)) return PXR_ReportError(failure);

    ListInMaking<SysresIrqDma> lines;
    std::string_view text{file.Data(), ReduceInterrupts(file.Data(), file.Text().size())};
    for (std::string_view piece; TakePiece(text, piece);) {
        int32_t number = 0;
        if (!TakeNumber(piece, number, 10) || !Take(piece, ':') || piece.empty()) {
            return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::KernelListFormat));
        }
        SysresIrqDma* line = lines.Append(DeviceText(piece), kTypeInterrupt, "IRQ");
        if (line == nullptr) return PXR_ReportError(MakeResult(fn::kGetSysresIrq, Reason::OutOfMemory));
        line->number = static_cast<uint32_t>(number);
    }
    lines.HandOut(count, list);
    return 0;
}

uint32_t GetSysresDma(int* count, SysresIrqDma** list) {
    if (TakesNothing(count, list)) return PXR_ReportError(MakeResult(fn::kGetSysresDma, Reason::NullArgument));
    KernelList file;
    if (const uint32_t failure = file.Read("/proc/dma", fn::kGetSysresDma)) return PXR_ReportError(failure);

    ListInMaking<SysresIrqDma> channels;
    int32_t number = 0;
    const auto takeKey = [&](std::string_view line) { return TakeNumber(line, number, 10); };
    const auto append = [&](std::string_view device) {
        SysresIrqDma* channel = channels.Append(device, kTypeDma, "DMA");
        if (channel == nullptr) return false;
        channel->number = static_cast<uint32_t>(number);
        return true;
    };
    if (!ReadEntries(file.Text(), takeKey, append)) {
        return PXR_ReportError(MakeResult(fn::kGetSysresDma, Reason::OutOfMemory));
    }
    channels.HandOut(count, list);
    return 0;
}

void FreeSysresPort(SysresPort* list, int count) {
    FreeList(list, count);
}

void FreeSysresIrqDma(SysresIrqDma* list, int count) {
    FreeList(list, count);
}
