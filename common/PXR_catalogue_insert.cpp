// Inserts: messages whose numbered places are filled.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "cover/Heap.h"
#include "libplatform/PXR_catalogue.h"

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Length of the placeholder at the front of the text ("%" and a number that does not begin with 0), 0 when there is
/// none. Its number comes out; one beyond 32 bits stops at the largest value, which is above every possible count.
size_t TakePlaceholder(const char* text, uint32_t& number) {
    if (text[0] != '%' || !IsDigit(text[1]) || text[1] == '0') return 0;
    uint64_t value = 0;
    size_t length = 1;
    for (; IsDigit(text[length]); length++) {
        value = value * 10 + static_cast<uint64_t>(text[length] - '0');
        if (value > UINT32_MAX) value = UINT32_MAX;
    }
    number = static_cast<uint32_t>(value);
    return length;
}

struct Inserts {
    uint32_t count;
    const char** texts;
    const char* fallback;

    /// What placeholder `number`, written as `placeholder`, becomes.
    std::string_view Replace(uint32_t number, std::string_view placeholder) const {
        if (number <= count) {
            const char* const insert = texts == nullptr ? nullptr : texts[number - 1];
            return insert == nullptr ? "" : insert;
        }
        return fallback == nullptr ? placeholder : fallback;
    }
};

/// Hands the pieces of the finished text to `take`, in order. Used twice: to measure and to copy.
template <typename Take>
void ForEachPiece(const char* text, const Inserts& inserts, Take take) {
    while (*text != '\0') {
        const char* const mark = strchrnul(text + (*text == '%' ? 1 : 0), '%');
        uint32_t number = 0;
        const size_t length = TakePlaceholder(text, number);
        if (length > 0) take(inserts.Replace(number, {text, length}));
        take({text + length, static_cast<size_t>(mark - text) - length});
        text = mark;
    }
}

}  // namespace

uint32_t InsertInsMessage(const char* text, int count, const char** inserts, const char* fallback, char** out) {
    if (out == nullptr) return PXR_ReportError(MakeResult(fn::kInsertInsMessage, Reason::NullArgument));
    if (text == nullptr) {
        *out = nullptr;
        return 0;
    }
    const Inserts replacements{count > 0 ? static_cast<uint32_t>(count) : 0, inserts, fallback};
    uint64_t size = 1;
    ForEachPiece(text, replacements, [&size](std::string_view piece) { size += piece.size(); });
    if (size > PTRDIFF_MAX) return PXR_ReportError(MakeResult(fn::kInsertInsMessage, Reason::OutOfMemory));

    auto* const result = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (result == nullptr) return PXR_ReportError(MakeResult(fn::kInsertInsMessage, Reason::OutOfMemory));
    char* end = result;
    ForEachPiece(text, replacements, [&end](std::string_view piece) {
        memcpy(end, piece.data(), piece.size());
        end += piece.size();
    });
    *end = '\0';
    *out = result;
    return 0;
}

uint32_t GetCatInsMessage(int locale, const char* catalogue, int set, int number, int count, const char** inserts,
                          const char* fallback, char** out) {
    char* text = nullptr;
    const uint32_t code = GetCatMessage(locale, catalogue, set, number, &text);
    const OwnedText owned(text);
    return code != 0 ? code : InsertInsMessage(text, count, inserts, fallback, out);
}

uint32_t GetCatAlertMessage(int locale, const char* catalogue, int number, int count, const char** inserts,
                            char** out) {
    return GetCatInsMessage(locale, catalogue, texts::kAlerts, number, count, inserts, "", out);
}
