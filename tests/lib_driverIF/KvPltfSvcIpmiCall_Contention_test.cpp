// Sixteen contenders for the IPMI lock, in peace and in trouble.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <vector>

#include "tests/support/IpmiLockUsers.h"

namespace {

using namespace ktx_ipmi;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr int kContenders = 16;
constexpr size_t kProcesses = 4;
using Threads = std::array<size_t, kProcesses>;
// For a longer run: --gtest_filter=IpmiLockTrouble.* --gtest_repeat=20
constexpr auto kTroubleTime = 3s;

struct Figures {
    Threads threads{};  // of each process
    std::atomic<int> ready{0};
    std::atomic<int> conversations{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> refused{0};
    std::atomic<int> forks{0};
    std::atomic<int> longestWait{0};  // conversations of others between asking and having
    std::atomic<int> longestMs{0};
    std::atomic<int> stops[kProcesses] = {};
};

int g_check = -1;  // a file with a lock that never has to be waited for
std::atomic<bool> g_talking{false};

bool CheckLock(short type) {
    struct flock whole {};
    whole.l_type = type;
    return fcntl(g_check, F_SETLK, &whole) == 0;
}

/// Opens the files. The check's lock goes first when the process dies, in the order of descriptors.
void BeginContending() {
    g_check = open("/check", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    OpenIpmiLock();
}

void Talk(Figures& all, unsigned microseconds) {
    if (g_talking.exchange(true) || !CheckLock(F_WRLCK)) ++all.overlaps;
    usleep(microseconds);
    CheckLock(F_UNLCK);
    g_talking = false;
    ++all.conversations;
}

void Raise(std::atomic<int>& longest, int64_t value) {
    for (int known = longest; value > known && !longest.compare_exchange_weak(known, static_cast<int>(value));) {
    }
}

/// One turn. A wait in which the own process was stopped does not count.
void Converse(Figures& all, size_t process, unsigned microseconds) {
    const int stops = all.stops[process];
    const int before = all.conversations;
    const auto start = steady_clock::now();
    const IpmiBracket bracket;
    if (!bracket) {
        ++all.refused;
        return;
    }
    if (stops == all.stops[process]) {
        Raise(all.longestWait, all.conversations - before);
        Raise(all.longestMs, (steady_clock::now() - start) / 1ms);
    }
    Talk(all, microseconds);
}

/// A child that comes and goes while the other threads of its parent hold the lock or wait for it.
void ForkContender(Figures& all) {
    const pid_t child = fork();
    if (child > 0) return static_cast<void>(WaitForExit(child));
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    g_talking = false;
    int handle = kInvalidHandle;
    if (!OpenIpmiDriver(&handle, 10'000)) ++all.refused;
    Talk(all, 100);
    CloseIpmiDriver(handle);
    ++all.forks;
    _exit(0);
}

/// @param rounds  0: conversations of random length, and a fork now and then, until the process is killed
pid_t StartProcess(Figures& all, size_t process, int rounds) {
    const pid_t child = fork();
    if (child > 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const CountingDevice device;
    BeginContending();
    for (++all.ready; all.ready < static_cast<int>(kProcesses);)
        std::this_thread::yield();
    std::vector<std::jthread> contenders(all.threads[process]);
    for (std::jthread& contender : contenders) {
        contender = std::jthread([&] {
            std::minstd_rand random(static_cast<unsigned>(gettid()));
            for (int round = 0; rounds == 0 || round < rounds; ++round) {
                Converse(all, process, rounds != 0 ? 1000 : random() % 800);
                if (rounds == 0 && random() % 64 == 0) ForkContender(all);
            }
        });
    }
    contenders.clear();
    _exit(0);
}

Figures& MakeFigures(const Threads& threads) {
    auto* all = MakeShared<Figures>();
    all->threads = threads;
    return *all;
}

std::vector<pid_t> StartProcesses(Figures& all, int rounds) {
    std::vector<pid_t> children;
    for (size_t process = 0; process < kProcesses; ++process)
        children.push_back(StartProcess(all, process, rounds));
    return children;
}

TEST(IpmiLockContention, NobodyStarves) {
    for (const Threads& threads : {Threads{4, 4, 4, 4}, Threads{13, 1, 1, 1}}) {
        Figures& all = MakeFigures(threads);
        RunInRoot(MakeTestRoot(), [&] {
            for (const pid_t child : StartProcesses(all, 30))
                EXPECT_EQ(0, WaitForExit(child));
        });
        EXPECT_EQ(30 * kContenders, all.conversations);
        EXPECT_EQ(0, all.overlaps);
        // Each at most once before any other; a few more, for who was put aside on his way into the line.
        EXPECT_LE(all.longestWait, kContenders + kContenders / 2);
    }
}

/// What is done to the contenders, and whether they come on meanwhile.
class Trouble {
public:
    Trouble(Figures& all, unsigned seed) : all_(all), children_(StartProcesses(all, 0)), random_(seed) {}
    ~Trouble() {
        for (const pid_t child : children_)
            End(child);
    }
    Trouble(const Trouble&) = delete;
    Trouble& operator=(const Trouble&) = delete;

    void Make() {
        Pause(10ms + 1ms * (random_() % 30));
        const size_t process = random_() % kProcesses;
        random_() % 2 == 0 ? Stop(process) : Kill(process);
    }

    int kills = 0;
    int stops = 0;
    steady_clock::duration longestStop{};
    steady_clock::duration standstill{};

private:
    /// Mostly briefly, now and then for longer than the line has patience.
    void Stop(size_t process) {
        const auto start = steady_clock::now();
        ++all_.stops[process];
        kill(children_[process], SIGSTOP);
        Pause(random_() % 16 == 0 ? 1300ms : 1ms * (random_() % 50));
        ++all_.stops[process];
        kill(children_[process], SIGCONT);
        ++stops;
        longestStop = std::max(longestStop, steady_clock::now() - start);
    }

    void Kill(size_t process) {
        End(children_[process]);
        children_[process] = StartProcess(all_, process, 0);
        ++kills;
    }

    void Pause(steady_clock::duration time) {
        for (const auto end = steady_clock::now() + time; steady_clock::now() < end;) {
            std::this_thread::sleep_for(1ms);
            const int conversations = all_.conversations;
            if (conversations != seen_) last_ = steady_clock::now();
            seen_ = conversations;
            standstill = std::max(standstill, steady_clock::now() - last_);
        }
    }

    Figures& all_;
    std::vector<pid_t> children_;
    std::mt19937 random_;
    int seen_ = 0;
    steady_clock::time_point last_ = steady_clock::now();
};

TEST(IpmiLockTrouble, KillStopAndForkHoldUpNobody) {
    static unsigned seed = 4711;
    ++seed;  // another trouble with each repetition
    Figures& all = MakeFigures({7, 5, 3, 1});
    RunInRoot(MakeTestRoot(), [&] {
        Trouble trouble(all, seed);
        for (const auto end = steady_clock::now() + kTroubleTime; steady_clock::now() < end;)
            trouble.Make();
        printf(
            "%d conversations, %d kills, %d stops, %d forks; longest wait %d conversations, %d ms; longest stop %lld "
            "ms, standstill %lld ms\n",
            all.conversations.load(), trouble.kills, trouble.stops, all.forks.load(), all.longestWait.load(),
            all.longestMs.load(), trouble.longestStop / 1ms, trouble.standstill / 1ms);
        fflush(stdout);
        EXPECT_LT(0, trouble.kills);
        EXPECT_LT(0, trouble.stops);
        EXPECT_LT(0, all.forks);
        EXPECT_EQ(0, all.overlaps);
        EXPECT_EQ(0, all.refused);
        EXPECT_LE(all.longestWait, 3 * kContenders);
        // Nobody can talk while the holder is stopped; who is stopped in line costs the line's patience.
        EXPECT_LT(trouble.standstill, trouble.longestStop + 2s);
        EXPECT_LT(1ms * all.longestMs.load(), trouble.longestStop + 4s);
    });
}

}  // namespace
