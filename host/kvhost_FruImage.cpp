// What a FRU image says.

#include "host/kvhost_FruImage.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <optional>
#include <string_view>

#include "common/ByteReader.h"
#include "common/Checksum.h"
#include "host/kvhost_Text.h"
#include "lib_driverIF/FruLayout.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_IdString.h"

namespace kvhost {

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kVersion = 1;

// Texts

constexpr uint8_t kEnglish = 25;

bool IsEnglish(uint8_t language) {
    return language == 0 || language == kEnglish;
}

void AppendUtf8(std::string& text, unsigned character) {
    const auto append = [&](unsigned byte) { text += static_cast<char>(byte); };
    if (character < 0x80) {
        append(character);
    } else if (character < 0x800) {
        append(0xC0 | character >> 6);
        append(0x80 | (character & 0x3F));
    } else {
        append(0xE0 | character >> 12);
        append(0x80 | (character >> 6 & 0x3F));
        append(0x80 | (character & 0x3F));
    }
}

/// Latin-1 where the language is English, two bytes a character elsewhere.
std::string LanguageText(Bytes bytes, uint8_t language) {
    const size_t step = IsEnglish(language) ? 1 : 2;
    std::string text;
    for (size_t i = 0; i + step <= bytes.size(); i += step)
        AppendUtf8(text, step == 1 ? bytes[i] : bytes[i] | static_cast<unsigned>(bytes[i + 1]) << 8);
    return text;
}

/// Two digits a byte. The high one comes first here, the low one in the names of sensors.
std::string BcdPlusText(Bytes bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        text.append({ktx_ipmi::kBcdPlusDigits[byte >> 4], ktx_ipmi::kBcdPlusDigits[byte & 0x0F]});
    return text;
}

std::string SixBitText(Bytes bytes) {
    std::string text(bytes.size() * 8 / 6, '\0');
    ktx_ipmi::Convert6BitAsciiToAscii(bytes.data(), static_cast<uint32_t>(text.size()), text.data());
    return text;
}

std::string FieldText(uint8_t typeLength, Bytes bytes, uint8_t language) {
    std::string text;
    switch (typeLength >> 6) {
        case ktx_ipmi::kUnicode:
            return HexBytes(bytes);  // in a FRU image the first coding is for what is no text
        case ktx_ipmi::kBcdPlus:
            text = BcdPlusText(bytes);
            break;
        case ktx_ipmi::kSixBit:
            text = SixBitText(bytes);
            break;
        default:
            text = LanguageText(bytes, language);
    }
    constexpr std::string_view kFill("\0 ", 2);
    text.erase(text.find_last_not_of(kFill) + 1);
    return Printable(ToUtf8(text, false));
}

// Areas of texts

std::string ChassisType(uint8_t type) {
    static constexpr const char* kNames[] = {"",
                                             "other",
                                             "unknown",
                                             "desktop",
                                             "low-profile desktop",
                                             "pizza box",
                                             "mini tower",
                                             "tower",
                                             "portable",
                                             "laptop",
                                             "notebook",
                                             "hand held",
                                             "docking",
                                             "all in one",
                                             "sub-notebook",
                                             "space-saving",
                                             "lunch box",
                                             "main server chassis",
                                             "expansion",
                                             "sub-chassis",
                                             "bus expansion",
                                             "peripheral",
                                             "RAID chassis",
                                             "rack mount",
                                             "sealed-case PC",
                                             "multi-system",
                                             "CompactPCI",
                                             "AdvancedTCA",
                                             "blade",
                                             "blade enclosure"};
    std::string text = Hex(type, 2);
    if (type > 0 && type < std::size(kNames)) text += std::string(" (") + kNames[type] + ")";
    return text;
}

/// Minutes since the beginning of 1996, in three bytes.
std::string ManufacturingDate(uint32_t minutes) {
    if (minutes == 0) return "unspecified";
    constexpr time_t kBeginning = 820454400;
    const time_t time = kBeginning + static_cast<time_t>(minutes) * 60;
    tm utc{};
    char text[32] = "";
    if (gmtime_r(&time, &utc) != nullptr) strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &utc);
    return text;
}

/// The bytes of an area from its first to its last, by its own length.
Bytes Extent(Bytes image, size_t offset, FruArea& area) {
    if (offset + 2 > image.size()) {
        area.problem = "lies outside of the image";
        return {};
    }
    Bytes bytes = image.subspan(offset);
    const size_t length = bytes[1] * fru::kAreaUnit;
    if ((bytes[0] & fru::kVersionBits) != kVersion) {
        area.problem = "unknown format version";
        return {};
    }
    if (length > bytes.size()) {
        area.problem = "ends behind the image";
        return bytes;
    }
    bytes = bytes.first(length);
    if (bytes.empty() || !IsSumZero(bytes)) area.problem = "wrong checksum";
    return bytes;
}

/// The texts from a place on: the named ones first, then the maker's own.
void DecodeTexts(Bytes rest, std::initializer_list<const char*> names, uint8_t language, FruArea& area) {
    for (size_t i = 0; !rest.empty() && rest[0] != fru::kEndOfFields; ++i) {
        const size_t length = rest[0] & fru::kLengthBits;
        if (length >= rest.size()) {
            if (area.problem.empty()) area.problem = "a field ends behind its area";
            return;
        }
        const std::string value = FieldText(rest[0], rest.subspan(1, length), language);
        if (i < names.size()) {
            area.fields.emplace_back(names.begin()[i], value);
        } else if (!value.empty()) {
            area.fields.emplace_back("extra " + std::to_string(i - names.size() + 1), value);
        }
        rest = rest.subspan(1 + length);
    }
}

FruArea DecodeChassis(Bytes image, size_t offset) {
    FruArea area{"chassis", {}, ""};
    ByteReader in(Extent(image, offset, area));
    if (in.AtEnd()) return area;
    in.U16();  // version, length
    area.fields.emplace_back("type", ChassisType(in.U8()));
    DecodeTexts(in.Rest(), {"part number", "serial number"}, kEnglish, area);
    return area;
}

FruArea DecodeBoard(Bytes image, size_t offset) {
    FruArea area{"board", {}, ""};
    ByteReader in(Extent(image, offset, area));
    if (in.AtEnd()) return area;
    in.U16();
    const uint8_t language = in.U8();
    const uint32_t low = in.U16();
    area.fields.emplace_back("manufactured", ManufacturingDate(low | static_cast<uint32_t>(in.U8()) << 16));
    DecodeTexts(in.Rest(), {"manufacturer", "product name", "serial number", "part number", "file id"}, language, area);
    return area;
}

FruArea DecodeProduct(Bytes image, size_t offset) {
    FruArea area{"product", {}, ""};
    ByteReader in(Extent(image, offset, area));
    if (in.AtEnd()) return area;
    in.U16();
    const uint8_t language = in.U8();
    DecodeTexts(in.Rest(),
                {"manufacturer", "product name", "part number", "version", "serial number", "asset tag", "file id"},
                language, area);
    return area;
}

// Records

std::string RecordName(uint8_t type) {
    static constexpr const char* kNames[] = {"power supply",      "DC output",          "DC load",
                                             "management access", "base compatibility", "extended compatibility"};
    return "record " + (type < std::size(kNames) ? kNames[type] : Hex(type, 2));
}

FruArea DecodeRecords(Bytes image, size_t offset) {
    FruArea area{"records", {}, ""};
    Bytes rest = image.subspan(std::min(offset, image.size()));
    for (bool last = false; !last;) {
        if (rest.size() < fru::kRecordHeaderSize || !IsSumZero(rest.first(fru::kRecordHeaderSize))) {
            area.problem = "no record header where one should be";
            return area;
        }
        const size_t length = rest[2];
        if (length > rest.size() - fru::kRecordHeaderSize) {
            area.problem = "a record ends behind the image";
            return area;
        }
        const Bytes data = rest.subspan(fru::kRecordHeaderSize, length);
        if (static_cast<uint8_t>(SumOf(data) + rest[3]) != 0) {
            area.problem = "wrong checksum of a record";
        }
        area.fields.emplace_back(RecordName(rest[0]), HexBytes(data));
        last = (rest[1] & fru::kEndOfList) != 0;
        rest = rest.subspan(fru::kRecordHeaderSize + length);
    }
    return area;
}

std::optional<std::string> HeaderProblem(Bytes image) {
    if (image.size() < fru::kCommonHeaderSize) return "the image is too short for it";
    if ((image[0] & fru::kVersionBits) != kVersion) return "unknown format version";
    if (!IsSumZero(image.first(fru::kCommonHeaderSize))) return "wrong checksum";
    return std::nullopt;
}

}  // namespace

std::vector<FruArea> DecodeFru(std::span<const uint8_t> image) {
    if (const auto problem = HeaderProblem(image)) return {{"header", {}, *problem}};
    struct Decoder {
        fru::AreaPointer pointer;
        FruArea (*decode)(Bytes image, size_t offset);
    };
    constexpr Decoder kDecoders[] = {
        {fru::kChassisArea, DecodeChassis},
        {fru::kBoardArea, DecodeBoard},
        {fru::kProductArea, DecodeProduct},
        {fru::kRecordArea, DecodeRecords},
    };
    std::vector<FruArea> areas;
    for (const auto& [pointer, decode] : kDecoders) {
        if (image[pointer] != 0) areas.push_back(decode(image, image[pointer] * fru::kAreaUnit));
    }
    return areas;
}

}  // namespace kvhost
