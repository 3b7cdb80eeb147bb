#pragma once
/// @file
/// The trace daemon's socket and its clients, all served by one thread.

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <list>
#include <string>

#include "pxrtraced_Writer.h"

/// A descriptor that closes itself.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor();
    int Get() const { return fd_; }

private:
    int fd_ = -1;
};

/// The listening socket. A socket file that a dead daemon has left is replaced; one that is being served is not.
class ListeningSocket {
public:
    /// @throws std::system_error
    explicit ListeningSocket(const std::string& path);
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    /// Removes the socket file, unless another one has taken its place.
    ~ListeningSocket();
    int Get() const { return socket_.Get(); }

private:
    void Bind();

    std::string path_;
    Descriptor socket_;
    ino_t inode_ = 0;
};

class TraceServer {
public:
    TraceServer(const ListeningSocket& listener, TraceWriter& writer) : listener_(listener), writer_(writer) {}

    /// Serves clients until wake is readable.
    void ServeUntil(int wake);

private:
    struct Client {
        explicit Client(int fd);
        Descriptor socket;
        Sender sender;
        std::array<unsigned char, PXR_TRACE_PACKET_SIZE> packet{};  ///< as much of the next packet as has come
        size_t received = 0;
    };

    bool Accept();
    bool Receive(Client& client);
    bool TakeBytes(Client& client, const unsigned char* bytes, size_t count);
    bool TakePacket(Client& client, const PXR_trace_packet& packet);
    void Forget(const Client& client, const char* reason);

    const ListeningSocket& listener_;
    TraceWriter& writer_;
    std::list<Client> clients_;
};
