#include "simulator/ConversationMarker.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <new>
#include <string>
#include <system_error>

namespace sim {
namespace {

/// Gone, or ended and not yet waited for.
bool IsDead(pid_t process) {
    if (kill(process, 0) != 0 && errno == ESRCH) return true;
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const size_t name = line.rfind(')');
    return name != std::string::npos && name + 2 < line.size() && (line[name + 2] == 'Z' || line[name + 2] == 'X');
}

}  // namespace

void ConversationMarker::Begin() {
    ++conversations_;
    const auto self = static_cast<int32_t>(getpid());
    for (;;) {
        int32_t holder = 0;
        if (holder_.compare_exchange_strong(holder, self)) return;
        if (holder == self || !IsDead(holder)) break;
        if (holder_.compare_exchange_strong(holder, self)) return;
    }
    ++overlaps_;
}

void ConversationMarker::End() {
    auto self = static_cast<int32_t>(getpid());
    holder_.compare_exchange_strong(self, 0);
}

void ConversationMarker::Unmap::operator()(ConversationMarker* marker) const {
    marker->~ConversationMarker();
    munmap(marker, sizeof(ConversationMarker));
}

ConversationMarker::Shared ConversationMarker::MakeShared() {
    void* memory = mmap(nullptr, sizeof(ConversationMarker), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    return Shared(new (memory) ConversationMarker);
}

}  // namespace sim
