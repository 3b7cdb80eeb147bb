#include "lib_driverIF/KvPltfSvcIpmiCall.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_trace.h"
#include "simulator/VirtualClock.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"

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
        *responseLength = static_cast<uint16_t>(answer.size());
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
    std::vector<Bytes> requests;
};

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

TEST_F(Gate, ATerminatingProcessStopsTheUpdateWaitAlone) {
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [this] {
        SetTerminateProcess();
        bmc.otherwise = -1;
        EXPECT_EQ(0x1FFFFFFFu, Call({0x18, 0x01}).result);
        EXPECT_EQ(51u, bmc.requests.size());
        bmc.otherwise = -6;
        EXPECT_EQ(0x6000B120u, Call({0x18, 0x01}).result);
        EXPECT_EQ(52u, bmc.requests.size());
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

TEST_F(Gate, TheLogTellsTheConversation) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/etc/opt/velmora/lantrel/trace.cfg", "[ServerAgent0330_TRACE]\n@Version=0330\nTraceLevel=30\n");
    RunInRoot(root, [this] {
        PXR_trace_init_ipmi_pxraaedit_log();
        Call({}, 16);
        Call({0x18}, 16);
        Call({0x18, 0x01}, 2);
        bmc.answer = {0xC1, 0x07};
        Call({0x12, 0x2D, 0x40});
        bmc.Script({-6});
        Call({0x28, 0x43});
        bmc.Script({-1});
        Call({0x19, 0x01});
        PXR_trace_term_ipmi_pxraaedit_log();
    });
    const std::string log = root.ReadFile("/var/opt/velmora/lantrel/log/@ipmi_pxraaedit@.log");
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

TEST_F(Gate, CommandsSendWhatTheTableSays) {
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    uint8_t u8 = 0;
    uint8_t bytes[64];
    OemAnswer answer;
    SensorReading reading;
    SensorReadingFactors factors;
    const WatchdogTimer timer{4, 1, 2, 0x10, 0x1234};
    const uint8_t svp[] = {2, 0xA1, 0xA2};
    const std::pair<Bytes, std::function<uint32_t()>> cases[] = {
        {{0x06, 0x24, 4, 1, 2, 0x10, 0x34, 0x12}, [&] { return SetWatchdogTimer(1, 0x20, &timer); }},
        {{0x06, 0x24, 5, 3, 0, 0x10, 10, 0}, [&] { return SetWatchdogTimerCF2(1, 0x20, 0x8B, 10); }},
        {{0x06, 0x24, 4, 7, 0, 0x10, 0, 1}, [&] { return SetWatchdogTimerCF2(1, 0x20, 0x0F, 256); }},
        {{0x06, 0x42, 9}, [&] { return GetChannelInfo(1, 0x20, 9, &u8, &u8, &u8); }},
        {{0x0C, 0x02, 1, 2, 3, 4}, [&] { return u32 = 64, GetLanConfiguration(1, 0x20, 1, 2, 3, 4, bytes, &u32); }},
        {{0x0A, 0x46, 0x34, 0x12, 0x78, 0x56}, [&] { return DeleteSelEntry(1, 0x20, 0x1234, 0x5678); }},
        {{0x0A, 0x47, 0x34, 0x12, 'C', 'L', 'R', 0xAA}, [&] { return ClearSel(1, 0x20, 0x1234, 0xAA, &u8); }},
        {{0x0A, 0x48}, [&] { return GetSelTime(1, 0x20, &u32); }},
        {{0x0A, 0x49, 0x78, 0x56, 0x34, 0x12}, [&] { return SetSelTime(1, 0x20, 0x12345678); }},
        {{0x0A, 0x23, 0x34, 0x12, 0x78, 0x56, 5, 16},
         [&] { return GetSdr(1, 0x20, 0x1234, 0x5678, 5, 16, &u16, bytes, &u32); }},
        {{0x0A, 0x23, 1, 0, 2, 0, 0, 5}, [&] { return GetSdrHeader(1, 0x20, 1, 2, &u16, bytes); }},
        {{0x04, 0x2D, 0x30}, [&] { return GetSensorReading(1, 0x20, 3, 0x30, &reading); }},
        {{0x04, 0x23, 0x30, 0x80}, [&] { return GetSensorReadingFactors(1, 0x20, 0, 0x30, 0x80, &factors); }},
        {{0x0A, 0x10, 0}, [&] { return GetFruInventoryAreaInfo(1, 0x20, 0, &u16, &u8); }},
        {{0x0A, 0x11, 0, 0x10, 0x02, 16}, [&] { return ReadFruInventoryData(1, 0x20, 0, 0x210, 16, &u8, bytes); }},
        {{0x3E, 0x2A}, [&] { return ReadBMCCapability(1, 0x20, &answer); }},
        {{0x3E, 0x22}, [&] { return OEMGetModelModifiers(1, 0x20, &answer); }},
        {{0x3E, 0x23, 7}, [&] { return OEMGetCoDInformation(1, 0x20, 7, &answer); }},
        {{0x3E, 0x28, 0x10, 0x02, 16}, [&] { return ReadOEMFRU(1, 0x20, 0x210, 16, &answer); }},
        {{0x3E, 0x2C, 0x10, 0x02, 16}, [&] { return ReadVelmoraFruCmd(1, 0x20, 0x210, 16, &answer); }},
        {{0x3E, 0x24}, [&] { return GetProductName(1, 0x20, &answer); }},
        {{0x3E, 0x26}, [&] { return GetProcessorName(1, 0x20, &answer); }},
        {{0x3E, 0x00, 2, 0xA1, 0xA2}, [&] { return SendSVPCommand(1, 0x20, svp); }},
        {{0x30, 0x21, 3}, [&] { return GetDIMMState(1, 0x20, 3, bytes); }},
    };
    bmc.answer = Bytes(40, 0x01);
    bmc.answer[0] = 0;
    for (const auto& [sent, run] : cases) {
        bmc.requests.clear();
        EXPECT_EQ(0u, run()) << std::hex << int{sent[0]} << ' ' << int{sent[1]};
        EXPECT_EQ(std::vector<Bytes>{sent}, bmc.requests);
    }
}

TEST_F(Gate, CommandFailuresHaveTheirNumbers) {
    DeviceId id;
    OemAnswer answer;
    uint8_t dimm[5];
    uint16_t next = 1;
    KVPS_SEL_ENTRY entry;
    SensorReading reading;
    const uint8_t svp[] = {0};
    EXPECT_EQ(0x6000B116u, GetDeviceId(-1, 0x21, nullptr));
    EXPECT_EQ(0x6000B104u, GetDeviceId(-1, 0x21, &id));
    EXPECT_EQ(0x6000B109u, GetDeviceId(1, 0x21, &id));
    EXPECT_TRUE(bmc.requests.empty());

    bmc.otherwise = -1;
    EXPECT_EQ(0x6030B101u, GetDeviceId(1, 0x20, &id));
    EXPECT_EQ(0x6033B101u, GetSelEntry(1, 0x20, 1, 1, &next, &entry));
    EXPECT_EQ(0xFFFF, next);
    EXPECT_EQ(0x6000B101u, GetProductName(1, 0x20, &answer));
    EXPECT_EQ(0x6000B101u, GetDIMMState(1, 0x20, 0, dimm));
    bmc.otherwise = -6;
    EXPECT_EQ(0x6000B600u, ResetWatchdogTimer(1, 0x20));
    EXPECT_EQ(0x6000B600u, SendSVPCommand(1, 0x20, svp));
    EXPECT_EQ(0x6033B2C5u, GetSelEntry(1, 0x20, 1, 1, &next, &entry));
    bmc.otherwise = 0;
    bmc.answer = {0xCB};
    EXPECT_EQ(0x6039B2CBu, GetSensorReading(1, 0x20, 0, 1, &reading));
    EXPECT_EQ(0x6000B107u, GetProductName(1, 0x20, &answer));
}

TEST_F(Gate, ShortAnswersNeverPassForData) {
    uint16_t next = 1;
    uint32_t received = 9;
    uint8_t bytes[16];
    KVPS_SEL_ENTRY entry;
    SensorReading reading{9, 9, {9, 9}};
    SelInfo info;
    bmc.answer = Bytes(18);  // one byte short of an entry
    EXPECT_EQ(0x6000B100u, GetSelEntry(1, 0x20, 0, 0, &next, &entry));
    EXPECT_EQ(0xFFFF, next);
    bmc.answer = {0};
    EXPECT_EQ(0x6031B100u, GetSelInfo(1, 0x20, &info));
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
}

}  // namespace
