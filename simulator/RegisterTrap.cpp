#include "simulator/RegisterTrap.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <map>
#include <memory>
#include <mutex>

namespace sim {
namespace {

constexpr unsigned kTrapFlag = 0x100;    // EFLAGS: a debug exception after the next instruction
constexpr unsigned kWriteAccess = 0x02;  // page-fault error code

struct Trap {
    uint8_t* base;
    size_t length;
    std::function<uint8_t(size_t)> read;
    std::function<void(size_t, uint8_t)> write;
};

std::mutex trapMutex;
std::map<uint8_t*, std::shared_ptr<Trap>> traps;  // guarded by trapMutex
struct sigaction previousFault;
struct sigaction previousStep;

/// The access that this thread's processor is carrying out right now.
struct Pending {
    std::shared_ptr<Trap> trap;
    size_t offset = 0;
    bool write = false;
};
thread_local Pending pending;

std::shared_ptr<Trap> FindTrap(uint8_t* address) {
    const std::lock_guard lock(trapMutex);
    auto found = traps.upper_bound(address);
    if (found == traps.begin()) return nullptr;
    --found;
    return address < found->second->base + found->second->length ? found->second : nullptr;
}

void PassOn(const struct sigaction& previous, int signal, siginfo_t* info, void* context) {
    if ((previous.sa_flags & SA_SIGINFO) != 0)
        previous.sa_sigaction(signal, info, context);
    else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN)
        previous.sa_handler(signal);
    else
        sigaction(signal, &previous, nullptr);  // the instruction faults again, for good
}

greg_t& Flags(void* context) {
    return static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL];
}

/// Opens the page, puts the byte there that a load shall find, and steps over the one instruction.
void OnFault(int signal, siginfo_t* info, void* context) {
    auto* address = static_cast<uint8_t*>(info->si_addr);
    std::shared_ptr<Trap> trap = FindTrap(address);
    if (!trap || pending.trap) {
        PassOn(previousFault, signal, info, context);
        return;
    }
    const auto error = static_cast<unsigned>(static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_ERR]);
    const size_t offset = static_cast<size_t>(address - trap->base);
    const bool write = (error & kWriteAccess) != 0;
    const uint8_t value = write ? uint8_t{0} : trap->read(offset);
    mprotect(trap->base, trap->length, PROT_READ | PROT_WRITE);
    *address = value;
    pending = {std::move(trap), offset, write};
    Flags(context) |= kTrapFlag;
}

/// Behind the instruction: closes the page again and hands on what a store left there.
void OnStep(int signal, siginfo_t* info, void* context) {
    if (!pending.trap) {
        PassOn(previousStep, signal, info, context);
        return;
    }
    Flags(context) &= ~static_cast<greg_t>(kTrapFlag);
    const Pending done = std::move(pending);
    pending = {};
    const uint8_t value = done.trap->base[done.offset];
    mprotect(done.trap->base, done.trap->length, PROT_NONE);
    if (done.write) done.trap->write(done.offset, value);
}

void InstallHandlers() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    action.sa_sigaction = OnFault;
    sigaction(SIGSEGV, &action, &previousFault);
    action.sa_sigaction = OnStep;
    sigaction(SIGTRAP, &action, &previousStep);
}

}  // namespace

bool ArmRegisterTrap(void* base, size_t length, std::function<uint8_t(size_t)> read,
                     std::function<void(size_t, uint8_t)> write) {
    static std::once_flag once;
    std::call_once(once, InstallHandlers);
    auto* first = static_cast<uint8_t*>(base);
    const std::lock_guard lock(trapMutex);
    if (mprotect(base, length, PROT_NONE) != 0) return false;
    traps[first] = std::make_shared<Trap>(Trap{first, length, std::move(read), std::move(write)});
    return true;
}

void DisarmRegisterTrap(void* base) {
    const std::lock_guard lock(trapMutex);
    traps.erase(static_cast<uint8_t*>(base));
}

}  // namespace sim
