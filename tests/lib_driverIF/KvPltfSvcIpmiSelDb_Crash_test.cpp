// What a kill or a power cut leaves of the files of the event log, and calls that fail: each event is given once.
//
// One kind of loss is in the nature of the thing: the state says "taken" before the caller has the events in hand, and who
// dies in between takes them with him. Those states are counted.

#include <gmock/gmock.h>

#include <filesystem>
#include <iostream>
#include <map>

#include "libplatform/KvPsBmc.h"
#include "tests/support/PowerCut.h"
#include "tests/support/SelMachine.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SelDbCrash : public SelMachine {
protected:
    /// Adds what a poll gives.
    void PollInto(Numbers& given) {
        for (const unsigned number : Poll())
            given.push_back(number);
    }
};

TEST_ON_MACHINE(SelDbCrash, WhateverIsLeftEachEventIsGivenOnce) {
    const std::function<void()> happenings[] = {
        [this] { Log(3); },  // old ones
        [this] { Log(3); }, [this] { ClearAndLog(2); },
        [this] { Log(2); }, [this] { ClearAndLog(0); },
        [this] { Log(1); }, [this] { Bmc().Sel()->Rewrite({EventAt(9, 60), EventAt(3, 61)}); },
    };
    std::vector<std::vector<sim::SelEntry>> logs;
    std::vector<Numbers> given;
    std::vector<std::string> states;  // of the device
    Start();
    PowerCut cut(kFolder);
    for (const auto& happen : happenings) {
        happen();
        logs.push_back(Bmc().Sel()->Entries());
        cut.Record([&] { given.push_back(Poll()); });
        states.push_back(Read(kInf));
    }
    EXPECT_EQ((std::vector<Numbers>{{}, {4, 5, 6}, {7, 8}, {9, 10}, {}, {11}, {60, 61}}), given);
    EXPECT_EQ(std::vector<std::string>(), cut.Faults());

    unsigned windows = 0;
    unsigned lost = 0;
    const size_t tried = cut.TryAll([&](const PowerCut::Moment& moment) {
        const size_t last = std::min(moment.returned, logs.size() - 1);
        const bool underWay = moment.returned == last;
        const bool met = Exists(kInf);
        const bool taken = underWay && met && Read(kInf) == states[last];
        Numbers all;
        for (size_t i = 0; i < moment.returned; ++i)
            all.insert(all.end(), given[i].begin(), given[i].end());
        Bmc().Sel()->Rewrite(logs[last]);
        Bmc().Sel()->Add(Event(99));
        Start();
        PollInto(all);
        PollInto(all);
        std::map<unsigned, int> times;
        for (const unsigned number : all)
            ++times[number];
        EXPECT_EQ(met ? 1 : 0, times[99]) << "what comes next; at first sight it is old";
        if (taken) ++windows;
        for (size_t i = 0; i <= last; ++i) {
            for (const unsigned number : given[i]) {
                const bool inWindow = taken && i == last;
                if (inWindow && times[number] == 0) ++lost;
                EXPECT_TRUE(times[number] == 1 || (inWindow && times[number] == 0)) << number;
            }
        }
        EXPECT_EQ(kSelDbGood, g_eSelDbFileStat);
        EXPECT_FALSE(Exists("ipmi_sel_51_000a.tmp"));
    });
    std::cout << tried << " states; in " << windows << " of them a poll had taken events and not returned: " << lost
              << " events\n";
    EXPECT_GE(tried, 500U);
    EXPECT_LT(windows, tried * 2 / 3);
}

TEST_ON_MACHINE(SelDbCrash, TheFilesAreWrittenInTheirOrder) {
    StartWith(3);
    ClearAndLog(2);
    PowerCut cut(kFolder);
    cut.Record([&] { Poll(); });
    const std::string tmp = "ipmi_sel_51_000a.tmp";
    const std::string db = kDb;
    EXPECT_THAT(cut.Calls(), ElementsAre("create " + tmp, "write " + tmp, "sync " + tmp, "rename " + tmp + " " + kInf,
                                         "sync .", "write " + db, "sync " + db, "create " + tmp, "write " + tmp,
                                         "sync " + tmp, "rename " + tmp + " " + kFirst, "sync .", "create ipmi_sel.log",
                                         "write ipmi_sel.log", "write ipmi_sel.log", "return"));
}

TEST_ON_MACHINE(SelDbCrash, ACallThatFailsLosesAndRepeatsNothing) {
    StartWith(3);
    Log(3);
    const std::vector<sim::SelEntry> log = Bmc().Sel()->Entries();
    PowerCut cut(kFolder);
    Numbers given;
    const size_t runs = cut.FailEach(
        EIO,
        [&] {
            Start();
            given = Poll();
        },
        [&](const std::string& call) {
            PollInto(given);
            PollInto(given);
            EXPECT_THAT(given, ElementsAre(4, 5, 6));
            Start();
            EXPECT_THAT(Poll(), IsEmpty()) << call;
            std::vector<sim::SelEntry> rewritten = log;
            rewritten.insert(rewritten.begin(), EventAt(90, 90));
            Bmc().Sel()->Rewrite(rewritten);
            EXPECT_THAT(Poll(), ElementsAre(90)) << call;
            Bmc().Sel()->Rewrite(log);
        });
    std::cout << runs << " calls\n";
    EXPECT_GT(runs, 20U);
}

// Exchanged hardware

uint32_t ReadNewAdapter(uint32_t target, _KvFruData* out) {
    *out = {};
    out->length = 6;
    out->data[5] = static_cast<uint8_t>(target);
    return 0;
}

class ExchangedHardware : public SimulatedMachine {
protected:
    static constexpr const char* kRoot = "/var/opt/velmora/lantrel";
    static constexpr const char* kList = "/var/opt/velmora/lantrel/dat/HWList.dat";
};

TEST_F(ExchangedHardware, IsNotRememberedBeforeTheOldStatesAreGone) {
    SetProduct("Varistel B400");
    for (const std::string id : {"000a", "000b", "000c", "000d", "000e"}) {
        root.AddFile(std::string(kRoot) + "/log/ipmi_sel_51_" + id + ".inf", "state");
        if (id != "000e") root.AddFile(std::string(kRoot) + "/log/FirstSEL51" + id + ".dat", "first");
    }
    root.AddFile(kList, "66:77:88:99:aa:bb\n");
    Run([&] {
        KvPsSetKvDf_GetFruInventoryDataFunc(ReadNewAdapter);
        g_dwSelDevCnt = 1;  // the others are not found this time
        PowerCut cut(kRoot);
        cut.Record([] { EXPECT_EQ(0x605CB11DU, LoadSelDeviceInfo()); });
        EXPECT_EQ(std::vector<std::string>(), cut.Faults());
        const auto content = [](const char* path) {
            std::ifstream in(path);
            return std::string(std::istreambuf_iterator<char>(in), {});
        };
        const size_t tried = cut.TryAll([&](const PowerCut::Moment&) {
            const std::string list = content(kList);
            if (list == "66:77:88:99:aa:bb\n") return;
            EXPECT_EQ("00:00:00:00:00:0e\n00:00:00:00:00:0f\n", list);
            EXPECT_TRUE(std::filesystem::is_empty(std::string(kRoot) + "/log"))
                << "the new hardware's list, old states";
        });
        std::cout << tried << " states\n";
        EXPECT_GE(tried, 500U);
    });
}

}  // namespace
