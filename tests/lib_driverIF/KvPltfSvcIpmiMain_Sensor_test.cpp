// Start-up of the sensors, and the queries that a host makes.

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>
#include <tuple>

#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSensor.h"
#include "tests/support/SimulatedMachine.h"

namespace {

using testing::ElementsAre;

constexpr uint8_t kSensorEvent = sim::netfn::kSensorEvent;
constexpr uint8_t kGetFactors = 0x23;
constexpr uint8_t kProcessor = 3;
constexpr uint8_t kTemperature = 1;

class Sensors : public SimulatedMachine {
protected:
    void Add(uint8_t number, const std::string& name, uint8_t owner = 0x20) {
        const sim::FullRecord record{{.owner = owner,
                                      .number = number,
                                      .entityId = kProcessor,
                                      .entityInstance = number,
                                      .sensorType = kTemperature,
                                      .name = name},
                                     {0x80, 1, 0, 2, 9, 0x40, 0xF6, 0xC0, 5, 0xE1},
                                     true,
                                     42};
        Bmc().Sdr()->Add(record.Encode());
        Bmc().Sensors()->At(number).reading = number;
    }
    /// Runs body with the sensors read.
    void RunStarted(const std::function<void()>& body) {
        Run([&] {
            ASSERT_EQ(0U, KvPsInitializeIpmi());
            body();
        });
    }
};

/// A sensor that cannot be asked, and the code.
using Case = std::tuple<uint8_t, uint8_t, uint8_t, uint32_t>;

/// Names of the processor temperatures, in the order of KvPsGetSdrData.
std::vector<std::string> ProcessorTemperatures() {
    unsigned long count = 0;
    SDR** array = nullptr;
    EXPECT_EQ(0U, KvPsGetSdrData(kProcessor, kTemperature, &count, &array));
    const std::unique_ptr<SDR*, decltype(&free)> owner(array, free);
    std::vector<std::string> names;
    for (unsigned long i = 0; i < count; ++i)
        names.emplace_back(array[i]->name);
    return names;
}

TEST_F(Sensors, AReadingIsJoinedWithItsRecord) {
    Add(5, "CPU Temp");
    Bmc().Sensors()->At(5) = {.reading = 77, .flags = 0xE0, .states = {0x12, 0x81}, .factorsFrom = {}};
    RunStarted([this] {
        Bmc().ResetCounts();
        KVPS_SENSOR_DATA data;
        memset(&data, '#', sizeof data);
        EXPECT_EQ(0U, KvPsGetSensorData(0x20, 0, 5, &data));
        const KVPS_SENSOR_DATA expected{
            77, {0x12, 0x81}, 1, kTemperature, 0xE0, 1, 42, {0x80, 1, 0, 2, 9, 0x40, 0xF6, 0xC0, 5, 0xE1}};
        EXPECT_EQ(0, memcmp(&expected, &data, sizeof data));
        EXPECT_EQ(1U, Bmc().Count());
    });
}

TEST_F(Sensors, AReadingThatFailsHasItsCode) {
    Add(5, "CPU Temp");
    Bmc().Sensors()->At(9);
    RunStarted([this] {
        KVPS_SENSOR_DATA data;
        Bmc().ResetCounts();
        EXPECT_EQ(0x6049B106U, KvPsGetSensorData(0x20, 0, 255, &data));
        EXPECT_EQ(0x6049B106U, KvPsGetSensorData(0x20, 4, 5, &data));
        EXPECT_EQ(0U, Bmc().Count()) << "what cannot be is not asked";
        EXPECT_EQ(0x6039B2CBU, KvPsGetSensorData(0x20, 0, 200, &data)) << "unknown to the BMC";
        EXPECT_EQ(0x6049B106U, KvPsGetSensorData(0x26, 0, 5, &data)) << "an owner without records";
        EXPECT_EQ(0U, KvPsGetSensorData(0x20, 0, 9, &data)) << "a sensor without record";
        EXPECT_EQ(0, data.sensorType);
        EXPECT_EQ(0x6000B109U, KvPsGetSensorData(0x21, 0, 5, &data)) << "software";
        KvPsTerminateIpmi();
        EXPECT_EQ(0x6049B106U, KvPsGetSensorData(0x20, 0, 5, &data)) << "no records any more";
    });
}

TEST_F(Sensors, AListOfSensorsTakesOneOpeningAndOneCommandEach) {
    for (const uint8_t number : {uint8_t{1}, uint8_t{2}, uint8_t{3}})
        Add(number, "CPU Temp");
    RunStarted([this] {
        unsigned long count = 0;
        SDR* records = nullptr;
        ASSERT_EQ(0U, KvPsGetAllSdrData(&count, &records));
        const std::unique_ptr<SDR, decltype(&free)> owner(records, free);
        ASSERT_EQ(3U, count);
        records[1].number = 200;  // unknown to the BMC
        std::array<KVPS_SENSOR_DATA, 3> data;
        std::array<uint32_t, 3> results;
        const unsigned opensBefore = server.Opens("/dev/ipmi0");
        Bmc().ResetCounts();
        EXPECT_EQ(0U, KvPsGetSensorDataList(records, count, data.data(), results.data()));
        EXPECT_EQ(opensBefore + 1, server.Opens("/dev/ipmi0"));
        EXPECT_EQ(3U, Bmc().Count());
        EXPECT_THAT(results, ElementsAre(0U, 0x6039B2CBU, 0U));
        EXPECT_EQ(3, data[2].reading);

        records[0].recordType = 3;  // event-only: it is not asked
        EXPECT_EQ(0U, KvPsGetSensorDataList(records, 1, data.data(), results.data()));
        EXPECT_EQ(0x6000B100U, results[0]);
        EXPECT_EQ(3U, Bmc().Count());
        FailToOpen();
        EXPECT_EQ(0x6054B104U, KvPsGetSensorDataList(records, count, data.data(), results.data()));
        EXPECT_THAT(results, testing::Each(0x6054B104U));
    });
}

TEST_F(Sensors, SingleFields) {
    Add(254, "The last one");
    RunStarted([] {
        char name[KVPS_SENSOR_NAME_SIZE];
        uint8_t id = 0;
        uint8_t instance = 0;
        EXPECT_EQ(0U, KvPsGetSensorIdString(0x20, 0, 254, name));
        EXPECT_STREQ("The last one", name);
        EXPECT_EQ(0U, KvPsGetEntityId(0x20, 0, 254, &id));
        EXPECT_EQ(kProcessor, id);
        EXPECT_EQ(0U, KvPsGetEntityInstance(0x20, 0, 254, &instance));
        EXPECT_EQ(254, instance);

        for (const auto& [owner, lun, sensor, result] :
             {Case{0x20, 4, 255, 2001}, Case{0x22, 0, 255, 2006}, Case{0x22, 0, 254, 2014}, Case{0x20, 3, 254, 2014},
              Case{0x20, 0, 253, 2018}}) {
            EXPECT_EQ(result, KvPsGetEntityId(owner, lun, sensor, &id));
            EXPECT_EQ(result, KvPsGetEntityInstance(owner, lun, sensor, &instance));
            EXPECT_EQ(result, KvPsGetSensorIdString(owner, lun, sensor, name));
        }
        KvPsTerminateIpmi();
        EXPECT_EQ(2014U, KvPsGetEntityId(0x20, 0, 254, &id));
    });
}

TEST_F(Sensors, FactorsReplaceTheLastSixConversionBytes) {
    Add(5, "Curve");
    Bmc().Sensors()->At(5).factorsFrom[100] = {11, 12, 13, 14, 15, 16};
    RunStarted([this] {
        uint8_t conversion[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        EXPECT_EQ(0U, KvPsGetSensorConvert(0x20, 0, 5, 100, conversion));
        EXPECT_THAT(conversion, ElementsAre(1, 2, 3, 4, 11, 12, 13, 14, 15, 16));
        for (const auto& [owner, lun, sensor, result] :
             {Case{0x21, 4, 255, 0x605BB109}, Case{0x20, 4, 255, 0x605BB10A}, Case{0x20, 0, 255, 0x605BB106},
              Case{0x20, 0, 99, 0x605BB107}}) {
            EXPECT_EQ(result, KvPsGetSensorConvert(owner, lun, sensor, 0, conversion));
        }
        EXPECT_EQ(2U, Bmc().Count(kSensorEvent, kGetFactors)) << "what cannot be is not asked";
        EXPECT_THAT(conversion, ElementsAre(1, 2, 3, 4, 11, 12, 13, 14, 15, 16));
    });
}

TEST_F(Sensors, RecordsOfAKindComeInTableOrder) {
    Add(9, "Other owner", 0x26);
    Add(7, "Seven");
    Add(3, "Three");
    RunStarted([] {
        EXPECT_THAT(ProcessorTemperatures(), ElementsAre("Other owner", "Three", "Seven"));
        unsigned long count = 99;
        SDR** array = reinterpret_cast<SDR**>(&count);
        EXPECT_EQ(0U, KvPsGetSdrData(kProcessor, 2, &count, &array));
        EXPECT_EQ(0U, KvPsGetSdrData(0, 0, &count, &array)) << "empty slots are no records";
        EXPECT_EQ(99U, count);
        EXPECT_EQ(reinterpret_cast<SDR**>(&count), array);
        EXPECT_EQ(0U, KvPsGetSdrData(kProcessor, kTemperature, &count, nullptr));
        EXPECT_EQ(3U, count);
    });
}

TEST_F(Sensors, SomeModelsListTheirProcessorsInReverse) {
    using Model = std::tuple<std::string, std::string, int, bool>;
    for (const auto& [version, first, sensors, swapped] :
         {Model{"0000E51300", "CPU 2-1 Temp", 4, true}, Model{"0000F51300", "CPU 2-1 Temp", 5, true},
          Model{"0000F51500", "Proc 1-1 Temp", 4, true}, Model{"0000F51K00", "Proc 1-1 Temp", 4, true},
          Model{"0000F51K00", "CPU 2-1 Temp", 4, false}, Model{"0000F51300", "CPU 1-1 Temp", 4, false},
          Model{"0000F59900", "CPU 2-1 Temp", 4, false}, Model{"", "Proc 1-1 Temp", 4, false},
          Model{"0000E51300", "CPU 2-1 Temp", 3, false}}) {
        SCOPED_TRACE(version + ", " + first);
        SetProduct("Server", version);
        Run([&] {
            std::vector<std::string> expected;
            for (int i = 0; i < sensors; ++i) {
                expected.push_back(i == 0 ? first : "T" + std::to_string(i));
                Add(static_cast<uint8_t>(i), expected.back());
            }
            ASSERT_EQ(0U, KvPsInitializeIpmi());
            if (swapped) {
                std::swap(expected[0], expected[2]);
                std::swap(expected[1], expected[3]);
            }
            EXPECT_EQ(expected, ProcessorTemperatures());
        });
    }
}

// Start and end

TEST_F(Sensors, StartUpGoesToTheBmcsOwnAddressAndSetsItsClock) {
    Add(5, "CPU Temp");
    smbios.Add(sim::SmbiosIpmiDevice{.slaveAddress = 0x24});
    Run([this] {
        Bmc().Sel()->SetTime(1);
        EXPECT_EQ(0U, KvPsInitializeIpmi());
        EXPECT_EQ(0x24, g_bBmcAdr);
        EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(Bmc().Sel()->Time()), 2);
        KVPS_COD_BLADE_INFO info;
        EXPECT_EQ(0U, KvPsGetCoDBladeInfo(&info));
        EXPECT_EQ(Bmc().Identity()->firmwareMinor, info.firmwareRevision2);
        EXPECT_EQ(0U, info.supported);
        Bmc().Refuse(sim::netfn::kStorage, 0x49, sim::cc::kInvalidCommand);
        EXPECT_EQ(0U, KvPsInitializeIpmi()) << "a clock that cannot be set does not matter";
    });
}

TEST_F(Sensors, StartUpThatFailsLeavesNothingHeld) {
    Run([this] {
        EXPECT_EQ(0x6050B105U, KvPsInitializeIpmi()) << "no sensors";
        Add(5, "CPU Temp");
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        unsigned long count = 0;
        SDR* records = nullptr;
        Bmc().Refuse(sim::netfn::kApp, 0x01, sim::cc::kUnspecified);
        EXPECT_EQ(0x6030B2FFU, KvPsInitializeIpmi()) << "the BMC does not say who it is";
        EXPECT_EQ(0x6000B103U, KvPsGetAllSdrData(&count, &records));
        EXPECT_EQ(0U, server.OpenDescriptors()) << "the bracket is closed";
        SDR** array = nullptr;
        EXPECT_EQ(0x6000B103U, KvPsGetSdrData(kProcessor, kTemperature, &count, &array));
        EXPECT_EQ(0U, KvPsInitializeIpmi());
    });
}

TEST_F(Sensors, QueriesGoOnWhileTheTableComesAndGoes) {
    for (uint8_t number = 0; number < 20; ++number)
        Add(number, "A name of some length");
    RunStarted([] {
        std::atomic<bool> done{false};
        std::atomic<unsigned> torn{0};
        std::array<std::thread, 3> readers;
        for (std::thread& reader : readers) {
            reader = std::thread([&] {
                while (!done) {
                    char name[KVPS_SENSOR_NAME_SIZE];
                    const uint32_t rc = KvPsGetSensorIdString(0x20, 0, 19, name);
                    if (rc == 0 && strcmp("A name of some length", name) != 0) ++torn;
                    unsigned long count = 0;
                    SDR* records = nullptr;
                    if (KvPsGetAllSdrData(&count, &records) == 0 && count > 20) ++torn;
                    free(records);
                    usleep(50);  // readers that never pause keep the writer out
                }
            });
        }
        for (int i = 0; i < 10; ++i) {
            KvPsTerminateIpmi();
            EXPECT_EQ(0U, KvPsInitializeIpmi());
        }
        done = true;
        for (std::thread& reader : readers)
            reader.join();
        EXPECT_EQ(0U, torn);
    });
}

}  // namespace
