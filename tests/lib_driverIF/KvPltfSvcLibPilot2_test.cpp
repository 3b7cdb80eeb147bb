#include "lib_driverIF/KvPltfSvcLibPilot2.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <tuple>

#include "lib_driverIF/KvPltfSvcLibPilot2_Internal.h"
#include "libplatform/KvPsBmc.h"
#include "tests/support/FullDisk.h"
#include "tests/support/PowerCut.h"
#include "tests/support/SimulatedMachine.h"

namespace {

int g_bmcFunctionError = 0;
uint32_t g_bmcFirstFunction = 1;

}  // namespace

// The host's settings.
extern "C" int nGetBMCFunc_cfgData(uint32_t values[7]) {
    for (int i = 0; i < 7; ++i)
        values[i] = 0;
    values[0] = g_bmcFirstFunction;
    return g_bmcFunctionError;
}
extern "C" int GetSVPConfigType() {
    return 1;
}

namespace {

using sim::Bytes;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kCapabilityFile = "/var/opt/velmora/lantrel/log/BMCCapabilityA.bin";
constexpr const char* kCurrentList = "/var/opt/velmora/lantrel/dat/HWCheckList.dat";
constexpr const char* kRememberedList = "/var/opt/velmora/lantrel/dat/HWList.dat";
constexpr uint8_t kOem = sim::netfn::kOem;

std::vector<std::string> g_log;

__attribute__((format(printf, 4, 5))) void Log(int /*level*/, const char* /*source*/, int /*line*/, const char* format,
                                               ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_log.emplace_back(text);
}

Bytes Capability(const std::string& type) {
    Bytes record(kBmcCapabilitySize);
    record[0] = 0x81;
    std::copy(type.begin(), type.end(), record.begin() + 1);
    record[51] = 0x5A;
    return record;
}

class LibPilot2 : public SimulatedMachine {
protected:
    LibPilot2() {
        SetProduct("Varistel B400");
        g_log.clear();
        SetLogFunction(Log);
    }
    static std::optional<uint32_t> Family() {
        uint32_t family = 9;
        const bool known = IsVaristel(&family);
        EXPECT_EQ(known, family != 9);
        return known ? std::optional(family) : std::nullopt;
    }
    /// The record that is kept; none: empty.
    static Bytes Kept() {
        Bytes record(kBmcCapabilitySize);
        return GetBMCCapability(record.data()) ? record : Bytes{};
    }
    void BecomeCode2Blade(const std::string& type) {
        SetSmbiosCode("002");
        Bmc().Oem()->capability = Capability(type);
    }
};

// Machine

TEST_F(LibPilot2, TheProductNameTellsTheFamily) {
    const std::map<std::string, uint32_t> families = {
        {"Varistel B400", kFamilyBlade}, {"A Tessark Blade 7", kFamilyBlade}, {"Tessark R2", kFamilyRack}};
    for (const auto& [product, expected] : families) {
        SetProduct(product);
        Run([expected = expected] {
            EXPECT_EQ(expected, Family());
            KvPsTerminateSmbios();
            EXPECT_EQ(expected, Family()) << "known for good";
        });
    }
}

TEST_F(LibPilot2, TheFamilyMakesSureThatSmbiosWasRead) {
    Run([] {
        KvPsTerminateSmbios();
        ASSERT_TRUE(ktx_smbios::InitSmbiosLib());  // found, but not copied
        EXPECT_EQ(kFamilyBlade, Family());
    });
    smbios = {};
    smbios.Add(sim::SmbiosBios{.vendor = "Example"});
    Run([] {
        EXPECT_EQ(std::nullopt, Family());
        EXPECT_THAT(g_log, Contains("[LibPilot2] KvPsGetSystemInformation return 0x60d0b802."));
    });
}

TEST_F(LibPilot2, TheSecondLineOfTheConfigurationNamesTheCode) {
    using Case = std::tuple<std::optional<std::string>, int>;
    for (const auto& [file, code] :
         {Case{std::nullopt, 0}, Case{"", 0}, Case{"SMBIOSCode = 002\n", 0},  // the first line does not count
          Case{"x\nSMBIOSCode = 002\n", 2}, Case{"x\r\nSMBIOSCode = 003-B\r\n", 3}, Case{"x\nSMBIOSCode = 00", 1},
          Case{"x\nsmbioscode = 002\n", 1}, Case{"x\n\nSMBIOSCode = 002\n", 1}}) {
        if (file) root.AddFile(kSmbiosCodeFile, *file);
        Run([code = code, &file = file] {
            EXPECT_EQ(code, CheckSMBIOSCode()) << file.value_or("(none)");
            if (code < 2) return;
            EXPECT_EQ(0, unlink(kSmbiosCodeFile));
            EXPECT_EQ(code, CheckSMBIOSCode()) << "matched once, it stays";
        });
    }
}

// Capability

TEST_F(LibPilot2, TheRecordOfABladeIsKeptInMemoryAndInItsFile) {
    BecomeCode2Blade("SH7757    ");
    const Bytes record = Capability("SH7757    ");
    Run([&] {
        EXPECT_TRUE(InitBMCCapability());
        EXPECT_EQ(kBmcTypeSh, CheckBMCType());
        EXPECT_EQ(1U, Bmc().Count(kOem, 0x2A));
        EXPECT_THAT(g_log, Contains("[LibPilot2] BMC Capability Code : [ 00 00 00 5A ]"));
        EXPECT_EQ(0, unlink(kCapabilityFile));
        EXPECT_EQ(record, Kept());
        EXPECT_TRUE(InitBMCCapability()) << "already kept: the file is not written again";
        Bytes read(kBmcCapabilitySize);
        EXPECT_FALSE(ReadBMCCapabilityBin(read.data()));
        EXPECT_EQ(std::string("[LibPilot2] FileOpen(rb) Error.(") + kCapabilityFile + ")", g_log.back());
    });
    Run([&] { EXPECT_TRUE(InitBMCCapability()); });
    EXPECT_EQ(std::string(record.begin(), record.end()), root.ReadFile(kCapabilityFile));
    Run([&] {
        EXPECT_EQ(record, Kept()) << "from the file";
        EXPECT_EQ(0U, Bmc().Count());
    });
    SetSmbiosCode("");
    Run([&] {
        EXPECT_EQ(record, Kept());
        Bytes kept(kBmcCapabilitySize);
        EXPECT_EQ(0U, ktx_ipmi::GetBMCStatus(1, 0x20, kept.data())) << "without the command, from what is kept";
        EXPECT_EQ(record, kept);
    });
}

TEST_F(LibPilot2, APowerCutLeavesTheOldRecordOrTheNewOne) {
    constexpr unsigned kRecords = 60;
    BecomeCode2Blade("SH7757    ");
    Run([&] {
        std::vector<std::string> records(kRecords);
        const Bytes asked = Capability("SH7757    ");
        for (unsigned i = 0; i < kRecords; ++i) {
            records[i].assign(asked.begin(), asked.end());
            records[i][20] = static_cast<char>(i);
        }
        PowerCut cut("/var/opt/velmora/lantrel/log");
        cut.Record([] { EXPECT_TRUE(InitBMCCapability()); });
        for (unsigned i = 1; i < kRecords; ++i)
            cut.Record([&] { EXPECT_TRUE(WriteWholeFile(kCapabilityFile, records[i])); });
        EXPECT_THAT(cut.Faults(), IsEmpty());
        const size_t states = cut.TryAll([&](const PowerCut::Moment& moment) {
            std::string read(kBmcCapabilitySize, '\0');
            const bool there = ReadBMCCapabilityBin(reinterpret_cast<uint8_t*>(read.data()));
            EXPECT_TRUE(there || moment.returned == 0);
            if (!there) return;
            const bool old = moment.returned > 0 && read == records[moment.returned - 1];
            EXPECT_TRUE(old || read == records.at(moment.returned));
        });
        std::cout << states << " states\n";
        EXPECT_GE(states, 500U);
    });
}

TEST_F(LibPilot2, ATornFileIsNoRecord) {
    for (const size_t size : {0U, 51U, 53U}) {
        root.AddFile(kCapabilityFile, std::string(size, 'x'));
        Run([] {
            EXPECT_EQ(Bytes{}, Kept());
            EXPECT_EQ(std::string("[LibPilot2] FileRead Error.(") + kCapabilityFile + ")", g_log.back());
        });
    }
}

TEST_F(LibPilot2, OnlyBladesWithCode2AreAskedForTheRecord) {
    Bmc().Oem()->capability = Capability("PILOT_2   ");
    SetSmbiosCode("003");
    Run([this] {
        EXPECT_FALSE(InitBMCCapability());
        uint8_t record[kBmcCapabilitySize];
        const ktx_ipmi::IpmiBracket bracket;
        EXPECT_EQ(0x6000B121U, ktx_ipmi::GetBMCStatus(bracket.Handle(), 0x20, record));
        EXPECT_EQ(0x6000B116U, ktx_ipmi::GetBMCStatus(bracket.Handle(), 0x20, nullptr));
        EXPECT_EQ(0U, Bmc().Count());
    });
    SetSmbiosCode("002");
    SetProduct("Tessark R2");
    Run([this] {
        EXPECT_FALSE(InitBMCCapability());
        EXPECT_EQ("[LibPilot2] Not Varistel.(Not Call BMCCapabilityA)", g_log.back());
        EXPECT_EQ(0U, Bmc().Count());
    });
    SetProduct("Varistel B400");
    Run([this] {
        FailToOpen();
        EXPECT_FALSE(InitBMCCapability());
        EXPECT_EQ("[LibPilot2] IPMI Driver Open Error. (AGT_IPMI_DRIVER_OPEN_FAIL)", g_log.back());
        Bmc().Refuse(kOem, 0x2A, 0xD5);
        uint8_t record[kBmcCapabilitySize];
        const ktx_ipmi::IpmiBracket bracket;
        EXPECT_EQ(204U, ktx_ipmi::GetBMCStatus(bracket.Handle(), 0x20, record));
        Bmc().Oem()->capability->resize(20);
        memset(record, 0xEE, sizeof record);
        EXPECT_EQ(0U, ktx_ipmi::GetBMCStatus(bracket.Handle(), 0x20, record));
        EXPECT_EQ(0, record[20]) << "nothing is left of what was there";
    });
    EXPECT_EQ("", root.ReadFile(kCapabilityFile));
}

TEST_F(LibPilot2, TheRecordNamesTheTypeOfTheBmc) {
    using Case = std::tuple<std::string, int>;
    for (const auto& [type, number] : {Case{"PILOT_2   ", 2}, Case{"QVM_LBMC  ", 3}, Case{"SH7757", 4},
                                       Case{"SH7757X   ", 0}, Case{" PILOT_2  ", 0}, Case{"", 0}}) {
        BecomeCode2Blade(type);
        Run([&type = type, number = number] {
            EXPECT_TRUE(InitBMCCapability());
            EXPECT_EQ(number, CheckBMCType()) << type;
            int pilot2 = 9;
            EXPECT_TRUE(IsPilot2(&pilot2));
            EXPECT_EQ(number != 0 ? 1 : 0, pilot2) << type;
            EXPECT_TRUE(IsPilot2_File(&pilot2));
            EXPECT_EQ(0, pilot2);
            EXPECT_FALSE(CheckSelLinked());
        });
    }
    SetSmbiosCode("001");
    Run([] { EXPECT_EQ(0, CheckBMCType()); });
    SetSmbiosCode("003");
    Run([] { EXPECT_EQ(kBmcTypeSh, CheckBMCType()) << "whatever the record says"; });
}

TEST_F(LibPilot2, TheCapabilitiesAreComparedUnderTheMask) {
    BecomeCode2Blade("PILOT_2   ");
    Run([] { EXPECT_TRUE(InitBMCCapability()); });
    Bytes changed = Capability("PILOT_2   ");
    changed[20] = 0x01;
    Bmc().Oem()->capability = changed;
    Run([this] {
        std::array<uint8_t, 60> mask;
        mask.fill(0xFF);
        EXPECT_FALSE(CheckBMCCapability(mask.data(), mask.size()));
        EXPECT_EQ("[LibPilot2] File:BMC Comp Error. (Err pos offset i=20)", g_log.back());
        EXPECT_TRUE(CheckBMCCapability(mask.data(), 20));
        mask[20] = 0xFE;
        EXPECT_TRUE(CheckBMCCapability(mask.data(), mask.size()));
        EXPECT_FALSE(CheckBMCCapability(nullptr, 1));
        FailToOpen();
        EXPECT_FALSE(CheckBMCCapability(mask.data(), 20));
    });
}

// Service processor

TEST_F(LibPilot2, TheHostsSettingsTellTheServiceProcessorOfABlade) {
    using Case = std::tuple<int, uint32_t, uint32_t>;
    for (const auto& [error, first, state] : {Case{0, 1, kSvpBlade}, Case{0, 0, kSvpNone}, Case{5, 0, kSvpBlade}}) {
        g_bmcFunctionError = error;
        g_bmcFirstFunction = first;
        Run([error = error, state = state] {
            EXPECT_EQ(state, MySVPFunction(3));
            EXPECT_EQ(state, MyCMDFunction(3));
            EXPECT_EQ("[LibPilot2] MyCMDFunction():Not Pilot2. return(dwRes=" + std::to_string(state) + ")",
                      g_log.back());
            g_bmcFunctionError = 0;
            EXPECT_EQ(error, ReadBmccfg()) << "asked once";
            const std::string failure = "[LibPilot2] ReadConfigData Error. BMC config Data no load. <code 5>";
            EXPECT_EQ(error != 0 ? 1 : 0, std::count(g_log.begin(), g_log.end(), failure));
        });
    }
    EXPECT_EQ(1, LibP2_GetSVPConfigType());
    SetProduct("Tessark R2");
    Run([] { EXPECT_EQ(kSvpNone, MySVPFunction(0)); });
}

TEST_F(LibPilot2, PciDevicesAreFoundByTheirSecondField) {
    root.ReplaceProc("/proc/bus/pci/devices", "0000\t80862970\t0\n00f0\t10cf1234\t1b\t80860000\te1000\n\nx");
    Run([] {
        EXPECT_TRUE(IsPciDeviceListed("10cf1234"));
        EXPECT_EQ("[LibPilot2] DEVICE_ID/VENDOR_ID ... Mounted.(10cf1234)", g_log.back());
        for (const char* absent : {"", "0000", "80860000", "10cf123", "e1000"})
            EXPECT_FALSE(IsPciDeviceListed(absent)) << absent;
        EXPECT_FALSE(IsRunningSVPDriver_RK());
    });
}

// Replaced hardware

std::map<uint32_t, Bytes> g_adapters;
int g_fruReads = 0;

uint32_t FruReader(uint32_t target, _KvFruData* out) {
    ++g_fruReads;
    const auto found = g_adapters.find(target);
    if (found == g_adapters.end()) return 0x63F5A101;
    out->length = static_cast<uint8_t>(found->second.size());
    std::copy(found->second.begin(), found->second.end(), out->data);
    return 0;
}

class HardwareCheck : public LibPilot2 {
protected:
    HardwareCheck() { g_adapters = {{0x5000E, {2, 0, 0, 0, 0, 0xA}}, {0x5000F, {2, 0, 0, 0, 0, 0xB}}}; }
    void Check(int expected) {
        Run([expected] {
            KvPsSetKvDf_GetFruInventoryDataFunc(FruReader);
            EXPECT_EQ(expected, KvHardWareCheck());
        });
    }
};

TEST_F(HardwareCheck, ComparesTheAdaptersOfABladeWithThoseOfTheLastRun) {
    Run([] {
        KvPsSetKvDf_GetFruInventoryDataFunc(FruReader);
        EXPECT_EQ(kHardwareSame, KvHardWareCheck());
        g_adapters.clear();
        EXPECT_EQ(kHardwareSame, KvHardWareCheck()) << "remembered for the process";
        EXPECT_EQ(2, g_fruReads);
        EXPECT_THAT(g_log, Contains("[LibPilot2] GbEther A MAC address get success(02:00:00:00:00:0a)."));
    });
    EXPECT_EQ("02:00:00:00:00:0a\n02:00:00:00:00:0b\n", root.ReadFile(kCurrentList));
    EXPECT_EQ("02:00:00:00:00:0a\n02:00:00:00:00:0b\n", root.ReadFile(kRememberedList));
    Check(kHardwareSame);
    g_adapters[0x5000E][5] = 0xC;
    Check(kHardwareSame);
    EXPECT_EQ("02:00:00:00:00:0b\n", root.ReadFile(kRememberedList)) << "what matched";
    g_adapters[0x5000F][5] = 0xD;
    for (int start = 0; start < 2; ++start) {
        Check(kHardwareChanged);
        EXPECT_EQ("02:00:00:00:00:0b\n", root.ReadFile(kRememberedList)) << "until the old state is gone";
    }
    Run([] {
        KvPsSetKvDf_GetFruInventoryDataFunc(FruReader);
        EXPECT_TRUE(RememberHardware());
        EXPECT_EQ(kHardwareSame, KvHardWareCheck()) << "what is saved from now on is of this hardware";
    });
    EXPECT_EQ("02:00:00:00:00:0c\n02:00:00:00:00:0d\n", root.ReadFile(kRememberedList));
}

TEST_F(HardwareCheck, WithoutAddressesNothingIsDecided) {
    root.AddFile(kCurrentList, "02:00:00:00:00:99\n");  // of an earlier run
    root.AddFile(kRememberedList, "02:00:00:00:00:0a\n");
    Run([] { EXPECT_EQ(kHardwareUnknown, KvHardWareCheck()) << "no function that reads the FRU"; });
    g_adapters = {{0x5000E, {}}, {0x5000F, Bytes(7)}};
    Run([] {
        KvPsSetKvDf_GetFruInventoryDataFunc(FruReader);
        EXPECT_EQ(kHardwareUnknown, KvHardWareCheck());
        EXPECT_THAT(g_log, Contains("[LibPilot2] GbEther A MAC address length error(0)."));
        EXPECT_THAT(g_log, Contains("[LibPilot2] GbEther B MAC address length error(7)."));
    });
    g_adapters.clear();
    Check(kHardwareUnknown);
    EXPECT_EQ("02:00:00:00:00:0a\n", root.ReadFile(kRememberedList)) << "still to be compared with";
}

TEST_F(HardwareCheck, AListThatCannotBeReadOrWrittenIsUnknown) {
    Run([] {
        KvPsSetKvDf_GetFruInventoryDataFunc(FruReader);
        const FullDisk full;
        EXPECT_EQ(kHardwareUnknown, KvHardWareCheck());
    });
    EXPECT_FALSE(exists(root.Outside(kRememberedList)));
    create_symlink("HWList.dat", root.Outside(kRememberedList));  // cannot be opened
    Check(kHardwareUnknown);
    EXPECT_TRUE(is_symlink(root.Outside(kRememberedList))) << "nor is it replaced then";
}

TEST_F(HardwareCheck, ARackServerAsksItsScript) {
    SetProduct("Tessark R2");
    root.AddFile("/opt/velmora/lantrel/rc/HWCheck", std::string("echo 02:00:00:00:00:01 > ") + kCurrentList);
    root.AddFile(kRememberedList, "02:00:00:00:00:02\n02:00:00:00:00:01\n");
    Check(kHardwareSame);
    EXPECT_EQ("02:00:00:00:00:01\n", root.ReadFile(kRememberedList));
    root.AddFile("/opt/velmora/lantrel/rc/HWCheck", "exit 3");
    Check(kHardwareUnknown);
}

TEST(AddressLists, HaveLinesOf31CharactersAtMost) {
    EXPECT_THAT(ParseAddressList(""), IsEmpty());
    EXPECT_THAT(ParseAddressList("\n\r\na\r\n\nb"), ElementsAre("a", "b"));
    EXPECT_THAT(ParseAddressList(std::string(40, 'x') + "\ny\n"), ElementsAre(std::string(31, 'x'), "y"));
}

}  // namespace
