/// The machine as the table of device operations shows it, and its clock.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "simulator/SimulatedServer.h"

namespace sim {
namespace {

class ServerTest : public testing::Test {
protected:
    uint8_t In(uint16_t port) { return ops->portIn(ops->context, port); }
    int Privilege(int level) { return ops->ioPrivilege(ops->context, level); }
    int Open(const char* path, int flags) { return ops->open(ops->context, path, flags); }

    VirtualClock clock;
    SimulatedServer server{clock};
    const KvDeviceOps* ops = server.Ops();
};

TEST_F(ServerTest, PortsNeedPrivilege) {
    EXPECT_EQ(0xFF, In(0xCA3));
    EXPECT_EQ(1U, server.PrivilegeViolations());
    server.DenyIoPrivilege(true);
    EXPECT_EQ(-1, Privilege(3));
    server.DenyIoPrivilege(false);
    ASSERT_EQ(0, Privilege(3));
    std::thread([&] { In(0xCA3); }).join();
    EXPECT_EQ(2U, server.PrivilegeViolations()) << "the level belongs to the thread";
    EXPECT_EQ(0x00, In(0xCA3));
    EXPECT_EQ(0xFF, In(0xCA4)) << "nothing lies there";
    Privilege(0);
    EXPECT_EQ(0U, server.RaisedThreads());
}

TEST_F(ServerTest, MemoryIsThereWhereItWasPut) {
    server.AddMemory(0x7FFE8010, {1, 2, 3, 4});
    const int fd = Open("/dev/mem", O_RDONLY);
    uint8_t bytes[8]{};
    ops->seek(ops->context, fd, 0x7FFE8012);
    EXPECT_EQ(2, ops->read(ops->context, fd, bytes, 8)) << "up to the end of the block";
    EXPECT_EQ(4, bytes[1]);
    EXPECT_EQ(-1, ops->read(ops->context, fd, bytes, 8));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(MAP_FAILED, ops->map(ops->context, fd, 0x7FFE8000, 0x14, 1)) << "opened for reading";
    ops->close(ops->context, fd);
}

TEST_F(ServerTest, MappedRegistersSeePlainLoadsAndStores) {
    server.PlaceKcs({true, 0xFEC00CA0, 4});
    const int fd = Open("/dev/mem", O_RDWR);
    void* page = ops->map(ops->context, fd, 0xFEC00000, 4096, 1);
    ASSERT_NE(MAP_FAILED, page);
    auto* data = static_cast<volatile uint8_t*>(page) + 0xCA0;
    auto* status = static_cast<volatile uint8_t*>(page) + 0xCA4;
    *status = kcs::kWriteStart;
    EXPECT_TRUE(*status & kcs::kIbf);
    EXPECT_EQ(kcs::kWrite | kcs::kCommandLast, *status);
    *data = 0x18;
    EXPECT_TRUE(*status & kcs::kIbf) << "until that read";
    EXPECT_FALSE(*status & kcs::kIbf);
    EXPECT_EQ(1U, server.PortWrites(0xFEC00CA4));
    EXPECT_EQ(0U, server.Kcs().Violations());
    ops->unmap(ops->context, page, 4096);
}

TEST(VirtualClock, PausesOfSeveralThreadsDoNotAddUp) {
    VirtualClock clock;
    const uint64_t start = clock.Now();
    std::thread other([&] {
        for (int i = 0; i < 100; ++i)
            clock.SleepFor(1000);
    });
    std::mutex mutex;
    std::condition_variable wake;
    std::unique_lock lock(mutex);
    while (clock.WaitUntil(wake, lock, start + 1'100'000)) {
    }
    other.join();
    EXPECT_EQ(start + 1'100'000, clock.Now());
    EXPECT_EQ(100'000U, clock.Slept());
    clock.InterruptSleeps(1);
    EXPECT_EQ(-1, clock.SleepFor(5));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, clock.SleepFor(5));
}

TEST(VirtualClock, AnAnswerUnderWayComesBeforeItsDeadline) {
    VirtualClock clock;
    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> answered = false;
    std::thread answering([&] {
        for (int i = 0; i < 500; ++i)
            clock.SleepFor(1000);  // polls for half a second
        const std::lock_guard lock(mutex);
        answered = true;
        wake.notify_all();
    });
    std::unique_lock lock(mutex);
    const uint64_t deadline = clock.Now() + 1'100'000;
    while (!answered && clock.WaitUntil(wake, lock, deadline)) {
    }
    EXPECT_TRUE(answered);
    EXPECT_LT(clock.Now(), deadline);
    lock.unlock();
    answering.join();
}

}  // namespace
}  // namespace sim
