/// Scenario files: what they make, and that a mistake is named where it stands.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <utility>

#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"
#include "tests/support/BuildTree.h"

namespace sim {
namespace {

std::string ErrorOf(const std::string& json) {
    VirtualClock clock;
    SimulatedServer server(clock);
    try {
        ApplyScenario(server, json);
    } catch (const ScenarioError& error) {
        return error.what();
    }
    return "";
}

TEST(Scenario, NamesTheFieldThatIsWrong) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"bmc": )", "not JSON: "},
        {"[]", "scenario: must be an object"},
        {R"({"bcm": {}})", "scenario: \"bcm\" is not known here"},
        {R"({"bmc": {"deviceId": {"id": 256}}})", "bmc.deviceId.id: 256 exceeds 255"},
        {R"({"bmc": {"deviceId": {"id": -1}}})",
         "bmc.deviceId.id: must be a number, not negative and without a fraction"},
        {R"({"bmc": {"deviceId": {"id": "0x2G"}}})", "bmc.deviceId.id: must be a number, not negative and"},
        {R"({"bmc": {"sdr": {}}})", "bmc.sdr: must be a list"},
        {R"({"bmc": {"sdr": [{"kind": "fool"}]}})", "bmc.sdr[0]: \"fool\" is no kind of record"},
        {R"({"bmc": {"sdr": [{"kind": "oem", "data": "00"}, {"kind": "full", "name": "A"}]}})",
         "bmc.sdr[1]: \"number\" is missing"},
        {R"({"bmc": {"sdr": [{"kind": "full", "number": 1, "name": "A", "sensorType": "heat"}]}})",
         "bmc.sdr[0].sensorType: \"heat\" is none of: temperature, voltage"},
        {R"({"bmc": {"sdr": [{"kind": "full", "number": 1, "name": "A", "conversion": {"m": 512}}]}})",
         "bmc.sdr[0].conversion: m and b have ten bits"},
        {R"({"bmc": {"sdr": [{"kind": "compact", "number": 1, "name": "A", "share": 16}]}})",
         "bmc.sdr[0]: a record stands for at most 15 sensors"},
        {R"({"bmc": {"sdr": [{"kind": "raw", "bytes": "00 00 51"}]}})", "bmc.sdr[0]: a record has at least five bytes"},
        {R"({"bmc": {"sel": {"entries": [{"raw": "00"}]}}})", "bmc.sel.entries[0].raw: must have 16 bytes"},
        {R"({"bmc": {"fru": [{"records": [{"type": 1, "data": "0"}]}]}})",
         "bmc.fru[0].records[0].data: must have an even number of hexadecimal digits"},
        {R"({"controllers": [{"address": 32}]})", "controllers[0]: the address is taken"},
        {R"({"interfaces": {"kcs": {"base": 65536}}})", "interfaces.kcs: an I/O port is at most 0xFFFF"},
        {R"({"smbios": {"structures": [{"type": 3, "handle": 7, "bytes": "00", "strings": {"5": "x"}}]}})",
         "smbios.structures[0].strings.5: the name must be an offset within the structure"},
        {R"({"faults": [{"kind": "busy", "netFn": 6}]})", "faults[0]: \"command\" is missing"},
        {R"({"faults": [{"kind": "silent", "netFn": 6, "command": 1, "address": "0x54"}]})",
         "faults[0]: nobody has address 84"},
        {R"({"faults": [{"kind": "hung", "times": 1}]})", "faults[0]: \"times\" is not known here"},
    };
    for (const auto& [json, error] : cases)
        EXPECT_EQ(0U, ErrorOf(json).find(error)) << ErrorOf(json);
}

TEST(Scenario, RackServerIsAWholeMachine) {
    VirtualClock clock;
    SimulatedServer server(clock);
    LoadScenario(server, InSourceTree("/simulator/scenarios/rack-server-events.json"));
    Bmc& bmc = server.GetBmc();
    EXPECT_EQ(50U, bmc.Sdr()->Records().size());
    std::set<uint8_t> types;
    for (const Bytes& record : bmc.Sdr()->Records()) {
        types.insert(record[3]);
        EXPECT_EQ(record.size(), 5U + record[4]);
        if (record[3] > 2) continue;
        const Request ask{netfn::kSensorEvent, record[6], 0x2D, {record[7]}};
        EXPECT_EQ(0, bmc.Execute(ask).completionCode) << "a sensor with a record and no reading: " << +record[7];
    }
    EXPECT_EQ((std::set<uint8_t>{0x01, 0x02, 0x03, 0x08, 0x10, 0x11, 0x12, 0x13, 0xC0}), types);
    EXPECT_NE(nullptr, bmc.Sensors()->Find(0x51)) << "the second sensor of a shared record";
    EXPECT_NE(nullptr, bmc.FindController(0x52));
    EXPECT_EQ(5, Word(bmc.Execute({netfn::kStorage, 0, 0x40, {}}).data, 1));
    clock.Advance(8'000'000);
    EXPECT_EQ(7, Word(bmc.Execute({netfn::kStorage, 0, 0x40, {}}).data, 1)) << "two of the later events are due";
}

TEST(Scenario, FaultsStrikeWhereTold) {
    VirtualClock clock;
    SimulatedServer server(clock);
    ApplyScenario(server, R"({"faults": [
        {"kind": "busy", "netFn": 6, "command": 1, "times": 2},
        {"kind": "length", "netFn": 10, "command": 64, "bytes": 3, "after": 1},
        {"kind": "cancelReservation", "command": "0x43", "at": 2},
        {"kind": "openError", "errno": 16},
        {"kind": "notAvailable"}]})");
    Bmc& bmc = server.GetBmc();
    const auto code = [&](uint8_t netFn, uint8_t command, const Bytes& data = {}) {
        return bmc.Execute({netFn, 0, command, data}).completionCode;
    };
    EXPECT_EQ(cc::kNodeBusy, code(6, 1));
    EXPECT_EQ(cc::kNodeBusy, code(6, 1));
    EXPECT_EQ(0, code(6, 1));
    EXPECT_EQ(14U, bmc.Execute({10, 0, 64, {}}).data.size());
    EXPECT_EQ(3U, bmc.Execute({10, 0, 64, {}}).data.size());
    const Bytes first{0, 0, 0, 0, 0, 0xFF};
    EXPECT_EQ(cc::kNotPresent, code(10, 0x43, first));
    EXPECT_EQ(cc::kReservationCancelled, code(10, 0x43, first));
    EXPECT_EQ(-1, server.Ops()->open(server.Ops()->context, "/dev/ipmi0", 2));
    EXPECT_TRUE(server.Kcs().Read(kcs::kStatus) & kcs::kNotAvailable);
}

TEST(Scenario, FilesBuildUponEachOtherButNotForEver) {
    const std::filesystem::path file = std::filesystem::current_path() / "scenario-upon-itself.json";
    std::ofstream(file) << R"({"base": "scenario-upon-itself.json"})";
    VirtualClock clock;
    SimulatedServer server(clock);
    EXPECT_THROW(LoadScenario(server, file), ScenarioError);
    EXPECT_THROW(LoadScenario(server, "no-such-scenario.json"), ScenarioError);
    std::filesystem::remove(file);
}

}  // namespace
}  // namespace sim
