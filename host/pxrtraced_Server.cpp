// The trace daemon's socket: clients that come and go, and the packets in what they send.
#include "pxrtraced_Server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "libplatform/PXR_proc.h"

namespace {

constexpr int kBacklog = 64;
constexpr size_t kMaxClients = 256;  // later ones wait in the backlog until one leaves
constexpr int kAcceptPauseMs = 100;  // after the system had no descriptor left
constexpr size_t kReadSize = 64UL * PXR_TRACE_PACKET_SIZE;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int NewSocket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        Fail(path);
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

ino_t SocketFileInode(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

bool IsStaleSocket(const std::string& path, const sockaddr_un& address) {
    if (SocketFileInode(path) == 0) return false;
    const FileDescriptor probe(NewSocket());
    return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

}  // namespace

ListeningSocket::Lock::Lock(const std::string& path) : path_(path), fd_(PXR_lock_cmd(path.c_str())) {
    if (fd_ >= 0) return;
    if (errno == EAGAIN) errno = EADDRINUSE;
    Fail(path);
}

ListeningSocket::Lock::~Lock() {
    PXR_unlock_cmd(path_.c_str(), fd_);
}

ListeningSocket::ListeningSocket(const std::string& path) : path_(path), lock_(path + ".lock"), socket_(NewSocket()) {
    if (socket_.Get() < 0) Fail("socket");
    const mode_t before = umask(0177);  // the agent and its tools run as root; nobody else has anything to say here
    try {
        Bind();
    } catch (...) {
        umask(before);
        throw;
    }
    umask(before);
    inode_ = SocketFileInode(path_);
    if (listen(socket_.Get(), kBacklog) != 0) Fail(path_);
}

void ListeningSocket::Bind() {
    const sockaddr_un address = AddressOf(path_);
    const auto bindOnce = [&] {
        return bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    };
    if (bindOnce()) return;
    const int error = errno;
    if (error == EADDRINUSE && IsStaleSocket(path_, address) && unlink(path_.c_str()) == 0 && bindOnce()) return;
    errno = error;
    Fail(path_);
}

ListeningSocket::~ListeningSocket() {
    if (inode_ != 0 && SocketFileInode(path_) == inode_) unlink(path_.c_str());
}

TraceServer::Client::Client(int fd) : socket(fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) sender.pid = static_cast<uint32_t>(peer.pid);
}

TraceServer::TraceServer(const ListeningSocket& listener, TraceWriter& writer)
    : listener_(listener), writer_(writer), maxClients_(kMaxClients) {}

void TraceServer::ServeUntil(int wake) {
    while (Serve(wake, -1) != Round::Woken)
        continue;
}

void TraceServer::Drain(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    maxClients_ = kMaxClients + kBacklog;  // who waits has sent as well
    while (Serve(-1, 0) != Round::Idle && std::chrono::steady_clock::now() < end)
        continue;
    maxClients_ = kMaxClients;
}

// Waits once, for wake or for the timeout at most, and serves who is ready.
TraceServer::Round TraceServer::Serve(int wake, int timeoutMs) {
    const bool paused = std::exchange(acceptPaused_, false);
    const bool accepts = !paused && clients_.size() < maxClients_;
    std::vector<pollfd> waits{{wake, POLLIN, 0}, {accepts ? listener_.Get() : -1, POLLIN, 0}};
    for (const Client& client : clients_)
        waits.push_back({client.socket.Get(), POLLIN, 0});
    const int ready = poll(waits.data(), waits.size(), paused ? kAcceptPauseMs : timeoutMs);
    if (ready < 0 && errno != EINTR) Fail("poll");
    if (waits[0].revents != 0) return Round::Woken;
    size_t slot = 2;
    clients_.remove_if([&](Client& client) { return waits[slot++].revents != 0 && !Receive(client); });
    acceptPaused_ = waits[1].revents != 0 && !Accept();
    return ready > 0 || paused ? Round::Served : Round::Idle;
}

// @return false when the system cannot hand out another descriptor for now
bool TraceServer::Accept() {
    const int fd = accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) clients_.emplace_back(fd);
    return fd >= 0 || errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
}

// Takes what has come, at most a buffer full, so that a busy client does not keep the others waiting.
// @return whether the client is still there
bool TraceServer::Receive(Client& client) {
    static std::array<unsigned char, kReadSize> buffer;
    const ssize_t count = recv(client.socket.Get(), buffer.data(), buffer.size(), 0);
    if (count > 0) return TakeBytes(client, buffer.data(), static_cast<size_t>(count));
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (client.received > 0) Forget(client, "connection ended within a packet");
    return false;
}

bool TraceServer::TakeBytes(Client& client, const unsigned char* bytes, size_t count) {
    while (count > 0) {
        const size_t taken = std::min(count, client.packet.size() - client.received);
        std::copy_n(bytes, taken, client.packet.begin() + client.received);
        client.received += taken;
        bytes += taken;
        count -= taken;
        if (client.received < client.packet.size()) break;
        client.received = 0;
        PXR_trace_packet packet;
        static_assert(sizeof packet == sizeof client.packet);
        memcpy(&packet, client.packet.data(), sizeof packet);
        if (!TakePacket(client, packet)) return false;
    }
    return true;
}

// Without the magic there is no telling where the next packet begins, so the connection ends; the client's next
// message makes a new one. What is wrong inside a packet costs that packet.
bool TraceServer::TakePacket(Client& client, const PXR_trace_packet& packet) {
    if (memcmp(packet.magic, PXR_TRACE_MAGIC, sizeof packet.magic) != 0) {
        Forget(client, "no packet where one should begin, connection closed");
        return false;
    }
    switch (packet.type) {
        case PXR_TRACE_TYPE_START:
            client.sender = {CleanText(packet.body.start.command, sizeof packet.body.start.command),
                             packet.body.start.pid};
            break;
        case PXR_TRACE_TYPE_MESSAGE:
            writer_.WriteMessage(client.sender, packet.body.message);
            break;
        case PXR_TRACE_TYPE_DATA:
            writer_.WriteData(client.sender, packet.body.data);
            break;
        default:
            break;  // of a newer client
    }
    return true;
}

void TraceServer::Forget(const Client& client, const char* reason) {
    writer_.WriteNote(client.sender.command + "[" + std::to_string(client.sender.pid) + "]: " + reason);
}
