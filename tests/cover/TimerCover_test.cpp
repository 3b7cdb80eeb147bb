#include "cover/TimerCover.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/RecordingClock.h"

namespace {

TEST(TimerCover, PollingPauseIsAFractionWithinBounds) {
    struct Case {
        uint32_t total, maximum, divisor, pause;
    };
    for (const Case& c : {Case{1000, 100, 50, 20},        // a fiftieth
                          Case{5000, 100, 50, 100},       // just the maximum
                          Case{5050, 100, 50, 100},       // above it
                          Case{49, 100, 50, 1},           // below a millisecond
                          Case{kInfinite, 100, 50, 100},  // no total to divide
                          Case{80, 100, 0, 80}}) {
        RecordingClock clock;
        IntervalSleep(c.total, c.maximum, c.divisor);
        EXPECT_EQ(std::vector<uint32_t>{c.pause}, clock.pauses) << c.total;
    }
}

TEST(TimerCover, SignalDoesNotShortenASleep) {
    RecordingClock clock;
    const uint64_t before = clock.now;
    clock.interruptAfter = 400'000;
    Sleep(1500);
    EXPECT_EQ(before + 1'500'000, clock.now);
    EXPECT_EQ(std::vector<uint32_t>{1100}, clock.pauses) << "the rest after the signal";
}

TEST(TimerCover, LimitsAreNormalisedAndSaturate) {
    struct Case {
        TimeLimit limit;
        uint32_t seconds, microseconds;
        TimeLimit sum;
    };
    for (const Case& c :
         {Case{{1, 999'999}, 0, 1, {2, 0}}, Case{{1, 500'000}, 2, 3'700'000, {7, 200'000}},
          Case{{0, 999'999}, 0, 0xFFFFFFFF, {4295, 967'294}}, Case{{0xFFFFFFFE, 0}, 5, 0, {0xFFFFFFFF, 0}},
          Case{{0xFFFFFFFF, 999'999}, 0, 2, {0xFFFFFFFF, 1}}}) {
        TimeLimit limit = c.limit;
        TimerPlus(&limit, c.seconds, c.microseconds);
        EXPECT_EQ(c.sum.seconds, limit.seconds);
        EXPECT_EQ(c.sum.microseconds, limit.microseconds);
    }
}

TEST(TimerCover, LimitPassesWhenItsTimeHasCome) {
    RecordingClock clock;
    clock.now = 7'999'500;
    TimeLimit limit = {};
    MakeLimitTime(&limit, 1);
    EXPECT_EQ(8U, limit.seconds);
    EXPECT_EQ(500U, limit.microseconds);
    EXPECT_FALSE(LimitPassed(limit));
    clock.now += 999;
    EXPECT_FALSE(LimitPassed(limit));
    clock.now += 1;
    EXPECT_TRUE(LimitPassed(limit));
}

TEST(TimerCover, MachineClockSleepsAndWaits) {
    TimerClock& clock = Clock();
    const uint64_t before = clock.Now();
    Sleep(2);
    EXPECT_GE(clock.Now(), before + 2000);

    std::mutex mutex;
    std::condition_variable wake;
    bool woken = false;
    std::unique_lock lock(mutex);
    EXPECT_FALSE(clock.WaitUntil(wake, lock, clock.Now() + 1000)) << "nobody notifies";
    std::thread waker([&] {
        const std::lock_guard hold(mutex);
        woken = true;
        wake.notify_one();
    });
    const uint64_t deadline = clock.Now() + 10'000'000;
    while (!woken && clock.WaitUntil(wake, lock, deadline)) {
    }
    EXPECT_TRUE(woken);
    lock.unlock();
    waker.join();
}

}  // namespace
