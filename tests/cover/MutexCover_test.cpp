#include "cover/MutexCover.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "cover/ErrorCover.h"
#include "cover/SignalCover.h"
#include "cover/TimerCover.h"
#include "simulator/MachineRoot.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/RecordingClock.h"

namespace {

TEST(MutexCover, TimedWaitEndsInTime) {
    const MutexHandle mutex = InitMutex(1);
    RecordingClock clock;
    int result = kLockDone;
    std::thread other([&] { result = WaitMutex(mutex, 250); });
    other.join();
    EXPECT_EQ(kLockBusy, result);
    EXPECT_EQ(std::vector<uint32_t>(50, 5), clock.pauses);

    EXPECT_EQ(0, DestroyMutex(mutex)) << "still held";
    EXPECT_EQ(EBUSY, GetRecentErrno());
    EXPECT_EQ(1, PostMutex(mutex));
    EXPECT_EQ(kLockDone, WaitMutex(mutex, 0));
    EXPECT_EQ(50U, clock.pauses.size()) << "a free mutex costs no pause";
    EXPECT_EQ(1, PostMutex(mutex));
    EXPECT_EQ(1, DestroyMutex(mutex));
}

TEST(MutexCover, EndlessWaitGetsItFromItsHolder) {
    const MutexHandle mutex = InitMutex(0);
    ASSERT_EQ(kLockDone, WaitMutex(mutex, kInfinite));
    bool released = false;
    std::thread waiter([&] {
        EXPECT_EQ(kLockDone, WaitMutex(mutex, kInfinite));
        EXPECT_TRUE(released);
        PostMutex(mutex);
    });
    Sleep(1);
    released = true;
    PostMutex(mutex);
    waiter.join();
    DestroyMutex(mutex);
}

TEST(MutexCover, PendingSignalEndsALongWait) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(100);
        const MutexHandle mutex = InitMutex(1);
        bool good = InitSignal() == 1 && alarm(0) == 0;
        for (const int ignored : {SIGUSR1, SIGUSR2, SIGPIPE})
            raise(ignored);
        for (const int end : {SIGTERM, SIGQUIT, SIGINT}) {
            raise(end);
            good = good && WaitMutex(mutex, 5000) == kLockError && GetRecentErrno() == EINTR;
        }
        _exit(good ? 0 : 1);
    }
    EXPECT_EQ(0, WaitForExit(child));
}

TEST(MutexCover, NullHandleIsNoMutex) {
    MutexHandle mutex = InitMutex(0);
    EXPECT_EQ(0, IsZeroMutexHandle(mutex));
    EXPECT_EQ(1, DestroyMutex(mutex));
    ZeroMutexHandle(&mutex);
    EXPECT_EQ(1, IsZeroMutexHandle(mutex));
    EXPECT_EQ(kLockDone, WaitMutex(mutex, kInfinite));
    EXPECT_EQ(1, PostMutex(mutex));
    EXPECT_EQ(1, DestroyMutex(mutex));
}

}  // namespace
