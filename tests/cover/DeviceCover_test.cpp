#include "cover/DeviceCover.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#include "tests/support/CancelledThread.h"
#include "tests/support/TempDirectory.h"

namespace {

TEST(DeviceCover, DefaultTalksToTheSystem) {
    const TempDirectory directory;
    const std::string path = directory.AddFile("memory", std::string(5000, 'm'));
    {
        device::Descriptor file(path.c_str(), O_RDWR);
        ASSERT_TRUE(file);
        EXPECT_NE(0, fcntl(file.Get(), F_GETFD) & FD_CLOEXEC) << "children get it";
        char byte = 0;
        EXPECT_EQ(4096, device::Seek(file.Get(), 4096));
        EXPECT_EQ(1, device::Write(file.Get(), "w", 1));
        auto* const mapped = static_cast<char*>(device::Map(file.Get(), 4096, 4096, true));
        ASSERT_NE(MAP_FAILED, mapped);
        EXPECT_EQ('w', mapped[0]);
        mapped[1] = 's';
        EXPECT_EQ(1, device::Read(file.Get(), &byte, 1));
        EXPECT_EQ('s', byte) << "a writable mapping is the device's own";
        EXPECT_EQ(0, device::Unmap(mapped, 4096));
        uint32_t block[4] = {};
        EXPECT_EQ(-1, device::Ioctl(file.Get(), 0x80044501, block));
        EXPECT_EQ(ENOTTY, errno) << "a plain file is no memory driver";
    }
    EXPECT_FALSE(device::Descriptor(directory.Path("none").c_str(), O_RDONLY));
}

// A destructor that a cancelled thread leaves would end the process.
TEST(DeviceCover, ACancelledThreadClosesItsDevice) {
    auto memory = std::make_unique<device::Descriptor>("/dev/null", O_RDONLY);
    EXPECT_TRUE(FinishesWhenCancelled([&] { memory.reset(); }));
}

TEST(DeviceCover, MappingBehindAPlainFileFailsInsteadOfKilling) {
    const TempDirectory directory;
    const device::Descriptor file(directory.AddFile("memory", std::string(5000, 'm')).c_str(), O_RDONLY);
    for (const auto& [offset, length] : {std::pair<int64_t, size_t>{8192, 4096}, {4096, 8192}, {INT64_C(1) << 40, 1}}) {
        errno = 0;
        EXPECT_EQ(MAP_FAILED, device::Map(file.Get(), offset, length, false)) << offset;
        EXPECT_EQ(ENXIO, errno);
    }
}

TEST(DeviceCover, WaitsForReadability) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    EXPECT_EQ(0, device::WaitReadable(ends[0], 1));

    signal(SIGALRM, [](int) {});
    const itimerval soon{{0, 0}, {0, 20'000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, device::WaitReadable(ends[0], 10'000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "a signal ends the wait";

    ASSERT_EQ(1, write(ends[1], "x", 1));
    EXPECT_EQ(1, device::WaitReadable(ends[0], 10'000));
    char byte = 0;
    ASSERT_EQ(1, read(ends[0], &byte, 1));
    close(ends[1]);
    EXPECT_EQ(-1, device::WaitReadable(ends[0], 10'000)) << "hung up: nothing will come";
    close(ends[0]);
}

TEST(DeviceCover, ReplacedTableGetsItsContext) {
    struct Ports {
        uint16_t port = 0;
        uint8_t value = 0;
        int level = -1;
    } ports;
    KvDeviceOps ops = {};
    ops.size = sizeof ops;
    ops.context = &ports;
    ops.ioPrivilege = [](void* context, int level) { return static_cast<Ports*>(context)->level = level, 0; };
    ops.portOut = [](void* context, uint16_t port, uint8_t value) {
        *static_cast<Ports*>(context) = {port, value, static_cast<Ports*>(context)->level};
    };
    ops.portIn = [](void* context, uint16_t port) {
        return static_cast<uint8_t>(port == static_cast<Ports*>(context)->port ? 0x5A : 0);
    };
    ASSERT_EQ(0, KvSetDeviceOps(&ops));
    EXPECT_EQ(0, device::IoPrivilege(3));
    device::PortOut(0xCA2, 0x61);
    EXPECT_EQ(0x5A, device::PortIn(0xCA2));
    KvSetDeviceOps(nullptr);
    EXPECT_EQ(3, ports.level);
    EXPECT_EQ(0x61, ports.value);
    EXPECT_EQ(-1, device::Open("/nowhere/at/all", O_RDONLY)) << "the default is back";
    EXPECT_EQ(ENOENT, errno);
}

TEST(DeviceCover, TableOfFewerOperationsNeverReachesTheRealMachine) {
    KvDeviceOps ops = {};
    ops.size = offsetof(KvDeviceOps, read);
    ops.open = [](void*, const char*, int) { return 7; };
    ops.portIn = [](void*, uint16_t) -> uint8_t { return 0x5A; };  // behind the size: not looked at
    ASSERT_EQ(0, KvSetDeviceOps(&ops));
    EXPECT_EQ(7, device::Open("/dev/mem", O_RDONLY));
    char byte = 0;
    const std::function<int64_t()> missing[] = {
        [] { return device::Close(STDIN_FILENO); },  // null
        [&] { return device::Read(STDIN_FILENO, &byte, 1); },
        [&] { return device::Write(STDOUT_FILENO, &byte, 1); },
        [] { return device::Seek(STDIN_FILENO, 0); },
        [] { return device::Map(STDIN_FILENO, 0, 4096, false) == MAP_FAILED ? -1 : 0; },
        [&] { return device::Unmap(&byte, 4096); },
        [] { return device::Ioctl(STDIN_FILENO, FIONREAD, nullptr); },
        [] { return device::WaitReadable(STDIN_FILENO, 0); },
        [] { return device::IoPrivilege(0); },
    };
    for (const auto& call : missing) {
        errno = 0;
        EXPECT_EQ(-1, call()) << &call - missing;
        EXPECT_EQ(ENOSYS, errno) << &call - missing;
    }
    device::PortOut(0x80, 0);
    EXPECT_EQ(0xFF, device::PortIn(0x80));

    for (const uint32_t size : {0U, 0x5678'9ABCU}) {  // as a table without size begins
        ops.size = size;
        EXPECT_EQ(EINVAL, KvSetDeviceOps(&ops));
        EXPECT_EQ(7, device::Open("/dev/mem", O_RDONLY)) << "the table before is still there";
    }
    ops.size = sizeof ops + 8;  // of a newer header
    EXPECT_EQ(0, KvSetDeviceOps(&ops));
    EXPECT_EQ(0x5A, device::PortIn(0x80));
    KvSetDeviceOps(nullptr);
}

}  // namespace
