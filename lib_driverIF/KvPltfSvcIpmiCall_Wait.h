#pragma once
/// @file
/// One wait for the IPMI lock, through all its stages.

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace ktx_ipmi {

/// Whether the layer is being ended: waits for the lock give up, and so do commands after their current attempt.
bool IsIpmiEnding();
void SetIpmiEnding(bool ending);

/// How long a thread waits for the lock, counted from its construction, and what ends the wait early.
class LockWait {
public:
    /// @param timeoutMs  kInfinite waits for ever
    explicit LockWait(uint32_t timeoutMs);

    /// Whether to give up: the time is over, the layer is being ended, or, in a wait with a limit, a termination signal
    /// is pending.
    bool Over() const;
    /// Pauses between two looks: a fiftieth of what has passed since the start, 1 to 10 ms, so that a short wait is a
    /// swift one and a long one costs little. @return the pause in milliseconds
    uint32_t Pause() const;
    /// Sleeps until woken or until it is time to ask Over() again.
    void Sleep(std::condition_variable& wake, std::unique_lock<std::mutex>& lock) const;

private:
    uint64_t Spent() const;

    uint32_t timeoutMs_;
    uint64_t start_;  // microseconds
};

}  // namespace ktx_ipmi
