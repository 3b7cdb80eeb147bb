#include "cover/FileLockCover.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <thread>

#include "cover/ErrorCover.h"
#include "cover/SignalCover.h"
#include "cover/TimerCover.h"
#include "simulator/MachineRoot.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/RecordingClock.h"
#include "tests/support/TempDirectory.h"

namespace {

struct CloseLock {
    void operator()(_FLKHANDLE* handle) const { CloseFLock(handle); }
};
using Lock = std::unique_ptr<_FLKHANDLE, CloseLock>;

class FileLock : public testing::Test {
protected:
    Lock Open() { return Lock(OpenFLock(directory.Path("tmp/deep/lock").c_str())); }

    /// A process that does something with a handle of its own, then says so and waits to be killed.
    void StartProcess(const std::function<bool(_FLKHANDLE*)>& action) {
        int ready[2];
        ASSERT_EQ(0, pipe(ready));
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no process behind
            const Lock own = Open();
            const char result = own != nullptr && action(own.get()) ? 'y' : 'n';
            if (write(ready[1], &result, 1) != 1) _exit(1);
            while (true)
                pause();
        }
        close(ready[1]);  // the read ends when the child dies before it has said anything
        char result = 0;
        EXPECT_EQ(1, read(ready[0], &result, 1));
        EXPECT_EQ('y', result);
        close(ready[0]);
    }

    void KillProcess() {
        if (child_ <= 0) return;
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        child_ = -1;
    }

    void TearDown() override { KillProcess(); }

    TempDirectory directory;

private:
    pid_t child_ = -1;
};

bool TakeForEver(_FLKHANDLE* handle) {
    return LockFLock(handle, kInfinite) == 1;
}

/// Whether a thread of this process gets the lock at once.
bool IsFree(const Lock& lock) {
    bool free = false;
    std::thread([&] { free = LockFLock(lock.get(), 0) == 1 && UnlockFLock(lock.get()) == 1; }).join();
    return free;
}

/// The calling thread must get the lock at once; a new one, on the stack of a dead one, would get what that one has. A
/// lock that is not free stays open: closing it would wait for ever.
void ExpectFree(Lock& lock) {
    const bool free = LockFLock(lock.get(), 0) == 1 && UnlockFLock(lock.get()) == 1;
    EXPECT_TRUE(free);
    if (!free) static_cast<void>(lock.release());
}

TEST_F(FileLock, FileIsMadeWithItsDirectories) {
    const mode_t before = umask(027);
    EXPECT_NE(nullptr, Open());
    umask(before);
    EXPECT_EQ(std::filesystem::perms{0640}, std::filesystem::status(directory.Path("tmp/deep/lock")).permissions());
    EXPECT_EQ(nullptr, OpenFLock((directory.Path("tmp/deep/lock") + "/below").c_str()));
    EXPECT_EQ(nullptr, OpenFLock(nullptr));
}

TEST_F(FileLock, TimedWaitEndsInTimeWhileAnotherProcessHolds) {
    StartProcess(TakeForEver);
    const Lock lock = Open();
    RecordingClock clock;
    const uint64_t before = clock.now;
    EXPECT_EQ(0, LockFLock(lock.get(), 1000));
    EXPECT_EQ(ETIMEDOUT, GetRecentErrno());
    EXPECT_EQ(before + 1'000'000, clock.now);
    EXPECT_EQ(std::vector<uint32_t>(50, 20), clock.pauses);
    EXPECT_EQ(kLockBusy, FileLockCntl(lock.get(), kFileLockRead, 1));
    EXPECT_EQ(EAGAIN, GetRecentErrno());

    KillProcess();
    EXPECT_TRUE(IsFree(lock)) << "the stream's lock was given back with each failed try, the dead hold nothing";
}

TEST_F(FileLock, EndlessWaitGetsItWhenTheHolderIsKilled) {
    StartProcess(TakeForEver);
    const Lock lock = Open();
    std::atomic<bool> taken = false;
    std::thread waiter([&] {
        taken = TakeForEver(lock.get());
        EXPECT_EQ(1, UnlockFLock(lock.get()));
    });
    Sleep(5);
    EXPECT_FALSE(taken);
    KillProcess();
    waiter.join();
    EXPECT_TRUE(taken);
}

TEST_F(FileLock, EndlessWaitGoesOnThroughWhatLooksLikeACircle) {
    const int fd = open(directory.Path("hosts").c_str(), O_RDWR | O_CREAT, 0600);
    struct flock hosts = {};
    hosts.l_type = F_WRLCK;
    ASSERT_EQ(0, fcntl(fd, F_SETLK, &hosts));
    StartProcess([&](_FLKHANDLE* own) {
        std::atomic<bool> held = false;
        std::thread([own, &held] {
            held = TakeForEver(own);
            Sleep(100);
            UnlockFLock(own);
        }).detach();
        while (!held)
            Sleep(1);
        std::thread([fd, wanted = hosts]() mutable { fcntl(fd, F_SETLKW, &wanted); }).detach();
        return true;
    });
    Sleep(20);
    const Lock lock = Open();
    EXPECT_TRUE(TakeForEver(lock.get()));
    close(fd);
}

TEST_F(FileLock, ExcludesThreadsAndIsHeldAgainstProcessesUntilUnlocked) {
    const Lock lock = Open();
    RecordingClock clock;
    EXPECT_EQ(1, LockFLock(lock.get(), 1000));
    EXPECT_EQ(std::vector<uint32_t>{1}, clock.pauses) << "taken at the first try";
    EXPECT_FALSE(IsFree(lock));
    StartProcess([](_FLKHANDLE* own) { return FileLockCntl(own, kFileLockWrite, 1) == kLockBusy; });
    KillProcess();
    EXPECT_EQ(1, UnlockFLock(lock.get()));
    EXPECT_TRUE(IsFree(lock));
    StartProcess([](_FLKHANDLE* own) { return LockFLock(own, 0) == 1; });
}

TEST_F(FileLock, CancelledWaiterLeavesNothingLocked) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer trips over its own marks on the stack when a cancelled thread unwinds";
#endif
    StartProcess(TakeForEver);
    Lock lock = Open();
    bool taken = false;
    std::thread waiter([&] { taken = LockFLock(lock.get(), kInfinite) == 1; });
    pthread_cancel(waiter.native_handle());
    waiter.join();
    EXPECT_FALSE(taken);
    KillProcess();
    ExpectFree(lock);
    EXPECT_FALSE(FinishesWhenCancelled([&] { LockFLock(lock.get(), 1000); })) << "pauses after a first try";
    ExpectFree(lock);
}

TEST_F(FileLock, PendingSignalEndsALongWait) {
    const pid_t child = fork();
    if (child == 0) {
        const Lock lock = Open();
        sigset_t host;
        sigemptyset(&host);
        sigaddset(&host, SIGWINCH);
        pthread_sigmask(SIG_BLOCK, &host, nullptr);
        const bool leftToTheHost = raise(SIGWINCH) == 0 && IsTermWithSignal(5000) == 0;
        const bool begun = InitSignal() == 1 && raise(SIGTERM) == 0 && raise(SIGUSR1) == 0;
        const bool hostsOwn =
            IsTermWithSignal(5000) == SIGTERM && IsTermWithSignal(5000) == SIGWINCH && raise(SIGTERM) == 0;
        const bool shortGoesOn = LockFLock(lock.get(), 4999) == 1 && UnlockFLock(lock.get()) == 1;
        const bool longEnds = LockFLock(lock.get(), 5000) == 0 && GetRecentErrno() == EINTR;
        const bool taken = LockFLock(lock.get(), 5000) == 1;
        _exit(leftToTheHost && begun && hostsOwn && shortGoesOn && longEnds && taken ? 0 : 1);
    }
    EXPECT_EQ(0, WaitForExit(child));
}

TEST_F(FileLock, RefusesWhatIsNoLock) {
    const Lock lock = Open();
    for (const int type : {-1, 3}) {
        SetRecentErrno(0);
        EXPECT_EQ(kLockError, FileLockCntl(lock.get(), type, 1));
        EXPECT_EQ(EINVAL, GetRecentErrno());
    }
    EXPECT_EQ(0, LockFLock(nullptr, kInfinite));
    EXPECT_EQ(0, UnlockFLock(nullptr));
}

}  // namespace
