// Whole files: what is read, and what a replacement does with what it finds under its temporary name.
#include "common/FileText.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "common/TextCursor.h"
#include "tests/support/FullDisk.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;

std::string Content(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Put(const fs::path& path, const std::string& content) {
    std::ofstream(path) << content;
}

class FileTextTest : public testing::Test {
    TempDirectory directory_;

protected:
    std::string target_ = directory_.Path("file");
    std::string temporary_ = directory_.Path("file.tmp");

    int Replace(const std::string& content) const {
        Replacement file;
        if (const int error = file.Create(target_.c_str(), temporary_.c_str(), 0640)) return error;
        file.Write(content);
        return file.Commit();
    }
};

TEST_F(FileTextTest, ReadsRegularFilesUpToTheirLimit) {
    const std::string large(40'000, 'x');
    Put(target_, large);
    std::string content = "untouched";
    EXPECT_EQ(EFBIG, ReadWhole(target_.c_str(), large.size() - 1, content));
    ASSERT_EQ(0, mkfifo(temporary_.c_str(), 0600));
    EXPECT_EQ(EINVAL, ReadWhole(temporary_.c_str(), 10, content)) << "and does not wait for a writer";
    EXPECT_EQ(ENOENT, ReadWhole((target_ + "?").c_str(), 10, content));
    EXPECT_EQ("untouched", content);
    EXPECT_EQ(0, ReadWhole(target_.c_str(), large.size(), content));
    EXPECT_EQ(large, content);
}

TEST_F(FileTextTest, WhatLiesUnderTheTemporaryNameIsRemovedNotUsed) {
    const std::string bystander = target_ + ".other";
    const std::function<void()> planted[] = {[] {}, [&] { Put(temporary_, "left by a writer that was killed"); },
                                             [&] { fs::create_symlink(bystander, temporary_); },
                                             [&] { fs::create_hard_link(bystander, temporary_); },
                                             [&] { ASSERT_EQ(0, mkfifo(temporary_.c_str(), 0666)); }};
    for (const auto& plant : planted) {
        Put(bystander, "of somebody else");
        plant();
        EXPECT_EQ(0, Replace("new"));
        EXPECT_EQ("new", Content(target_));
        EXPECT_EQ("of somebody else", Content(bystander));
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target_)));
        EXPECT_EQ(fs::perms{0640}, fs::status(target_).permissions());
        EXPECT_FALSE(fs::exists(fs::symlink_status(temporary_)));
    }
}

TEST_F(FileTextTest, TwoWritersOfOneNameTakeTurns) {
    constexpr int kRounds = 200;
    const std::string contents[] = {std::string(9'000, 'a'), std::string(20'000, 'b')};
    int failures[2] = {};
    const auto write = [&](int writer) {
        for (int i = 0; i < kRounds; i++)
            failures[writer] += Replace(contents[writer]) != 0;
    };
    std::thread other(write, 1);
    write(0);
    other.join();
    EXPECT_EQ(0, failures[0]);
    EXPECT_EQ(0, failures[1]);
    EXPECT_TRUE(Content(target_) == contents[0] || Content(target_) == contents[1]);
}

TEST_F(FileTextTest, AFullDiskLeavesTheOldContent) {
    Put(target_, "old");
    {
        const FullDisk disk;
        EXPECT_EQ(EFBIG, Replace(std::string(100'000, 'x')));
    }
    EXPECT_EQ("old", Content(target_));
    EXPECT_FALSE(fs::exists(temporary_));
}

TEST(TextCursor, TakesPiecesOffTheFront) {
    std::string_view rest = "  42 word\n\nlast 99999999999";
    uint32_t number = 0;
    EXPECT_TRUE(text::TakeNumber(rest, number));
    EXPECT_EQ(42u, number);
    EXPECT_FALSE(text::TakeNumber(rest, number));
    EXPECT_EQ("word", text::TakeWord(rest));
    std::string_view line = "?";
    EXPECT_TRUE(text::TakeLine(rest, line) && line.empty());
    EXPECT_TRUE(text::TakeLine(rest, line) && line.empty());
    EXPECT_FALSE(text::Take(rest, 'x'));
    EXPECT_TRUE(text::Take(rest, 'l'));
    EXPECT_EQ("ast", text::TakeWord(rest));
    EXPECT_TRUE(text::TakeNumber(rest, number));
    EXPECT_EQ(0xFFFFFFFFu, number) << "the nearest that fits";
    EXPECT_FALSE(text::TakeLine(rest, line));
}

}  // namespace
