// Running commands: the search path, the child between fork and exec, the wait for its end.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "common/PXR_proc_internal.h"
#include "cover/CancelBlock.h"

namespace {

constexpr char kNice[] = "/bin/nice";
constexpr char kShell[] = "/bin/sh";
constexpr int kNiceMin = -20;
constexpr int kNiceMax = 19;
constexpr int kEndedBySignal = 8;
constexpr unsigned kHighestDescriptorTried = 65536;

// ---- In the child, between fork and exec: async-signal-safe calls only.

void ResetSignals() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &standard, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The host's own descriptors need not be close-on-exec.
void CloseInheritedDescriptors() {
    constexpr unsigned kFirst = STDERR_FILENO + 1;
    if (close_range(kFirst, ~0U, 0) == 0) return;
    for (unsigned fd = kFirst; fd < kHighestDescriptorTried; ++fd)
        close(static_cast<int>(fd));  // kernels before 5.9
}

/// Runs a text file without "#!" line by the shell.
void ExecuteScript(const char* file, char* const argv[]) {
    size_t count = 0;
    while (argv[count] != nullptr)
        ++count;
    const size_t bytes = (count + 3) * sizeof(char*);
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    char** shellArguments = static_cast<char**>(memory);
    char** next = shellArguments;
    *next++ = const_cast<char*>(kShell);
    *next++ = const_cast<char*>(file);
    for (size_t i = 1; i < count; ++i)
        *next++ = argv[i];
    execve(kShell, shellArguments, environ);
}

void ExecuteFile(const char* file, char* const argv[]) {
    execve(file, argv, environ);
    if (errno == ENOEXEC) ExecuteScript(file, argv);
}

bool TriesNextPlace(int error) {
    return error == ENOENT || error == ENOTDIR || error == EACCES || error == ESTALE;
}

/// Returns only on failure, with errno. A file that may not be executed counts more than one that is missing elsewhere.
void ExecuteThroughSearchPath(const char* program, char* const argv[]) {
    if (std::strchr(program, '/') != nullptr) {
        ExecuteFile(program, argv);
        return;
    }
    const char* path = PXR_GetEnvPath();
    if (path == nullptr) {
        errno = ENOMEM;
        return;
    }
    int error = ENOENT;
    char place[PATH_MAX];
    for (SearchPath places(path); places.Next(program, place);) {
        ExecuteFile(place, argv);
        if (!TriesNextPlace(errno)) return;
        if (errno == EACCES) error = EACCES;
    }
    errno = error;
}

[[noreturn]] void BecomeProgram(const ChildPlan& plan) {
    ResetSignals();
    if (plan.detached) {
        if (!DetachStandardStreams()) _exit(errno);
        setsid();
    }
    CloseInheritedDescriptors();
    if (plan.directory != nullptr && chdir(plan.directory) != 0) _exit(errno);
    ExecuteThroughSearchPath(plan.program, plan.argv);
    _exit(errno);
}

// ---- In the parent

const char* SystemSearchPath() {
    const char* path = std::getenv("PATH");
    return path != nullptr ? path : "/bin:/usr/bin";
}

/// 0, or why a file cannot be run as a command.
int CheckExecutable(const char* file) {
    struct stat info {};
    if (access(file, X_OK) != 0 || stat(file, &info) != 0) return errno;
    return S_ISREG(info.st_mode) ? 0 : EACCES;
}

/// {argv[0], "-n", priority, program, argv[1] ...}, or null without memory.
std::unique_ptr<char* []> NiceArguments(const char* priority, const char* program, char* const argv[]) {
    size_t count = 0;
    while (argv[count] != nullptr)
        ++count;
    std::unique_ptr<char*[]> arguments(new (std::nothrow) char*[count + 5]);
    if (!arguments) return nullptr;
    char** next = arguments.get();
    *next++ = argv[0] != nullptr ? argv[0] : const_cast<char*>(program);
    *next++ = const_cast<char*>("-n");
    *next++ = const_cast<char*>(priority);
    *next++ = const_cast<char*>(program);
    for (size_t i = 1; i < count; ++i)
        *next++ = argv[i];
    *next = nullptr;
    return arguments;
}

int RunAndWait(const ChildPlan& plan) {
    const pid_t child = StartChild(plan);
    if (child < 0) return errno;
    int status = 0;
    const int error = WaitForChild(child, status);
    if (error == ECHILD) return 0;  // somebody else took the status of our child: unknown
    if (error != 0) return error;
    return WIFSIGNALED(status) ? kEndedBySignal : WEXITSTATUS(status);
}

/// For a waiter that is cancelled: the child runs on, and what the kernel keeps of its end is taken by a thread that does
/// nothing else.
void LeaveChild(void* child) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread([pid = *static_cast<const pid_t*>(child)] { waitpid(pid, nullptr, 0); }).detach();
    } catch (const std::exception&) {
        // Without a thread it stays until the process ends.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool KernelKeepsNoStatus() {
    struct sigaction current {};
    sigaction(SIGCHLD, nullptr, &current);
    return current.sa_handler == SIG_IGN || (current.sa_flags & SA_NOCLDWAIT) != 0;
}

}  // namespace

bool SearchPath::Next(const char* name, char (&place)[PATH_MAX]) {
    const size_t nameLength = std::strlen(name);
    while (*rest_ != '\0') {
        const char* directory = rest_;
        const size_t length = std::strcspn(directory, ":");
        rest_ += length;
        if (*rest_ == ':') ++rest_;
        if (length == 0 || length + 1 + nameLength >= sizeof(place)) continue;
        std::memcpy(place, directory, length);
        place[length] = '/';
        std::memcpy(place + length + 1, name, nameLength + 1);
        return true;
    }
    return false;
}

bool DetachStandardStreams() {
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fd != stream) {
            dup2(fd, stream);
        } else {
            fcntl(fd, F_SETFD, 0);  // the stream was closed: it stays what has just been opened in its place
        }
    }
    if (fd > STDERR_FILENO) close(fd);
    return true;
}

pid_t StartChild(const ChildPlan& plan) {
    PXR_GetEnvPath();  // taken now: the child must not allocate
    // A handler of the host must not run in the child, nor a cancellation that is on its way to this thread.
    const CancelBlock block;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t child = _Fork();  // runs no fork handlers, so it may interrupt an allocation
    if (child == 0) BecomeProgram(plan);
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return child;
}

int WaitForChild(pid_t child, int& status) {
    // A cancellation can come between the end of the child and the end of the call: the wait takes nothing.
    int error = 0;
    siginfo_t end{};
    pthread_cleanup_push(LeaveChild, &child);
    do {
        error = waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT) == 0 ? 0 : errno;
    } while (error == EINTR);
    pthread_cleanup_pop(0);
    const CancelBlock block;
    status = 0;
    if (error == 0 && waitpid(child, &status, 0) < 0) error = errno;
    return error == ECHILD && KernelKeepsNoStatus() ? 0 : error;
}

extern "C" const char* PXR_GetEnvPath(void) {
    static std::atomic<const char*> stored{nullptr};
    if (const char* path = stored.load()) return path;
    char* copy = strdup(SystemSearchPath());
    const char* first = nullptr;
    if (copy == nullptr || stored.compare_exchange_strong(first, copy)) return copy;
    std::free(copy);
    return first;
}

extern "C" int PXR_exec_command(const char* directory, int priority, const char* program, char* const argv[]) {
    if (program == nullptr) return EINVAL;
    char* const programAlone[] = {const_cast<char*>(program), nullptr};
    if (argv == nullptr) argv = programAlone;
    if (priority != 0) {
        char value[8];
        std::snprintf(value, sizeof(value), "%d", std::clamp(priority, kNiceMin, kNiceMax));
        if (const auto arguments = NiceArguments(value, program, argv)) {
            return RunAndWait({directory, kNice, arguments.get(), true});
        }
    }
    return RunAndWait({directory, program, argv, true});
}

extern "C" int PXR_isexist_command(const char* name) {
    if (name == nullptr) return ENOENT;
    int error = CheckExecutable(name);
    if (error == 0 || *name == '\0' || std::strchr(name, '/') != nullptr) return error;
    const char* path = PXR_GetEnvPath();
    if (path == nullptr) return ENOMEM;
    char place[PATH_MAX];
    for (SearchPath places(path); places.Next(name, place);) {
        error = CheckExecutable(place);
        if (error == 0) return 0;
    }
    return error;
}
