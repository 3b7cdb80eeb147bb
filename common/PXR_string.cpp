// Trimming, splitting, checking and copying of texts.

#include "libplatform/PXR_string.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "common/PXR_string_internal.h"

namespace {

constexpr char kQuote = '"';

/// The first c outside double-quoted parts; the characters stay the caller's.
const char* FindOutsideQuotes(const char* text, char c) {
    bool quoted = false;
    for (; *text != '\0'; ++text) {
        if (*text == c && (!quoted || c == kQuote)) return text;
        if (*text == kQuote) quoted = !quoted;
    }
    return nullptr;
}

const char* SkipSpace(const char* text) {
    while (ascii::IsSpace(*text))
        ++text;
    return text;
}

bool IsPrintable(unsigned char c) {
    return isprint(c) != 0;
}

bool IsLeadByte(unsigned char c) {
    return (c >= 0x81 && c <= 0x84) || (c >= 0x87 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
}

bool IsTrailByte(unsigned char c) {
    return c >= 0x40 && c <= 0xFC;
}

}  // namespace

char* PXR_cut_space(char* text) {
    if (text == nullptr) return nullptr;
    char* const begin = text + (SkipSpace(text) - text);
    char* end = begin + strlen(begin);
    while (end > begin && ascii::IsSpace(end[-1]))
        --end;
    *end = '\0';
    return begin;
}

char* PXR_cut_comment(char* text) {
    char* const comment = PXR_next_pt(text, '#');
    return comment != nullptr && *comment != '\0' ? comment : nullptr;
}

char* PXR_skip_pt(char* text, int c) {
    if (text == nullptr) return nullptr;
    const char* const found = FindOutsideQuotes(text, static_cast<char>(c));
    return found != nullptr ? text + (found - text) : nullptr;
}

char* PXR_next_pt(char* text, int c) {
    char* const place = PXR_skip_pt(text, c);
    if (place == nullptr) return nullptr;
    *place = '\0';
    return place + 1;
}

char* PXR_cut_str(char* text) {
    char* const value = PXR_cut_space(text);
    if (value == nullptr) return nullptr;
    if (*value == kQuote) {
        char* const closing = strchr(value + 1, kQuote);
        if (closing == nullptr || closing[1] != '\0') return nullptr;
        *closing = '\0';
        return value + 1;
    }
    for (const char* c = value; *c != '\0'; ++c) {
        if (ascii::IsSpace(*c)) return nullptr;
    }
    return value;
}

int PXR_chk_empty(const char* text) {
    if (text == nullptr) return 1;
    const char first = *SkipSpace(text);
    return first == '\0' || first == '#' ? 1 : 0;
}

int PXR_chk_strchr(const char* text, const char* set) {
    if (text == nullptr || set == nullptr) return -1;
    for (; *set != '\0'; ++set) {
        if (FindOutsideQuotes(text, *set) != nullptr) return static_cast<unsigned char>(*set);
    }
    return -1;
}

int PXR_check_token(const char* text, const char* token, char separator) {
    if (text == nullptr || token == nullptr) return 0;
    std::string_view rest = text;
    for (;;) {
        const size_t end = rest.find(separator);
        if (rest.substr(0, end) == token) return 1;
        if (end == std::string_view::npos) return 0;
        rest.remove_prefix(end + 1);
    }
}

int PXR_calc_figure(int n, int base) {
    if (base < 2) return 0;
    const bool signedForm = base == 10 && n < 0;
    unsigned rest = signedForm ? 0U - static_cast<unsigned>(n) : static_cast<unsigned>(n);
    int figures = signedForm ? 2 : 1;
    while (rest >= static_cast<unsigned>(base)) {
        rest /= static_cast<unsigned>(base);
        ++figures;
    }
    return figures;
}

int PXR_is_exept_ank(const char* text) {
    if (text == nullptr) return 0;
    for (; *text != '\0'; ++text) {
        if (!IsPrintable(static_cast<unsigned char>(*text))) return 1;
    }
    return 0;
}

int PXR_is_exept_sjis(const char* text) {
    if (text == nullptr) return 0;
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (IsLeadByte(c) && IsTrailByte(static_cast<unsigned char>(text[1]))) {
            ++text;
        } else if (!IsPrintable(c)) {
            return 1;
        }
    }
    return 0;
}

char* PXR_chkstrcpy(char* dst, const char* src) {
    if (dst == nullptr) return nullptr;
    const char* const text = src != nullptr ? src : "";
    return static_cast<char*>(memcpy(dst, text, strlen(text) + 1));
}

char* PXR_cat_string(char* text, const char* more) {
    const size_t length = text != nullptr ? strlen(text) : 0;
    const size_t added = more != nullptr ? strlen(more) : 0;
    // On 32 bits two large texts can exceed the address space; realloc must not be asked for what is left of the sum.
    if (added >= std::numeric_limits<size_t>::max() - length) return nullptr;
    const bool appendsItself = text != nullptr && more == text;
    auto* const grown = static_cast<char*>(realloc(text, length + added + 1));
    if (grown == nullptr) return nullptr;
    if (added != 0) memmove(grown + length, appendsItself ? grown : more, added);
    grown[length + added] = '\0';
    return grown;
}

char* PXR_stristr(const char* text, const char* pattern) {
    if (text == nullptr || pattern == nullptr) return nullptr;
    const std::string_view wanted = pattern;
    std::string_view rest = text;
    while (rest.size() >= wanted.size()) {
        if (ascii::EqualIgnoreCase(rest.substr(0, wanted.size()), wanted)) return const_cast<char*>(rest.data());
        if (rest.empty()) break;
        rest.remove_prefix(1);
    }
    return nullptr;
}

uint32_t PXR_getDWORD(const uint8_t* bytes) {
    uint32_t value = 0;
    if (bytes != nullptr) memcpy(&value, bytes, sizeof(value));
    return value;
}

void PXR_putDWORD(uint8_t* bytes, uint32_t value) {
    if (bytes != nullptr) memcpy(bytes, &value, sizeof(value));
}
