// The machine-wide IPMI lock: its files, who uses them, and what a thread goes through to get it.
//
// The lock is a file lock that every agent process takes around each conversation with the BMC. Who unlocks and at once
// wants in again would win it back every time: so a thread first queues up in its process, then stands in the line of
// the processes, and goes for the lock when nobody is before it. It keeps the head of the queue as long as it holds the
// lock, and leaves the line as soon as it has it.
//
// A thread may be cancelled while it waits, and leaves nothing behind. From having the lock until the caller has it, and
// on the way out, nobody is cancelled.

#include <pthread.h>
#include <sys/stat.h>

#include <new>
#include <utility>

#include "cover/CancelBlock.h"
#include "cover/FileCover.h"
#include "cover/FileLockCover.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Line.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Queue.h"

_FLKHANDLE* g_hipmilock = nullptr;  // guarded by LockState::files

namespace ktx_ipmi {

namespace {

constexpr const char* kDirectory = "/var/opt/velmora/lantrel/tmp";
constexpr const char* kLockFile = "/var/opt/velmora/lantrel/tmp/ipmilock";
constexpr const char* kTurnstileFile = "/var/opt/velmora/lantrel/tmp/ipmilock.turn";
constexpr uint32_t kPauseAfterUnlock = 100;   // ms; only where there is no line to hand the lock over to
constexpr uint64_t kPatienceAtEnd = 1000000;  // microseconds

struct LockState {
    std::mutex files;               // the files, open or not, and the number of their users
    std::condition_variable fewer;  // users
    unsigned users = 0;             // threads that hold the lock or wait for it
    std::mutex arrival;             // who comes first is first in the queue and in the line
    Queue queue;
    Line line;
};
LockState& g_state = *new LockState;  // never destroyed: threads may wait when the process ends

/// What this thread holds. Brackets nest: the lock belongs to the outermost one.
struct Held {
    unsigned depth = 0;
    _FLKHANDLE* lock = nullptr;
    Queue::Waiter waiter;
};
thread_local Held t_held;

// ---- The files. All with LockState::files held. ----

/// What was open before, a parent's, is given up only when all is open anew.
bool OpenFiles() {
    _FLKHANDLE* const opened = OpenFLock(kLockFile);
    if (opened == nullptr) return false;
    CloseFLock(std::exchange(g_hipmilock, opened));
    g_state.line.Open(kTurnstileFile);
    return true;
}

void CloseFiles() {
    CloseFLock(std::exchange(g_hipmilock, nullptr));
    g_state.line.Close();
    SetIpmiEnding(false);
}

/// In a child process only the forking thread exists, and it holds nothing: record locks are the parent's own. The files
/// are opened anew at the next use, for the lock of the inherited stream may be held for ever.
void ForgetParent() {
    g_state.line.Close();
    new (&g_state) LockState;
    t_held = {};
    if (g_hipmilock != nullptr) AbandonFLock(g_hipmilock);
    SetIpmiEnding(false);
}

// ---- The users ----

/// @return the lock file, which stays open until LeaveFiles; null when it is not open or is being closed
_FLKHANDLE* EnterFiles() {
    const CancelBlock whole;
    const std::lock_guard guard(g_state.files);
    if (g_hipmilock == nullptr || IsIpmiEnding()) return nullptr;
    if (g_hipmilock->fd < 0 && !OpenFiles()) return nullptr;
    ++g_state.users;
    return g_hipmilock;
}

void LeaveFiles() {
    const std::lock_guard guard(g_state.files);
    if (--g_state.users == 0 && IsIpmiEnding()) CloseFiles();
    g_state.fewer.notify_all();
}

/// A thread on its way to the lock: from its arrival until it has it or gives up.
class Contender {
public:
    explicit Contender(_FLKHANDLE* lock) : lock_(lock) {
        const std::lock_guard inOrder(g_state.arrival);
        place_ = g_state.line.Stand();
        g_state.queue.Join(t_held.waiter);
    }
    ~Contender() {
        const CancelBlock whole;
        g_state.line.Leave(place_);
        if (t_held.depth > 0) return;
        g_state.queue.Leave(t_held.waiter);
        LeaveFiles();
    }
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    bool GetLock(const LockWait& wait) const {
        return g_state.queue.AwaitTurn(t_held.waiter, wait) && g_state.line.AwaitTurn(place_, lock_, wait) &&
               Poll(wait);
    }

private:
    /// The lock is asked for, not slept for: a sleeper could not be told that the layer ends, and would be part of the
    /// kernel's search for circles among the host's locks.
    bool Poll(const LockWait& wait) const {
        int result = kLockBusy;
        while ((result = TryFLock(lock_)) == kLockBusy) {
            if (wait.Over()) return false;
            wait.Pause();
        }
        return result == kLockDone;
    }

    _FLKHANDLE* lock_;
    off_t place_ = Line::kNoPlace;
};

}  // namespace

bool OpenIpmiLock() {
    const CancelBlock whole;
    static const int followsForks = pthread_atfork(nullptr, nullptr, ForgetParent);
    if (followsForks != 0) return false;
    const std::lock_guard guard(g_state.files);
    SetIpmiEnding(false);
    if (g_hipmilock != nullptr) return true;
    // A lock is open to everybody who can read its file, so nobody else comes near.
    if (CreateDirectoryforFile(kDirectory) == 1) mkdir(kDirectory, 0700);
    return OpenFiles();
}

void CloseIpmiLock() {
    const CancelBlock whole;
    std::unique_lock guard(g_state.files);
    if (g_hipmilock == nullptr) return;
    SetIpmiEnding(true);
    g_state.queue.Wake();
    const unsigned own = t_held.depth > 0 ? 1 : 0;
    const uint64_t end = Clock().Now() + kPatienceAtEnd;
    while (g_state.users > own && Clock().WaitUntil(g_state.fewer, guard, end)) {
    }
    // Otherwise the last user closes.
    if (g_state.users == 0 && IsIpmiEnding()) CloseFiles();
}

bool IsIpmiLibStarted() {
    const std::lock_guard guard(g_state.files);
    return g_hipmilock != nullptr && !IsIpmiEnding();
}

bool TakeIpmiLock(const LockWait& wait, int* handle) {
    *handle = kInvalidHandle;
    if (t_held.depth == 0) {
        _FLKHANDLE* const lock = EnterFiles();
        if (lock == nullptr) return false;
        *handle = lock->fd;
        const Contender contender(lock);
        if (!contender.GetLock(wait)) return false;
        t_held.lock = lock;
        t_held.depth = 1;
        return true;
    }
    *handle = t_held.lock->fd;
    ++t_held.depth;
    return true;
}

void ReleaseIpmiLock(int handle) {
    const CancelBlock whole;
    if (t_held.depth == 0 || handle != t_held.lock->fd || --t_held.depth > 0) return;
    UnlockFLock(std::exchange(t_held.lock, nullptr));
    g_state.queue.Leave(t_held.waiter);
    const bool handedOver = g_state.line.IsKept();
    LeaveFiles();
    if (!handedOver) Sleep(kPauseAfterUnlock);
}

bool SomebodyWaitsForIpmiLock() {
    if (t_held.depth != 1) return false;
    const bool nobodyCanTell = !g_state.line.IsKept();
    return IsIpmiEnding() || nobodyCanTell || g_state.queue.SomebodyWaits() || g_state.line.OthersStand();
}

}  // namespace ktx_ipmi
