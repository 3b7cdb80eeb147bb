#pragma once
/// @file
/// A clock that stands still but for what is slept, and notes each pause.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "cover/TimerCover.h"

class RecordingClock : public TimerClock {
public:
    RecordingClock() { SetTimerClock(this); }
    ~RecordingClock() override { SetTimerClock(nullptr); }
    RecordingClock(const RecordingClock&) = delete;
    RecordingClock& operator=(const RecordingClock&) = delete;

    uint64_t Now() override { return now; }

    int SleepFor(uint64_t microseconds) override {
        if (interruptAfter != 0) {
            now += std::exchange(interruptAfter, 0);
            errno = EINTR;
            return -1;
        }
        now += microseconds;
        pauses.push_back(static_cast<uint32_t>(microseconds / 1000));
        return 0;
    }

    bool WaitUntil(std::condition_variable& /*wake*/, std::unique_lock<std::mutex>& /*lock*/,
                   uint64_t deadline) override {
        now = std::max(now, deadline);
        return false;
    }

    uint64_t now = 5'000'000;
    uint64_t interruptAfter = 0;   ///< microseconds after which a signal ends the next sleep; 0: none
    std::vector<uint32_t> pauses;  ///< milliseconds
};
