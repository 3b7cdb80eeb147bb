// From sensor data records to the table: fields, runs of sensors, names.

#include "lib_driverIF/KvPltfSvcIpmiMain_SdrPack.h"

#include <gmock/gmock.h>

#include <tuple>

#include "lib_driverIF/KvPltfSvcIpmiMain_IdString.h"
#include "tests/support/Repository.h"

namespace {

using namespace ktx_ipmi;
using sim::Bytes;
using testing::SizeIs;

TEST_F(Repository, FullRecordsArePackedByteForByte) {
    sim::FullRecord record = Full(7, "CPU1 Temp");
    record.entityId = 3;
    record.entityInstance = 0x61;
    record.sensorType = 1;
    record.conversion = {0x80, 1, 0, 2, 9, 0x40, 0xF6, 0xC0, 5, 0xE1};
    record.nominalGiven = true;
    record.nominal = 42;
    const Bytes overChannel = WithByte(record.Encode(), 6, 0xF1);  // LUN 1; the other bits say how it is reached
    Add(overChannel);
    Add(WithByte(WithByte(overChannel, 7, 9), 30, 0x06));  // normal maximum and minimum given, no nominal reading
    Bmc().Sensors()->At(7, 1);
    Run([] {
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        const SDR expected{0x20, 1,  7,           3, 0x61, 1, 1, {0x80, 1, 0, 2, 9, 0x40, 0xF6, 0xC0, 5, 0xE1},
                           1,    42, "CPU1 Temp", 1};
        SDR packed;
        ASSERT_EQ(SdrLookup::kFound, FindSdr(0x20, 1, 7, &packed));
        EXPECT_EQ(0, memcmp(&expected, &packed, sizeof packed));
        ASSERT_EQ(SdrLookup::kFound, FindSdr(0x20, 1, 9, &packed));
        EXPECT_EQ(0, packed.nominalSpecified);
        EXPECT_EQ(SdrLookup::kEmpty, FindSdr(0x20, 1, 8, &packed));
        EXPECT_EQ(SdrLookup::kNoDevice, FindSdr(0x20, 0, 7, &packed));
        EXPECT_EQ(SdrLookup::kNoNumber, FindSdr(0x20, 1, 255, &packed));
        EXPECT_EQ(2U, SdrInstanceCnt());
        unsigned long exists = 9;
        using Case = std::tuple<uint8_t, uint8_t, uint32_t, unsigned long>;  // LUN and number, result and answer
        for (const auto& [lun, sensor, result, answer] :
             {Case{1, 7, 0, 1}, Case{1, 8, 0, 0}, Case{0, 7, 0, 0}, Case{1, 255, 0x6000B106, 0}}) {
            EXPECT_EQ(result, IsSensorExist(0x20, lun, sensor, &exists));
            EXPECT_EQ(answer, exists);
        }
        g_dwBmcTimezone = 3600;
        KvPsTerminateIpmi();
        EXPECT_EQ(0x6000B103U, IsSensorExist(0x20, 1, 7, &exists));
        EXPECT_EQ(SdrLookup::kNoTable, FindSdr(0x20, 1, 7, &packed));
        EXPECT_EQ(0U, g_dwBmcTimezone);
    });
}

TEST_F(Repository, SharedRecordsStandForARunOfSensors) {
    using Sensors = std::vector<std::tuple<int, int, std::string>>;  // number, entity instance, name
    auto dimms = Shared(10, "DIMM", 3, 1);
    dimms.instancesIncrease = true;
    auto letters = Shared(10, "Drive ", 2, 3);
    letters.modifierAlpha = true;
    const auto reserved = WithByte(letters.EncodeEventOnly(), 12, 2 | 1 << 4 | 0xC0);
    const auto bare = WithByte(Shared(10, "Fan", 2).EncodeCompact(), 23, 2 | 2 << 4);
    using Case = std::tuple<Bytes, Sensors>;
    for (const auto& [record, expected] :
         {Case{dimms.EncodeCompact(), {{10, 1, "DIMM1"}, {11, 2, "DIMM2"}, {12, 3, "DIMM3"}}},
          Case{letters.EncodeCompact(), {{10, 1, "Drive D"}, {11, 1, "Drive E"}}},
          Case{reserved, {{10, 1, "Drive D"}, {11, 1, "Drive E"}}}, Case{bare, {{10, 1, "Fan"}, {11, 1, "Fan"}}},
          Case{Shared(10, "Slot3", 0).EncodeEventOnly(), {{10, 1, "Slot3"}}},
          Case{Shared(10, "Slot3", 1, 9).EncodeCompact(), {{10, 1, "Slot3"}}},
          Case{Shared(253, "Edge", 15).EncodeCompact(), {{253, 1, "Edge0"}, {254, 1, "Edge1"}}},
          Case{Shared(255, "None", 1).EncodeCompact(), {}}}) {
        Run([&] {
            Add(record);
            EXPECT_EQ(0U, KvPsInitializeIpmi());
            Sensors sensors;
            ForEachSdr([&](const SDR& sdr) {
                sensors.emplace_back(sdr.number, sdr.entityInstance, sdr.name);
                EXPECT_THAT(sdr.conversion, testing::Each(0xFF));
                EXPECT_EQ(0x0D, sdr.sensorType);
                EXPECT_EQ(0x6F, sdr.readingType);
                EXPECT_EQ(record[3], sdr.recordType);
            });
            EXPECT_EQ(expected, sensors);
        });
    }
}

TEST_F(Repository, ARunDoesNotReachIntoTheNextOwnersSensors) {
    Add(Shared(250, "Run", 15).EncodeCompact());
    Add(Full(0, "Next", 0x20, 1).Encode());
    ExpectNames({"Run0", "Run1", "Run2", "Run3", "Run4", "Next"});
}

TEST(IdStrings, AreDecodedByTheirCoding) {
    const std::string twenty = "A sensor's long name";
    const std::string longest(31, 'x');
    const auto eightBit = [](const std::string& text) { return sim::IdString(text); };
    using Case = std::tuple<Bytes, uint32_t, std::string>;
    for (const auto& [coded, size, expected] :
         {Case{eightBit(twenty), 64, twenty}, Case{eightBit(longest), 64, longest},
          Case{eightBit(longest), 8, "xxxxxxx"}, Case{{0xC0}, 64, ""}, Case{{0x84, 0x29, 0xDC, 0xA6}, 64, "IPMI"},
          Case{{0x85, 0x29, 0xDC, 0xA6, 0x3F}, 64, "IPMI_"},
          Case{{0x4A, 0x10, 0x32, 0x54, 0x76, 0x98}, 64, "0123456789"}, Case{{0x46, 0xBA, 0xDC, 0xFE}, 64, " -.:,_"},
          Case{{0x03, 'U', 0, 0xAC, 0x20, '1', 0}, 64, "U?1"}}) {  // no euro sign in the C locale
        char text[64];
        memset(text, '#', sizeof text);
        GetIdString(coded.data(), text, size);
        EXPECT_EQ(expected, text);
        EXPECT_TRUE(size == sizeof text || text[size] == '#') << "nothing behind the buffer";
    }
}

TEST_F(Repository, NamesEndWithTheirRecord) {
    for (const auto coding : {sim::TextCoding::kBcdPlus, sim::TextCoding::kSixBit, sim::TextCoding::kEightBit}) {
        Bmc().Sdr()->Clear();
        sim::FullRecord record = Full(1, "123456");
        record.coding = coding;
        const Bytes encoded = record.Encode();
        Add(WithByte(encoded, 47, encoded[47] | 0x1F));  // claims more
        ExpectNames({"123456"});
    }
    Bytes nameless = Full(2).Encode();
    nameless.resize(47);
    nameless[4] = 42;
    Bmc().Sdr()->Clear();
    Add(nameless);
    ExpectNames({""});
}

TEST_F(Repository, DevicesFoundLaterHaveNoRecords) {
    AddSensors(1);
    Run([] {
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        DEVICE_INFO later{};
        for (later.address = 0x22; later.address < 0xFE; later.address += 2)
            AddSensorDevice(later);
        SDR sdr;
        ASSERT_EQ(SdrLookup::kFound, FindSdr(0x20, 0, 1, &sdr));
        sdr.owner = 0x22;
        EXPECT_FALSE(StoreSdr(sdr));
        EXPECT_EQ(SdrLookup::kNoDevice, FindSdr(0x22, 0, 1, nullptr));
        EXPECT_THAT(Names(), SizeIs(1));
    });
}

}  // namespace
