// Strict conversions between texts and values.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "common/PXR_string_internal.h"
#include "libplatform/PXR_string.h"

namespace {

enum ConvertResult : int { kConverted = 0, kOverflow = 1, kBadCharacter = 2, kNoMemory = 3 };

/// Value of a digit in bases up to 16; 16 for a character that is none.
constexpr uint32_t DigitValue(char c) {
    if (c >= '0' && c <= '9') return static_cast<uint32_t>(c - '0');
    const char lower = ascii::ToLower(c);
    return lower >= 'a' && lower <= 'f' ? static_cast<uint32_t>(lower - 'a') + 10 : 16;
}

/// Converts a text of digits that must not exceed limit. A foreign character outweighs an overflow: such a text is no
/// number at all.
ConvertResult ConvertDigits(std::string_view digits, uint32_t base, uint32_t limit, uint32_t& value) {
    if (digits.empty()) return kBadCharacter;
    uint64_t sum = 0;
    bool fits = true;
    for (const char c : digits) {
        const uint32_t digit = DigitValue(c);
        if (digit >= base) return kBadCharacter;
        if (fits) sum = sum * base + digit;
        fits = fits && sum <= limit;
    }
    if (!fits) return kOverflow;
    value = static_cast<uint32_t>(sum);
    return kConverted;
}

ConvertResult ConvertWhole(const char* text, uint32_t base, uint32_t* out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    return ConvertDigits(text, base, std::numeric_limits<uint32_t>::max(), *out);
}

/// The forms with a prefix: "0x1F" and "017".
/// @return false when the number is a decimal one
bool ConvertPrefixed(std::string_view number, uint32_t& value, ConvertResult& result) {
    constexpr uint32_t kAnyWord = std::numeric_limits<uint32_t>::max();
    if (number.starts_with("0x") || number.starts_with("0X")) {
        result = ConvertDigits(number.substr(2), 16, kAnyWord, value);
        return true;
    }
    if (number.starts_with('0')) {
        result = ConvertDigits(number, 8, kAnyWord, value);
        return true;
    }
    return false;
}

int ConvertWord(const char* text, std::string_view on, std::string_view off, uint8_t* out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    const bool isOn = ascii::EqualIgnoreCase(text, on);
    if (!isOn && !ascii::EqualIgnoreCase(text, off)) return kBadCharacter;
    *out = isOn ? 1 : 0;
    return kConverted;
}

}  // namespace

int PXR_str2digit(const char* text, uint32_t* out) {
    return ConvertWhole(text, 10, out);
}
int PXR_str2hex(const char* text, uint32_t* out) {
    return ConvertWhole(text, 16, out);
}
int PXR_str2oct(const char* text, uint32_t* out) {
    return ConvertWhole(text, 8, out);
}
int PXR_str2uldigit(const char* text, uint32_t* out) {
    return PXR_str2digit(text, out);
}
int PXR_str2ulhex(const char* text, uint32_t* out) {
    return PXR_str2hex(text, out);
}
int PXR_str2uloct(const char* text, uint32_t* out) {
    return PXR_str2oct(text, out);
}
int PXR_str2ulong(const char* text, uint32_t* out) {
    return PXR_str2uint(text, out);
}

int PXR_str2int(const char* text, int32_t* out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    std::string_view number = text;
    uint32_t magnitude = 0;
    ConvertResult result = kConverted;
    bool negative = false;
    if (!ConvertPrefixed(number, magnitude, result)) {
        negative = number.starts_with('-');
        if (negative || number.starts_with('+')) number.remove_prefix(1);
        result = ConvertDigits(number, 10, negative ? 0x80000000U : 0x7FFFFFFFU, magnitude);
    }
    if (result == kConverted) *out = static_cast<int32_t>(negative ? 0U - magnitude : magnitude);
    return result;
}

int PXR_str2uint(const char* text, uint32_t* out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    std::string_view number = text;
    ConvertResult result = kConverted;
    if (ConvertPrefixed(number, *out, result)) return result;
    if (number.starts_with('+')) number.remove_prefix(1);
    return ConvertDigits(number, 10, std::numeric_limits<uint32_t>::max(), *out);
}

int PXR_str2str(const char* text, char** out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    std::string_view value = text;
    if (value.starts_with('"')) {
        if (value.find('"', 1) != value.size() - 1 || value.size() < 2) return kBadCharacter;
        value = value.substr(1, value.size() - 2);
    } else {
        for (const char c : value) {
            if (ascii::IsSpace(c)) return kBadCharacter;
        }
    }
    char* copy = nullptr;
    if (!value.empty()) {
        copy = strndup(value.data(), value.size());
        if (copy == nullptr) return kNoMemory;
    }
    *out = copy;
    return kConverted;
}

int PXR_str2bool(const char* text, uint8_t* out) {
    return ConvertWord(text, "TRUE", "FALSE", out);
}
int PXR_str2bool2(const char* text, uint8_t* out) {
    return ConvertWord(text, "ENABLED", "DISABLED", out);
}

int PXR_str2ipaddr(const char* text, uint32_t* out) {
    if (text == nullptr || out == nullptr) return kBadCharacter;
    std::string_view rest = text;
    uint32_t address = 0;
    for (int part = 0; part < 4; ++part) {
        const bool last = part == 3;
        const size_t end = last ? rest.size() : rest.find('.');
        uint32_t number = 0;
        if (end == std::string_view::npos) return kBadCharacter;
        if (ConvertDigits(rest.substr(0, end), 10, 255, number) != kConverted) return kBadCharacter;
        address = address << 8 | number;
        rest.remove_prefix(last ? end : end + 1);
    }
    *out = address;
    return kConverted;
}

void PXR_bool2str(char* buffer, uint8_t value) {
    PXR_chkstrcpy(buffer, value != 0 ? "True" : "False");
}

void PXR_bool2str2(char* buffer, uint8_t value) {
    PXR_chkstrcpy(buffer, value != 0 ? "Enabled" : "Disabled");
}

void PXR_ipaddr2str(char* buffer, uint32_t value) {
    if (buffer == nullptr) return;
    std::array<uint8_t, sizeof(value)> bytes{};
    memcpy(bytes.data(), &value, sizeof(value));
    sprintf(buffer, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
}
