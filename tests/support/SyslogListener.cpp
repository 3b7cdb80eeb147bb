#include "tests/support/SyslogListener.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "tests/support/Eventually.h"

namespace {

constexpr sockaddr_un kAddress{AF_UNIX, "/dev/log"};
constexpr std::string_view kMarker = "settle";
constexpr std::string_view kQuit = "quit";
constexpr size_t kDateLength = sizeof "Nov 22 21:58:00 " - 1;

void SendToSelf(std::string_view text) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress);
    close(fd);
}

}  // namespace

SyslogListener::SyslogListener() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    unlink(kAddress.sun_path);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress) != 0) {
        throw std::runtime_error("cannot listen on /dev/log");
    }
    thread_ = std::thread(&SyslogListener::Serve, this);
}

SyslogListener::~SyslogListener() {
    SendToSelf(kQuit);
    thread_.join();
    close(socket_);
}

// A line is "<priority>date text".
void SyslogListener::Serve() {
    char buffer[4096];
    for (;;) {
        const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
        const std::string_view line(buffer, count > 0 ? static_cast<size_t>(count) : 0);
        if (count < 0 || line == kQuit) return;
        const std::lock_guard lock(mutex_);
        if (line == kMarker) {
            ++settled_;
        } else {
            const size_t end = line.find('>');
            priorities_.push_back(std::stoi(std::string(line.substr(1, end - 1))));
            lines_.emplace_back(line.substr(end + 1 + kDateLength));
        }
    }
}

// A message of its own through the same queue has overtaken nothing when it arrives.
void SyslogListener::Settle() {
    const auto settled = [this] {
        const std::lock_guard lock(mutex_);
        return settled_;
    };
    const size_t before = settled();
    SendToSelf(kMarker);
    Eventually([&] { return settled() > before; });
}

std::vector<std::string> SyslogListener::Lines() {
    Settle();
    const std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<int> SyslogListener::Priorities() {
    Settle();
    const std::lock_guard lock(mutex_);
    return priorities_;
}
