#pragma once
/// @file
/// What the files of PXR_proc share.

#include <chrono>
#include <climits>
#include <cstddef>

#include "libplatform/PXR_proc.h"

/// A command that lives and dies with the agent.
struct PXR_companion {
    const char* path;
    int terminate;     ///< 1: ended by PXR_term_cmds
    int signal;        ///< sent at start to one that runs already; 0 none
    const char* base;  ///< path behind the last "/", see PXR_set_cmdname
};
static_assert(sizeof(PXR_companion) == 16);

/// Ended by an entry with a null path.
extern "C" PXR_companion up_cmds[2];

/// Ends one command, with this pause between the attempts.
void TerminateCompanion(const PXR_companion& command, std::chrono::milliseconds pause);

/// Walks the stored search path. Allocates nothing.
class SearchPath {
public:
    explicit SearchPath(const char* path) : rest_(path) {}
    /// The next place of a command; places that do not fit are left out.
    bool Next(const char* name, char (&place)[PATH_MAX]);

private:
    const char* rest_;
};

/// What a child shall become.
struct ChildPlan {
    const char* directory;  ///< null: stays here
    const char* program;
    char* const* argv;
    bool detached;  ///< standard streams at /dev/null, a session of its own
};

/// Forks and executes. Safe in a signal handler once PXR_GetEnvPath has been called. The child exits with the errno of
/// the step that fails.
/// @return process id, or -1 with errno
pid_t StartChild(const ChildPlan& plan);

/// Waits for one child.
/// @param status  0 when SIGCHLD is ignored or somebody else took the status
/// @return 0 or errno; ECHILD when there is no such child
int WaitForChild(pid_t child, int& status);

/// Points the standard streams at /dev/null. @return false with errno
bool DetachStandardStreams();
