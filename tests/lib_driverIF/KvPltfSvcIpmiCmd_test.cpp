// What each command function sends, and what becomes of the answer.

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "libplatform/PXR_syscall.h"
#include "simulator/VirtualClock.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/ScriptedDriver.h"
#include "tests/support/Tracing.h"

// The host's pause in a firmware update, in which the gate notices that the process is to end.
extern "C" {
int g_WaitUpdate = 1;
}

namespace {

using namespace ktx_ipmi;
using Bytes = ScriptedDriver::Bytes;

class Commands : public testing::Test {
protected:
    ScriptedDriver bmc;
    sim::ScopedVirtualClock clock;
};

/// Where the commands of the table put what they are answered.
struct Outputs {
    uint8_t u8[3];
    uint16_t u16;
    uint32_t u32;
    uint8_t bytes[64];
    OemAnswer answer;
    DeviceId id;
    SelInfo info;
    KVPS_SEL_ENTRY entry;
    SensorReading reading;
    SensorReadingFactors factors;
} o;

constexpr WatchdogTimer kTimer{4, 1, 2, 0x10, 0x1234};
constexpr uint8_t kSvp[] = {2, 0xA1, 0xA2};

constexpr struct {
    const char* sent;         ///< NetFn, command, data
    uint32_t functionNumber;  ///< in the codes of its failures
    bool oem;                 ///< which have codes of their own
    uint32_t (*run)();
} kCommands[] = {
    {"06 01", 0x30, false, [] { return GetDeviceId(1, 0x20, &o.id); }},
    {"06 22", 0x3D, false, [] { return ResetWatchdogTimer(1, 0x20); }},
    {"06 24 04 01 02 10 34 12", 0x3E, false, [] { return SetWatchdogTimer(1, 0x20, &kTimer); }},
    {"06 24 05 03 00 10 0A 00", 0x3E, false, [] { return SetWatchdogTimerCF2(1, 0x20, 0x8B, 10); }},
    {"06 24 04 07 00 10 00 01", 0x3E, false, [] { return SetWatchdogTimerCF2(1, 0x20, 0x0F, 256); }},
    {"06 42 09", 0x3FA, false, [] { return GetChannelInfo(1, 0x20, 9, &o.u8[0], &o.u8[1], &o.u8[2]); }},
    {"0C 02 01 02 03 04", 0, false,
     [] { return o.u32 = 64, GetLanConfiguration(1, 0x20, 1, 2, 3, 4, o.bytes, &o.u32); }},
    {"0A 40", 0x31, false, [] { return GetSelInfo(1, 0x20, &o.info); }},
    {"0A 42", 0x32, false, [] { return ReserveSel(1, 0x20, &o.u16); }},
    {"0A 43 34 12 78 56 00 FF", 0x33, false, [] { return GetSelEntry(1, 0x20, 0x1234, 0x5678, &o.u16, &o.entry); }},
    {"0A 46 34 12 78 56", 0x34, false, [] { return DeleteSelEntry(1, 0x20, 0x1234, 0x5678); }},
    {"0A 47 34 12 43 4C 52 AA", 0x35, false, [] { return ClearSel(1, 0x20, 0x1234, 0xAA, o.u8); }},
    {"0A 48", 0x36, false, [] { return GetSelTime(1, 0x20, &o.u32); }},
    {"0A 49 78 56 34 12", 0x3C, false, [] { return SetSelTime(1, 0x20, 0x12345678); }},
    {"0A 22", 0x37, false, [] { return ReserveSdrRepository(1, 0x20, &o.u16); }},
    {"0A 23 34 12 78 56 05 10", 0x38, false,
     [] { return GetSdr(1, 0x20, 0x1234, 0x5678, 5, 16, &o.u16, o.bytes, &o.u32); }},
    {"0A 23 01 00 02 00 00 05", 0x3B, false, [] { return GetSdrHeader(1, 0x20, 1, 2, &o.u16, o.bytes); }},
    {"04 2D 30", 0x39, false, [] { return GetSensorReading(1, 0x20, 3, 0x30, &o.reading); }},
    {"04 23 30 80", 0x3A, false, [] { return GetSensorReadingFactors(1, 0x20, 0, 0x30, 0x80, &o.factors); }},
    {"0A 10 00", 0x3F6, false, [] { return GetFruInventoryAreaInfo(1, 0x20, 0, &o.u16, o.u8); }},
    {"0A 11 00 10 02 10", 0, false, [] { return ReadFruInventoryData(1, 0x20, 0, 0x210, 16, o.u8, o.bytes); }},
    {"3E 2A", 0, true, [] { return ReadBMCCapability(1, 0x20, &o.answer); }},
    {"3E 22", 0, true, [] { return OEMGetModelModifiers(1, 0x20, &o.answer); }},
    {"3E 23 07", 0, true, [] { return OEMGetCoDInformation(1, 0x20, 7, &o.answer); }},
    {"3E 28 10 02 10", 0, true, [] { return ReadOEMFRU(1, 0x20, 0x210, 16, &o.answer); }},
    {"3E 2C 10 02 10", 0, true, [] { return ReadVelmoraFruCmd(1, 0x20, 0x210, 16, &o.answer); }},
    {"3E 24", 0, true, [] { return GetProductName(1, 0x20, &o.answer); }},
    {"3E 26", 0, true, [] { return GetProcessorName(1, 0x20, &o.answer); }},
    {"3E 00 02 A1 A2", 0x3F, true, [] { return SendSVPCommand(1, 0x20, kSvp); }},
    {"30 21 03", 0x3FE, true, [] { return GetDIMMState(1, 0x20, 3, o.bytes); }},
};

TEST_F(Commands, CommandsSendWhatTheTableSaysAndFailWithTheirNumbers) {
    const auto reset = [this] {
        bmc.Script({});
        memset(static_cast<void*>(&o), 0xEE, sizeof o);
        return reinterpret_cast<const std::array<uint8_t, sizeof o>&>(o);
    };
    for (const auto& command : kCommands) {
        SCOPED_TRACE(command.sent);
        const uint32_t numbered = 0x60000000 | command.functionNumber << 16;
        const auto before = reset();
        bmc.answer = Bytes(19, 0x01);  // the length of an event
        bmc.answer[0] = 0;
        EXPECT_EQ(0u, command.run());
        ASSERT_EQ(1u, bmc.requests.size());
        EXPECT_EQ(command.sent, HexBytes(bmc.requests[0]));
        const auto answered = reinterpret_cast<const std::array<uint8_t, sizeof o>&>(o);

        reset();
        bmc.answer = {0xC1};
        EXPECT_EQ(command.oem ? 0x6000B107 : numbered | 0xB2C1, command.run());
        const auto refused = reinterpret_cast<const std::array<uint8_t, sizeof o>&>(o);
        for (size_t i = 0; i < sizeof o; ++i)
            EXPECT_TRUE(answered[i] == before[i] || refused[i] == 0 || refused[i] == 0xFF) << "not reset: " << i;

        bmc.Script({}, -1);
        EXPECT_EQ(command.oem ? 0x6000B101 : numbered | 0xB101, command.run());
        EXPECT_EQ(51u, bmc.requests.size());
    }
}

TEST_F(Commands, WhatTheGateRefusesHasTheCommandsNumberAndPlace) {
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [this] {
        SetTerminateProcess();
        bmc.otherwise = -6;
        Tracing tracing;
        std::set<std::string> places;
        for (const auto& command : kCommands) {
            const auto lines = tracing.LinesOf(
                [&] { EXPECT_EQ(0x6000B120 | command.functionNumber << 16, command.run()) << command.sent; });
            ASSERT_EQ(1u, lines.size());
            places.insert(lines[0].substr(lines[0].rfind('(')));
        }
        EXPECT_GT(places.size(), std::size(kCommands) / 2) << "lines of different files may have one number";
    });
}

TEST_F(Commands, SomeFailuresAreTheCommandsOwn) {
    const uint8_t svp[] = {0};
    EXPECT_EQ(0x6000B116u, GetDeviceId(-1, 0x21, nullptr));
    EXPECT_EQ(0x6000B104u, GetDeviceId(-1, 0x21, &o.id));
    EXPECT_EQ(0x6000B109u, GetDeviceId(1, 0x21, &o.id));
    EXPECT_TRUE(bmc.requests.empty());
    bmc.otherwise = -6;
    EXPECT_EQ(0x6000B600u, ResetWatchdogTimer(1, 0x20));
    EXPECT_EQ(0x6000B600u, SendSVPCommand(1, 0x20, svp));
    EXPECT_EQ(0x6033B2C5u, GetSelEntry(1, 0x20, 1, 1, &o.u16, &o.entry));
    EXPECT_EQ(0xFFFF, o.u16);
}

TEST_F(Commands, AnswersOfAnotherLengthNeverPassForData) {
    uint16_t next = 1;
    uint32_t received = 9;
    uint8_t bytes[64];
    KVPS_SEL_ENTRY entry;
    SensorReading reading{9, 9, {9, 9}};
    SelInfo info;
    for (const size_t length : {18u, 20u}) {  // one byte less, or more, than an entry has
        next = 1;
        bmc.answer = Bytes(length);
        EXPECT_EQ(0x6000B100u, GetSelEntry(1, 0x20, 0, 0, &next, &entry));
        EXPECT_EQ(0xFFFF, next);
    }
    bmc.answer = {0};
    EXPECT_EQ(0x6031B100u, GetSelInfo(1, 0x20, &info));
    EXPECT_EQ(0x63FEB100u, GetDIMMState(1, 0x20, 0, bytes));
    bmc.answer = {0, 0x51, 3, 0, 4, 0, 5, 0, 0, 0, 6, 0, 0, 0};
    EXPECT_EQ(0u, GetSelInfo(1, 0x20, &info)) << "what is supported may be left out";
    EXPECT_EQ(3, info.entries);
    EXPECT_EQ(0, info.operationSupport);
    bmc.answer = {0, 0x33, 0x40, 0x01};
    EXPECT_EQ(0u, GetSensorReading(1, 0x20, 0, 1, &reading)) << "the last state byte may be left out";
    EXPECT_EQ(0x33, reading.reading);
    EXPECT_EQ(0, reading.states[1]);
    bmc.answer = {0, 5, 0};
    EXPECT_EQ(0u, GetSdr(1, 0x20, 0, 0, 0, 16, &next, bytes, &received));
    EXPECT_EQ(0u, received);
    EXPECT_EQ(0x603BB100u, GetSdrHeader(1, 0x20, 0, 0, &next, bytes));
    uint8_t count = 0;
    bmc.answer = {0, 200, 1, 2, 3};  // claims more than it brings
    EXPECT_EQ(0u, ReadFruInventoryData(1, 0x20, 0, 0, 16, &count, bytes));
    EXPECT_EQ(3, count);
    bmc.answer = Bytes(60, 1);  // brings more than was asked for
    bmc.answer[0] = 0;
    bmc.answer[1] = 58;
    bytes[16] = 0xEE;
    EXPECT_EQ(0u, ReadFruInventoryData(1, 0x20, 0, 0, 16, &count, bytes));
    EXPECT_EQ(16, count);
    EXPECT_EQ(0xEE, bytes[16]);
}

}  // namespace
