// Processes by the name of their command, and the companion commands of the agent.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/PXR_proc_internal.h"
#include "common/PXR_string_internal.h"
#include "common/PXR_texts.h"
#include "cover/CancelBlock.h"

PXR_companion up_cmds[2] = {
    {"/opt/velmora/lantrel/bin/pxrtraced", 1, 0, nullptr},
    {nullptr, 0, 0, nullptr},
};

namespace {

using std::chrono::milliseconds;

constexpr int kCommandLineMax = 4096;
constexpr int kTermAttempts = 10;
constexpr milliseconds kTermPause{1000};
constexpr milliseconds kEndPoll{10};

/// The processes in /proc, in text order of their ids.
class ProcessEntries {
public:
    ProcessEntries() : count_(scandir("/proc", &entries_, IsProcess, ByName)) {}
    ~ProcessEntries() {
        std::for_each(begin(), end(), std::free);
        std::free(entries_);
    }
    ProcessEntries(const ProcessEntries&) = delete;
    ProcessEntries& operator=(const ProcessEntries&) = delete;

    dirent** begin() const { return entries_; }
    dirent** end() const { return entries_ + std::max(count_, 0); }

private:
    static int IsProcess(const dirent* entry) {
        return entry->d_name[std::strspn(entry->d_name, "0123456789")] == '\0' ? 1 : 0;
    }
    static int ByName(const dirent** a, const dirent** b) { return std::strcmp((*a)->d_name, (*b)->d_name); }

    dirent** entries_ = nullptr;
    int count_;
};

/// May end early.
void Sleep(milliseconds time) {
    const timespec pause{time.count() / 1000, static_cast<long>(time.count() % 1000) * 1'000'000};
    nanosleep(&pause, nullptr);
}

bool IsCommand(std::string_view command, std::string_view name) {
    if (name.starts_with('/')) return command == name;
    if (!command.ends_with(name)) return false;
    const size_t before = command.size() - name.size();
    return before == 0 || command[before - 1] == '/';
}

bool RunsCommand(const char* pid, std::string_view name) {
    char line[kCommandLineMax + 1];
    if (PXR_getcmdname(pid, line, sizeof(line)) != 0) return false;
    const std::string_view words(line);
    const auto end = std::find_if(words.begin(), words.end(), ascii::IsSpace);
    return IsCommand(words.substr(0, static_cast<size_t>(end - words.begin())), name);
}

bool RunsCommand(pid_t pid, std::string_view name) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", pid);
    return RunsCommand(text, name);
}

/// Signals a process unless its id has gone to another command since it was found.
void SignalCommand(pid_t pid, std::string_view name, int signal) {
    if (RunsCommand(pid, name)) kill(pid, signal);
}

void WaitForEnd(pid_t pid, std::string_view name, milliseconds patience) {
    for (milliseconds waited{0}; waited < patience && RunsCommand(pid, name); waited += kEndPoll) {
        Sleep(std::min(kEndPoll, patience - waited));
    }
}

const char* NameOf(const PXR_companion& command) {
    return command.base != nullptr ? command.base : command.path;
}

void StartCompanion(const PXR_companion& command) {
    pid_t running = 0;
    if (PXR_getpid(NameOf(command), &running, 1) > 0) {
        texts::Print<texts::Id::CompanionRuns>(stderr, command.path);
        if (command.signal != 0) SignalCommand(running, NameOf(command), command.signal);
        return;
    }
    char* const argv[] = {const_cast<char*>(command.path), nullptr};
    if (PXR_exec_command(nullptr, 0, command.path, argv) != 0) {
        texts::Print<texts::Id::CompanionNotStarted>(stderr, command.path);
    }
}

}  // namespace

void TerminateCompanion(const PXR_companion& command, milliseconds pause) {
    const std::string_view name = NameOf(command);
    pid_t running = 0;
    for (int attempt = 0; attempt < kTermAttempts; ++attempt) {
        if (PXR_getpid(name.data(), &running, 1) == 0) return;
        SignalCommand(running, name, SIGTERM);
        WaitForEnd(running, name, pause);
    }
    if (PXR_getpid(name.data(), &running, 1) > 0) SignalCommand(running, name, SIGKILL);
}

extern "C" int PXR_getpid(const char* name, pid_t* pids, int max) {
    if (name == nullptr || *name == '\0') return 0;
    int count = 0;
    for (const dirent* entry : ProcessEntries()) {
        if (!RunsCommand(entry->d_name, name)) continue;
        if (pids != nullptr && count < max) pids[count] = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        ++count;
    }
    return count;
}

extern "C" int PXR_getcmdname(const char* pid, char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return 1;
    buffer[0] = '\0';
    if (pid == nullptr || std::strchr(pid, '/') != nullptr) return 1;
    char path[PATH_MAX];
    const int length = std::snprintf(path, sizeof(path), "%s/%s/%s", "/proc", pid, "cmdline");
    if (length >= PATH_MAX) return 1;
    const CancelBlock whileOpen;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 1;
    ssize_t got = 0;
    while ((got = read(fd, buffer, static_cast<size_t>(size) - 1)) < 0 && errno == EINTR) {
    }
    close(fd);
    if (got <= 0) return 1;
    buffer[got] = '\0';
    if (void* lineEnd = std::memchr(buffer, '\n', static_cast<size_t>(got))) *static_cast<char*>(lineEnd) = '\0';
    return 0;
}

extern "C" void PXR_set_cmdname(void) {
    for (PXR_companion* command = up_cmds; command->path != nullptr; ++command) {
        const char* slash = std::strrchr(command->path, '/');
        command->base = slash != nullptr ? slash + 1 : command->path;
    }
}

extern "C" void PXR_startup_cmd(void) {
    for (const PXR_companion* command = up_cmds; command->path != nullptr; ++command)
        StartCompanion(*command);
}

extern "C" void PXR_term_cmds(void) {
    for (const PXR_companion* command = up_cmds; command->path != nullptr; ++command) {
        if (command->terminate != 0) TerminateCompanion(*command, kTermPause);
    }
}
