#pragma once
/// @file
/// A lock among the threads of this process and among processes: the lock of a stream, and inside it a record lock on
/// the whole file below the stream. The order is always stream, then file, and the reverse on release.
///
/// The record lock is the process's: it goes when any descriptor of the file is closed, so a process opens a lock file
/// once. A process that dies leaves nothing locked. The stream's lock counts for the thread that holds it, the
/// record lock does not: nested brackets must lock and unlock in their outermost level alone.

#include <fcntl.h>

#include <cstdint>
#include <cstdio>

#include "cover/MutexCover.h"

struct _FLKHANDLE {
    int fd;  ///< -1 when closed
    int flags;
    FILE* stream;
};

/// What kind of record lock FileLockCntl sets.
enum FileLockType : int { kFileLockRead = 0, kFileLockWrite = 1, kFileLockUnlock = 2 };

/// Opens a lock file, made with its directories when missing (mode 0666 as masked by the process).
/// @return closed with CloseFLock; null on failure
_FLKHANDLE* OpenFLock(const char* path);

/// Locks within a time-out.
/// @param timeoutMs  kInfinite: waits for ever. A finite wait tries every fiftieth of the time-out, at least every
///                   100 ms, and ends when a termination signal is pending.
/// @return 1; 0 on failure, with the recent error ETIMEDOUT when the time is over, EINTR for a signal
int LockFLock(_FLKHANDLE* handle, uint32_t timeoutMs);

/// Locks if that can be had at once. @return a LockResult
int TryFLock(_FLKHANDLE* handle);

/// Whether another process holds the record lock. @return 1; 0 it does not, or nobody can tell
int IsFLockHeld(const _FLKHANDLE* handle);

/// Unlocks; called by the thread that locked. @return 1; 0 when the record lock could not be released
int UnlockFLock(_FLKHANDLE* handle);

/// Closes and frees; null is allowed.
void CloseFLock(_FLKHANDLE* handle);

/// In a forked child: gives up a lock file of the parent's, whose lock is not the child's. The stream stays behind: its
/// lock may be held by a thread that does not exist here. Async-signal-safe; CloseFLock frees the rest.
void AbandonFLock(_FLKHANDLE* handle);

/// fcntl for record locks, in which a thread may be cancelled while it waits. The C library declares fcntl as a
/// function that nothing is thrown through: an optimising compiler then leaves a cancelled thread no way out of the
/// callers.
int LockControl(int fd, int operation, struct flock* lock);

/// Sets or releases the record lock alone.
/// @param noWait  1: does not wait for another process
/// @return a LockResult; kLockBusy from a wait: the kernel takes it for a circle of waits (EDEADLK), try again
int FileLockCntl(_FLKHANDLE* handle, int type, int noWait);
