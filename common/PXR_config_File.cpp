// Opening and locking of configuration files, and the names beside them.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "common/FileText.h"
#include "common/PXR_config_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_syscall.h"

namespace {

constexpr uint32_t kCannotOpen = MakeResult(fn::kFileOpen, Reason::FileRead);
constexpr uint32_t kCannotLock = MakeResult(fn::kFileOpen, Reason::FileLock);
static_assert(kCannotOpen == 0x61E51301 && kCannotLock == 0x61E51304);

constexpr mode_t kNewFileMode = 0644;
constexpr size_t kCopyBlock = 1024;
constexpr int kThroughLinks = 0;

bool IsReadOnly(int flags) {
    return (flags & O_ACCMODE) == O_RDONLY;
}

/// Opens a regular file and nothing else. Looking first keeps devices from being touched at all; looking again at what
/// was opened, without waiting for a pipe's other end, covers a name that changes in between.
FileDescriptor OpenRegular(const char* path, int flags) {
    const CancelBlock block;  // a thread that is cancelled as open returns would lose the descriptor
    struct stat info {};
    if (stat(path, &info) == 0 && !S_ISREG(info.st_mode)) return FileDescriptor();
    FileDescriptor fd(PXR_open(path, (flags & ~O_TRUNC) | O_NONBLOCK | O_NOCTTY, kNewFileMode));
    if (fd && (fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode))) fd.Close();
    return fd;
}

bool WaitForLock(int fd, short type) {
    fsync(fd);
    for (;;) {
        const int error = SetFileLock(fd, type);
        if (error == 0) break;
        if (error == EINTR) continue;
        if (error != EAGAIN || !PauseBeforeRetry()) return false;
    }
    fsync(fd);
    return true;
}

/// @param code  set to the failure when none is returned
FileDescriptor OpenLocked(const char* path, int flags, uint32_t& code) {
    const short lockType = IsReadOnly(flags) ? F_RDLCK : F_WRLCK;
    for (;;) {
        FileDescriptor fd = OpenRegular(path, flags);
        code = kCannotOpen;
        if (!fd) return fd;
        code = kCannotLock;
        if (!WaitForLock(fd.Get(), lockType)) return FileDescriptor();
        // A writer replaces the file by renaming a new one over it. Who waited for the lock meanwhile now holds it on
        // the old file, which nobody else will ever see.
        if (IsNamed(fd.Get(), path, kThroughLinks)) return fd;
        if (IsTerminateProcess() != 0) return FileDescriptor();
    }
}

/// What is asked of an open file only once it is locked.
bool FinishOpen(int fd, int flags) {
    if ((flags & O_TRUNC) != 0 && !IsReadOnly(flags) && ftruncate(fd, 0) != 0) return false;
    return (flags & O_NONBLOCK) != 0 || fcntl(fd, F_SETFL, flags & O_APPEND) == 0;
}

/// @return 0 or an errno value
int CopyBlocks(int from, Replacement& to) {
    char block[kCopyBlock];
    for (off_t position = 0;;) {
        const ssize_t count = pread(from, block, sizeof(block), position);
        if (count == 0) return 0;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        to.Write({block, static_cast<size_t>(count)});
        position += count;
    }
}

}  // namespace

int PXR_file_open(const char* path, int flags, int* error) {
    uint32_t code = MakeResult(fn::kFileOpen, Reason::NullArgument);
    if (path != nullptr) {
        FileDescriptor fd = OpenLocked(path, flags, code);
        if (fd && FinishOpen(fd.Get(), flags)) return fd.Release();
        if (fd) code = kCannotOpen;
    }
    PXR_ReportError(code);
    if (error != nullptr) *error = static_cast<int>(code);
    return -1;
}

int PXR_file_close(int fd) {
    const CancelBlock block;
    // Unlocked by hand: a child that was forked meanwhile may still hold the open file.
    SetFileLock(fd, F_UNLCK);
    return close(fd);
}

int PXR_file_stream_close(FILE* stream) {
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    const CancelBlock block;
    const int flushed = fflush(stream);
    const int error = errno;
    SetFileLock(fileno(stream), F_UNLCK);
    const int closed = fclose(stream);
    if (flushed != 0) errno = error;
    return flushed == 0 && closed == 0 ? 0 : -1;
}

void PXR_make_tmpfile(char* buffer, const char* path, const char* suffix) {
    if (buffer == nullptr) return;
    buffer[0] = '\0';
    if (path == nullptr || suffix == nullptr) return;
    std::string_view base = path;
    const size_t slash = base.rfind('/');
    const size_t dot = base.rfind('.');
    if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) base = base.substr(0, dot);
    const size_t suffixSize = strlen(suffix) + 1;
    if (base.size() + suffixSize > PATH_MAX) return;
    memcpy(buffer, base.data(), base.size());
    memcpy(buffer + base.size(), suffix, suffixSize);
}

int PXR_copy_fd2file(int fd, const char* path) {
    if (path == nullptr) return EFAULT;
    char temporary[PATH_MAX];
    const int length = snprintf(temporary, sizeof(temporary), "%s.tmp", path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(temporary)) return ENAMETOOLONG;
    const CancelBlock block;  // all of it or nothing
    struct stat info {};
    if (fstat(fd, &info) != 0) return errno;
    Replacement copy;
    if (const int error = copy.Create(path, temporary, info.st_mode)) return error;
    copy.TakeAttributes(info);
    const int error = CopyBlocks(fd, copy);
    return error != 0 ? error : copy.Commit();
}

namespace cfg {

uint32_t LockedFile::Open(const char* path, int flags) {
    int error = 0;
    fd_ = PXR_file_open(path, flags, &error);
    return fd_ >= 0 ? 0 : static_cast<uint32_t>(error);
}

bool MakeBackup(const char* path, int fd) {
    char backup[PATH_MAX];
    PXR_make_tmpfile(backup, path, ".bak");
    if (backup[0] == '\0' || strcmp(backup, path) == 0) return false;
    return PXR_copy_fd2file(fd, backup) == 0;
}

}  // namespace cfg
