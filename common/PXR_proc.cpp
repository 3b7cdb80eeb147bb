// Becoming a daemon, and lock files that keep a second instance away.

#include "libplatform/PXR_proc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/FileText.h"
#include "common/PXR_proc_internal.h"
#include "cover/CancelBlock.h"
#include "libplatform/PXR_trace.h"

namespace {

// Each round loses against another instance that ended between our open and our lock.
constexpr int kLockRounds = 100;

/// The lock goes with the descriptor into the child of PXR_daemon, which has other use for the standard ones.
/// @return -1 when the file cannot be opened, or is locked
int OpenLocked(const char* path) {
    const FileDescriptor opened(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    FileDescriptor fd(opened ? fcntl(opened.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : -1);
    if (!fd) return -1;
    fsync(fd.Get());
    return SetFileLock(fd.Get(), F_WRLCK) == 0 ? fd.Release() : -1;
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
        if (IsNamed(fd, path) && ftruncate(fd, 0) == 0) {
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
    const bool removed = path != nullptr && IsNamed(fd, path) && unlink(path) == 0;
    close(fd);
    return removed ? 0 : -1;
}
