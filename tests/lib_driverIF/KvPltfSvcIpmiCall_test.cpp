#include "lib_driverIF/KvPltfSvcIpmiCall.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_trace.h"
#include "simulator/VirtualClock.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/RecordingClock.h"
#include "tests/support/Tracing.h"

// The host's own settings for firmware updates.
extern "C" {
int g_Update = 2;
int g_WaitUpdate = 7;
}

namespace {

using namespace ktx_ipmi;
using Bytes = std::vector<uint8_t>;

/// Plays a BMC that answers by script; keeps what it was asked.
class ScriptedTransport : public IpmiTransport {
public:
    ScriptedTransport() { SetIpmiTransport(this); }
    ~ScriptedTransport() override { SetIpmiTransport(nullptr); }

    int Open() override { return 0; }
    void Close() override {}
    int Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data, uint16_t* responseLength,
                uint8_t* response) override {
        Bytes request{netFn, command};
        request.insert(request.end(), data, data + dataLength);
        requests.push_back(request);
        if (results.size() >= requests.size() && results[requests.size() - 1] != 0) return results[requests.size() - 1];
        if (otherwise != 0) return otherwise;
        std::copy(answer.begin(), answer.end(), response);
        *responseLength = static_cast<uint16_t>(answer.size() + overstatement);
        return 0;
    }

    /// Begins anew: results of the first attempts, and of every further one.
    void Script(std::vector<int> first, int then = 0) {
        requests.clear();
        results = std::move(first);
        otherwise = then;
    }

    std::vector<int> results;  ///< of the first attempts
    int otherwise = 0;         ///< result of every further one
    Bytes answer{0};           ///< completion code and data
    size_t overstatement = 0;  ///< by which the length told exceeds the answer's
    std::vector<Bytes> requests;
};

constexpr int kHandle = 5;

std::string HexBytes(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char hex[4];
        snprintf(hex, sizeof hex, " %02X", byte);
        text += text.empty() ? hex + 1 : hex;
    }
    return text;
}

struct Called {
    uint32_t result;
    Bytes response;
    uint32_t length;
};

Called Call(Bytes request, uint32_t capacity = 16) {
    Called called{0, Bytes(capacity, 0xEE), capacity};
    called.result = CallIpmiDriver(kHandle, 0x20, request.data(), static_cast<uint32_t>(request.size()),
                                   called.response.data(), &called.length);
    return called;
}

class Gate : public testing::Test {
protected:
    ScriptedTransport bmc;
    sim::ScopedVirtualClock clock;
};

TEST_F(Gate, RefusesBadArgumentsWithoutTouchingTheDevice) {
    uint8_t request[] = {0x18, 0x01};
    uint8_t out[8];
    uint32_t length = 8;
    uint32_t tooShort = 2;
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(-1, 0x20, request, 2, out, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x21, request, 2, out, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, nullptr, 2, out, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, request, 0, out, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, request, 1, out, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, request, 2, nullptr, &length));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, request, 2, out, nullptr));
    EXPECT_EQ(0x6000B100u, CallIpmiDriver(kHandle, 0x20, request, 2, out, &tooShort));
    EXPECT_TRUE(bmc.requests.empty());
}

TEST_F(Gate, BuildsTheResponseWithinTheCapacity) {
    bmc.answer = {0x00, 1, 2, 3, 4, 5};
    const Called whole = Call({0x19, 0x01, 0xAA});
    EXPECT_EQ(0u, whole.result);
    EXPECT_EQ(8u, whole.length);
    EXPECT_EQ((Bytes{0x1D, 0x01, 0x00, 1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0, 0, 0}), whole.response);
    EXPECT_EQ((Bytes{0x06, 0x01, 0xAA}), bmc.requests[0]);

    const Called cut = Call({0x18, 0x01}, 4);
    EXPECT_EQ(8u, cut.length) << "the full length is told";
    EXPECT_EQ((Bytes{0x1C, 0x01, 0x00, 1}), cut.response);
    bmc.answer = {};
    EXPECT_EQ(0x1FFFFFFFu, Call({0x18, 0x01}).result) << "an answer without a completion code is none";
    bmc.answer = {0x00};
    bmc.overstatement = kMaxMessage;
    EXPECT_EQ(0x1FFFFFFFu, Call({0x18, 0x01}).result) << "nor one longer than there is room for";
}

TEST_F(Gate, GivesUpAfter51Attempts) {
    bmc.otherwise = -1;
    const Called failed = Call({0x18, 0x01});
    EXPECT_EQ(0x1FFFFFFFu, failed.result);
    EXPECT_EQ(0x6000B101u, ModifyErrorCode(failed.result));
    EXPECT_EQ(51u, bmc.requests.size());
    EXPECT_EQ(51u * 100'000, clock.Slept());
    EXPECT_EQ(256u, GetRecentCompCode());
    EXPECT_EQ(kCompCodeNoResponse, CheckRecentCompCode());

    bmc.Script(std::vector(50, -1));  // the last attempt succeeds
    EXPECT_EQ(0u, Call({0x18, 0x01}).result);
    EXPECT_EQ(51u, bmc.requests.size());
    EXPECT_EQ(0u, GetRecentCompCode());
}

TEST_F(Gate, WaitsForAFirmwareUpdateAsOftenAsTheHostWants) {
    bmc.otherwise = -6;
    const Called failed = Call({0x18, 0x01});
    EXPECT_EQ(0x1FFFFFFAu, failed.result);
    EXPECT_EQ(3u, bmc.requests.size()) << "g_Update + 1";
    EXPECT_EQ(3u * (7'000'000 + 100'000), clock.Slept());
    EXPECT_EQ(512u, GetRecentCompCode());
    EXPECT_EQ(kCompCodeBusy, CheckRecentCompCode());

    std::vector<int> first(41, -1);
    first.back() = -6;  // restarts the attempts
    bmc.Script(first, -1);
    g_Update = INT_MAX;  // for ever
    EXPECT_EQ(0x1FFFFFFFu, Call({0x18, 0x01}).result);
    EXPECT_EQ(41u + 51u, bmc.requests.size());
    g_Update = 2;
}

TEST_F(Gate, AnswersSomeCommandsItselfDuringAnUpdate) {
    for (const Bytes& request : {Bytes{0x18, 0x22}, {0xF8, 0x00, 1, 2}}) {
        bmc.Script({-6});
        EXPECT_EQ(0x6000B600u, Call(request).result) << int{request[0]};
        EXPECT_EQ(1u, bmc.requests.size());
    }
    for (const uint8_t command : Bytes{0x23, 0x43, 0x47}) {  // under a reservation, which is cancelled
        bmc.Script({-6});
        const Called called = Call({0x28, command, 0, 0, 'C', 'L', 'R', 0xAA}, 4);
        EXPECT_EQ(0u, called.result) << int{command};
        EXPECT_EQ(1u, bmc.requests.size());
        EXPECT_EQ(3u, called.length);
        EXPECT_EQ((Bytes{0x2C, command, 0xC5, 0}), called.response);
    }
}

TEST_F(Gate, TheEndOfTheLayerIsNotHeldUp) {
    struct EndingClock : RecordingClock {
        int SleepFor(uint64_t microseconds) override {
            SetIpmiEnding(pauses.size() == 2);
            return RecordingClock::SleepFor(microseconds);
        }
    };
    for (const auto& [rc, requests, result] : {std::tuple{-1, 4u, 0x1FFFFFFFu}, {-6, 1u, 0x6000B120u}}) {
        EndingClock ending;
        bmc.Script({}, rc);
        EXPECT_EQ(result, Call({0x18, 0x01}).result);
        EXPECT_EQ(requests, bmc.requests.size());
        EXPECT_EQ(3u, ending.pauses.size());
        SetIpmiEnding(false);
    }
}

TEST_F(Gate, ATerminatingProcessStopsTheUpdateWaitAlone) {
    struct EndingClock : sim::ScopedVirtualClock {
        int SleepFor(uint64_t microseconds) override {
            if (Slept() == 2'000'000) SetTerminateProcess();
            return VirtualClock::SleepFor(microseconds);
        }
    };
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [this] {
        EndingClock ending;
        bmc.otherwise = -6;
        EXPECT_EQ(0x6000B120u, Call({0x18, 0x01}).result);
        EXPECT_EQ(3'000'000u, ending.Slept()) << "of 7 s";
        bmc.Script({}, -1);
        EXPECT_EQ(0x1FFFFFFFu, Call({0x18, 0x01}).result);
        EXPECT_EQ(51u, bmc.requests.size());
    });
}

TEST_F(Gate, KeepsTheLogOfARefusedCommand) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/var/opt/velmora/lantrel/log/@ipmi@.log", "what led to it");
    RunInRoot(root, [this] {
        bmc.answer = {0xCA};
        Call({0x10, 0x2D, 0x40});
        PXR_trace_init_ipmi_pxraaedit_log();
        bmc.requests.clear();
        bmc.answer = {0xCB};
        EXPECT_EQ(0u, Call({0x10, 0x2D, 0x40}).result) << "the completion code is the caller's to judge";
        EXPECT_EQ(1u, bmc.requests.size());
        EXPECT_EQ(0xCBu, GetRecentCompCode());
        EXPECT_EQ(kCompCodeError, CheckRecentCompCode());
        bmc.answer = {0xC1};
        FinishesWhenCancelled([] { Call({0x18, 0x01}); });
        PXR_trace_term_ipmi_pxraaedit_log();
        bmc.answer = {0xCC};
        Call({0x10, 0x2D, 0x40});
    });
    for (const char* unwritten : {"CA", "CC"}) {
        EXPECT_FALSE(std::filesystem::exists(
            root.Outside(std::string("/var/opt/velmora/lantrel/log/@ipmi@_comperr_") + unwritten + ".log")))
            << "no log is being written";
    }
    EXPECT_EQ("what led to it", root.ReadFile("/var/opt/velmora/lantrel/log/@ipmi@_comperr_CB.log"));
    EXPECT_EQ("what led to it", root.ReadFile("/var/opt/velmora/lantrel/log/@ipmi@_comperr_C1.log"))
        << "a cancelled thread finishes the copy";
}

/// What conversation writes into the log at a trace level.
std::string LogOf(const std::string& traceLevel, const std::function<void()>& conversation) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/etc/opt/velmora/lantrel/trace.cfg",
                 "[ServerAgent0330_TRACE]\n@Version=0330\nTraceLevel=" + traceLevel + "\n");
    RunInRoot(root, [&] {
        PXR_trace_init_ipmi_pxraaedit_log();
        conversation();
        PXR_trace_term_ipmi_pxraaedit_log();
    });
    return root.ReadFile("/var/opt/velmora/lantrel/log/@ipmi_pxraaedit@.log");
}

TEST_F(Gate, TheLogTellsTheConversation) {
    const std::string log = LogOf("30", [this] {
        Call({}, 16);
        Call({0x18}, 16);
        Call({0x18, 0x01}, 2);
        bmc.answer = {0xC1, 0x07};
        SensorReading reading;
        GetSensorReading(kHandle, 0x20, 2, 0x40, &reading);
        bmc.Script({-6});
        Call({0x28, 0x43});
        bmc.Script({-1});
        Call({0x19, 0x01});
    });
    size_t at = 0;
    for (const char* line : {
             "args error(request data Null)\n",
             "args error(request buffer Illegal size)\n",
             "args error(response buffer Illegal size)\n",
             "IPMI GetSensorReading(NetFn=10 Adr=20 Lun=2 SnsNo=40)\n",
             "IPMI Request Data\n",
             "IPMI call success. response data length = 4\n",
             "IPMI Response Data\n",
             "The log file copy failed. FILE=/var/opt/velmora/lantrel/log/@ipmi@_comperr_C1.log\n",
             "IPMI Command(NetFn=28 Lun=0 Cmd=43 Adr=20)\n",
             "IPMI call fail.  rc=0x1FFFFFFA\n",
             "After the sleep, it retries for BMCUPDATE. Sleep time = 7 seconds\n",
             "BMCUPDATE occurred. it set ReservationCancel at Responce data. (Request=28 43 Response=2C 43 C5)\n",
             "IPMI call fail.  rc=0x1FFFFFFF\n",
             "It failed in the IPMI command. It retries. retrycount=0 updateretrycount=0\n",
         }) {
        at = std::min(log.find(line, at), log.size());
        EXPECT_LT(at, log.size()) << line;
    }
}

TEST_F(Gate, TheLogsDetailGrowsWithItsLevel) {
    const Bytes commands{0x3F, 0x40, 0x41, 0x42, 0x48, 0x49};
    const Bytes notPolled{0x3F, 0x41, 0x49};
    using Case = std::tuple<const char*, Bytes, size_t>;  // level, commands in the log, how many with their data
    for (const auto& [level, logged, withData] :
         {Case{"4", {}, 0}, Case{"5", notPolled, 0}, Case{"9", notPolled, 0}, Case{"10", notPolled, 3},
          Case{"29", notPolled, 3}, Case{"30", commands, 6}}) {
        const std::string log = LogOf(level, [&] {
            for (const uint8_t command : commands)
                Call({0x28, command});
        });
        const auto count = [&](const std::string& text) {
            size_t found = 0;
            for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
                ++found;
            return found;
        };
        for (const uint8_t command : logged)
            EXPECT_EQ(1u, count("Cmd=" + HexBytes({command}))) << level;
        for (const char* line : {"IPMI Command(", "IPMI call success."})
            EXPECT_EQ(logged.size(), count(line)) << level;
        for (const char* line : {"IPMI Request Data", "IPMI Response Data"})
            EXPECT_EQ(withData, count(line)) << level;
    }
}

TEST_F(Gate, TheLogShowsNoMoreThanTheCallersBuffer) {
    bmc.answer = Bytes(12, 0);
    const std::string log = LogOf("10", [] {
        uint8_t request[] = {0x18, 0x01};
        Bytes buffer(16, 0xEE);
        uint32_t length = 4;
        CallIpmiDriver(kHandle, 0x20, request, sizeof request, buffer.data(), &length);
        EXPECT_EQ(14u, length);
    });
    EXPECT_EQ(std::string::npos, log.find("EE", log.find("IPMI Response Data"))) << log;
}

TEST(CompletionCodes, AreClassified) {
    for (const auto& [expected, codes] : {std::pair{0, std::vector<uint32_t>{0}},
                                          {1, {0x81, 0xC0, 0xD2, 512}},
                                          {2, {0xC3, 0xC5}},
                                          {3, {0xC1, 0xFF}},
                                          {4, {256}}}) {
        for (const uint32_t code : codes) {
            SetFreeRecentCompCode(code);
            EXPECT_EQ(expected, CheckRecentCompCode()) << code;
        }
    }
    EXPECT_EQ(0u, ModifyErrorCode(0));
    EXPECT_EQ(0x6000B101u, ModifyErrorCode(0x0FFFFFFF));
    EXPECT_EQ(0x6000B102u, ModifyErrorCode(0x20000001));
    EXPECT_EQ(0u, ModifyErrorCode(0x30000001));
}

// Command functions

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

TEST_F(Gate, CommandsSendWhatTheTableSaysAndFailWithTheirNumbers) {
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

TEST_F(Gate, WhatTheGateRefusesHasTheCommandsNumberAndPlace) {
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

TEST_F(Gate, SomeFailuresAreTheCommandsOwn) {
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

TEST_F(Gate, AnswersOfAnotherLengthNeverPassForData) {
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
