#include "lib_driverIF/KvPltfSvcIpmiCall.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <functional>
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
#include "tests/support/ScriptedDriver.h"

// The host's own settings for firmware updates.
extern "C" {
int g_Update = 2;
int g_WaitUpdate = 7;
}

namespace {

using namespace ktx_ipmi;
using Bytes = ScriptedDriver::Bytes;

constexpr int kHandle = 5;

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
    ScriptedDriver bmc;
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
    EXPECT_EQ(std::string::npos, log.find(" EE", log.find("IPMI Response Data"))) << log;
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

}  // namespace
