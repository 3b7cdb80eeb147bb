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

/// Unlocks; called by the thread that locked. @return 1; 0 when the record lock could not be released
int UnlockFLock(_FLKHANDLE* handle);

/// Closes and frees; null is allowed.
void CloseFLock(_FLKHANDLE* handle);

/// fcntl for record locks, in which a thread may be cancelled while it waits. The C library declares fcntl as a
/// function that nothing is thrown through: an optimising compiler then leaves a cancelled thread no way out of the
/// callers.
int LockControl(int fd, int operation, struct flock* lock);

/// Sets or releases the record lock alone.
/// @param noWait  1: does not wait for another process
/// @return a LockResult
int FileLockCntl(_FLKHANDLE* handle, int type, int noWait);
