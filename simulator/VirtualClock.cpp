#include "simulator/VirtualClock.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <system_error>
#include <thread>

namespace sim {
namespace {

constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();
/// Somebody waits on a condition: time passes his deadline only when nobody used the clock for so many rounds of a
/// millisecond and no thread of the process is about to run. A thread that computes, has just been started, or was put
/// aside on a busy machine is not overtaken. The second limit ends the patience with a thread that spins.
constexpr std::chrono::milliseconds kRound{1};
constexpr int kIdleRounds = 3;
constexpr int kMostRounds = 300;
/// What a sleeper gives a waiter whose answer may be on its way in another thread.
constexpr std::chrono::microseconds kSleeperChance{20};

/// Whether another thread of this process runs or is ready to run.
bool OthersRun() {
    const std::string self = std::to_string(gettid());
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        if (task.path().filename() == self) continue;
        std::ifstream stat(task.path() / "stat");
        std::string line;
        if (!std::getline(stat, line)) continue;  // it has just ended
        const size_t name = line.rfind(')');
        if (name != std::string::npos && name + 2 < line.size() && line[name + 2] == 'R') return true;
    }
    return false;
}

/// How long a thread has been looking on while it waits.
struct Patience {
    const VirtualClock* clock = nullptr;
    uint64_t deadline = 0;
    int idle = 0;
    int rounds = 0;
};

class RealClock : public TimerClock {
public:
    uint64_t Now() override {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
                .count());
    }

    int SleepFor(uint64_t microseconds) override {
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        return 0;
    }

    bool WaitUntil(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, uint64_t deadline) override {
        const uint64_t now = Now();
        if (now >= deadline) return false;
        wake.wait_for(lock, std::chrono::microseconds(std::min<uint64_t>(deadline - now, 3'600'000'000)));
        return Now() < deadline;
    }
};

}  // namespace

uint64_t VirtualClock::Now() {
    const std::lock_guard lock(mutex_);
    ++uses_;
    return now_;
}

int VirtualClock::SleepFor(uint64_t microseconds) {
    std::unique_lock lock(mutex_);
    if (interruptions_ > 0) {
        --interruptions_;
        errno = EINTR;
        return -1;
    }
    ++uses_;
    slept_ += microseconds;
    const uint64_t deadline = now_ + microseconds;
    const auto mine = sleeps_.insert(deadline);
    for (int rounds = 0; now_ < deadline;) {
        const auto wait = waits_.upper_bound(now_);
        const bool somebodyWaits = wait != waits_.end();
        const bool overtakes = somebodyWaits && *wait <= *sleeps_.begin();
        lock.unlock();
        const bool patient = overtakes && rounds++ < kMostRounds && OthersRun();
        if (patient)
            std::this_thread::sleep_for(kRound);
        else if (somebodyWaits)
            std::this_thread::sleep_for(kSleeperChance);
        else
            std::this_thread::yield();
        lock.lock();
        if (now_ < deadline && !patient) AdvanceToEarliest();
    }
    sleeps_.erase(mine);
    return 0;
}

/// One round at a time: a notification that comes while the round ends is not seen here, so the caller looks at his
/// condition between the rounds, and time jumps only right after he has looked.
bool VirtualClock::WaitUntil(std::condition_variable& wake, std::unique_lock<std::mutex>& lock, uint64_t deadline) {
    thread_local Patience patience;
    std::unique_lock own(mutex_);
    if (now_ >= deadline) return false;
    if (patience.clock != this || patience.deadline != deadline) patience = {this, deadline};
    const auto mine = waits_.insert(deadline);
    if (patience.idle >= kIdleRounds) {
        AdvanceToEarliest();
        patience = {};
    } else {
        const uint64_t before = uses_;
        own.unlock();
        const bool notified = wake.wait_for(lock, kRound) == std::cv_status::no_timeout;
        const bool busy = notified || (patience.rounds++ < kMostRounds && OthersRun());
        own.lock();
        patience.idle = busy || uses_ != before ? 0 : patience.idle + 1;
    }
    waits_.erase(mine);
    return now_ < deadline;
}

/// To the earliest moment ahead that somebody waits for; with mutex_ held. A sleeper whose time has come goes first. (A
/// waiter does not hold time up: it may need a lock that a sleeper has.)
void VirtualClock::AdvanceToEarliest() {
    if (!sleeps_.empty() && *sleeps_.begin() <= now_) return;
    uint64_t earliest = sleeps_.empty() ? kNever : *sleeps_.begin();
    if (const auto wait = waits_.upper_bound(now_); wait != waits_.end()) earliest = std::min(earliest, *wait);
    if (earliest != kNever) now_ = earliest;
}

void VirtualClock::Advance(uint64_t microseconds) {
    const std::lock_guard lock(mutex_);
    now_ += microseconds;
}

void VirtualClock::InterruptSleeps(unsigned count) {
    const std::lock_guard lock(mutex_);
    interruptions_ = count;
}

uint64_t VirtualClock::Slept() {
    const std::lock_guard lock(mutex_);
    return slept_;
}

TimerClock& MachineClock() {
    static RealClock clock;
    return clock;
}

}  // namespace sim
