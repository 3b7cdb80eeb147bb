// Bridging to controllers on the IPMB: messages, sequence numbers, and many threads at once.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <span>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/RegisterPath.h"

namespace {
std::atomic<bool> g_memoryGone = false;
}

// Memory for queue entries, which runs out when the test says so.
void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return g_memoryGone ? nullptr : operator new(size);
}

namespace {

using Bytes = RegisterPathTest::Bytes;
using namespace std::chrono_literals;

constexpr uint8_t kSatellite = 0x24;

/// Time that stands still until the test moves it; sleeps and waits are short real ones.
class HeldClock : public TimerClock {
public:
    uint64_t Now() override { return now_; }
    int SleepFor(uint64_t /*microseconds*/) override {
        std::this_thread::sleep_for(200us);
        return 0;
    }
    bool WaitUntil(std::condition_variable& /*wake*/, std::unique_lock<std::mutex>& lock, uint64_t deadline) override {
        lock.unlock();
        std::this_thread::sleep_for(20ms);
        lock.lock();
        return now_ < deadline;
    }
    void Advance(std::chrono::microseconds time) { now_ += static_cast<uint64_t>(time.count()); }

private:
    std::atomic<uint64_t> now_ = 1'000'000;
};

class IpmbTest : public RegisterPathTest {
public:
    IpmbTest() : satellite(server.GetBmc().AddController(kSatellite)) {
        satellite.Identity()->id = 0x77;
        EXPECT_EQ(0, Init_IpmiIF());
    }
    ~IpmbTest() override {
        EXPECT_EQ(0, ipmb_seq_check());
        Terminate_IpmiIF();
        EXPECT_EQ(nullptr, ipmb_req_queue);
        EXPECT_EQ(nullptr, ipmb_reqqent_free);
        EXPECT_EQ(0U, server.Overlaps());
        EXPECT_EQ(0U, server.Kcs().Violations());
    }

    void Silence(unsigned times = 1000) { satellite.Silence(sim::netfn::kApp, 0x01, times); }

    sim::Controller& satellite;
};

/// A Get Message response that carries a response.
Bytes Delivered(uint8_t sequence, uint8_t responder = kSatellite, uint8_t command = 0x01) {
    return {0x1C, 0x33, 0x00, 0x00, 0x1C, 0xC4, responder, sequence, command, 0x00, 0x99, 0x5A};
}

void Deliver(const Bytes& message) {
    ipmb_reqq_deq(message.data(), static_cast<uint32_t>(message.size()));
}

TEST_F(IpmbTest, BridgesAMessage) {
    const Called called = Call(kSatellite, 4);
    ASSERT_EQ(0, called.result);
    EXPECT_EQ(15U, called.length) << "the checksum at the end is passed on";
    EXPECT_EQ((Bytes{0x1C, 0x01, 0x00, 0x77}), Bytes(called.response.begin(), called.response.begin() + 4));
}

TEST_F(IpmbTest, SendMessageLayout) {
    const Bytes request = {0x28, 0x2D, 0x30};
    uint8_t out[12];
    ASSERT_EQ(0, ipmb_create_send_message(0x24, 0x44, request.data(), 3, out, 11, &length));
    constexpr auto kSum = static_cast<uint8_t>(-(0x20 + 0x46 + 0x2D + 0x30));
    EXPECT_EQ((Bytes{0x18, 0x34, 0x00, 0x24, 0x28, 0xB4, 0x20, 0x46, 0x2D, 0x30, kSum}), Bytes(out, out + length));
    EXPECT_EQ(-105, ipmb_create_send_message(0x24, 0x44, request.data(), 3, out, 10, &length));
    EXPECT_EQ(-14, ipmb_create_send_message(0x24, 0x44, request.data(), 1, out, 11, &length));
}

TEST_F(IpmbTest, ResponseIsUnwrappedWithinItsBounds) {
    const Bytes good = Delivered(0x07);
    struct Case {
        size_t at;
        uint8_t value;
        uint32_t received;
        uint32_t capacity;
        int result;
        uint32_t length;
        Bytes out;
    };
    for (const Case& each : {Case{0, 0x1C, 12, 8, 0, 5, {0x1F, 0x01, 0x00, 0x99, 0x5A, 0xEE}},
                             Case{0, 0x1F, 12, 2, 0, 5, {0x1F, 0x01, 0xEE}}, Case{0, 0x1C, 12, 0, 0, 5, {0xEE}},
                             Case{0, 0x1C, 8, 8, 0, 1, {0x1F, 0xEE}}, Case{0, 0x1C, 7, 8, -74, 8, {0xEE}},
                             Case{0, 0x18, 12, 8, -74, 8, {0xEE}}, Case{5, 0xC5, 12, 8, -74, 8, {0xEE}}}) {
        Bytes message = good;
        message[each.at] = each.value;
        Bytes out(16, 0xEE);
        length = each.capacity;
        EXPECT_EQ(each.result, ipmb_create_response_data(message.data(), each.received, out.data(), &length));
        EXPECT_EQ(each.length, length);
        EXPECT_EQ(each.out, Bytes(out.begin(), out.begin() + static_cast<ptrdiff_t>(each.out.size())));
    }
}

TEST_F(IpmbTest, TargetThatIsNotThereAnswersThroughTheBmc) {
    const Called called = Call(0x30, 8, {0x28, 0x2D, 0x01});
    EXPECT_EQ(0, called.result);
    EXPECT_EQ(3U, called.length);
    EXPECT_EQ((Bytes{0x2C, 0x2D, sim::cc::kNakOnWrite}), Bytes(called.response.begin(), called.response.begin() + 3));
    EXPECT_EQ(-105, Call(0x30, 2).result);
}

TEST_F(IpmbTest, RequestThatDoesNotFitAMessageOrIsNotSent) {
    EXPECT_EQ(-105, Call(kSatellite, 64, Bytes(kIpmiMaxMessage - 7, 0x18)).result);
    EXPECT_EQ(0, Call(kSatellite, 64, Bytes(kIpmiMaxMessage - 8, 0x18)).result);
    server.Kcs().SetNotAvailable(true);
    EXPECT_EQ(-6, Call(kSatellite).result);
    EXPECT_EQ(0, ipmb_seq_check());
    server.Kcs().SetNotAvailable(false);
    EXPECT_EQ(0, Call(kSatellite).result);
}

TEST_F(IpmbTest, SilentTargetTimesOut) {
    Silence();
    const auto ms = [before = clock.Now(), this] { return (clock.Now() - before) / 1000; };
    EXPECT_EQ(-110, Call(kSatellite).result);
    EXPECT_LE(1100U, ms());
    EXPECT_GE(1500U, ms());
    EXPECT_EQ(0, ipmb_seq_check());
    server.GetBmc().QueueEvent({});  // attention that never ends, for nobody reads it
    EXPECT_EQ(-110, Call(kSatellite).result);
    EXPECT_GE(1500U + 3000U, ms());
}

TEST_F(IpmbTest, AnswerThatIsBeingFetchedIsWaitedFor) {
    satellite.Delay(sim::netfn::kApp, 0x01, 1000ms);
    server.GetBmc().Delay(sim::netfn::kApp, 0x33, 300ms);  // Get Message, past the time limit
    EXPECT_EQ(0, Call(kSatellite).result);
    satellite.Delay(sim::netfn::kApp, 0x01, 1000ms);
    server.GetBmc().Delay(sim::netfn::kApp, 0x33, 2000ms);
    EXPECT_EQ(-110, Call(kSatellite).result) << "but not for ever";
}

TEST_F(IpmbTest, UnknownAndDamagedAnswersAreDropped) {
    // In front of the answer: another sequence number, an answer cut short, a completion code alone.
    server.GetBmc().OnBusAnswer([this, first = true](Bytes&) mutable {
        if (!std::exchange(first, false)) return;
        for (const Bytes& stray :
             {Bytes{0x1C, 0xC4, kSatellite, 0xF8, 0x01, 0x00, 0x00}, Bytes{0x1C, 0xC4, kSatellite}, Bytes{}})
            server.GetBmc().QueueMessage(stray);
    });
    const Called called = Call(kSatellite);
    EXPECT_EQ(0, called.result);
    EXPECT_EQ(0x77, called.response[3]);
    server.GetBmc().OnBusAnswer([](Bytes& message) { message[1] ^= 0x10; });  // its header
    EXPECT_EQ(-74, Call(kSatellite).result);
}

TEST_F(IpmbTest, LateAnswerGoesToNobodyElse) {
    IpmbRequestEntry* const entry = ipmb_reqq_reserve();
    const uint8_t sequence = ipmb_reqq_push(entry, {kSatellite, 0x01});
    Deliver(Delivered(sequence, 0x26, 0x01));
    Deliver(Delivered(sequence, kSatellite, 0x02));
    EXPECT_EQ(0U, entry->received);
    EXPECT_EQ(1, ipmb_seq_check()) << "the number stays with who waits under it";
    Deliver(Delivered(sequence));
    EXPECT_EQ(12U, entry->received);
    EXPECT_EQ(0, ipmb_seq_check());
    uint8_t next = 0;
    for (int i = 0; i < 64; ++i)
        ipmb_seq_release(next = ipmb_seq_reserve());
    EXPECT_NE(sequence, next) << "not given out again while it stands in the queue";
    uint8_t message[kIpmiMaxMessage];
    uint32_t room = 10;
    EXPECT_EQ(0, ipmb_reqq_enq(sequence, message, &room)) << "who waits only now finds it there";
    EXPECT_EQ(12U, room);
}

TEST_F(IpmbTest, NumberFreedByAStrayIsInUseAgainForWhoWaits) {
    const uint8_t sequence = ipmb_seq_reserve();
    Deliver(Delivered(sequence));
    server.GetBmc().QueueMessage({0x1C, 0xC4, 0x26, sequence, 0x02, 0x00, 0x5A}, 50ms);
    uint8_t message[kIpmiMaxMessage];
    length = sizeof message;
    EXPECT_EQ(0, ipmb_reqq_enq(sequence, message, &length));
    EXPECT_EQ(0x26, message[6]) << "anyone's, where nothing else was said";
}

TEST_F(IpmbTest, NumbersGoRound) {
    const uint8_t first = ipmb_seq_reserve();
    const uint8_t second = ipmb_seq_reserve();
    EXPECT_EQ((first + 4) & 0xFC, second);
    ipmb_seq_release(first);
    EXPECT_EQ((second + 4) & 0xFC, ipmb_seq_reserve()) << "round robin, not the lowest";
    for (int i = 2; i < 64; ++i)
        EXPECT_NE(kIpmbNoSequence, ipmb_seq_reserve());
    EXPECT_EQ(kIpmbNoSequence, ipmb_seq_reserve());
    EXPECT_EQ(-16, Call(kSatellite).result);
    Deliver(Delivered(second));  // nobody waits: the number is free
    EXPECT_EQ(second, ipmb_seq_reserve());
    for (int i = 0; i < 64; ++i)
        ipmb_seq_release(static_cast<uint8_t>(i << 2));
}

TEST_F(IpmbTest, ExhaustedMemoryIsReported) {
    g_memoryGone = true;
    if (const std::unique_ptr<char> any(new (std::nothrow) char); any != nullptr) {
        g_memoryGone = false;
        GTEST_SKIP() << "valgrind has put its own operator new in place";
    }
    EXPECT_EQ(-12, Call(kSatellite).result);
    length = 4;
    uint8_t message[4];
    EXPECT_EQ(-12, ipmb_reqq_enq(0, message, &length));
    g_memoryGone = false;
    EXPECT_EQ(0, Call(kSatellite).result);
}

TEST_F(IpmbTest, ManyThreadsGetTheirOwnAnswers) {
    satellite.Delay(sim::netfn::kApp, 0x01, 3ms, 1000);
    server.GetBmc().AddController(0x26).Identity()->id = 0x78;
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (const uint8_t target : std::initializer_list<uint8_t>{0x24, 0x26, 0x20, 0x24, 0x26, 0x24, 0x26, 0x20}) {
        threads.emplace_back([target, &wrong] {
            for (int i = 0; i < 8; ++i) {
                const Called called = Call(target);
                const uint8_t expected = target == 0x20 ? 0x20 : target == 0x24 ? 0x77 : 0x78;
                if (called.result != 0 || called.response[3] != expected) ++wrong;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(0, wrong);
}

/// Lets threads bridge to a silent target while time stands still, until so many are outstanding.
struct Outstanding {
    explicit Outstanding(unsigned count) {
        for (unsigned i = 0; i < count; ++i)
            threads.emplace_back([this, i] {
                results[i] = IpmbTest::Call(kSatellite).result;
                ++finished;
            });
    }
    std::array<std::atomic<int>, 64> results = {};
    std::atomic<unsigned> finished = 0;
    std::vector<std::jthread> threads;
};

TEST_F(IpmbTest, SixtyFifthRequestIsRefused) {
    Silence();
    HeldClock held;
    SetTimerClock(&held);
    Outstanding waiting(64);
    EXPECT_TRUE(Eventually([this] { return satellite.Count() == 64; }, 60s));
    EXPECT_EQ(-16, Call(kSatellite).result);
    EXPECT_TRUE(Eventually(
        [&] {
            held.Advance(100ms);
            return waiting.finished == 64;
        },
        60s));
    waiting.threads.clear();
    EXPECT_TRUE(std::ranges::all_of(waiting.results, [](int result) { return result == -110; }));
    SetTimerClock(&clock);
}

TEST_F(IpmbTest, EndWhileSixteenThreadsAreBridging) {
    Silence();
    for (const unsigned outstanding : {16U, 5U, 0U}) {  // waiting, sending, and just called
        HeldClock held;
        SetTimerClock(&held);
        satellite.ResetCounts();
        Outstanding waiting(16);
        EXPECT_TRUE(Eventually([&] { return satellite.Count() >= outstanding; }, 60s));
        Terminate_IpmiIF();
        waiting.threads.clear();
        for (const int result : std::span(waiting.results).first(16))
            EXPECT_TRUE(result == -110 || result == -1) << result;
        EXPECT_EQ(nullptr, ipmb_reqqent_free);
        SetTimerClock(&clock);
        ASSERT_EQ(0, Init_IpmiIF());
    }
    satellite.OnCommand(sim::netfn::kApp, 0x01, {});
    EXPECT_EQ(0, Call(kSatellite).result) << "after a new start";
}

TEST_F(IpmbTest, RegistersAreLeftAloneWhenNothingIsOutstanding) {
    EXPECT_EQ(0, Call(kSatellite).result);
    HeldClock held;
    SetTimerClock(&held);
    EXPECT_TRUE(Eventually(
        [this] {
            const unsigned reads = server.PortReads(kKcsStatus);
            std::this_thread::sleep_for(5ms);
            return server.PortReads(kKcsStatus) == reads;
        },
        60s));
    SetTimerClock(&clock);
}

}  // namespace
