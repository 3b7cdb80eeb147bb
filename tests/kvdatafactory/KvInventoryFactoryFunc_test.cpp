// Records of a whole machine: what the data factory makes of a simulated server with the delivered definition files.
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "libplatform/KvDfDataFactory.h"
#include "libplatform/KvDfHardware.h"
#include "libplatform/KvDfMemory.h"
#include "libplatform/platform_if.h"
#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"
#include "tests/support/InMachineRoot.h"

namespace {

std::string Text(const CKvString& text) {
    return static_cast<const char*>(text);
}
std::string Number(uint32_t number) {
    return number == kKvUnknownNumber ? "?" : std::to_string(static_cast<int32_t>(number));
}

std::string Print(const KVDF_TEMPERATURE& r) {
    return Number(r.number) + " " + Text(r.name) + " " + Number(r.temperature) + " " + Number(r.state) + "=" +
           Text(r.stateText);
}
template <typename Unit>
requires std::same_as<Unit, KVDF_FAN> || std::same_as<Unit, KVDF_POWUNIT> std::string Print(const Unit& r) {
    return Number(r.number) + " " + Number(r.exist) + "=" + Text(r.existText) + " " + Number(r.state) + "=" +
           Text(r.stateText);
}
std::string Print(const KVDF_VOLTAGE& r) {
    return Number(r.number) + " " + Text(r.name) + " " + Number(r.voltage) + " of " + Number(r.nominal);
}
std::string Print(const KVDF_SYSBIOS& r) {
    return Text(r.version) + " of " + Text(r.releaseDate);
}
std::string Print(const KVDF_CPU& r) {
    return Number(r.number) + " " + Text(r.name) + " " + Number(r.exist) + " " + Number(r.state) + "=" +
           Text(r.stateText) + " family " + Number(r.family) + " " + Number(r.speed) + " MHz";
}
std::string Print(const KVDF_CACHE& r) {
    return Number(r.number) + " L" + Number(r.level) + " " + Number(r.size) + " KB " + Number(r.state);
}
std::string Print(const KVDF_MEMARRAY& r) {
    return Number(r.number) + " with " + Number(r.sockets);
}
std::string Print(const KVDF_MEMSOCKET& r) {
    return Number(r.array) + "." + Number(r.number) + " " + Number(r.size) + " MB " + Number(r.state) + "=" +
           Text(r.stateText);
}

/// What a getter gives, a record a line; or its code.
template <typename Record>
std::vector<std::string> RecordsOf(uint32_t (*get)(unsigned long*, Record**)) {
    unsigned long count = 0;
    Record* records = nullptr;
    if (const uint32_t rc = get(&count, &records)) {
        char code[16];
        snprintf(code, sizeof code, "%08x", rc);
        return {code};
    }
    std::vector<std::string> lines;
    for (unsigned long i = 0; i < count; ++i)
        lines.push_back(Print(records[i]));
    KvDfFreeDataArray(records);
    return lines;
}

using Lines = std::vector<std::string>;

void OnScenario(const std::string& file, const std::function<void(sim::SimulatedServer&)>& body) {
    const MachineRoot root = MakeTestRoot();
    root.AddSystemFile(InSourceTree(file), "/scenario.json");
    RunInRoot(root, [&] {
        sim::ScopedVirtualClock clock;
        sim::SimulatedServer server(clock);
        sim::LoadScenario(server, "/scenario.json");
        KvSetDeviceOps(server.Ops());
        body(server);
        KvSetDeviceOps(nullptr);
    });
}

TEST(Records, OfTheRackServer) {
    OnScenario("/simulator/scenarios/rack-server.json", [](sim::SimulatedServer&) {
        ASSERT_EQ(0, InitLib());
        EXPECT_EQ((Lines{"1 Inlet Temp 240 3=Normal", "2 Board Temp 330 3=Normal", "3 MEM1 Temp 380 3=Normal",
                         "4 MEM2 Temp 370 3=Normal", "5 PSU1 Temp 350 3=Normal", "6 PSU2 Temp 340 3=Normal"}),
                  RecordsOf(KvDfGetBodyTemperature));
        EXPECT_EQ((Lines{"1 CPU1 470 3=Normal", "2 CPU2 440 3=Normal"}), RecordsOf(KvDfGetCpuTemperature));
        EXPECT_EQ((Lines{"1 1=Installed 3=Normal", "2 1=Installed 3=Normal", "3 1=Installed 3=Normal",
                         "4 1=Installed 3=Normal", "5 1=Installed 3=Normal", "6 1=Installed 3=Normal"}),
                  RecordsOf(KvDfGetBodyFan));
        EXPECT_EQ((Lines{}), RecordsOf(KvDfGetCpuFan)) << "its processors are cooled by the machine's fans";
        EXPECT_EQ((Lines{"1 1=Installed 3=Normal", "2 1=Installed 3=Normal"}), RecordsOf(KvDfGetPowerUnit));
        EXPECT_EQ(
            (Lines{"1 P12V 12033 of 11970", "2 P5V 5018 of 4992", "3 P3V3 3315 of 3298", "4 P3V3 STBY 3298 of 3298",
                   "5 VBAT 3040 of 3008", "6 CPU1 Vcore 1780 of 1800", "7 CPU2 Vcore 1790 of 1800"}),
            RecordsOf(KvDfGetVoltageProbe));
        EXPECT_EQ((Lines{"R2.15.0 of 03/18/2024"}), RecordsOf(KvDfGetSystemBios));
        EXPECT_EQ((Lines{"1 L2 Cache 1 3=Normal family 179 2700 MHz", "2 L2 Cache 1 3=Normal family 179 2700 MHz"}),
                  RecordsOf(KvDfGetCpu));
        EXPECT_EQ((Lines{"1 L2 16384 KB 3", "2 L2 16384 KB 3"}), RecordsOf(KvDfGetCpuCache));
        EXPECT_EQ((Lines{"1 with 16"}), RecordsOf(KvDfGetMemoryArray));
        Lines sockets;
        for (int i = 1; i <= 16; ++i)  // every other one is empty
            sockets.push_back("1." + std::to_string(i) + (i % 2 == 1 ? " 16384 MB 1=Normal" : " 0 MB 3=Empty"));
        EXPECT_EQ(sockets, RecordsOf(KvDfGetMemorySocket));
        EXPECT_EQ(131072u, KvDfGetTotalMemorySize());
        TerminateLib();
    });
}

}  // namespace
