#include "libplatform/PXR_proc.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/PXR_proc_internal.h"
#include "libplatform/PXR_syscall.h"
#include "simulator/MachineRoot.h"
#include "tests/support/BuildTree.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/Eventually.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

/// Stands first in the search path that the process stores.
const TempDirectory searchedFirst;
const bool isSearched = [] {
    const std::string usual = getenv("PATH");
    return setenv("PATH", (searchedFirst.Path("") + ":" + usual).c_str(), 1) == 0;
}();

/// A directory of the test's own, and the children that it leaves.
class PxrProc : public testing::Test {
protected:
    void TearDown() override {
        for (const pid_t child : children_) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    std::string Path(const std::string& name) const { return directory_.Path(name); }

    /// A child that runs body and ends with what it returns.
    pid_t Fork(const std::function<int()>& body) {
        const pid_t child = fork();
        if (child == 0) _exit(body());
        children_.push_back(child);
        return child;
    }
    /// Exit status of a child, or 256 plus its signal.
    int Join(pid_t child) {
        std::erase(children_, child);
        return WaitForExit(child);
    }
    /// A process whose command is this text.
    pid_t Spawn(const std::string& command, bool ignoresTerm = false) {
        int ready[2];
        EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
        const pid_t child = Fork([&] {
            if (ignoresTerm) signal(SIGTERM, SIG_IGN);
            execl("/bin/sleep", command.c_str(), "100", nullptr);
            return 1;
        });
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(0, read(ready[0], &byte, 1)) << "closed by the exec";
        close(ready[0]);
        return child;
    }
    void WriteScript(const std::string& name, const std::string& text, fs::perms mode = fs::perms::owner_all) {
        fs::permissions(directory_.AddFile(name, text), mode);
    }

    const std::string self_ = std::to_string(getpid());
    const std::string unique_ = "kvproc" + self_;  // no other process of the machine is called so
    const TempDirectory directory_;
    std::vector<pid_t> children_;
};

// ---- Lock files

TEST_F(PxrProc, LockKeepsASecondInstanceAway) {
    const std::string path = directory_.AddFile("lock", "left over");
    const int fd = PXR_lock_cmd(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0u, fs::file_size(path));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(-1, PXR_lock_cmd(path.c_str())) << "in this process";
    EXPECT_EQ(1, Join(Fork([&] { return PXR_lock_cmd(path.c_str()) == -1 ? 1 : 0; }))) << "in another one";
    EXPECT_EQ(0, PXR_unlock_cmd(path.c_str(), fd));
    EXPECT_FALSE(fs::exists(path));

    umask(0);
    EXPECT_EQ(256 + SIGKILL, Join(Fork([&] {
                  const int held = PXR_lock_cmd(path.c_str());
                  return held < 0 ? 1 : kill(getpid(), SIGKILL);
              })));
    EXPECT_EQ(fs::perms{0600}, fs::status(path).permissions());
    const int again = PXR_lock_cmd(path.c_str());
    EXPECT_GE(again, 0) << "the dead holder's file is in nobody's way";

    // Somebody else's file under the same name stays.
    fs::remove(path);
    directory_.AddFile("lock", "new");
    EXPECT_EQ(-1, PXR_unlock_cmd(path.c_str(), again));
    EXPECT_TRUE(fs::exists(path));
    fs::create_symlink(path, Path("link"));
    EXPECT_EQ(-1, PXR_lock_cmd(Path("link").c_str()));
    EXPECT_EQ(-1, PXR_lock_cmd(Path("no/such/directory").c_str()));

    const int unnamed = PXR_lock_cmd(Path("unnamed").c_str());
    EXPECT_EQ(-1, PXR_unlock_cmd(nullptr, unnamed));
    EXPECT_EQ(-1, fcntl(unnamed, F_GETFD)) << "closed all the same";
}

TEST_F(PxrProc, ACancelledThreadKeepsNothingOpen) {
    const std::string path = Path("lock");
    int fd = -1;
    char line[64];
    const std::function<void()> calls[] = {[&] { fd = PXR_lock_cmd(path.c_str()); },
                                           [&] { PXR_unlock_cmd(path.c_str(), fd); },
                                           [&] { PXR_getcmdname(self_.c_str(), line, sizeof(line)); }};
    for (const auto& call : calls)
        EXPECT_TRUE(FinishesWhenCancelled(call)) << &call - calls;
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(PxrProc, LockHasOneHolderWhileTheFileComesAndGoes) {
    const std::string path = Path("lock");
    void* shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* holders = new (shared) std::atomic<int>(0);
    const auto contend = [&] {
        int wins = 0;
        for (int round = 0; round < 400 || wins == 0; ++round) {
            const int fd = PXR_lock_cmd(path.c_str());
            if (fd < 0) continue;
            ++wins;
            if (holders->fetch_add(1) != 0) return 1;
            holders->fetch_sub(1);
            if (PXR_unlock_cmd(path.c_str(), fd) != 0) return 2;
        }
        return 0;
    };
    const pid_t contenders[] = {Fork(contend), Fork(contend), Fork(contend), Fork(contend)};
    for (const pid_t child : contenders)
        EXPECT_EQ(0, Join(child));
    munmap(shared, sizeof(std::atomic<int>));
}

// ---- Processes by name

TEST_F(PxrProc, FindsProcessesByCommand) {
    const std::string absolute = "/opt/velmora/lantrel/bin/" + unique_;
    const pid_t byPath = Spawn(absolute);
    const pid_t byName = Spawn(unique_);
    const pid_t withWords = Spawn(unique_ + " --daemon");
    Spawn("x" + unique_);
    const std::set<std::string> inTextOrder = {std::to_string(byPath), std::to_string(byName),
                                               std::to_string(withWords)};
    pid_t found[8] = {};
    ASSERT_EQ(3, PXR_getpid(unique_.c_str(), found, 8));
    for (int i = 0; const std::string& pid : inTextOrder)
        EXPECT_EQ(pid, std::to_string(found[i++]));

    pid_t first[2] = {0, -7};
    EXPECT_EQ(3, PXR_getpid(unique_.c_str(), first, 1)) << "counts what it has no room for";
    EXPECT_EQ(found[0], first[0]);
    EXPECT_EQ(-7, first[1]);

    EXPECT_EQ(1, PXR_getpid(absolute.c_str(), found, 8));
    EXPECT_EQ(byPath, found[0]);
    EXPECT_EQ(1, PXR_getpid(("bin/" + unique_).c_str(), nullptr, 0));
    EXPECT_EQ(0, PXR_getpid(("/bin/" + unique_).c_str(), nullptr, 0));
    EXPECT_EQ(0, PXR_getpid("", nullptr, 0));

    char own[PATH_MAX];
    ASSERT_EQ(0, PXR_getcmdname(self_.c_str(), own, sizeof(own)));
    std::vector<pid_t> ours(64);
    ours.resize(static_cast<size_t>(PXR_getpid(own, ours.data(), 64)));
    EXPECT_THAT(ours, Contains(getpid()).Times(1));
    EXPECT_THAT(ours, Not(Contains(0))) << "/proc/self is no process";
}

TEST_F(PxrProc, CommandLineOfAProcess) {
    char line[64];
    const std::string command = unique_ + " one\ntwo";
    EXPECT_EQ(0, PXR_getcmdname(std::to_string(Spawn(command)).c_str(), line, sizeof(line)));
    EXPECT_EQ(unique_ + " one", line) << "the first line";
    EXPECT_EQ(0, PXR_getcmdname(self_.c_str(), line, 4));
    EXPECT_EQ(3u, std::string(line).size());
    const pid_t gone = Fork([] { return 0; });
    Join(gone);
    EXPECT_EQ(1, PXR_getcmdname(std::to_string(gone).c_str(), line, sizeof(line)));
    EXPECT_STREQ("", line);
    EXPECT_EQ(1, PXR_getcmdname("../etc", line, sizeof(line)));
    EXPECT_EQ(1, PXR_getcmdname(self_.c_str(), line, 0));
}

// ---- Companion commands

class Companion : public PxrProc {
protected:
    Companion() {
        setenv("NLSPATH", InBuildTree("/lib/nls/%L/%N").c_str(), 1);
        up_cmds[0].path = path_.c_str();
        PXR_set_cmdname();
    }
    ~Companion() override { up_cmds[0] = usual_; }
    std::string Startup() {
        testing::internal::CaptureStderr();
        PXR_startup_cmd();
        return testing::internal::GetCapturedStderr();
    }

    const std::string path_ = Path(unique_);
    const PXR_companion usual_ = up_cmds[0];
};

TEST_F(Companion, StartsWhatDoesNotRunAndSignalsWhatDoes) {
    EXPECT_EQ(path_ + " could not be started.\n", Startup()) << "there is no such program";
    WriteScript(unique_, "#!/bin/sh\necho started > '" + Path("proof") + "'\n");
    EXPECT_EQ("", Startup());
    EXPECT_TRUE(fs::remove(Path("proof"))) << "started";

    const pid_t running = Spawn(path_);
    up_cmds[0].signal = SIGUSR2;
    EXPECT_EQ(path_ + " is already running.\n", Startup());
    EXPECT_EQ(256 + SIGUSR2, Join(running));
    EXPECT_FALSE(fs::exists(Path("proof")));
}

TEST_F(Companion, EndsPolitelyThenByForce) {
    const pid_t polite = Spawn(path_);
    const pid_t stubborn = Spawn(unique_, true);
    const pid_t stranger = Spawn("x" + unique_);
    TerminateCompanion(up_cmds[0], std::chrono::milliseconds(5));
    EXPECT_EQ(256 + SIGTERM, Join(polite));
    EXPECT_EQ(256 + SIGKILL, Join(stubborn));
    EXPECT_EQ(0, waitpid(stranger, nullptr, WNOHANG));

    const pid_t another = Spawn(path_);
    up_cmds[0].terminate = 0;
    PXR_term_cmds();
    EXPECT_EQ(0, waitpid(another, nullptr, WNOHANG)) << "not flagged";
    up_cmds[0].terminate = 1;
    PXR_term_cmds();
    EXPECT_EQ(256 + SIGTERM, Join(another));
}

// ---- Running commands

/// Arguments as a program gets them.
class Arguments {
public:
    Arguments(std::initializer_list<std::string> texts) : texts_(texts) {
        for (std::string& text : texts_)
            pointers_.push_back(text.data());
        pointers_.push_back(nullptr);
    }
    operator char* const*() const { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> pointers_;
};

int Shell(const char* script, int priority = 0, const char* directory = nullptr) {
    return PXR_exec_command(directory, priority, "sh", Arguments{"sh", "-c", script, "name", "word"});
}

TEST_F(PxrProc, ResultOfACommand) {
    struct Case {
        const char* script;
        int result;
        int priority = 0;
        const char* directory = nullptr;
    };
    if (geteuid() == 0)
        setpriority(PRIO_PROCESS, 0, 0);  // priorities count from one's own, and the tests may run nicely
    for (const Case& c : {Case{"exit 0", 0}, Case{"exit 5", 5}, Case{"kill -9 $$", 8}, Case{"test $1 = word", 0},
                          Case{"test $(nice) = 19 && test $1 = word", 0, 30}, Case{"test $(nice) = 3", 0, 3},
                          Case{"test $(nice) = -20", 0, -99}, Case{"test $(pwd) = /usr", 0, 0, "/usr"},
                          Case{"exit 0", ENOENT, 0, "/no/such/directory"}}) {
        if (c.priority < 0 && geteuid() != 0) continue;
        EXPECT_EQ(c.result, Shell(c.script, c.priority, c.directory)) << c.script;
    }
    WriteScript("plain", "exit $(($# + 40))\n");  // the shell runs it: it names no interpreter
    WriteScript("closed", "exit 0\n", fs::perms::owner_read);
    const Arguments argv{"plain", "a", "b"};
    EXPECT_EQ(42, PXR_exec_command(nullptr, 0, Path("plain").c_str(), argv));
    EXPECT_EQ(40, PXR_exec_command(nullptr, 0, Path("plain").c_str(), nullptr));
    EXPECT_EQ(EACCES, PXR_exec_command(nullptr, 0, Path("closed").c_str(), argv));
    EXPECT_EQ(ENOENT, PXR_exec_command(nullptr, 0, unique_.c_str(), argv));
    EXPECT_EQ(EINVAL, PXR_exec_command(nullptr, 0, nullptr, argv));

    fs::permissions(searchedFirst.AddFile(unique_, ""), fs::perms::owner_read);
    EXPECT_EQ(EACCES, PXR_exec_command(nullptr, 0, unique_.c_str(), argv)) << "there is one, and none behind it";

    const auto usual = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(0, Shell("exit 5")) << "nobody keeps the status";
    signal(SIGCHLD, usual);
}

TEST_F(PxrProc, ASignalOfTheHostDoesNotEndTheWait) {
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) {};
    struct sigaction usual {};
    sigaction(SIGALRM, &interrupting, &usual);
    ualarm(20'000, 20'000);
    EXPECT_EQ(5, Shell("sleep 0.1; exit 5"));
    ualarm(0, 0);
    sigaction(SIGALRM, &usual, nullptr);
}

TEST_F(PxrProc, ACancelledWaitLeavesNoZombie) {
    std::thread waiter([] { Shell("sleep 0.1"); });
    const auto children = [] {
        siginfo_t ended{};
        return waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0;
    };
    EXPECT_TRUE(Eventually(children));
    pthread_cancel(waiter.native_handle());
    waiter.join();
    EXPECT_TRUE(children()) << "the command runs on";
    EXPECT_TRUE(Eventually([&] { return !children(); }));
}

TEST_F(PxrProc, ChildrenBeginClean) {
    ASSERT_EQ(77, dup2(STDERR_FILENO, 77)) << "a descriptor of the host's, not close-on-exec";
    const auto usualInt = signal(SIGINT, SIG_IGN);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    for (const char* check :
         {"for f in 0 1 2; do test $(readlink /proc/$$/fd/$f) = /dev/null || exit 1; done", "test ! -e /proc/$$/fd/77",
          "read pid name state parent group session rest < /proc/$$/stat; test $session = $$",
          "grep -q '^SigBlk:[^1-9a-f]*$' /proc/self/status", "grep -q '^SigIgn:[^1-9a-f]*$' /proc/self/status"}) {
        EXPECT_EQ(0, Shell(check)) << check;
    }
    sigprocmask(SIG_UNBLOCK, &term, nullptr);
    signal(SIGINT, usualInt);
    close(77);
}

TEST_F(PxrProc, CommandsThatCanBeRun) {
    WriteScript("tool", "");
    WriteScript("text", "", fs::perms::owner_read);
    using Case = std::pair<std::string, int>;
    for (const auto& [name, result] :
         {Case{"/bin/sh", 0}, Case{"sh", 0}, Case{Path("tool"), 0}, Case{Path("text"), EACCES}, Case{Path(""), EACCES},
          Case{"", ENOENT}, Case{unique_, ENOENT}, Case{"no/" + unique_, ENOENT}}) {
        EXPECT_EQ(result, PXR_isexist_command(name.c_str())) << name;
    }
    EXPECT_EQ(2, PXR_isexist_command(nullptr));
}

TEST(SearchPathTest, LeavesOutWhatIsNoPlace) {
    const std::string path = "/a::/" + std::string(PATH_MAX, 'x') + ":/b/:";
    SearchPath places(path.c_str());
    char place[PATH_MAX];
    ASSERT_TRUE(places.Next("tool", place));
    EXPECT_STREQ("/a/tool", place);
    ASSERT_TRUE(places.Next("tool", place));
    EXPECT_STREQ("/b//tool", place);
    EXPECT_FALSE(places.Next("tool", place));
}

TEST_F(PxrProc, DaemonLeavesItsTerminal) {
    int report[2];
    ASSERT_EQ(0, pipe(report));
    const std::string lock = Path("lock");
    const pid_t parent = Fork([&] {
        const pid_t before = getpid();
        close(STDIN_FILENO);  // as some starters leave it
        const bool locked = PXR_lock_cmd(lock.c_str()) >= 0;
        const int result = PXR_daemon();
        char streams[64] = {};
        const ssize_t length = readlink("/proc/self/fd/2", streams, sizeof(streams) - 1);
        const bool good = result == 0 && getpid() != before && getsid(0) == getpid() && length == 9 &&
                          std::string(streams) == "/dev/null" && locked && PXR_lock_cmd(lock.c_str()) == -1;
        return write(report[1], good ? "y" : "n", 1) == 1 ? 7 : 8;
    });
    EXPECT_EQ(0, Join(parent)) << "the caller ends at once";
    char answer = 0;
    EXPECT_EQ(1, read(report[0], &answer, 1));
    EXPECT_EQ('y', answer);
    close(report[0]);
    close(report[1]);
}

// ---- Main-thread jobs

std::atomic<int> signalsSeen{0};

/// The host's part: SIGUSR1 leads to the dispatch. The tests' main thread is the process's.
class MainJob : public PxrProc {
protected:
    MainJob() {
        __for_main__init_job();
        signalsSeen = 0;
        struct sigaction action {};
        action.sa_handler = [](int) {
            ++signalsSeen;
            __for_main__dispatch_job();
        };
        sigaction(SIGUSR1, &action, &usual_);
    }
    ~MainJob() override { sigaction(SIGUSR1, &usual_, nullptr); }

    /// mainjob_wait in a thread of its own.
    static int Ask(int kind, void* data, int size) {
        int result = -1;
        std::thread([&] { result = mainjob_wait(kind, data, size); }).join();
        return result;
    }

    struct sigaction usual_ {};
};

TEST_F(MainJob, EveryKind) {
    const Arguments argv{"sh", "-c", "test $PPID = \"$0\" && exit 4", self_};
    PXR_job_execute execute{"/", "sh", argv, 0};
    ASSERT_EQ(1, Ask(PXR_JOB_EXECUTE, &execute, sizeof(execute)));
    ASSERT_GT(execute.pid, 0);
    PXR_job_wait wait{execute.pid, 0, 0};
    ASSERT_EQ(1, Ask(PXR_JOB_WAIT, &wait, sizeof(wait)));
    EXPECT_EQ(execute.pid, wait.result);
    EXPECT_EQ(4, WEXITSTATUS(wait.status)) << "a child of the main process";
    ASSERT_EQ(1, Ask(PXR_JOB_WAIT, &wait, sizeof(wait)));
    EXPECT_EQ(-1, wait.result) << "waited for already";
    PXR_job_shell shell{"exit 3", 0};
    ASSERT_EQ(1, Ask(PXR_JOB_SHELL, &shell, sizeof(shell)));
    EXPECT_EQ(3, WEXITSTATUS(shell.result));
    EXPECT_EQ(4, signalsSeen);

    shell.command = "kill -9 $$";
    ASSERT_EQ(1, mainjob_wait(PXR_JOB_SHELL, &shell, sizeof(shell))) << "asked by the main thread itself";
    EXPECT_EQ(SIGKILL, WTERMSIG(shell.result));
    EXPECT_EQ(4, signalsSeen) << "without a signal";
}

TEST_F(MainJob, RecordsThatSayNothing) {
    PXR_job_execute execute{nullptr, "sh", nullptr, -5};
    EXPECT_EQ(1, Ask(PXR_JOB_EXECUTE, &execute, sizeof(execute)));
    EXPECT_EQ(-5, execute.pid);
    PXR_job_wait wait{0, -5, -5};
    EXPECT_EQ(1, Ask(PXR_JOB_WAIT, &wait, sizeof(wait)));
    EXPECT_EQ(-5, wait.result);
    PXR_job_shell shell{nullptr, 0};
    EXPECT_EQ(1, Ask(PXR_JOB_SHELL, &shell, sizeof(shell)));
    EXPECT_EQ(-1, shell.result);
}

// The host's main thread may look for jobs whenever it likes, also for a signal that came from elsewhere.
TEST_F(MainJob, ADispatchWithoutAJobTakesNone) {
    std::atomic<int> left{50};
    std::thread asker([&] {
        for (; left > 0; --left) {
            PXR_job_wait wait{INT_MAX, 0, 0};  // there is no such child
            EXPECT_EQ(1, mainjob_wait(PXR_JOB_WAIT, &wait, sizeof(wait)));
            EXPECT_EQ(-1, wait.result) << "not run";
        }
    });
    while (left > 0)
        __for_main__dispatch_job();
    asker.join();
}

TEST_F(MainJob, Refusals) {
    char data[17] = {};
    EXPECT_EQ(0, Ask(PXR_JOB_SHELL, data, 17));
    EXPECT_EQ(0, Ask(PXR_JOB_SHELL, data, -1));
    EXPECT_EQ(0, Ask(PXR_JOB_SHELL, nullptr, 8));
    EXPECT_EQ(0, Join(Fork([&] { return Ask(PXR_JOB_SHELL, data, 8); })))
        << "the child's main thread is not registered";
    for (const auto unhandled : {SIG_DFL, SIG_IGN}) {
        signal(SIGUSR1, unhandled);
        EXPECT_EQ(0, Ask(PXR_JOB_SHELL, data, 8));
    }
    EXPECT_EQ(0, signalsSeen);
}

/// A process that asks for a job of 100 ms, its main thread being all that takes signals. @return what came of the job
int AskOnce(void (*onSignal)(int), const std::function<void()>& mainThread) {
    alarm(30);
    signal(SIGUSR1, onSignal);
    __for_main__init_job();
    PXR_job_shell job{"sleep 0.1; exit 3", 0};
    sigset_t all;
    sigfillset(&all);
    std::thread asker([&] {
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        if (mainjob_wait(PXR_JOB_SHELL, &job, sizeof(job)) == 0) job.result = 0;
    });
    mainThread();
    asker.join();
    return WEXITSTATUS(job.result);
}

// When the process terminates its main thread may have left the loop that looks for jobs, and join the asking thread.
TEST_F(MainJob, IsWaitedForUnlessTheProcessTerminates) {
    const auto nothing = [] {};
    const auto late = [] {
        usleep(50'000);
        __for_main__dispatch_job();
    };
    EXPECT_EQ(0, Join(Fork([&] { return AskOnce([](int) { SetTerminateProcess(); }, nothing); })));
    EXPECT_EQ(3, Join(Fork([&] { return AskOnce([](int) {}, late); })));
    const auto run = [](int) {
        SetTerminateProcess();
        __for_main__dispatch_job();
    };
    EXPECT_EQ(3, Join(Fork([&] { return AskOnce(run, nothing); }))) << "a job that runs is waited for";
}

TEST_F(MainJob, ManyThreadsAsk) {
    std::vector<std::thread> askers;
    for (int i = 0; i < 6; ++i) {
        askers.emplace_back([i] {
            const std::string command = "exit " + std::to_string(i);
            for (int round = 0; round < 3; ++round) {
                PXR_job_shell job{command.c_str(), -1};
                EXPECT_EQ(1, mainjob_wait(PXR_JOB_SHELL, &job, sizeof(job)));
                EXPECT_EQ(i << 8, job.result);
            }
        });
    }
    for (std::thread& asker : askers)
        asker.join();
    EXPECT_EQ(18, signalsSeen) << "one at a time";
}

}  // namespace
