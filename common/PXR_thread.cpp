#include "libplatform/PXR_thread.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"

namespace {

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

/// One whole second, whatever signals arrive. A cancellation point.
void SleepOneSecond() {
    const timespec end = MonotonicNow() + timespec{1, 0};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

/// Called when the thread has ended.
void ReleaseResources(PXR_thread& worker) {
    pthread_cond_destroy(&worker.wake);
    pthread_mutex_destroy(&worker.lock);  // a cancelled thread may have ended with the lock; it goes all the same
    std::free(worker.queue);
    worker = PXR_thread{};  // a zeroed mutex can be locked: a late wake-up finds a free object and nothing else
}

bool Prepare(PXR_thread& worker) {
    worker = PXR_thread{};
    worker.marker = PXR_THREAD_ALIVE;
    worker.state = PXR_THREAD_STARTING;
    worker.capacity = PXR_THREAD_QUEUE_SLOTS;
    worker.queue = static_cast<uint32_t*>(std::calloc(worker.capacity, sizeof(uint32_t)));
    pthread_mutex_init(&worker.lock, nullptr);
    pthread_cond_init(&worker.wake, nullptr);
    return worker.queue != nullptr;
}

/// Starts the thread and waits for its report.
/// @return false when there is no thread
bool Launch(PXR_thread& worker, void* (*start)(void*)) {
    pthread_mutex_lock(&worker.lock);  // held until the wait, so the worker cannot signal before it
    const bool launched = pthread_create(&worker.thread, nullptr, start, &worker) == 0;
    while (launched && worker.state == PXR_THREAD_STARTING)
        pthread_cond_wait(&worker.wake, &worker.lock);
    pthread_mutex_unlock(&worker.lock);
    return launched;
}

bool HasReportedFailure(PXR_thread& worker) {
    pthread_mutex_lock(&worker.lock);
    const bool failed = worker.state == PXR_THREAD_FAILED;
    pthread_mutex_unlock(&worker.lock);
    return failed;
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

void Unlock(void* mutex) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex));
}

/// Gives the lock away for one second. Cancelled, the thread leaves without the lock.
void SleepStep(PXR_thread& worker) {
    pthread_mutex_unlock(&worker.lock);
    SleepOneSecond();
    pthread_mutex_lock(&worker.lock);
}

/// Can this thread end that worker? Called with the worker's lock held.
bool MayEnd(const PXR_thread& worker) {
    return worker.marker == PXR_THREAD_ALIVE && pthread_equal(worker.thread, pthread_self()) == 0;
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
    if (worker->marker == PXR_THREAD_ALIVE || worker->marker == PXR_THREAD_TEARDOWN) {
        return PXR_ReportError(MakeResult(fn::kThreadCreate, Reason::ThreadAlive));
    }
    const CancelBlock block;
    if (!Prepare(*worker) || !Launch(*worker, start)) {
        ReleaseResources(*worker);
        return PXR_ReportError(MakeResult(fn::kThreadCreate, Reason::OutOfMemory));
    }
    if (HasReportedFailure(*worker)) {
        pthread_join(worker->thread, nullptr);
        ReleaseResources(*worker);
        return PXR_ReportError(MakeResult(fn::kThreadCreate, Reason::ThreadStart));
    }
    return 0;
}

extern "C" uint32_t PXR_thread_wakeup(PXR_thread* worker, uint32_t action) {
    if (worker == nullptr) return PXR_ReportError(MakeResult(fn::kThreadWakeup, Reason::NullArgument));
    bool queued = true;
    pthread_mutex_lock(&worker->lock);
    if (AcceptsActions(*worker)) {
        const bool asleep = worker->state == PXR_THREAD_SLEEPING;
        worker->state = PXR_THREAD_WOKEN;
        queued = PXR_AppendAction(*worker, action);
        if (asleep) pthread_cond_signal(&worker->wake);
    }
    pthread_mutex_unlock(&worker->lock);
    return queued ? 0 : PXR_ReportError(MakeResult(fn::kThreadWakeup, Reason::OutOfMemory));
}

extern "C" int PXR_thread_sleep(PXR_thread* worker) {
    if (worker == nullptr) return kStopWanted;
    if (MayGoToSleep(*worker)) {
        worker->state = PXR_THREAD_SLEEPING;
        // A cancelled wait takes the lock again before the thread ends; nobody could have it afterwards.
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
        const timespec begin = MonotonicNow();
        worker->state = PXR_THREAD_SLEEPING;
        for (int64_t steps = 0; steps <= seconds && MayGoToSleep(*worker); ++steps)
            SleepStep(*worker);
        const timespec end = MonotonicNow();
        duration->tv_sec = static_cast<int32_t>(end.tv_sec - begin.tv_sec);
        duration->tv_usec = static_cast<int32_t>((end.tv_nsec - begin.tv_nsec) / 1000);
        if (duration->tv_usec < 0) {
            --duration->tv_sec;
            duration->tv_usec += 1'000'000;
        }
    }
    return LeaveSleep(*worker);
}

extern "C" int PXR_thread_destroy(PXR_thread* worker) {
    if (worker == nullptr) return -1;
    const CancelBlock block;
    pthread_mutex_lock(&worker->lock);
    const bool mayEnd = MayEnd(*worker);
    if (mayEnd) {
        const bool asleep = worker->state == PXR_THREAD_SLEEPING;
        worker->marker = PXR_THREAD_TEARDOWN;
        worker->state = PXR_THREAD_STOPPING;
        if (asleep) pthread_cond_signal(&worker->wake);
    }
    pthread_mutex_unlock(&worker->lock);
    if (!mayEnd) return -1;
    pthread_join(worker->thread, nullptr);
    ReleaseResources(*worker);
    return 0;
}

extern "C" int PXR_thread_stop(PXR_thread* worker) {
    if (worker == nullptr) return -1;
    const CancelBlock block;
    // A worker that is stuck may hold its lock for ever. Nothing but the marker is touched without it.
    const bool locked = LockPatiently(*worker);
    const bool mayEnd = MayEnd(*worker);
    if (mayEnd) {
        __atomic_store_n(&worker->marker, PXR_THREAD_TEARDOWN, __ATOMIC_RELEASE);
        pthread_cancel(worker->thread);
    }
    if (locked) pthread_mutex_unlock(&worker->lock);
    if (!mayEnd) return -1;

    const timespec deadline = MonotonicNow() + kStopPatience;
    if (pthread_clockjoin_np(worker->thread, nullptr, CLOCK_MONOTONIC, &deadline) != 0) {
        pthread_detach(worker->thread);
        PXR_ReportError(MakeResult(fn::kThreadStop, Reason::ThreadStuck));
        return -1;
    }
    ReleaseResources(*worker);
    return 0;
}
