#pragma once
/// @file
/// A trace daemon that only listens: collects the packets of every connection, and can be killed and started again.

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libplatform/trace_protocol.h"
#include "tests/support/Eventually.h"

class TraceListener {
public:
    using Packets = std::vector<PXR_trace_packet>;

    /// Starts to listen.
    explicit TraceListener(std::string path = PXR_TRACE_SOCKET);
    TraceListener(const TraceListener&) = delete;
    TraceListener& operator=(const TraceListener&) = delete;
    ~TraceListener() { Kill(); }

    /// Closes everything at once, as a killed daemon does; the socket file stays.
    void Kill();
    void Start();

    /// Waits until count packets have come in all. @return what has come after five seconds at the latest
    Packets WaitFor(size_t count);
    /// The packets of each connection, in the order in which they were accepted.
    std::vector<Packets> Connections();

private:
    void Serve();

    std::string path_;
    int listener_ = -1;
    int stop_[2] = {-1, -1};
    std::thread thread_;
    std::mutex mutex_;  // guards what follows
    std::vector<std::vector<unsigned char>> received_;
};
