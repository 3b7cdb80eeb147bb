// Files, directories and paths.

#include "cover/FileCover.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cover/CancelBlock.h"
#include "cover/ErrorCover.h"
#include "cover/FileDescriptor.h"
#include "cover/RemoveTree.h"

namespace {

int Fail(int error) {
    SetRecentErrno(error);
    return 0;
}

/// What is left of one file goes to another: inside the kernel as far as it does that for these two, the rest through a
/// small buffer. Files may be larger than the memory that is left.
bool CopyContent(int from, int to) {
    constexpr size_t kAtOnce = 1u << 30;
    while (copy_file_range(from, nullptr, to, nullptr, kAtOnce, 0) > 0) {
    }
    std::array<char, 16 * 1024> buffer;
    int got = 0;
    while ((got = FileRead(from, buffer.data(), buffer.size())) > 0) {
        if (FileWrite(to, buffer.data(), static_cast<uint32_t>(got)) < 0) return false;
    }
    return got == 0;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool MakeDirectory(const char* path) {
    if (mkdir(path, 0755) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat status = {};
    if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) return true;
    SetRecentErrno(ENOTDIR);
    return false;
}

/// Joins the components of an absolute path that stand for themselves.
std::string Canonical(std::string_view path) {
    std::string result;
    while (!path.empty()) {
        const size_t slash = path.find('/');
        const std::string_view component = path.substr(0, slash);
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
        if (component.empty() || component == ".") continue;
        if (component == "..") {
            if (!result.empty()) result.erase(result.rfind('/'));
            continue;
        }
        result.append("/").append(component);
    }
    return result.empty() ? "/" : result;
}

}  // namespace

int FileOpen(const char* path, int flags, int mode) {
    if (path == nullptr) {
        SetRecentErrno(EINVAL);
        return -1;
    }
    return open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode));
}

int FileRead(int fd, void* buffer, uint32_t length) {
    if (length > INT_MAX) {
        SetRecentErrno(EINVAL);
        return -1;
    }
    uint32_t done = 0;
    while (done < length) {
        const ssize_t got = read(fd, static_cast<char*>(buffer) + done, length - done);
        if (got == 0) break;
        if (got > 0) done += static_cast<uint32_t>(got);
        if (got < 0 && errno != EINTR) return -1;
    }
    return static_cast<int>(done);
}

int FileWrite(int fd, const void* buffer, uint32_t length) {
    if (length > INT_MAX) {
        SetRecentErrno(EINVAL);
        return -1;
    }
    uint32_t done = 0;
    while (done < length) {
        const ssize_t put = write(fd, static_cast<const char*>(buffer) + done, length - done);
        if (put > 0) done += static_cast<uint32_t>(put);
        if (put == 0) errno = EIO;  // no progress: the device takes nothing more
        if (put == 0 || (put < 0 && errno != EINTR)) return -1;
    }
    return static_cast<int>(done);
}

int CreateNewDirectory(const char* path) {
    if (path == nullptr) return Fail(EINVAL);
    return mkdir(path, 0755) == 0 ? 1 : 0;
}

int CreateDirectoryforPath(const char* path) {
    if (path == nullptr || *path == '\0') return Fail(EINVAL);
    std::string whole = path;
    for (size_t slash = whole.find('/', 1); slash != std::string::npos; slash = whole.find('/', slash + 1)) {
        whole[slash] = '\0';
        if (!MakeDirectory(whole.c_str())) return 0;
        whole[slash] = '/';
    }
    return MakeDirectory(whole.c_str()) ? 1 : 0;
}

int CreateDirectoryforFile(const char* file) {
    if (file == nullptr) return Fail(EINVAL);
    const std::string_view path = file;
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos || slash == 0) return 1;
    return CreateDirectoryforPath(std::string(path.substr(0, slash)).c_str());
}

int RemoveDir(const char* path) {
    if (path == nullptr) return Fail(EINVAL);
    const int error = RemoveTree(path, false);
    return error != 0 ? Fail(error) : 1;
}

int CreateCopyFile(const char* source, const char* destination, int failIfExists) {
    const CancelBlock block;  // no half copy
    if (source == nullptr || destination == nullptr) return Fail(EINVAL);
    struct stat existing = {};
    const bool exists = lstat(destination, &existing) == 0;
    if (failIfExists != 0 && exists) return Fail(EEXIST);

    struct stat status = {};
    const FileDescriptor in(FileOpen(source, O_RDONLY, 0));
    if (!in || fstat(in.Get(), &status) != 0) return 0;
    if (exists && stat(destination, &existing) == 0 && IsSameFile(status, existing)) return 1;

    const int exclusive = failIfExists != 0 ? O_EXCL : 0;
    const auto mode = static_cast<int>(status.st_mode & 07777);
    FileDescriptor out(FileOpen(destination, O_WRONLY | O_CREAT | O_TRUNC | exclusive, mode));
    if (!out) return 0;
    if (CopyContent(in.Get(), out.Get()) && out.Close() == 0) return 1;
    const int error = GetRecentErrno();
    unlink(destination);
    return Fail(error);
}

char* _fullpath(char* out, const char* path, uint32_t size) {
    if (path == nullptr || strlen(path) > kLongestPath) {
        SetRecentErrno(EINVAL);
        return nullptr;
    }
    std::string whole;
    if (path[0] != '/') {
        char current[PATH_MAX];
        if (getcwd(current, sizeof(current)) == nullptr) return nullptr;
        whole.append(current).append("/");
    }
    whole = Canonical(whole.append(path));
    if (whole.size() > kLongestPath) {
        SetRecentErrno(EINVAL);
        return nullptr;
    }
    if (out != nullptr && whole.size() >= size) {
        SetRecentErrno(ERANGE);
        return nullptr;
    }
    char* const result = out != nullptr ? out : static_cast<char*>(malloc(kLongestPath + 1));
    if (result != nullptr) memcpy(result, whole.c_str(), whole.size() + 1);
    return result;
}
