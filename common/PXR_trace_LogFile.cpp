// Log files that keep themselves small: appending, and cutting back to the newest half.
#include "common/PXR_trace_LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/FileText.h"
#include "cover/Heap.h"

namespace {

using std::chrono::steady_clock;

constexpr int64_t kKiB = 1024;
constexpr size_t kPieceSize = 64 * 1024;

/// How long a line is held back while another process cuts the file.
constexpr std::chrono::milliseconds kPatience{100};
constexpr std::chrono::milliseconds kPause{1};
/// How often a cut looks for lines that were appended since it began; rarely is there more than one.
constexpr int kLooks = 16;

std::pair<dev_t, ino_t> IdentityOf(const struct stat& status) {
    return {status.st_dev, status.st_ino};
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

/// Copies the end of a file to its start, piece by piece, from the first newline on.
class LineMover {
public:
    /// @param from  where the end begins: in the second half of the file, so that nothing is overwritten unread
    LineMover(int fd, int64_t from) : fd_(fd), from_(from), piece_(static_cast<char*>(malloc(kPieceSize))) {}

    /// Copies everything up to this offset that has not been copied yet.
    bool CopyUpTo(int64_t end) {
        if (piece_ == nullptr) return false;
        while (from_ < end) {
            const auto count = static_cast<size_t>(std::min<int64_t>(kPieceSize, end - from_));
            if (!ReadAt(fd_, piece_.get(), count, from_) || !WriteLines(piece_.get(), piece_.get() + count))
                return false;
            from_ += static_cast<int64_t>(count);
        }
        return true;
    }
    /// Length of the copy.
    int64_t Copied() const { return copied_; }

private:
    bool WriteLines(const char* begin, const char* end) {
        if (inPartialLine_) {
            const char* const newline = std::find(begin, end, '\n');
            inPartialLine_ = newline == end;
            begin = inPartialLine_ ? end : newline + 1;
        }
        const auto count = static_cast<size_t>(end - begin);
        if (!WriteAt(fd_, begin, count, copied_)) return false;
        copied_ += static_cast<int64_t>(count);
        return true;
    }

    int fd_;
    int64_t from_;
    int64_t copied_ = 0;
    bool inPartialLine_ = true;
    HeapOwned<char> piece_;
};

}  // namespace

int LogFile::Open(const char* path, uint32_t limitKiB, Report* report) {
    if (path == nullptr) return EINVAL;
    const size_t length = strlen(path);
    if (length >= sizeof path_) return ENAMETOOLONG;
    const std::lock_guard lock(mutex_);
    Release();
    memcpy(path_, path, length + 1);
    limit_ = limitKiB * kKiB;
    report_ = report;
    failing_ = false;
    const int error = OpenFile();
    open_ = error == 0;
    return error;
}

int LogFile::OpenFile() {
    fd_ = open(path_, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0666);
    struct stat status {};
    if (fd_ < 0 || fstat(fd_, &status) != 0) return errno;
    identity_ = IdentityOf(status);
    lseek(fd_, 0, SEEK_END);
    cutIsOurs_ = true;  // of a file that is too long already
    waitedInVain_ = false;
    return 0;
}

void LogFile::Close() {
    const std::lock_guard lock(mutex_);
    Release();
}

void LogFile::Release() {
    struct stat status {};
    if (IsOurFile(status)) close(fd_);
    fd_ = -1;
    open_ = false;
}

// A number that the host has closed, and perhaps given to something of its own, is found out by its inode.
bool LogFile::IsOurFile(struct stat& status) const {
    return fd_ >= 0 && fstat(fd_, &status) == 0 && IdentityOf(status) == identity_;
}

void LogFile::Write(const char* lines, size_t length) {
    char failed[PATH_MAX];
    Report* report = nullptr;
    {
        const std::lock_guard lock(mutex_);
        if (!open_) return;
        const bool works = MakeReady() && Append(lines, length) && CutWhenDue(static_cast<int64_t>(length));
        const bool reported = std::exchange(failing_, !works);
        if (works || reported) return;
        memcpy(failed, path_, sizeof failed);
        report = report_;
    }
    report(failed);
}

bool LogFile::MakeReady() {
    struct stat now {};
    if (!IsOurFile(now)) return OpenFile() == 0;
    if (limit_ != 0 && now.st_size > limit_ && !cutIsOurs_) LetOthersCut();
    return true;
}

// Whoever cuts takes along what others append meanwhile, all but what comes in the very last moment, which this avoids.
void LogFile::LetOthersCut() {
    const auto deadline = steady_clock::now() + kPatience;
    struct stat now {};
    while (!waitedInVain_ && fstat(fd_, &now) == 0 && now.st_size > limit_) {
        waitedInVain_ = steady_clock::now() >= deadline;
        std::this_thread::sleep_for(kPause);
    }
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

// @return false when a cut fails; it is tried again with the next line
bool LogFile::CutWhenDue(int64_t length) {
    if (limit_ == 0) return true;
    const int64_t end = lseek(fd_, 0, SEEK_CUR);
    if (end <= limit_) {
        cutIsOurs_ = false;
        waitedInVain_ = false;
        return true;
    }
    if (!cutIsOurs_ && !ReachesOverABound(end - length, end)) return true;
    const bool done = Cut();
    cutIsOurs_ = !done;
    return done;
}

bool LogFile::ReachesOverABound(int64_t begin, int64_t end) const {
    const int64_t quarter = limit_ / 4;
    return (end - 1) / quarter > (begin - 1) / quarter;
}

bool LogFile::Cut() {
    struct stat now {};
    if (fstat(fd_, &now) != 0) return false;
    const int64_t keep = limit_ / 2;
    if (now.st_size <= 2 * keep) return true;
    const AppendModeOff rearranging(fd_);
    if (!rearranging.Ok()) return false;
    LineMover mover(fd_, now.st_size - keep);
    int64_t end = 0;
    for (int look = 0; look < kLooks && end != now.st_size; ++look) {
        end = now.st_size;
        const bool copied = mover.CopyUpTo(end);
        if (fstat(fd_, &now) != 0) return false;
        if (now.st_size < end) return true;  // this process slept so long that another one has cut
        if (!copied) return false;
    }
    return ftruncate(fd_, mover.Copied()) == 0 && lseek(fd_, 0, SEEK_END) >= 0;
}
