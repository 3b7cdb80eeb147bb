#pragma once
/// @file
/// The owner of a descriptor.

#include <unistd.h>

#include <utility>

#include "cover/CancelBlock.h"

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() { Close(); }
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    explicit operator bool() const { return fd_ >= 0; }
    int Get() const { return fd_; }
    int Release() { return std::exchange(fd_, -1); }
    /// @return what close gives; 0 when nothing was open
    int Close() {
        const CancelBlock block;
        const int fd = Release();
        return fd >= 0 ? close(fd) : 0;
    }

private:
    int fd_;
};
