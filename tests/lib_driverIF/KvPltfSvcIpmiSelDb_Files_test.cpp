// The files of the SEL database: what is in them, and what becomes of the events when they fail.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>

#include "tests/support/FullDisk.h"
#include "tests/support/SelMachine.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using namespace std::string_literals;

class SelDbFiles : public SelMachine {
public:
    static void Remove(const char* name) { std::filesystem::remove(Path(name)); }
    /// It can be opened to read, but that is all.
    static void ReplaceByDirectory(const char* name) {
        Remove(name);
        std::filesystem::create_directory(Path(name));
    }
    /// It cannot be opened.
    static void ReplaceByLoop(const char* name) {
        Remove(name);
        std::filesystem::create_symlink(name, Path(name));
    }
};

TEST_ON_MACHINE(SelDbFiles, TheTextLogIsARing) {
    constexpr size_t kFull = 5 + 0x2800 * 38;
    StartWith(0);
    for (const auto& [header, events, after, lines] : {
             std::tuple{"27FF\n"s, 1U, "0000\n", Numbers{0x27FF}},
             {"27FE\n"s, 3U, "0001\n", {0x27FE, 0x27FF, 0}},
             {"00FF\n"s, 2U, "0101\n", {0x00FF, 0x0100}},
             {"2800\n"s, 1U, "0001\n", {0}},
             {"00f0\n"s, 1U, "0001\n", {0}},
             {"0100:"s, 1U, "0001\n", {0}},
             {"00"s, 1U, "0001\n", {0}},
             {"\0\0\0\0\0"s, 1U, "0001\n", {0}},
         }) {
        std::string ring = header;
        if (header.size() == 5) ring.resize(kFull, '.');
        Write(kRing, ring);
        Log(events);
        EXPECT_THAT(Poll(), SizeIs(events));
        const std::string content = Read(kRing);
        EXPECT_EQ(after, content.substr(0, 5)) << header;
        EXPECT_TRUE(header.size() != 5 || content.size() == kFull) << header;
        for (const unsigned line : lines) {
            char index[8];
            snprintf(index, sizeof index, "%04X:", line);
            EXPECT_EQ(index, content.substr(5 + line * 38, 5)) << header;
            EXPECT_EQ('\n', content.at(5 + line * 38 + 37));
        }
    }
    ReplaceByDirectory(kRing);
    Log(1);
    EXPECT_THAT(Poll(), SizeIs(1)) << "a log that cannot be written keeps nothing back";
}

TEST_F(SelDbFiles, ADatabaseThatFailsIsToldOnceAndKeepsNothingBack) {
    const struct {
        const char* what;
        std::function<void()> damage;
        bool mended;     // by the next entry
        unsigned known;  // of the three old entries
    } cases[] = {
        {"cut short", [] { truncate(Path(kDb).c_str(), 2 * 16 + 3); }, true, 1},
        {"empty", [] { Write(kDb, ""); }, true, 0},
        {"an id out of its place", [] { Write(kDb, Read(kDb).replace(2 * 16, 1, "\x08")); }, true, 2},
        {"cannot be read", [] { ReplaceByDirectory(kDb); }, false, 0},
        {"cannot be opened", [] { ReplaceByLoop(kDb); }, false, 0},
        {"a pipe", [] { Remove(kDb), mkfifo(Path(kDb).c_str(), 0600); }, true, 0},
    };
    for (const auto& [what, damage, mended, known] : cases) {
        Run([&] {
            StartWith(3);
            EXPECT_FALSE(TakeDatabaseFailure()) << "all is well";
            damage();
            Start();
            Log(1);
            EXPECT_THAT(Poll(), ElementsAre(4)) << what;
            EXPECT_EQ(kSelDbFailed, g_eSelDbFileStat) << what;
            EXPECT_TRUE(TakeDatabaseFailure());
            EXPECT_FALSE(TakeDatabaseFailure()) << "told once";
            Log(1);
            EXPECT_THAT(Poll(), ElementsAre(5)) << what;
            EXPECT_EQ(kSelDbReported, g_eSelDbFileStat) << "it only ever rises";
            const std::vector<sim::SelEntry> old = Bmc().Sel()->Entries();
            Start();
            Bmc().Sel()->Rewrite({EventAt(90, 90), old[0], old[1], old[2], old[3], old[4]});
            const size_t unknown = mended ? 3 - known : 5;
            EXPECT_THAT(Poll(), SizeIs(1 + unknown)) << what;
            EXPECT_EQ(mended ? kSelDbGood : kSelDbFailed, g_eSelDbFileStat) << what;
        });
    }
}

TEST_F(SelDbFiles, WhatCannotBeReadForAMomentIsReadLater) {
    const auto hide = [](const std::string& name) {
        std::filesystem::rename(Path(name), Path(name + ".away"));
        std::filesystem::create_symlink(name, Path(name));  // cannot be opened
    };
    const auto show = [](const std::string& name) {
        if (std::filesystem::is_symlink(Path(name))) std::filesystem::rename(Path(name + ".away"), Path(name));
    };
    for (const std::vector<std::string>& files :
         std::vector<std::vector<std::string>>{{kInf}, {kDb}, {kFirst}, {kDb, kFirst}, {kInf, kDb, kFirst}}) {
        Run([&] {
            SCOPED_TRACE(testing::PrintToString(files));
            const bool noState = files[0] == kInf;
            StartWith(3);
            Log(2);  // while no agent runs
            std::ranges::for_each(files, hide);
            EXPECT_EQ(noState ? 0x605CB301U : 0U, Start());
            EXPECT_EQ(kSelDbGood, g_eSelDbFileStat);
            Numbers given = Poll();
            EXPECT_EQ(noState, given.empty());
            EXPECT_EQ(noState || files[0] == kDb ? kSelDbFailed : kSelDbGood, g_eSelDbFileStat);
            std::ranges::for_each(files, show);
            for (const unsigned number : Poll())
                given.push_back(number);
            EXPECT_THAT(given, ElementsAre(4, 5));
            const std::vector<sim::SelEntry> old = Bmc().Sel()->Entries();
            Bmc().Sel()->Rewrite({EventAt(90, 90), old[0], old[1], old[2], old[3], old[4]});
            EXPECT_THAT(Poll(), ElementsAre(90)) << "the old ones are known again";
        });
    }
}

TEST_ON_MACHINE(SelDbFiles, NoLinkIsFollowedToAnotherFile) {
    const auto plant = [](const char* name) {
        Remove(name);
        std::filesystem::create_symlink("victim", Path(name));
    };
    Write("victim", "precious");
    plant("ipmi_sel_51_000a.tmp");
    StartWith(3);
    for (const char* name : {kInf, kDb, kFirst})
        EXPECT_FALSE(std::filesystem::is_symlink(Path(name))) << name;
    plant(kDb);
    plant(kRing);
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(4));
    EXPECT_EQ("precious", Read("victim"));
}

TEST_ON_MACHINE(SelDbFiles, ADatabaseThatIsGoneIsMadeAnewFromWhatWasTaken) {
    StartWith(3);
    Remove(kDb);
    Log(2);
    Start();
    EXPECT_THAT(Poll(), ElementsAre(4, 5)) << "logged while nobody polled";
    EXPECT_EQ(1U, NumberOf(ReadDb(1)));
    EXPECT_EQ(5U, NumberOf(ReadDb(5)));
    Remove(kDb);
    ClearAndLog(2);
    Start();
    EXPECT_THAT(Poll(), ElementsAre(6, 7));
    EXPECT_EQ(kSelDbGood, g_eSelDbFileStat);
}

TEST_F(SelDbFiles, AFullDiskOrAFolderThatCannotBeWrittenKeepsNothingBack) {
    Run([this] {
        StartWith(3);
        const std::string inf = Read(kInf);
        {
            const FullDisk full;
            Log(2);
            EXPECT_THAT(Poll(), ElementsAre(4, 5));
            EXPECT_THAT(Poll(), IsEmpty()) << "known in memory";
            EXPECT_EQ(inf, Read(kInf)) << "not torn";
            EXPECT_FALSE(Exists("ipmi_sel_51_000a.tmp"));
            EXPECT_EQ(kSelDbFailed, g_eSelDbFileStat);
        }
        EXPECT_THAT(Poll(), IsEmpty());
        EXPECT_EQ(5, ReadInf().selCount) << "written when there is room again";
        EXPECT_EQ(5U, NumberOf(ReadDb(5))) << "the entries too";
        Start();
        EXPECT_THAT(Poll(), IsEmpty());
        for (const bool roomAtTheEnd : {false, true}) {
            auto full = std::make_optional<FullDisk>();
            Log(1);
            EXPECT_THAT(Poll(), SizeIs(1));
            if (roomAtTheEnd) full.reset();
            TerminateSELDatabase();  // as after an open that fails for a moment
            full.reset();
            if (!roomAtTheEnd) Poll();
            const std::string db = Read(kDb);
            EXPECT_TRUE(memmem(db.data(), db.size(), &Bmc().Sel()->Entries().back(), 16) != nullptr) << roomAtTheEnd;
        }

        ASSERT_EQ(0, mount("sel", kFolder, "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr));
        Log(2);
        EXPECT_THAT(Poll(), ElementsAre(8, 9));
        EXPECT_EQ(kSelDbFailed, g_eSelDbFileStat);
        ASSERT_EQ(0, mount("sel", kFolder, "tmpfs", MS_REMOUNT, nullptr));
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(10));
        EXPECT_EQ(10, ReadInf().selCount);
    });
    Run([this] {
        const FullDisk full;
        StartWith(3);
        EXPECT_EQ(kSelDbFailed, g_eSelDbFileStat);
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(4)) << "without a file from the start";
    });
}

TEST_ON_MACHINE(SelDbFiles, TheStateIsTakenOverForTheSameDeviceOnly) {
    const auto record = [](uint8_t address, uint8_t lun, uint8_t id, uint8_t version, uint8_t type, uint8_t count) {
        const uint8_t bytes[16] = {address, lun, id, 0, version, type, 1, 0, count, 0, count, 0, 9, 9, 9, 9};
        return std::string(reinterpret_cast<const char*>(bytes), sizeof bytes);
    };
    const std::string own = record(0x20, 0, 0x0A, 0x51, 0x12, 3);
    const std::pair<std::string, unsigned> cases[] = {
        {own, 3},
        {record(0x22, 0, 0x0A, 0x51, 0x12, 3), 0},
        {record(0x20, 1, 0x0A, 0x51, 0x12, 3), 0},
        {record(0x20, 0, 0x0B, 0x51, 0x12, 3), 0},
        {record(0x20, 0, 0x0A, 0x01, 0x12, 3), 0},
        {record(0x20, 0, 0x0A, 0x51, 0x11, 3), 0},
        {own + record(0x20, 0, 0x0A, 0x51, 0x12, 2) + record(0x22, 0, 0x0A, 0x51, 0x12, 9), 2},
        {own.substr(0, 15), 0},
        {own + "torn", 3},
        {"", 0},
    };
    for (const auto& [inf, count] : cases) {
        Write(kInf, inf);
        EXPECT_EQ(0U, Start());
        EXPECT_EQ(count, g_stSelDev[0].selCount);
        EXPECT_EQ(count > 0 ? 0x09090909U : 0U, g_stSelDev[0].lastTimeStamp);
    }
    Log(5);
    EXPECT_THAT(Poll(), IsEmpty()) << "met for the first time";
    EXPECT_EQ(5, ReadInf().selCount);

    ReplaceByDirectory(kInf);
    EXPECT_EQ(0x605CB302U, Start(true, 2)) << "the other device is loaded all the same";
    ReplaceByLoop(kInf);
    EXPECT_EQ(0x605CB301U, Start());
}

TEST_F(SelDbFiles, ReplacedHardwareStartsAnewHoweverOftenItIsStarted) {
    const auto insert = [this](const std::string& address) {
        root.AddFile("/opt/velmora/lantrel/rc/HWCheck",
                     "echo " + address + " > /var/opt/velmora/lantrel/dat/HWCheckList.dat\n");
    };
    SetProduct("Tessark R2");
    insert("00:11:22:33:44:55");
    SimulatedMachine::Run([this] { StartWith(3); });  // the files stay
    SimulatedMachine::Run([this] { EXPECT_EQ(0U, Start()) << "the same hardware"; });
    insert("66:77:88:99:aa:bb");
    // Nothing is forgotten, and the change is found again, as long as the old state cannot be removed.
    SimulatedMachine::Run([this] {
        ASSERT_EQ(0, mount(kFolder, kFolder, nullptr, MS_BIND, nullptr));
        ASSERT_EQ(0, mount(nullptr, kFolder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
        EXPECT_EQ(0x605CB11DU, Start());
    });
    SimulatedMachine::Run([this] {
        EXPECT_EQ(0x605CB11DU, Start());
        EXPECT_FALSE(Exists(kInf) || Exists(kFirst));
    });  // and ends before its first poll
    SimulatedMachine::Run([this] {
        Log(5);
        EXPECT_EQ(0U, Start());
        EXPECT_THAT(Poll(), IsEmpty()) << "the new board's log, met for the first time";
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(6));
    });
}

}  // namespace
