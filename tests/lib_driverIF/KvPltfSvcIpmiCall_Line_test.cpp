#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "cover/FileLockCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Line.h"
#include "simulator/VirtualClock.h"
#include "tests/support/IpmiLockUsers.h"
#include "tests/support/RecordingClock.h"

namespace {

using namespace ktx_ipmi;
using namespace std::chrono_literals;

using IpmiLine = IpmiLockTest;

/// Runs body in a process that lives on until it is killed. @return its id, once body has come to its end
pid_t RunAndStay(const std::function<void()>& body) {
    auto* done = MakeShared<std::atomic<bool>>();
    const pid_t child = fork();
    if (child == 0) {
        body();
        *done = true;
        pause();
    }
    EXPECT_TRUE(Eventually([&] { return done->load(); }));
    return child;
}

/// Locks all of the turnstile, as whoever may read it can.
void LockTurnstile() {
    struct flock whole {};
    whole.l_type = F_RDLCK;
    EXPECT_EQ(0, fcntl(open(kTurnstile, O_RDONLY), F_SETLK, &whole));
}

TEST_F(IpmiLine, WithoutALineALockCostsAPause) {
    const char* const kinds[] = {"directory", "link", "link to nothing", "read lock"};
    for (const std::string_view kind : kinds) {
        SCOPED_TRACE(kind);
        const MachineRoot root = MakeTestRoot();
        if (kind == "directory") root.AddDirectory(kTurnstile);
        if (kind == "link") root.AddFile("/victim", "");
        if (kind.starts_with("link")) std::filesystem::create_symlink("/victim", root.Outside(kTurnstile));
        RunInRoot(root, [&] {
            ASSERT_TRUE(OpenIpmiLock());
            const pid_t reader = kind == "read lock" ? RunAndStay(LockTurnstile) : 0;
            sim::ScopedVirtualClock clock;
            {
                IpmiBracket walk;
                EXPECT_TRUE(walk.LetOthersIn());
                EXPECT_EQ(100'000U, clock.Slept()) << "time for others to come in";
            }
            if (reader == 0) return;
            End(reader);
            for (int i = 0; i < 100; ++i)
                EXPECT_TRUE(IpmiBracket());
            EXPECT_EQ(200'000U, clock.Slept()) << "there is a line again";
        });
        EXPECT_EQ(kind == "link", std::filesystem::exists(root.Outside("/victim")));
    }
}

TEST_F(IpmiLine, ANewcomerStandsBehindEverybodyWhateverHisClockSays) {
    RunInRoot(MakeTestRoot(), [] {
        RecordingClock clock;
        const std::unique_ptr<_FLKHANDLE, void (*)(_FLKHANDLE*)> lock(OpenFLock(kTurnstile), CloseFLock);
        Line line;
        line.Open("/line");
        const off_t first = line.Stand();
        const off_t second = line.Stand();
        EXPECT_LT(first, second);
        const auto isServed = [&] {
            const pid_t child = fork();
            if (child != 0) return WaitForExit(child) == 0;
            clock.now /= 2;
            Line other;
            other.Open("/line");
            _exit(other.AwaitTurn(other.Stand(), lock.get(), LockWait(0)) ? 0 : 1);
        };
        EXPECT_FALSE(isServed());
        line.Leave(first);
        EXPECT_FALSE(isServed());
        line.Leave(second);
        line.Leave(Line::kNoPlace);
        EXPECT_TRUE(isServed());
    });
}

TEST_F(IpmiLine, WhoDoesNotMoveIsPassedOverSoonerTheNextTime) {
    RunInRoot(MakeTestRoot(), [] {
        RecordingClock clock;
        const std::unique_ptr<_FLKHANDLE, void (*)(_FLKHANDLE*)> lock(OpenFLock(kTurnstile), CloseFLock);
        Line line;
        line.Open("/line");
        for (const std::vector<uint64_t>& waits : {std::vector<uint64_t>{1000, 30, 0}, {1000, 30, 0}}) {
            const pid_t stuck = RunAndStay([&] { line.Stand(); });
            for (const uint64_t wait : waits) {
                if (wait == 0) End(stuck);
                const uint64_t before = clock.now;
                const off_t place = line.Stand();
                EXPECT_TRUE(line.AwaitTurn(place, lock.get(), LockWait(kInfinite)));
                line.Leave(place);
                const uint64_t waited = (clock.now - before) / 1000;
                EXPECT_LE(wait, waited);
                EXPECT_GE(wait + 9, waited);
            }
        }
        const pid_t holder = RunAndStay([&] { EXPECT_EQ(1, LockFLock(lock.get(), kInfinite)); });
        const pid_t waiter = RunAndStay([&] { line.Stand(); });
        EXPECT_FALSE(line.AwaitTurn(line.Stand(), lock.get(), LockWait(60'000))) << "there is nothing to pass him for";
        End(holder);
        End(waiter);
    });
}

TEST_F(IpmiLine, WhoIsStoppedKilledOrCancelledInLineHoldsUpNobody) {
    const MachineRoot root = MakeTestRoot();
    auto* shared = MakeShared<LockUsers>();
    const pid_t holder = StartHolder(root, *shared);
    AwaitAtLeast(shared->inside, 1);
    const pid_t waiter = StartHolder(root, *shared);
    AwaitAtLeast(shared->ready, 2);
    RunInRoot(root, [&] {
        ASSERT_TRUE(OpenIpmiLock());
#ifndef __SANITIZE_ADDRESS__  // which does not see a cancelled thread leave its frames
        std::thread inLine([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(30ms);
        std::thread behindIt([] { const IpmiBracket bracket; });
        std::this_thread::sleep_for(30ms);
        for (std::thread* cancelled : {&behindIt, &inLine}) {
            pthread_cancel(cancelled->native_handle());
            cancelled->join();
        }
#endif
        EXPECT_EQ(1, shared->inside) << "the waiter waits for the holder";
        shared->workers = 1;
        AwaitAtLeast(shared->workers, 3);
        kill(waiter, SIGSTOP);
        kill(holder, SIGKILL);
        AwaitFreeOfOthers();
        {
            const sim::ScopedVirtualClock clock;
            EXPECT_TRUE(CanTake()) << "the stopped one is passed over";
        }
        kill(waiter, SIGCONT);
        AwaitAtLeast(shared->inside, 2);  // it is served
        kill(waiter, SIGKILL);
        AwaitFreeOfOthers();
        EXPECT_TRUE(CanTake(0)) << "its worker lives on";
        CloseIpmiLock();
    });
    WaitForExit(holder);
    WaitForExit(waiter);
}

TEST_F(IpmiLine, LettingOthersInHandsTheLockOver) {
    for (const bool ofAnotherProcess : {false, true}) {
        SCOPED_TRACE(ofAnotherProcess);
        const MachineRoot root = MakeTestRoot();
        auto* shared = MakeShared<LockUsers>();
        const auto comeAndGo = [&] {
            const IpmiBracket bracket;
            ++shared->left;
        };
        const pid_t other = !ofAnotherProcess ? 0 : root.Start([&] {
            AwaitAtLeast(shared->inside, 1);
            EXPECT_TRUE(OpenIpmiLock());
            comeAndGo();
            return 0;
        });
        RunInRoot(root, [&] {
            ASSERT_TRUE(OpenIpmiLock());
            IpmiBracket walk;
            ASSERT_TRUE(walk);
            ++shared->inside;
            std::thread thread;
            if (!ofAnotherProcess) thread = std::thread(comeAndGo);
            // The waiter shows up sooner or later; from then on the next step between two records serves it.
            EXPECT_TRUE(Eventually([&] { return walk.LetOthersIn() && shared->left == 1; }));
            if (!ofAnotherProcess) thread.join();
        });
        EXPECT_EQ(0, ofAnotherProcess ? WaitForExit(other) : 0);
    }
}

}  // namespace
