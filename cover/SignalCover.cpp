// Signals of a process that belongs to the library alone.

#include "cover/SignalCover.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>

#include "cover/ErrorCover.h"

namespace {

constexpr uint32_t kShortestInterruptibleWaitMs = 5000;

std::atomic<bool> g_initialised = false;

bool BlockEndSignals() {
    sigset_t end;
    sigemptyset(&end);
    for (const int number : {SIGTERM, SIGQUIT, SIGINT})
        sigaddset(&end, number);
    const int error = pthread_sigmask(SIG_BLOCK, &end, nullptr);
    if (error != 0) SetRecentErrno(error);
    return error == 0;
}

bool Ignore(int number) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    return sigaction(number, &ignore, nullptr) == 0;
}

}  // namespace

int InitSignal() {
    alarm(0);
    if (!BlockEndSignals()) return 0;
    for (const int number : {SIGUSR1, SIGUSR2, SIGPIPE}) {
        if (!Ignore(number)) return 0;
    }
    g_initialised = true;
    return 1;
}

int IsTermWithSignal(uint32_t timeoutMs) {
    if (!g_initialised || timeoutMs < kShortestInterruptibleWaitMs) return 0;
    sigset_t any;
    sigfillset(&any);
    const struct timespec now = {};
    const int number = sigtimedwait(&any, nullptr, &now);
    return number > 0 ? number : 0;
}
