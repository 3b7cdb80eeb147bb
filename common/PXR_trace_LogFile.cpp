#include "common/PXR_trace_LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "common/PXR_thread_internal.h"
#include "libplatform/PXR_message.h"
#include "libplatform/PXR_trace.h"

namespace {

constexpr int64_t kKiB = 1024;
constexpr size_t kPieceSize = 64 * 1024;
constexpr int kSystemLogSet = 4;
constexpr int kLogFileFails = 534;

struct FreeMemory {
    void operator()(char* memory) const { free(memory); }
};

std::pair<dev_t, ino_t> IdentityOf(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return {};
    return {status.st_dev, status.st_ino};
}

bool ReadAt(int fd, char* buffer, size_t length, int64_t offset) {
    for (size_t done = 0; done < length;) {
        const ssize_t n = pread(fd, buffer + done, length - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // also the end of a file that someone else has shortened
        done += static_cast<size_t>(n);
    }
    return true;
}

bool WriteAt(int fd, const char* data, size_t length, int64_t offset) {
    for (size_t done = 0; done < length;) {
        const ssize_t n = pwrite(fd, data + done, length - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

/// Takes O_APPEND off a descriptor while the file is rearranged: with it, Linux appends even a pwrite at offset 0.
class AppendModeOff {
public:
    explicit AppendModeOff(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        ok_ = flags_ >= 0 && fcntl(fd_, F_SETFL, flags_ & ~O_APPEND) == 0;
    }
    AppendModeOff(const AppendModeOff&) = delete;
    AppendModeOff& operator=(const AppendModeOff&) = delete;
    ~AppendModeOff() {
        if (flags_ >= 0) fcntl(fd_, F_SETFL, flags_);
    }
    bool Ok() const { return ok_; }

private:
    int fd_;
    int flags_;
    bool ok_ = false;
};

/// Keeps a second process from cutting the same file at the same time.
class CutLock {
public:
    explicit CutLock(int fd) : fd_(fd), busy_(flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {}
    CutLock(const CutLock&) = delete;
    CutLock& operator=(const CutLock&) = delete;
    ~CutLock() {
        if (!busy_) flock(fd_, LOCK_UN);
    }
    bool Busy() const { return busy_; }

private:
    int fd_;
    bool busy_;
};

}  // namespace

int LogFile::Open(const char* path, uint32_t limitKiB) {
    if (path == nullptr) return EINVAL;
    const size_t length = strlen(path);
    if (length >= sizeof path_) return ENAMETOOLONG;
    const std::lock_guard lock(mutex_);
    Release();
    fd_ = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd_ < 0) return errno;
    identity_ = IdentityOf(fd_);
    lseek(fd_, 0, SEEK_END);
    limit_ = limitKiB * kKiB;
    failing_ = false;
    memcpy(path_, path, length + 1);
    return 0;
}

void LogFile::Close() {
    const std::lock_guard lock(mutex_);
    Release();
}

// A host that turns itself into a daemon may close every descriptor it finds, and the number then belongs to others.
bool LogFile::OwnsNumber() const {
    return IdentityOf(fd_) == identity_;
}

void LogFile::Release() {
    if (fd_ >= 0 && OwnsNumber()) close(fd_);
    fd_ = -1;
}

void LogFile::Write(const char* lines, size_t length) {
    char failed[PATH_MAX];
    {
        const std::lock_guard lock(mutex_);
        if (fd_ < 0) return;
        if (!OwnsNumber()) fd_ = -1;
        const bool works = fd_ >= 0 && Append(lines, length) && CutWhenDue();
        const bool reported = std::exchange(failing_, !works);
        if (works || reported) return;
        memcpy(failed, path_, sizeof failed);
    }
    PXR_syslog_message(LOG_ERR, "KvAgent.cat", kSystemLogSet, kLogFileFails, 1, failed);
}

// A line stands in the file whole or not at all: what a full disk lets through of it is taken back, unless another
// process has written behind it.
bool LogFile::Append(const char* lines, size_t length) {
    ssize_t written;
    do {
        written = write(fd_, lines, length);
    } while (written < 0 && errno == EINTR);
    if (written > 0 && static_cast<size_t>(written) < length) TakeBack(written);
    return written >= 0 && static_cast<size_t>(written) == length;
}

void LogFile::TakeBack(int64_t written) {
    struct stat now {};
    const int64_t end = lseek(fd_, 0, SEEK_CUR);
    if (fstat(fd_, &now) != 0 || !S_ISREG(now.st_mode) || now.st_size != end) return;
    if (ftruncate(fd_, end - written) == 0) lseek(fd_, 0, SEEK_END);
}

bool LogFile::CutWhenDue() {
    if (limit_ == 0 || lseek(fd_, 0, SEEK_CUR) <= limit_) return true;
    const CutLock cutting(fd_);
    if (cutting.Busy()) return true;  // the other process cuts
    struct stat now {};
    if (fstat(fd_, &now) != 0) return false;
    const int64_t keep = limit_ / 2;
    if (now.st_size <= 2 * keep) return true;
    return Cut(now.st_size, keep);
}

bool LogFile::Cut(int64_t size, int64_t keep) {
    const AppendModeOff rearranging(fd_);
    if (!rearranging.Ok()) return false;
    int64_t length = keep;
    if (!MoveWholeLinesToStart(size - keep, length)) return false;
    return ftruncate(fd_, length) == 0 && lseek(fd_, 0, SEEK_END) >= 0;
}

// Copies what follows the first newline of the block to the start of the file, piece by piece. The block lies in the
// second half of the file, so source and target never overlap.
// @param from    offset of the block
// @param length  in: of the block, out: of what was copied
bool LogFile::MoveWholeLinesToStart(int64_t from, int64_t& length) {
    const std::unique_ptr<char, FreeMemory> piece(static_cast<char*>(malloc(kPieceSize)));
    if (piece == nullptr) return false;
    int64_t copied = 0;
    bool inPartialLine = true;
    for (int64_t done = 0; done < length;) {
        const auto count = static_cast<size_t>(std::min<int64_t>(kPieceSize, length - done));
        if (!ReadAt(fd_, piece.get(), count, from + done)) return false;
        done += static_cast<int64_t>(count);
        const char* begin = piece.get();
        const char* const end = begin + count;
        if (inPartialLine) {
            const char* newline = std::find(begin, end, '\n');
            inPartialLine = newline == end;
            begin = inPartialLine ? end : newline + 1;
        }
        if (!WriteAt(fd_, begin, static_cast<size_t>(end - begin), copied)) return false;
        copied += end - begin;
    }
    length = copied;
    return true;
}

struct PXR_log_file {
    LogFile file;
};

PXR_log_file* PXR_log_file_open(const char* path, uint32_t limitKiB) {
    const CancelBlock untilItIsOpen;
    std::unique_ptr<PXR_log_file> log(new (std::nothrow) PXR_log_file);
    const int error = log == nullptr ? ENOMEM : log->file.Open(path, limitKiB);
    if (error == 0) return log.release();
    log.reset();
    errno = error;
    return nullptr;
}

void PXR_log_file_write(PXR_log_file* file, const char* lines, size_t length) {
    const CancelBlock wholeLines;
    if (file != nullptr && lines != nullptr) file->file.Write(lines, length);
}

void PXR_log_file_close(PXR_log_file* file) {
    const CancelBlock untilItIsClosed;
    delete file;
}
