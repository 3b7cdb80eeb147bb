#include "libplatform/PXR_syscall.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "common/PXR_syscall_internal.h"
#include "simulator/MachineRoot.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/TempDirectory.h"

namespace {

mode_t ModeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class Syscall : public testing::Test {
protected:
    ~Syscall() override { umask(previousMask_); }

    const mode_t previousMask_ = umask(022);
    const TempDirectory directory_;
};

TEST_F(Syscall, OpenMakesMissingDirectoriesOnlyWhenItCreates) {
    const std::string path = directory_.Path("a/b/file");
    EXPECT_EQ(-1, PXR_open(path.c_str(), O_WRONLY, 0640));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(directory_.Exists("a"));

    const FileDescriptor fd(PXR_open(path.c_str(), O_WRONLY | O_CREAT, 0640));
    ASSERT_TRUE(fd) << errno;
    EXPECT_EQ(0640U, ModeOf(path));
    EXPECT_EQ(0750U, ModeOf(directory_.Path("a")));
    EXPECT_EQ(0750U, ModeOf(directory_.Path("a/b")));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd.Get(), F_GETFD));

    EXPECT_EQ(-1, PXR_open((path + "/below").c_str(), O_WRONLY | O_CREAT, 0640));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(Syscall, MkdirWalksThePath) {
    EXPECT_EQ(0, PXR_mkdir(directory_.Path("x//y/z/").c_str(), 0604));
    EXPECT_EQ(0, PXR_mkdir(directory_.Path("x/y/z").c_str(), 0700));
    EXPECT_EQ(0705U, ModeOf(directory_.Path("x/y/z")));
    directory_.AddFile("x/file", "");
    EXPECT_EQ(ENOTDIR, PXR_mkdir(directory_.Path("x/file").c_str(), 0755));
    EXPECT_EQ(ENOTDIR, PXR_mkdir(directory_.Path("x/file/deeper").c_str(), 0755));
    EXPECT_EQ(ENAMETOOLONG, PXR_mkdir(std::string(5000, '/').c_str(), 0755));
    EXPECT_EQ(ENOENT, PXR_mkdir("", 0755));
}

TEST_F(Syscall, TransfersGoOnUntilAllBytesAreMoved) {
    int pipe[2];
    ASSERT_EQ(0, pipe2(pipe, O_CLOEXEC | O_NONBLOCK));
    const std::string sent(300'000, 'x');  // several times what a pipe holds
    std::thread writer([&] {
        EXPECT_EQ(static_cast<int>(sent.size()), PXR_write(pipe[1], sent.data(), sent.size()));
        close(pipe[1]);
    });
    std::string received(sent.size() + 100, '\0');
    EXPECT_EQ(static_cast<int>(sent.size()), PXR_read(pipe[0], received.data(), received.size()));
    writer.join();
    close(pipe[0]);
    EXPECT_EQ(sent, received.substr(0, sent.size()));

    EXPECT_EQ(-1, PXR_read(-1, received.data(), 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, PXR_write(1, nullptr, 0xFFFFFFFF));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(Syscall, RemovesATreeButNotWhatItsLinksNameAndNoLinkTarget) {
    const std::string kept = directory_.AddFile("kept", "kept");
    ASSERT_EQ(0, PXR_mkdir(directory_.Path("outside/sub").c_str(), 0755));
    directory_.AddFile("outside/sub/file", "kept");
    ASSERT_EQ(0, PXR_mkdir(directory_.Path("tree/a/b/c").c_str(), 0755));
    for (int i = 0; i < 300; ++i)
        directory_.AddFile("tree/a/" + std::to_string(i), "x");
    ASSERT_EQ(0, symlink(directory_.Path("outside").c_str(), directory_.Path("tree/a/link").c_str()));
    ASSERT_EQ(0, symlink(kept.c_str(), directory_.Path("tree/fileLink").c_str()));
    ASSERT_EQ(0, mkfifo(directory_.Path("tree/fifo").c_str(), 0600));
    ASSERT_EQ(0, symlink("outside", directory_.Path("topLink").c_str()));

    EXPECT_TRUE(FinishesWhenCancelled([&] { EXPECT_EQ(0, PXR_rmdir(directory_.Path("tree/").c_str())); }))
        << "a descriptor may be lost on the way";
    EXPECT_FALSE(directory_.Exists("tree"));
    EXPECT_EQ(0, PXR_rmdir(directory_.Path("topLink/").c_str()));
    EXPECT_FALSE(directory_.Exists("topLink"));
    EXPECT_EQ("kept", directory_.ReadFile("outside/sub/file"));
    EXPECT_EQ(ENOTDIR, PXR_rmdir(kept.c_str()));
    EXPECT_EQ(ENOENT, PXR_rmdir(directory_.Path("absent").c_str()));
}

TEST_F(Syscall, RemovalOfAVeryDeepTreeIsRefused) {
    std::string deep = directory_.Path("deep");
    for (int level = 0; level < 300; ++level)
        deep += "/d";
    ASSERT_EQ(0, PXR_mkdir(deep.c_str(), 0755));
    EXPECT_EQ(ELOOP, PXR_rmdir(directory_.Path("deep").c_str()));
    EXPECT_EQ(0, access(deep.c_str(), F_OK));
}

TEST_F(Syscall, RenamesOntoAndInto) {
    ASSERT_EQ(0, PXR_mkdir(directory_.Path("target").c_str(), 0755));
    const std::string file = directory_.AddFile("file", "content");
    EXPECT_EQ(0, PXR_renameall(file.c_str(), directory_.Path("target").c_str()));
    EXPECT_EQ("content", directory_.ReadFile("target/file"));
    EXPECT_EQ(0, PXR_renameall(directory_.Path("target/file").c_str(), directory_.Path("plain").c_str()));
    EXPECT_EQ("content", directory_.ReadFile("plain"));
    EXPECT_EQ(0, PXR_renameall(directory_.Path("target").c_str(), directory_.Path("moved").c_str()));
    EXPECT_TRUE(directory_.Exists("moved"));
    EXPECT_EQ(ENOENT, PXR_renameall(file.c_str(), directory_.Path("plain").c_str()));
    EXPECT_EQ(ENOENT, PXR_unlink(file.c_str()));
    EXPECT_EQ(0, PXR_unlink(directory_.Path("plain").c_str()));
}

TEST_F(Syscall, TheSuperuserIsHeldToPermissionBits) {
    if (geteuid() != 0) GTEST_SKIP() << "asks for the superuser's view";
    const std::string file = directory_.AddFile("file", "");
    ASSERT_EQ(0, chmod(file.c_str(), 0410));
    EXPECT_EQ(0, PXR_access(file.c_str(), F_OK));
    EXPECT_EQ(0, PXR_access(file.c_str(), R_OK));
    EXPECT_EQ(0, PXR_access(file.c_str(), X_OK));
    EXPECT_EQ(EACCES, PXR_access(file.c_str(), W_OK));
    EXPECT_EQ(22, PXR_access(file.c_str(), R_OK | X_OK));
    EXPECT_EQ(ENOENT, PXR_access(directory_.Path("absent").c_str(), F_OK));
}

TEST_F(Syscall, OtherUsersAreAskedOfTheSystem) {
    const std::string file = directory_.AddFile("file", "");
    ASSERT_EQ(0, chmod(file.c_str(), 0404));
    ASSERT_EQ(0, chmod(directory_.Path("").c_str(), 0755));
    const pid_t child = fork();
    if (child == 0) {
        if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) _exit(9);
        const int reached = access(file.c_str(), F_OK) == 0 ? 0 : errno;
        _exit(PXR_access(file.c_str(), W_OK) == EACCES && PXR_access(file.c_str(), F_OK) == reached ? 0 : 1);
    }
    EXPECT_EQ(0, WaitForExit(child));
}

TEST_F(Syscall, MachineFacts) {
    EXPECT_GT(PXR_GetPhysicalMemory(), 16U << 20);
    char text[65];
    EXPECT_EQ(0, PXR_GetOSName(text, 6));
    EXPECT_STREQ("Linux", text);
    EXPECT_EQ(ERANGE, PXR_GetOSName(text, 5));
    EXPECT_EQ(0, PXR_GetMachineName(text, sizeof(text)));
    utsname machine{};
    uname(&machine);
    EXPECT_STREQ(machine.nodename, text);
    EXPECT_EQ(0, PXR_GetOSVersion(text, sizeof(text)));
    EXPECT_NE(nullptr, strchr(text, '.')) << text;
    EXPECT_EQ(0, PXR_GetIPAddress("lo", text, 10));
    EXPECT_STREQ("127.0.0.1", text);
    EXPECT_EQ(ERANGE, PXR_GetIPAddress("lo", text, 9));
    for (const char* missing : {"absent0", "a-name-too-long-for-any"})
        EXPECT_EQ(ENODEV, PXR_GetIPAddress(missing, text, sizeof(text)));
}

TEST_F(Syscall, TerminationEndsAWait) {
    const pid_t child = fork();
    if (child == 0) {
        int pipe[2];
        if (pipe2(pipe, O_CLOEXEC | O_NONBLOCK) != 0 || IsTerminateProcess() != 0) _exit(1);
        signal(SIGALRM, [](int) { SetTerminateProcess(); });
        ualarm(5000, 0);
        char byte = 0;
        const int count = PXR_read(pipe[0], &byte, 1);  // nothing will ever come
        _exit(count == -1 && errno == ECANCELED && IsTerminateProcess() == 1 ? 0 : 2);
    }
    EXPECT_EQ(0, WaitForExit(child));
}

}  // namespace
