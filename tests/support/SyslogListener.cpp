#include "tests/support/SyslogListener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <string_view>

namespace {
constexpr sockaddr_un kAddress{AF_UNIX, "/dev/log"};
constexpr size_t kDateLength = sizeof "Nov 22 21:58:00 " - 1;
}  // namespace

SyslogListener::SyslogListener() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    unlink(kAddress.sun_path);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress) != 0) {
        throw std::runtime_error("cannot listen on /dev/log");
    }
    thread_ = std::thread([this] {
        pollfd wait{socket_, POLLIN | POLLRDHUP, 0};
        while (poll(&wait, 1, -1) == 1 && (wait.revents & POLLRDHUP) == 0) {
            const std::lock_guard lock(mutex_);
            TakeAll();
        }
    });
}

SyslogListener::~SyslogListener() {
    shutdown(socket_, SHUT_RD);
    thread_.join();
    close(socket_);
}

// A line is "<priority>date text". What has been sent lies in the socket's queue until it is taken.
void SyslogListener::TakeAll() {
    char buffer[4096];
    for (ssize_t count; (count = recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
        const std::string_view line(buffer, static_cast<size_t>(count));
        const size_t end = line.find('>');
        priorities_.push_back(std::stoi(std::string(line.substr(1, end - 1))));
        lines_.emplace_back(line.substr(end + 1 + kDateLength));
    }
}

std::vector<std::string> SyslogListener::Lines() {
    const std::lock_guard lock(mutex_);
    TakeAll();
    return lines_;
}

std::vector<int> SyslogListener::Priorities() {
    Lines();
    const std::lock_guard lock(mutex_);
    return priorities_;
}
