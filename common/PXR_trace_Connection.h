#pragma once
/// @file
/// The connection to the trace daemon.
///
/// Senders take no lock. What makes that safe is that the descriptor keeps its number for the life of the process: a
/// new connection is made on a descriptor of its own, gets its start packet, and is then put under the old number in
/// one step (dup3). A sender on its way therefore meets the dead socket or the new one behind its start packet. A
/// number that a host has closed itself and given to something of its own is found out by its inode.

#include <atomic>
#include <cstdint>
#include <mutex>

#include "libplatform/trace_protocol.h"

namespace trace {

class Connection {
public:
    /// Connects unless connected. @return whether there is a connection now
    bool Open();

    /// Sends one packet. When the peer is lost the connection is made anew and the packet sent once more; when that
    /// fails, or the daemon does not read for a tenth of a second, the packet is dropped.
    void Send(const PXR_trace_packet& packet);

    /// Guards the connection's making and ending. Taken before a log file's lock, never after.
    std::mutex& Mutex() { return mutex_; }
    /// Ends the connection; the caller holds Mutex().
    void CloseLocked();

private:
    enum class Outcome { Sent, Dropped, PeerLost };

    Outcome Deliver(const PXR_trace_packet& packet);
    bool SendWhenWritable(int fd, const PXR_trace_packet& packet);
    bool IsAliveLocked() const;
    bool ReconnectLocked();
    bool InstallLocked(int fresh);
    bool IsOurSocket(int fd) const;

    std::mutex mutex_;
    bool open_ = false;                 ///< between a successful Open and CloseLocked; guarded by mutex_
    std::atomic<uint32_t> socket_{0};   ///< inode of the socket under descriptor_; written under mutex_
    std::atomic<int> descriptor_{-1};   ///< written under mutex_
    std::atomic<bool> stalled_{false};  ///< the daemon did not read in time; nobody waits again until it does
};

/// This process's.
extern Connection g_connection;

}  // namespace trace
