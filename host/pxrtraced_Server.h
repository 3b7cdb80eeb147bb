#pragma once
/// @file
/// The trace daemon's socket and its clients, all served by one thread.

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <list>
#include <string>

#include "cover/FileDescriptor.h"
#include "pxrtraced_Writer.h"

/// The listening socket. A socket file that a dead daemon has left is replaced; one that is being served is not. A lock
/// beside it, held as long as this lives, keeps a second daemon from looking at what is only half made.
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
    class Lock {
    public:
        explicit Lock(const std::string& path);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock();

    private:
        std::string path_;
        int fd_;
    };

    void Bind();

    std::string path_;
    Lock lock_;
    FileDescriptor socket_;
    ino_t inode_ = 0;
};

class TraceServer {
public:
    TraceServer(const ListeningSocket& listener, TraceWriter& writer);

    /// Serves clients until wake is readable.
    void ServeUntil(int wake);
    /// Takes what clients have sent by now, also those that are not connected yet. Ends after so long at most.
    void Drain(std::chrono::milliseconds limit);

private:
    enum class Round { Idle, Served, Woken };

    struct Client {
        explicit Client(int fd);
        FileDescriptor socket;
        Sender sender;
        std::array<unsigned char, PXR_TRACE_PACKET_SIZE> packet{};  ///< as much of the next packet as has come
        size_t received = 0;
    };

    Round Serve(int wake, int timeoutMs);
    bool Accept();
    bool Receive(Client& client);
    bool TakeBytes(Client& client, const unsigned char* bytes, size_t count);
    bool TakePacket(Client& client, const PXR_trace_packet& packet);
    void Forget(const Client& client, const char* reason);

    const ListeningSocket& listener_;
    TraceWriter& writer_;
    std::list<Client> clients_;
    size_t maxClients_;
    bool acceptPaused_ = false;  ///< the system had no descriptor left
};
