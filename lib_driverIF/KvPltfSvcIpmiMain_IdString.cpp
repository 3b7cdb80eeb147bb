// The texts of the BMC's records.

#include "lib_driverIF/KvPltfSvcIpmiMain_IdString.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <cwchar>

namespace ktx_ipmi {

namespace {

/// UCS-2, converted for the process's locale; what it has no character for becomes a question mark.
void ConvertUnicode(const uint8_t* text, uint32_t length, char* out, uint32_t size) {
    std::mbstate_t state{};
    uint32_t used = 0;
    for (uint32_t i = 0; i < length; ++i) {
        const auto wide = static_cast<wchar_t>(text[2 * i] | text[2 * i + 1] << 8);
        if (wide == L'\0') break;
        std::array<char, MB_LEN_MAX> bytes;
        size_t count = wcrtomb(bytes.data(), wide, &state);
        if (count == static_cast<size_t>(-1)) {
            state = {};
            bytes[0] = '?';
            count = 1;
        }
        if (used + count >= size) break;
        memcpy(out + used, bytes.data(), count);
        used += static_cast<uint32_t>(count);
    }
    out[used] = '\0';
}

}  // namespace

unsigned BitsPerIdCharacter(uint8_t typeLength) {
    switch (typeLength >> 6) {
        case kUnicode:
            return 16;
        case kBcdPlus:
            return 4;
        case kSixBit:
            return 6;
        default:
            return 8;
    }
}

void GetIdString(const uint8_t* typeLength, char* out, uint32_t size) {
    if (size == 0) return;
    const uint32_t length = std::min<uint32_t>(*typeLength & kIdLengthBits, size - 1);
    const uint8_t* text = typeLength + 1;
    out[length] = '\0';
    switch (*typeLength >> 6) {
        case kUnicode:
            return ConvertUnicode(text, length, out, size);
        case kBcdPlus:
            return ConvertBcdPlusToAscii(text, length, out);
        case kSixBit:
            return Convert6BitAsciiToAscii(text, length, out);
        default:
            memcpy(out, text, length);
    }
}

void ConvertBcdPlusToAscii(const uint8_t* packed, uint32_t length, char* out) {
    ConvertString(packed, length, 4, kBcdPlusDigits, out);
}

void Convert6BitAsciiToAscii(const uint8_t* packed, uint32_t length, char* out) {
    constexpr std::string_view kSixBitAscii = " !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_";
    static_assert(kSixBitAscii.size() == 64);
    ConvertString(packed, length, 6, kSixBitAscii, out);
}

void ConvertString(const uint8_t* packed, uint32_t length, unsigned bits, std::string_view alphabet, char* out) {
    constexpr size_t kGroup = 3;
    const size_t perGroup = kGroup * 8 / bits;
    const size_t size = (length * bits + 7) / 8;  // the last group may be cut short
    const uint32_t mask = (1u << bits) - 1;
    for (size_t done = 0, at = 0; done < length; at += kGroup) {
        uint32_t group = 0;
        for (size_t i = std::min(kGroup, size - at); i-- > 0;)
            group = group << 8 | packed[at + i];
        for (size_t i = 0; i < perGroup && done < length; ++i, group >>= bits)
            out[done++] = alphabet[group & mask];
    }
}

}  // namespace ktx_ipmi
