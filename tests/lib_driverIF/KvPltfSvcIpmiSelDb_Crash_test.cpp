// The agent is killed at any moment, again and again, while events are logged: each is handed out once.
//
// One kind of loss is in the nature of the thing: the state says "taken" before the caller has the events in hand, and
// who dies in between takes them with him. Such a poll is the last one of its agent, and what it took the last that the
// state knows: that tells it from a poll that loses events and goes on. They are counted.

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

#include "common/ByteReader.h"
#include "tests/support/SelMachine.h"

namespace {

constexpr uint32_t kEpoch = 1'700'000'000;  // event n was logged n seconds later
constexpr size_t kMostEvents = 20'000;

/// KV_CRASH_ROUNDS in the environment; by default enough for the log to be cleared several times.
unsigned Rounds() {
    const char* const text = getenv("KV_CRASH_ROUNDS");
    const unsigned long wanted = text != nullptr ? strtoul(text, nullptr, 10) : 0;
    return wanted > 0 ? static_cast<unsigned>(wanted) : 300;
}

/// What outlives the agents: the controller's log, and what they handed out.
struct Shared {
    std::atomic<unsigned> logged{0};   // events so far
    std::atomic<unsigned> cleared{0};  // of these, gone from the log
    std::atomic<unsigned> polls{0};
    std::array<std::atomic<uint8_t>, kMostEvents> given{};
};

class SelDbCrash : public SelMachine {
protected:
    SelDbCrash() {
        void* const page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared_ = new (page) Shared;
    }
    ~SelDbCrash() override { munmap(shared_, sizeof(Shared)); }

    /// Brings this process's controller up to what has been logged.
    void CatchUp() {
        while (seen_ < shared_->logged) {
            ++seen_;
            sim::SelEntry event = Event(seen_, kEpoch + seen_);
            const auto id = static_cast<uint16_t>(seen_ - shared_->cleared);
            memcpy(event.data(), &id, sizeof id);
            Bmc().Sel()->Add(event);
        }
    }

    /// An agent: polls until it is killed.
    [[noreturn]] void LiveAsAgent() {
        seen_ = shared_->cleared;
        for (const uint8_t command : {kGetInfo, kGetEntry}) {
            server.OnCommand(kStorage, command, [this](const auto&, const auto& answer) {
                CatchUp();
                return answer();
            });
        }
        server.OnCommand(kStorage, kClear, [this](const auto&, const auto& answer) {
            shared_->cleared = seen_;
            return answer();
        });
        KvSetDeviceOps(server.Ops());
        if (!ktx_ipmi::InitIpmiLib() || Start() != 0) _exit(1);
        for (;;) {
            unsigned long count = 0;
            KVPS_SEL_ENTRY* entries = nullptr;
            if (KvPsGetSelAllEntries(&count, &entries) != 0) _exit(2);
            for (unsigned long i = 0; i < count; ++i)
                ++shared_->given.at(ByteReader(entries[i].timeStamp).U32() - kEpoch);
            KvPsFreeDataArray(entries);
            ++shared_->polls;
        }
    }

    pid_t StartAgent() {
        const pid_t agent = fork();
        if (agent == 0) LiveAsAgent();
        return agent;
    }

    /// Waits until the agent has polled so often. A kill may come before that: it ends by itself only after a failure.
    void AwaitPolls(pid_t agent, unsigned polls) {
        for (const unsigned before = shared_->polls; shared_->polls < before + polls;) {
            ASSERT_EQ(0, waitpid(agent, nullptr, WNOHANG)) << "it ended by itself";
            usleep(100);
        }
    }

    static void Kill(pid_t agent) {
        int status = 0;
        kill(agent, SIGKILL);
        ASSERT_EQ(agent, waitpid(agent, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself: " << WEXITSTATUS(status);
    }

    /// Lets an agent live for a random time, in which events are logged.
    void LetOneLive() {
        const pid_t agent = StartAgent();
        if (shared_->polls == 0) AwaitPolls(agent, 1);  // the first is to meet the log while it is empty
        std::uniform_int_distribution<unsigned> pieces(1, 12);
        std::uniform_int_distribution<useconds_t> pause(0, 6000);
        const unsigned rounds = pieces(random_);
        for (unsigned i = 0; i < rounds; ++i) {
            shared_->logged += pieces(random_) / 3;
            usleep(pause(random_));
        }
        Kill(agent);
    }

    /// The last event that the state on disk calls taken.
    static unsigned TakenByState() {
        const DEVICE_INFO info = ReadInf();
        EXPECT_EQ(0x20, info.address);
        EXPECT_EQ(0x12, info.bType);
        return info.lastTimeStamp == 0xFFFFFFFF ? 0 : info.lastTimeStamp - kEpoch;  // nothing was ever added
    }

    static void CheckDatabase() {
        const std::string bytes = Read(kDb);
        ASSERT_EQ(kDbSize, bytes.size());
        static const std::string kEmpty(sizeof(KVPS_SEL_ENTRY), '\0');
        for (size_t at = 0; at < kDbSize; at += sizeof(KVPS_SEL_ENTRY)) {
            if (bytes.compare(at, kEmpty.size(), kEmpty) == 0) continue;
            KVPS_SEL_ENTRY entry;
            memcpy(&entry, &bytes[at], sizeof entry);
            ASSERT_EQ(at / sizeof entry, entry.recordId);
            ASSERT_EQ(NumberOf(entry), ByteReader(entry.timeStamp).U32() - kEpoch) << "torn";
        }
    }

    Shared* shared_;
    std::mt19937 random_{std::random_device{}()};
    unsigned seen_ = 0;
};

TEST_F(SelDbCrash, EachEventIsGivenOnceWheneverTheAgentDies) {
    RunInRoot(root, [this] {
        std::vector<bool> lost(kMostEvents);
        unsigned judged = 0;
        for (unsigned round = 0; round < Rounds() && !HasFatalFailure(); ++round) {
            LetOneLive();
            CheckDatabase();
            const unsigned taken = TakenByState();
            EXPECT_LE(judged, taken) << "the state went back";
            bool inWindow = false;
            for (unsigned n = judged + 1; n <= taken; ++n) {
                if (shared_->given[n] == 0) {
                    lost[n] = inWindow = true;
                } else {
                    EXPECT_FALSE(inWindow) << "lost by a poll that was not the last one: those before " << n;
                }
            }
            judged = std::max(judged, taken);
            for (unsigned n = taken + 1; n <= shared_->logged; ++n)
                EXPECT_EQ(0, shared_->given[n]) << "given, but the state does not know: " << n;
        }
        // A last agent that is not killed before it has everything.
        const unsigned logged = shared_->logged;
        const pid_t agent = StartAgent();
        AwaitPolls(agent, 2);
        Kill(agent);
        // Killed right behind the state, when the log had just been cleared: the old first entry is still on disk then,
        // and what the database does not know either is given after all.
        for (unsigned n = 1; n <= logged; ++n)
            EXPECT_TRUE(shared_->given[n] == 1 || (lost[n] && shared_->given[n] == 0)) << "event " << n;
        EXPECT_LT(20U, logged);
    });
}

}  // namespace
