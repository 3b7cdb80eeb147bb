// What is handed out of the event logs, and what is kept about it.

#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <ctime>
#include <fstream>
#include <thread>
#include <tuple>

#include "common/PXR_message_internal.h"
#include "tests/support/SelMachine.h"
#include "tests/support/SyslogListener.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SelDb : public SelMachine {};

sim::SelEntry StopMarker() {
    return sim::SystemEvent(0xF4, 0xE0, 0x07, {0xA8, 0x52, 0x77}, 0, 0x0001);
}

// The usual course

TEST_ON_MACHINE(SelDb, WhatIsThereAtFirstSightIsOldAndNewEventsComeOnceInOrderOverRestarts) {
    StartWith(300);
    EXPECT_EQ(0U, result);
    const DEVICE_INFO info = ReadInf();
    EXPECT_EQ(0, memcmp(&info, "\x20\0\x0A\0\x51\x12\x01\0\x2C\x01\x2C\x01", 12)) << "layout on disk";
    EXPECT_NE(0U, info.lastTimeStamp);
    EXPECT_EQ(kDbSize, Read(kDb).size());
    EXPECT_EQ(1U, NumberOf(ReadDb(1)));
    EXPECT_EQ(0, ReadDb(301).recordId);
    const std::string first = Read(kFirst);
    ASSERT_EQ(16U, first.size());
    EXPECT_EQ(0, memcmp(first.data(), Bmc().Sel()->Entries()[0].data(), 16));
    EXPECT_FALSE(Exists("ipmi_sel_51_000a.tmp"));
    EXPECT_FALSE(Exists(kRing));

    Log(3);
    EXPECT_THAT(Poll(), ElementsAre(301, 302, 303));
    EXPECT_EQ(303U, NumberOf(ReadDb(303)));
    EXPECT_EQ(303, ReadInf().selCount);
    EXPECT_THAT(Read(kRing), testing::MatchesRegex("0003\n0000:2D0102[0-9A-F]+20000408496F2D01FF\n"
                                                   "0001:2E01[0-9A-F]{28}\n0002:2F01[0-9A-F]{28}\n"));
    Log(1);
    Start();
    EXPECT_THAT(Poll(), ElementsAre(304)) << "logged while nobody polled";
    EXPECT_THAT(Poll(), IsEmpty());
    Start();
    EXPECT_THAT(Poll(), IsEmpty());
    TerminateSELDatabase();
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(305)) << "the database is loaded again";
}

TEST_ON_MACHINE(SelDb, ALogThatWasClearedOrRewrittenIsReadWhole) {
    StartWith(5);
    ClearAndLog(2);
    EXPECT_THAT(Poll(), ElementsAre(6, 7));
    ClearAndLog(2);
    EXPECT_THAT(Poll(), ElementsAre(8, 9)) << "as many as before, others";
    ClearAndLog(4);
    EXPECT_THAT(Poll(), ElementsAre(10, 11, 12, 13)) << "more than before, others";
    ClearAndLog(0);
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(0, ReadInf().selCount);
    EXPECT_NE(0U, ReadInf().lastTimeStamp);
    Start();
    Log(2);
    EXPECT_THAT(Poll(), ElementsAre(14, 15));
}

TEST_ON_MACHINE(SelDb, TheFirstEventOfAnEmptyLogIsNew) {
    server.OnCommand(kStorage, kGetInfo, [](const auto&, const sim::Controller::Answer& answer) {
        sim::Response response = answer();
        std::fill_n(response.data.begin() + 5, 4, uint8_t{0});  // nothing was ever added, or the clock never set
        return response;
    });
    StartWith(0);
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(1));
    sim::SelEntry timeless = Event(2);
    timeless[2] = 0xE0;
    Bmc().Sel()->Add(timeless);
    EXPECT_THAT(Poll(), ElementsAre(2));
    Log(1);
    EXPECT_THAT(Poll(), SizeIs(1));
}

TEST_ON_MACHINE(SelDb, ALogThatGrowsAtFirstSightIsMetAsAWhole) {
    server.OnCommand(kStorage, kGetEntry, [this](const auto& request, const auto& answer) {
        if (sim::Word(request.data, 2) == 0xFFFF && Bmc().Sel()->Entries().size() < 4) Log(1);
        return answer();
    });
    StartWith(3);
    EXPECT_FALSE(Exists(kInf)) << "three entries, but the fourth is the last one";
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(4, ReadInf().selCount);
    Log(496);
    EXPECT_THAT(Poll(), SizeIs(496));
    EXPECT_TRUE(Bmc().Sel()->Entries().empty()) << "cleared: all is known to be taken";
}

TEST_ON_MACHINE(SelDb, EachDeviceHasItsOwnState) {
    Log(2);
    Start(true, 3);
    g_stSelDev[1].address = 0x21;  // no controller: fails for good
    g_stSelDev[2].bType = 0x11;    // not found by a locator record: without files
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(0U, result) << "one that fails does not keep back the others";
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(3, 3)) << "the same log behind two devices";
    EXPECT_TRUE(Exists(kInf));
    EXPECT_FALSE(Exists("ipmi_sel_51_000b.inf"));
    EXPECT_FALSE(Exists("ipmi_sel_51_000c.inf"));
    EXPECT_FALSE(Exists("ipmi_sel_51_000c.db"));

    SetSelDeviceIdx(2);
    const KVPS_SEL_ENTRY known = AsEntry(Bmc().Sel()->Entries()[2]);
    EXPECT_TRUE(IsNotifiedSEL(&known));
    SetSelDeviceIdx(1);
    EXPECT_FALSE(IsNotifiedSEL(&known));
    SetSelDeviceIdx(127);
    EXPECT_TRUE(IsNotifiedSEL(&known)) << "the first one";
}

TEST_ON_MACHINE(SelDb, APollCostsFewCommands) {
    StartWith(400);
    for (const unsigned events : {0U, 1U, 7U}) {
        Log(events);
        Bmc().ResetCounts();
        EXPECT_THAT(Poll(), SizeIs(events));
        EXPECT_LE(Bmc().Count(), events == 0 ? 3U : 4U + events);
    }
    Start(false);
    Bmc().ResetCounts();
    Poll();
    EXPECT_EQ(0U, Bmc().Count(kStorage, kReserve)) << "only where the device knows reservations";
    const unsigned opened = server.Opens("/dev/ipmi0");
    Log(20);
    EXPECT_THAT(Poll(), SizeIs(20));
    EXPECT_EQ(opened + 1, server.Opens("/dev/ipmi0"));
}

#ifndef __SANITIZE_ADDRESS__  // under which time and memory are other than they seem

TEST_ON_MACHINE(SelDb, AFullDatabaseIsLoadedInNoTime) {
    StartWith(1);
    std::string full(kDbSize, '\0');
    KVPS_SEL_ENTRY last = {};
    for (size_t id = 0; id < kSelDbRecords; ++id) {
        last.recordId = static_cast<uint16_t>(id);
        memcpy(&full[id * sizeof last], &last, sizeof last);
    }
    Write(kDb, full);
    clock_t best = CLOCKS_PER_SEC;
    for (int i = 0; i < 5; ++i) {
        Start();
        const clock_t start = std::clock();
        Poll();
        best = std::min(best, std::clock() - start);
        EXPECT_TRUE(IsNotifiedSEL(&last));
    }
    EXPECT_EQ(kSelDbGood, g_eSelDbFileStat);
    EXPECT_LT(best, CLOCKS_PER_SEC / 100);
}

size_t HeapInUse() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

size_t ResidentKilobytes() {
    std::ifstream in("/proc/self/smaps_rollup");  // exact, other than statm
    size_t resident = 0;
    for (std::string word; resident == 0 && in >> word;) {
        if (word == "Rss:") in >> resident;
    }
    return resident;
}

TEST_ON_MACHINE(SelDb, PollsLeaveNothingInMemoryButOneMegabyteForEachDevice) {
    const size_t before = HeapInUse();
    Start(true, 3);
    Poll();
    EXPECT_LT(HeapInUse() - before, 3 * kDbSize + 256 * 1024);
    size_t heap = HeapInUse();
    size_t resident = ResidentKilobytes();
    for (int i = 0; i < 2500; ++i) {
        if (i == 1500) {  // the simulated controller has its memory now, and the code of all this its pages
            heap = HeapInUse();
            resident = ResidentKilobytes();
        }
        Log(1);
        EXPECT_FALSE(Poll().empty());
    }
    EXPECT_LT(0U, resident);
    EXPECT_LT(HeapInUse(), heap + 4096);
    EXPECT_LT(ResidentKilobytes(), resident + 32);
}

#endif

// Known entries, stop marker

TEST_ON_MACHINE(SelDb, EntriesThatAreSeenAgainAreWithheld) {
    SyslogListener syslog;
    Write("@ipmi@.log", "traffic");
    StartWith(3);
    EXPECT_FALSE(Exists("@ipmi@_redetect.log"));
    const std::vector<sim::SelEntry> old = Bmc().Sel()->Entries();
    Bmc().Sel()->Rewrite({Event(40), old[1], old[2]});
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(40, 4));
    EXPECT_THAT(syslog.Lines(),
                ElementsAre("pxragt: WXPLG0905A-I An alert occured at agent. (ID=0xfa15:LEVEL=Information:MSG="
                            "Entries of the system event log were read that had already been processed. They are "
                            "not reported again.)"));
    EXPECT_EQ("traffic", Read("@ipmi@_redetect.log"));
    EXPECT_EQ(3, Read("ipmi_sel_51_000a_redetect.inf")[8]) << "the state before this poll";
    EXPECT_EQ(kDbSize, Read("ipmi_sel_51_000a_redetect.db").size());
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_THAT(syslog.Lines(), SizeIs(1));

    KVPS_SEL_ENTRY entries[] = {AsEntry(old[1]), AsEntry(Event(50)), AsEntry(old[2])};
    unsigned long count = 3;
    RemoveNotifiedSEL(&count, entries);
    ASSERT_EQ(1U, count);
    EXPECT_EQ(50U, NumberOf(entries[0]));
    RemoveNotifiedSEL(&count, entries);
    EXPECT_THAT(syslog.Lines(), SizeIs(2)) << "once for each removal";

    std::filesystem::remove(Path(kFirst));
    Start();
    Log(1);
    EXPECT_THAT(Poll(), ElementsAre(5));
    EXPECT_THAT(syslog.Lines(), SizeIs(2)) << "nothing is wrong but that a file is missing";
}

TEST_F(SelDb, TheStopMarkerAndAllBehindItWaitForTheRestart) {
    Run([this] {
        StartWith(2);
        sim::SelEntry almost = StopMarker();
        almost[14] ^= 1;
        Bmc().Sel()->Add(almost);
        Log(1);
        EXPECT_THAT(Poll(), SizeIs(2));
        EXPECT_FALSE(CheckSelMaskList(kSelMarkerRestart));
        Log(1);
        Bmc().Sel()->Add(StopMarker());
        Log(2);
        EXPECT_THAT(Poll(), ElementsAre(4));
        EXPECT_TRUE(CheckSelMaskList(kSelMarkerRestart));
        EXPECT_FALSE(CheckSelMaskList(2));
        EXPECT_FALSE(CheckSelMaskList(0)) << "the end of the table";
        ClearAndLog(2);
        EXPECT_THAT(Poll(), IsEmpty());
        Start();
        EXPECT_THAT(Poll(), ElementsAre(7, 8));
        EXPECT_FALSE(CheckSelMaskList(kSelMarkerRestart));
        ClearAndLog(1);
        Bmc().Sel()->Add(StopMarker());
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(9));
        Start();
        EXPECT_THAT(Poll(), ElementsAre(10)) << "the marker itself counts as taken";
        EXPECT_FALSE(CheckSelMaskList(kSelMarkerRestart));
    });
    Run([this] {
        Bmc().Sel()->Add(StopMarker());
        StartWith(1);
        EXPECT_TRUE(CheckSelMaskList(kSelMarkerRestart)) << "among old entries it stops once";
        Start();
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(2));
        EXPECT_FALSE(CheckSelMaskList(kSelMarkerRestart));
    });
}

// A full log

TEST_F(SelDb, ALogThatIsNearlyFullIsCleared) {
    for (const auto& [capacity, events, cleared] :
         {std::tuple{100U, 80U, false}, {100U, 81U, true}, {4096U, 499U, false}, {4096U, 500U, true}}) {
        Run([&] {
            Bmc().Sel()->SetCapacity(capacity);
            StartWith(0);
            Log(events);
            EXPECT_THAT(Poll(), SizeIs(events));
            EXPECT_EQ(cleared, Bmc().Sel()->Entries().empty()) << capacity << ' ' << events;
        });
    }
}

TEST_ON_MACHINE(SelDb, NothingIsClearedUnseen) {
    StartWith(0);
    server.OnCommand(kStorage, kGetInfo, [this, n = 0](const auto&, const auto& answer) mutable {
        if (++n == 2) Log(1);  // just before it would be cleared
        return answer();
    });
    Log(500);
    EXPECT_THAT(Poll(), SizeIs(500));
    EXPECT_THAT(Poll(), ElementsAre(501));
    EXPECT_TRUE(Bmc().Sel()->Entries().empty());

    Log(500);
    Bmc().Refuse(kStorage, kClear, sim::cc::kNodeBusy);
    EXPECT_THAT(Poll(), SizeIs(500));
    EXPECT_THAT(Bmc().Sel()->Entries(), SizeIs(500));
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_TRUE(Bmc().Sel()->Entries().empty()) << "tried again";

    Log(400);
    EXPECT_THAT(Poll(), SizeIs(400));
    ClearAndLog(400);
    Bmc().Sel()->SetCapacity(401);
    fs_stSeldef[0].matched = 1;
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_THAT(Bmc().Sel()->Entries(), SizeIs(400)) << "as many as were taken, but others";
}

// Neighbours

TEST_ON_MACHINE(SelDb, SystemLogLinesCarryTheirLevel) {
    SyslogListener syslog;
    for (const int priority : {0, 1, 2, 3, 4, 5, 6, 7})
        PutSyslogMessage(64016, priority);  // there is none of that number in set 6
    EXPECT_THAT(syslog.Lines(),
                ElementsAre("pxragt: WXPLG0906A-W An alert occured at agent. (ID=0xfa10:LEVEL=Warning:MSG=)",
                            "pxragt: WXPLG0907A-E An alert occured at agent. (ID=0xfa10:LEVEL=Error:MSG=)",
                            "pxragt: WXPLG0906A-W An alert occured at agent. (ID=0xfa10:LEVEL=Warning:MSG=)",
                            "pxragt: WXPLG0905A-I An alert occured at agent. (ID=0xfa10:LEVEL=Information:MSG=)"));
    EXPECT_THAT(syslog.Priorities(), ElementsAre(3 << 3 | 2, 3 << 3 | 3, 3 << 3 | 4, 3 << 3 | 6));
}

TEST_ON_MACHINE(SelDb, ThreadsThatPollAtOnceShareTheEvents) {
    StartWith(1);
    Log(40);
    std::atomic<size_t> total{0};
    {
        std::vector<std::jthread> pollers(4);
        for (std::jthread& poller : pollers)
            poller = std::jthread([&] { total += Poll().size(); });
    }
    EXPECT_EQ(40U, total);
}

}  // namespace
