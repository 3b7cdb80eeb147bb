#pragma once
/// @file
/// Time limits and pauses. Every pause and deadline of device access goes through the one clock here, which a simulated
/// machine may replace by one that costs nothing.

#include <condition_variable>
#include <cstdint>
#include <mutex>

/// A monotonic point in time; microseconds stay below 1,000,000.
struct TimeLimit {
    uint32_t seconds;
    uint32_t microseconds;
};

/// All ones: no time-out.
inline constexpr uint32_t kInfinite = 0xFFFFFFFF;

/// Sleeps that many milliseconds; a signal does not cut it short.
void Sleep(uint32_t ms);
/// One pause of a polling loop: total / divisor, at least 1 ms, at most maximum (maximum when total is kInfinite).
void IntervalSleep(uint32_t total, uint32_t maximum, uint32_t divisor);
/// Now + ms.
void MakeLimitTime(TimeLimit* limit, uint32_t ms);
/// limit + seconds + microseconds, normalised; the seconds saturate.
void TimerPlus(TimeLimit* limit, uint32_t seconds, uint32_t microseconds);
/// a + b, or the largest value.
uint32_t SecPlusSec(uint32_t a, uint32_t b);
/// Whether the limit lies in the past.
bool LimitPassed(const TimeLimit& limit);

/// Where time comes from.
class TimerClock {
public:
    virtual ~TimerClock() = default;
    /// Monotonic time in microseconds.
    virtual uint64_t Now() = 0;
    /// @return 0; -1 with errno EINTR when a signal ended it
    virtual int SleepFor(uint64_t microseconds) = 0;
    /// Waits on wake until it is notified or the time has passed; wake-ups without cause happen.
    /// @return false when the time has passed
    virtual bool WaitUntil(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, uint64_t deadline) = 0;
};

/// The clock in force.
TimerClock& Clock();
/// Replaces the clock; null brings the machine's own back. The clock stays the caller's. Not while the library works.
void SetTimerClock(TimerClock* clock);
