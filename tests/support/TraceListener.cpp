#include "tests/support/TraceListener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

TraceListener::TraceListener(std::string path) : path_(std::move(path)) {
    Start();
}

void TraceListener::Start() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path_.c_str());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener_, 64) != 0 ||
        pipe2(stop_, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot listen on " + path_);
    }
    thread_ = std::thread(&TraceListener::Serve, this);
}

void TraceListener::Kill() {
    if (!thread_.joinable()) return;
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
}

void TraceListener::Serve() {
    std::vector<pollfd> waits{{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
    const size_t fixed = waits.size();
    std::unique_lock lock(mutex_);
    const size_t first = received_.size();
    lock.unlock();
    for (;;) {
        poll(waits.data(), waits.size(), -1);
        if (waits[0].revents != 0) break;
        lock.lock();
        for (size_t i = fixed; i < waits.size(); ++i) {
            if (waits[i].revents == 0) continue;
            unsigned char bytes[65536];
            const ssize_t count = read(waits[i].fd, bytes, sizeof bytes);
            auto& stream = received_[first + i - fixed];
            if (count > 0) stream.insert(stream.end(), bytes, bytes + count);
            if (count <= 0) close(std::exchange(waits[i].fd, -1));
        }
        if (waits[1].revents != 0) {
            waits.push_back({accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
            received_.emplace_back();
        }
        lock.unlock();
    }
    for (size_t i = 1; i < waits.size(); ++i) {
        if (waits[i].fd >= 0) close(waits[i].fd);
    }
}

std::vector<TraceListener::Packets> TraceListener::Connections() {
    const std::lock_guard lock(mutex_);
    std::vector<Packets> connections;
    for (const auto& stream : received_) {
        Packets packets(stream.size() / PXR_TRACE_PACKET_SIZE);
        if (!packets.empty()) memcpy(packets.data(), stream.data(), packets.size() * PXR_TRACE_PACKET_SIZE);
        connections.push_back(std::move(packets));
    }
    return connections;
}

TraceListener::Packets TraceListener::WaitFor(size_t count) {
    Eventually([&] {
        const std::lock_guard lock(mutex_);
        size_t packets = 0;
        for (const auto& stream : received_)
            packets += stream.size() / PXR_TRACE_PACKET_SIZE;
        return packets >= count;
    });
    Packets all;
    for (const Packets& packets : Connections())
        all.insert(all.end(), packets.begin(), packets.end());
    return all;
}
