#include "libplatform/PXR_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "common/PXR_thread_internal.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;

/// Opened once for each pass. (A semaphore would do; the checker of data races loses track of those.)
class Gate {
public:
    void Open() {
        const std::lock_guard lock(mutex_);
        ++open_;
        opened_.notify_one();
    }
    void Pass() {
        std::unique_lock lock(mutex_);
        opened_.wait(lock, [this] { return open_ > 0; });
        --open_;
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    int open_ = 0;
};

/// What hangs ends the test program.
struct Deadline {
    Deadline() { alarm(60); }
    ~Deadline() { alarm(0); }
};

/// A worker that reports running and then does what the test says, its lock held at the begin and at the end.
struct TestWorker {
    PXR_thread object{};  // first: the routine gets its address
    std::function<void(PXR_thread*)> work;
    uint32_t reported = PXR_THREAD_RUNNING;
    std::function<void()> beforeReport = [] {};
    bool wantsLockAtEnd = true;

    explicit TestWorker(std::function<void(PXR_thread*)> body) : work(std::move(body)) {}
    ~TestWorker() { pthread_mutex_destroy(&object.lock); }  // for drd, before something else lies here
    uint32_t Start() { return PXR_thread_create(&object, Routine); }

    /// The routine's own clean-up may need the lock.
    struct CleanUp {
        TestWorker& worker;
        ~CleanUp() {
            if (!worker.wantsLockAtEnd) return;
            pthread_mutex_lock(&worker.object.lock);
            pthread_mutex_unlock(&worker.object.lock);
        }
    };
    static void* Routine(void* argument) {
        auto* worker = static_cast<TestWorker*>(argument);
        const CleanUp cleanUp{*worker};
        worker->beforeReport();
        pthread_mutex_lock(&worker->object.lock);
        EXPECT_EQ(PXR_THREAD_STARTING, worker->object.state);
        worker->object.state = worker->reported;
        pthread_cond_signal(&worker->object.wake);
        if (worker->reported == PXR_THREAD_RUNNING) worker->work(&worker->object);
        pthread_mutex_unlock(&worker->object.lock);
        return nullptr;
    }
};

void SleepUntilStopped(PXR_thread* self) {
    while (PXR_thread_sleep(self) >= 0)
        PXR_thread_get_action(self);
}

/// What a worker does that leaves its queue to the test.
void WaitForGate(PXR_thread* self, Gate& gate) {
    pthread_mutex_unlock(&self->lock);
    gate.Pass();
    pthread_mutex_lock(&self->lock);
}

bool IsFree(const PXR_thread& object) {
    return object.marker == 0 && object.queue == nullptr;
}

TEST(PxrThread, ActionsOfABusyWorkerArriveInOrder) {
    Gate busy;
    Gate done;
    std::vector<uint32_t> got;
    TestWorker worker([&](PXR_thread* self) {
        WaitForGate(self, busy);
        while (PXR_thread_sleep(self) >= 0) {
            while (const uint32_t action = PXR_thread_get_action(self))
                got.push_back(action);
            if (got.size() == 300) done.Open();
        }
    });
    ASSERT_EQ(0u, worker.Start());
    std::vector<uint32_t> sent(300);
    std::iota(sent.begin(), sent.end(), 1);
    for (const uint32_t action : sent)
        ASSERT_EQ(0u, PXR_thread_wakeup(&worker.object, action));
    EXPECT_EQ(512u, worker.object.capacity);
    busy.Open();
    done.Pass();
    EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
    EXPECT_EQ(sent, got);
}

// A ring that grows keeps its order wherever its oldest action lies.
TEST(PxrThread, QueueGrowsFromEveryPosition) {
    // wake-ups (positive) and takes (negative) before the last 800 wake-ups
    const std::map<std::string, std::vector<int>> cases = {{"not wrapped", {}},
                                                           {"front part shorter", {100, -100}},
                                                           {"equal halves", {128, -128}},
                                                           {"back part shorter", {200, -200}},
                                                           {"front part of 256 slots", {600, -600, 424, -424}},
                                                           {"front part longer than 256", {600, -600, 468, -468}},
                                                           {"empty slot last", {255, -255, 1, -1}}};
    for (const auto& [name, steps] : cases) {
        SCOPED_TRACE(name);
        Gate end;
        TestWorker worker([&](PXR_thread* self) { WaitForGate(self, end); });
        ASSERT_EQ(0u, worker.Start());
        uint32_t sent = 0;
        uint32_t taken = 0;
        const auto step = [&](int count) {
            for (; count > 0; --count)
                EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, ++sent));
            pthread_mutex_lock(&worker.object.lock);
            for (; count < 0; ++count)
                ASSERT_EQ(++taken, PXR_thread_get_action(&worker.object));
            pthread_mutex_unlock(&worker.object.lock);
        };
        for (const int count : steps)
            step(count);
        step(800);
        EXPECT_EQ(1024u, worker.object.capacity);
        step(-800);
        EXPECT_EQ(0u, PXR_thread_get_action(&worker.object)) << "nothing is left";
        end.Open();
        EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
    }
}

TEST(PxrThread, LiveObjectIsNotCreatedAgain) {
    const Deadline deadline;
    TestWorker worker([](PXR_thread* self) {
        EXPECT_EQ(-1, PXR_thread_destroy(self)) << "nobody can wait for his own end";
        EXPECT_EQ(-1, PXR_thread_stop(self));
        SleepUntilStopped(self);
    });
    ASSERT_EQ(0u, worker.Start());
    const pthread_t thread = worker.object.thread;
    EXPECT_EQ(0x620A1501u, worker.Start());
    EXPECT_EQ(thread, worker.object.thread);
    EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 1));
    EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
    EXPECT_TRUE(IsFree(worker.object));
    EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 1)) << "ignored";
    EXPECT_EQ(-1, PXR_thread_destroy(&worker.object));
    EXPECT_EQ(-1, PXR_thread_stop(&worker.object));

    std::memcpy(&worker.object.marker, "THRD", 4);
    EXPECT_EQ(0x620A1501u, worker.Start());
}

TEST(PxrThread, FailedStartsLeaveTheObjectFree) {
    TestWorker worker(SleepUntilStopped);
    worker.reported = PXR_THREAD_FAILED;
    EXPECT_EQ(0x620A1502u, worker.Start());
    EXPECT_TRUE(IsFree(worker.object));

    pthread_attr_t usual;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, size_t{3800} << 20);  // more than the address space has left
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    EXPECT_EQ(0x620A1202u, worker.Start());
    pthread_setattr_default_np(&usual);
    EXPECT_TRUE(IsFree(worker.object));

    worker.reported = PXR_THREAD_RUNNING;
    worker.beforeReport = [&] { EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 1)); };
    EXPECT_EQ(0u, worker.Start());
    EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
    EXPECT_EQ(0x620A4201u, PXR_thread_create(&worker.object, nullptr));
    EXPECT_EQ(0x620B4201u, PXR_thread_wakeup(nullptr, 1));
}

TEST(PxrThread, WakeUpAfterAStopRequestIsIgnored) {
    Gate stopSeen;
    Gate woken;
    int slept = 0;
    uint32_t action = 0;
    TestWorker worker([&](PXR_thread* self) {
        slept = PXR_thread_sleep(self);
        stopSeen.Open();
        WaitForGate(self, woken);
        action = PXR_thread_get_action(self);
        slept += PXR_thread_sleep(self);
    });
    ASSERT_EQ(0u, worker.Start());
    std::thread owner([&] { PXR_thread_destroy(&worker.object); });
    stopSeen.Pass();
    EXPECT_EQ(-1, PXR_thread_destroy(&worker.object)) << "another thread joins it";
    EXPECT_EQ(0x620A1501u, worker.Start()) << "not yet free";
    EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 77));
    woken.Open();
    owner.join();
    EXPECT_EQ(-2, slept) << "both sleeps end with -1";
    EXPECT_EQ(0u, action);
}

// The steps are of one second, so the cases run side by side.
TEST(PxrThread, TimedSleeps) {
    constexpr int32_t kUntouched = -7;
    struct Case {
        const char* name;
        std::function<int(PXR_thread*, PXR_timeval&)> sleep;
        enum { kNothing, kActionFirst, kActionDuring, kStopDuring } event;
        int result;
        int steps;
        int32_t spent;  // seconds given back
    };
    const auto forTime = [](PXR_thread* self, PXR_timeval& time) { return PXR_thread_sleep_time(self, &time); };
    const auto forSecond = [](PXR_thread* self, PXR_timeval& time) {
        time.tv_sec = 1;
        return PXR_thread_sleep_time(self, &time);
    };
    const auto until = [](int ahead) {
        return [ahead](PXR_thread* self, PXR_timeval&) {
            const PXR_timeval at{static_cast<int32_t>(std::time(nullptr) + ahead), 0};
            return PXR_thread_sleep_ontime(self, &at);
        };
    };
    struct Running {
        explicit Running(const Case& c) : expected(c) {}
        const Case& expected;
        TestWorker worker{nullptr};
        Gate asleep;
        Gate done;
        PXR_timeval time{0, 0};
        int result = 0;
        steady_clock::duration took{};
    };
    const std::vector<Case> cases = {
        {"no time is one step", forTime, Case::kNothing, 0, 1, 1},
        {"one second is two steps", forSecond, Case::kNothing, 0, 2, 2},
        {"action queued before", forTime, Case::kActionFirst, 1, 0, 0},
        {"action during a step", forTime, Case::kActionDuring, 1, 1, 1},
        {"stop during a step", forTime, Case::kStopDuring, -1, 1, 1},
        {"until a moment ago", until(-1), Case::kNothing, 0, 0, kUntouched},
        {"until now: to the end of this second", until(0), Case::kNothing, 0, 1, kUntouched},
        {"until far away, action", until(3600), Case::kActionDuring, 1, 1, kUntouched},
        {"until far away, stop", until(3600), Case::kStopDuring, -1, 1, kUntouched},
        {"action before a time", until(3600), Case::kActionFirst, 1, 0, kUntouched},
    };
    std::list<Running> all;
    for (const time_t before = std::time(nullptr); std::time(nullptr) == before;)
        usleep(10'000);  // "now" is to be the same second for the test and what it tests
    for (const Case& c : cases) {
        Running& run = all.emplace_back(c);
        run.time.tv_sec = c.spent == kUntouched ? kUntouched : c.event == Case::kNothing ? 0 : 3600;
        run.worker.work = [&run](PXR_thread* self) {
            if (run.expected.event == Case::kActionFirst) PXR_AppendAction(*self, 5);
            const auto begin = steady_clock::now();
            run.asleep.Open();  // the lock goes only with the sleep
            run.result = run.expected.sleep(self, run.time);
            run.took = steady_clock::now() - begin;
            run.done.Open();
        };
        ASSERT_EQ(0u, run.worker.Start());
    }
    for (Running& run : all) {
        run.asleep.Pass();
        if (run.expected.event == Case::kActionDuring) PXR_thread_wakeup(&run.worker.object, 5);
        if (run.expected.event != Case::kStopDuring) continue;
        pthread_mutex_lock(&run.worker.object.lock);  // a destroy would wait for this one alone
        run.worker.object.state = PXR_THREAD_STOPPING;
        pthread_mutex_unlock(&run.worker.object.lock);
    }
    for (Running& run : all) {
        SCOPED_TRACE(run.expected.name);
        run.done.Pass();
        EXPECT_EQ(0, PXR_thread_destroy(&run.worker.object));
        EXPECT_EQ(run.expected.result, run.result);
        EXPECT_EQ(run.expected.spent, run.time.tv_sec);
        EXPECT_GE(run.took, seconds(run.expected.steps));
        EXPECT_LT(run.took, seconds(run.expected.steps) + milliseconds(950));
    }
}

#ifndef __SANITIZE_ADDRESS__  // which does not see a cancelled thread leave its frames
TEST(PxrThread, StopEndsAWorkerThatIsBlocked) {
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    Gate created;
    Gate there;
    const auto readForEver = [&] {
        char byte = 0;
        EXPECT_EQ(0, read(pipeEnds[0], &byte, 1));
    };
    struct Case {
        std::function<void(PXR_thread*)> body;
        bool keepsLock = false;
    };
    const Case cases[] = {{[&](PXR_thread* self) {
                               WaitForGate(self, created);
                               there.Open();
                               readForEver();
                           },
                           true},
                          {[&](PXR_thread* self) {
                              there.Open();
                              SleepUntilStopped(self);
                          }},
                          {[&](PXR_thread* self) {
                              PXR_timeval hour{3600, 0};
                              there.Open();
                              PXR_thread_sleep_time(self, &hour);
                          }},
                          {[&](PXR_thread* self) {
                              there.Open();
                              pthread_mutex_unlock(&self->lock);
                              readForEver();
                          }}};
    const Deadline deadline;
    for (const auto& [body, keepsLock] : cases) {
        TestWorker worker(body);
        worker.wantsLockAtEnd = !keepsLock;
        ASSERT_EQ(0u, worker.Start());
        created.Open();
        there.Pass();
        std::thread waker([&] { EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 7)); });
        std::this_thread::sleep_for(milliseconds(20));  // it waits for the lock by now
        const auto begin = steady_clock::now();
        EXPECT_EQ(0, PXR_thread_stop(&worker.object));
        EXPECT_LT(steady_clock::now() - begin, milliseconds(450));
        waker.join();
        EXPECT_TRUE(IsFree(worker.object));
    }
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}
#endif

// The lock is taken through the end of the worker in the order of those who queue for it, its owner among them.
TEST(PxrThread, WhoeverIsQueuedWhenTheWorkerEndsComesBack) {
    const Deadline deadline;
    Gate stopSeen;
    Gate queued;
    TestWorker worker([&](PXR_thread* self) {
        SleepUntilStopped(self);
        pthread_mutex_unlock(&self->lock);
        stopSeen.Open();
        queued.Pass();
        pthread_exit(nullptr);
    });
    worker.wantsLockAtEnd = false;
    ASSERT_EQ(0u, worker.Start());
    const auto wake = [&] { EXPECT_EQ(0u, PXR_thread_wakeup(&worker.object, 1)); };
    const auto letQueue = [] { std::this_thread::sleep_for(milliseconds(20)); };
    std::thread owner([&] { EXPECT_EQ(0, PXR_thread_destroy(&worker.object)); });
    stopSeen.Pass();
    pthread_mutex_lock(&worker.object.lock);
    std::thread before(wake);
    letQueue();
    queued.Open();
    letQueue();
    std::thread behind(wake);
    letQueue();
    EXPECT_EQ(0, std::memcmp(&worker.object.marker, "THRD", 4)) << "the owner waits for the lock";
    pthread_mutex_unlock(&worker.object.lock);
    for (std::thread* thread : {&owner, &before, &behind})
        thread->join();
    EXPECT_TRUE(IsFree(worker.object));
}

// Whoever sends wake-ups while a worker ends, and while the next one begins in the same object, comes back.
TEST(PxrThread, WakersComeBackWhateverBecomesOfTheWorker) {
    const Deadline deadline;
    TestWorker worker(SleepUntilStopped);
    for (int round = 0; round < 100; ++round) {
        std::atomic<bool> end{false};
        const auto wake = [&] {
            while (!end) {
                PXR_thread_wakeup(&worker.object, 1);
                std::this_thread::yield();
            }
        };
        ASSERT_EQ(0u, worker.Start());
        std::thread wakers[] = {std::thread(wake), std::thread(wake), std::thread(wake)};
        EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
        ASSERT_EQ(0u, worker.Start());
        EXPECT_EQ(0, PXR_thread_stop(&worker.object));
        worker.reported = PXR_THREAD_FAILED;
        ASSERT_EQ(0x620A1502u, worker.Start());
        worker.reported = PXR_THREAD_RUNNING;
        end = true;
        for (std::thread& waker : wakers)
            waker.join();
        ASSERT_TRUE(IsFree(worker.object)) << round;
    }
}

TEST(PxrThread, StopLeavesAnUnstoppableWorkerBehind) {
    Gate created;
    Gate there;
    Gate release;
    Gate gone;
    static TestWorker worker([&](PXR_thread* self) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        WaitForGate(self, created);
        there.Open();
        release.Pass();  // with the lock, as a worker stuck in the kernel may have it
        EXPECT_EQ(0, std::memcmp(&self->marker, "THRD", 4));
        gone.Open();
    });
    ASSERT_EQ(0u, worker.Start());
    created.Open();
    there.Pass();
    const auto begin = steady_clock::now();
    EXPECT_EQ(-1, PXR_thread_stop(&worker.object));
    EXPECT_LT(steady_clock::now() - begin, seconds(2));
    EXPECT_EQ(0x620A1501u, worker.Start()) << "the worker still uses the object";
    EXPECT_EQ(-1, PXR_thread_stop(&worker.object));
    release.Open();
    gone.Pass();
    pthread_mutex_lock(&worker.object.lock);  // its last access
    pthread_mutex_unlock(&worker.object.lock);
}

TEST(PxrThread, NamesBelongToTheirThread) {
    std::vector<std::string> names;
    TestWorker worker([&](PXR_thread*) {
        char name[] = "PXR_getFsInfo";
        names.emplace_back(PXR_THREAD_SELFNAME() == nullptr ? "none" : "inherited");
        PXR_SetThreadName(name);
        name[0] = '?';
        names.emplace_back(PXR_THREAD_SELFNAME());
        PXR_SetThreadName("renamed");
        names.emplace_back(PXR_THREAD_SELFNAME());
    });
    PXR_SetThreadName("main");
    ASSERT_EQ(0u, worker.Start());
    EXPECT_EQ(0, PXR_thread_destroy(&worker.object));
    EXPECT_THAT(names, ElementsAre("none", "PXR_getFsInfo", "renamed"));
    EXPECT_STREQ("main", PXR_THREAD_SELFNAME());
    PXR_SetThreadName(nullptr);
    EXPECT_EQ(nullptr, PXR_THREAD_SELFNAME());
}

}  // namespace
