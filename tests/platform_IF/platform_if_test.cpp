#include "libplatform/platform_if.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <numeric>
#include <sstream>
#include <tuple>

#include "kvdatafactory/Alert/KvAfHooks.h"
#include "libplatform/KvDeviceOps.h"
#include "libplatform/KvPsDevice.h"
#include "libplatform/KvPsSmbios.h"
#include "libplatform/PXR_syscall.h"
#include "platform_IF/src/platform_if.h"
#include "platform_IF/src/watch_config.h"
#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"
#include "tests/support/BuildTree.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Tracing.h"

// Memory runs out when a test says so: the linker sends the calls here (--wrap).
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real__Znwj(size_t size);

namespace {

int g_allocationsLeft = -1;  // negative: no limit

bool MayAllocate() {
    if (g_allocationsLeft > 0) --g_allocationsLeft;
    return g_allocationsLeft != 0;
}

}  // namespace

extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return MayAllocate() ? __real_calloc(count, size) : nullptr;
}

extern "C" void* __wrap__Znwj(size_t size) {
    if (!MayAllocate()) throw std::bad_alloc();
    return __real__Znwj(size);
}

namespace {

using Enum = std::unique_ptr<_KVCIM_ENUM, decltype(&FreeEnum)>;

Enum MakeEnum(uint32_t classId) {
    _KVCIM_ENUM* e = nullptr;
    CreateEnum(classId, &e);
    return {e, FreeEnum};
}

uint32_t Exec(_KVCIM_ENUM* e, int mode) {
    return static_cast<uint32_t>(PXR_ExecCommand(e, nullptr, mode));
}

_KVCIM_CLASS* AddInstance(_KVCIM_ENUM& e) {
    _KVCIM_CLASS* instance = nullptr;
    CreateClass(static_cast<int>(e.classId), &instance);
    InsertClass(&e, instance);
    return instance;
}

std::string TextOf(_KVCIM_CLASS* instance, int code) {
    const _KVCIM_PROP* property = SearchProperty(instance, code);
    return property != nullptr && property->value != nullptr ? static_cast<const char*>(property->value) : "(none)";
}

TEST(EntryPoints, TheCommandListIsInTheGivenOrder) {
    _PXR_COMMAND_LIST* list = nullptr;
    ASSERT_EQ(0, PXR_GetCommandList(&list));
    std::vector<uint32_t> ids;
    for (const _PXR_COMMAND_LIST* node = list; node != nullptr; node = node->next)
        ids.push_back(node->classId);
    FreeCommandList(list);
    std::vector<uint32_t> expected(32);
    std::iota(expected.begin(), expected.end(), 0u);
    expected.insert(expected.end(), {39, 42, 45, 49, 52, 58, 60, 59});
    EXPECT_EQ(expected, ids);
}

TEST(EntryPoints, ModeAndClassMustMatch) {
    using Case = std::tuple<uint32_t, int, uint32_t>;
    for (const auto& [classId, mode, result] :
         {Case{KTX_CLS_POWER_CTRL, 1, 0x60024202}, Case{KTX_CLS_PROCESSOR, 2, 0x60024202},
          Case{KTX_CLS_PROVIDER, 0, 0x60024202}, Case{KTX_CLS_PROVIDER, 3, 0x60024202}, Case{KTX_CLS_EISA_SLOT, 1, 0},
          Case{4711, 1, 0}, Case{4711, 2, 0x60024202}}) {
        const Enum e = MakeEnum(classId);
        EXPECT_EQ(result, Exec(e.get(), mode)) << classId << " mode " << mode;
        EXPECT_EQ(0u, e->classCount) << classId << " mode " << mode;
    }
    EXPECT_EQ(0x60024201u, Exec(nullptr, 1));
}

TEST(EntryPoints, TheProviderIsAppendedToWhatTheHostBrought) {
    const Enum e = MakeEnum(KTX_CLS_PROVIDER);
    AddInstance(*e);
    ASSERT_EQ(0u, Exec(e.get(), KV_MODE_QUERY));
    ASSERT_EQ(2u, e->classCount);
    EXPECT_EQ("(none)", TextOf(e->first, KTX_PROP_VERSION));
    EXPECT_EQ("04-08-00", TextOf(e->last, KTX_PROP_VERSION));
}

TEST(EntryPoints, PowerControlChecksItsCommand) {
    EXPECT_EQ(0x60234201u, ExecuteCommand(nullptr));
    const Enum e = MakeEnum(KTX_CLS_POWER_CTRL);
    EXPECT_EQ(0x60234201u, Exec(e.get(), KV_MODE_ACTION)) << "no instance";
    _KVCIM_CLASS* command = AddInstance(*e);
    EXPECT_EQ(0x60234201u, Exec(e.get(), KV_MODE_ACTION)) << "no value";
    SetPropertyUint32(command, KTX_PROP_COMMAND_ID, 5);
    EXPECT_EQ(0x60234202u, Exec(e.get(), KV_MODE_ACTION));
    EXPECT_EQ(1u, e->classCount) << "the host's enumeration is left alone";
    const Enum other = MakeEnum(KTX_CLS_PROVIDER);
    AddInstance(*other);
    EXPECT_EQ(0x60234201u, ExecuteCommand(other.get())) << "an instance without the property";
}

TEST(SendMessage, FillsTheIntervalTable) {
    using Rows = std::vector<std::pair<uint32_t, uint32_t>>;
    const auto rows = [](const void* table) {
        Rows result;
        for (const auto* row = static_cast<const KvAlertInterval*>(table);; ++row) {
            result.emplace_back(row->kind, row->milliseconds);
            if (row->kind == 0) return result;
        }
    };
    PXR_memory_watch memory{};
    PXR_strage_watch fileSystems{};
    PXR_cpu_watch cpu{};
    PXR_syslog_watch syslog{};
    cpu.enabled = 1;
    cpu.interval = 30;
    KvWatchConfiguration watches{nullptr, nullptr, &cpu, nullptr};
    void* table = nullptr;
    ASSERT_EQ(0, SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, &watches, &table));
    EXPECT_EQ(PXR_GetAlertIntervalLevel(), table);
    EXPECT_EQ((Rows{{1, 10000}, {4, 30000}, {5, 0}, {6, 0}, {8, 0}, {0, 0}}), rows(table));

    cpu.enabled = 2;  // only 1 is on
    memory.enabled = fileSystems.enabled = syslog.enabled = 1;
    memory.interval = 60;
    fileSystems.interval = 4294967;  // the last one whose milliseconds fit
    syslog.interval = 4294968;
    watches = {&memory, &fileSystems, &cpu, &syslog};
    ASSERT_EQ(0, SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, &watches, nullptr)) << "the output pointer may be absent";
    const Rows expected{{1, 10000}, {4, 0}, {5, 4294967000}, {6, 60000}, {8, UINT_MAX}, {0, 0}};
    EXPECT_EQ(expected, rows(table));

    void* untouched = &cpu;
    EXPECT_EQ(0x60014202, SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, nullptr, &untouched));
    EXPECT_EQ(0, SendMessage(7, &watches, &untouched));
    EXPECT_EQ(&cpu, untouched);
    EXPECT_EQ(expected, rows(table));
}

TEST(SendMessage, KeepsItsOwnCopyOfTheWatches) {
    auto entry = std::make_unique<PXR_fs_watch>();
    std::string name = "/var";
    entry->name = name.data();
    entry->number = 90;
    PXR_fs_watch unnamed{};
    entry->next = &unnamed;
    PXR_strage_watch fileSystems{};
    fileSystems.enabled = 1;
    fileSystems.list = entry.get();
    PXR_memory_watch memory{1, 10, 3, 80};
    PXR_syslog_watch syslog{};
    syslog.interval = 77;
    KvWatchConfiguration watches{&memory, &fileSystems, nullptr, &syslog};
    TakeCpuAlertConfig();
    ASSERT_EQ(0, SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, &watches, nullptr));
    entry.reset();
    name = "gone";
    memory = {};
    syslog = {};

    const CurrentWatch<FileSystemWatch> kept = TakeFSAlertConfig();
    ASSERT_EQ(2u, kept.watch.fileSystems.size());
    EXPECT_EQ("/var", kept.watch.fileSystems[0].name);
    EXPECT_EQ(90u, kept.watch.fileSystems[0].number);
    EXPECT_EQ("", kept.watch.fileSystems[1].name);
    EXPECT_EQ(nullptr, kept.watch.words.list) << "the host's records are gone";
    EXPECT_TRUE(kept.refresh);
    EXPECT_EQ(80u, TakeMemAlertConfig().watch.threshold);
    EXPECT_EQ(77u, GetSyslogDogAlertConfig().interval);
    const CurrentWatch<PXR_cpu_watch> off = TakeCpuAlertConfig();
    EXPECT_EQ(0u, off.watch.enabled);
    EXPECT_TRUE(off.refresh) << "switched off is news too";
}

TEST(SendMessage, NewSettingsAreNewsOnceToEachWatcher) {
    PXR_memory_watch memory{1, 10, 3, 80};
    SetMemAlertConfig(&memory);
    SetFSAlertConfig(nullptr);
    SetCpuAlertConfig(nullptr);
    EXPECT_TRUE(TakeMemAlertConfig().refresh && TakeFSAlertConfig().refresh && TakeCpuAlertConfig().refresh);
    EXPECT_FALSE(TakeMemAlertConfig().refresh || TakeFSAlertConfig().refresh || TakeCpuAlertConfig().refresh);
    EXPECT_EQ(1u, TakeMemAlertConfig().watch.enabled) << "the settings stay";

    PXR_fs_watch entry{};
    PXR_strage_watch fileSystems{};
    fileSystems.list = &entry;
    memory.enabled = 0;
    KvWatchConfiguration watches{&memory, &fileSystems, nullptr, nullptr};
    g_allocationsLeft = 1;  // none
    EXPECT_EQ(0x60011202, SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, &watches, nullptr));
    g_allocationsLeft = -1;
    EXPECT_EQ(1u, TakeMemAlertConfig().watch.enabled) << "nothing is changed";
    EXPECT_FALSE(TakeFSAlertConfig().refresh);
}

TEST(SendMessage, TakesTheTwoCallbacks) {
    const WatchdogWriter writer = [](uint32_t) {};
    const WatchdogCleaner cleaner = [] {};
    EXPECT_EQ(0, SendMessage(KV_MESSAGE_WATCHDOG_WRITER, reinterpret_cast<void*>(writer), nullptr));
    EXPECT_EQ(0, SendMessage(KV_MESSAGE_WATCHDOG_CLEANER, reinterpret_cast<void*>(cleaner), nullptr));
    EXPECT_EQ(writer, pPXR_Write_ProcessAtErrorExecWDTTime.load());
    EXPECT_EQ(cleaner, pPXR_Delete_ProcessAtErrorExecInfo.load());
    EXPECT_EQ(0, SendMessage(KV_MESSAGE_WATCHDOG_WRITER, nullptr, nullptr));
    EXPECT_EQ(nullptr, pPXR_Write_ProcessAtErrorExecWDTTime.load());
}

/// The values of each instance in template order: texts as they are, numbers in hexadecimal.
std::vector<std::string> InstancesOf(uint32_t classId) {
    const Enum e = MakeEnum(classId);
    EXPECT_EQ(0u, Exec(e.get(), KV_MODE_QUERY));
    std::vector<std::string> instances;
    for (_KVCIM_CLASS* instance = e->first; instance != nullptr; instance = instance->next) {
        std::ostringstream values;
        values << std::hex;
        for (const _KVCIM_PROP* p = instance->first; p != nullptr; p = p->next) {
            if (p->type == PROP_TYPE_STRING) values << TextOf(instance, static_cast<int>(p->code));
            if (p->type == PROP_TYPE_UINT32) values << *static_cast<const uint32_t*>(p->value);
            if (p->type == PROP_TYPE_UINT64) values << *static_cast<const uint64_t*>(p->value);
            values << '|';
        }
        instances.push_back(values.str());
    }
    return instances;
}

TEST(SystemResources, BecomeInstancesInTheKernelsOrder) {
    MachineRoot root = MakeTestRoot();
    root.ReplaceProc("/proc/ioports", "0000-0cf7 : PCI Bus 0000:00\n  0020-0021 : pic1\nfffffff0-ffffffff : high\n");
    root.ReplaceProc("/proc/interrupts", "           CPU0\n  0:  123  IO-APIC-edge  timer\nNMI:  0  Non-maskable\n");
    root.ReplaceProc("/proc/dma", " 2: floppy\n 4: cascade\n");
    RunInRoot(root, [] {
        EXPECT_THAT(InstancesOf(KTX_CLS_PORT_RES),
                    testing::ElementsAre("0|cf7|1| PCI Bus 0000:00|4|I/O|", "20|21|2| pic1|4|I/O|",
                                         "fffffffffffffff0|ffffffffffffffff|3| high|4|I/O|"));
        EXPECT_THAT(InstancesOf(KTX_CLS_IRQ), testing::ElementsAre("0|1|timer|5|IRQ|"));
        EXPECT_THAT(InstancesOf(KTX_CLS_DMA), testing::ElementsAre("2|1| floppy|6|DMA|", "4|2| cascade|6|DMA|"));

        for (const auto& [classId, all] :
             {std::pair{KTX_CLS_PROVIDER, 1u}, {KTX_CLS_PORT_RES, 3u}, {KTX_CLS_IRQ, 1u}, {KTX_CLS_DMA, 2u}}) {
            uint32_t made = 0;
            for (int allowed = 1; made == 0 && allowed < 100; ++allowed) {
                const Enum e = MakeEnum(classId);
                AddInstance(*e);
                g_allocationsLeft = allowed;
                EXPECT_EQ(0u, Exec(e.get(), KV_MODE_QUERY)) << "a failure shows by the empty enumeration alone";
                g_allocationsLeft = -1;
                made = e->classCount;
                EXPECT_TRUE(made == 0 || made == 1 + all) << classId << ": " << made << " after " << allowed;
            }
            EXPECT_EQ(1 + all, made);
        }
    });
}

const std::string kRackServer = InSourceTree("/simulator/scenarios/rack-server.json");

/// Runs body in a machine root, on the server of the scenario there; nothing waits for real.
void RunOnServer(const MachineRoot& root, const std::function<void()>& body) {
    RunInRoot(root, [&] {
        sim::ScopedVirtualClock clock;
        sim::SimulatedServer server(clock);
        sim::LoadScenario(server, "/scenario.json");
        KvSetDeviceOps(server.Ops());
        body();
        KvSetDeviceOps(nullptr);
    });
}

TEST(InitLib, LoadsTheWordsAndCanStartAgain) {
    const MachineRoot root = MakeTestRoot();
    root.AddSystemFile(kRackServer, "/scenario.json");
    using Case = std::tuple<const char*, const char*, const char*>;
    for (const auto& [language, unknown, normal] :
         {Case{"C", "Unknown", "Normal"}, {"ja_JP.SJIS", "\x95\x73\x96\xBE", "\x90\xB3\x8F\xED"}}) {
        RunOnServer(root, [=] {
            setenv("LANG", language, 1);
            for (int round = 0; round < 2; ++round) {
                ASSERT_EQ(0, InitLib());
                ASSERT_EQ(0, InitLib()) << "the words of the first start are freed";
                EXPECT_STREQ(unknown, g_pszUnknown);
                EXPECT_STREQ(normal, g_pszNormal);
                KVPS_DEVICE_ID id{};
                EXPECT_EQ(0u, KvPsGetDeviceId(&id)) << "the BMC can be asked";
                EXPECT_EQ(0, TerminateLib());
                EXPECT_EQ(nullptr, g_pszUnknown);
                EXPECT_NE(0u, KvPsGetDeviceId(&id));
                EXPECT_EQ(0, TerminateLib());
            }
        });
    }
}

TEST(EntryPoints, TraceEntryAndExit) {
    const MachineRoot root = MakeTestRoot();
    root.AddSystemFile(kRackServer, "/scenario.json");
    RunOnServer(root, [] {
        Tracing tracing;
        std::vector<std::string> lines = tracing.LinesOf([] {
            InitLib();
            _PXR_COMMAND_LIST* list = nullptr;
            PXR_GetCommandList(&list);
            FreeCommandList(list);
            SendMessage(KV_MESSAGE_WATCH_CONFIGURATION, nullptr, nullptr);
            Exec(nullptr, KV_MODE_QUERY);
            Exec(MakeEnum(KTX_CLS_EISA_SLOT).get(), KV_MODE_ACTION);
            Exec(MakeEnum(KTX_CLS_ALERT_RECORD).get(), KV_MODE_QUERY);
            TerminateLib();
        });
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("2000 "); });
        const std::string slot = "2000 20 0 Enum: namespace=(none) class=25(KTX_CLS_EISA_SLOT) classcount=0\n";
        const std::string alert = "2000 30 0 Enum: namespace=(none) class=45(KTX_CLS_ALERT_RECORD) classcount=0\n";
        EXPECT_THAT(lines,
                    testing::ElementsAre(
                        "2000 5 1 [IN ]InitLib(libplatform)() (00000000)", "2000 1 1 libplatform initialized.\n",
                        "2000 5 1 [OUT]InitLib(libplatform)() (00000000) =00000000",
                        "2000 5 1 [IN ]PXR_GetCommandList(libplatform)() (00000000)",
                        "2000 5 1 [OUT]PXR_GetCommandList(libplatform)() (00000000) =00000000",
                        "2000 5 1 [IN ]SendMessage(libplatform)() (00010000)",
                        "2000 5 1 [OUT]SendMessage(libplatform)() (00010000) =60014202",
                        "2000 5 1 [OUT]PXR_ExecCommand(libplatform)() (00020000) =60024201",
                        "2000 5 1 [IN ]PXR_ExecCommand(libplatform)() (00020000) Class=KTX_CLS_EISA_SLOT", slot,
                        "2000 5 1 [OUT]PXR_ExecCommand(libplatform)() (00020000) =60024202", slot,
                        "2000 30 1 [IN ]PXR_ExecCommand(libplatform)() (00020000) Class=KTX_CLS_ALERT_RECORD", alert,
                        "2000 30 1 [OUT]PXR_ExecCommand(libplatform)() (00020000) =00000000", alert,
                        "2000 5 1 [IN ]TerminateLib(libplatform)() (00000000)", "2000 1 1 libplatform terminated.\n",
                        "2000 5 1 [OUT]TerminateLib(libplatform)() (00000000) =00000000"));
    });
}

TEST(InitLib, GoesOnWithoutCatalogues) {
    const MachineRoot bare(".");
    bare.AddSystemFile(kRackServer, "/scenario.json");
    RunOnServer(bare, [] {
        EXPECT_EQ(0, InitLib());
        EXPECT_EQ(nullptr, g_pszUnknown);
        EXPECT_EQ(0, TerminateLib());
    });
}

TEST(InitLib, ServesWhatCouldBeStarted) {
    const std::string noKernelDevice =
        R"(, "faults": [{"kind": "openError", "device": "/dev/ipmi0", "errno": 19, "times": 99}])";
    const std::string bt = R"("smbios": {"ipmiDevice": {"interface": 3, "slaveAddress": 0}})";
    struct Case {
        std::string machine;
        uint32_t result;
        bool firmware, bmc;
        uint32_t interface = KVPS_INTERFACE_NONE;
    };
    for (const Case& each : {Case{R"("description": "no firmware")", 0x6000B700, false, false},
                             {R"("smbios": {"ipmiDevice": {"slaveAddress": 0}})", 0, true, true, KVPS_INTERFACE_KCS},
                             {R"("smbios": {"ipmiDevice": {}})" + noKernelDevice, 0, true, false, KVPS_INTERFACE_KCS},
                             {bt, 0, true, true, KVPS_INTERFACE_NONE},
                             {bt + noKernelDevice, 0x6000B400, true, false}}) {
        SCOPED_TRACE(each.machine);
        const MachineRoot root = MakeTestRoot();
        root.AddFile("/scenario.json", '{' + each.machine + '}');
        RunOnServer(root, [&each] {
            umount2("/sys", MNT_DETACH);  // the kernel has its own copy of the firmware's table
            EXPECT_EQ(each.result, static_cast<uint32_t>(InitLib()));
            EXPECT_STREQ("Unknown", g_pszUnknown);
            unsigned long count = 0;
            KVPS_SMBIOS_TPHEAD** array = nullptr;
            EXPECT_EQ(0u, KvPsGetTypeData(38, &count, &array));
            delete[] array;
            EXPECT_EQ(each.firmware ? 1u : 0u, count);
            KVPS_DEVICE_ID id{};
            EXPECT_EQ(each.bmc, KvPsGetDeviceId(&id) == 0);
            KVPS_IPMI_INTERFACE interface { 99, 0, 99, 99, 99 };
            EXPECT_EQ(each.bmc || each.interface != 0, KvPsGetIpmiInterface(&interface) == 0);
            if (each.bmc) {
                EXPECT_EQ(each.interface, interface.type);
                EXPECT_EQ(0x20u, interface.slaveAddress);
                EXPECT_EQ(each.interface != 0 ? 0xCA2u : 0, interface.dataRegister);
            }
            EXPECT_EQ(0, TerminateLib());
        });
    }
}

KvDeviceOps g_failing;
unsigned g_opensLeft = 0;

TEST(InitLib, GoesOnWithoutSomeOfTheStructures) {
    const MachineRoot root = MakeTestRoot();
    root.AddFile("/scenario.json", R"({"smbios": {"system": {"product": "Tessark Blade"}}, "bmc": {"sdr": [
        {"kind": "controllerLocator", "address": "0x20", "capabilities": "0xBF", "name": "BMC"}]}})");
    RunInRoot(root, [] {
        sim::ScopedVirtualClock clock;
        sim::SimulatedServer server(clock);
        sim::LoadScenario(server, "/scenario.json");
        g_failing = *server.Ops();
        g_failing.open = [](void* context, const char* path, int flags) {
            const bool memory = std::strcmp(path, "/dev/mem") == 0;
            if (memory && g_opensLeft == 0) return -1;
            if (memory) --g_opensLeft;
            return static_cast<sim::SimulatedServer*>(context)->Ops()->open(context, path, flags);
        };
        g_opensLeft = 3;  // entry point, table, the structure of type 1; none for type 127
        KvSetDeviceOps(&g_failing);
        EXPECT_EQ(0, InitLib());
        KVPS_DEVICE_ID id{};
        EXPECT_EQ(0u, KvPsGetDeviceId(&id));
        EXPECT_LT(0u, server.GetBmc().Count(sim::netfn::kStorage, 0x10)) << "a blade's adapters are in its FRU";
        TerminateLib();
        g_opensLeft = 99;
        SetTerminateProcess();
        EXPECT_EQ(0x6000B10Du, static_cast<uint32_t>(InitLib()));
        KvSetDeviceOps(nullptr);
    });
}

}  // namespace
