#include "common/PXR_texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/BuildTree.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/TempDirectory.h"
#include "tests/support/Tracing.h"

namespace {

namespace fs = std::filesystem;

const std::string kBuiltCatalogues = InBuildTree("/lib/nls/%L/%N");
constexpr char kNormalInShiftJis[] = "\x90\xB3\x8F\xED";
constexpr char kMissing[] = "61821303";

/// Calls a fetching function; gives the text, or the code as text. A failure must leave the output alone.
template <typename Function, typename... Arguments>
std::string Outcome(Function function, Arguments... arguments) {
    char unwritten[] = "not written";
    char* out = unwritten;
    const uint32_t code = function(arguments..., &out);
    if (code == 0 && out == nullptr) return "(null)";
    const std::string text(code == 0 ? out : "");
    if (out != unwritten) free(out);
    EXPECT_EQ(code != 0, out == unwritten);
    char codeText[9];
    snprintf(codeText, sizeof codeText, "%08X", code);
    return code == 0 ? text : codeText;
}

std::string ForLang(const char* catalogue, int set, int number) {
    return Outcome(GetCatMessagePureLocale, catalogue, set, number);
}

void SetLang(const char* lang) {
    lang == nullptr ? unsetenv("LANG") : setenv("LANG", lang, 1);
}

/// Runs a body in a process of its own: the locale is kept for the life of a process.
void InChild(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(0, WaitForExit(child));
}

std::string Words(std::initializer_list<uint32_t> words, bool bigEndian = false) {
    std::string bytes;
    for (const uint32_t word : words) {
        for (int i = 0; i < 4; i++)
            bytes += static_cast<char>(word >> 8 * (bigEndian ? 3 - i : i));
    }
    return bytes;
}

struct Text {
    uint32_t set;
    uint32_t number;
    std::string text;
};

/// A compiled catalogue in which all messages share one slot of the hash table.
std::string Compiled(const std::vector<Text>& texts, bool bigEndian = false) {
    std::string slots;
    std::string pool;
    for (const Text& text : texts) {
        slots += Words({text.set + 1, text.number, static_cast<uint32_t>(pool.size())});
        pool += text.text + '\0';
    }
    return Words({0x960408DE, 1, static_cast<uint32_t>(texts.size())}, bigEndian) + slots +
           std::string(slots.size(), '\xFF') + pool;
}

void Write(const fs::path& path, const std::string& bytes) {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

/// A folder of catalogues, the working directory while the test runs.
class Catalogues : public testing::Test {
protected:
    Catalogues() {
        fs::current_path(folder_.Path(""));
        setenv("LANG", "en_GB.UTF-8", 1);
        setenv("NLSPATH", "%N", 1);
    }
    ~Catalogues() override { fs::current_path(before_); }

    const fs::path before_ = fs::current_path();
    const TempDirectory folder_;
};

TEST(Locale, FollowsTheNamesOfLangAndIsDecidedOnce) {
    const std::set<std::string> japanese = {
        "ja_JP.eucJP", "ja_JP.SJIS", "ja_JP.JIS7", "ja_JP.ISO-2022-JP", "ja",           "ja_JP.UTF-8", "ja_JP.utf8",
        "ja_JP",       "ja_JP.ujis", "japanese",   "ja_JP.JIS",         "japanese.euc", "ja_JP.EUC"};
    std::set<std::string> all = {"", "C", "ja_JP.UTF8", "ja_JP.utf-8", "JA", "ja_JP.SJIS ", "ja_", "ja-JP"};
    all.insert(japanese.begin(), japanese.end());
    for (const std::string& lang : all) {
        InChild([&] {
            const bool expected = japanese.contains(lang);
            SetLang(lang.empty() ? nullptr : lang.c_str());
            EXPECT_EQ(expected, GetLocale()) << lang;
            SetLang(expected ? "C" : "ja");
            EXPECT_EQ(expected, GetLocale()) << lang;
            setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
            EXPECT_EQ(expected ? kNormalInShiftJis : "Normal", Outcome(GetCatMessageLocale, "KvAgent.cat", 3, 22));
        });
    }
}

TEST_F(Catalogues, BothLocalesAreServedToManyThreadsAndLangStays) {
    setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; thread++) {
        threads.emplace_back([&wrong, thread] {
            for (int i = 0; i < 100; i++) {
                const int locale = (thread + i) % 2;
                const char* const expected = locale == 1 ? kNormalInShiftJis : "Normal";
                wrong += Outcome(GetCatMessage, locale, "KvAgent.cat", 3, 22) != expected;
                wrong += getenv("LANG") != std::string("en_GB.UTF-8");
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong);
}

TEST_F(Catalogues, AreFoundThroughTheTemplatesOfNlspath) {
    for (const char* path : {"m", "en_GB.UTF-8/m", "en-GB-UTF-8/m", "en--/m", "C/m", "100%/m"})
        Write(path, Compiled({{1, 1, path}}));
    Write("damaged/m", "no catalogue");
    const std::string absolute = folder_.Path("C/m");
    struct Case {
        const char* lang;
        std::string nlspath;
        const char* name;
        const char* expected;
    };
    for (const auto& [lang, nlspath, name, expected] : std::initializer_list<Case>{
             {"en_GB.UTF-8", "%L/%N", "m", "en_GB.UTF-8/m"},
             {"en_GB.UTF-8", "no/%N:%l-%t-%c/%N", "m", "en-GB-UTF-8/m"},
             {"en", "%l-%t-%c/%N", "m", "en--/m"},
             {nullptr, "%L/%N", "m", "C/m"},
             {"", "%L/%N", "m", "C/m"},
             {"../damaged", "%L/%N", "m", "C/m"},  // a path is no locale
             {"C", "100%%/%N", "m", "100%/m"},
             {"C", "no/%N:", "m", "m"},
             {"C", "no/%N::C/%N", "m", "m"},
             {"C", "%q/%N:%:" + std::string(5000, 'x') + "/%N:%L/%N", "m", "C/m"},
             {"C", "damaged/%N:C/%N", "m", kMissing},  // the first file that opens is the catalogue
             {"C", "", "m", kMissing},
             {"C", "no/%N", "./m", "m"},
             {"C", "no/%N", absolute.c_str(), "C/m"}}) {
        SetLang(lang);
        setenv("NLSPATH", nlspath.c_str(), 1);
        EXPECT_EQ(expected, ForLang(name, 1, 1)) << nlspath.substr(0, 60);
        EXPECT_EQ(expected, Outcome(GetCatMessage, -1, name, 1, 1)) << nlspath.substr(0, 60);
    }
}

TEST_F(Catalogues, FallBackFromLangToTheNeutralLocale) {
    Write("ja/m", Compiled({{1, 1, "ja"}}));
    Write("C/m", Compiled({{1, 1, "C"}, {1, 2, "only in C"}}));
    setenv("NLSPATH", "%L/%N", 1);
    SetLang("ja");
    EXPECT_EQ("ja", Outcome(GetCatMessageCollectLocale, "m", 1, 1));
    EXPECT_EQ("only in C", Outcome(GetCatMessageCollectLocale, "m", 1, 2));
    EXPECT_EQ(kMissing, Outcome(GetCatMessageCollectLocale, "m", 1, 3));
    EXPECT_STREQ("ja", getenv("LANG"));
}

TEST_F(Catalogues, MessagesThatShareASlotOrAreMissing) {
    ASSERT_EQ(0, mkfifo("fifo", 0600));  // must not block
    for (const bool bigEndian : {false, true}) {
        Write("m", Compiled({{3, 1, "a"}, {3, 0x80000, "b"}, {4, 1, ""}, {3, 0x7FFFFFFF, "c"}}, bigEndian));
        EXPECT_EQ("abc", ForLang("m", 3, 1) + ForLang("m", 3, 0x80000) + ForLang("m", 3, 0x7FFFFFFF));
    }
    const std::tuple<const char*, int, int> cases[] = {
        {"m", 4, 1},          {"m", 3, 2},      {"m", 5, 1},    {"m", -1, 1}, {"m", 3, -1},        {"m", 0, 0},
        {"m", 0x7FFFFFFF, 1}, {"absent", 3, 1}, {"fifo", 3, 1}, {".", 3, 1},  {"/dev/zero", 3, 1}, {nullptr, 3, 1}};
    for (const auto& [name, set, number] : cases)
        EXPECT_EQ(kMissing, ForLang(name, set, number)) << set << ", " << number;
    EXPECT_EQ(0x61824201u, GetCatMessage(0, "m", 3, 1, nullptr));
}

TEST_F(Catalogues, CutAnywhereAreRefusedWhole) {
    fs::copy_file(InBuildTree("/lib/nls/C/KvAgent.cat"), "m");
    ASSERT_EQ("Memory is exhausted.", ForLang("m", 1, 0x1202));
    for (uintmax_t size = fs::file_size("m"); size-- > 0;) {
        fs::resize_file("m", size);
        ASSERT_EQ(kMissing, ForLang("m", 1, 0x1202)) << size << " bytes";
    }
}

TEST_F(Catalogues, ThatLieGiveTheCodeAndNeverLeadOutOfTheFile) {
    const std::string good = Compiled({{1, 1, "a"}, {1, 2, "b"}});
    const auto fetchWith = [&good](size_t at, const std::string& bytes) {
        Write("m", std::string(good).replace(at, bytes.size(), bytes));
        return ForLang("m", 1, 1);
    };
    const std::pair<size_t, uint32_t> cases[] = {{0, 0x960408DF}, {1, 0},       {2, 0},          {1, 0xFFFFFFFF},
                                                 {2, 0xFFFFFFFF}, {1, 0x10000}, {2, 0x15555556}, {2, 3},
                                                 {5, 4},          {8, 4},       {5, 0xFFFFFFFF}, {8, 0xFFFFFFF0}};
    for (const auto& [word, value] : cases)
        EXPECT_EQ(kMissing, fetchWith(word * 4, Words({value}))) << "word " << word << " = " << value;
    for (size_t at = 0; at < good.size(); at++) {
        for (const char value : {'\x00', '\x01', '\x7F', '\xFF'})
            EXPECT_LT(fetchWith(at, {value}).size(), good.size()) << "byte " << at;
    }
}

TEST(InsertInsMessage, ReplacesPlaceholders) {
    using Inserts = std::vector<const char*>;
    using Case = std::tuple<const char*, Inserts, const char*, const char*>;
    const Inserts twelve = {"1", "2", "3", "4", "5", "6", "7", "8", "9", "ten", "11", "twelve"};
    for (auto [text, inserts, fallback, expected] : std::initializer_list<Case>{
             {"%1 %2 %3", {"a", "b"}, nullptr, "a b %3"},
             {"%1 %2 %3", {"a", "b"}, "", "a b "},
             {"%2%1%2 %3", {"a", "b"}, "none", "bab none"},
             {"%12%1 %10x", twelve, nullptr, "twelve1 tenx"},
             {"%120", twelve, nullptr, "%120"},
             {"%0 %01 %", {"a"}, "f", "%0 %01 %"},
             {"%s %% %%1 %-1", {"a"}, "f", "%s %% %a %-1"},
             {"%1", {"%1%2"}, nullptr, "%1%2"},  // inserts are not searched
             {"[%1][%2]", {nullptr, "b"}, nullptr, "[][b]"},
             {"%4294967297 %18446744073709551617", {"a"}, nullptr, "%4294967297 %18446744073709551617"},
             {"", {"a"}, "f", ""},
             {nullptr, {"a"}, "f", "(null)"}}) {
        const int count = static_cast<int>(inserts.size());
        EXPECT_EQ(expected, Outcome(InsertInsMessage, text, count, inserts.data(), fallback));
    }
    EXPECT_EQ("-", Outcome(InsertInsMessage, "%1", -1, nullptr, "-"));
    EXPECT_EQ(0x61834201u, InsertInsMessage("", 0, nullptr, nullptr, nullptr));
}

TEST(CatalogueMemory, Exhausted) {
    const std::string large(16 << 20, 'x');
    const char* insert = large.c_str();
    std::string text;
    for (int i = 0; i < 257; i++)
        text += "%1";  // just above 4 GiB: the length wraps round in 32 bits
    EXPECT_EQ("61831202", Outcome(InsertInsMessage, text.c_str(), 1, &insert, nullptr));
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer itself needs the address space
    InChild([] {
        setenv("LANG", std::string(64 << 20, 'x').c_str(), 1);
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlimit limit{pages * 4096 + (16 << 20), RLIM_INFINITY};
        ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
        EXPECT_EQ("61821202", ForLang("m", 1, 1));
        EXPECT_EQ("61811202", Outcome(GetCatMessage, 7, "m", 1, 1));
        EXPECT_EQ("61841202", Outcome(GetCatMessageCollectLocale, "m", 1, 1));
    });
#endif
}

TEST(CatalogueFailures, AreTracedWithNoLockHeldAndNlspathGetsItsDefault) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/usr/share/locale/C/LC_MESSAGES/other.cat", Compiled({{1, 1, "the system's"}}));
    RunInRoot(root, [] {
        unsetenv("NLSPATH");
        unsetenv("LANG");
        EXPECT_EQ("Normal", ForLang("KvAgent.cat", 3, 22));
        EXPECT_STREQ("/opt/velmora/lantrel/lib/nls/%L/%N", getenv("NLSPATH"));
        EXPECT_EQ(kNormalInShiftJis, Outcome(GetCatMessage, 1, "KvAgent.cat", 3, 22));
        EXPECT_EQ("the system's", Outcome(GetCatMessage, 0, "other.cat", 1, 1));
        EXPECT_EQ(nullptr, getenv("LANG"));

        Tracing tracing;
        SetLang("xx");
        const auto lines = tracing.LinesOf([] {
            EXPECT_EQ(kMissing, Outcome(GetCatMessage, 1, "KvAgent.cat", 3, 0xFFFFF));
            EXPECT_EQ("Unknown", Outcome(GetCatMessageCollectLocale, "KvAgent.cat", 3, 1));
        });
        const std::string report = "QNTR 61303-C 182 AGT_ACCESS_CAT_FILE CatFile=KvAgent.cat SetId=0x00000003 MesId=";
        EXPECT_THAT(lines, testing::ElementsAre(testing::EndsWith(report + "0x000fffff\n"),
                                                testing::EndsWith(report + "0x00000001\n")));
    });
}

/// The messages of a source file: set and number to what the text asks its caller for.
std::map<std::pair<int, int>, std::multiset<std::string>> Demands(const std::string& locale, const char* name) {
    std::map<std::pair<int, int>, std::multiset<std::string>> demands;
    std::ifstream source(InSourceTree("/data/nls/") + locale + "/" + name + ".msg");
    int set = 0;
    for (std::string line; std::getline(source, line);) {
        if (line.starts_with("$set ")) set = std::stoi(line.substr(5));
        if (line.empty() || line[0] == '$') continue;
        auto& places = demands[{set, std::stoi(line)}];
        for (size_t at = line.find('%'); at < line.size(); at = line.find('%', at + 1)) {
            const size_t end = line.find_first_not_of("0123456789", at + 1);
            if (end > at + 1) places.insert(line.substr(at, end - at));
            if (line[at + 1] == 's') places.insert("%s");
        }
    }
    return demands;
}

TEST(Texts, AreThereInBothLanguagesAndAskForTheSameInserts) {
    setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
    for (const char* name : {"KvAgent", "KvPlatform", "KvSvp"}) {
        const auto demands = Demands("C", name);
        EXPECT_EQ(demands, Demands("ja_JP.SJIS", name)) << name;
        EXPECT_LE(3u, demands.size());
        for (const auto& [id, places] : demands) {
            const std::string file = std::string(name) + ".cat";
            const std::string neutral = Outcome(GetCatMessage, 0, file.c_str(), id.first, id.second);
            EXPECT_NE(kMissing, neutral) << id.first << ", " << id.second;
            EXPECT_NE(neutral, Outcome(GetCatMessage, 1, file.c_str(), id.first, id.second));
        }
    }
}

/// Every reason that the code gives, and the catalogues that its text is taken from.
struct Explained {
    int number;
    std::vector<const char*> catalogues;
};
const std::vector<const char*> kInAgent = {texts::kAgent};
const std::vector<const char*> kInAgentAndPlatform = {texts::kAgent, texts::kPlatform};
const Explained kReasons[] = {
#define KV_REASON(name, number, catalogues) {number, kIn##catalogues},
#include "common/PXR_reasons.inc"
#undef KV_REASON
};

TEST(Texts, AreThereForAllThatTheCodeAsksFor) {
    setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
    for (const auto& [number, catalogues] : kReasons) {
        for (const char* catalogue : catalogues)
            EXPECT_NE(kMissing, Outcome(GetCatMessage, 0, catalogue, texts::kReasons, number)) << catalogue << number;
    }
    const auto demands = Demands("C", "KvAgent");
    for (const texts::Message& message : texts::kMessages) {
        const auto found = demands.find({message.set, message.number});
        ASSERT_NE(demands.end(), found) << message.set << ", " << message.number;
        std::string inserts;
        for (const std::string& place : found->second)
            inserts += place;
        EXPECT_EQ(message.inserts, inserts) << message.set << ", " << message.number;
    }
}

// The BMC's own reasons, of commands in general and of those that have reasons of their own.
TEST(Texts, ExplainCompletionCodes) {
    setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
    const auto explains = [](int code) {
        return kMissing != Outcome(GetCatMessage, 0, texts::kAgent, texts::kReasons, 0xB200 + code);
    };
    for (int code = 0xC0; code <= 0xD6; ++code)
        EXPECT_TRUE(explains(code)) << code;
    for (const int code : {0x00, 0x80, 0x81, 0x82, 0xFF})
        EXPECT_TRUE(explains(code)) << code;
}

TEST(Texts, TakeTheInsertsOfTheirCallers) {
    setenv("NLSPATH", kBuiltCatalogues.c_str(), 1);
    const char* inserts[] = {"90", "95", "900", "950", "50", "1000"};
    EXPECT_EQ(
        "Memory usage has reached its threshold. (Threshold: 90% (900 bytes), usage: 95% (950 bytes), free: 50 "
        "bytes, total: 1000 bytes)",
        Outcome(GetCatAlertMessage, 0, "KvPlatform.cat", 64001, 6, inserts));
    EXPECT_EQ(kMissing, Outcome(GetCatInsMessage, 0, "KvAgent.cat", 4, 1, 0, nullptr, ""));
}

}  // namespace
