// Mutexes with time-outs.

#include "cover/MutexCover.h"

#include <cerrno>
#include <memory>
#include <new>

#include "cover/ErrorCover.h"
#include "cover/SignalCover.h"
#include "cover/TimerCover.h"

namespace {

bool Succeeded(int error) {
    if (error != 0) SetRecentErrno(error);
    return error == 0;
}

}  // namespace

MutexHandle InitMutex(int lockedInitially) {
    std::unique_ptr<pthread_mutex_t> mutex(new (std::nothrow) pthread_mutex_t);
    if (mutex == nullptr) {
        SetRecentErrno(ENOMEM);
        return nullptr;
    }
    if (!Succeeded(pthread_mutex_init(mutex.get(), nullptr))) return nullptr;
    if (lockedInitially != 0) pthread_mutex_lock(mutex.get());
    return mutex.release();
}

int DestroyMutex(MutexHandle handle) {
    if (handle == nullptr) return 1;
    if (!Succeeded(pthread_mutex_destroy(handle))) return 0;
    delete handle;
    return 1;
}

int PostMutex(MutexHandle handle) {
    if (handle == nullptr) return 1;
    return Succeeded(pthread_mutex_unlock(handle)) ? 1 : 0;
}

int WaitMutex(MutexHandle handle, uint32_t timeoutMs) {
    if (handle == nullptr) return kLockDone;
    if (timeoutMs == kInfinite) return Succeeded(pthread_mutex_lock(handle)) ? kLockDone : kLockError;

    TimeLimit limit = {};
    MakeLimitTime(&limit, timeoutMs);
    while (true) {
        if (IsTermWithSignal(timeoutMs) != 0) {
            SetRecentErrno(EINTR);
            return kLockError;
        }
        const int error = pthread_mutex_trylock(handle);
        if (error == 0) return kLockDone;
        SetRecentErrno(error);
        if (error != EBUSY) return kLockError;
        if (LimitPassed(limit)) return kLockBusy;
        IntervalSleep(timeoutMs, 100, 50);
    }
}

void ZeroMutexHandle(MutexHandle* handle) {
    if (handle != nullptr) *handle = nullptr;
}

int IsZeroMutexHandle(MutexHandle handle) {
    return handle == nullptr ? 1 : 0;
}
