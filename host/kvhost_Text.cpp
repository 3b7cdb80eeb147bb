#include "host/kvhost_Text.h"

#include <iconv.h>
#include <iostream>

#include <cstdint>
#include <cstdio>
#include <memory>

namespace kvhost {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;
constexpr const char* kEllipsis = "\u2026";

/// Takes one character off the front; a byte that begins none is taken alone and gives kInvalid.
char32_t TakeCharacter(std::string_view& text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead < 0xE0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : 4;
    char32_t character = length == 1 ? lead : lead & (0xFF >> (length + 1));
    bool valid = lead < 0x80 || (lead >= 0xC2 && lead < 0xF5 && length <= text.size());
    for (size_t i = 1; valid && i < length; ++i) {
        valid = (byte(i) & 0xC0) == 0x80;
        character = character << 6 | (byte(i) & 0x3F);
    }
    // Longer than need be, a surrogate, or behind the last character.
    constexpr char32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000};
    valid =
        valid && character >= kLowest[length] && character <= 0x10FFFF && (character < 0xD800 || character > 0xDFFF);
    text.remove_prefix(valid ? length : 1);
    return valid ? character : kInvalid;
}

bool IsUtf8(std::string_view text) {
    while (!text.empty()) {
        if (TakeCharacter(text) == kInvalid) return false;
    }
    return true;
}

struct CloseConverter {
    void operator()(iconv_t converter) const { iconv_close(converter); }
};

std::string FromShiftJis(std::string_view text) {
    const iconv_t opened = iconv_open("UTF-8", "CP932");
    if (reinterpret_cast<intptr_t>(opened) == -1) return std::string(text);
    const std::unique_ptr<void, CloseConverter> converter(opened);

    std::string result(text.size() * 3, '\0');  // two bytes become three at most, one becomes three
    char* in = const_cast<char*>(text.data());
    size_t inLeft = text.size();
    char* out = result.data();
    size_t outLeft = result.size();
    while (iconv(converter.get(), &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1) && inLeft > 0 &&
           outLeft > 0) {
        *out++ = '?';
        --outLeft;
        ++in;
        --inLeft;
    }
    result.resize(result.size() - outLeft);
    return result;
}

size_t Width(char32_t c) {
    struct Range {
        char32_t first, last;
    };
    constexpr Range kWide[] = {{0x1100, 0x115F},   {0x2E80, 0x303E},  {0x3041, 0xA4CF}, {0xAC00, 0xD7A3},
                               {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},  {0xFF01, 0xFF60}, {0xFFE0, 0xFFE6},
                               {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};
    if (c >= 0x300 && c <= 0x36F) return 0;
    for (const Range& range : kWide) {
        if (c >= range.first && c <= range.last) return 2;
    }
    return 1;
}

}  // namespace

std::string ToUtf8(std::string_view text, bool japanese) {
    std::string result = japanese && !IsUtf8(text) ? FromShiftJis(text) : std::string(text);
    std::string_view rest = result;
    std::string clean;
    while (!rest.empty()) {
        const std::string_view before = rest;
        if (TakeCharacter(rest) == kInvalid) {
            clean += '?';
        } else {
            clean += before.substr(0, before.size() - rest.size());
        }
    }
    return clean;
}

std::string Printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::string_view before = text;
        const char32_t c = TakeCharacter(text);
        if (c == '\n' || c == '\t' || c == '\r') {
            result += ' ';
        } else if (c < 0x20 || (c >= 0x7F && c < 0xA0) || c == kInvalid) {
            result += '?';
        } else {
            result += before.substr(0, before.size() - text.size());
        }
    }
    return result;
}

size_t Columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        columns += Width(TakeCharacter(text));
    }
    return columns;
}

std::string Cut(std::string_view text, size_t columns) {
    if (Columns(text) <= columns) return std::string(text);
    if (columns == 0) return "";
    std::string_view rest = text;
    size_t used = 1;  // the ellipsis
    size_t kept = 0;
    while (!rest.empty()) {
        used += Width(TakeCharacter(rest));
        if (used > columns) break;
        kept = text.size() - rest.size();
    }
    return std::string(text.substr(0, kept)) + kEllipsis;
}

std::string Hex(unsigned value, int digits) {
    char text[16];
    snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

std::string HexBytes(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        text += (text.empty() ? "" : " ") + Hex(byte, 2).substr(2);
    return text;
}

void PrintError(const std::string& text) {
    std::cerr << "kvhost: " << Printable(text) << '\n';
}

}  // namespace kvhost
