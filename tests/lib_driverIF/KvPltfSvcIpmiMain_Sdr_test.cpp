// The walks over the sensor data repository, on good and on damaged repositories.

#include "lib_driverIF/KvPltfSvcIpmiMain_Sdr.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <tuple>

#include "libplatform/PXR_syscall.h"
#include "tests/support/Repository.h"
#include "tests/support/Tracing.h"

using namespace ktx_ipmi;

namespace {

using sim::Bytes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr uint8_t kStorage = sim::netfn::kStorage;
constexpr uint8_t kReserve = 0x22;
constexpr uint8_t kGetSdr = 0x23;
constexpr const char* kDump = "/var/opt/velmora/lantrel/log/sdr.dump";

TEST_F(Repository, DamageEndsTheWalkAndKeepsWhatWasRead) {
    using Case = std::tuple<const char*, uint32_t, std::vector<std::string>, std::function<void(sim::SdrRepository&)>>;
    using Sdr = sim::SdrRepository;
    const std::vector<std::string> all = {"Sens1", "Sens2", "Sens3"};
    const std::vector<std::string> two = {"Sens1", "Sens2"};
    for (const auto& [damage, result, names, inflict] :
         {Case{"the last leads to the first", 0, all, [](Sdr& sdr) { sdr.LieAboutNext(3, 1); }},
          Case{"a record leads to itself", 0, two, [](Sdr& sdr) { sdr.LieAboutNext(2, 2); }},
          Case{"a record leads to the beginning", 0, two, [](Sdr& sdr) { sdr.LieAboutNext(2, 0); }},
          Case{"a record leads nowhere", 0x603BB2CB, two, [](Sdr& sdr) { sdr.LieAboutNext(2, 0x1234); }},
          Case{
              "too long", 0x6038B2C9, {"Sens1"}, [](Sdr& sdr) { sdr.Replace(2, WithByte(Full(2).Encode(), 4, 0xFF)); }},
          Case{"only a header", 0, {"Sens1", "Sens3"}, [](Sdr& sdr) {
                   sdr.Replace(2, {0, 0, 0x51, 1, 0});
               }}}) {
        SCOPED_TRACE(damage);
        Bmc().Sdr()->Clear();
        AddSensors(3);
        inflict(*Bmc().Sdr());
        ExpectNames(names, result);
    }
}

TEST_F(Repository, ACircleIsWalkedOnce) {
    AddSensors(3);
    Run([this] {
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        const size_t straight = Bmc().Count(kStorage, kGetSdr);
        Bmc().Sdr()->LieAboutNext(3, 1);
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        EXPECT_EQ(2 * straight, Bmc().Count(kStorage, kGetSdr));
    });
}

TEST_F(Repository, ShortPiecesArePutTogetherAndAnEmptyOneIsAFailure) {
    AddSensors(1);
    const auto cutTo = [this](size_t length, uint8_t behind) {
        server.OnCommand(kStorage, kGetSdr, [=](const sim::Request& request, const auto& answer) {
            sim::Response response = answer();
            if (request.data[4] > behind && response.data.size() > length) response.data.resize(length);
            return response;
        });
    };
    cutTo(5, 0);
    ExpectNames({"Sens1"});
    cutTo(2, 16);
    ExpectNames({}, 0x6000B100);
    Bmc().Sdr()->Clear();
    Bytes longest = Full(1, "Sens1").Encode();
    longest.resize(5 + 0xFF);
    Add(WithByte(longest, 4, 0xFF));
    cutTo(2 + 15, 0);
    ExpectNames({"Sens1"});
    cutTo(2 + 14, 0);  // the last byte lies behind the last offset that a command can name
    ExpectNames({}, 0x6000B100);
}

TEST_F(Repository, TablesHoldOneHundredAndTwentySevenDevices) {
    constexpr unsigned kDevices = 130;
    for (unsigned i = 0; i < kDevices; ++i) {
        Add(Full(5, "S", static_cast<uint8_t>(2 * (i / 4)), i % 4).Encode());
        Add(sim::ControllerLocator(0x20, 0x04, 7, 1, "Log"));
    }
    Run([] {
        EXPECT_EQ(0U, KvPsInitializeIpmi());
        EXPECT_EQ(127U, g_dwSnsDevCnt);
        EXPECT_EQ(127U, SdrInstanceCnt());
        EXPECT_EQ(126, GetSensorDeviceNo(2 * 31, 2));
        EXPECT_EQ(-1, GetSensorDeviceNo(2 * 31, 3)) << "the 128th";
        EXPECT_EQ(127U, g_dwSelDevCnt);
    });
}

TEST_F(Repository, KeepersOfEventLogsAreFound) {
    Add(sim::ControllerLocator(0x52, 0x29, 10, 1, "No log"));
    Add(sim::ControllerLocator(0x24, 0x04, 7, 1, "Log"));
    Add(WithByte(WithByte(sim::ControllerLocator(0x26, 0x00, 7, 1, "Old"), 2, 0x01), 7, 0x04));  // IPMI 1.0
    const auto addresses = [] {
        std::vector<int> found;
        for (uint32_t i = 0; i < g_dwSelDevCnt; ++i)
            found.push_back(g_stSelDev[i].address);
        return found;
    };
    Run([&] {
        EXPECT_EQ(0x6050B105U, KvPsInitializeIpmi()) << "no sensors";
        ASSERT_THAT(addresses(), ElementsAre(0x24, 0x26));
        EXPECT_EQ(2, g_stSelDev[0].recordId);
        EXPECT_EQ(0x51, g_stSelDev[0].sdrVersion);
        EXPECT_EQ(0x12, g_stSelDev[0].bType);
        EXPECT_EQ(1, g_stSelDev[0].reserve);
        EXPECT_EQ(0U, g_stSelDev[0].lastTimeStamp);
    });
    SetProduct("Server Varistel Q51");
    Run([&] {
        KvPsInitializeIpmi();
        EXPECT_THAT(addresses(), ElementsAre(0x24, 0x26));
    });
    Add({0, 0, 0x51, 0x12, 0});  // ends before its address
    Bmc().Refuse(kStorage, 0x40, sim::cc::kInvalidCommand, 2);
    SetProduct("Server Varistel Q52 M2");
    Run([&] {
        KvPsInitializeIpmi();
        EXPECT_THAT(addresses(), ElementsAre(0x52, 0x24, 0x26));
        EXPECT_EQ(0, g_stSelDev[1].reserve);
    });
}

TEST_F(Repository, ACancelledReservationStartsTheWalkAnew) {
    Add(sim::ControllerLocator(0x20, 0x04, 7, 1, "BMC"));
    AddSensors(3);
    // Discovery takes 8 commands, the full read of the three sensors 12 and of the controller 2.
    for (const unsigned at : {1U, 2U, 4U, 8U, 9U, 11U, 15U, 22U}) {
        Run([&] {
            server.CancelReservationAt(kStorage, kGetSdr, at);
            EXPECT_EQ(0U, KvPsInitializeIpmi()) << at;
            EXPECT_THAT(Names(), SizeIs(3)) << at;
            EXPECT_EQ(1U, g_dwSelDevCnt) << at;
            EXPECT_EQ(3U, Bmc().Count(kStorage, kReserve)) << at;
        });
    }
}

TEST_F(Repository, FourCancellationsEndTheReadWithWhatThereIs) {
    AddSensors(3);
    // What is read of the third sensor behind its first 16 bytes finds the reservation gone.
    server.OnCommand(kStorage, kGetSdr, [](const sim::Request& request, const auto& answer) {
        if (sim::Word(request.data, 2) == 3 && request.data[4] > 16)
            return sim::Response{sim::cc::kReservationCancelled, {}};
        return answer();
    });
    Run([this] {
        Tracing tracing;
        EXPECT_THAT(tracing.LinesOf([] { EXPECT_EQ(0U, KvPsInitializeIpmi()); }),
                    Contains("1000 1 1 The walk over the SDR repository is given up after 4 passes. (0x00000000)"));
        EXPECT_THAT(Names(), ElementsAre(std::pair(1, "Sens1"), std::pair(2, "Sens2")));
        EXPECT_EQ(1U + 4U, Bmc().Count(kStorage, kReserve));
    });
}

TEST_F(Repository, AFailedReservationSpendsAPass) {
    AddSensors(1);
    Run([this] {
        Bmc().Refuse(kStorage, kReserve, sim::cc::kInvalidCommand, 3);
        ASSERT_EQ(0U, KvPsInitializeIpmi());
        EXPECT_THAT(Names(), SizeIs(1));
        Bmc().Refuse(kStorage, kReserve, sim::cc::kInvalidCommand, 4);
        {
            IpmiBracket bracket;
            EXPECT_EQ(0x6037B2C1U, GetAllSdr(bracket));
        }
        FailToOpen();
        IpmiBracket closed;
        EXPECT_EQ(0x6040B104U, GetAllSdr(closed));
        EXPECT_EQ(0x6000B104U, GetDeviceInfo(closed));
    });
}

TEST_F(Repository, NoMoreCommandsThanNeeded) {
    Add(sim::ControllerLocator(0x20, 0x04, 7, 1, "BMC"));  // 19 bytes
    Add(sim::FruLocator(0x20, 0, 7, 1, "FRU"));            // 19 bytes
    Add(Full(1, "A full sensor").Encode());                // 61 bytes
    Add(Shared(2, "Compact", 4).EncodeCompact());          // 39 bytes
    Add(Shared(9, "Event", 1).EncodeEventOnly());          // 22 bytes
    Run([this] {
        Bmc().ResetCounts();
        EXPECT_EQ(0U, KvPsInitializeIpmi());
        EXPECT_THAT(Names(), SizeIs(6));
        constexpr size_t kDiscovery = 4 * 2 + 1;
        constexpr size_t kFullRead = (1 + 1) + (1 + 1) + (1 + 4) + (1 + 3) + (1 + 2);
        EXPECT_EQ(kDiscovery + kFullRead, Bmc().Count(kStorage, kGetSdr));
        EXPECT_EQ(2U, Bmc().Count(kStorage, kReserve));
        EXPECT_EQ(2U, Bmc().Count(sim::netfn::kSensorEvent, 0x2D)) << "one for each full and compact record";
        EXPECT_EQ(2U, server.Opens("/dev/ipmi0"));
    });
}

TEST_F(Repository, OthersAreLetInBetweenRecordsAndReadings) {
    AddSensors(60);
    Run([this] {
        /// Runs something with somebody else waiting from the first command of a kind on. @return how many were sent
        /// before it was the other one's turn
        const auto sentBefore = [this](uint8_t netFn, uint8_t command, const std::function<void()>& run) {
            std::thread other;
            std::atomic<size_t> served{0};
            Bmc().ResetCounts();
            server.OnCommand(netFn, command, [&](const sim::Request&, const auto& answer) {
                if (!other.joinable()) {
                    other = std::thread([&] {
                        const IpmiBracket bracket;
                        served = Bmc().Count(netFn, command);
                    });
                }
                if (served == 0) usleep(1000);  // until the other one stands in the queue
                return answer();
            });
            run();
            other.join();
            server.OnCommand(netFn, command, {});
            return served.load();
        };
        EXPECT_LT(sentBefore(kStorage, kGetSdr, [] { EXPECT_EQ(0U, KvPsInitializeIpmi()); }), 60U)
            << "while the controllers are looked for";
        EXPECT_THAT(Names(), SizeIs(60));
        unsigned long count = 0;
        SDR* records = nullptr;
        ASSERT_EQ(0U, KvPsGetAllSdrData(&count, &records));
        EXPECT_LT(sentBefore(sim::netfn::kSensorEvent, 0x2D,
                             [&] {
                                 std::vector<KVPS_SENSOR_DATA> data(count);
                                 std::vector<uint32_t> results(count);
                                 EXPECT_EQ(0U, KvPsGetSensorDataList(records, count, data.data(), results.data()));
                             }),
                  60U);
        free(records);
    });
}

// Each has its own copy of the one controller; what they share is who reserved the repository last, and the lock files.
TEST_F(Repository, TwelveProcessesThatStartTogetherFindEverything) {
    constexpr int kProcesses = 12;
    constexpr uint32_t kSensors = 40;
    Add(sim::ControllerLocator(0x20, 0x04, 7, 1, "BMC"));
    AddSensors(kSensors);
    struct Shared {
        std::atomic<pid_t> reservedBy{0};
        std::atomic<int> ready{0};
    };
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, memory);
    Shared& shared = *new (memory) Shared;
    server.OnCommand(kStorage, kReserve, [&](const sim::Request&, const auto& answer) {
        shared.reservedBy = getpid();
        return answer();
    });
    server.OnCommand(kStorage, kGetSdr, [&](const sim::Request&, const auto& answer) {
        usleep(300);
        return shared.reservedBy == getpid() ? answer() : sim::Response{sim::cc::kReservationCancelled, {}};
    });
    Run([&] {
        TerminateIpmiLib();
        std::vector<pid_t> children;
        for (int i = 0; i < kProcesses; ++i) {
            children.push_back(fork());
            if (children.back() != 0) continue;
            const bool initialised = InitIpmiLib();
            ++shared.ready;
            for (int waits = 0; shared.ready < kProcesses && waits < 100'000; ++waits)
                usleep(100);
            const uint32_t rc = KvPsInitializeIpmi();
            EXPECT_TRUE(initialised);
            EXPECT_EQ(0U, rc);
            EXPECT_EQ(kSensors, SdrInstanceCnt());
            EXPECT_EQ(1U, g_dwSelDevCnt);
            EXPECT_LE(Bmc().Count(kStorage, kReserve), 4U) << "each of the two walks is disturbed once at most";
            _exit(HasFailure() ? 1 : 0);
        }
        for (const pid_t child : children)
            EXPECT_EQ(0, WaitForExit(child));
    });
    munmap(memory, sizeof(Shared));
}

TEST_F(Repository, AProcessThatIsToldToEndStopsWalking) {
    AddSensors(3);
    const auto runWithSignalBlocked = [this](const std::function<void()>& body) {
        Run([&] {
            sigset_t signals;
            sigemptyset(&signals);
            sigaddset(&signals, SIGTERM);
            sigaddset(&signals, SIGINT);
            ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &signals, nullptr));
            body();
            sigset_t pending;
            sigpending(&pending);
            EXPECT_FALSE(sigisemptyset(&pending)) << "left for the host";
        });
    };
    runWithSignalBlocked([this] {
        kill(getpid(), SIGINT);
        EXPECT_EQ(0x6000B10DU, KvPsInitializeIpmi());
        EXPECT_EQ(0U, Bmc().Count(kStorage, kGetSdr));
    });
    Run([this] {
        SetTerminateProcess();
        EXPECT_EQ(0x6000B10DU, KvPsInitializeIpmi());
        EXPECT_EQ(0U, Bmc().Count(kStorage, kGetSdr));
    });
    runWithSignalBlocked([this] {
        server.OnCommand(sim::netfn::kSensorEvent, 0x2D, [](const sim::Request&, const auto& answer) {
            kill(getpid(), SIGTERM);
            return answer();
        });
        EXPECT_EQ(0x6040B10DU, KvPsInitializeIpmi());
        EXPECT_THAT(Names(), SizeIs(1));
    });
}

TEST_F(Repository, TheDumpIsWrittenWhereItsFileIs) {
    AddSensors(1);
    auto fans = Shared(0x41, "Fan", 2, 1);
    fans.entityId = 0x1D;
    fans.sensorType = 4;
    Add(fans.EncodeEventOnly());
    Bmc().Sensors()->At(1);
    ExpectNames({"Sens1", "Fan1", "Fan2"});
    EXPECT_FALSE(std::filesystem::exists(root.Outside(kDump)));

    root.AddFile(kDump, std::string(20000, '#'));
    ExpectNames({"Sens1", "Fan1", "Fan2"});
    const std::string dump = root.ReadFile(kDump);
    EXPECT_TRUE(dump.starts_with("\nSensorNo=0x01, RecType=0x01, EntityId=0x00, Status=ENABLE, Length: 53\n+00+01"));
    EXPECT_THAT(dump, HasSubstr("\nFullSDR(Sensor#:0x01, Type:0x00, Name:\"Sens1\")\n"));
    EXPECT_TRUE(
        dump.ends_with("\nSensorNo=0x41, RecType=0x03, EntityId=0x1d, Status=FRCENABLE, Length: 20\n"
                       "+00+01+02+03+04+05+06+07+08+09+0a+0b+0c+0d+0e+0f+10+11+12+13\n"
                       " 02 00 51 03 0f 20 00 41 1d 01 04 6f 02 01 00 00 c3 46 61 6e\n"
                       "  .  .  Q  .  .     .  A  .  .  .  o  .  .  .  .  .  F  a  n\n"
                       "EventOnlySDR(Sensor#:0x41, Type:0x04, Name:\"Fan1\")\n"
                       "EventOnlySDR(Sensor#:0x42, Type:0x04, Name:\"Fan2\")\n"))
        << dump;
    Bmc().Sensors()->At(1).flags = 0x80;
    ExpectNames({"Sens1", "Fan1", "Fan2"});
    EXPECT_THAT(root.ReadFile(kDump), HasSubstr("EntityId=0x00, Status=DISABLE, Length"));
}

}  // namespace
