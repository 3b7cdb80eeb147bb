#pragma once
/// @file
/// Waiting for what another thread or process brings about.

#include <chrono>
#include <thread>

/// Polls for a condition for five seconds at most. @return whether it came true
template <typename Condition>
bool Eventually(Condition condition) {
    for (int i = 0; i < 5000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}
