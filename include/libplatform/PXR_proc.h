#pragma once
/// @file
/// Processes: becoming a daemon, single-instance locks, finding and ending processes by command name, running commands,
/// and having the main thread do what only it may do.
///
/// Every child that is started here begins with default signal handling, an empty signal mask and no descriptors but
/// the standard ones. Programs without "/" in their name are looked up in the stored search path.
///
/// Any thread may call, with these exceptions: PXR_daemon is for a process that has one thread (others do not live on
/// in the child); the companion commands (PXR_set_cmdname, PXR_startup_cmd, PXR_term_cmds) are one thread's business at
/// a time; __for_main__init_job and __for_main__dispatch_job are the main thread's.

#include <sys/types.h>

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// The stored search path: the PATH that the process had at the first use of this module (the system's default path if
/// it had none), directories separated by ":". An empty element does not mean the working directory: the agent runs as
/// root. The text is the library's, for good. Null when memory ran out.
KV_EXPORT const char* PXR_GetEnvPath(void);

/// Turns the process into a daemon: continues in a child with its standard streams at /dev/null, in a session of its
/// own. The calling process ends at once with status 0, or 1 when there is no child. Locks of PXR_lock_cmd go with the
/// child; __for_main__init_job must be called again in it.
/// @return 0, in the child
KV_EXPORT int PXR_daemon(void);

/// Keeps a second instance of a command away: makes the file (mode 0600; an existing one is emptied) and locks it,
/// without waiting. The lock lasts until PXR_unlock_cmd or the end of the process.
/// @return descriptor; -1 when the file cannot be made or is locked already
KV_EXPORT int PXR_lock_cmd(const char* path);

/// Drops the lock and removes the file.
/// @param fd  from PXR_lock_cmd, closed by the call
/// @return 0; -1 when the file could not be removed
KV_EXPORT int PXR_unlock_cmd(const char* path, int fd);

/// Finds the processes that run a command. The command of a process is the first word of its command line.
/// @param name  with a leading "/": the whole command; else its last part ("pxrtraced", "bin/pxrtraced")
/// @param pids  receives the first `max` process ids, in the text order of /proc ("10" before "9"); may be null if max
///              is 0
/// @return number of all such processes, which may exceed `max`
KV_EXPORT int PXR_getpid(const char* name, pid_t* pids, int max);

/// The first line of a process's command line; its words are separated by NUL, so the buffer begins with the command.
/// @param pid  the process id as text
/// @return 0; 1 when there is no such process (any more) or it has no command line
KV_EXPORT int PXR_getcmdname(const char* pid, char* buffer, int size);

/// Fills in the base names of the table of companion commands. Call it once, before the next two.
KV_EXPORT void PXR_set_cmdname(void);

/// Starts the companion commands (the trace daemon) that do not run yet. A command that cannot be started, or runs
/// already, is named on standard error.
KV_EXPORT void PXR_startup_cmd(void);

/// Ends the companion commands: SIGTERM, up to ten times with a second in between, then SIGKILL.
KV_EXPORT void PXR_term_cmds(void);

/// Runs a program and waits for it. It runs in a session of its own, its standard streams at /dev/null. When the thread is
/// cancelled in the wait, the program runs on.
/// @param directory  where it runs; null: here
/// @param priority   0: as it is; else it is run through /bin/nice with this value, cut to -20 .. 19
/// @param argv       ended by null, the first element being the program's own name; null: just the program
/// @return the exit status, 8 when a signal ended the program, or the errno of a fork or wait that failed. A directory
///         or program that cannot be used also shows as its errno. 0 when the host's handling of SIGCHLD loses the
///         status.
KV_EXPORT int PXR_exec_command(const char* directory, int priority, const char* program, char* const argv[]);

/// Can a command be run?
/// @return 0 yes; 2 null name; 12 no memory; else the errno of the last place looked at
KV_EXPORT int PXR_isexist_command(const char* name);

/// What the main thread can be asked to do; each kind has its record.
enum PXR_job_kind {
    PXR_JOB_EXECUTE = 1,  ///< fork and execute, without waiting
    PXR_JOB_WAIT = 2,     ///< wait for a child
    PXR_JOB_SHELL = 3     ///< run a shell command and wait for it
};

typedef struct PXR_job_execute {
    const char* directory;  ///< null: none
    const char* program;
    char* const* argv;
    pid_t pid;  ///< out: the child, or -1; not touched when program or argv is null
} PXR_job_execute;

typedef struct PXR_job_wait {
    pid_t pid;     ///< must be positive, else nothing is done
    pid_t result;  ///< out: pid, or -1
    int status;    ///< out: as from waitpid; 0 when SIGCHLD is ignored, where the kernel keeps no status
} PXR_job_wait;

typedef struct PXR_job_shell {
    const char* command;
    int result;  ///< out: the shell's wait status, or -1
} PXR_job_shell;

#define PXR_JOB_DATA_SIZE 16

KV_STATIC_ASSERT(sizeof(PXR_job_execute) == PXR_JOB_DATA_SIZE && offsetof(PXR_job_execute, pid) == 12);
KV_STATIC_ASSERT(sizeof(PXR_job_wait) == 12 && offsetof(PXR_job_wait, status) == 8);
KV_STATIC_ASSERT(sizeof(PXR_job_shell) == 8 && offsetof(PXR_job_shell, result) == 4);

/// Called once by the main thread, before any job is asked for.
KV_EXPORT void __for_main__init_job(void);

/// Runs the job that waits, if any. The host's main thread calls it on SIGUSR1, from the signal handler or after it;
/// nothing in here allocates or locks.
KV_EXPORT void __for_main__dispatch_job(void);

/// Has the main thread run a job, and waits for it; jobs of several threads queue up. The main thread itself runs it at
/// once.
/// @param kind  a PXR_job_kind
/// @param data  the record of that kind, in and out
/// @param size  of the record, at most PXR_JOB_DATA_SIZE
/// @return 1 when the job ran; 0 when it did not: no main thread registered in this process, a record too large, a SIGUSR1
///         that the host does not handle, or a process that terminates (SetTerminateProcess) and whose main thread takes
///         no job any more
KV_EXPORT int mainjob_wait(int kind, void* data, int size);

KV_EXTERN_C_END
