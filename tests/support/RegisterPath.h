#pragma once
/// @file
/// A simulated server under the register path, with time that costs nothing. KCS at ports 0xCA2 and 0xCA3, SMIC from
/// 0xCA9 on.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvLibIpmi_Interface.h"
#include "lib_driverIF/KvLibIpmi_Message.h"
#include "lib_driverIF/KvLibIpmi_Queue.h"
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
    using Bytes = std::vector<uint8_t>;

    static constexpr uint16_t kKcsData = 0xCA2;
    static constexpr uint16_t kKcsStatus = 0xCA3;
    static constexpr uint16_t kSmicData = 0xCA9;
    static constexpr uint16_t kSmicControl = 0xCAA;
    static constexpr uint16_t kSmicFlags = 0xCAB;

    RegisterPathTest() { KvSetDeviceOps(server.Ops()); }
    ~RegisterPathTest() override { KvSetDeviceOps(nullptr); }

    static void UseKcs() {
        ipmi_set_function_kcs_ioport(kKcsData);
        ipmi_set_register_access(ioreg_func);
    }

    /// Lets a command be answered with so many bytes 0, 1, 2 ..., the completion code included.
    void AnswerWith(uint8_t command, size_t bytes) {
        server.OnCommand(sim::netfn::kApp, command, [bytes](const sim::Request&, const auto&) {
            sim::Response answer;
            for (size_t i = 1; i < bytes; ++i)
                answer.data.push_back(static_cast<uint8_t>(i));
            return answer;
        });
    }

    /// A request and its response on the interface that is in use.
    int Write(Bytes request = {0x18, 0x01, 0xAA, 0xBB}) {
        return IPMI_WRITE.load()(request.data(), static_cast<uint32_t>(request.size()), &status);
    }
    int Read(uint32_t capacity = kIpmiMaxMessage) {
        response.assign(capacity + kBehind.size(), 0xEE);
        length = capacity;
        const int result = IPMI_READ.load()(response.data(), &length, &status);
        EXPECT_EQ(kBehind, Bytes(response.end() - 4, response.end())) << "written behind the capacity";
        return result;
    }
    Bytes Head(size_t bytes) { return {response.begin(), response.begin() + static_cast<ptrdiff_t>(bytes)}; }

    /// What a call came to.
    struct Called {
        int result = 0;
        uint8_t status = 0xEE;
        uint32_t length = 0;
        Bytes response;
    };
    /// Sends a request to a controller as the services do: Get Device ID.
    static Called Call(uint8_t target, uint32_t capacity = 64, Bytes request = {0x18, 0x01}) {
        Called called;
        called.response.assign(capacity + kBehind.size(), 0xEE);
        KvIpmiExecBlock block = {
            called.status,          target, 0, static_cast<uint32_t>(request.size()), capacity, request.data(),
            called.response.data(), 0};
        called.result = ipmi_ioctl(IPMI_EXECCMD, reinterpret_cast<unsigned long>(&block));
        called.status = block.status;
        called.length = block.responseLength;
        EXPECT_EQ(kBehind, Bytes(called.response.end() - 4, called.response.end())) << "written behind the capacity";
        return called;
    }

    /// As Terminate_IpmiIF does in another thread.
    void StopIn(std::chrono::microseconds time) {
        g_ipmiGiveUpAt = clock.Now() + static_cast<uint64_t>(time.count());
        g_ipmiStopping = true;
    }

    uint64_t SleptMs() { return clock.Slept() / 1000; }

    PolledClock clock;
    sim::SimulatedServer server{clock};
    Bytes response;
    uint32_t length = 0;
    uint8_t status = 0xEE;

private:
    static inline const Bytes kBehind = Bytes(4, 0xEE);
};
