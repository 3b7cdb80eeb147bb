// The machine-wide IPMI lock, and the turnstile that makes it fair.
//
// The lock is a file lock that every agent process takes around each conversation with the BMC. Who unlocks and at once
// wants in again would win it back every time: so a waiter first passes a turnstile, and lets the next one through only
// when it holds the lock. Threads of one process queue up for the turnstile in their order of arrival, processes in the
// order of the places that they take in the turnstile's file.
//
// A thread may be cancelled while it waits, and leaves nothing behind: a constructor that waits delegates to one that
// does not, so that the object is whole by then and its destructor runs. From having the lock until the caller has it,
// and on the way out, nobody is cancelled.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "common/PXR_syscall_internal.h"
#include "cover/FileLockCover.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "libplatform/PXR_trace.h"

_FLKHANDLE* g_hipmilock = nullptr;

namespace ktx_ipmi {

namespace {

constexpr const char* kLockFile = "/var/opt/velmora/lantrel/tmp/ipmilock";
constexpr const char* kTurnstileFile = "/var/opt/velmora/lantrel/tmp/ipmilock.turn";
constexpr uint32_t kPauseAfterUnlock = 100;  // ms; only where there is no line to hand the lock over to
constexpr uint32_t kPauseAfterFailedOpen = 100;
constexpr int kOpenTries = 3;
constexpr uint32_t kPollPause = 1;  // ms, in waits that have a limit

FileDescriptor g_turnstile;
// Whether processes stand in line: not where the turnstile's file cannot be opened, or written, as on a full disk.
std::atomic<bool> g_lineKept{false};
std::atomic<int> g_bIPMIPriorityCtrl{0};

/// Threads of this process that want the lock, first come first served.
class Queue {
public:
    /// One thread's place; leaves at the end of the scope.
    class Place {
    public:
        Place(Queue& queue, const TimeLimit* limit) : Place(queue) {
            std::unique_lock lock(queue_.mutex_);
            while (queue_.first_ != this) {
                if (limit == nullptr) {
                    queue_.moved_.wait(lock);
                } else {
                    queue_.moved_.wait_for(lock, std::chrono::milliseconds(20));
                    if (queue_.first_ != this && LimitPassed(*limit)) return;
                }
            }
            itsTurn_ = true;
        }
        ~Place() {
            const std::lock_guard lock(queue_.mutex_);
            Place** link = &queue_.first_;
            while (*link != this)
                link = &(*link)->next_;
            *link = next_;
            if (queue_.end_ == &next_) queue_.end_ = link;
            queue_.moved_.notify_all();
        }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        /// False: the time ran out before it was this thread's turn.
        explicit operator bool() const { return itsTurn_; }

    private:
        explicit Place(Queue& queue) : queue_(queue) {
            const std::lock_guard lock(queue_.mutex_);
            *queue_.end_ = this;
            queue_.end_ = &next_;
        }

        Queue& queue_;
        Place* next_ = nullptr;  // the one behind; guarded by the queue's mutex
        bool itsTurn_ = false;
    };

    bool Empty() {
        const std::lock_guard lock(mutex_);
        return first_ == nullptr;
    }

private:
    std::mutex mutex_;
    std::condition_variable moved_;
    // Guarded by mutex_. The places link themselves: standing in line takes no memory.
    Place* first_ = nullptr;
    Place** end_ = &first_;
};

Queue& g_queue = *new Queue;  // never destroyed: threads may wait when the process ends

/// What this thread holds. Brackets nest: the lock and the device belong to the outermost levels.
struct Held {
    unsigned lock = 0;
    unsigned device = 0;
};
thread_local Held t_held;

uint32_t Remaining(uint32_t timeoutMs, uint64_t since) {
    if (timeoutMs == kInfinite) return kInfinite;
    const uint64_t spent = (Clock().Now() - since) / 1000;
    return spent >= timeoutMs ? 0 : timeoutMs - static_cast<uint32_t>(spent);
}

/// A place in the line of processes, held for its scope.
///
/// The turnstile file begins with the number of the next place; a place is one byte behind it, and who stands there
/// keeps that byte locked. A newcomer takes the next place and waits for the lock of the place before it: so the line
/// moves in order, however the kernel wakes sleepers, and the places of the dead are free. The locks belong to the open
/// file, not to the process: the kernel would take the wait of one thread for the IPMI lock and of another in the line
/// for a circle.
class Turnstile {
public:
    explicit Turnstile(uint32_t timeoutMs) : Turnstile() {
        TimeLimit limit{};
        MakeLimitTime(&limit, timeoutMs);
        passed_ = g_turnstile && Pass(timeoutMs == kInfinite ? nullptr : &limit);
    }
    /// One thread of this process stands here at a time: whatever is locked is its own.
    ~Turnstile() {
        if (g_turnstile) Apply(F_OFD_SETLK, F_UNLCK, 0, 0);
    }
    Turnstile(const Turnstile&) = delete;
    Turnstile& operator=(const Turnstile&) = delete;
    bool Passed() const { return passed_; }

    /// Whether another process stands in the line.
    static bool OthersInLine() { return Apply(F_OFD_GETLK, F_WRLCK, kFirstPlace, kPlaces) == F_WRLCK; }

private:
    Turnstile() = default;

    static constexpr off_t kCounter = 0;
    static constexpr off_t kFirstPlace = 16;
    static constexpr uint32_t kPlaces = 4096;  // more than will ever wait at once; then they are used again

    static off_t PlaceOf(uint32_t number) { return kFirstPlace + number % kPlaces; }

    bool Pass(const TimeLimit* limit) {
        if (!Lock(kCounter, limit)) return false;
        uint32_t number = 0;
        const bool counted = Count(number);
        g_lineKept = counted;
        if (!counted) return true;
        if (!Lock(PlaceOf(number), limit)) return false;
        Apply(F_OFD_SETLK, F_UNLCK, kCounter, 1);
        const off_t ahead = PlaceOf(number - 1);
        if (!Lock(ahead, limit)) return false;
        Apply(F_OFD_SETLK, F_UNLCK, ahead, 1);
        return true;
    }

    static bool Count(uint32_t& number) {
        if (pread(g_turnstile.Get(), &number, sizeof number, kCounter) != sizeof number) number = 0;  // a new file
        const uint32_t next = number + 1;
        return pwrite(g_turnstile.Get(), &next, sizeof next, kCounter) == sizeof next;
    }

    static bool Lock(off_t offset, const TimeLimit* limit) {
        if (limit == nullptr) return Apply(F_OFD_SETLKW, F_WRLCK, offset, 1) == F_WRLCK;
        while (Apply(F_OFD_SETLK, F_WRLCK, offset, 1) != F_WRLCK) {
            if (LimitPassed(*limit)) return false;
            Sleep(kPollPause);
        }
        return true;
    }

    /// @return the lock type that the kernel answers with, -1 after a failure
    static int Apply(int operation, short type, off_t offset, off_t length) {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_start = offset;
        lock.l_len = length;
        int rc = 0;
        do {
            rc = LockControl(g_turnstile.Get(), operation, &lock);
        } while (rc != 0 && errno == EINTR);
        return rc == 0 ? lock.l_type : -1;
    }

    bool passed_ = false;
};

bool TakeLock(uint32_t timeoutMs) {
    if (t_held.lock > 0) {
        ++t_held.lock;
        return true;
    }
    const uint64_t start = Clock().Now();
    TimeLimit limit{};
    MakeLimitTime(&limit, timeoutMs);
    const Queue::Place place(g_queue, timeoutMs == kInfinite ? nullptr : &limit);
    if (!place) return false;
    const Turnstile turnstile(Remaining(timeoutMs, start));
    if (g_turnstile && !turnstile.Passed()) return false;
    if (!LockFLock(g_hipmilock, Remaining(timeoutMs, start))) return false;
    t_held.lock = 1;
    return true;
}

void ReleaseLock() {
    const CancelBlock block;
    if (t_held.lock == 0 || --t_held.lock > 0) return;
    UnlockFLock(g_hipmilock);
    if (!g_lineKept) Sleep(kPauseAfterUnlock);
}

/// Whether anybody, in this process or another, waits for the lock. Without a line nobody can tell.
bool SomebodyWaits() {
    return !g_lineKept || !g_queue.Empty() || Turnstile::OthersInLine();
}

/// @return what the transport gives, 0 when the device is open already
int OpenDevice() {
    const CancelBlock block;
    if (t_held.device == 0) {
        if (const int rc = Transport().Open(); rc != 0) return rc;
    }
    ++t_held.device;
    return 0;
}

/// The priority flag, set for its scope.
class PriorityFlag {
public:
    PriorityFlag() { IPMIPriorityCtrl(1); }
    ~PriorityFlag() { IPMIPriorityCtrl(0); }
    PriorityFlag(const PriorityFlag&) = delete;
    PriorityFlag& operator=(const PriorityFlag&) = delete;
};

void CloseDevice() {
    const CancelBlock block;
    if (t_held.device > 0 && --t_held.device == 0) Transport().Close();
}

}  // namespace

bool OpenIpmiLock() {
    if (g_hipmilock != nullptr) return true;
    g_hipmilock = OpenFLock(kLockFile);
    if (g_hipmilock == nullptr) return false;
    g_turnstile = FileDescriptor(open(kTurnstileFile, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    g_lineKept = static_cast<bool>(g_turnstile);
    return true;
}

void CloseIpmiLock() {
    g_lineKept = false;
    g_turnstile.Close();
    if (g_hipmilock != nullptr) CloseFLock(std::exchange(g_hipmilock, nullptr));
}

bool IsIpmiLibStarted() {
    return g_hipmilock != nullptr;
}

bool OpenIpmiDriver(int* handle, uint32_t timeoutMs) {
    *handle = kInvalidHandle;
    if (g_hipmilock == nullptr) return false;
    const uint64_t start = Clock().Now();
    for (int retry = 0; retry < kOpenTries; ++retry) {
        PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Try to lock", __func__);
        if (!TakeLock(Remaining(timeoutMs, start))) {
            *handle = g_hipmilock->fd;
            return false;
        }
        const CancelBlock block;
        const int rc = OpenDevice();
        if (rc == 0) {
            PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Lock", __func__);
            *handle = g_hipmilock->fd;
            return true;
        }
        PXR_trace(kMaskIpmi, kLevelCall, "IPMI open fail.  l_nReturn=0x%08X nRetryCount=%d", static_cast<unsigned>(rc),
                  retry);
        ReleaseLock();
        Sleep(kPauseAfterFailedOpen);
    }
    return false;
}

void CloseIpmiDriver(int handle) {
    CloseDevice();
    if (g_hipmilock != nullptr && handle == g_hipmilock->fd) ReleaseLock();
    PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Unlock", __func__);
}

bool OpenIpmiDriverPriority(int* handle, uint32_t timeoutMs) {
    *handle = kInvalidHandle;
    if (g_hipmilock == nullptr) return false;
    const PriorityFlag flag;
    if (!TakeLock(timeoutMs)) return false;
    *handle = g_hipmilock->fd;
    return true;
}

void CloseIpmiDriverPriority(int handle) {
    if (g_hipmilock != nullptr && handle == g_hipmilock->fd) ReleaseLock();
}

void IPMIPriorityCtrl(int on) {
    g_bIPMIPriorityCtrl = on;
}

int IsIPMIPriorityCtrl() {
    return g_bIPMIPriorityCtrl;
}

DeviceInBracket::DeviceInBracket() : open_(OpenDevice() == 0) {}

DeviceInBracket::~DeviceInBracket() {
    if (open_) CloseDevice();
}

IpmiBracket::IpmiBracket(uint32_t timeoutMs) : open_(OpenIpmiDriver(&handle_, timeoutMs)) {}

IpmiBracket::~IpmiBracket() {
    if (open_) CloseIpmiDriver(handle_);
}

bool IpmiBracket::LetOthersIn() {
    if (!open_ || t_held.lock != 1 || !SomebodyWaits()) return open_;
    CloseIpmiDriver(handle_);
    open_ = OpenIpmiDriver(&handle_, kInfinite);
    return open_;
}

}  // namespace ktx_ipmi
