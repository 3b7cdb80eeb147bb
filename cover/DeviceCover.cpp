// The table of device operations in force, and the one that talks to Linux.

#include "cover/DeviceCover.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

int LinuxOpen(void* /*context*/, const char* path, int flags) {
    return open(path, flags | O_CLOEXEC);
}

int LinuxClose(void* /*context*/, int fd) {
    return close(fd);
}

ssize_t LinuxRead(void* /*context*/, int fd, void* buffer, size_t length) {
    return read(fd, buffer, length);
}

ssize_t LinuxWrite(void* /*context*/, int fd, const void* buffer, size_t length) {
    return write(fd, buffer, length);
}

int64_t LinuxSeek(void* /*context*/, int fd, int64_t offset) {
    return lseek(fd, offset, SEEK_SET);
}

// Touching a mapping of a plain file behind the file's end raises SIGBUS. Where a file stands in for physical memory
// that must be an error of the mapping, as it is for a range that the kernel does not map.
bool LiesInFile(int fd, int64_t offset, size_t length) {
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return true;
    const int64_t page = sysconf(_SC_PAGESIZE);
    const int64_t end = (status.st_size + page - 1) / page * page;
    return offset >= 0 && offset <= end && static_cast<int64_t>(length) <= end - offset;
}

void* LinuxMap(void* /*context*/, int fd, int64_t offset, size_t length, int writable) {
    if (!LiesInFile(fd, offset, length)) {
        errno = ENXIO;
        return MAP_FAILED;
    }
    const int protection = writable != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
    return mmap(nullptr, length, protection, writable != 0 ? MAP_SHARED : MAP_PRIVATE, fd, offset);
}

int LinuxUnmap(void* /*context*/, void* address, size_t length) {
    return munmap(address, length);
}

int LinuxIoctl(void* /*context*/, int fd, unsigned long request, void* argument) {
    return ioctl(fd, request, argument);
}

int LinuxWaitReadable(void* /*context*/, int fd, int timeoutMs) {
    struct pollfd wanted = {fd, POLLIN, 0};
    const int ready = poll(&wanted, 1, timeoutMs);
    if (ready < 0 && errno == EINTR) return 0;
    if (ready <= 0) return ready;
    if ((wanted.revents & POLLIN) != 0) return 1;
    errno = EIO;
    return -1;
}

int LinuxIoPrivilege(void* /*context*/, int level) {
    return iopl(level);
}

uint8_t LinuxPortIn(void* /*context*/, uint16_t port) {
    return inb(port);
}

void LinuxPortOut(void* /*context*/, uint16_t port, uint8_t value) {
    outb(value, port);
}

constexpr KvDeviceOps kLinux = {
    .size = sizeof(KvDeviceOps),
    .context = nullptr,
    .open = LinuxOpen,
    .close = LinuxClose,
    .read = LinuxRead,
    .write = LinuxWrite,
    .seek = LinuxSeek,
    .map = LinuxMap,
    .unmap = LinuxUnmap,
    .ioctl = LinuxIoctl,
    .waitReadable = LinuxWaitReadable,
    .ioPrivilege = LinuxIoPrivilege,
    .portIn = LinuxPortIn,
    .portOut = LinuxPortOut,
};

int Missing() {
    errno = ENOSYS;
    return -1;
}

// What a table leaves out. Linux in its place would mix two machines: its descriptors, and registers of the real one.
constexpr KvDeviceOps kMissing = {
    .size = sizeof(KvDeviceOps),
    .context = nullptr,
    .open = [](void*, const char*, int) { return Missing(); },
    .close = [](void*, int) { return Missing(); },
    .read = [](void*, int, void*, size_t) -> ssize_t { return Missing(); },
    .write = [](void*, int, const void*, size_t) -> ssize_t { return Missing(); },
    .seek = [](void*, int, int64_t) -> int64_t { return Missing(); },
    .map = [](void*, int, int64_t, size_t, int) { return Missing(), MAP_FAILED; },
    .unmap = [](void*, void*, size_t) { return Missing(); },
    .ioctl = [](void*, int, unsigned long, void*) { return Missing(); },
    .waitReadable = [](void*, int, int) { return Missing(); },
    .ioPrivilege = [](void*, int) { return Missing(); },
    .portIn = [](void*, uint16_t) -> uint8_t { return 0xFF; },
    .portOut = [](void*, uint16_t, uint8_t) {},
};

template <typename... Operation>
void FillIn(KvDeviceOps& table, Operation KvDeviceOps::*... operation) {
    ((table.*operation = table.*operation != nullptr ? table.*operation : kMissing.*operation), ...);
}

KvDeviceOps Complete(const KvDeviceOps& given) {
    KvDeviceOps table = {};
    memcpy(&table, &given, std::min<size_t>(given.size, sizeof table));
    using T = KvDeviceOps;
    FillIn(table, &T::open, &T::close, &T::read, &T::write, &T::seek, &T::map, &T::unmap, &T::ioctl, &T::waitReadable,
           &T::ioPrivilege, &T::portIn, &T::portOut);
    return table;
}

// A table built before there was a size begins with a pointer or null.
bool IsTableSize(uint32_t size) {
    constexpr uint32_t kMostEver = 1024;
    return size >= offsetof(KvDeviceOps, open) && size <= kMostEver;
}

KvDeviceOps g_given[2];  // in turns: who still works by the old table finds it whole
std::atomic<const KvDeviceOps*> g_ops = &kLinux;

const KvDeviceOps& Ops() {
    return *g_ops.load(std::memory_order_acquire);
}

}  // namespace

int KvSetDeviceOps(const KvDeviceOps* ops) {
    if (ops == nullptr) {
        g_ops = &kLinux;
        return 0;
    }
    if (!IsTableSize(ops->size)) return EINVAL;
    KvDeviceOps& table = g_given[&Ops() == &g_given[0] ? 1 : 0];
    table = Complete(*ops);
    g_ops = &table;
    return 0;
}

namespace device {

int Open(const char* path, int flags) {
    const KvDeviceOps& ops = Ops();
    return ops.open(ops.context, path, flags);
}

int Close(int fd) {
    const KvDeviceOps& ops = Ops();
    return ops.close(ops.context, fd);
}

ssize_t Read(int fd, void* buffer, size_t length) {
    const KvDeviceOps& ops = Ops();
    return ops.read(ops.context, fd, buffer, length);
}

ssize_t Write(int fd, const void* buffer, size_t length) {
    const KvDeviceOps& ops = Ops();
    return ops.write(ops.context, fd, buffer, length);
}

int64_t Seek(int fd, int64_t offset) {
    const KvDeviceOps& ops = Ops();
    return ops.seek(ops.context, fd, offset);
}

void* Map(int fd, int64_t offset, size_t length, bool writable) {
    const KvDeviceOps& ops = Ops();
    return ops.map(ops.context, fd, offset, length, writable ? 1 : 0);
}

int Unmap(void* address, size_t length) {
    const KvDeviceOps& ops = Ops();
    return ops.unmap(ops.context, address, length);
}

int Ioctl(int fd, unsigned long request, void* argument) {
    const KvDeviceOps& ops = Ops();
    return ops.ioctl(ops.context, fd, request, argument);
}

int WaitReadable(int fd, int timeoutMs) {
    const KvDeviceOps& ops = Ops();
    return ops.waitReadable(ops.context, fd, timeoutMs);
}

int IoPrivilege(int level) {
    const KvDeviceOps& ops = Ops();
    return ops.ioPrivilege(ops.context, level);
}

uint8_t PortIn(uint16_t port) {
    const KvDeviceOps& ops = Ops();
    return ops.portIn(ops.context, port);
}

void PortOut(uint16_t port, uint8_t value) {
    const KvDeviceOps& ops = Ops();
    ops.portOut(ops.context, port, value);
}

}  // namespace device
