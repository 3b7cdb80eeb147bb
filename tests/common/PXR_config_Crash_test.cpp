// Configuration files under competition and sudden death: whoever looks finds a whole file, and no update is lost.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libplatform/PXR_config.h"
#include "libplatform/PXR_syscall.h"
#include "tests/support/PowerCut.h"
#include "tests/support/TempDirectory.h"

namespace {

using std::string;
using testing::ElementsAre;

constexpr int kProcesses = 8;
constexpr int kRounds = 100;

constexpr const char* kNames[kProcesses] = {"Key1", "Key2", "Key3", "Key4", "Key5", "Key6", "Key7", "Key8"};
PXR_config_file<kProcesses + 1> table = {nullptr, "[ServerAgent%s_CRASH]", "0350", "Crash Test File", {}};

/// A slot for every key, all of one value.
struct Values {
    explicit Values(int32_t value) {
        for (uint32_t key = 1; key <= kProcesses; ++key)
            slots[key - 1] = {key, PXR_CFG_NUMBER, 0, 0, {value}, nullptr};
    }
    PXR_config_data slots[kProcesses + 1] = {};
};

string FileWith(const std::function<int(int)>& value) {
    string content = "[ServerAgent0350_CRASH]\n";
    for (int key = 1; key <= kProcesses; ++key) {
        content += "Key" + std::to_string(key) + "\t= " + std::to_string(value(key)) + "\t# of process " +
                   std::to_string(key) + "\n" + string(1100, '#') + "\n";
    }
    return content + "# end of file\n";
}

/// Every key has this value.
string Version(int value) {
    return FileWith([=](int) { return value; });
}

class ConfigCrash : public testing::Test {
protected:
    ConfigCrash() {
        table.path = path_.c_str();
        for (uint32_t i = 0; i < kProcesses; ++i)
            table.keys[i] = {i + 1, kNames[i], 1, -1, 0, 0, kRounds, PXR_CFG_NUMBER, {.number = 0}, 0, {0, 0}};
    }
    void Place(const string& content) const { directory_.AddFile("crash.cfg", content); }
    /// Opens the file, locked as the flags say.
    int Open(int flags) const {
        const int fd = PXR_file_open(path_.c_str(), flags, nullptr);
        EXPECT_LE(0, fd);
        return fd;
    }

    TempDirectory directory_;
    const string path_ = directory_.Path("crash.cfg");
};

pid_t Fork(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    return child;
}

int WaitFor(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

/// One process: only its own key has a slot, so that every rewrite copies what the others wrote.
int RewriteOwnKey(uint32_t key) {
    PXR_config_data own[] = {PXR_CFG_SLOT(key), PXR_CFG_SLOT(0)};
    PXR_init_cfgdata(table.Table(), own);
    for (int round = 1; round <= kRounds; ++round) {
        own[0].value.number = round;
        if (PXR_write_cfgfile(table.Table(), own) != 0) return 1;
        Values all(-1);
        if (PXR_read_cfgfile(table.Table(), all.slots) != 0) return 2;
        for (int other = 0; other < kProcesses; ++other) {
            if (all.slots[other].value.number < 0) return 3;  // a line was missing
        }
        if (all.slots[key - 1].value.number != round) return 4;  // somebody wrote from what was no longer the file
    }
    return 0;
}

TEST_F(ConfigCrash, EightProcessesLoseNothing) {
    Place(Version(0));
    std::vector<pid_t> children;
    for (uint32_t key = 1; key <= kProcesses; ++key)
        children.push_back(Fork([=] { return RewriteOwnKey(key); }));
    for (const pid_t child : children)
        EXPECT_EQ(0, WaitFor(child));
    EXPECT_EQ(Version(kRounds), directory_.ReadFile("crash.cfg"));
    EXPECT_FALSE(directory_.Exists("crash.tmp"));
}

int Rewrite(int version) {
    return static_cast<int>(PXR_write_cfgfile(table.Table(), Values(version).slots));
}

TEST_F(ConfigCrash, APowerCutLeavesAWholeFileAndAWholeBackup) {
    Place(Version(1));
    PowerCut cut(directory_.Path(""));
    for (int version = 2; version <= 12; ++version)
        cut.Record([&] { EXPECT_EQ(0, Rewrite(version)); });
    EXPECT_EQ(std::vector<string>(), cut.Faults());
    const size_t states = cut.TryAll([&](const PowerCut::Moment& moment) {
        const int last = static_cast<int>(moment.returned) + 1;
        const string left = directory_.ReadFile("crash.cfg");
        ASSERT_TRUE(left == Version(last) || left == Version(last + 1)) << left.size() << " bytes";
        const string backup = directory_.ReadFile("crash.bak");
        EXPECT_TRUE(backup == Version(last) || (last == 1 ? backup.empty() : backup == Version(last - 1)));
        EXPECT_EQ(0, Rewrite(99)) << "nothing that was left stands in the way";
        EXPECT_TRUE(directory_.ReadFile("crash.cfg") == Version(99) && directory_.ReadFile("crash.bak") == left);
        EXPECT_FALSE(directory_.Exists("crash.tmp") || directory_.Exists("crash.bak.tmp"));
    });
    std::cout << states << " states\n";
    EXPECT_GE(states, 500U);
}

TEST_F(ConfigCrash, ACallThatFailsLeavesAWholeFileAndAWholeBackup) {
    Place(Version(2));
    directory_.AddFile("crash.bak", Version(1));
    PowerCut cut(directory_.Path(""));
    int result = 0;
    std::set<string> unnoticed;
    const size_t runs = cut.FailEach(
        EIO, [&] { result = Rewrite(3); },
        [&](const string& call) {
            const string left = directory_.ReadFile("crash.cfg");
            EXPECT_TRUE(left == Version(result == 0 ? 3 : 2)) << left.size() << " bytes";
            const string backup = directory_.ReadFile("crash.bak");
            EXPECT_TRUE(backup == Version(1) || backup == Version(2)) << backup.size() << " bytes";
            if (result == 0) unnoticed.insert(call);
            EXPECT_FALSE(directory_.Exists("crash.tmp") || directory_.Exists("crash.bak.tmp"));
        });
    EXPECT_GT(runs, 30U);
    // The looks for a dead writer's files, and syncs that only make a whole file last longer.
    EXPECT_THAT(unnoticed, ElementsAre("open .", "open crash.bak.tmp", "open crash.tmp", "sync .", "sync crash.cfg"));
    cut.FailEach(
        EIO, [&] { result = static_cast<int>(PXR_read_cfgfile(table.Table(), Values(0).slots)); },
        [&](const string& call) {
            const int expected = call == "open crash.cfg" ? 0x61E51301 : call == "read crash.cfg" ? 0x61B81301 : 0;
            EXPECT_EQ(expected, result);
        });
}

TEST_F(ConfigCrash, FilesOfOneStemAreWrittenOneAfterTheOther) {
    const auto rewrite = [this](const char* name, const char* header) {
        table.path = strdup(directory_.AddFile(name, "").c_str());
        table.headerFormat = header;
        for (int round = 1; round <= 100; ++round) {
            if (Rewrite(round) != 0) return 1;
            Values read(0);
            if (PXR_read_cfgfile(table.Table(), read.slots) != 0 || read.slots[0].value.number != round) return 2;
        }
        return 0;
    };
    const pid_t first = Fork([&] { return rewrite("stem.cfg", "[First%s]"); });
    const pid_t second = Fork([&] { return rewrite("stem.dat", "[Second%s]"); });
    EXPECT_EQ(0, WaitFor(first));
    EXPECT_EQ(0, WaitFor(second));
}

/// Runs a rewrite under trace and kills it when it is about to make, or has just made, its stop-th half system call.
/// @return false when the rewrite came to its end before
bool KilledAt(int stop, PXR_config_data* values) {
    const pid_t child = Fork([=] {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        return PXR_write_cfgfile(table.Table(), values) == 0 ? 0 : 1;
    });
    int status = WaitFor(child);
    for (int i = 0; i < stop && WIFSTOPPED(status); ++i) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        status = WaitFor(child);
    }
    if (!WIFSTOPPED(status)) {
        EXPECT_EQ(0, status);
        return false;
    }
    kill(child, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(WaitFor(child)));
    return true;
}

TEST_F(ConfigCrash, DeathAtAnySystemCallLeavesTheOldOrTheNewFile) {
    const string before = Version(1);
    const string after = Version(2);
    Values values(2);
    int outcomes[2] = {};
    bool replaced = false;
    int stop = 1;
    for (;; ++stop) {
        Place(before);
        if (!KilledAt(stop, values.slots)) break;
        const string left = directory_.ReadFile("crash.cfg");
        ASSERT_TRUE(left == before || left == after) << "killed at " << stop << ": " << left.size() << " bytes";
        EXPECT_FALSE(replaced && left == before) << "back to the old file at " << stop;
        replaced = left == after;
        ++outcomes[replaced ? 1 : 0];
        // What the dead process left behind stands in nobody's way.
        ASSERT_EQ(0U, PXR_write_cfgfile(table.Table(), values.slots));
        EXPECT_EQ(after, directory_.ReadFile("crash.cfg"));
        EXPECT_FALSE(directory_.Exists("crash.tmp"));
    }
    EXPECT_GT(outcomes[0], 20);
    EXPECT_GT(outcomes[1], 2);
}

TEST_F(ConfigCrash, WhoWaitedForAReplacedFileGetsTheNewOne) {
    Place("old");
    const int first = Open(O_RDWR);
    std::atomic<bool> started{false};
    string seen;
    std::thread waiter([&] {
        started = true;
        const int fd = Open(O_RDONLY);
        char text[8] = "";
        EXPECT_EQ(3, PXR_read(fd, text, sizeof(text)));
        seen = text;
        EXPECT_EQ(0, PXR_file_close(fd));
    });
    while (!started)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ("", seen);
    directory_.AddFile("new", "new");
    EXPECT_EQ(0, PXR_renameall(directory_.Path("new").c_str(), path_.c_str()));
    EXPECT_EQ(0, PXR_file_close(first));
    waiter.join();
    EXPECT_EQ("new", seen);
}

/// Whether another process could lock the file now.
bool IsLockable(const string& path, int flags, short type) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = type;
    const bool free = fcntl(fd, F_OFD_SETLK, &lock) == 0;
    close(fd);
    return free;
}

TEST_F(ConfigCrash, ReadersShareWritersExcludeAndClosingFrees) {
    Place("text");
    const int reader = Open(O_RDONLY);
    EXPECT_TRUE(IsLockable(path_, O_RDONLY, F_RDLCK));
    EXPECT_FALSE(IsLockable(path_, O_RDWR, F_WRLCK));
    // Another descriptor of the process, closed meanwhile, takes no lock away.
    close(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(IsLockable(path_, O_RDWR, F_WRLCK));
    // A child that still has the open file keeps no lock either.
    const pid_t child = Fork([] { return pause(); });
    EXPECT_EQ(0, PXR_file_close(reader));
    EXPECT_TRUE(IsLockable(path_, O_RDWR, F_WRLCK));
    kill(child, SIGKILL);
    WaitFor(child);

    const int writer = Open(O_RDWR);
    EXPECT_FALSE(IsLockable(path_, O_RDONLY, F_RDLCK));
    FILE* const stream = fdopen(writer, "r+");
    fputs("TEXT", stream);
    EXPECT_EQ(0, PXR_file_stream_close(stream));
    EXPECT_TRUE(IsLockable(path_, O_RDWR, F_WRLCK));
    EXPECT_EQ("TEXT", directory_.ReadFile("crash.cfg"));
}

TEST_F(ConfigCrash, AProcessThatIsTerminatingDoesNotWaitForALock) {
    Place("text");
    const int holder = Open(O_RDWR);
    const pid_t child = Fork([&] {
        signal(SIGALRM, [](int) { SetTerminateProcess(); });
        ualarm(5000, 0);
        int error = 0;
        return PXR_file_open(path_.c_str(), O_RDONLY, &error) == -1 && error == 0x61E51304 ? 0 : 1;
    });
    EXPECT_EQ(0, WaitFor(child));
    EXPECT_EQ(0, PXR_file_close(holder));
}

}  // namespace
