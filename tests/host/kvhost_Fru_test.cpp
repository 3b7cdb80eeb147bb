// "kvhost fru": what it makes of FRU images, sound ones and others.

#include <numeric>
#include <tuple>

#include "host/kvhost_FruImage.h"
#include "simulator/FruStore.h"
#include "tests/support/KvhostProgram.h"

namespace {

using namespace kvhost;
using nlohmann::json;
using sim::Bytes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;

using Fields = std::vector<std::pair<std::string, std::string>>;

Bytes WholeImage() {
    return sim::FruImage{.chassis = {"PN-1", "SN-1"},
                         .board = {"Velmora", "Board", "B-1", "BP-1", "", "revised"},
                         .product = {"Velmora", "R240", "P-1", "M2", "S-1", "", ""},
                         .records = {{.type = 0x00, .data = {1, 2}}, {.type = 0xC1, .data = {3}}}}
        .Encode();
}

/// Where the header says an area begins. @param pointer  its place in the header
size_t Begin(const Bytes& image, size_t pointer) {
    return image[pointer] * size_t{8};
}

/// Sets a byte of an area and makes its checksum right again.
void Patch(Bytes& image, size_t pointer, size_t offset, uint8_t value) {
    const auto begin = image.begin() + static_cast<ptrdiff_t>(Begin(image, pointer));
    begin[static_cast<ptrdiff_t>(offset)] = value;
    const auto last = begin + begin[1] * 8 - 1;
    *last = static_cast<uint8_t>(-std::accumulate(begin, last, 0));
}

TEST(FruImage, EveryAreaWithItsFields) {
    Bytes image = WholeImage();
    Patch(image, 3, 3, 0x78);  // 120 minutes into 1996
    const std::vector<FruArea> areas = DecodeFru(image);
    ASSERT_EQ(4u, areas.size());
    EXPECT_EQ((Fields{{"type", "0x17 (rack mount)"}, {"part number", "PN-1"}, {"serial number", "SN-1"}}),
              areas[0].fields);
    EXPECT_EQ((Fields{{"manufactured", "1996-01-01 02:00 UTC"},
                      {"manufacturer", "Velmora"},
                      {"product name", "Board"},
                      {"serial number", "B-1"},
                      {"part number", "BP-1"},
                      {"file id", ""},
                      {"extra 1", "revised"}}),
              areas[1].fields);
    EXPECT_THAT(areas[2].fields, testing::Contains(Pair("serial number", "S-1")));
    EXPECT_EQ((Fields{{"record power supply", "01 02"}, {"record 0xc1", "03"}}), areas[3].fields);
    for (const FruArea& area : areas)
        EXPECT_EQ("", area.problem) << area.name;
}

TEST(FruImage, TextsInEveryCoding) {
    using Case = std::tuple<const char*, uint8_t, Bytes, const char*>;
    for (const auto& [what, language, field, text] :
         {Case{"no text", 25, {0x02, 0xAB, 0x01}, "ab 01"}, Case{"BCD plus", 25, {0x42, 0x12, 0x3B}, "123-"},
          Case{"6-bit ASCII", 25, {0x83, 0x29, 0xDC, 0xA6}, "IPMI"},
          Case{"Latin-1", 25, {0xC3, 'R', 0xE9, ' '}, "R\u00e9"},
          Case{"two bytes a character", 0x11, {0xC4, 0x63, 0x6B, 0x38, 0x5E}, "\u6b63\u5e38"},
          Case{"a control character", 0, {0xC2, 'a', 0x1B}, "a?"}}) {
        Bytes image = sim::FruImage{.product = {"12345678"}}.Encode();
        const size_t fields = 3;
        for (size_t i = 0; i < field.size(); ++i)
            Patch(image, 4, fields + i, field[i]);
        Patch(image, 4, fields + field.size(), 0xC1);
        Patch(image, 4, 2, language);
        EXPECT_THAT(DecodeFru(image)[0].fields, ElementsAre(Pair("manufacturer", text))) << what;
    }
}

TEST(FruImage, DamageIsTold) {
    const Bytes sound = WholeImage();
    using Case = std::tuple<const char*, size_t, Bytes>;
    const auto with = [&](size_t position, uint8_t value) {
        Bytes image = sound;
        image[position] = value;
        return image;
    };
    const auto cutTo = [&](size_t size) { return Bytes(sound.begin(), sound.begin() + static_cast<ptrdiff_t>(size)); };
    const size_t product = Begin(sound, 4);
    const size_t records = Begin(sound, 5);
    for (const auto& [problem, area, image] :
         {Case{"the image is too short for it", 0, cutTo(7)}, Case{"unknown format version", 0, Bytes(64, 0xFF)},
          Case{"wrong checksum", 0, with(7, static_cast<uint8_t>(sound[7] + 1))},
          Case{"lies outside of the image", 2, cutTo(product)}, Case{"ends behind the image", 2, cutTo(product + 20)},
          Case{"unknown format version", 2, with(product, 0)}, Case{"wrong checksum", 2, with(product + 4, 'X')},
          Case{"wrong checksum", 2, with(product + 1, 0)},
          Case{"no record header where one should be", 3, with(records + 5 + 2, 0xC0)},
          Case{"wrong checksum of a record", 3, with(records + 5, 9)},
          Case{"a record ends behind the image", 3, cutTo(records + 6)}}) {
        const std::vector<FruArea> areas = DecodeFru(image);
        ASSERT_LT(area, areas.size()) << problem;
        EXPECT_EQ(problem, areas[area].problem);
    }
    Bytes longField = sound;
    Patch(longField, 4, 3, 0xFF);
    EXPECT_EQ("a field ends behind its area", DecodeFru(longField)[2].problem);
}

TEST(FruImage, NoByteMakesTheDecoderLeaveTheImage) {
    const Bytes sound = WholeImage();
    for (size_t i = 0; i < sound.size(); ++i) {
        for (const uint8_t value : std::initializer_list<uint8_t>{0x00, 0x3F, 0x7F, 0xC1, 0xFF}) {
            Bytes image = sound;
            image[i] = value;
            if (i < 7) image[7] = static_cast<uint8_t>(-std::accumulate(image.begin(), image.begin() + 7, 0));
            EXPECT_LE(DecodeFru(image).size(), 4u);
        }
        EXPECT_LE(DecodeFru(std::span(sound).first(i)).size(), 4u);
    }
}

using KvhostFru = KvhostProgram;

TEST_F(KvhostFru, ShowsTheUnitsOfAServer) {
    UseRackServer();
    const json areas = Json("fru");
    ASSERT_EQ(5u, areas.size());
    EXPECT_EQ("product", areas[2]["area"]);
    EXPECT_EQ((json{{"field", "product name"}, {"value", "Varistel R240"}}), areas[2]["fields"][1]);
    EXPECT_EQ("first own record", areas[4]["area"]);
    EXPECT_THAT(areas[4]["fields"], testing::Contains(json{{"field", "field 14"}, {"value", "02 00 5e 10 00 01"}}));
    EXPECT_THAT(Output("fru 1"), HasSubstr("product name   PS800 Platinum"));
    const Outcome absent = Run("fru 9");
    EXPECT_EQ(1, absent.status);
    EXPECT_THAT(absent.output, StartsWith("kvhost: QNTR 6B2CB-C 3F6"));
    EXPECT_EQ(2, Run("fru x").status);
}

}  // namespace
