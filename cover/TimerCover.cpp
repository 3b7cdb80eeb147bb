// Time limits, pauses and the clock behind them.

#include "cover/TimerCover.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <limits>

namespace {

constexpr uint32_t kMicrosecondsPerSecond = 1'000'000;
constexpr uint64_t kMicrosecondsPerMillisecond = 1'000;

class MachineClock : public TimerClock {
public:
    uint64_t Now() override {
        struct timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * kMicrosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec) / 1000;
    }

    int SleepFor(uint64_t microseconds) override {
        struct timespec pause = {};
        pause.tv_sec = static_cast<time_t>(microseconds / kMicrosecondsPerSecond);
        pause.tv_nsec = static_cast<long>(microseconds % kMicrosecondsPerSecond * 1000);
        const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
        if (error == 0) return 0;
        errno = error;
        return -1;
    }

    bool WaitUntil(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, uint64_t deadline) override {
        // The steady clock of the standard library is CLOCK_MONOTONIC here, the clock of Now().
        const std::chrono::steady_clock::time_point until{std::chrono::microseconds(deadline)};
        return wake.wait_until(lock, until) == std::cv_status::no_timeout;
    }
};

// Never destroyed: threads of the host may still sleep while the process ends.
TimerClock& TheMachineClock() {
    static auto* const clock = new MachineClock;
    return *clock;
}

std::atomic<TimerClock*> g_clock = nullptr;

TimeLimit FromMicroseconds(uint64_t microseconds) {
    return {static_cast<uint32_t>(microseconds / kMicrosecondsPerSecond),
            static_cast<uint32_t>(microseconds % kMicrosecondsPerSecond)};
}

}  // namespace

TimerClock& Clock() {
    TimerClock* const clock = g_clock.load(std::memory_order_acquire);
    return clock != nullptr ? *clock : TheMachineClock();
}

void SetTimerClock(TimerClock* clock) {
    g_clock.store(clock, std::memory_order_release);
}

void Sleep(uint32_t ms) {
    TimerClock& clock = Clock();
    const uint64_t deadline = clock.Now() + ms * kMicrosecondsPerMillisecond;
    uint64_t rest = ms * kMicrosecondsPerMillisecond;
    while (clock.SleepFor(rest) != 0 && errno == EINTR) {
        const uint64_t now = clock.Now();
        if (now >= deadline) return;
        rest = deadline - now;
    }
}

void IntervalSleep(uint32_t total, uint32_t maximum, uint32_t divisor) {
    const uint32_t part = divisor != 0 ? total / divisor : total;
    const uint32_t step = part != 0 ? part : 1;
    Sleep(total != kInfinite && step <= maximum ? step : maximum);
}

uint32_t SecPlusSec(uint32_t a, uint32_t b) {
    constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();
    return a > kLargest - b ? kLargest : a + b;
}

void TimerPlus(TimeLimit* limit, uint32_t seconds, uint32_t microseconds) {
    const uint64_t sum = uint64_t{limit->microseconds} + microseconds;
    limit->microseconds = static_cast<uint32_t>(sum % kMicrosecondsPerSecond);
    const auto carry = static_cast<uint32_t>(sum / kMicrosecondsPerSecond);
    limit->seconds = SecPlusSec(SecPlusSec(limit->seconds, seconds), carry);
}

void MakeLimitTime(TimeLimit* limit, uint32_t ms) {
    *limit = FromMicroseconds(Clock().Now());
    TimerPlus(limit, ms / 1000, ms % 1000 * 1000);
}

bool LimitPassed(const TimeLimit& limit) {
    const TimeLimit now = FromMicroseconds(Clock().Now());
    if (now.seconds != limit.seconds) return now.seconds > limit.seconds;
    return now.microseconds >= limit.microseconds;
}
