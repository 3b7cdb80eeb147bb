#pragma once
/// @file
/// The texts of sensor records and FRU images, in the four codings of the standard. Depends on nothing, so that
/// programs beside the library can read them the same way.

#include <cstdint>
#include <string_view>

namespace ktx_ipmi {

/// Coding of a text: bits 6 and 7 of its type/length byte.
enum IdCoding : uint8_t { kUnicode = 0, kBcdPlus = 1, kSixBit = 2, kEightBit = 3 };
/// The characters of BCD plus, by their codes.
inline constexpr std::string_view kBcdPlusDigits = "0123456789 -.:,_";
inline constexpr uint8_t kIdLengthBits = 0x1F;  ///< of the type/length byte in a sensor record: characters

/// Bits that a character takes in the coding of a type/length byte.
unsigned BitsPerIdCharacter(uint8_t typeLength);

/// Decodes the ID string of a sensor record.
/// @param typeLength  its type/length byte, behind it as many characters as it says
/// @param size        of out; the text is cut to fit and always ended by NUL
void GetIdString(const uint8_t* typeLength, char* out, uint32_t size);
/// Decode so many packed characters. @param out  length bytes, no NUL added
void ConvertBcdPlusToAscii(const uint8_t* packed, uint32_t length, char* out);
void Convert6BitAsciiToAscii(const uint8_t* packed, uint32_t length, char* out);
/// Characters of `bits` bits each, the first one lowest in each group of three bytes.
/// @param alphabet  a character for each code of that many bits
void ConvertString(const uint8_t* packed, uint32_t length, unsigned bits, std::string_view alphabet, char* out);

}  // namespace ktx_ipmi
