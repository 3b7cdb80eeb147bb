// How long a thread waits for the IPMI lock, and the mark that ends all waits.

#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"

#include <algorithm>
#include <atomic>

#include "cover/SignalCover.h"
#include "cover/TimerCover.h"

namespace ktx_ipmi {

namespace {

constexpr uint64_t kShortestPause = 1;  // ms
constexpr uint64_t kLongestPause = 10;
constexpr uint64_t kLongestSleep = 100;
constexpr uint64_t kPartOfWait = 50;

std::atomic<bool> g_ending = false;

}  // namespace

bool IsIpmiEnding() {
    return g_ending;
}

void SetIpmiEnding(bool ending) {
    g_ending = ending;
}

LockWait::LockWait(uint32_t timeoutMs) : timeoutMs_(timeoutMs), start_(Clock().Now()) {}

uint64_t LockWait::Spent() const {
    return Clock().Now() - start_;
}

bool LockWait::Over() const {
    if (IsIpmiEnding()) return true;
    if (timeoutMs_ == kInfinite) return false;
    return Spent() >= timeoutMs_ * uint64_t{1000} || IsTermWithSignal(timeoutMs_) != 0;
}

uint32_t LockWait::Pause() const {
    const uint64_t spent = Spent() / 1000;
    uint64_t pause = std::clamp(spent / kPartOfWait, kShortestPause, kLongestPause);
    if (timeoutMs_ != kInfinite && spent < timeoutMs_) pause = std::min(pause, timeoutMs_ - spent);
    ::Sleep(static_cast<uint32_t>(pause));
    return static_cast<uint32_t>(pause);
}

void LockWait::Sleep(std::condition_variable& wake, std::unique_lock<std::mutex>& lock) const {
    if (timeoutMs_ == kInfinite) {
        wake.wait(lock);
        return;
    }
    const uint64_t part = std::clamp(timeoutMs_ / kPartOfWait, kShortestPause, kLongestSleep) * 1000;
    const uint64_t end = start_ + timeoutMs_ * uint64_t{1000};
    Clock().WaitUntil(wake, lock, std::min(Clock().Now() + part, end));
}

}  // namespace ktx_ipmi
