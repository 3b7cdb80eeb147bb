#pragma once
/// @file
/// Mutexes with time-outs, on the heap and named by a handle. A null handle is no mutex: there is nothing to wait for,
/// to unlock or to free.

#include <pthread.h>

#include <cstdint>

using MutexHandle = pthread_mutex_t*;

/// What WaitMutex and FileLockCntl come back with.
enum LockResult : int {
    kLockDone = 0,
    kLockError = 2,
    kLockBusy = 3,  ///< held elsewhere; from WaitMutex: until the time-out
};

/// @param lockedInitially  1: the calling thread holds it from the start
/// @return freed with DestroyMutex; null when memory runs out
MutexHandle InitMutex(int lockedInitially);
/// Frees a mutex that nobody holds. @return 1; 0 it is still held (it stays as it is)
int DestroyMutex(MutexHandle handle);
/// Unlocks. @return 1; 0 on failure
int PostMutex(MutexHandle handle);
/// Locks within a time-out.
/// @param timeoutMs  kInfinite: waits for ever. A finite wait tries every fiftieth of the time-out, at least every
///                   100 ms, and ends when a termination signal is pending.
/// @return kLockDone; kLockBusy timed out; kLockError, also for a signal (recent error EINTR)
int WaitMutex(MutexHandle handle, uint32_t timeoutMs);
void ZeroMutexHandle(MutexHandle* handle);
/// @return 1 for the null handle, else 0
int IsZeroMutexHandle(MutexHandle handle);
