// Polls whose conversation with a controller goes wrong, or is cut short.

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <set>
#include <thread>
#include <tuple>

#include "tests/support/FullDisk.h"
#include "tests/support/SelMachine.h"
#include "tests/support/Tracing.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SelConversation : public SelMachine {};

// Failing conversations

TEST_ON_MACHINE(SelConversation, ACancelledReservationLosesAndRepeatsNothing) {
    StartWith(4);
    for (unsigned n = 1; n <= 8; ++n) {
        Log(5);
        server.CancelReservationAt(kStorage, kGetEntry, n);
        const unsigned before = 5 * n - 1;
        EXPECT_THAT(Poll(), ElementsAre(before + 1, before + 2, before + 3, before + 4, before + 5))
            << "cancelled at " << n;
        EXPECT_EQ(0U, result);
    }
    server.CancelReservationAt(kStorage, kGetEntry, 1);
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(0U, result) << "done in the second pass";
    Log(2);
    Bmc().Refuse(kStorage, kGetEntry, sim::cc::kReservationCancelled, 1000, 3);
    EXPECT_THAT(Poll(), ElementsAre(45));
    EXPECT_EQ(0U, result) << "what was taken is handed out, whatever failed behind it";
    Bmc().ResetCounts();
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(0x6033B2C5U, result);
    EXPECT_EQ(4U, Bmc().Count(kStorage, kGetEntry)) << "four passes";
}

TEST_ON_MACHINE(SelConversation, ALogThatIsRewrittenBetweenTwoPassesRepeatsNothing) {
    StartWith(2);
    Log(3);
    server.OnCommand(kStorage, kGetEntry, [this, n = 0](const auto&, const auto& answer) mutable {
        if (++n != 5) return answer();  // two of the three have been read then
        std::vector<sim::SelEntry> entries = Bmc().Sel()->Entries();
        entries.insert(entries.begin(), EventAt(90, 90));
        Bmc().Sel()->Rewrite(entries);
        return sim::Response{sim::cc::kReservationCancelled, {}};
    });
    EXPECT_THAT(Poll(), ElementsAre(3, 4, 90, 5));
    EXPECT_THAT(Poll(), IsEmpty());
}

TEST_F(SelConversation, AFirstReadingSurvivesRefusals) {
    // How often it is refused, whether the device is met all the same, and what the database knows of its last entry.
    for (const auto& [code, times, met, known] : {std::tuple{sim::cc::kReservationCancelled, 3U, true, 6U},
                                                  {sim::cc::kNodeBusy, 1U, false, 6U},
                                                  {sim::cc::kTimeout, 1U, false, 6U},
                                                  {sim::cc::kUnspecified, 1U, true, 0U}}) {
        Run([&] {
            Log(6);
            Bmc().Refuse(kStorage, kGetEntry, code, times, 2);
            Start();
            EXPECT_THAT(Poll(), IsEmpty());
            EXPECT_EQ(0U, result);
            EXPECT_EQ(met, Exists(kInf)) << "who is busy is asked again by the next poll";
            EXPECT_THAT(Poll(), IsEmpty());
            EXPECT_EQ(known, NumberOf(ReadDb(6)));
        });
    }
    Run([this] {
        Log(6);
        Bmc().Refuse(kStorage, kGetEntry, sim::cc::kReservationCancelled, 1000, 2);
        Start();
        EXPECT_THAT(Poll(), IsEmpty());
        EXPECT_EQ(0x6033B2C5U, result);
        EXPECT_FALSE(Exists(kInf)) << "not met before it was read";
        EXPECT_FALSE(Exists(kDb));
        EXPECT_EQ(18U, Bmc().Count(kStorage, kGetEntry)) << "four attempts in each pass";
    });
    for (const int cancelled : {0, 4}) {  // in a pass behind that which saw the clearing
        Run([&] {
            Log(6);
            server.OnCommand(kStorage, kGetEntry, [=, this, n = 0](const auto&, const auto& answer) mutable {
                if (++n == 3) ClearAndLog(2);
                return n == cancelled ? sim::Response{sim::cc::kReservationCancelled, {}} : answer();
            });
            Start();
            EXPECT_THAT(Poll(), IsEmpty());
            EXPECT_THAT(Poll(), ElementsAre(7, 8)) << "logged behind the clearing, under our eyes";
        });
    }
}

TEST_ON_MACHINE(SelConversation, FailuresOfTheDriverAndOfCommands) {
    StartWith(2);
    Log(2);
    FailToOpen();
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(0x6052B104U, result);
    for (const uint8_t command : {kReserve, kGetInfo, kGetEntry}) {
        Bmc().Refuse(kStorage, command, sim::cc::kUnspecified);
        EXPECT_THAT(Poll(), IsEmpty());
        EXPECT_EQ(0U, result);
    }
    Bmc().Refuse(kStorage, kGetEntry, sim::cc::kUnspecified, 1, 3);
    EXPECT_THAT(Poll(), ElementsAre(3));
    EXPECT_THAT(Poll(), ElementsAre(4)) << "the rest comes with the next poll";
}

TEST_ON_MACHINE(SelConversation, ALockedOperationHasItsCallersNumberWhereTheDriverFails) {
    Log(2);
    uint16_t reservation = 0;
    uint16_t nextId = 0;
    uint8_t progress = 0;
    KVPS_SEL_INFO info = {};
    KVPS_SEL_ENTRY entry = {};
    const auto all = [&](uint32_t reserve, uint32_t getInfo, uint32_t getEntry, uint32_t clear) {
        EXPECT_EQ(reserve, KvPsLockAndReserveSel(0x7B, 0x20, &reservation));
        EXPECT_EQ(getInfo, KvPsLockAndGetSelInfo(0x7B, 0x20, &info));
        EXPECT_EQ(getEntry, KvPsLockAndGetSelEntry(0x7B, 0x20, reservation, 0xFFFF, &nextId, &entry, 3));
        EXPECT_EQ(clear, KvPsLockAndClearSel(0x7B, 0x20, reservation, 0xAA, &progress));
    };
    all(0, 0, 0, 0);
    EXPECT_EQ(2U, NumberOf(entry));
    EXPECT_EQ(0xFFFF, nextId);
    EXPECT_EQ(2, info.entries);
    EXPECT_EQ(0x51, info.version);
    EXPECT_EQ(2, info.operationSupport & 2);
    EXPECT_EQ(1, progress);
    EXPECT_TRUE(Bmc().Sel()->Entries().empty());
    all(0, 0, 0x6033B2CB, 0);
    EXPECT_EQ(0x6000B109U, KvPsLockAndGetSelInfo(0x7B, 0x21, &info));

    StartWith(1);
    EXPECT_EQ(0x607BB501U, KvPsLockAndGetSelEntry(0x7B, 0x20, 0, 0, &nextId, &entry, KVPS_SEL_CHECK_DATABASE));
    EXPECT_EQ(0U, KvPsLockAndGetSelEntry(0x7B, 0x20, 0, 0, &nextId, &entry, 0));
}

TEST_ON_MACHINE(SelConversation, AProcessThatEndsLeavesTheRestToTheNextOne) {
    StartWith(2);
    Log(2);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);  // in this process, which is the machine's
    raise(SIGTERM);
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(2, ReadInf().selCount);
    int taken = 0;
    sigwait(&term, &taken);  // still there: the library does not take what is the host's
    EXPECT_EQ(SIGTERM, taken);
    EXPECT_THAT(Poll(), ElementsAre(3, 4));
}

#ifndef __SANITIZE_ADDRESS__  // which does not see a cancelled thread leave its frames
TEST_ON_MACHINE(SelConversation, APollerThatIsCancelledHandsOutWhatItHasTaken) {
    Start(true, 2);
    Poll();
    Log(500);
    server.OnCommand(kStorage, kGetInfo, [n = 0](const auto&, const auto& answer) mutable {
        if (++n == 2) pthread_cancel(pthread_self());  // at the second device
        if (n > 2) pthread_testcancel();               // as a real device does; the full log is about to be cleared
        return answer();
    });
    Numbers given;
    std::thread([&] {
        given = Poll();
        pthread_testcancel();
        ADD_FAILURE() << "was not cancelled";
    }).join();
    EXPECT_THAT(given, SizeIs(1000));
    EXPECT_TRUE(Bmc().Sel()->Entries().empty());
    EXPECT_THAT(Poll(), IsEmpty());
}
#endif

TEST_F(SelConversation, NothingWaitsForAControllerBetweenTakenOnDiskAndTheReturn) {
    // From which command on the controller is silent, and how often it may be sent with the state on disk.
    for (const auto& [devices, events, command, nth, sent] : {std::tuple{2U, 1U, kReserve, 2U, 0U},
                                                              {2U, 1U, kClear, 1U, 0U},
                                                              {1U, 500U, kGetInfo, 2U, 1U},
                                                              {1U, 500U, kClear, 1U, 2U}}) {
        Run([&] {
            Start(true, devices);
            Poll();
            Log(events);
            uint64_t last = 0;
            unsigned inWindow = 0;
            for (const uint8_t each : {kReserve, kGetInfo, kGetEntry, kClear}) {
                server.OnCommand(kStorage, each, [&, each, n = 0U](const auto&, const auto& answer) mutable {
                    if (ReadInf().selCount != 0) ++inWindow;
                    sim::Response response = answer();
                    response.silent = each == command && ++n >= nth;
                    last = clock.Now();
                    return response;
                });
            }
            EXPECT_FALSE(Poll().empty());
            EXPECT_EQ(sent, inWindow) << int{command};
            // A command that is not answered costs half a second; the rest is not slow in itself.
            EXPECT_GT(command == kClear && events == 1 ? 1000U : 700'000U, clock.Now() - last) << int{command};
        });
    }
}

// Controllers that say strange things

TEST_ON_MACHINE(SelConversation, NoWalkGoesOnForEver) {
    // The id behind an entry leads back.
    const auto loop = [](uint16_t from, uint8_t to) {
        return [=](const auto&, const auto& answer) {
            sim::Response response = answer();
            if (response.data.size() < 4 || sim::Word(response.data, 2) != from) return response;
            response.data[0] = to;
            response.data[1] = 0;
            return response;
        };
    };
    server.OnCommand(kStorage, kGetEntry, loop(5, 2));
    Log(5);
    Start();
    Bmc().ResetCounts();
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_GT(30U, Bmc().Count());
    for (const auto& [target, events, taken] : {std::tuple{uint8_t{6}, 5U, 3U}, {uint8_t{8}, 0U, 0U}}) {
        server.OnCommand(kStorage, kGetEntry, loop(8, target));
        Bmc().ResetCounts();
        Log(events);
        EXPECT_THAT(Poll(), SizeIs(taken));
        EXPECT_GT(30U, Bmc().Count());
    }
    server.OnCommand(kStorage, kGetEntry, {});
    EXPECT_THAT(Poll(), ElementsAre(9, 10)) << "once the controller has come to its senses";
}

TEST_F(SelConversation, AnEntryThatIsNeverGivenHidesNoOther) {
    const sim::Response refused{sim::cc::kUnspecified, {}};
    const sim::Response absent{sim::cc::kNotPresent, {}};
    const sim::Response cut{0, sim::Bytes(17, 0)};
    // What the controller says to the ids of entries that it does not give, and how many of them it does not count
    // either. Three entries are old, seven come with the first poll.
    for (const auto& [answer, bad, uncounted] : {std::tuple{refused, std::set<unsigned>{6}, 0},
                                                 {refused, {6, 7}, 0},
                                                 {absent, {6}, 0},
                                                 {absent, {6, 10}, 1},
                                                 {cut, {6}, 0},
                                                 {refused, {4}, 0},
                                                 {refused, {10}, 0},
                                                 {refused, {3}, 0},
                                                 {absent, {3}, 0},
                                                 {refused, {1}, 0},
                                                 {refused, {1, 6, 9}, 0}}) {
        Run([&] {
            SCOPED_TRACE(testing::PrintToString(bad) + testing::PrintToString(answer.completionCode));
            StartWith(3);
            server.OnCommand(kStorage, kGetEntry, [&](const auto& request, const auto& given) {
                unsigned id = sim::Word(request.data, 2);
                if (id == 0) id = AsEntry(Bmc().Sel()->Entries().front()).recordId;
                if (id == 0xFFFF) id = AsEntry(Bmc().Sel()->Entries().back()).recordId;
                return bad.contains(id) ? answer : given();
            });
            server.OnCommand(kStorage, kGetInfo, [&](const auto&, const auto& given) {
                sim::Response response = given();
                if (response.data[1] > uncounted) response.data[1] = static_cast<uint8_t>(response.data[1] - uncounted);
                return response;
            });
            Log(7);
            std::vector<unsigned> expected;
            for (unsigned number = 4; number <= 11; ++number) {
                if (!bad.contains(number)) expected.push_back(number);
            }
            Numbers all;
            const auto poll = [&] {
                for (const unsigned number : Poll())
                    all.push_back(number);
            };
            for (int i = 0; i < 9; ++i)
                poll();
            EXPECT_TRUE(std::ranges::max(bad) <= 3 || g_eSelDbFileStat == kSelDbFailed) << "it is told";
            Log(1);
            poll();
            EXPECT_EQ(expected, all);
            Start();
            for (int i = 0; i < 9; ++i)
                poll();
            EXPECT_EQ(expected, all) << "and nothing comes twice";
            Log(500);
            poll();
            EXPECT_EQ(expected.size() + 500, all.size());
            EXPECT_THAT(Bmc().Sel()->Entries(), IsEmpty()) << "full, and done with";
        });
    }
    Run([&] {  // at first sight
        server.OnCommand(kStorage, kGetEntry, [&](const auto& request, const auto& given) {
            return sim::Word(request.data, 2) == 2 ? cut : given();
        });
        StartWith(4);
        Log(1);
        EXPECT_THAT(Poll(), ElementsAre(5));
    });
    Run([&] {  // far behind it
        StartWith(3);
        server.OnCommand(kStorage, kGetEntry, [&](const auto& request, const auto& given) {
            return sim::Word(request.data, 2) == 4 ? refused : given();
        });
        Log(1);
        Bmc().Sel()->Add(EventAt(200, 5));
        EXPECT_THAT(Poll(), IsEmpty());
        EXPECT_THAT(Poll(), IsEmpty());
        EXPECT_THAT(Poll(), ElementsAre(5));
    });
    Run([&] {  // one that is refused for a moment is not lost, however often that happens
        StartWith(1);
        for (unsigned i = 0; i < 4; ++i) {
            ClearAndLog(2);
            Bmc().Refuse(kStorage, kGetEntry, sim::cc::kUnspecified, 1, 2);
            EXPECT_THAT(Poll(), ElementsAre(2 + 2 * i));
            EXPECT_THAT(Poll(), ElementsAre(3 + 2 * i));
        }
    });
}

TEST_ON_MACHINE(SelConversation, CountsAndIdsThatDoNotFit) {
    StartWith(3);
    server.OnCommand(kStorage, kGetInfo, [](const auto&, const auto& answer) {
        sim::Response response = answer();
        response.data[1] = response.data[2] = 0xFF;
        return response;
    });
    Log(2);
    EXPECT_THAT(Poll(), ElementsAre(4, 5));
    EXPECT_THAT(Poll(), IsEmpty());
    server.OnCommand(kStorage, kGetInfo, {});
    EXPECT_THAT(Poll(), IsEmpty());
    Log(2);
    EXPECT_THAT(Poll(), ElementsAre(6, 7));

    Bmc().Sel()->Remove(7);  // where the next read would start
    Log(2);
    EXPECT_THAT(Poll(), ElementsAre(8, 9));
    sim::SelEntry high = Event(10);
    high[0] = 0xFE;
    high[1] = 0xFF;
    Bmc().Sel()->Add(high);
    EXPECT_THAT(Poll(), ElementsAre(10));
    EXPECT_EQ(10U, NumberOf(ReadDb(0xFFFE)));
    Start();
    EXPECT_THAT(Poll(), IsEmpty());
    EXPECT_EQ(kSelDbGood, g_eSelDbFileStat);
}

TEST_ON_MACHINE(SelConversation, WhatHappensIsTraced) {
    Log(3);
    server.OnCommand(kStorage, kGetEntry, [this, n = 0](const auto&, const auto& answer) mutable {
        if (++n == 2) ClearAndLog(1);
        return answer();
    });
    const std::vector<std::string> traced = Tracing().LinesOf([this] {
        Start();
        Poll();
        Poll();
        {
            const FullDisk full;
            Bmc().Sel()->Rewrite({EventAt(90, 40), Bmc().Sel()->Entries()[0]});
            Poll();
        }
        Bmc().Refuse(kStorage, kGetInfo, sim::cc::kUnspecified);
        Poll();
    });
    size_t at = 0;
    for (const char* line : {
             "QNTR 6B2C5-C 033 The reservation of the BMC records was cancelled. (*)\n",
             "?Error?KvPsLockAndGetSelEntry() failed. dwErrCode=0x6033b2c5(*)\n",
             "?Info?KvPsLockAndGetSelInfo() Sel Clear(*)\n",
             "SelCount:1",
             "SelCount:2",
             "The processed system event log was detected again. SEL=01 00 02 * 20 00 04 08 49 6F 04 00 FF \n",
             "QNTR 6B501-C 053 *(*)\n",
             "QNTR 61300-C 053 The file cannot be written. (*)\n",
             "Ipmi_sel.log update failure.",
             "?Error?KvPsLockAndGetSelInfo() failed. dwErrCode=0x6031b2ff(*)\n",
         }) {
        while (at < traced.size() && fnmatch((std::string("* * * ") + line).c_str(), traced[at].c_str(), 0) != 0)
            ++at;
        EXPECT_LT(at, traced.size()) << line;
    }
}

}  // namespace
