// The socket to the trace daemon: made, used by all threads, made anew when the daemon is lost.
#include "common/PXR_trace_Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "common/PXR_trace_internal.h"

namespace trace {

namespace {

/// How long a sender waits for a daemon whose queue is full.
constexpr std::chrono::milliseconds kPatience{100};

bool SendNow(int fd, const PXR_trace_packet& packet) {
    // The kernel queues 512 bytes on a local stream whole or not at all, so packets of several threads do not mix.
    return send(fd, &packet, sizeof packet, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(sizeof packet);
}

bool MeansPeerLost(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == EBADF || error == ENOTSOCK;
}

int NewSocket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Not blocking: a daemon that is stopped with a full backlog refuses at once.
bool ConnectToDaemon(int fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::min(strlen(PXR_TRACE_SOCKET), sizeof address.sun_path);
    memcpy(address.sun_path, PXR_TRACE_SOCKET, length);
    const auto size = static_cast<socklen_t>(length + offsetof(sockaddr_un, sun_path));
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

PXR_trace_packet StartPacket() {
    PXR_trace_packet packet = EmptyPacket(PXR_TRACE_TYPE_START);
    PXR_trace_start& start = packet.body.start;
    start.time = time(nullptr);
    start.pid = static_cast<uint32_t>(getpid());
    start.one = 1;
    CommandName command;
    CopyCommandName(command);
    CopyName(start.command, command);
    return packet;
}

// The kernel numbers sockets with 32 bits, and none with 0.
uint32_t SocketInode(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) ? static_cast<uint32_t>(status.st_ino) : 0;
}

}  // namespace

Connection g_connection;

bool Connection::Open() {
    const std::lock_guard lock(mutex_);
    if (IsAliveLocked()) return true;
    const bool connected = ReconnectLocked();
    open_ = open_ || connected;
    return connected;
}

void Connection::Send(const PXR_trace_packet& packet) {
    if (Deliver(packet) != Outcome::PeerLost) return;
    {
        const std::lock_guard lock(mutex_);
        if (!open_) return;
        // Another thread may have been faster.
        if (!IsAliveLocked() && !ReconnectLocked()) return;
    }
    Deliver(packet);
}

// The number is kept: an unconnected socket takes the place of the one that ends. (A shutdown instead would also end
// the connection of a process that shares it since a fork.)
void Connection::CloseLocked() {
    open_ = false;
    const int fd = descriptor_.load(std::memory_order_relaxed);
    if (!IsOurSocket(fd)) return;
    const int idle = NewSocket();
    if (idle < 0 || !InstallLocked(idle)) shutdown(fd, SHUT_RDWR);
}

Connection::Outcome Connection::Deliver(const PXR_trace_packet& packet) {
    const int fd = descriptor_.load(std::memory_order_acquire);
    if (!IsOurSocket(fd)) return Outcome::PeerLost;
    bool sent = SendNow(fd, packet);
    if (!sent && errno == EAGAIN && !stalled_.load(std::memory_order_relaxed)) {
        sent = SendWhenWritable(fd, packet);
        if (!sent && errno == EAGAIN) stalled_.store(true, std::memory_order_relaxed);
    }
    if (!sent) return MeansPeerLost(errno) ? Outcome::PeerLost : Outcome::Dropped;
    if (stalled_.load(std::memory_order_relaxed)) stalled_.store(false, std::memory_order_relaxed);
    return Outcome::Sent;
}

bool Connection::SendWhenWritable(int fd, const PXR_trace_packet& packet) {
    using std::chrono::steady_clock;
    const auto deadline = steady_clock::now() + kPatience;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            errno = EAGAIN;
            return false;
        }
        pollfd writable{fd, POLLOUT, 0};
        poll(&writable, 1, static_cast<int>(left.count()));
        if (SendNow(fd, packet)) return true;
        if (errno != EAGAIN) return false;
    }
}

bool Connection::IsAliveLocked() const {
    const int fd = descriptor_.load(std::memory_order_relaxed);
    if (!IsOurSocket(fd)) return false;
    // getpeername still succeeds when the peer has closed; the hang-up shows in poll.
    pollfd peer{fd, 0, 0};
    return poll(&peer, 1, 0) == 0;
}

bool Connection::ReconnectLocked() {
    const int fresh = NewSocket();
    if (fresh < 0) return false;
    if (!ConnectToDaemon(fresh) || !SendNow(fresh, StartPacket())) {
        close(fresh);
        return false;
    }
    stalled_.store(false, std::memory_order_relaxed);
    return InstallLocked(fresh);
}

// Puts a socket under the number that senders use; takes the descriptor over in any case.
bool Connection::InstallLocked(int fresh) {
    const uint32_t inode = SocketInode(fresh);
    const int current = descriptor_.load(std::memory_order_relaxed);
    if (!IsOurSocket(current)) {
        socket_ = inode;
        descriptor_.store(fresh, std::memory_order_release);
        return true;
    }
    int result;
    do {
        result = dup3(fresh, current, O_CLOEXEC);
    } while (result < 0 && (errno == EINTR || errno == EBUSY));
    if (result >= 0) socket_ = inode;
    close(fresh);
    return result >= 0;
}

// A host that turns itself into a daemon may close every descriptor it finds, and the number then belongs to others.
// While a new connection takes the number over, a sender may be told no; it then waits for the lock and asks again.
bool Connection::IsOurSocket(int fd) const {
    const uint32_t own = socket_;
    return fd >= 0 && own != 0 && SocketInode(fd) == own;
}

void SendPacket(const PXR_trace_packet& packet) {
    g_connection.Send(packet);
}

}  // namespace trace
