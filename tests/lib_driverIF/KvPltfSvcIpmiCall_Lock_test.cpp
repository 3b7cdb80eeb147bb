#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "cover/SignalCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "simulator/SimulatedServer.h"
#include "simulator/VirtualClock.h"
#include "tests/support/IpmiLockUsers.h"

namespace {

using namespace ktx_ipmi;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

using IpmiLock = IpmiLockTest;

void ExpectFreeForOthers() {
    std::thread([] { EXPECT_TRUE(CanTake()) << "another thread of this process"; }).join();
}

/// A thread of this process that is in the bracket.
class Holder {
public:
    Holder() {
        EXPECT_TRUE(Eventually([&] { return inside_.load(); }));
    }
    ~Holder() { leave_ = true; }

private:
    std::atomic<bool> inside_{false};
    std::atomic<bool> leave_{false};
    std::jthread thread_{[this] {
        const IpmiBracket bracket;
        for (inside_ = true; !leave_;)
            std::this_thread::sleep_for(1ms);
    }};
};

TEST_F(IpmiLock, FilesAreThisUsersAlone) {
    using std::filesystem::perms;
    const MachineRoot root = MakeTestRoot();
    const auto permissions = [&](const char* path) {
        return std::filesystem::status(root.Outside(path)).permissions();
    };
    const auto open = [] { EXPECT_TRUE(OpenIpmiLock()); };
    std::filesystem::remove_all(root.Outside("/var/opt/velmora"));
    RunInRoot(root, open);
    EXPECT_EQ(perms{0700}, permissions("/var/opt/velmora/lantrel/tmp"));
    EXPECT_EQ(perms{0600}, permissions(kTurnstile));
    root.AddFile(kTurnstile, "", 0644);
    RunInRoot(root, open);
    EXPECT_EQ(perms{0600}, permissions(kTurnstile)) << "of an earlier version";
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
        CloseIpmiDriverPriority(priority + 1);
        std::thread([] { EXPECT_FALSE(CanTake(0)) << "that was not the lock's handle"; }).join();
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

TEST_F(IpmiLock, ATimedWaitEndsInTime) {
    const MachineRoot root = MakeTestRoot();
    for (const bool ofAnotherProcess : {false, true}) {
        auto* shared = MakeShared<LockUsers>();
        const pid_t other = ofAnotherProcess ? StartHolder(root, *shared) : 0;
        if (ofAnotherProcess) AwaitAtLeast(shared->inside, 1);
        RunInRoot(root, [&] {
            ASSERT_TRUE(OpenIpmiLock());
            const sim::ScopedVirtualClock clock;
            const std::optional<IpmiBracket> own =
                ofAnotherProcess ? std::nullopt : std::optional<IpmiBracket>(std::in_place);
            std::thread([&] {
                for (const uint32_t timeoutMs : {0U, 30U, 5000U}) {
                    SCOPED_TRACE(timeoutMs);
                    const uint64_t before = Clock().Now();
                    int handle = kInvalidHandle;
                    EXPECT_FALSE(OpenIpmiDriver(&handle, timeoutMs));
                    EXPECT_EQ(g_hipmilock->fd, handle);
                    EXPECT_FALSE(OpenIpmiDriverPriority(&handle, timeoutMs));
                    EXPECT_EQ(kInvalidHandle, handle);
                    EXPECT_EQ(0, IsIPMIPriorityCtrl());
                    EXPECT_EQ(2000 * timeoutMs, Clock().Now() - before);
                }
                const uint64_t before = Clock().Now();
                EXPECT_TRUE(InitSignal() == 1 && pthread_kill(pthread_self(), SIGTERM) == 0);
                EXPECT_FALSE(CanTake(5000));
                EXPECT_EQ(before, Clock().Now()) << "a termination signal is pending";
            }).join();
        });
        if (ofAnotherProcess) End(other);
    }
}

/// Others may use the same kind of lock: a thread that waits for the bracket must not be taken for a part of a circle,
/// neither by its own call nor by the host's.
TEST_ON_MACHINE(IpmiLock, AHostsOwnLocksAndTheBracketDoNotMeet) {
    const int fd = open("/hosts", O_RDWR | O_CREAT, 0600);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(0, fcntl(fd, F_SETLK, &whole));
    auto* shared = MakeShared<LockUsers>();
    const pid_t other = fork();
    if (other == 0) {
        std::thread holder([&] {
            const IpmiBracket bracket;
            ++shared->inside;
            AwaitAtLeast(shared->ready, 1);
            std::this_thread::sleep_for(50ms);
        });
        AwaitAtLeast(shared->ready, 1);
        const bool locked = fcntl(fd, F_SETLKW, &whole) == 0;
        holder.join();
        _exit(locked ? 0 : 1);
    }
    AwaitAtLeast(shared->inside, 1);
    std::thread before([] { EXPECT_TRUE(IpmiBracket()); });
    std::this_thread::sleep_for(20ms);
    ++shared->ready;
    std::this_thread::sleep_for(50ms);  // the other process waits for the host's lock
    EXPECT_TRUE(IpmiBracket());
    before.join();
    whole.l_type = F_UNLCK;
    fcntl(fd, F_SETLK, &whole);
    EXPECT_EQ(0, WaitForExit(other));
}

TEST_ON_MACHINE(IpmiLock, AForkedChildBeginsAnew) {
    const auto startChild = [&](uint32_t timeoutMs, bool taken) {
        const pid_t pid = fork();
        if (pid > 0) return pid;
        const int closed = device.closed;
        bool good = IsIpmiLibStarted();
        std::thread([&] { good = good && CanTake(timeoutMs) == taken; }).join();
        // The parent's device, its own, and its own once more.
        if (taken) good = good && device.closed == closed + 2 && CanTake(0) && device.closed == closed + 3;
        CloseIpmiLock();
        _exit(good ? 0 : 1);
    };
    pid_t child = -1;
    {
        const IpmiBracket ofThisThread;
        EXPECT_EQ(0, WaitForExit(startChild(0, false)));
        EXPECT_EQ(0, WaitForExit(startChild(0, false))) << "the first one ended, and took nothing with it";
        child = startChild(5000, true);
    }
    EXPECT_EQ(0, WaitForExit(child));
    std::thread waiter;
    {
        const Holder other;
        waiter = std::thread([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(30ms);
        child = startChild(5000, true);
    }
    EXPECT_EQ(0, WaitForExit(child));
    waiter.join();
}

TEST_ON_MACHINE(IpmiLock, ClosingEndsTheWaitsAndTheLastHolderCloses) {
    const sim::ScopedVirtualClock clock;
    std::thread waiter;
    {
        const Holder other;
        waiter = std::thread([] { EXPECT_FALSE(IpmiBracket()); });
        std::this_thread::sleep_for(30ms);
        const uint64_t before = Clock().Now();
        CloseIpmiLock();
        EXPECT_EQ(before + 1'000'000, Clock().Now());
        waiter.join();
        EXPECT_FALSE(IsIpmiLibStarted());
        EXPECT_FALSE(CanTake());
        EXPECT_NE(nullptr, g_hipmilock);
    }
    EXPECT_EQ(nullptr, g_hipmilock);
    ASSERT_TRUE(OpenIpmiLock());
    ExpectFreeForOthers();
    {
        const IpmiBracket own;
        const uint64_t before = Clock().Now();
        CloseIpmiLock();
        EXPECT_EQ(before, Clock().Now()) << "nobody else to wait for";
        EXPECT_NE(nullptr, g_hipmilock);
    }
    EXPECT_EQ(nullptr, g_hipmilock);
}

TEST(IpmiLayer, EndsBesidePollingThreads) {
    RunInRoot(MakeTestRoot(), [] {
        sim::SimulatedServer server;
        KvSetDeviceOps(server.Ops());
        for (int round = 0; round < 13; ++round) {
            SCOPED_TRACE(round);
            server.GetBmc().Delay(sim::netfn::kApp, 1, round < 12 ? 3ms : 6s, 1'000'000);  // the last one is silent
            ASSERT_TRUE(InitIpmiLib());
            std::atomic<int> steps{0};
            std::vector<std::jthread> threads(3);
            for (std::jthread& thread : threads) {
                thread = std::jthread([&] {
                    DeviceId id;
                    for (IpmiBracket bracket; bracket && ++steps != 0;) {
                        if (GetDeviceId(bracket.Handle(), 0x20, &id) != 0 || !bracket.LetOthersIn()) return;
                    }
                });
            }
            EXPECT_TRUE(Eventually([&] { return steps >= (round < 12 ? 3 + round : 1); }));
            const auto start = steady_clock::now();
            TerminateIpmiLib();
            EXPECT_GT(2s, steady_clock::now() - start);
            threads.clear();
            EXPECT_EQ(nullptr, g_hipmilock);
        }
        KvSetDeviceOps(nullptr);
    });
}

}  // namespace
