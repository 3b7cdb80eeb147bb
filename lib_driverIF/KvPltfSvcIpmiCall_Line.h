#pragma once
/// @file
/// The line of those who want the IPMI lock, across processes. It keeps the order of arrival and nothing else: who may
/// talk to the BMC is the lock's decision alone, so a place in the line is never waited for without end.
///
/// A place is one byte of the turnstile file, kept locked by the process that stands there. Its offset is the time of
/// arrival, so newcomers stand behind the others, the file stays empty, and the places of the dead are free. The locks
/// are asked for and never slept for: the kernel would take the wait of one thread for a place and of another for some
/// lock of the host for a circle, and refuse one of them.

#include <sys/types.h>

#include <atomic>

#include "cover/FileDescriptor.h"
#include "cover/FileLockCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"

namespace ktx_ipmi {

class Line {
public:
    static constexpr off_t kNoPlace = -1;

    /// Opens the turnstile file, made when it is missing, for this user alone.
    void Open(const char* file);
    void Close();

    /// Takes the place behind everybody else, and behind those that this process has taken before. One thread at a time.
    /// @return the place, left with Leave(); kNoPlace where places cannot be had
    off_t Stand();
    void Leave(off_t place);
    /// Waits until no other process stands before the place, or does so without taking the lock although it is free:
    /// a stopped process, say. May be cancelled.
    /// @return false: the wait was over before
    bool AwaitTurn(off_t place, _FLKHANDLE* lock, const LockWait& wait);
    /// Whether another process stands in the line.
    bool OthersStand() const;
    /// Whether there is a line to hand the lock over to.
    bool IsKept() const { return kept_; }

private:
    off_t TakePlace() const;
    bool SomebodyBefore(off_t place) const;

    FileDescriptor file_;
    off_t last_ = 0;                        // the newest place of this process
    std::atomic<bool> kept_ = false;        // the last one who came got a place
    std::atomic<bool> passedOver_ = false;  // somebody in the line does not move
};

}  // namespace ktx_ipmi
