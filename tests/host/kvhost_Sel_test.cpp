// "kvhost sel" on a simulated server.

#include <algorithm>

#include "tests/support/KvhostProgram.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

class KvhostSel : public KvhostProgram {
protected:
    /// A machine with this log.
    void SetLog(const std::string& entries) {
        UseMachine(R"({"smbios": {"bios": {"vendor": "Velmora"}}, "bmc": {
            "sdr": [{"kind": "controllerLocator", "address": "0x20", "capabilities": "0x04", "name": "BMC"},
                    {"kind": "full", "number": "0x22", "name": "FAN3", "sensorType": "fan"}],
            "sel": {"entries": [)" +
                   entries + "]}}}");
    }
    void SetUp() override {
        SetLog(kOld);
        EXPECT_EQ("no new events\n", Output("sel"));
    }

    static constexpr const char* kOld = R"(
        {"time": 1700000000, "sensorType": "0x10", "sensor": "0xA1", "eventType": "0x6F", "data": "02 FF FF"})";
    static constexpr const char* kNew = R"(,
        {"time": 1700000100, "sensorType": "0x04", "sensor": "0x22", "eventType": "0x01", "data": "52 08 0C"},
        {"time": 1000, "sensorType": "0x08", "sensor": "0x49", "eventType": "0x6F", "deasserted": true,
         "data": "03 FF FF"})";
};

TEST_F(KvhostSel, ShowsWhatIsNewOnce) {
    SetLog(std::string(kOld) + kNew);
    EXPECT_EQ(
        "record  time                 sensor  type          event\n"
        "------  -------------------  ------  ------------  -------------------------\n"
        "0x0002  2023-11-14 22:15:00  FAN3    fan           lower critical, going low\n"
        "0x0003  start + 1000 s       0x49    power supply  state 3 (deasserted)\n",
        Output("sel"));
    EXPECT_EQ("no new events\n", Output("sel"));
    EXPECT_THAT(Output("sel --all"), HasSubstr("\n51_0001  0x0003  start + 1000 s "));
    const json known = Json("sel --all");
    ASSERT_EQ(3U, known.size());
    const json fan = {{"device", "51_0001"},
                      {"record", "0x0002"},
                      {"time", "2023-11-14 22:15:00"},
                      {"generator", "0x0020"},
                      {"sensor", "0x22"},
                      {"name", "FAN3"},
                      {"type", "fan"},
                      {"event", "lower critical, going low"},
                      {"asserted", true},
                      {"data", "52 08 0c"}};
    EXPECT_EQ(fan, known[1]);
    EXPECT_TRUE(known[2]["name"].is_null());
}

TEST_F(KvhostSel, FollowsUntilItIsStopped) {
    SetLog(std::string(kOld) + kNew);
    const std::string lines = Shell(
                                  ": >/output\n"
                                  "$KVHOST --machine sim:/machine.json sel --follow --json >/output 2>&1 &\n"
                                  "while [ ! -s /output ]; do sleep 0.02; done\n"
                                  "kill -TERM $!\n"
                                  "wait $!\n")
                                  .output;
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), '\n'));
    EXPECT_EQ("0x0002", json::parse(lines.substr(0, lines.find('\n')))["record"]);
    EXPECT_EQ(2, Run("sel --follow --all").status);
}

}  // namespace
