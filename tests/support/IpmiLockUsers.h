#pragma once
/// @file
/// Threads and processes that use the IPMI lock of one machine root.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

#include "cover/FileLockCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "tests/support/Eventually.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/ScriptedDevice.h"

extern _FLKHANDLE* g_hipmilock;

inline constexpr const char* kTurnstile = "/var/opt/velmora/lantrel/tmp/ipmilock.turn";

/// What all processes of a test see.
template <typename T>
T* MakeShared() {
    return new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T;
}

struct LockUsers {
    std::atomic<int> ready{0};
    std::atomic<int> inside{0};
    std::atomic<int> left{0};
    std::atomic<int> workers{0};  // asked for by the first, then forked
};

/// A device that counts how often it is opened and can refuse.
class CountingDevice : public ScriptedDevice {
public:
    int Open() override {
        if (cancels) CancelSelf();
        return ++opened, refuse;
    }
    void Close() override {
        if (cancels) CancelSelf();
        ++closed;
    }
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

inline void AwaitAtLeast(const std::atomic<int>& count, int n) {
    while (count < n)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // from there into the wait
}

/// Another process that takes the bracket, and says so, until it is killed. It has a worker, which lives on.
inline pid_t StartHolder(const MachineRoot& root, LockUsers& shared) {
    return root.Start([&] {
        CountingDevice device;
        ktx_ipmi::OpenIpmiLock();
        ++shared.ready;
        std::thread([&] {
            AwaitAtLeast(shared.workers, 1);
            if (_Fork() > 0) return;
            ++shared.workers;
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            alarm(5);
            pause();
        }).detach();
        const ktx_ipmi::IpmiBracket bracket;
        ++shared.inside;
        pause();
        return 0;
    });
}

inline void End(pid_t process) {
    kill(process, SIGKILL);
    WaitForExit(process);
}

inline bool CanTake(uint32_t timeoutMs = 2000) {
    int handle = ktx_ipmi::kInvalidHandle;
    const bool taken = ktx_ipmi::OpenIpmiDriver(&handle, timeoutMs);
    if (taken) ktx_ipmi::CloseIpmiDriver(handle);
    return taken;
}

/// Until the kernel has taken the lock from the dead.
inline void AwaitFreeOfOthers() {
    EXPECT_TRUE(Eventually([] { return IsFLockHeld(g_hipmilock) == 0; }));
}

/// With the lock open and a device that counts.
class IpmiLockTest : public testing::Test {
public:
    /// Runs body in a machine root of its own.
    void Run(const std::function<void()>& body) {
        RunInRoot(MakeTestRoot(), [&] {
            ASSERT_TRUE(ktx_ipmi::OpenIpmiLock());
            body();
            ktx_ipmi::CloseIpmiLock();
        });
    }

    CountingDevice device;
};
