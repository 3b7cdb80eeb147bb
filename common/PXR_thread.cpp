// Workers: start, wake-up, sleep and end of a thread with a queue of actions.
//
// An object's lock is a valid one from its first zero byte on and is never made, destroyed or overwritten: whoever
// sends a late wake-up may hold it or be queued on it while the worker ends, and while the next one begins.

#include "libplatform/PXR_thread.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"

namespace {

using std::chrono::steady_clock;

constexpr int kStopWanted = -1;
constexpr int kNothingQueued = 0;
constexpr int kActionQueued = 1;

// How long PXR_thread_stop tries to get the worker's lock before it cancels without it, and how long it then waits for
// the thread to end.
constexpr int kLockAttempts = 10;
constexpr timespec kLockPause{0, 1'000'000};
constexpr timespec kStopPatience{0, 500'000'000};

timespec operator+(const timespec& a, const timespec& b) {
    constexpr long kSecond = 1'000'000'000;
    timespec sum{a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec};
    if (sum.tv_nsec >= kSecond) {
        ++sum.tv_sec;
        sum.tv_nsec -= kSecond;
    }
    return sum;
}

timespec MonotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

PXR_timeval TimeSince(steady_clock::time_point begin) {
    constexpr int64_t kSecond = 1'000'000;
    const int64_t spent = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - begin).count();
    return {static_cast<int32_t>(spent / kSecond), static_cast<int32_t>(spent % kSecond)};
}

/// One whole second, whatever signals arrive. A cancellation point.
void SleepOneSecond() {
    const timespec end = MonotonicNow() + timespec{1, 0};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

class Locked {
public:
    explicit Locked(PXR_thread& worker) : lock_(worker.lock) { pthread_mutex_lock(&lock_); }
    ~Locked() { pthread_mutex_unlock(&lock_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pthread_mutex_t& lock_;
};

void Unlock(void* mutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex));
}

/// Frees what the object owns, and with it the object. Called under the lock, when there is no thread.
void Release(PXR_thread& worker) {
    pthread_cond_destroy(&worker.wake);
    worker.wake = PTHREAD_COND_INITIALIZER;
    std::free(worker.queue);
    worker.queue = nullptr;
    worker.thread = 0;
    worker.state = worker.capacity = worker.head = worker.tail = 0;
    __atomic_store_n(&worker.marker, 0, __ATOMIC_RELEASE);
}

bool IsInUse(const PXR_thread& worker) {
    const uint32_t marker = __atomic_load_n(&worker.marker, __ATOMIC_ACQUIRE);
    return marker == PXR_THREAD_ALIVE || marker == PXR_THREAD_TEARDOWN;
}

/// What a new thread is to run; read before the routine starts, so it may be its creator's.
struct Start {
    PXR_thread* worker;
    void* (*routine)(void*);
};

/// The last that a worker's thread does, however it ends: what it still holds nobody else could give back.
void GiveLockBack(void* lock) {
    auto* const mutex = static_cast<pthread_mutex_t*>(lock);
    if (mutex->__data.__owner == gettid()) pthread_mutex_unlock(mutex);
}

void* RunRoutine(void* argument) {
    const Start start = *static_cast<Start*>(argument);
    void* result = nullptr;
    pthread_cleanup_push(GiveLockBack, &start.worker->lock);
    result = start.routine(start.worker);
    pthread_cleanup_pop(1);
    return result;
}

/// Makes a free object a worker and waits for the routine's report. Called under the lock, which is held until the
/// wait, so that the worker cannot signal before it.
/// @return false when there is no memory or no thread
bool Launch(PXR_thread& worker, void* (*routine)(void*)) {
    pthread_cond_init(&worker.wake, nullptr);
    worker.queue = static_cast<uint32_t*>(std::calloc(PXR_THREAD_QUEUE_SLOTS, sizeof(uint32_t)));
    if (worker.queue == nullptr) return false;
    worker.capacity = PXR_THREAD_QUEUE_SLOTS;
    worker.head = worker.tail = 0;
    worker.state = PXR_THREAD_STARTING;
    __atomic_store_n(&worker.marker, PXR_THREAD_ALIVE, __ATOMIC_RELEASE);
    Start start{&worker, routine};
    if (pthread_create(&worker.thread, nullptr, RunRoutine, &start) != 0) return false;
    while (worker.state == PXR_THREAD_STARTING)
        pthread_cond_wait(&worker.wake, &worker.lock);
    return true;
}

bool AcceptsActions(const PXR_thread& worker) {
    return worker.marker == PXR_THREAD_ALIVE && worker.state != PXR_THREAD_STOPPING &&
           worker.state != PXR_THREAD_FAILED;
}

bool MayGoToSleep(const PXR_thread& worker) {
    return worker.head == worker.tail && worker.state != PXR_THREAD_STOPPING;
}

int LeaveSleep(PXR_thread& worker) {
    if (worker.state == PXR_THREAD_STOPPING) return kStopWanted;
    worker.state = PXR_THREAD_RUNNING;
    return worker.head != worker.tail ? kActionQueued : kNothingQueued;
}

/// Gives the lock away for one second. Cancelled, the thread leaves without the lock.
void SleepStep(PXR_thread& worker) {
    pthread_mutex_unlock(&worker.lock);
    SleepOneSecond();
    pthread_mutex_lock(&worker.lock);
}

bool IsSelf(const PXR_thread& worker) {
    return pthread_equal(worker.thread, pthread_self()) != 0;
}

/// Makes the calling thread the one that ends the worker. Called under the lock; the marker decides also without it.
/// @return false when there is no worker, or another thread ends it already
bool ClaimEnd(PXR_thread& worker) {
    uint32_t marker = PXR_THREAD_ALIVE;
    return worker.state != PXR_THREAD_STARTING &&
           __atomic_compare_exchange_n(&worker.marker, &marker, PXR_THREAD_TEARDOWN, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE);
}

int ReleaseEnded(PXR_thread& worker) {
    const Locked locked(worker);
    Release(worker);
    return 0;
}

uint32_t Create(PXR_thread& worker, void* (*routine)(void*)) {
    constexpr uint32_t kInUse = MakeResult(fn::kThreadCreate, Reason::ThreadAlive);
    constexpr uint32_t kNoThread = MakeResult(fn::kThreadCreate, Reason::OutOfMemory);
    constexpr uint32_t kRefused = MakeResult(fn::kThreadCreate, Reason::ThreadStart);
    if (IsInUse(worker)) return kInUse;  // the lock of a worker that was left behind may never come back
    {
        const Locked locked(worker);
        if (IsInUse(worker)) return kInUse;
        if (!Launch(worker, routine)) {
            Release(worker);
            return kNoThread;
        }
        if (worker.state != PXR_THREAD_FAILED) return 0;
        if (!ClaimEnd(worker)) return kRefused;
    }
    pthread_join(worker.thread, nullptr);
    ReleaseEnded(worker);
    return kRefused;
}

/// Gets the lock of a worker that may hold it for ever.
bool LockPatiently(PXR_thread& worker) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        if (pthread_mutex_trylock(&worker.lock) == 0) return true;
        clock_nanosleep(CLOCK_MONOTONIC, 0, &kLockPause, nullptr);
    }
    return false;
}

}  // namespace

extern "C" uint32_t PXR_thread_create(PXR_thread* worker, void* (*start)(void*)) {
    if (worker == nullptr || start == nullptr) {
        return PXR_ReportError(MakeResult(fn::kThreadCreate, Reason::NullArgument));
    }
    const CancelBlock block;
    const uint32_t code = Create(*worker, start);
    return code == 0 ? 0 : PXR_ReportError(code);
}

extern "C" uint32_t PXR_thread_wakeup(PXR_thread* worker, uint32_t action) {
    if (worker == nullptr) return PXR_ReportError(MakeResult(fn::kThreadWakeup, Reason::NullArgument));
    bool queued = true;
    {
        const Locked locked(*worker);
        if (AcceptsActions(*worker)) {
            const bool asleep = worker->state == PXR_THREAD_SLEEPING;
            // A creator waits for the end of the start, which only the routine reports.
            if (worker->state != PXR_THREAD_STARTING) worker->state = PXR_THREAD_WOKEN;
            queued = PXR_AppendAction(*worker, action);
            if (asleep) pthread_cond_signal(&worker->wake);
        }
    }
    return queued ? 0 : PXR_ReportError(MakeResult(fn::kThreadWakeup, Reason::OutOfMemory));
}

extern "C" int PXR_thread_sleep(PXR_thread* worker) {
    if (worker == nullptr) return kStopWanted;
    if (MayGoToSleep(*worker)) {
        worker->state = PXR_THREAD_SLEEPING;
        // A cancelled wait takes the lock again; the routine's own clean-up is to find it free.
        pthread_cleanup_push(Unlock, &worker->lock);
        pthread_cond_wait(&worker->wake, &worker->lock);
        pthread_cleanup_pop(0);
    }
    return LeaveSleep(*worker);
}

extern "C" int PXR_thread_sleep_ontime(PXR_thread* worker, const PXR_timeval* until) {
    if (worker == nullptr) return kStopWanted;
    if (until != nullptr && MayGoToSleep(*worker)) {
        const int64_t last = static_cast<uint32_t>(until->tv_sec);
        worker->state = PXR_THREAD_SLEEPING;
        for (int64_t now = std::time(nullptr); now <= last && MayGoToSleep(*worker); ++now)
            SleepStep(*worker);
    }
    return LeaveSleep(*worker);
}

extern "C" int PXR_thread_sleep_time(PXR_thread* worker, PXR_timeval* duration) {
    if (worker == nullptr) return kStopWanted;
    if (duration == nullptr) return LeaveSleep(*worker);
    const int32_t seconds = duration->tv_sec;
    *duration = PXR_timeval{};
    if (seconds >= 0 && MayGoToSleep(*worker)) {
        const auto begin = steady_clock::now();
        worker->state = PXR_THREAD_SLEEPING;
        for (int64_t steps = 0; steps <= seconds && MayGoToSleep(*worker); ++steps)
            SleepStep(*worker);
        *duration = TimeSince(begin);
    }
    return LeaveSleep(*worker);
}

extern "C" int PXR_thread_destroy(PXR_thread* worker) {
    if (worker == nullptr || IsSelf(*worker)) return -1;
    const CancelBlock block;
    {
        const Locked locked(*worker);
        if (!ClaimEnd(*worker)) return -1;
        const bool asleep = worker->state == PXR_THREAD_SLEEPING;
        worker->state = PXR_THREAD_STOPPING;
        if (asleep) pthread_cond_signal(&worker->wake);
    }
    pthread_join(worker->thread, nullptr);
    return ReleaseEnded(*worker);
}

extern "C" int PXR_thread_stop(PXR_thread* worker) {
    if (worker == nullptr || IsSelf(*worker)) return -1;
    const CancelBlock block;
    // A worker that is stuck may hold its lock until it ends.
    const bool locked = LockPatiently(*worker);
    const bool claimed = ClaimEnd(*worker);
    if (claimed) pthread_cancel(worker->thread);
    if (locked) pthread_mutex_unlock(&worker->lock);
    if (!claimed) return -1;

    const timespec deadline = MonotonicNow() + kStopPatience;
    if (pthread_clockjoin_np(worker->thread, nullptr, CLOCK_MONOTONIC, &deadline) != 0) {
        pthread_detach(worker->thread);
        PXR_ReportError(MakeResult(fn::kThreadStop, Reason::ThreadStuck));
        return -1;
    }
    return ReleaseEnded(*worker);
}
