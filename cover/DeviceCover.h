#pragma once
/// @file
/// The devices as the library sees them: the table of operations in force, behind functions with the system calls'
/// names and results.

#include <utility>

#include "cover/CancelBlock.h"
#include "libplatform/KvDeviceOps.h"

namespace device {

int Open(const char* path, int flags);
int Close(int fd);
ssize_t Read(int fd, void* buffer, size_t length);
ssize_t Write(int fd, const void* buffer, size_t length);
int64_t Seek(int fd, int64_t offset);
void* Map(int fd, int64_t offset, size_t length, bool writable);
int Unmap(void* address, size_t length);
int Ioctl(int fd, unsigned long request, void* argument);
int WaitReadable(int fd, int timeoutMs);
int IoPrivilege(int level);
uint8_t PortIn(uint16_t port);
void PortOut(uint16_t port, uint8_t value);

/// An open device, closed at the end of its scope.
class Descriptor {
public:
    Descriptor() = default;
    Descriptor(const char* path, int flags) {
        const CancelBlock untilOwned;
        fd_ = Open(path, flags);
    }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        const CancelBlock block;
        if (fd_ >= 0) Close(fd_);
    }
    explicit operator bool() const { return fd_ >= 0; }
    int Get() const { return fd_; }

private:
    int fd_ = -1;
};

}  // namespace device
