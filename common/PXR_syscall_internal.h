#pragma once
/// @file
/// Helpers of the file wrappers that other runtime modules share.

#include <pthread.h>
#include <unistd.h>

#include <utility>

/// Holds a cancellation of the thread back for a block. For clean-up code: close and the like are cancellation points,
/// and a thread that is cancelled inside a destructor brings the process down.
class CancellationHeld {
public:
    CancellationHeld() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
    ~CancellationHeld() { pthread_setcancelstate(previous_, nullptr); }
    CancellationHeld(const CancellationHeld&) = delete;
    CancellationHeld& operator=(const CancellationHeld&) = delete;

private:
    int previous_ = 0;
};

/// Owner of a descriptor.
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
        const CancellationHeld held;
        const int fd = Release();
        return fd >= 0 ? close(fd) : 0;
    }

private:
    int fd_;
};

/// The pause between two attempts of a call that has to be repeated: 1 ms.
/// @return false, without pausing, when the process is terminating and the caller should give up
bool PauseBeforeRetry();
