// Files as a whole: reading, positioned transfers, and the replacement of files that must survive.
#include "common/FileText.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "cover/TimerCover.h"

namespace {

constexpr uint32_t kLongestWaitMs = 10'000;

int CodeOf(bool good) {
    return good ? 0 : errno;
}

/// Opens what is a regular file and nothing else, without waiting for a pipe's other end.
FileDescriptor OpenRegular(const char* path) {
    const CancelBlock block;  // a thread that is cancelled as open returns would lose the descriptor
    FileDescriptor fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info {};
    if (!fd || fstat(fd.Get(), &info) != 0 || S_ISREG(info.st_mode)) return fd;
    fd.Close();
    errno = EINVAL;
    return fd;
}

int ReadToEnd(int fd, size_t limit, std::string& content) {
    constexpr size_t kPiece = 16 * 1024;
    for (;;) {
        const size_t filled = content.size();
        content.resize(filled + kPiece);
        const ssize_t got = read(fd, content.data() + filled, kPiece);
        if (got < 0 && errno != EINTR) return errno;
        content.resize(filled + static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (got == 0) return 0;
        if (content.size() > limit) return EFBIG;
    }
}

template <typename Transfer, typename Byte>
bool MoveAll(Transfer transfer, int fd, Byte* data, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t moved = transfer(fd, data, size, offset);
        if (moved < 0 && errno == EINTR) continue;
        if (moved == 0) errno = EIO;
        if (moved <= 0) return false;
        data += moved;
        offset += moved;
        size -= static_cast<size_t>(moved);
    }
    return true;
}

/// Removes what stands under a temporary name, unless a living writer's file stands there.
/// @return 0; EBUSY while the writer lives; another errno value
int RemoveStale(const char* name) {
    const FileDescriptor found(open(name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!found && errno == ENOENT) return 0;
    struct stat info {};
    // Only a file of our own can be a writer's: nobody may keep us waiting with one that he put there.
    const bool ours = found && fstat(found.Get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid();
    if (ours && SetFileLock(found.Get(), F_WRLCK) == EAGAIN) return EBUSY;
    if (ours && !IsNamed(found.Get(), name)) return 0;
    return unlink(name) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

int ReadWhole(const char* path, size_t limit, std::string& content) {
    const FileDescriptor fd = OpenRegular(path);
    if (!fd) return errno;
    try {
        std::string read;
        const int error = ReadToEnd(fd.Get(), limit, read);
        if (error == 0) content = std::move(read);
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

bool ReadAt(int fd, void* data, size_t size, off_t offset) {
    return MoveAll(pread, fd, static_cast<char*>(data), size, offset);
}

bool WriteAt(int fd, const void* data, size_t size, off_t offset) {
    return MoveAll(pwrite, fd, static_cast<const char*>(data), size, offset);
}

int SetFileLock(int fd, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    const int error = CodeOf(fcntl(fd, F_OFD_SETLK, &lock) == 0);
    return error == EACCES ? EAGAIN : error;
}

bool IsNamed(int fd, const char* path, int flags) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && fstatat(AT_FDCWD, path, &named, flags) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

void SyncDirectoryOf(const char* file) {
    std::string_view directory = file;
    const size_t slash = directory.rfind('/');
    directory = slash == std::string_view::npos ? "." : directory.substr(0, slash + 1);
    std::array<char, PATH_MAX> name{};
    directory.copy(name.data(), name.size() - 1);
    const CancelBlock block;
    const FileDescriptor fd(open(name.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) fsync(fd.Get());
}

Replacement::~Replacement() {
    const CancelBlock block;
    if (temporary_[0] != '\0') unlink(temporary_.data());
}

int Replacement::Create(const char* target, const char* temporary, mode_t mode) {
    if (strlen(target) >= target_.size() || strlen(temporary) >= temporary_.size()) return ENAMETOOLONG;
    attributes_.st_mode = mode;
    attributes_.st_uid = geteuid();
    attributes_.st_gid = getegid();
    TimeLimit limit{};
    MakeLimitTime(&limit, kLongestWaitMs);
    for (;;) {
        const int error = OwnTemporary(temporary);
        if (error == 0) {
            memcpy(temporary_.data(), temporary, strlen(temporary) + 1);
            memcpy(target_.data(), target, strlen(target) + 1);
        }
        if (error != EBUSY || LimitPassed(limit)) return error;
        Sleep(1);
    }
}

/// @return 0 when the name is a new file of ours, locked; EBUSY when another writer has it; another errno value
int Replacement::OwnTemporary(const char* name) {
    const CancelBlock block;
    if (const int error = RemoveStale(name)) return error;
    FileDescriptor fd(open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) return errno == EEXIST ? EBUSY : errno;
    // Between these lines another writer may take the file for a dead one's. A file system without such locks has none.
    if (SetFileLock(fd.Get(), F_WRLCK) == EAGAIN || !IsNamed(fd.Get(), name)) return EBUSY;
    fd_ = std::move(fd);
    return 0;
}

void Replacement::Flush() {
    size_t done = 0;
    while (done < used_ && error_ == 0) {
        const ssize_t put = write(fd_.Get(), buffer_.data() + done, used_ - done);
        if (put >= 0) done += static_cast<size_t>(put);
        if (put == 0) error_ = EIO;
        if (put < 0 && errno != EINTR) error_ = errno;
    }
    used_ = 0;
}

void Replacement::Write(std::string_view text) {
    while (!text.empty()) {
        if (used_ == buffer_.size()) Flush();
        const size_t count = text.copy(buffer_.data() + used_, buffer_.size() - used_);
        used_ += count;
        text.remove_prefix(count);
    }
}

/// An unprivileged writer cannot give files away; the permissions decide then. They come last, since a change of owner
/// clears some of them.
int Replacement::ApplyAttributes() const {
    const bool foreign = attributes_.st_uid != geteuid() || attributes_.st_gid != getegid();
    if (foreign && fchown(fd_.Get(), attributes_.st_uid, attributes_.st_gid) != 0) {
        if (errno != EPERM) return errno;
        if (fchown(fd_.Get(), static_cast<uid_t>(-1), attributes_.st_gid) != 0 && errno != EPERM) return errno;
    }
    return CodeOf(fchmod(fd_.Get(), attributes_.st_mode & 07777) == 0);
}

int Replacement::Publish() {
    if (!IsNamed(fd_.Get(), temporary_.data())) return ESTALE;  // somebody has put another file under the name
    if (rename(temporary_.data(), target_.data()) != 0) return errno;
    temporary_[0] = '\0';
    SyncDirectoryOf(target_.data());
    SetFileLock(fd_.Get(), F_UNLCK);  // by hand: a child that was forked meanwhile may still hold the open file
    fd_.Close();
    return 0;
}

int Replacement::Commit() {
    const CancelBlock block;
    Flush();
    if (error_ != 0) return error_;
    if (const int error = ApplyAttributes()) return error;
    if (fsync(fd_.Get()) != 0) return errno;
    return Publish();
}

int ReplaceWhole(const char* path, std::string_view content, mode_t mode) {
    std::array<char, PATH_MAX> temporary{};
    if (snprintf(temporary.data(), temporary.size(), "%s.tmp", path) >= static_cast<int>(temporary.size())) {
        return ENAMETOOLONG;
    }
    Replacement file;
    if (const int error = file.Create(path, temporary.data(), mode)) return error;
    file.Write(content);
    return file.Commit();
}
