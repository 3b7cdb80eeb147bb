// Jobs for the main thread: asked for by any thread, run by the one that the host gives.

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>

#include "common/PXR_proc_internal.h"
#include "cover/CancelBlock.h"
#include "libplatform/PXR_syscall.h"

namespace {

constexpr int kNoJob = 0;
constexpr timespec kDonePoll{0, 10'000'000};

/// Values of the completion flag.
enum Completion : uint8_t { kAsked = 0, kDone = 1, kRunning = 2 };

/// The one job of the process. `lock` belongs to the thread that asks, from its request to its answer; the main thread
/// takes no lock (it may be inside a signal handler). With `done`, kind and data go to the main thread and come back.
struct MainJob {
    pid_t pid;  ///< process whose main thread runs the jobs; 0 none
    std::mutex lock;
    int kind;
    std::atomic<uint8_t> done;
    uint8_t data[PXR_JOB_DATA_SIZE];
};
static_assert(std::atomic<uint8_t>::is_always_lock_free);

MainJob g_tJob;
std::atomic<bool> jobInitialised{false};

/// Takes the job that waits. It is run once, however many signals come, and a signal from elsewhere takes none.
bool TakeJob() {
    uint8_t asked = kAsked;
    return g_tJob.done.compare_exchange_strong(asked, kRunning);
}

void CompleteJob() {
    g_tJob.kind = kNoJob;
    g_tJob.done = kDone;
}

/// Takes back a job that nobody runs. @return false when the main thread has it
bool Withdraw() {
    if (!TakeJob()) return false;
    CompleteJob();
    return true;
}

void Run(PXR_job_execute& job) {
    if (job.program == nullptr || job.argv == nullptr) return;
    job.pid = StartChild({job.directory, job.program, job.argv, true});
}

void Run(PXR_job_wait& job) {
    if (job.pid <= 0) return;
    job.result = WaitForChild(job.pid, job.status) == 0 ? job.pid : -1;
}

/// As system(), but without a change of the process's own signal handling, which belongs to the host.
void Run(PXR_job_shell& job) {
    job.result = -1;
    if (job.command == nullptr) return;
    char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(job.command), nullptr};
    const pid_t child = StartChild({nullptr, "/bin/sh", argv, false});
    int status = 0;
    if (child < 0) return;
    const int error = WaitForChild(child, status);
    if (error == 0 || error == ECHILD) job.result = status;
}

template <typename Job>
void RunOn(uint8_t* data) {
    Job job;
    std::memcpy(&job, data, sizeof(job));
    Run(job);
    std::memcpy(data, &job, sizeof(job));
}

void RunJob(int kind, uint8_t* data) {
    switch (kind) {
        case PXR_JOB_EXECUTE:
            return RunOn<PXR_job_execute>(data);
        case PXR_JOB_WAIT:
            return RunOn<PXR_job_wait>(data);
        case PXR_JOB_SHELL:
            return RunOn<PXR_job_shell>(data);
        default:
            return;
    }
}

/// Without a handler the signal would end the process, or the answer would never come.
bool HostHandlesJobSignal() {
    struct sigaction current {};
    sigaction(SIGUSR1, nullptr, &current);
    return current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
}

void RunHere(int kind, void* data, size_t size) {
    uint8_t record[PXR_JOB_DATA_SIZE] = {};
    std::memcpy(record, data, size);
    RunJob(kind, record);
    std::memcpy(data, record, size);
}

bool RunInMainThread(int kind, void* data, size_t size) {
    const CancelBlock block;  // the main thread works on what this thread owns
    const std::lock_guard guard(g_tJob.lock);
    std::memset(g_tJob.data, 0, sizeof(g_tJob.data));
    std::memcpy(g_tJob.data, data, size);
    g_tJob.kind = kind;
    g_tJob.done = kAsked;
    if (kill(g_tJob.pid, SIGUSR1) != 0 && Withdraw()) return false;
    while (g_tJob.done != kDone) {
        nanosleep(&kDonePoll, nullptr);
        // A main thread that ends the process has left its signal loop, perhaps to wait for this very thread.
        if (IsTerminateProcess() != 0 && Withdraw()) return false;
    }
    std::memcpy(data, g_tJob.data, size);
    return true;
}

}  // namespace

extern "C" void __for_main__init_job(void) {
    PXR_GetEnvPath();  // a job must not allocate
    g_tJob.pid = getpid();
    g_tJob.done = kDone;
    jobInitialised = true;
}

extern "C" void __for_main__dispatch_job(void) {
    if (!TakeJob()) return;
    const int error = errno;
    RunJob(g_tJob.kind, g_tJob.data);
    CompleteJob();
    errno = error;
}

extern "C" int mainjob_wait(int kind, void* data, int size) {
    // A forked child has the record but not its main thread: the signal would go to the parent.
    if (!jobInitialised || g_tJob.pid != getpid()) return 0;
    if (data == nullptr || size < 0 || size > PXR_JOB_DATA_SIZE) return 0;
    if (gettid() == g_tJob.pid) {
        RunHere(kind, data, static_cast<size_t>(size));
        return 1;
    }
    if (!HostHandlesJobSignal()) return 0;
    return RunInMainThread(kind, data, static_cast<size_t>(size)) ? 1 : 0;
}
