#pragma once
/// @file
/// Waiting for what another thread or process brings about.

#include <chrono>
#include <thread>

/// Polls for a condition, five seconds at most unless told otherwise. @return whether it came true
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
