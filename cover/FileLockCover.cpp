// The cross-process file lock.

#include "cover/FileLockCover.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "cover/ErrorCover.h"
#include "cover/FileCover.h"
#include "cover/Heap.h"
#include "cover/SignalCover.h"
#include "cover/TimerCover.h"

namespace {

constexpr uint32_t kBusyPauseMs = 1;

/// What the thread has got of a lock, given back at the end of the scope unless kept. A thread may be cancelled while
/// it waits, even when the kernel has just granted the lock, so all of it must go in unwinding.
class Taken {
public:
    explicit Taken(_FLKHANDLE* streamLocked) : handle_(streamLocked) {}
    Taken(const Taken&) = delete;
    Taken& operator=(const Taken&) = delete;
    ~Taken() {
        if (handle_ == nullptr) return;
        const int error = GetRecentErrno();
        UnlockFLock(handle_);
        SetRecentErrno(error);
    }
    void Keep() { handle_ = nullptr; }

private:
    _FLKHANDLE* handle_;
};

int LockForEver(_FLKHANDLE* handle) {
    flockfile(handle->stream);
    Taken taken(handle);
    int result = kLockBusy;
    while ((result = FileLockCntl(handle, kFileLockWrite, 0)) == kLockBusy)
        Sleep(kBusyPauseMs);
    if (result != kLockDone) return 0;
    taken.Keep();
    return 1;
}

int Fail(int error) {
    SetRecentErrno(error);
    return 0;
}

int LockWithin(_FLKHANDLE* handle, uint32_t timeoutMs) {
    TimeLimit limit = {};
    MakeLimitTime(&limit, timeoutMs);
    for (bool first = true;; first = false) {
        if (IsTermWithSignal(timeoutMs) != 0) return Fail(EINTR);
        const int result = TryFLock(handle);
        if (result == kLockDone) {
            Taken taken(handle);
            if (first) Sleep(1);
            taken.Keep();
            return 1;
        }
        if (result == kLockError) return 0;
        if (LimitPassed(limit)) return Fail(ETIMEDOUT);
        IntervalSleep(timeoutMs, 100, 50);
    }
}

}  // namespace

_FLKHANDLE* OpenFLock(const char* path) {
    const OwnedText absolute(_fullpath(nullptr, path, 0));
    if (absolute == nullptr || CreateDirectoryforFile(absolute.get()) == 0) return nullptr;
    std::unique_ptr<_FLKHANDLE> handle(new (std::nothrow) _FLKHANDLE{-1, O_RDWR | O_CREAT, nullptr});
    if (handle == nullptr) {
        SetRecentErrno(ENOMEM);
        return nullptr;
    }
    handle->fd = FileOpen(absolute.get(), handle->flags, 0666);
    if (handle->fd < 0) return nullptr;
    handle->stream = fdopen(handle->fd, "a");
    if (handle->stream == nullptr) {
        const int error = GetRecentErrno();
        close(handle->fd);
        SetRecentErrno(error);
        return nullptr;
    }
    return handle.release();
}

int LockFLock(_FLKHANDLE* handle, uint32_t timeoutMs) {
    if (handle == nullptr || handle->stream == nullptr) return Fail(EINVAL);
    return timeoutMs == kInfinite ? LockForEver(handle) : LockWithin(handle, timeoutMs);
}

int TryFLock(_FLKHANDLE* handle) {
    if (ftrylockfile(handle->stream) != 0) return kLockBusy;
    Taken taken(handle);
    const int result = FileLockCntl(handle, kFileLockWrite, 1);
    if (result == kLockDone) taken.Keep();
    return result;
}

int IsFLockHeld(const _FLKHANDLE* handle) {
    struct flock held = {};
    held.l_type = F_WRLCK;
    held.l_whence = SEEK_SET;
    return LockControl(handle->fd, F_GETLK, &held) == 0 && held.l_type != F_UNLCK ? 1 : 0;
}

int UnlockFLock(_FLKHANDLE* handle) {
    if (handle == nullptr || handle->stream == nullptr) return Fail(EINVAL);
    const int result = FileLockCntl(handle, kFileLockUnlock, 1);
    const int error = GetRecentErrno();
    funlockfile(handle->stream);
    SetRecentErrno(error);
    return result == kLockDone ? 1 : 0;
}

void CloseFLock(_FLKHANDLE* handle) {
    if (handle == nullptr) return;
    if (handle->stream != nullptr) fclose(handle->stream);
    handle->fd = -1;
    delete handle;
}

void AbandonFLock(_FLKHANDLE* handle) {
    if (handle->fd >= 0) close(handle->fd);
    handle->fd = -1;
    handle->stream = nullptr;
}

extern "C" int FcntlThatMayUnwind(int fd, int operation, ...) __asm__("fcntl64");

int LockControl(int fd, int operation, struct flock* lock) {
    return FcntlThatMayUnwind(fd, operation, lock);
}

int FileLockCntl(_FLKHANDLE* handle, int type, int noWait) {
    constexpr short kTypes[] = {F_RDLCK, F_WRLCK, F_UNLCK};
    if (handle == nullptr || type < kFileLockRead || type > kFileLockUnlock) {
        SetRecentErrno(EINVAL);
        return kLockError;
    }
    struct flock whole = {};
    whole.l_type = kTypes[type];
    whole.l_whence = SEEK_SET;
    while (LockControl(handle->fd, noWait != 0 ? F_SETLK : F_SETLKW, &whole) != 0) {
        const int error = GetRecentErrno();
        if (error == EINTR) continue;  // a signal of the host's, not the end of the wait
        // The kernel looks for circles by process: the holder's process waits, in another thread, for a lock of ours.
        if (error == EDEADLK) return kLockBusy;
        if (error != EACCES && error != EAGAIN) return kLockError;
        SetRecentErrno(EAGAIN);
        return kLockBusy;
    }
    return kLockDone;
}
