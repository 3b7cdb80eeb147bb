#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

void Conversation(Shared& shared, int microseconds) {
    if (++shared.inside != 1) ++shared.overlaps;
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    --shared.inside;
    ++shared.conversations;
}

void Contend(Shared& shared, int rounds, int microseconds) {
    for (int round = 0; round < rounds; ++round) {
        const int before = shared.conversations;
        const IpmiBracket bracket;
        ASSERT_TRUE(bracket);
        const int waited = shared.conversations - before;
        int longest = shared.longestWait;
        while (waited > longest && !shared.longestWait.compare_exchange_weak(longest, waited)) {
        }
        Conversation(shared, microseconds);
    }
}

/// Runs threads in processes inside one machine root. @return what they shared
void RunContenders(Shared& shared, int processes, int threads, int rounds, int microseconds) {
    const MachineRoot root = MakeTestRoot();
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(root.Start([&] {
            CountingTransport device;
            EXPECT_TRUE(OpenIpmiLock());
            for (++shared.ready; shared.ready < processes;)
                std::this_thread::yield();
            std::vector<std::thread> contenders;
            for (int t = 0; t < threads; ++t)
                contenders.emplace_back(Contend, std::ref(shared), rounds, microseconds);
            for (std::thread& contender : contenders)
                contender.join();
            CloseIpmiLock();
            return testing::Test::HasFailure() ? 1 : 0;
        }));
    }
    for (const pid_t child : children)
        EXPECT_EQ(0, WaitForExit(child));
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

/// Runs body in a machine root of its own, with the lock open.
void WithLock(const std::function<void(CountingTransport&)>& body) {
    RunInRoot(MakeTestRoot(), [&] {
        CountingTransport device;
        ASSERT_TRUE(OpenIpmiLock());
        body(device);
        CloseIpmiLock();
    });
}

TEST(IpmiLock, NeverLetsTwoConversationsOverlap) {
    Shared* shared = MakeShared();
    RunContenders(*shared, 4, 4, 200, 0);
    EXPECT_EQ(0, shared->overlaps);
    EXPECT_EQ(4 * 4 * 200, shared->conversations);
}

TEST(IpmiLock, NobodyStarves) {
    Shared* shared = MakeShared();
    RunContenders(*shared, 4, 4, 40, 1000);
    EXPECT_EQ(0, shared->overlaps);
    // Each of the 16 at most once before any other; a few more, for who was about to be asleep when his turn came.
    EXPECT_LE(shared->longestWait, 16 + 8);
}

TEST(IpmiLock, AnUncontendedBracketPaysNoPause) {
    WithLock([](CountingTransport& /*device*/) {
        const auto start = steady_clock::now();
        for (int i = 0; i < 100; ++i)
            EXPECT_TRUE(IpmiBracket());
        EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(100));
    });
}

TEST(IpmiLock, AFullDiskCostsAPauseNotTheLock) {
    WithLock([](CountingTransport& /*device*/) {
        sim::ScopedVirtualClock clock;
        {
            const FullDisk full;
            EXPECT_TRUE(IpmiBracket());
            EXPECT_EQ(100'000U, clock.Slept()) << "time for others to come in";
        }
        EXPECT_TRUE(IpmiBracket());
        EXPECT_EQ(100'000U, clock.Slept()) << "they stand in line again";
    });
}

TEST(IpmiLock, AKilledHolderLeavesNobodyLocked) {
    const MachineRoot root = MakeTestRoot();
    Shared* shared = MakeShared();
    const pid_t holder = StartHolder(root, *shared);
    AwaitAtLeast(shared->inside, 1);
    const pid_t waiter = root.Start([] {
        CountingTransport device;
        OpenIpmiLock();
        return IpmiBracket() ? 0 : 1;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(0, waitpid(waiter, nullptr, WNOHANG)) << "waits for the holder";
    kill(holder, SIGKILL);
    EXPECT_EQ(0, WaitForExit(waiter));
    WaitForExit(holder);
}

TEST(IpmiLock, ACancelledThreadLeavesTheLineAsIfItHadNeverCome) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer does not see a cancelled thread leave its frames";
#endif
    const MachineRoot root = MakeTestRoot();
    Shared* shared = MakeShared();
    const pid_t holder = StartHolder(root, *shared);
    AwaitAtLeast(shared->inside, 1);
    const pid_t waiter = StartHolder(root, *shared);
    AwaitAtLeast(shared->ready, 2);
    RunInRoot(root, [&] {
        CountingTransport device;
        ASSERT_TRUE(OpenIpmiLock());
        std::thread inLine([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::thread behindIt([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        for (std::thread* cancelled : {&behindIt, &inLine}) {
            pthread_cancel(cancelled->native_handle());
            cancelled->join();
        }
        kill(holder, SIGKILL);
        AwaitAtLeast(shared->inside, 2);  // the waiter is served
        kill(waiter, SIGKILL);
        const auto takes = [] {
            int handle = kInvalidHandle;
            const bool taken = OpenIpmiDriver(&handle, 2000);
            if (taken) CloseIpmiDriver(handle);
            return taken;
        };
        std::thread([&] { EXPECT_TRUE(takes()) << "a thread of the same process"; }).join();
        const pid_t other = fork();
        if (other == 0) {
            CloseIpmiLock();
            _exit(OpenIpmiLock() && takes() ? 0 : 1);
        }
        EXPECT_EQ(0, WaitForExit(other)) << "another process";
        CloseIpmiLock();
    });
    WaitForExit(holder);
    WaitForExit(waiter);
}

TEST(IpmiLock, ACancelledThreadGivesBackWhatItHolds) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer does not see a cancelled thread leave its frames";
#endif
    WithLock([](CountingTransport& device) {
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
        std::thread([] {
            int handle = kInvalidHandle;
            EXPECT_TRUE(OpenIpmiDriver(&handle, 2000));
            CloseIpmiDriver(handle);
        }).join();
    });
}

TEST(IpmiLock, BracketsNestAndOnlyTheOutermostOpens) {
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [] {
        CountingTransport device;
        int handle = 0;
        EXPECT_FALSE(OpenIpmiDriver(&handle, kInfinite)) << "not started";
        EXPECT_EQ(kInvalidHandle, handle);
        ASSERT_TRUE(OpenIpmiLock());
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
        CloseIpmiLock();
    });
}

TEST(IpmiLock, ADeviceThatWillNotOpenLeavesNothingHeld) {
    WithLock([](CountingTransport& device) {
        device.refuse = -1;
        int handle = 0;
        EXPECT_FALSE(OpenIpmiDriver(&handle, kInfinite));
        EXPECT_EQ(kInvalidHandle, handle);
        EXPECT_EQ(3, device.opened);
        device.refuse = 0;
        std::thread([] { EXPECT_TRUE(IpmiBracket()) << "the lock is free for others"; }).join();
    });
}

TEST(IpmiLock, LettingOthersInHandsTheLockOver) {
    WithLock([](CountingTransport& /*device*/) {
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
    });
}

TEST(IpmiLock, ATimedWaitEndsInTime) {
    WithLock([](CountingTransport& /*device*/) {
        const IpmiBracket holder;
        std::thread([] {
            int handle = kInvalidHandle;
            EXPECT_FALSE(OpenIpmiDriver(&handle, 30));
            EXPECT_FALSE(OpenIpmiDriverPriority(&handle, 30));
            EXPECT_EQ(0, IsIPMIPriorityCtrl());
        }).join();
    });
}

}  // namespace
