// Single calls on files that retry or check, facts about the machine, and the termination flag.

#include "libplatform/PXR_syscall.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "common/PXR_syscall_internal.h"
#include "cover/RemoveTree.h"

namespace {

std::atomic<bool> terminating{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from signal handlers");

constexpr int kOpenAttempts = 3;

using PathBuffer = char[PATH_MAX];

bool IsDirectory(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool CopyPath(PathBuffer& buffer, std::string_view path) {
    if (path.size() >= sizeof(buffer)) return false;
    memcpy(buffer, path.data(), path.size());
    buffer[path.size()] = '\0';
    return true;
}

/// Who may read a directory's names may also use them.
mode_t WithSearchBits(int mode) {
    return static_cast<mode_t>(mode | (mode & 0444) >> 2);
}

int MakeOneDirectory(const char* path, mode_t mode) {
    if (mkdir(path, mode) == 0) return 0;
    const int error = errno;
    if (IsDirectory(path)) return 0;
    return error == EEXIST ? ENOTDIR : error;
}

/// Makes the directories that a file's path goes through.
int MakeParents(const char* path, int mode) {
    const std::string_view whole = path;
    const size_t slash = whole.rfind('/');
    if (slash == std::string_view::npos || slash == 0) return ENOENT;
    PathBuffer parent;
    if (!CopyPath(parent, whole.substr(0, slash))) return ENAMETOOLONG;
    return PXR_mkdir(parent, mode);
}

bool MustRepeat(int error) {
    if (error == EINTR) return true;
    if (error != EAGAIN) return false;
    if (PauseBeforeRetry()) return true;
    errno = ECANCELED;
    return false;
}

/// Repeats one transfer until all bytes are moved or none come any more.
template <typename Transfer>
int TransferAll(uint32_t n, Transfer transfer) {
    if (n > INT_MAX) {
        errno = EINVAL;
        return -1;
    }
    uint32_t done = 0;
    while (done < n) {
        const ssize_t moved = transfer(done, n - done);
        if (moved == 0) break;
        if (moved > 0) {
            done += static_cast<uint32_t>(moved);
        } else if (!MustRepeat(errno)) {
            return -1;
        }
    }
    return static_cast<int>(done);
}

int CopyText(char* buffer, uint32_t size, std::string_view text) {
    if (buffer == nullptr) return EFAULT;
    if (text.size() >= size) return ERANGE;
    memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return 0;
}

template <size_t N>
int CopySystemText(char* buffer, uint32_t size, char (utsname::*field)[N]) {
    utsname names{};
    if (uname(&names) != 0) return errno;
    return CopyText(buffer, size, names.*field);
}

}  // namespace

bool PauseBeforeRetry() {
    if (IsTerminateProcess() != 0) return false;
    const timespec pause{.tv_sec = 0, .tv_nsec = 1'000'000};
    nanosleep(&pause, nullptr);
    return true;
}

int PXR_open(const char* path, int flags, int mode) {
    bool mayMakeDirectories = (flags & O_CREAT) != 0;
    for (int attempt = 1;; ++attempt) {
        const int fd = open(path, flags | O_CLOEXEC, mode);
        if (fd >= 0 || attempt == kOpenAttempts) return fd;
        if (errno == ENOENT && mayMakeDirectories) {
            mayMakeDirectories = false;
            const int error = MakeParents(path, mode);
            if (error != 0) {
                errno = error;
                return -1;
            }
        } else if (errno != EAGAIN || !PauseBeforeRetry()) {
            return -1;
        }
    }
}

int PXR_mkdir(const char* path, int mode) {
    if (path == nullptr) return EFAULT;
    PathBuffer walked;
    if (!CopyPath(walked, path)) return ENAMETOOLONG;
    if (walked[0] == '\0') return ENOENT;
    const mode_t directoryMode = WithSearchBits(mode);
    for (char* slash = strchr(walked + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        if (slash[-1] == '/') continue;
        *slash = '\0';
        const int error = MakeOneDirectory(walked, directoryMode);
        if (error != 0) return error;
        *slash = '/';
    }
    return MakeOneDirectory(walked, directoryMode);
}

int PXR_read(int fd, void* buffer, uint32_t n) {
    auto* const bytes = static_cast<char*>(buffer);
    return TransferAll(n, [=](uint32_t done, uint32_t rest) { return read(fd, bytes + done, rest); });
}

int PXR_write(int fd, const void* buffer, uint32_t n) {
    const auto* const bytes = static_cast<const char*>(buffer);
    const int written = TransferAll(n, [=](uint32_t done, uint32_t rest) { return write(fd, bytes + done, rest); });
    if (written < 0 || static_cast<uint32_t>(written) == n) return written;
    errno = EIO;  // a device that takes nothing and gives no reason
    return -1;
}

int PXR_rmdir(const char* path) {
    return path != nullptr ? RemoveTree(path, true) : EFAULT;
}

int PXR_unlink(const char* path) {
    while (unlink(path) != 0) {
        const int error = errno;
        if (error != EBUSY || !PauseBeforeRetry()) return error;
    }
    return 0;
}

int PXR_renameall(const char* from, const char* to) {
    if (from == nullptr || to == nullptr) return EFAULT;
    PathBuffer target;
    struct stat info {};
    if (stat(from, &info) == 0 && S_ISREG(info.st_mode) && IsDirectory(to)) {
        const char* const slash = strrchr(from, '/');
        const char* const name = slash != nullptr ? slash + 1 : from;
        const int length = snprintf(target, sizeof(target), "%s/%s", to, name);
        if (length < 0 || static_cast<size_t>(length) >= sizeof(target)) return ENAMETOOLONG;
        to = target;
    }
    return rename(from, to) == 0 ? 0 : errno;
}

int PXR_access(const char* path, int mode) {
    if (geteuid() != 0) return access(path, mode) == 0 ? 0 : errno;
    if (mode != F_OK && mode != X_OK && mode != W_OK && mode != R_OK) return EINVAL;
    struct stat info {};
    if (stat(path, &info) != 0) return errno;
    const auto anyClass = static_cast<mode_t>(mode * 0111);
    return mode == F_OK || (info.st_mode & anyClass) != 0 ? 0 : EACCES;
}

uint64_t PXR_GetPhysicalMemory(void) {
    struct sysinfo info {};
    if (sysinfo(&info) != 0) return 0;
    return uint64_t{info.totalram} * info.mem_unit;
}

int PXR_GetMachineName(char* buffer, uint32_t size) {
    return CopySystemText(buffer, size, &utsname::nodename);
}

int PXR_GetOSName(char* buffer, uint32_t size) {
    return CopySystemText(buffer, size, &utsname::sysname);
}

int PXR_GetOSVersion(char* buffer, uint32_t size) {
    return CopySystemText(buffer, size, &utsname::release);
}

int PXR_GetIPAddress(const char* interfaceName, char* buffer, uint32_t size) {
    if (interfaceName == nullptr) return EFAULT;
    ifreq request{};
    if (CopyText(request.ifr_name, sizeof(request.ifr_name), interfaceName) != 0) return ENODEV;
    const FileDescriptor socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socketFd || ioctl(socketFd.Get(), SIOCGIFADDR, &request) != 0) return errno;
    sockaddr_in address{};
    memcpy(&address, &request.ifr_addr, sizeof(address));
    const uint32_t number = ntohl(address.sin_addr.s_addr);
    char dotted[16];
    snprintf(dotted, sizeof(dotted), "%d.%d.%d.%d", number >> 24, number >> 16 & 0xFF, number >> 8 & 0xFF,
             number & 0xFF);
    return CopyText(buffer, size, dotted);
}

void SetTerminateProcess(void) {
    terminating.store(true);
}

int IsTerminateProcess(void) {
    return terminating.load() ? 1 : 0;
}
