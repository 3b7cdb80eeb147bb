#include "libplatform/PXR_proc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/PXR_proc_internal.h"
#include "common/PXR_thread_internal.h"
#include "libplatform/PXR_trace.h"

namespace {

// Each round loses against another instance that ended between our open and our lock.
constexpr int kLockRounds = 100;

/// Locks the whole file for this open file: a second open of it conflicts, in this process as well, and the lock goes
/// with the descriptor into the child of PXR_daemon.
bool LockWholeFile(int fd) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_SETLK, &range) == 0;
}

/// Is the open file still the one that the path names?
bool IsFileOf(const char* path, int fd) {
    struct stat open {};
    struct stat named {};
    return fstat(fd, &open) == 0 && lstat(path, &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

int OpenLocked(const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return -1;
    fsync(fd);
    if (LockWholeFile(fd)) return fd;
    close(fd);
    return -1;
}

}  // namespace

extern "C" int PXR_daemon(void) {
    std::fflush(stdout);  // what is buffered belongs to the terminal, not to the child's /dev/null
    const pid_t child = fork();
    if (child < 0) _exit(1);
    if (child > 0) {
        PXR_trace(0x2000, 1, "Fork Success.  pid=%d\n", child);
        _exit(0);
    }
    DetachStandardStreams();
    setsid();
    return 0;
}

extern "C" int PXR_lock_cmd(const char* path) {
    if (path == nullptr) return -1;
    const CancelBlock block;  // the lock reaches the caller, or nobody
    for (int round = 0; round < kLockRounds; ++round) {
        const int fd = OpenLocked(path);
        if (fd < 0) return -1;
        if (IsFileOf(path, fd) && ftruncate(fd, 0) == 0) {
            fsync(fd);
            return fd;
        }
        close(fd);  // removed by its owner after we opened it: a lock on it keeps nobody away
    }
    return -1;
}

extern "C" int PXR_unlock_cmd(const char* path, int fd) {
    if (fd < 0) return -1;
    const CancelBlock block;
    // Removed while it is still locked, so that nobody can have locked the file that goes.
    const bool removed = path != nullptr && IsFileOf(path, fd) && unlink(path) == 0;
    close(fd);
    return removed ? 0 : -1;
}
