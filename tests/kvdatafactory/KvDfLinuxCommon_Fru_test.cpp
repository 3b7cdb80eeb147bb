#include "kvdatafactory/KvDfLinuxCommon_Fru.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <tuple>

#include "lib_driverIF/KvPltfSvcIpmiMain_Fru.h"
#include "libplatform/KvPsBmc.h"
#include "tests/support/SimulatedMachine.h"
#include "tests/support/SyslogListener.h"

namespace {

using sim::Bytes;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint8_t kStorage = sim::netfn::kStorage;
constexpr uint8_t kOem = sim::netfn::kOem;
constexpr uint32_t kSerial = KV_FRU_PRODUCT_AREA | 4;

Bytes FieldBytes(const _KvFruData& field) {
    return {field.data, field.data + field.length};
}

/// Bytes that count on, as far as a record goes.
Bytes Ramp(size_t size, uint8_t first = 0) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

sim::FruImage AcmeImage() {
    sim::FruImage image;
    image.product = {"Acme", "Box9", "", "1.0", "SN123"};
    return image;
}

// Cutting

/// A header that says where the areas begin, in units of 8, and the bytes behind it.
Bytes ImageWith(uint8_t productArea, uint8_t recordArea, const Bytes& rest) {
    Bytes image{0x01, 0, 0, 0, productArea, recordArea, 0, 0};
    image.insert(image.end(), rest.begin(), rest.end());
    return image;
}

struct Answer {
    uint32_t result;
    Bytes field;
    bool operator==(const Answer&) const = default;
};
void PrintTo(const Answer& answer, std::ostream* out) {
    *out << std::hex << answer.result << ' ' << testing::PrintToString(answer.field);
}

Answer Cut(const FruSource& source, uint32_t target) {
    _KvFruData out;
    memset(&out, 0xEE, sizeof out);
    const uint32_t result = GetFruData(source, target, &out);
    if (result == 0) {
        const std::span<const uint8_t> rest(out.data + out.length, sizeof out.data - out.length);
        EXPECT_TRUE(std::ranges::all_of(rest, [](uint8_t byte) { return byte == 0; }));
    }
    return {result, result == 0 ? FieldBytes(out) : Bytes{}};
}

TEST(FruProductArea, FieldsAreFoundByTheirIndex) {
    const Bytes image = AcmeImage().Encode();
    const auto field = [&](uint32_t index) { return Cut({.image = image}, KV_FRU_PRODUCT_AREA | index); };
    EXPECT_EQ((Answer{0, {'A', 'c', 'm', 'e'}}), field(0));
    EXPECT_EQ((Answer{0, {}}), field(2));
    EXPECT_EQ((Answer{0, {'S', 'N', '1', '2', '3'}}), field(4));
    EXPECT_EQ((Answer{0, {}}), field(5)) << "behind the last field";
    EXPECT_EQ((Answer{0, {}}), field(0xFFFF));
}

TEST(FruProductArea, DamagedOnesGiveNoBytesThatAreNotThere) {
    constexpr uint32_t kBad = 0x63F51302;
    const Bytes area{0x01, 1, 0x19, 0xC2, 'A', 'B', 0xC2, 'C'};  // the area ends within its second field
    Bytes longer = area;
    longer.insert(longer.end(), {'D', 0xC3, 'X', 'Y', 'Z', 0xC1, 0, 0});
    Bytes noLength = longer;
    noLength[1] = 0;
    using Case = std::tuple<Bytes, uint32_t, Answer>;
    const auto wrong = [](Bytes image, size_t at) { return image[at] = 0xF0, image; };
    for (const auto& [image, index, expected] :
         {Case{ImageWith(1, 0, area), 0, {0, {'A', 'B'}}}, Case{ImageWith(1, 0, area), 1, {0, {}}},
          Case{ImageWith(1, 0, longer), 1, {0, {}}},  // it stays within the length that the area tells
          Case{ImageWith(1, 0, noLength), 2, {0, {'X', 'Y', 'Z'}}}, Case{ImageWith(1, 0, noLength), 3, {0, {}}},
          Case{ImageWith(0, 0, area), 0, {0, {}}},    // no product area
          Case{ImageWith(200, 0, area), 0, {0, {}}},  // it lies behind the end
          Case{wrong(ImageWith(1, 0, area), 0), 0, {kBad, {}}}, Case{wrong(ImageWith(1, 0, area), 8), 0, {kBad, {}}},
          Case{Bytes(7, 0x01), 0, {kBad, {}}}}) {
        EXPECT_EQ(expected, Cut({.image = image}, KV_FRU_PRODUCT_AREA | index)) << testing::PrintToString(image);
    }
}

TEST(FruOemArea, IsSplitByTheTableOfTheBoard) {
    const Bytes image = ImageWith(0, 1, Ramp(200));
    const FruSource pilot2{.image = image, .pilot2 = true};
    const FruSource other{.image = image};
    const FruSource q52{.image = image, .product = "Varistel Q52 S1"};
    using Case = std::tuple<const FruSource&, uint32_t, uint8_t, size_t>;
    for (const auto& [source, target, first, length] :
         {Case{pilot2, 0x50005, 5, 3}, Case{pilot2, 0x50008, 10, 38}, Case{pilot2, 0x50009, 48, 6},
          Case{pilot2, 0x5000A, 54, 6}, Case{pilot2, 0x50015, 143, 1},
          Case{pilot2, 0x50016, 0, 0},                                // behind the last field
          Case{pilot2, 0x58008, 0, 0},                                // a field that the board does not have
          Case{other, 0x50009, 11, 3}, Case{other, 0x5000B, 15, 14},  // as long as the byte before it says
          Case{other, 0x5000C, 29, 1}, Case{other, 0x5000D, 30, 29}, Case{other, 0x5000E, 59, 6},
          // On the Q52, field 11 ends at 39. Field 13 takes 39 bytes, 14 and 15 six each, 16 one: 17 would be at 92.
          Case{q52, 0x5000C, 39, 1}, Case{q52, 0x50010, 91, 1}, Case{q52, 0x50011, 92 + 24, 1},
          Case{q52, 0x50012, 93, 4}}) {
        EXPECT_EQ((Answer{0, Ramp(length, first)}), Cut(source, target)) << std::hex << target;
    }
    // Six bytes, eight that do not count, ten more.
    EXPECT_EQ((Answer{0, {15, 16, 17, 18, 19, 20, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38}}), Cut(q52, 0x5000B));
}

TEST(FruOemArea, EndsWithTheBytesThatWereRead) {
    for (const size_t size : {0U, 4U, 5U, 7U, 8U, 48U, 53U, 54U}) {
        const Bytes image = ImageWith(0, 1, Ramp(size));
        EXPECT_EQ(size >= 54 ? 6U : 0U, Cut({.image = image, .pilot2 = true}, 0x50009).field.size());
        EXPECT_EQ(size >= 8 ? 3U : 0U, Cut({.image = image, .pilot2 = true}, 0x50005).field.size());
    }
}

TEST(FruOemArea, TheControllersOwnRecordsStandInForMissingOnes) {
    const Bytes without = ImageWith(0, 0, Ramp(100));
    const Bytes with = ImageWith(0, 1, Ramp(100));
    const Bytes records(60, 0x77);
    EXPECT_EQ((Answer{0, {0x77, 0x77, 0x77}}), Cut({.image = without, .oemRecords = records}, 0x50005));
    EXPECT_EQ((Answer{0, {5, 6, 7}}), Cut({.image = with, .oemRecords = records}, 0x50005));
}

TEST(FruSecondOemArea, LiesBehindTheFirstRecord) {
    Bytes records = Ramp(60);
    records[0] = 0xC1;
    records[1] = 0x08;
    records[2] = 20;  // length of the first record
    const Bytes image = ImageWith(0, 1, records);
    const FruSource counted{.image = image, .version = "0000E51300"};
    const FruSource separate{.image = image, .version = "X0000F51100"};
    EXPECT_EQ((Answer{0, {25, 26, 27}}), Cut(counted, 0x150005));
    EXPECT_EQ((Answer{0, {30, 31, 32}}), Cut(separate, 0x150005)) << "the header does not count";
    EXPECT_EQ(28U, Cut(counted, 0x150007).field.size());
    EXPECT_EQ((Answer{0, {57}}), Cut(counted, 0x150008));
    EXPECT_EQ((Answer{0, {}}), Cut(counted, 0x150009)) << "cut off";
    EXPECT_EQ((Answer{0, {}}), Cut({.image = image, .product = "Varistel Q52"}, 0x150005));
    const Bytes none = ImageWith(0, 0, {});
    EXPECT_EQ((Answer{0, {30, 31, 32}}), Cut({.image = none, .oemRecords = records, .version = "0000E5"}, 0x150005))
        << "those of the controller";

    Bytes only = image;
    only[8 + 1] |= 0x80;
    EXPECT_EQ((Answer{0, {}}), Cut({.image = only}, 0x150005)) << "the first record is the last";
    Bytes far = image;
    far[8 + 2] = 255;
    EXPECT_EQ((Answer{0, {}}), Cut({.image = far}, 0x150005));
    Bytes unknown = image;
    unknown[0] = 0x10;
    EXPECT_EQ(0x63F51302U, Cut({.image = unknown}, 0x150005).result);
}

TEST(FruFieldIndex, IsTranslatedBeforeTheFieldIsCut) {
    const Bytes image = ImageWith(0, 1, Ramp(200));
    SetFruIndexFunction([](unsigned int* index) -> unsigned int* {
        if (*index == 0x5000E) *index = 0x50009;
        return *index == 0x5000F ? nullptr : index;
    });
    EXPECT_EQ((Answer{0, {48, 49, 50, 51, 52, 53}}), Cut({.image = image, .pilot2 = true}, 0x5000E));
    _KvFruData field;
    memset(&field, 0xEE, sizeof field);
    EXPECT_EQ(0x63F51302U, GetFruData({.image = image}, 0x5000F, &field));
    EXPECT_EQ(0xEE, field.length) << "untouched";
    EXPECT_EQ(0x63F54203U, Cut({.image = image, .pilot2 = true, .boardFru = true}, 0x5000E).result)
        << "asked for an adapter's address, which this image does not have";
    EXPECT_EQ((Answer{0, {48, 49, 50, 51, 52, 53}}), Cut({.image = image, .pilot2 = true, .boardFru = true}, 0x50009));
    SetFruIndexFunction(nullptr);
    EXPECT_EQ(0x63F54202U, Cut({.image = image}, 0x60000).result);
}

TEST(FruArguments, AreChecked) {
    const Bytes image = ImageWith(1, 1, Ramp(20));
    _KvFruData field;
    EXPECT_EQ(0x63F54201U, GetProductRecordFormatFruData({}, 0, &field));
    EXPECT_EQ(0x63F54201U, GetProductRecordFormatFruData(image, 0, nullptr));
    EXPECT_EQ(0x63F54201U, GetOemRecordFormatFruData({}, 0x50000, 0x50000, &field));
    EXPECT_EQ(0x63F54201U, GetOem2RecordFormatFruData({.image = image}, 0x150000, 0x150000, nullptr));
}

TEST(FruImages, OfAnyBytesAreCutWithoutHarm) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        Bytes image(random() % 400);
        for (uint8_t& byte : image)
            byte = static_cast<uint8_t>(random());
        if (image.size() > 5) image[4] %= 40, image[5] %= 40;
        const FruSource source{.image = image,
                               .product = random() % 2 ? "Varistel Q52" : "Varistel",
                               .version = random() % 2 ? "0000F5" : "",
                               .pilot2 = random() % 2 != 0};
        for (const uint32_t area : {KV_FRU_PRODUCT_AREA, KV_FRU_OEM_AREA, KV_FRU_SECOND_OEM_AREA})
            for (uint32_t index = 0; index < 34; ++index)
                EXPECT_LE(Cut(source, area | index).field.size(), 63U);
    }
}

// Reading

class FruReading : public SimulatedMachine {
protected:
    FruReading() {
        SetProduct("Varistel B400");
        Bmc().Fru()->Set(0, AcmeImage().Encode());
    }
    static Answer Read(uint32_t target) {
        _KvFruData out = {};
        const uint32_t result = KvDf_GetFruInventoryData(target, &out);
        return {result, FieldBytes(out)};
    }
};

const Answer kAcmeSerial{0, {'S', 'N', '1', '2', '3'}};

TEST_F(FruReading, TheInventoryIsReadOnce) {
    sim::FruImage image = AcmeImage();
    image.size = 1000;
    Bmc().Fru()->Set(0, image.Encode());
    Run([this] {
        EXPECT_EQ(0x63F54201U, KvDf_GetFruInventoryData(kSerial, nullptr));
        EXPECT_EQ(kAcmeSerial, Read(kSerial));
        EXPECT_EQ(1U + 32U, Bmc().Count()) << "the size, and 1000 bytes in pieces of 32";
        EXPECT_EQ((Answer{0, {'B', 'o', 'x', '9'}}), Read(0x40001));
        EXPECT_EQ(33U, Bmc().Count());
    });
}

TEST_F(FruReading, OtherMachinesAreNotServed) {
    SetProduct("Tessark R2");
    Run([this] {
        EXPECT_EQ(0x63F5A101U, Read(kSerial).result);
        EXPECT_EQ(0U, Bmc().Count());
    });
    smbios = {};
    Run([] { EXPECT_EQ(0x60D0B802U, Read(kSerial).result) << "the machine has no name"; });
}

TEST_F(FruReading, AFailureIsRememberedAndReportedOnce) {
    Run([this] {
        SyslogListener syslog;
        Bmc().Refuse(kStorage, 0x11, 0xCB);
        EXPECT_EQ(0x6000B2CBU, Read(kSerial).result);
        const size_t commands = Bmc().Count();
        EXPECT_EQ(0x6000B2CBU, Read(0x40000).result);
        EXPECT_EQ(commands, Bmc().Count());
        EXPECT_THAT(syslog.Lines(), ElementsAre(HasSubstr("The FRU inventory of the BMC cannot be read.")));
    });
    Run([this] {
        FailToOpen();
        EXPECT_EQ(0x6000B104U, Read(kSerial).result);
    });
    Run([this] {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, nullptr);
        raise(SIGTERM);
        EXPECT_EQ(0x6000B10DU, Read(kSerial).result);
        EXPECT_EQ(1U, Bmc().Count()) << "the size; no piece of the image";
        int taken = 0;
        sigwait(&term, &taken);
        EXPECT_EQ(kAcmeSerial, Read(kSerial)) << "nothing was learned about it then";
        EXPECT_EQ(2U, server.Opens("/dev/ipmi0")) << "once for each request";
    });
    Bmc().Fru()->LieAboutSize(0, 0xFFFF);
    Run([] { EXPECT_EQ(0x6000B2C9U, Read(kSerial).result) << "it announced more than it has"; });
}

TEST_F(FruReading, AreaSizeAndPieces) {
    Run([this] {
        uint16_t size = 0;
        EXPECT_EQ(0U, KvPsGetFruInventoryAreaSize(0, &size));
        EXPECT_EQ(Bmc().Fru()->Find(0)->size(), size);
        EXPECT_EQ(0x63F6B2CBU, KvPsGetFruInventoryAreaSize(9, &size));
        EXPECT_EQ(0x63F54201U, KvPsGetFruInventoryAreaSize(0, nullptr));

        Bmc().Fru()->SetLargestPiece(16);
        const Bytes whole = *Bmc().Fru()->Find(0);
        Bytes read(whole.size() - 3, 0xEE);
        size = static_cast<uint16_t>(read.size() - 1);
        EXPECT_EQ(0U, KvPsReadFruInventoryData(0, 3, &size, read.data())) << "in pieces that the controller takes";
        EXPECT_EQ(read.size() - 1, size);
        EXPECT_EQ(Bytes(whole.begin() + 3, whole.end() - 1), Bytes(read.begin(), read.end() - 1));
        EXPECT_EQ(0xEE, read.back());
        EXPECT_EQ(0x63F54201U, KvPsReadFruInventoryData(0, 0, &size, nullptr));

        server.OnCommand(kStorage, 0x11, [](const sim::Request&, const auto&) { return sim::Response{0, {0}}; });
        size = 5;
        EXPECT_EQ(0x6000B100U, KvPsReadFruInventoryData(0, 0, &size, read.data())) << "an empty piece";
        EXPECT_EQ(0, size);
        FailToOpen();
        EXPECT_EQ(0x6000B104U, KvPsReadFruInventoryData(0, 0, &size, read.data()));
    });
}

// The OEM FRU

Bytes OemFru(const std::vector<sim::FruImage::MultiRecord>& records) {
    sim::FruImage image;
    image.records = records;
    return image.Encode();
}

class OemFruReading : public FruReading {
protected:
    OemFruReading() { SetSmbiosCode("002"); }
    static Answer ReadRecords() {
        ktx_ipmi::IpmiBracket bracket;
        Bytes buffer(ktx_ipmi::kOemFruRecordsSize, 0xEE);
        uint32_t length = 99;
        const uint32_t result = ktx_ipmi::ReadOEMFRURecords(bracket, buffer.data(), &length);
        buffer.resize(length);
        return {result, buffer};
    }
};

TEST_F(OemFruReading, TheProductsRecordsAreKeptWithTheirHeaders) {
    Bmc().Oem()->fru = OemFru({{0xC0, 8, Bytes(200)},
                               {0xC1, 7, Bytes(10, 1)},
                               {0xC1, 8, Bytes(3, 0xA1)},
                               {0xF0, 1, Bytes(4, 2)},
                               {0xF0, 2, Bytes(255, 0xF1)}});
    Run([] {
        const auto& [result, bytes] = ReadRecords();
        EXPECT_EQ(0U, result);
        ASSERT_EQ(5U + 3 + 5 + 255, bytes.size());
        EXPECT_EQ((Bytes{0xC1, 0x08, 3}), Bytes(bytes.begin(), bytes.begin() + 3));
        EXPECT_EQ((Bytes{0xA1, 0xA1, 0xA1, 0xF0}), Bytes(bytes.begin() + 5, bytes.begin() + 9));
        EXPECT_EQ(0xF1, bytes.back());
    });
}

TEST_F(OemFruReading, DamagedRecordsAreRefused) {
    const Bytes good = OemFru({{0xC1, 8, Bytes(20, 0xA1)}});
    const size_t area = good[5] * size_t{8};
    const auto changed = [&](size_t at) {
        Bytes image = good;
        ++image[at];
        return image;
    };
    Bytes endless(4096);
    std::copy_n(good.begin(), 8, endless.begin());  // headers of zeroes: each is sound, and none is the last
    using Case = std::tuple<const char*, Bytes, uint32_t>;
    for (const auto& [what, image, result] :
         {Case{"common header", changed(1), 0x63F51302}, Case{"record header", changed(area + 1), 0x63F51302},
          Case{"record", changed(area + 10), 0x63F51302}, Case{"no end", endless, 0x63F51302},
          Case{"cut record", Bytes(good.begin(), good.begin() + static_cast<int>(area) + 8), 0x6000B107},
          Case{"cut common header", Bytes(good.begin(), good.begin() + 5), 0x6000B107},
          Case{"more than fits", OemFru(std::vector(9, sim::FruImage::MultiRecord{0xC1, 8, Bytes(250)})), 0x63F51302},
          Case{"no records", OemFru({}), 0}, Case{"good", good, 0}}) {
        Bmc().Oem()->fru = image;
        Run([&what = what, result = result] {
            const Answer records = ReadRecords();
            EXPECT_EQ(result, records.result) << what;
            EXPECT_LE(records.field.size(), ktx_ipmi::kOemFruRecordsSize);
        });
    }
}

TEST_F(OemFruReading, ABoardOfCode2IsAskedForItsRecordsToo) {
    Bytes basic(139);
    std::copy_n(Bytes{2, 0, 0, 0, 0, 0xA}.begin(), 6, basic.begin() + 43);  // field 9, behind the header's 5 bytes
    Bmc().Oem()->fru = OemFru({{0xC1, 8, basic}});
    root.AddFile("/var/opt/velmora/lantrel/log/BMCCapabilityA.bin", "\x01PILOT_2   " + std::string(41, '\0'));
    Run([this] {
        EXPECT_EQ((Answer{0, {2, 0, 0, 0, 0, 0xA}}), Read(0x50009));
        EXPECT_EQ(kAcmeSerial, Read(kSerial));
        EXPECT_EQ(0U, Bmc().Count(kOem, 0x2C));
    });
    Bmc().Oem()->fru->at(0) ^= 0xFF;
    Run([] { EXPECT_EQ(0x63F51302U, Read(kSerial).result); });
}

TEST_F(OemFruReading, ABoardOfCode3HasItsImageBehindItsOwnCommand) {
    SetSmbiosCode("003");
    Bytes basic(139);
    basic[43] = 0xAB;  // field 9 of a Pilot BMC's layout, behind the header's 5 bytes
    Bmc().Oem()->fru = OemFru({{0xC1, 8, basic}});
    for (const size_t padded : {0U, 96U, 100U}) {  // with and without a last piece that is shorter
        sim::FruImage image = AcmeImage();
        image.size = padded;
        Bmc().Oem()->secondFru = image.Encode();
        Run([this] {
            EXPECT_EQ(kAcmeSerial, Read(kSerial));
            EXPECT_EQ(0x63F54203U, Read(0x5000E).result);
            EXPECT_EQ((Answer{0, {0xAB, 0, 0, 0, 0, 0}}), Read(0x50009));
            EXPECT_EQ(0U, Bmc().Count(kStorage, 0x11));
        });
    }
    Run([this] {
        FailToOpen();
        EXPECT_EQ(0x6000B104U, Read(kSerial).result);
        EXPECT_EQ(0x6000B104U, Read(kSerial).result);
    });
    Bmc().Oem()->secondFru = Bytes(ktx_ipmi::kLargestFruImage + 100, 0x01);
    Run([this] {
        EXPECT_EQ(0U, Read(kSerial).result);
        EXPECT_EQ(ktx_ipmi::kLargestFruImage / 32, Bmc().Count(kOem, 0x2C)) << "no offset reaches further";
    });
    Bmc().Oem()->secondFru.reset();
    Run([] { EXPECT_EQ(0x6000B107U, Read(kSerial).result); });
}

}  // namespace
