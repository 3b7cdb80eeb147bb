#include "common/PXR_trace_LogFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>
#include <utility>

#include "common/PXR_trace_internal.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Lines.h"
#include "tests/support/SyslogListener.h"

namespace {

// What another process does at the worst moment, and what a full disk lets through of a line.
std::function<void()> afterNextWrite;
std::function<void()> afterNextPwrite;
size_t writeOnly = SIZE_MAX;

template <typename Call>
ssize_t Meddle(std::function<void()>& after, Call call) {
    const auto interference = std::exchange(after, nullptr);
    const ssize_t result = call();
    if (interference) interference();
    return result;
}

}  // namespace

extern "C" {
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pwrite64(int fd, const void* data, size_t size, off_t offset);

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return Meddle(afterNextWrite,
                  [&] { return __real_write(fd, data, std::min(size, std::exchange(writeOnly, SIZE_MAX))); });
}
ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off_t offset) {
    return Meddle(afterNextPwrite, [&] { return __real_pwrite64(fd, data, size, offset); });
}
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::filesystem::file_size;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::vector<std::string> reports;

void Report(const char* path) {
    reports.emplace_back(path);
}

void WriteLine(LogFile& file, const std::string& text) {
    file.Write((text + '\n').data(), text.size() + 1);
}

/// Writes numbered lines and checks after each that the file holds whole consecutive ones up to it, within the limit.
void GrowAndCheck(const char* path, uint32_t limitKiB, int count, size_t padding, int checkEvery) {
    LogFile files[2];  // as of two processes
    for (LogFile& file : files)
        ASSERT_EQ(0, file.Open(path, limitKiB, Report));
    for (int n = 0; n < count; ++n) {
        const std::string line = std::to_string(n) + std::string(padding + static_cast<size_t>(n) % 7, '.') + "\n";
        const auto before = file_size(path);
        files[n % 2].Write(line.data(), line.size());
        const auto size = file_size(path);
        ASSERT_GE(size < before ? limitKiB * 512U : limitKiB * 1024U, size) << "after line " << n;
        if (size > before && n % checkEvery != 0) continue;
        int expected = n;
        const auto lines = Lines(Content(path));
        for (auto it = lines.rbegin(); it != lines.rend(); ++it, --expected)
            ASSERT_EQ(std::to_string(expected) + std::string(padding + static_cast<size_t>(expected) % 7, '.'), *it);
    }
}

TEST(LogFile, KeepsItsNewestWholeLines) {
    RunInRoot(MakeTestRoot(), [] {
        GrowAndCheck("/tmp/small.log", 1, 300, 40, 1);
        GrowAndCheck("/tmp/large.log", 1024, 4000, 500, 1000);  // several pieces are moved
    });
}

TEST(LogFile, IsCutWhateverItsReadersDo) {
    RunInRoot(MakeTestRoot(), [] {
        std::ofstream("/tmp/read.log") << std::string(5000, '.') << '\n';
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/read.log", 1, Report));
        const int reader = open("/tmp/read.log", O_RDONLY | O_CLOEXEC);
        struct flock whole {};
        whole.l_type = F_RDLCK;
        ASSERT_EQ(0, flock(reader, LOCK_EX));
        ASSERT_EQ(0, fcntl(reader, F_OFD_SETLK, &whole));
        for (int i = 0; i < 100; ++i) {
            WriteLine(file, std::string(99, '.'));
            ASSERT_GE(1024U, file_size("/tmp/read.log"));
        }
        close(reader);
    });
}

/// The numbers that each writer's lines have ("a 17 ..."), in the order of the file, must be without a gap up to last.
void ExpectNoGap(const std::string& content, int last) {
    std::map<char, int> numbers;
    for (const auto& line : Lines(content)) {
        ASSERT_EQ(100U, line.size()) << line;
        const int number = std::stoi(line.substr(2));
        const auto [before, isFirst] = numbers.try_emplace(line[0], number);
        if (!isFirst) {
            ASSERT_EQ(std::exchange(before->second, number) + 1, number) << "of " << line[0];
        }
    }
    for (const auto& [name, number] : numbers)
        EXPECT_EQ(last, number) << name;
}

TEST(LogFile, ProcessesThatCutItLoseNothingOfTheRest) {
    RunInRoot(MakeTestRoot(), [] {
        constexpr int kLast = 2999;
        for (int round = 0; round < 10; ++round) {
            const auto writer = [](char name) {
                const pid_t child = fork();
                if (child != 0) return child;
                LogFile file;
                file.Open("/tmp/two.log", 32, Report);
                for (int n = 0; n <= kLast; ++n) {
                    std::string line = name + (' ' + std::to_string(n)) + ' ';
                    line.resize(100, '.');
                    WriteLine(file, line);
                }
                _exit(0);
            };
            for (const pid_t child : {writer('a'), writer('b')})
                EXPECT_EQ(0, WaitForExit(child));
            EXPECT_GE(32U * 1024, file_size("/tmp/two.log"));
            ExpectNoGap(Content("/tmp/two.log"), kLast);
            unlink("/tmp/two.log");
        }
    });
}

TEST(LogFile, TakesAlongWhatIsAppendedDuringTheCut) {
    RunInRoot(MakeTestRoot(), [] {
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/along.log", 1, Report));
        const int other = open("/tmp/along.log", O_WRONLY | O_APPEND | O_CLOEXEC);
        for (int i = 0; i < 11; ++i) {
            if (i == 10) afterNextPwrite = [other] { EXPECT_EQ(6, write(other, "other\n", 6)); };
            WriteLine(file, std::string(99, '.'));
        }
        EXPECT_EQ(506U, file_size("/tmp/along.log"));
        EXPECT_EQ("other", Lines(Content("/tmp/along.log")).back());
        close(other);
    });
}

TEST(LogFile, HoldsItsLinesBackWhileAnotherProcessCuts) {
    RunInRoot(MakeTestRoot(), [] {
        LogFile one;
        LogFile other;
        ASSERT_EQ(0, one.Open("/tmp/held.log", 1, Report));
        ASSERT_EQ(0, other.Open("/tmp/held.log", 1, Report));
        WriteLine(other, "begin");
        WriteLine(one, std::string(999, '.'));
        std::thread writer;
        afterNextPwrite = [&] {
            writer = std::thread([&] { WriteLine(other, "held back"); });
            std::this_thread::sleep_for(milliseconds(30));
            EXPECT_EQ(1106U, file_size("/tmp/held.log"));
        };
        WriteLine(one, std::string(99, '.'));
        writer.join();
        EXPECT_EQ("held back", Lines(Content("/tmp/held.log")).back());
    });
}

// The writer whose line reached over the limit was killed before it had cut the file.
TEST(LogFile, AnotherWriterCutsInADeadOnesPlace) {
    RunInRoot(MakeTestRoot(), [] {
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/dead.log", 1, Report));
        WriteLine(file, "begin");
        std::ofstream("/tmp/dead.log", std::ios::app) << std::string(1039, '.') << '\n';
        const auto begin = steady_clock::now();
        for (int i = 0; i < 20; ++i) {
            WriteLine(file, std::string(19, 'x'));
            ASSERT_GE(1280U, file_size("/tmp/dead.log")) << "line " << i;
            EXPECT_TRUE(i > 0 || file_size("/tmp/dead.log") > 1024U) << "may still be cut by the other";
        }
        EXPECT_GT(milliseconds(800), steady_clock::now() - begin) << "waits for the dead only once";
        EXPECT_GE(1024U, file_size("/tmp/dead.log"));
    });
}

// PXR_trace_init may be called by several threads, each time opening the log anew.
TEST(LogFile, ThreadsThatOpenAndWriteLoseNothing) {
    RunInRoot(MakeTestRoot(), [] {
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/threads.log", 2, Report));
        const int next = dup(0);
        close(next);
        std::vector<std::thread> threads(8);
        char letter = 'a';
        for (auto& thread : threads) {
            thread = std::thread([&file, line = std::string(30, letter++) + "\n"] {
                for (int n = 0; n < 500; ++n) {
                    file.Open("/tmp/threads.log", 2, Report);
                    file.Write(line.data(), line.size());
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
        const int nextNow = dup(0);
        EXPECT_EQ(next, nextNow) << "one descriptor is open, as before";
        close(nextNow);
        for (const auto& line : Lines(Content("/tmp/threads.log")))
            EXPECT_EQ(std::string(30, line[0]), line);
    });
}

// As a process does that closes every descriptor and opens files of its own.
TEST(LogFile, LeavesAFileAloneThatReusesItsNumberAndOpensItsOwnAnew) {
    RunInRoot(MakeTestRoot(), [] {
        const int number = dup(0);
        close(number);
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/our.log", 1, Report));
        WriteLine(file, "before");
        ASSERT_EQ(0, close(number));
        ASSERT_EQ(number, open("/tmp/host.data", O_RDWR | O_CREAT, 0600));
        WriteLine(file, "after");
        file.Close();
        EXPECT_EQ(0U, file_size("/tmp/host.data"));
        EXPECT_EQ(0, close(number)) << "still the host's";
        EXPECT_EQ("before\nafter\n", Content("/tmp/our.log"));
    });
}

TEST(LogFile, AFullDiskIsReportedOnceUntilItHasRoomAgain) {
    RunInRoot(MakeTestRoot(), [] {
        SyslogListener syslog;
        signal(SIGXFSZ, SIG_IGN);
        const auto setRoom = [](rlim_t bytes) {
            const rlimit limit{bytes, RLIM_INFINITY};
            ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
        };
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/full.log", 0, trace::ReportFailingLog));
        const std::string line = std::string(299, '.') + "\n";
        const auto write = [&](int times) {
            for (int i = 0; i < times; ++i)
                file.Write(line.data(), line.size());
        };
        setRoom(1000);
        write(5);
        EXPECT_EQ(900U, file_size("/tmp/full.log")) << "whole lines only";
        ASSERT_EQ(1U, syslog.Lines().size());
        EXPECT_THAT(syslog.Lines()[0], StartsWith("pxragt: WXPLG0534AO-E "));
        EXPECT_THAT(syslog.Lines()[0], HasSubstr("/tmp/full.log"));
        setRoom(RLIM_INFINITY);
        write(1);
        setRoom(1000);
        write(3);
        EXPECT_EQ(2U, syslog.Lines().size());
        EXPECT_EQ(1200U, file_size("/tmp/full.log"));
    });
}

TEST(LogFile, WhatAFullDiskLetsThroughIsTakenBackUnlessOthersHaveWrittenBehindIt) {
    RunInRoot(MakeTestRoot(), [] {
        LogFile file;
        ASSERT_EQ(0, file.Open("/tmp/behind.log", 0, Report));
        const int other = open("/tmp/behind.log", O_WRONLY | O_APPEND | O_CLOEXEC);
        writeOnly = 3;
        afterNextWrite = [other] { EXPECT_EQ(7, pwrite(other, "\nother\n", 7, 0)); };
        WriteLine(file, "cut off");
        EXPECT_EQ("cut\nother\n", Content("/tmp/behind.log"));
        close(other);
    });
}

// A sealed file grows and never shrinks.
TEST(LogFile, AFileThatCannotBeCutIsReportedOnce) {
    RunInRoot(MakeTestRoot(), [] {
        const int sealed = memfd_create("log", MFD_ALLOW_SEALING | MFD_CLOEXEC);
        ASSERT_EQ(0, fcntl(sealed, F_ADD_SEALS, F_SEAL_SHRINK));
        const std::string path = "/proc/self/fd/" + std::to_string(sealed);
        LogFile file;
        ASSERT_EQ(0, file.Open(path.c_str(), 1, Report));
        for (int i = 0; i < 20; ++i)
            WriteLine(file, std::string(99, '.'));
        EXPECT_THAT(reports, ElementsAre(path));
        EXPECT_EQ(2000, lseek(sealed, 0, SEEK_END)) << "no line is lost";
        close(sealed);
    });
}

}  // namespace
