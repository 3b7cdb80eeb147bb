// "kvhost sensors" on the simulated rack server.

#include "tests/support/KvhostProgram.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

using KvhostSensors = KvhostProgram;

TEST_F(KvhostSensors, ShowsEverySensorWithItsReading) {
    UseRackServer();
    const json sensors = Json("sensors");
    ASSERT_GT(sensors.size(), 40U);
    const json inlet = {{"owner", "0x20"},       {"lun", 0},          {"number", 1},      {"name", "Inlet Temp"},
                        {"type", "temperature"}, {"reading", "0x18"}, {"states", "00 80"}};
    EXPECT_EQ(inlet, sensors[0]);
    EXPECT_THAT(Output("sensors"), HasSubstr("Inlet Temp"));
}

TEST_F(KvhostSensors, ShowsWhatIsMeasuredAlone) {
    UseMachine(R"({"smbios": {"bios": {"vendor": "Velmora"}}, "bmc": {"sdr": [
        {"kind": "full", "number": 1, "name": "Measured", "sensorType": "fan", "reading": 5, "flags": "0xC0"},
        {"kind": "full", "number": 2, "name": "Unavailable", "sensorType": "fan", "reading": 5, "flags": "0xE0"},
        {"kind": "full", "number": 3, "name": "Not scanning", "sensorType": "fan", "reading": 5, "flags": "0x80"}]}})");
    std::vector<json> readings;
    for (const json& sensor : Json("sensors"))
        readings.push_back(sensor["reading"]);
    EXPECT_THAT(readings, testing::ElementsAre("0x05", nullptr, nullptr));
}

TEST_F(KvhostSensors, ShowsTheRecordsAsTheyAreKept) {
    UseRackServer();
    const json record = Json("sensors --packed")[0];
    EXPECT_EQ("full", record["kind"]);
    EXPECT_EQ("55.1", record["entity"]);
    EXPECT_EQ(29U, record["conversion"].get<std::string>().size());
}

TEST_F(KvhostSensors, AMachineWithoutSensorsSaysSo) {
    UseMachine("{}");
    const Outcome outcome = Run("sensors");
    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.output, testing::StartsWith("kvhost: QNTR"));
}

}  // namespace
