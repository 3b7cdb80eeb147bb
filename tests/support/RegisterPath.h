#pragma once
/// @file
/// A simulated server under the register path, with time that costs nothing. KCS at ports 0xCA2 and 0xCA3, SMIC from
/// 0xCA9 on.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "lib_driverIF/KvLibIpmi.h"
#include "simulator/SimulatedServer.h"

/// Time that costs next to nothing: who waits on a condition gives the other threads a tenth of the real time. It looks
/// again and again instead of waiting on the condition; valgrind's drd does not know the C library's wait with 64-bit
/// time.
class PolledClock : public sim::ScopedVirtualClock {
public:
    bool WaitUntil(std::condition_variable& /*wake*/, std::unique_lock<std::mutex>& lock, uint64_t deadline) override {
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        SleepFor(1000);
        lock.lock();
        return Now() < deadline;
    }
};

class RegisterPathTest : public testing::Test {
public:
    static constexpr uint16_t kKcsData = 0xCA2;
    static constexpr uint16_t kKcsStatus = 0xCA3;
    static constexpr uint16_t kSmicControl = 0xCAA;
    static constexpr uint16_t kSmicFlags = 0xCAB;

    RegisterPathTest() { KvSetDeviceOps(server.Ops()); }
    ~RegisterPathTest() override { KvSetDeviceOps(nullptr); }

    static void UseKcs() {
        ipmi_set_function_kcs_ioport(kKcsData);
        ipmi_set_register_access(ioreg_func);
    }

    /// Lets a command be answered with so many bytes 0, 1, 2 ..., the completion code included.
    void AnswerWith(uint8_t command, size_t length) {
        server.OnCommand(sim::netfn::kApp, command, [length](const sim::Request&, const auto&) {
            sim::Response response;
            for (size_t i = 1; i < length; ++i)
                response.data.push_back(static_cast<uint8_t>(i));
            return response;
        });
    }

    uint64_t SleptMs() { return clock.Slept() / 1000; }

    PolledClock clock;
    sim::SimulatedServer server{clock};
};
