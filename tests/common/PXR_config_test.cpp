// Key files: what a line means, what a rewrite keeps, how files are opened.

#include "libplatform/PXR_config.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/CancelledThread.h"
#include "tests/support/ConfigTable.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/Tracing.h"

namespace {

using sample::Data;
using std::string;

constexpr char kHeader[] = "[ServerAgent0330_TEST]\n";
constexpr char kDefaults[] = "10 standard on off 7f000001 4000000000 - [] []";

class Config : public testing::Test {
protected:
    Config() { sample::table.path = path_.c_str(); }

    void Given(const string& content) { directory_.AddFile("test.cfg", content); }
    string Content() const { return directory_.ReadFile("test.cfg"); }

    /// What a read of this content gives.
    string Read(const string& content) {
        Given(content);
        Data data;
        EXPECT_EQ(0U, data.Read()) << content;
        return data.Print();
    }

    /// What the content becomes when it is read and written again.
    string Rewritten(const string& content) {
        Given(content);
        Data data;
        data.Read();
        EXPECT_EQ(0U, data.Write()) << content;
        return Content();
    }

    /// Writes a list of one word.
    static uint32_t WriteWord(const string& text) {
        Data data;
        auto* const node = static_cast<PXR_config_node*>(calloc(1, sizeof(PXR_config_node)));
        node->value.text = strdup(text.c_str());
        static_cast<PXR_config_data*>(PXR_search_cfgid(data.Get(), sample::kWords, 0))->list = node;
        return data.Write();
    }

    TempDirectory directory_;
    string path_ = directory_.Path("test.cfg");
};

TEST_F(Config, EveryLineMeansOneThingAndIsReportedOnceWhenItIsBad) {
    const string key = "QNTR 61302-C 1C2";    // unknown, or given before
    const string value = "QNTR 61302-C 1E4";  // does not convert
    const string longWord(1100, 'w');
    struct Case {
        string body;
        string values;
        std::vector<string> reports;
    };
    const Case cases[] = {
        {"", kDefaults, {}},
        {"\n \t\n# comment\n  # = x\n", kDefaults, {}},
        {"Level = 20", "20 standard on off 7f000001 4000000000 - [] []", {}},
        {"  LEVEL=0x14 # hex\r\n", "20 standard on off 7f000001 4000000000 - [] []", {}},
        {"level = 024\n", "20 standard on off 7f000001 4000000000 - [] []", {}},
        {"Level = -20\n", "-20 standard on off 7f000001 4000000000 - [] []", {}},
        {"Level = 101\nLevel = -21\nLevel = 4294967297\nLevel = 1 2\nLevel = \"20\"\n", kDefaults,
         std::vector(5, value)},
        {"Level =\nLevel\nLevel = #20\n", kDefaults, {}},
        {"Level = 1\nLevel = 2\n", "1 standard on off 7f000001 4000000000 - [] []", {key}},
        {"Level = x\nLevel = 2\n", "2 standard on off 7f000001 4000000000 - [] []", {value}},
        {"Name = plain\n", "10 plain on off 7f000001 4000000000 - [] []", {}},
        {"Name = \"a b#=c\" # why\n", "10 a b#=c on off 7f000001 4000000000 - [] []", {}},
        {"Name = \"\"\n", "10 - on off 7f000001 4000000000 - [] []", {}},
        {"Name = two words\nName = \"open\nName = \"closed\" x\n", kDefaults, std::vector(3, value)},
        {"Name = 123456789\n", "10 12345678 on off 7f000001 4000000000 - [] []", {}},
        {"Switch = FALSE\nEnable = enabled\n", "10 standard off on 7f000001 4000000000 - [] []", {}},
        {"Switch = Enabled\nEnable = True\nSwitch = 0\n", kDefaults, std::vector(3, value)},
        {"Address = 10.0.0.255\n", "10 standard on off a0000ff 4000000000 - [] []", {}},
        {"Address = 10.0.0.256\n", kDefaults, {value}},
        {"Count = +4294967295\n", "10 standard on off 7f000001 4294967295 - [] []", {}},
        {"Count = 0\nCount = -1\n", kDefaults, {value, value}},
        {"Word = a\nWord = \"b c\"\nWord = d e\nWORD = a\n",
         "10 standard on off 7f000001 4000000000 - [a|b c|a] []",
         {value}},
        {"Number = 3\nNumber = 10\nNumber = 9\n", "10 standard on off 7f000001 4000000000 - [] [3|9]", {value}},
        {"Levels = 20\n = 5\nno key\n", kDefaults, {key, key, key}},
        {"\"Level = 1\n", kDefaults, {key}},
        {"Unwanted = x\n", kDefaults, {}},
        {string("Level = 5\0 x\n", 13), "5 standard on off 7f000001 4000000000 - [] []", {}},
        // 1023 characters of a line count, however long it is
        {"Word=" + longWord + "\nLevel = 3\n",
         "3 standard on off 7f000001 4000000000 - [" + string(1018, 'w') + "] []",
         {}},
        {"Level=" + string(1015, ' ') + "50\n", "50 standard on off 7f000001 4000000000 - [] []", {}},
        {"Level=" + string(1016, ' ') + "50\n", "5 standard on off 7f000001 4000000000 - [] []", {}},
        {"#" + string(1 << 20, 'x') + "\nLevel = 4\n", "4 standard on off 7f000001 4000000000 - [] []", {}},
        {"Level = 6" + string(1 << 20, ' '), "6 standard on off 7f000001 4000000000 - [] []", {}},
    };
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [&] {
        const string file = "/etc/opt/velmora/lantrel/test.cfg";
        sample::table.path = file.c_str();
        Tracing tracing;
        for (const Case& c : cases) {
            SCOPED_TRACE(c.body.substr(0, 80));
            std::ofstream(file, std::ios::binary) << kHeader << c.body;
            Data data;
            const auto reports = tracing.LinesOf([&] { EXPECT_EQ(0U, data.Read()); });
            EXPECT_EQ(c.values, data.Print());
            ASSERT_EQ(c.reports.size(), reports.size());
            for (size_t i = 0; i < reports.size(); ++i)
                EXPECT_EQ("1000 0 1 " + c.reports[i], reports[i].substr(0, 9 + c.reports[i].size()));
        }
    });
}

TEST_F(Config, HeaderMustNameARecognisedVersion) {
    for (const char* header :
         {"[ServerAgent0330_TEST]", " [ServerAgent0330_TEST] \t # of 2004\n", "[ServerAgent0350_TEST]\n",
          "[ServerAgent0860_TEST]\r\n", "[ServerAgent0956_TEST]#x\n"}) {
        EXPECT_EQ(kDefaults, Read(header)) << header;
    }
    for (const char* header : {"", "\n", "# comment\n[ServerAgent0330_TEST]\n", "[ServerAgent0331_TEST]\n",
                               "[ServerAgent0330_TEST]x\n", "[serveragent0330_test]\n", "[ServerAgent%s_TEST]\n"}) {
        Given(string(header) + "Level = 1\n");
        Data data;
        EXPECT_EQ(0x61B81301U, data.Read()) << header;
        EXPECT_EQ(kDefaults, data.Print());
    }
}

TEST_F(Config, ASecondReadReplacesWhatTheFileNames) {
    Given(string(kHeader) + "Level = 1\nWord = a\nWord = b\nNumber = 1\n");
    Data data;
    EXPECT_EQ(0U, data.Read());
    Given(string(kHeader) + "Name = x\nWord = c\n");
    EXPECT_EQ(0U, data.Read());
    EXPECT_EQ("1 x on off 7f000001 4000000000 - [c] [1]", data.Print());
}

TEST_F(Config, SearchFindsSlotsAndNodes) {
    Given(string(kHeader) + "Word = a\nWord = b\n");
    Data data;
    EXPECT_EQ(0U, data.Read());
    const auto nodeText = [&](int n) {
        return static_cast<PXR_config_node*>(PXR_search_cfgname(sample::table.Table(), data.Get(), "Word", n))
            ->value.text;
    };
    EXPECT_STREQ("a", nodeText(1));
    EXPECT_STREQ("b", nodeText(2));
    EXPECT_EQ(nullptr, PXR_search_cfgid(data.Get(), sample::kWords, 3));
    EXPECT_EQ(nullptr, PXR_search_cfgid(data.Get(), sample::kLevel, 1));
    EXPECT_EQ(nullptr, PXR_search_cfgid(data.Get(), sample::kUnwanted, 0));
    EXPECT_EQ(data.Get(), PXR_search_cfgname(sample::table.Table(), data.Get(), "Level", 0));
    EXPECT_EQ(nullptr, PXR_search_cfgname(sample::table.Table(), data.Get(), "level", 0));
}

/// The lines that every rewrite appends to a file without keys.
constexpr char kAppended[] =
    "Level\t= 10\nName\t= \"standard\"\nSwitch\t= True\nEnable\t= Disabled\nAddress\t= 127.0.0.1\n"
    "Count\t= 4000000000\nSecret\t= \nUnwanted\t= 7\nUnwanted2\t= \"x y\"\n";

TEST_F(Config, RewritingKeepsWhatItDoesNotKnow) {
    const string rest = string(kAppended).substr(strlen("Level\t= 10\n"));
    const string huge(1 << 20, 'h');
    std::vector<std::pair<string, string>> cases = {
        {"", string(kHeader) + kAppended},
        {kHeader, string(kHeader) + kAppended},
        {"[ServerAgent0330_TEST]", string(kHeader) + kAppended},
        {" [ServerAgent0330_TEST] # mine\r\n", string(" [ServerAgent0330_TEST] # mine\r\n") + kAppended},
        // another header stays as a line of its own
        {"[ServerAgent0350_TEST]\n#\n", kHeader + string("[ServerAgent0350_TEST]\n#\n") + kAppended},
        {"# note\nLevel = 9\n", kHeader + string("# note\nLevel\t= 10\n") + rest},  // not read: no header
    };
    const std::pair<string, string> behindTheHeader[] = {
        {"# a\n\n  Other = 1 # b\r\n\t\nlevel=9 # why # not\n?\n",
         "# a\n\n  Other = 1 # b\r\n\t\nLevel\t= 9\t# why # not\n?\n" + rest},
        {"Level=9#\nlast line without newline", "Level\t= 9\nlast line without newline\n" + rest},
        {"Level=1\nLevel=2\nX\nLEVEL=3 #\n", "Level\t= 1\nX\n" + rest},
        {"Level=9\nUnwanted = 1 # kept\nunwanted = 2\n",
         "Level\t= 9\nUnwanted = 1 # kept\nunwanted = 2\n" + string(rest).erase(rest.find("Unwanted\t"), 13)},
        {"Word=a # first\n# between\nNumber=1\nWord = \"b c\" # second\nNumber=2\nLevel=9\n",
         "Word\t= \"a\"\t# first\nWord\t= \"b c\"\n# between\nNumber\t= 1\nNumber\t= 2\nLevel\t= 9\n" + rest},
        {"Word = # to be filled in\nLevel=9\nNumber=\n", "# to be filled in\nLevel\t= 9\n" + rest},
        // a word with a double quote can only be written as a word
        {"Level=9\nWord=a\"b\n", "Level\t= 9\nWord\t= a\"b\n" + rest},
        {"Level=9\nWord=a\"b\"c#x\n", "Level\t= 9\n#x\nWord\t= a\"b\"c\n" + rest},
        // and so can one that fills the line
        {"Level=9\nWord=" + string(1016, 'w') + "\nWord=" + string(1017, 'w') + "\n",
         "Level\t= 9\nWord=\"" + string(1016, 'w') + "\"\nWord=" + string(1017, 'w') + "\n" + rest},
        // nothing of a line that is copied gets lost, nor of a comment
        {huge + "\n#" + huge + "\nLevel=9 #" + huge, huge + "\n#" + huge + "\nLevel\t= 9\t#" + huge + "\n" + rest},
        {"Level=9" + string(1015, ' ') + "#" + huge + "\n", "Level\t= 9\t#" + huge + "\n" + rest},
    };
    for (const auto& [before, after] : behindTheHeader)
        cases.emplace_back(kHeader + before, kHeader + after);
    for (const auto& [before, after] : cases) {
        SCOPED_TRACE(before.substr(0, 80));
        const string once = Rewritten(before);
        EXPECT_EQ(after.substr(0, 2000), once.substr(0, 2000));
        EXPECT_TRUE(after == once);
        EXPECT_TRUE(before == directory_.ReadFile("test.bak"));
        EXPECT_TRUE(once == Rewritten(once)) << "a second rewrite changes nothing";
        EXPECT_FALSE(directory_.Exists("test.tmp"));
        std::filesystem::remove(directory_.Path("test.bak"));
    }
}

TEST_F(Config, ValuesAreWrittenInTheirForms) {
    Given(kHeader);
    Data data;
    data[sample::kLevel].number = INT_MIN;
    data[sample::kSwitch].on = 0;
    data[sample::kEnable].on = 1;
    data[sample::kAddress].address = 0xC0A80001;
    data[sample::kCount].unsignedNumber = UINT_MAX;
    data.SetText(sample::kSecret, "password");
    data.SetText(sample::kName, "");
    EXPECT_EQ(0U, data.Write());
    EXPECT_EQ(kHeader + string("Level\t= -2147483648\nName\t= \"\"\nSwitch\t= False\nEnable\t= Enabled\n"
                               "Address\t= 192.168.0.1\nCount\t= 4294967295\nSecret\t= \nUnwanted\t= 7\n"
                               "Unwanted2\t= \"x y\"\n"),
              Content());

    for (const size_t length : {1014U, 1015U}) {  // "Name", the text and 5 more: 1023, 1024
        data.SetText(sample::kName, string(length, 'n'));
        EXPECT_EQ(0U, data.Write());
        EXPECT_NE(string::npos, Content().find(length == 1014 ? "\nName\t= \"nn" : "\nName=\"nn"));
    }
}

TEST_F(Config, ATextThatCannotBeReadBackIsRefused) {
    // "Word" and "=" leave 1018 bytes of a line, two of them for double quotes
    const string blank = "a b";
    const string quote = "a\"b";
    for (const string& text :
         {string("two\nlines"), string("\""), string("\"quoted\""), string("a \"b\""), string("a\"#"),
          string(1019, 'w'), blank + string(1014, 'w'), quote + string(1016, 'w')}) {
        Given(kHeader);
        EXPECT_EQ(0x61B91302U, WriteWord(text)) << text.substr(0, 20);
        EXPECT_EQ(kHeader, Content());
    }
    for (const string& text : {string(1018, 'w'), blank + string(1013, 'w'), quote + string(1015, 'w')}) {
        Given(kHeader);
        EXPECT_EQ(0U, WriteWord(text)) << text.substr(0, 20);
        EXPECT_NE(string::npos, Read(Content()).find("[" + text + "]")) << text.substr(0, 20);
    }
}

TEST_F(Config, TheReplacementHasTheFilesPermissionsAndFollowsNoLink) {
    Given(kHeader);
    ASSERT_EQ(0, chmod(path_.c_str(), 0640));
    const gid_t group = geteuid() == 0 ? 2 : getegid();
    ASSERT_EQ(0, chown(path_.c_str(), geteuid(), group));
    directory_.AddFile("victim", "untouched");
    ASSERT_EQ(0, symlink("victim", directory_.Path("test.tmp").c_str()));
    ASSERT_EQ(0, symlink("victim", directory_.Path("test.bak").c_str()));
    EXPECT_EQ(0U, Data().Write());
    EXPECT_EQ("untouched", directory_.ReadFile("victim"));
    EXPECT_EQ(kHeader, directory_.ReadFile("test.bak"));
    struct stat info {};
    for (const char* name : {"test.cfg", "test.bak"}) {
        ASSERT_EQ(0, lstat(directory_.Path(name).c_str(), &info));
        EXPECT_TRUE(S_ISREG(info.st_mode));
        EXPECT_EQ(0640U, info.st_mode & 07777) << name;
    }
    ASSERT_EQ(0, stat(path_.c_str(), &info));
    EXPECT_EQ(group, info.st_gid);
}

TEST_F(Config, TheFileThatALinkNamesIsRewritten) {
    std::filesystem::create_directory(directory_.Path("real"));
    directory_.AddFile("real/file.cfg", kHeader);
    std::filesystem::create_symlink("real/file.cfg", path_);
    EXPECT_EQ(0U, Data().Write());
    EXPECT_TRUE(std::filesystem::is_symlink(path_));
    EXPECT_NE(kHeader, directory_.ReadFile("real/file.cfg"));
    EXPECT_EQ(kHeader, directory_.ReadFile("real/file.bak"));
}

// Whoever may write the file by its group keeps it the group's.
TEST_F(Config, AWriterWhoIsNotTheOwnerKeepsTheGroup) {
    constexpr gid_t kGroup = 100;
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0) GTEST_SKIP();
    const MachineRoot root = MakeTestRoot();
    RunInRoot(root, [&] {
        const char* const file = sample::table.path = "/etc/opt/velmora/lantrel/test.cfg";
        std::ofstream(file) << kHeader;
        for (const char* open : {"/", "/etc/opt/velmora/lantrel"})
            std::filesystem::permissions(open, std::filesystem::perms::all);
        ASSERT_TRUE(chown(file, 0, kGroup) == 0 && chmod(file, 0660) == 0);
        ASSERT_EQ(0, setgroups(1, &kGroup));
        ASSERT_EQ(0, setresgid(kNobody, kNobody, kNobody));
        ASSERT_EQ(0, setresuid(kNobody, kNobody, kNobody));
        EXPECT_EQ(0U, Data().Write());
        struct stat info {};
        ASSERT_EQ(0, stat(file, &info));
        EXPECT_EQ(kNobody, info.st_uid) << "rewritten";
        EXPECT_EQ(kGroup, info.st_gid);
        EXPECT_EQ(0660U, info.st_mode & 07777);
    });
}

TEST_F(Config, AFailedWriteLeavesTheFileAlone) {
    Given(kHeader);
    for (const char* blocked : {"test.tmp", "test.bak"}) {
        std::filesystem::create_directory(directory_.Path(blocked));
        EXPECT_EQ(0x61B91300U, Data().Write()) << blocked;
        EXPECT_EQ(kHeader, Content());
        std::filesystem::remove(directory_.Path(blocked));
        EXPECT_FALSE(directory_.Exists("test.tmp"));
    }
    // The temporary file must not be the file itself.
    for (const char* name : {"own.tmp", "own.bak"}) {
        const string own = directory_.AddFile(name, kHeader);
        sample::table.path = own.c_str();
        EXPECT_EQ(0x61B91300U, Data().Write()) << name;
        EXPECT_EQ(kHeader, directory_.ReadFile(name));
    }
    // A header format of nothing and no keys: nothing would be left.
    const string empty = directory_.AddFile("empty.cfg", "");
    const PXR_config_file<1> nothing = {empty.c_str(), "", "0330", "", {{}}};
    PXR_config_data none[] = {PXR_CFG_SLOT(0)};
    EXPECT_EQ(0x61B91301U, PXR_write_cfgfile(nothing.Table(), none));
    EXPECT_EQ(0x61B94201U, PXR_write_cfgfile(nullptr, none));
    EXPECT_EQ(0x61B84201U, PXR_read_cfgfile(nothing.Table(), nullptr));
}

TEST_F(Config, OnlyRegularFilesAreOpened) {
    Given("content");
    const string fifo = directory_.Path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    for (const string& path : {fifo, directory_.Path(""), string("/dev/null"), directory_.Path("absent")}) {
        for (const int flags : {O_RDONLY, O_RDWR}) {
            int error = 0;
            EXPECT_EQ(-1, PXR_file_open(path.c_str(), flags, &error)) << path;
            EXPECT_EQ(0x61E51301, error) << path;
        }
    }
    const int fd = PXR_file_open(path_.c_str(), O_RDWR | O_TRUNC, nullptr);
    ASSERT_LE(0, fd);
    EXPECT_EQ(O_RDWR, fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(0, PXR_file_close(fd));
    EXPECT_EQ("", Content());

    const int created = PXR_file_open(directory_.Path("new/file").c_str(), O_RDWR | O_CREAT, nullptr);
    ASSERT_LE(0, created);
    struct stat info {};
    EXPECT_EQ(0, fstat(created, &info));
    EXPECT_EQ(0U, info.st_mode & 0777 & ~0644U);
    EXPECT_EQ(0, PXR_file_close(created));
}

TEST_F(Config, TemporaryNames) {
    using Case = std::pair<const char*, const char*>;
    for (const auto& [path, name] :
         {Case{"/etc/trace.cfg", "/etc/trace.bak"}, Case{"/etc/a.b.cfg", "/etc/a.b.bak"},
          Case{"/etc.d/trace", "/etc.d/trace.bak"}, Case{"trace", "trace.bak"}, Case{"/etc/.cfg", "/etc/.bak"}}) {
        char buffer[PATH_MAX];
        PXR_make_tmpfile(buffer, path, ".bak");
        EXPECT_STREQ(name, buffer);
    }
    char buffer[PATH_MAX] = "x";
    PXR_make_tmpfile(buffer, string(PATH_MAX - 4, 'p').c_str(), ".bak");
    EXPECT_STREQ("", buffer);
    PXR_make_tmpfile(buffer, string(PATH_MAX - 5, 'p').c_str(), ".bak");
    EXPECT_EQ(PATH_MAX - 1U, strlen(buffer));
}

TEST_F(Config, CopiesTheWholeFileWhereverItStands) {
    const string content(5000, 'c');
    Given(content);
    const int fd = PXR_file_open(path_.c_str(), O_RDONLY, nullptr);
    ASSERT_EQ(4000, lseek(fd, 4000, SEEK_SET));
    const string copy = directory_.AddFile("copy", string(9000, 'o'));
    EXPECT_EQ(0, PXR_copy_fd2file(fd, copy.c_str()));
    EXPECT_EQ(content, directory_.ReadFile("copy"));
    EXPECT_EQ(4000, lseek(fd, 0, SEEK_CUR));
    EXPECT_EQ(ENOENT, PXR_copy_fd2file(fd, directory_.Path("absent/copy").c_str()));
    EXPECT_EQ(0, PXR_file_close(fd));
}

TEST_F(Config, ACancelledThreadLeavesNoHalfCopyAndNothingOpen) {
    Given("content");
    const int source = PXR_file_open(path_.c_str(), O_RDWR, nullptr);
    const int second = PXR_file_open(directory_.Path("second").c_str(), O_RDWR | O_CREAT, nullptr);
    FILE* const stream = fdopen(second, "w");
    const std::function<void()> calls[] = {[&] { PXR_copy_fd2file(source, directory_.Path("copy").c_str()); },
                                           [&] { PXR_file_stream_close(stream); }, [&] { PXR_file_close(source); }};
    for (const auto& call : calls)
        EXPECT_TRUE(FinishesWhenCancelled(call)) << &call - calls;
    EXPECT_EQ("content", directory_.ReadFile("copy"));
    EXPECT_EQ(-1, fcntl(source, F_GETFD));
    EXPECT_EQ(-1, fcntl(second, F_GETFD));
}

}  // namespace
