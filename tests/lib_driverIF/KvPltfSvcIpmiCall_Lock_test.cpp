#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <new>
#include <thread>
#include <vector>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "simulator/VirtualClock.h"
#include "tests/support/FullDisk.h"
#include "tests/support/InMachineRoot.h"

namespace {

using namespace ktx_ipmi;
using std::chrono::steady_clock;

/// What all processes of a test see.
struct Shared {
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> conversations{0};
    std::atomic<int> ready{0};
    std::atomic<int> longestWait{0};  // conversations of others between asking and having
};

Shared* MakeShared() {
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (page) Shared;
}

/// A device that counts how often it is opened and can refuse.
class CountingTransport : public IpmiTransport {
public:
    CountingTransport() { SetIpmiTransport(this); }
    ~CountingTransport() override { SetIpmiTransport(nullptr); }
    int Open() override {
        if (cancels) CancelSelf();
        return ++opened, refuse;
    }
    void Close() override {
        if (cancels) CancelSelf();
        ++closed;
    }
    int Execute(uint8_t, uint8_t, uint16_t, const uint8_t*, uint16_t*, uint8_t*) override { return -1; }
    int refuse = 0;
    int opened = 0;
    int closed = 0;
    bool cancels = false;  ///< the calling thread, as system calls do when it has been cancelled

private:
    static void CancelSelf() {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }
};

void Contend(Shared& shared, int rounds, int microseconds) {
    for (int round = 0; round < rounds; ++round) {
        const int before = shared.conversations;
        const IpmiBracket bracket;
        ASSERT_TRUE(bracket);
        const int waited = shared.conversations - before;
        int longest = shared.longestWait;
        while (waited > longest && !shared.longestWait.compare_exchange_weak(longest, waited)) {
        }
        if (++shared.inside != 1) ++shared.overlaps;
        std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
        --shared.inside;
        ++shared.conversations;
    }
}

/// Runs 4 threads in each of 4 processes inside one machine root; their conversations must not overlap.
void RunContenders(Shared& shared, int rounds, int microseconds) {
    constexpr int kEach = 4;
    const MachineRoot root = MakeTestRoot();
    std::vector<pid_t> children(kEach);
    for (pid_t& child : children) {
        child = root.Start([&] {
            CountingTransport device;
            EXPECT_TRUE(OpenIpmiLock());
            for (++shared.ready; shared.ready < kEach;)
                std::this_thread::yield();
            std::vector<std::jthread> contenders(kEach);
            for (std::jthread& contender : contenders)
                contender = std::jthread(Contend, std::ref(shared), rounds, microseconds);
            contenders.clear();
            CloseIpmiLock();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
    for (const pid_t child : children)
        EXPECT_EQ(0, WaitForExit(child));
    EXPECT_EQ(0, shared.overlaps);
    EXPECT_EQ(kEach * kEach * rounds, shared.conversations);
}

/// Another process that takes the bracket, and says so, until it is killed.
pid_t StartHolder(const MachineRoot& root, Shared& shared) {
    return root.Start([&] {
        CountingTransport device;
        OpenIpmiLock();
        ++shared.ready;
        const IpmiBracket bracket;
        ++shared.inside;
        pause();
        return 0;
    });
}

void AwaitAtLeast(const std::atomic<int>& count, int n) {
    while (count < n)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // from there into the wait
}

class IpmiLock : public testing::Test {
public:
    /// Runs body in a machine root of its own, with the lock open.
    void Run(const std::function<void()>& body) {
        RunInRoot(MakeTestRoot(), [&] {
            ASSERT_TRUE(OpenIpmiLock());
            body();
            CloseIpmiLock();
        });
    }

    CountingTransport device;
};

bool CanTake() {
    int handle = kInvalidHandle;
    const bool taken = OpenIpmiDriver(&handle, 2000);
    if (taken) CloseIpmiDriver(handle);
    return taken;
}

void ExpectFreeForOthers() {
    std::thread([] { EXPECT_TRUE(CanTake()) << "another thread of this process"; }).join();
}

TEST_F(IpmiLock, NeverLetsTwoConversationsOverlap) {
    RunContenders(*MakeShared(), 200, 0);
}

TEST_F(IpmiLock, NobodyStarves) {
    Shared* shared = MakeShared();
    RunContenders(*shared, 40, 1000);
    // Each of the 16 at most once before any other; a few more, for who was about to be asleep when his turn came.
    EXPECT_LE(shared->longestWait, 16 + 8);
}

TEST_ON_MACHINE(IpmiLock, OnlyAFullDiskCostsAPause) {
    const auto start = steady_clock::now();
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(IpmiBracket());
    EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(100));
    sim::ScopedVirtualClock clock;
    {
        const FullDisk full;
        EXPECT_TRUE(IpmiBracket());
        EXPECT_EQ(100'000U, clock.Slept()) << "time for others to come in";
    }
    EXPECT_TRUE(IpmiBracket());
    EXPECT_EQ(100'000U, clock.Slept()) << "they stand in line again";
}

TEST_F(IpmiLock, WhoIsKilledOrCancelledLeavesTheLineAsIfHeHadNeverCome) {
    const MachineRoot root = MakeTestRoot();
    Shared* shared = MakeShared();
    const pid_t holder = StartHolder(root, *shared);
    AwaitAtLeast(shared->inside, 1);
    const pid_t waiter = StartHolder(root, *shared);
    AwaitAtLeast(shared->ready, 2);
    RunInRoot(root, [&] {
        ASSERT_TRUE(OpenIpmiLock());
#ifndef __SANITIZE_ADDRESS__  // which does not see a cancelled thread leave its frames
        std::thread inLine([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::thread behindIt([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        for (std::thread* cancelled : {&behindIt, &inLine}) {
            pthread_cancel(cancelled->native_handle());
            cancelled->join();
        }
#endif
        EXPECT_EQ(1, shared->inside) << "the waiter waits for the holder";
        kill(holder, SIGKILL);
        AwaitAtLeast(shared->inside, 2);  // the waiter is served
        kill(waiter, SIGKILL);
        ExpectFreeForOthers();
        const pid_t other = fork();
        if (other == 0) {
            CloseIpmiLock();
            _exit(OpenIpmiLock() && CanTake() ? 0 : 1);
        }
        EXPECT_EQ(0, WaitForExit(other)) << "another process";
        CloseIpmiLock();
    });
    WaitForExit(holder);
    WaitForExit(waiter);
}

#ifndef __SANITIZE_ADDRESS__
TEST_ON_MACHINE(IpmiLock, ACancelledThreadGivesBackWhatItHolds) {
    device.cancels = true;
    std::thread([] {
        const IpmiBracket bracket;
        pthread_testcancel();
        ADD_FAILURE() << "goes on";
    }).join();
    std::thread([] {
        int handle = kInvalidHandle;
        OpenIpmiDriverPriority(&handle, kInfinite);
        { const DeviceInBracket open; }
        CloseIpmiDriverPriority(handle);
    }).join();
    device.cancels = false;
    EXPECT_EQ(device.opened, device.closed);
    ExpectFreeForOthers();
}
#endif

TEST_ON_MACHINE(IpmiLock, BracketsNestAndOnlyTheOutermostOpens) {
    {
        IpmiBracket outer;
        ASSERT_TRUE(outer);
        {
            IpmiBracket inner;
            EXPECT_EQ(outer.Handle(), inner.Handle());
            int priority = 0;
            EXPECT_TRUE(OpenIpmiDriverPriority(&priority, 100));
            EXPECT_TRUE(DeviceInBracket());
            CloseIpmiDriverPriority(priority);
            EXPECT_TRUE(inner.LetOthersIn());
        }
        EXPECT_TRUE(outer.LetOthersIn()) << "nobody waits";
        EXPECT_EQ(1, device.opened);
        EXPECT_EQ(0, device.closed);
    }
    EXPECT_EQ(1, device.closed);
    {
        int priority = 0;
        ASSERT_TRUE(OpenIpmiDriverPriority(&priority, kInfinite));
        EXPECT_EQ(1, device.opened) << "the lock alone";
        EXPECT_TRUE(DeviceInBracket());
        EXPECT_EQ(2, device.opened);
        EXPECT_EQ(2, device.closed);
        CloseIpmiDriverPriority(priority);
    }
}

TEST_ON_MACHINE(IpmiLock, WhatWillNotOpenLeavesNothingHeld) {
    int handle = 0;
    device.refuse = -1;
    EXPECT_FALSE(OpenIpmiDriver(&handle, kInfinite));
    EXPECT_EQ(kInvalidHandle, handle);
    EXPECT_EQ(3, device.opened);
    device.refuse = 0;
    ExpectFreeForOthers();
    CloseIpmiLock();
    handle = 0;
    EXPECT_FALSE(OpenIpmiDriver(&handle, kInfinite)) << "the lock is not open";
    EXPECT_EQ(kInvalidHandle, handle);
}

TEST_ON_MACHINE(IpmiLock, LettingOthersInHandsTheLockOver) {
    std::atomic<bool> served{false};
    {
        IpmiBracket walk;
        ASSERT_TRUE(walk);
        std::thread other([&] {
            const IpmiBracket bracket;
            served = true;
        });
        // The waiter shows up sooner or later; from then on the next step between two records serves it.
        for (int step = 0; step < 1000 && !served; ++step) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ASSERT_TRUE(walk.LetOthersIn());
        }
        EXPECT_TRUE(served);
        other.join();
    }
}

TEST_ON_MACHINE(IpmiLock, ATimedWaitEndsInTime) {
    const IpmiBracket holder;
    std::thread([] {
        int handle = kInvalidHandle;
        EXPECT_FALSE(OpenIpmiDriver(&handle, 30));
        EXPECT_FALSE(OpenIpmiDriverPriority(&handle, 30));
        EXPECT_EQ(0, IsIPMIPriorityCtrl());
    }).join();
}

}  // namespace
