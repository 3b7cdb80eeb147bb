// "kvhost sensors" on the simulated rack server.

#include <gmock/gmock.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/InMachineRoot.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

class KvhostSensors : public testing::Test {
protected:
    std::string Run(const std::string& arguments, const std::string& scenario = "/scenario.json", int status = 0) {
        const int ended = root_.Run([&] {
            const std::string command =
                "/opt/velmora/lantrel/bin/kvhost --machine sim:" + scenario + " " + arguments + " >/output 2>&1";
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            return 127;
        });
        EXPECT_EQ(status, ended);
        return root_.ReadFile("/output");
    }
    void SetUp() override {
        root_.AddSystemFile(KV_SOURCE_DIR "/simulator/scenarios/rack-server.json", "/scenario.json");
    }

    MachineRoot root_ = MakeTestRoot();
};

TEST_F(KvhostSensors, ShowsEverySensorWithItsReading) {
    const json sensors = json::parse(Run("sensors --json"));
    ASSERT_GT(sensors.size(), 40U);
    const json inlet = {{"owner", "0x20"},       {"lun", 0},          {"number", 1},      {"name", "Inlet Temp"},
                        {"type", "temperature"}, {"reading", "0x18"}, {"states", "00 80"}};
    EXPECT_EQ(inlet, sensors[0]);
    EXPECT_THAT(Run("sensors"), HasSubstr("Inlet Temp"));
}

TEST_F(KvhostSensors, ShowsTheRecordsAsTheyAreKept) {
    const json records = json::parse(Run("sensors --packed --json"));
    ASSERT_GT(records.size(), 40U);
    EXPECT_EQ("full", records[0]["kind"]);
    EXPECT_EQ("55.1", records[0]["entity"]);
    EXPECT_EQ(29U, records[0]["conversion"].get<std::string>().size());
}

TEST_F(KvhostSensors, AMachineWithoutSensorsSaysSo) {
    root_.AddFile("/empty.json", "{}");
    EXPECT_THAT(Run("sensors", "/empty.json", 1), testing::StartsWith("kvhost: QNTR"));
}

}  // namespace
