#include "cover/FileCover.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "cover/ErrorCover.h"
#include "cover/FileDescriptor.h"
#include "simulator/MachineRoot.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;

std::string FullPath(const std::string& path) {
    char* const full = _fullpath(nullptr, path.c_str(), 0);
    const std::string copy = full != nullptr ? full : "(failed)";
    free(full);
    return copy;
}

TEST(FullPath, IsCanonical) {
    const TempDirectory directory;
    const fs::path before = fs::current_path();
    fs::current_path(directory.Path("."));
    const std::string here = fs::current_path().string();
    EXPECT_EQ(here + "/b/c", FullPath("a/../b/./c"));
    EXPECT_EQ(here, FullPath(""));
    fs::current_path(before);
    for (const auto& [path, full] : {std::pair<const char*, const char*>{"/x//y/", "/x/y"},
                                     {"/..", "/"},
                                     {"/x/../../y", "/y"},
                                     {"/...", "/..."},
                                     {"/x/..y/.z", "/x/..y/.z"},
                                     {"/", "/"}}) {
        EXPECT_EQ(full, FullPath(path));
    }
}

TEST(FullPath, KeepsToItsLengths) {
    const std::string longest = "/" + std::string(254, 'x');
    EXPECT_EQ(longest, FullPath(longest));
    SetRecentErrno(0);
    EXPECT_EQ("(failed)", FullPath(longest + "x"));
    EXPECT_EQ(EINVAL, GetRecentErrno());
    EXPECT_EQ("(failed)", FullPath(std::string(254, 'x'))) << "too long with the current directory";

    char out[4] = "";
    EXPECT_EQ(out, _fullpath(out, "/x/.", sizeof(out)));
    EXPECT_STREQ("/x", out);
    EXPECT_EQ(nullptr, _fullpath(out, "/abc", sizeof(out))) << "no room for the end";
    EXPECT_EQ(ERANGE, GetRecentErrno());
}

TEST(Copy, KeepsContentAndMode) {
    const TempDirectory directory;
    const std::string content = std::string(200'000, 'c') + "end";
    const std::string source = directory.AddFile("source", content);
    chmod(source.c_str(), 0640);
    const std::string destination = directory.AddFile("destination", std::string(300'000, 'o'));
    fs::remove(destination + ".new");

    EXPECT_EQ(0, CreateCopyFile(source.c_str(), destination.c_str(), 1));
    EXPECT_EQ(EEXIST, GetRecentErrno());
    EXPECT_EQ(300'000U, fs::file_size(destination)) << "left as it was";

    const auto copy = [&] { EXPECT_EQ(1, CreateCopyFile(source.c_str(), destination.c_str(), 0)); };
    EXPECT_TRUE(FinishesWhenCancelled(copy)) << "half a copy";
    EXPECT_EQ(content, directory.ReadFile("destination"));
    EXPECT_EQ(1, CreateCopyFile(source.c_str(), (destination + ".new").c_str(), 1));
    EXPECT_EQ(fs::perms{0640}, fs::status(destination + ".new").permissions());

    EXPECT_EQ(0, CreateCopyFile(directory.Path("none").c_str(), destination.c_str(), 0));
    EXPECT_EQ(ENOENT, GetRecentErrno());
    EXPECT_EQ(content, directory.ReadFile("destination")) << "nothing truncated for a source that is not there";
    fs::create_symlink(destination, directory.Path("link"));
    for (const std::string& same : {destination, directory.Path("link")})
        EXPECT_EQ(1, CreateCopyFile(destination.c_str(), same.c_str(), 0));
    EXPECT_EQ(content, directory.ReadFile("destination")) << "copied to itself";

    EXPECT_EQ(1, CreateCopyFile("/proc/version", destination.c_str(), 0));
    EXPECT_EQ(0U, directory.ReadFile("destination").find("Linux")) << "what the kernel does not copy by itself";
}

/// Copies in a process that has 4096 bytes of something.
int CopyWithLittle(int resource, const std::string& source, const std::string& copy) {
    const pid_t child = fork();
    if (child != 0) return WaitForExit(child);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {4096, 4096};
    setrlimit(static_cast<decltype(RLIMIT_AS)>(resource), &small);
    _exit(CreateCopyFile(source.c_str(), copy.c_str(), 0) != 0 ? 0 : GetRecentErrno());
}

TEST(Copy, LeavesNothingWhenThereIsNoRoom) {
    const TempDirectory directory;
    const std::string source = directory.AddFile("source", std::string(4'000'000, 'c'));
    EXPECT_EQ(EFBIG, CopyWithLittle(RLIMIT_FSIZE, source, directory.Path("copy")));
    EXPECT_FALSE(directory.Exists("copy"));
#ifndef __SANITIZE_ADDRESS__  // the sanitizer itself needs the address space
    EXPECT_EQ(0, CopyWithLittle(RLIMIT_AS, source, directory.Path("copy"))) << "a copy takes no memory";
    EXPECT_EQ(4'000'000U, fs::file_size(directory.Path("copy")));
#endif
}

TEST(Directories, AreMadeAndRemovedWhole) {
    const TempDirectory directory;
    const std::string deep = directory.Path("a/b/c");
    EXPECT_EQ(0, CreateNewDirectory(deep.c_str())) << "one at a time only";
    EXPECT_EQ(1, CreateDirectoryforFile((deep + "/file").c_str()));
    EXPECT_EQ(1, CreateDirectoryforPath((deep + "//d/").c_str()));
    EXPECT_TRUE(fs::is_directory(deep + "/d"));
    directory.AddFile("a/file", "x");
    EXPECT_EQ(0, CreateDirectoryforPath(directory.Path("a/file").c_str()));
    EXPECT_EQ(ENOTDIR, GetRecentErrno());

    EXPECT_EQ(1, CreateNewDirectory(directory.Path("outside").c_str()));
    directory.AddFile("outside/file", "kept");
    fs::create_symlink(directory.Path("outside"), deep + "/link");
    for (const char* other : {"a/file", "a/b/c/link", "a/b/c/link/"}) {
        EXPECT_EQ(0, RemoveDir(directory.Path(other).c_str())) << other << " is no directory";
        EXPECT_EQ(ENOTDIR, GetRecentErrno());
    }
    EXPECT_TRUE(FinishesWhenCancelled([&] { EXPECT_EQ(1, RemoveDir(directory.Path("a//").c_str())); }));
    EXPECT_FALSE(directory.Exists("a"));
    EXPECT_EQ("kept", directory.ReadFile("outside/file"));
    const FileDescriptor file(FileOpen(directory.Path("outside/file").c_str(), O_RDONLY, 0));
    EXPECT_EQ(FD_CLOEXEC, fcntl(file.Get(), F_GETFD)) << "no child inherits it";
    EXPECT_EQ(0, RemoveDir(directory.Path("a").c_str()));
    EXPECT_EQ(ENOENT, GetRecentErrno());
}

TEST(ReadAndWrite, GoOnUntilAllIsDone) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const std::string sent(300'000, 's');  // several times what a pipe holds
    std::thread writer([&] {
        EXPECT_EQ(static_cast<int>(sent.size()), FileWrite(ends[1], sent.data(), static_cast<uint32_t>(sent.size())));
        close(ends[1]);
    });
    std::string got(sent.size() + 10, '?');
    EXPECT_EQ(static_cast<int>(sent.size()), FileRead(ends[0], got.data(), static_cast<uint32_t>(got.size())));
    writer.join();
    EXPECT_EQ(sent, got.substr(0, sent.size()));
    close(ends[0]);
    EXPECT_EQ(-1, FileRead(ends[0], got.data(), 1));
    EXPECT_EQ(-1, FileWrite(ends[1], got.data(), 1));
    EXPECT_EQ(EBADF, GetRecentErrno());
}

}  // namespace
