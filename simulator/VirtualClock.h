#pragma once
/// @file
/// Clocks of a simulated machine: one whose time costs nothing, and the machine's own.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>

#include "cover/TimerCover.h"

namespace sim {

/// Time that passes when somebody waits for it. Several threads may sleep and wait at once: time then goes to the
/// earliest moment that any of them waits for, so pauses of different threads do not add up. Before time jumps, the
/// other threads get a chance to run (a sleeper yields; a waiter sees some milliseconds of idleness first), so that an
/// answer which is on its way arrives before its deadline.
class VirtualClock : public TimerClock {
public:
    uint64_t Now() override;
    int SleepFor(uint64_t microseconds) override;
    bool WaitUntil(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, uint64_t deadline) override;

    /// Lets time pass without anybody asking for it.
    void Advance(uint64_t microseconds);
    /// The next sleeps end at once as if by a signal: -1, EINTR.
    void InterruptSleeps(unsigned count);
    /// Sum of what SleepFor was asked for, all threads.
    uint64_t Slept();

private:
    void AdvanceToEarliest();

    std::mutex mutex_;  // guards everything below
    uint64_t now_ = 1'000'000'000;
    uint64_t slept_ = 0;
    uint64_t uses_ = 0;  // calls that show a thread at work
    unsigned interruptions_ = 0;
    std::multiset<uint64_t> sleeps_;  // moments at which sleepers go on
    std::multiset<uint64_t> waits_;   // deadlines of threads inside WaitUntil
};

/// The machine's monotonic clock.
TimerClock& MachineClock();

/// Puts a virtual clock in force for its scope.
class ScopedVirtualClock : public VirtualClock {
public:
    ScopedVirtualClock() { SetTimerClock(this); }
    ~ScopedVirtualClock() override { SetTimerClock(nullptr); }
    ScopedVirtualClock(const ScopedVirtualClock&) = delete;
    ScopedVirtualClock& operator=(const ScopedVirtualClock&) = delete;
};

}  // namespace sim
