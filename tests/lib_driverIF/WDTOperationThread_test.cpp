// The path through the kernel's IPMI device.

#include "lib_driverIF/WDTOperationThread.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "simulator/SimulatedServer.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Tracing.h"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

class OperationThreadTest : public testing::Test {
public:
    OperationThreadTest() {
        self = this;
        ops.ioctl = [](void* context, int fd, unsigned long request, void* argument) {
            if (request == sim::kIpmiSendCommand) {
                int32_t id = 0;
                memcpy(&id, static_cast<const uint8_t*>(argument) + 8, sizeof id);
                self->messageIds.push_back(id);
            }
            if (self->onIoctl) self->onIoctl(request, argument);
            return self->server.Ops()->ioctl(context, fd, request, argument);
        };
        ops.waitReadable = [](void* context, int fd, int timeoutMs) {
            return self->onWait ? self->onWait() : self->server.Ops()->waitReadable(context, fd, timeoutMs);
        };
        KvSetDeviceOps(&ops);
        EXPECT_EQ(0, path.LOGG_IPMIInit());
    }
    ~OperationThreadTest() override {
        path.LOGG_IPMIClose();
        EXPECT_EQ(0U, server.OpenDescriptors());
        KvSetDeviceOps(nullptr);
    }

    /// Get Device ID, in one attempt.
    int Execute(uint16_t capacity = 64, uint8_t command = 0x01) {
        CWDTOperationThread::Attempts theOnly;
        return Execute(theOnly, capacity, command);
    }
    int Execute(CWDTOperationThread::Attempts& attempts, uint16_t capacity = 64, uint8_t command = 0x01) {
        response.assign(capacity + 4U, 0xEE);
        length = capacity;
        const uint64_t before = clock.Now();
        const int result =
            path.IPMI_ExecCommand(command, sim::netfn::kApp, 0, nullptr, &length, response.data(), attempts);
        took = (clock.Now() - before) / 1000;
        EXPECT_EQ(Bytes(4, 0xEE), Bytes(response.end() - 4, response.end())) << "written behind the capacity";
        return result;
    }
    void Silence() { server.GetBmc().Silence(sim::netfn::kApp, 0x01); }
    void Delay(std::chrono::milliseconds delay) { server.GetBmc().Delay(sim::netfn::kApp, 0x01, delay); }

    static OperationThreadTest* self;
    sim::ScopedVirtualClock clock;
    sim::SimulatedServer server{clock};
    KvDeviceOps ops = *server.Ops();
    CWDTOperationThread path;
    std::function<void(unsigned long request, void* argument)> onIoctl;
    std::function<int()> onWait;
    std::vector<int32_t> messageIds;
    Bytes response;
    uint16_t length = 0;
    uint64_t took = 0;  ///< ms
};
OperationThreadTest* OperationThreadTest::self = nullptr;

TEST_F(OperationThreadTest, AnswersAsSoonAsTheDeviceIsReadable) {
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(0U, took);
    EXPECT_EQ(12U, length);
    EXPECT_EQ(0x00, response[0]);
    EXPECT_EQ(0x20, response[1]) << "device id";
    Delay(37ms);
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(37U, took);
}

TEST_F(OperationThreadTest, RequestReachesTheBmcAsGiven) {
    Bytes data(272);
    length = 16;
    response.resize(16);
    for (const uint16_t size : {uint16_t{0}, uint16_t{3}, uint16_t{270}}) {
        data[0] = static_cast<uint8_t>(size);
        path.IPMI_ExecCommand(0x00, sim::netfn::kOem, size, data.data(), &length, response.data());
        const sim::Request seen = server.GetBmc().Log().back();
        EXPECT_EQ(sim::netfn::kOem, seen.netFn);
        EXPECT_EQ(0x00, seen.command) << "command 0 is a command";
        EXPECT_EQ(0, seen.lun);
        EXPECT_EQ(Bytes(data.begin(), data.begin() + size), seen.data);
    }
}

TEST_F(OperationThreadTest, RefusesBadArguments) {
    uint8_t bytes[300] = {};
    uint16_t room = 16;
    uint16_t none = 0;
    const auto refused = [&](uint16_t size, const uint8_t* data, uint16_t* capacity, uint8_t* out) {
        EXPECT_EQ(-1, path.IPMI_ExecCommand(0x01, 0x06, size, data, capacity, out));
    };
    refused(0, nullptr, nullptr, bytes);
    refused(0, nullptr, &room, nullptr);
    refused(0, nullptr, &none, bytes);
    refused(1, nullptr, &room, bytes);
    refused(271, bytes, &room, bytes);
    EXPECT_TRUE(messageIds.empty());
    EXPECT_EQ(16, room);
}

TEST_F(OperationThreadTest, SilentDeviceTakesHalfASecond) {
    Silence();
    EXPECT_EQ(-1, Execute());
    EXPECT_EQ(500U, took);
    server.Kernel().SetPollSupported(false);
    Silence();
    EXPECT_EQ(-1, Execute());
    EXPECT_EQ(500U, took);
    Delay(450ms);
    EXPECT_EQ(0, Execute()) << "found at the next try";
    EXPECT_EQ(500U, took);
    // Poll answers at once whatever is there.
    onWait = [] { return 1; };
    Silence();
    EXPECT_EQ(-1, Execute());
    EXPECT_EQ(500U, took);
}

TEST_F(OperationThreadTest, LateAnswerIsNotTakenForTheNextOne) {
    server.OnCommand(sim::netfn::kApp, 0x02, [](const auto&, const auto&) { return sim::Response{0, {0x55}}; });
    server.GetBmc().Delay(sim::netfn::kApp, 0x02, 550ms);
    EXPECT_EQ(-1, Execute(64, 0x02));
    clock.Advance(100'000);
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(12U, length);
    EXPECT_EQ(0x20, response[1]);
    EXPECT_EQ((std::vector<int32_t>{1, 2}), messageIds);
}

TEST_F(OperationThreadTest, LateAnswerEndsALaterAttemptAtTheSameRequest) {
    for (const auto& [delay, sent] : {std::pair{550ms, 1U}, {700ms, 2U}}) {
        messageIds.clear();
        CWDTOperationThread::Attempts attempts;
        Delay(delay);
        EXPECT_EQ(-1, Execute(attempts));
        Silence();
        clock.Advance(100'000);
        EXPECT_EQ(0, Execute(attempts));
        EXPECT_EQ(0x20, response[1]);
        EXPECT_EQ(sent, messageIds.size()) << "not sent again when the answer is there already";
        EXPECT_EQ(delay < 600ms ? 0U : 100U, took);
        if (sent == 1) Execute();  // of the silence
    }
}

TEST_F(OperationThreadTest, LostCommandIsSentAgainAtTheNextAttempt) {
    EXPECT_EQ(0, Execute());
    for (const uint64_t pause : {100'000U, 0U}) {  // what was lost once is no sign of a slow controller
        CWDTOperationThread::Attempts attempts;
        messageIds.clear();
        Silence();
        EXPECT_EQ(-1, Execute(attempts));
        clock.Advance(pause);
        EXPECT_EQ(0, Execute(attempts));
        EXPECT_EQ(2U, messageIds.size());
    }
}

TEST_F(OperationThreadTest, ForeignMessagesAreDroppedWithinTheTry) {
    const sim::KernelMessage event{2, 1, 0x07, 0x35, Bytes(16, 0x77), 0};
    const sim::KernelMessage stale{1, 99, 0x07, 0x01, Bytes(100, 0x99), 0};  // longer than the room
    for (const sim::KernelMessage& foreign : {event, stale})
        server.Kernel().PutBeforeNextAnswer(foreign);
    Delay(20ms);
    EXPECT_EQ(0, Execute(14));
    EXPECT_EQ(20U, took) << "waits for the answer again after it has dropped them";
    EXPECT_EQ(0x20, response[1]);
}

TEST_F(OperationThreadTest, DeviceThatNeverStopsTalkingIsGivenUp) {
    unsigned receives = 0;
    ops.ioctl = [](void*, int, unsigned long request, void* argument) {
        self->onIoctl(request, argument);
        return 0;
    };
    KvSetDeviceOps(&ops);
    onIoctl = [&](unsigned long request, void*) { receives += request == sim::kIpmiReceiveTrunc ? 1 : 0; };
    onWait = [] { return 1; };
    EXPECT_EQ(-1, Execute());
    EXPECT_GE(1000U, receives);
    EXPECT_EQ(500U, took) << "not sent again sooner than to a silent one";
}

TEST_F(OperationThreadTest, TruncatedAnswerCountsAndAFifthTry) {
    server.Kernel().FailIoctl(sim::kIpmiReceiveTrunc, EIO, 4);
    EXPECT_EQ(0, Execute(3));
    EXPECT_EQ(3U, length);
    EXPECT_EQ(0x20, response[1]);
}

TEST_F(OperationThreadTest, IdsGoOnWhateverHappens) {
    server.Kernel().FailIoctl(sim::kIpmiSendCommand, EIO);
    EXPECT_EQ(-1, Execute());
    Silence();
    EXPECT_EQ(-1, Execute());
    onIoctl = [](unsigned long, void*) { throw std::runtime_error("fault"); };
    EXPECT_EQ(-1, Execute());
    onIoctl = {};
    EXPECT_EQ(0, Execute());
    EXPECT_EQ((std::vector<int32_t>{1, 2, 3, 4}), messageIds);
}

TEST_F(OperationThreadTest, CancelledThreadUnwindsThrough) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer does not see a cancelled thread leave its frames";
#endif
    onWait = [] {
        pthread_testcancel();
        return 1;
    };
    EXPECT_FALSE(FinishesWhenCancelled([this] { Execute(); }));
    onWait = {};
    EXPECT_EQ(0, Execute());
    EXPECT_EQ((std::vector<int32_t>{1, 2}), messageIds);
}

/// Twenty sensors read one after the other from a controller that takes its time for each command. Each request ends
/// with its own answer or a failure, and is not sent again too soon, nor when its answer is there.
class SlowControllerTest : public OperationThreadTest {
public:
    SlowControllerTest() { EXPECT_EQ(0, objOprThread.LOGG_IPMIInit()); }
    ~SlowControllerTest() override { objOprThread.LOGG_IPMIClose(); }

    /// Of a controller that was quick until now. @return how often each request was sent; negative: it failed
    std::vector<int> Sendings(std::chrono::milliseconds serviceTime) {
        onIoctl = {};
        server.Kernel().SetServiceTime(0ms);
        clock.Advance(3'600'000'000);
        EXPECT_EQ(0, Execute());
        server.Kernel().SetServiceTime(serviceTime);
        const auto service = static_cast<uint64_t>(serviceTime.count()) * 1000;
        std::vector<int> counts;
        std::vector<uint64_t> sent;
        uint64_t firstDone = 0;
        onIoctl = [&, this](unsigned long request, void*) {
            if (request != sim::kIpmiSendCommand) return;
            const uint64_t now = clock.Now();
            busyUntil = std::max(now, busyUntil) + service;
            if (sent.empty()) firstDone = busyUntil;
            EXPECT_LT(now, firstDone) << "the answer is there";
            EXPECT_TRUE(sent.empty() || now - sent.back() >= 600'000);
            sent.push_back(now);
        };
        for (uint8_t sensor = 1; sensor <= 20; ++sensor) {
            server.GetBmc().Sensors()->At(sensor).reading = sensor;
            sent.clear();
            uint8_t request[] = {0x10, 0x2D, sensor};
            uint8_t answer[16];
            uint32_t room = sizeof answer;
            const uint32_t result = ktx_ipmi::CallIpmiDriver(1, 0x20, request, sizeof request, answer, &room);
            EXPECT_TRUE(result == 0 ? answer[3] == sensor : result == 0x1FFFFFFF) << int{sensor};
            counts.push_back(static_cast<int>(sent.size()) * (result == 0 ? 1 : -1));
        }
        printf("%5d ms a command, sent: %s\n", static_cast<int>(serviceTime.count()),
               testing::PrintToString(counts).c_str());
        return counts;
    }

    uint64_t busyUntil = 0;  ///< of the controller
};

TEST_F(SlowControllerTest, IsHeardAndNotDrowned) {
    for (const auto& [serviceTime, untilKnown] :
         {std::pair{500ms, 0}, {600ms, 0}, {610ms, 2}, {2000ms, 3}, {6000ms, 8}}) {
        const std::vector<int> sent = Sendings(serviceTime);
        EXPECT_THAT(std::vector(sent.begin() + untilKnown, sent.end()), testing::Each(1));
    }
}

TEST_F(OperationThreadTest, TraceSaysWhatFailedAndTheNextCommandIsFree) {
    RunInRoot(MakeTestRoot(), [this] {
        std::vector<std::string> expected = {
            "Allready ipmi driver open.",
            "Failed to IPMI open. The return value is -1 and error number is 19.",
            "Function input parameters are invalid.",
            "The length of the IPMI response data is 0.",
        };
        const std::string failed = "Failed to IPMI command. The return value is -1 and error number is 5.";
        for (const char* count : {"1", "2", "3", "4", "5"}) {
            expected.push_back(failed);
            expected.push_back(std::string("Retrying to get the response from IPMI. Retry count is ") + count + ".");
        }
        expected.push_back(failed);
        for (std::string& line : expected)
            line.insert(0, "2000 5 1 ");
        EXPECT_EQ(expected, Tracing().LinesOf([this] {
            EXPECT_EQ(0, path.LOGG_IPMIInit());
            EXPECT_EQ(1U, server.Opens("/dev/ipmi0"));
            path.LOGG_IPMIClose();
            path.LOGG_IPMIClose();
            EXPECT_EQ(-1, Execute()) << "closed";
            server.FailOpen("/dev/ipmi0", ENODEV);
            EXPECT_EQ(-1, path.LOGG_IPMIInit());
            EXPECT_EQ(0, path.LOGG_IPMIInit());
            EXPECT_EQ(-1, path.IPMI_ExecCommand(1, 6, 0, nullptr, &length, nullptr));
            server.Kernel().PutBeforeNextAnswer({1, 2, 0x07, 0x01, {}, 0});
            EXPECT_EQ(-1, Execute());
            EXPECT_EQ(64U, length);
            server.Kernel().FailIoctl(sim::kIpmiReceiveTrunc, EIO, 5);
            EXPECT_EQ(-1, Execute());
            EXPECT_EQ(0, Execute()) << "the answer that stayed behind is not taken";
        }));
    });
}

}  // namespace
