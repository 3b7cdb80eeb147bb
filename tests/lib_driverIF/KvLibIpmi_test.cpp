// ipmi_ioctl from outside, the choice of the interface, and the start and end of the register path.

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <variant>
#include <vector>

#include "lib_driverIF/KvLibSmbios.h"
#include "libplatform/PXR_host.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/RegisterPath.h"

namespace {
uint16_t g_hostSpacing = 0;  // 0: the host has nothing to say
int g_updatesAsked = 0;
}  // namespace

extern "C" {
void GetIPMIRegSpace(uint16_t* spacing) {
    if (g_hostSpacing != 0) *spacing = g_hostSpacing;
}
int GetIPMIUpdate(void) {
    return ++g_updatesAsked;
}
}

namespace {

using sim::SmbiosIpmiDevice;

class IpmiIoctlTest : public RegisterPathTest {
public:
    ~IpmiIoctlTest() override {
        Terminate_IpmiIF();
        EXPECT_EQ(0U, server.OpenDescriptors() + server.OpenMaps() + server.RaisedThreads());
        Terminate_SmbiosIF();
        g_hostSpacing = 0;
        constexpr uint32_t kDefaults[] = {4000, 10, 3, 100, 3, 100, 1100};
        std::copy(std::begin(kDefaults), std::end(kDefaults), ipmi_param.begin());
    }
    void LoadTable(const auto& structure) {
        sim::SmbiosImage image;
        image.Add(structure);
        for (const auto& [address, bytes] : image.Blocks())
            server.AddMemory(address, bytes);
        ASSERT_EQ(0, Init_SmbiosIF());
    }
    /// Of the BMC.
    int Execute(uint32_t capacity = 64, const Bytes& request = {0x18, 0x01}) {
        called = Call(0x20, capacity, request);
        return called.result;
    }
    template <class T>
    static int Ioctl(uint32_t code, T* argument) {
        return ipmi_ioctl(code, reinterpret_cast<unsigned long>(argument));
    }

    Called called;
};

TEST_F(IpmiIoctlTest, NothingWorksBeforeTheStartAndAfterTheEnd) {
    const auto isDown = [this] {
        for (uint32_t code = 0; code <= 10; ++code)
            EXPECT_EQ(-1, Ioctl(code, this)) << code;
    };
    isDown();
    ASSERT_EQ(0, Init_IpmiIF());
    EXPECT_EQ(0, Init_IpmiIF()) << "a second time";
    Terminate_IpmiIF();
    isDown();
}

TEST_F(IpmiIoctlTest, ExecutesOnTheDefaultInterfaceWithinTheCallersRoom) {
    ASSERT_EQ(0, Init_IpmiIF());
    EXPECT_EQ(0U, server.PortReads(kKcsStatus)) << "no register is touched by the start";
    ASSERT_EQ(0, Execute(4));
    EXPECT_EQ(0, called.status);
    EXPECT_EQ(14U, called.length);
    EXPECT_EQ((Bytes{0x1C, 0x01, 0x00, 0x20, 0xEE}), Bytes(called.response.begin(), called.response.begin() + 5));
    EXPECT_EQ(-14, Execute(0)) << "the interface takes no response without room";
    EXPECT_EQ(1U, server.GetBmc().Count()) << "and the BMC is not asked for one";
    AnswerWith(0x01, kIpmiMaxMessage - 2);
    ASSERT_EQ(0, Execute(5000)) << "room beyond a message's length";
    EXPECT_EQ(kIpmiMaxMessage, called.length);
    EXPECT_EQ(0xEE, called.response[kIpmiMaxMessage]);
}

TEST_F(IpmiIoctlTest, ExecuteRefusesWhatCannotBe) {
    ASSERT_EQ(0, Init_IpmiIF());
    uint8_t bytes[2000] = {0x18, 0x01};
    for (KvIpmiExecBlock bad :
         {KvIpmiExecBlock{0, 0x20, 0, 2, 8, nullptr, bytes, 0}, {0, 0x20, 0, 2, 8, bytes, nullptr, 0}})
        EXPECT_EQ(-14, Ioctl(IPMI_EXECCMD, &bad));
    for (const uint8_t target : Bytes{0x20, 0x24})
        EXPECT_EQ(-14, Call(target, 64, {0x18}).result) << int{target};
    for (uint32_t code = 1; code <= 9; ++code)
        EXPECT_EQ(code == IPMI_TRACE ? 0 : -14, ipmi_ioctl(code, 0)) << code;
    for (const uint32_t code : {0U, 10U, 0xFFFFFFFFU})
        EXPECT_EQ(-22, Ioctl(code, bytes)) << code;
    KvIpmiExecBlock cut = {0, 0x20, 0, 0xFFFFFFFF, sizeof bytes, bytes, bytes, 0};  // to 1028 bytes
    EXPECT_EQ(0, Ioctl(IPMI_EXECCMD, &cut));
    EXPECT_EQ(kIpmiMaxMessage - 2, server.GetBmc().Log().back().data.size());
}

TEST_F(IpmiIoctlTest, ParametersAreBroughtWithinTheirBounds) {
    ASSERT_EQ(0, Init_IpmiIF());
    using Parameters = std::array<uint32_t, 7>;
    Parameters values = {};
    constexpr uint32_t kMax = 0xFFFFFFFF;
    for (const auto& [set, expected, interface] :
         {std::tuple{Parameters{5000, 20, 4, 200, 5, 300, 2000}, Parameters{5000, 20, 4, 200, 5, 300, 2000},
                     kIfTypeKcs},
          {{kMax, kMax, kMax, kMax, kMax, kMax, kMax}, {16000, 1000, 10, 1000, 10, 1000, 5000}, kIfTypeKcs},
          {{0, 0, 0, 0, 0, 0, 0}, {4000, 10, 1, 10, 1, 10, 100}, kIfTypeKcs},
          {{0, 0, 0, 0, 0, 0, 1}, {4000, 10, 1, 10, 1, 10, 100}, kIfTypeSmic}}) {
        EXPECT_EQ(0, Ioctl(IPMI_SETPARM, set.data()));
        EXPECT_EQ(0, Ioctl(IPMI_GETPARM, values.data()));
        EXPECT_EQ(expected, values);
        EXPECT_EQ(interface, IPMI_IFTYPE);
    }
    EXPECT_EQ(0x0CA9, IPMI_REG_DATA);
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(1U, server.Smic().Messages());
}

TEST_F(IpmiIoctlTest, WatchdogFlagsAreTwo) {
    ASSERT_EQ(0, Init_IpmiIF());
    uint8_t request5 = 5;
    uint8_t received9 = 9;
    EXPECT_EQ(0, Ioctl(SET_WDOG_STATUS, &request5));
    EXPECT_EQ(0, Ioctl(SET_RECEIVE_WDOG_REQ, &received9));
    uint8_t value = 0;
    EXPECT_EQ(0, Ioctl(GET_WDOG_STATUS, &value));
    EXPECT_EQ(5, value);
    EXPECT_EQ(0, Ioctl(GET_RECEIVE_WDOG_REQ, &value));
    EXPECT_EQ(9, value);
    ipmi_release_lock("WDOG RECEIVE");
    EXPECT_EQ(-14, Ioctl(GET_RECEIVE_WDOG_REQ, &value));
    EXPECT_EQ(-14, Ioctl(SET_RECEIVE_WDOG_REQ, &value));
    EXPECT_EQ(0, Ioctl(GET_WDOG_STATUS, &value));
}

TEST_F(IpmiIoctlTest, SetAddressMovesTheRegisters) {
    ASSERT_EQ(0, Init_IpmiIF());
    g_hostSpacing = 4;
    server.PlaceKcs({false, 0x0E00, 4});
    KvIpmiAddressBlock where = {KV_IPMI_ADDRESS_PORT, 0x0E00};
    EXPECT_EQ(0, Ioctl(IPMI_SETADDR, &where));
    EXPECT_EQ(0, Execute());

    where = {KV_IPMI_ADDRESS_MEMORY, 0xFE000000};
    EXPECT_EQ(0, Ioctl(IPMI_SETADDR, &where));
    server.PlaceKcs({true, 0xFE000E00, 4});
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(2U, server.Kcs().Messages());

    where = {7, 0x1234};
    EXPECT_EQ(0, Ioctl(IPMI_SETADDR, &where)) << "another kind changes nothing";
    EXPECT_EQ(0, Execute());
    for (const uint32_t bad : {0x10CA2, 0xFFFC}) {  // no 16-bit port, for it or the next register
        where = {KV_IPMI_ADDRESS_PORT, bad};
        EXPECT_EQ(-22, Ioctl(IPMI_SETADDR, &where));
    }
    EXPECT_EQ(0x0E00, IPMI_REG_BASE);
}

TEST_F(IpmiIoctlTest, ChoosesTheInterfaceByTheDeviceRecord) {
    sim::SmbiosStructure shortRecord(38, 0x2600, 15);
    shortRecord.Byte(4, 1);
    sim::SmbiosStructure noModifier(38, 0x2600, 16);
    noModifier.Byte(4, 2).Byte(6, 0x22).Qword(8, 0x0B01);

    struct Case {
        const char* what;
        std::variant<sim::SmbiosStructure, sim::SmbiosBios, SmbiosIpmiDevice> record;
        int result;
        uint8_t type = 0, slave = 0;
        uint16_t data = 0, status = 0, control = 0;
        uint32_t segment = 0;  ///< 1: I/O ports
        uint16_t hostSpacing = 0;
    };
    const Case cases[] = {
        {"none", sim::SmbiosBios{.vendor = "Example"}, 0, kIfTypeKcs, 0x20, 0xCA2, 0xCA3, 0xCA3, 1, 4},
        {"short", shortRecord, 0, kIfTypeSmic, 0x20, 0x0CA9, 0x0CAA, 0x0CAB, 1},
        {"short, host's spacing", shortRecord, 0, kIfTypeSmic, 0x20, 0x0CA9, 0x0CAD, 0x0CB1, 1, 4},
        {"no modifier", noModifier, 0, kIfTypeSmic, 0x22, 0x0B00, 0x0B10, 0x0B20, 1, 16},
        {"KCS", SmbiosIpmiDevice{.base = 0xCA3}, 0, kIfTypeKcs, 0x20, 0x0CA2, 0x0CA3, 0x0CA3, 1, 16},
        {"odd base", SmbiosIpmiDevice{.base = 0xCA3, .modifier = 0x10}, 0, kIfTypeKcs, 0x20, 0x0CA3, 0x0CA4, 0x0CA4, 1},
        {"SMIC 4", SmbiosIpmiDevice{2, 0x20, 0x22, 0, 0xCA9, 0x50}, 0, kIfTypeSmic, 0x22, 0x0CA9, 0x0CAD, 0x0CB1, 1},
        {"SSIF", SmbiosIpmiDevice{.interface = 4, .base = 0xCA3, .modifier = 0xC0}, 0, kIfTypeKcs, 0x20, 0xCA2, 0xCA3,
         0xCA3, 1},
        {"memory", SmbiosIpmiDevice{.base = 0xFED41CA2, .modifier = 0x80}, 0, kIfTypeKcs, 0x20, 0x1CA2, 0x1CB2, 0x1CB2,
         0xFED40000},
        {"above 4 GiB", SmbiosIpmiDevice{.base = 0x1'FED41CA2}, -5},
        {"past the segment", SmbiosIpmiDevice{.base = 0xFED4FFF0, .modifier = 0x80}, -5},
        {"BT", SmbiosIpmiDevice{.interface = 3}, -38},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        Terminate_IpmiIF();
        Terminate_SmbiosIF();
        std::visit([this](const auto& record) { LoadTable(record); }, each.record);
        g_hostSpacing = each.hostSpacing;
        g_updatesAsked = 0;
        EXPECT_EQ(each.result, Init_IpmiIF());
        EXPECT_EQ(1, g_updatesAsked);
        EXPECT_EQ(each.result == 0 ? 0 : -1, ipmi_ioctl(IPMI_TRACE, 0));
        if (each.result != 0) continue;
        EXPECT_EQ(each.type, IPMI_IFTYPE);
        EXPECT_EQ(each.type == kIfTypeKcs ? 2 : 3, IPMI_NREGS);
        EXPECT_EQ(each.slave, IPMI_SLAVE_ADDR);
        EXPECT_EQ(each.data, IPMI_REG_DATA);
        EXPECT_EQ(each.status, IPMI_REG_STATUS);
        EXPECT_EQ(each.control, IPMI_REG_CONTROL);
        EXPECT_EQ(each.segment == 1 ? &ipmi_ioreg_read : &ipmi_memoryreg_read, REG_READ);
        EXPECT_EQ(each.segment == 1 ? 0 : each.segment, g_pMMapSegmentAddress);
    }
}

TEST_F(IpmiIoctlTest, MemoryMappedRegistersOfTheDeviceRecord) {
    server.PlaceKcs({true, 0xFED41CA2, 4});
    LoadTable(SmbiosIpmiDevice{.base = 0xFED41CA2, .modifier = 0x40});
    ASSERT_EQ(0, Init_IpmiIF());
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(1U, server.Kcs().Messages());
    EXPECT_EQ(0U, server.PortReads(kKcsStatus));
    server.FailOpen("/dev/mem", EPERM, 2);
    EXPECT_EQ(0, ipmi_memoryreg_read(0x1CA6));
    EXPECT_EQ(-5, ipmi_memoryreg_write(0x1CA2, 0));
}

TEST_F(IpmiIoctlTest, BothWaysToAByteOfMemory) {
    server.AddMemory(0x90000, {0x11, 0x22});
    uint8_t value = 0;
    EXPECT_TRUE(ipmi_memory_read_by_seek(0x90001, &value));
    EXPECT_EQ(0x22, value);
    EXPECT_TRUE(ipmi_memory_read_by_map(0x90000, &value));
    EXPECT_EQ(0x11, value);
    EXPECT_TRUE(ipmi_memory_write_by_seek(0x90000, 0x33));
    EXPECT_TRUE(ipmi_memory_read_by_seek(0x90000, &value));
    EXPECT_EQ(0x33, value);
    EXPECT_FALSE(ipmi_memory_read_by_seek(0xF0000000, &value)) << "registers cannot be reached that way";
}

TEST_F(IpmiIoctlTest, MessageIsTriedAgainWithItsOwnRequestAndRoom) {
    ASSERT_EQ(0, Init_IpmiIF());
    server.Kcs().FailAtByte(8);  // five for the request, then in the response
    EXPECT_EQ(0, Execute(3, {0x18, 0x01, 0x5A}));
    EXPECT_EQ(2U, server.GetBmc().Count());
    EXPECT_EQ(Bytes{0x5A}, server.GetBmc().Log().back().data);
    EXPECT_EQ(14U, called.length);

    server.GetBmc().ResetCounts();
    server.OnPortRead(kKcsStatus, [](uint8_t good) {
        return (good & 0xC0) == 0x40 ? static_cast<uint8_t>(good | 0xC0) : good;  // READ shows as ERROR
    });
    EXPECT_EQ(-14, Execute());
    EXPECT_EQ(3U, server.GetBmc().Count()) << "attempts on KCS";

    server.OnPortRead(kKcsStatus, {});
    server.Kcs().SetNotAvailable(true);
    const unsigned reads = server.PortReads(kKcsStatus);
    EXPECT_EQ(-6, Execute());
    EXPECT_GE(reads + 3U, server.PortReads(kKcsStatus)) << "an error of the writing ends it";
}

TEST_F(IpmiIoctlTest, SmicMessageAttemptsAreAParameter) {
    ASSERT_EQ(0, Init_IpmiIF());
    KvIpmiParameterBlock parameters = {};
    Ioctl(IPMI_GETPARM, &parameters);
    parameters.smicMessageAttempts = 5;
    parameters.ipmbResponseTimeoutMs = 1;
    Ioctl(IPMI_SETPARM, &parameters);
    server.OnPortRead(kSmicControl, [](uint8_t good) { return good == 0xC4 ? uint8_t{0xC0} : good; });
    EXPECT_EQ(0, Execute());
    EXPECT_NE(0, called.status);
    EXPECT_EQ(64U, called.length) << "no response, no length";
    EXPECT_EQ(5U, server.GetBmc().Count());
}

TEST_F(IpmiIoctlTest, PendingResponseIsDiscardedFirst) {
    ASSERT_EQ(0, Init_IpmiIF());
    ASSERT_EQ(0, Write({0x18, 0x08}));  // answered by somebody who went away
    ASSERT_EQ(kKcsDone, KCSWaitStatusReg(0, 0x02, &status));
    ASSERT_EQ(1, ipmi_kcs_IsREAD_STATE());
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(0x01, called.response[1]);
    EXPECT_EQ(0U, server.PortWrites(kKcsStatus, 0x60));
}

/// Devices in real time, for their scope.
struct RealMachine {
    explicit RealMachine(IpmiIoctlTest& test) : back(test) {
        KvSetDeviceOps(server.Ops());
        SetTimerClock(nullptr);
    }
    ~RealMachine() {
        Terminate_IpmiIF();
        SetTimerClock(&back.clock);
        KvSetDeviceOps(back.server.Ops());
    }
    IpmiIoctlTest& back;  ///< to whose machine
    sim::SimulatedServer server;
};

TEST_F(IpmiIoctlTest, BridgedAnswerWakesTheRequester) {
    ASSERT_EQ(0, Init_IpmiIF());
    RealMachine real(*this);
    real.server.GetBmc().AddController(0x24).Delay(sim::netfn::kApp, 0x01, std::chrono::milliseconds(20));
    const uint64_t before = Clock().Now();
    EXPECT_EQ(0, Call(0x24).result);
    EXPECT_GT(900'000U, Clock().Now() - before) << "it is not the time limit that ended the wait";
}

TEST_F(IpmiIoctlTest, TurnsGoByArrival) {
    ASSERT_EQ(0, Init_IpmiIF());
    RealMachine real(*this);
    std::atomic<bool> stop = false;
    std::vector<std::jthread> busy(4);
    for (std::jthread& thread : busy)
        thread = std::jthread([&stop] {
            while (!stop)
                Call(0x20, 64, {0x18, 0x04});
        });
    std::vector<size_t> asked;  // after so many messages of the others
    while (asked.size() < 12) {
        asked.push_back(real.server.GetBmc().Count(sim::netfn::kApp, 0x04));
        EXPECT_EQ(0, Execute());
    }
    stop = true;
    busy.clear();
    size_t others = 0;
    size_t late = 0;
    for (auto ours = asked.begin(); const sim::Request& request : real.server.GetBmc().Log()) {
        if (request.command == 0x04)
            ++others;
        else if (others - *ours++ > 5)
            ++late;
    }
    EXPECT_GE(3U, late) << "of 12; a thread may be put aside before it asks";
}

TEST_F(IpmiIoctlTest, FailedStartLeavesNothingBehind) {
    EXPECT_EQ(-14, ipmi_create_lock("WDOG OTHER"));
    ASSERT_EQ(0, ipmi_create_lock("WDOG RECEIVE"));
    EXPECT_EQ(-14, Init_IpmiIF()) << "the name is taken";
    EXPECT_EQ(-1, ipmi_ioctl(IPMI_TRACE, 0));
    // No thread can be made.
    pthread_attr_t before, huge;
    pthread_getattr_default_np(&before);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, 0xF0000000);
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    EXPECT_EQ(-14, Init_IpmiIF());
    pthread_setattr_default_np(&before);
    EXPECT_EQ(0, Init_IpmiIF()) << "both locks were released";
}

/// @return how a process of its own ends that runs body
int RunInChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) exit(body());
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(IpmiIoctlTest, ChildProcessStartsAnew) {
    ASSERT_EQ(0, Init_IpmiIF());
    usleep(100'000);  // while the timer thread starts a sanitizer holds the loader's lock, which no child gets back
    EXPECT_EQ(0, RunInChild([this] {
                  const bool down = Execute() == -1;
                  Terminate_IpmiIF();
                  const bool up = Init_IpmiIF() == 0 && Execute() == 0;
                  Terminate_IpmiIF();
                  return down && up ? 0 : 1;
              }));
    EXPECT_EQ(0, Execute());
}

TEST_F(IpmiIoctlTest, AProcessEndsThoughItsThreadsWait) {
    EXPECT_EQ(0, RunInChild([] {
                  alarm(20);
                  if (Init_IpmiIF() != 0) return 1;
                  usleep(20'000);  // the timer thread has gone to sleep
                  return 0;
              }));
}

TEST_F(IpmiIoctlTest, CancelledCallerFinishesItsMessage) {
    ASSERT_EQ(0, Init_IpmiIF());
    FinishesWhenCancelled([this] { Execute(); });
    EXPECT_EQ(0x20, called.response[3]);
    EXPECT_EQ(0, Execute()) << "the turn was given back";
}

TEST_F(IpmiIoctlTest, LogTellsWhatWasDone) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/etc/opt/velmora/lantrel/trace.cfg", "[ServerAgent0330_TRACE]\n@Version=0330\nTraceLevel=30\n");
    RunInRoot(root, [&] {
        PXR_trace_init_ipmi_pxraaedit_log();
        ipmi_ioctl(IPMI_TRACE, 0);
        Init_IpmiIF();
        ipmi_ioctl(77, 0);
        Execute();
        server.DenyIoPrivilege(true);
        ipmi_ioreg_read(0xCA3);
        Terminate_IpmiIF();
        PXR_trace_term_ipmi_pxraaedit_log();
    });
    std::string log = root.ReadFile("/var/opt/velmora/lantrel/log/@ipmi_pxraaedit@.log");
    size_t at = 0;
    for (const char* line : {"ioctl:IPMI library not initialized\n", "[IN ]Init_IpmiIF\n", "[OUT]Init_IpmiIF()=0\n",
                             "ioctl:unknown(77)\n", "ioctl:call IPMI_EXECCMD\n", "[IN ]ipmi_message\n",
                             "IPMI request:size=2\n", "I: R=0CA3 D=00\n", "O: R=0CA3 D=61\n", "IPMI response:size=14\n",
                             "[OUT]ipmi_message()=0\n", "Error occured.(-5) ipmi_ioreg_read("}) {
        at = std::min(log.find(line, at), log.size());
        EXPECT_LT(at, log.size()) << line;
    }
}

}  // namespace
