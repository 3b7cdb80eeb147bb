/// @file
/// kvhost: how it names, shows and lays out what a plug-in answers, and the program itself in a machine root.

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <tuple>

#include "host/kvhost_Machine.h"
#include "host/kvhost_Table.h"
#include "host/kvhost_Text.h"
#include "host/kvhost_Values.h"
#include "tests/support/KvhostProgram.h"

namespace {

using namespace kvhost;
using testing::HasSubstr;
using testing::StartsWith;

TEST(KvhostNames, CodeNamesBecomeReadable) {
    EXPECT_EQ("starting address", ReadableName("KTX_PROP_STARTING_ADDRESS"));
    EXPECT_EQ("irq", ReadableName("KTX_CLS_IRQ"));
    EXPECT_EQ("property 999", PropertyName(999));
}

TEST(KvhostNames, AClassIsFoundByNameAndNumber) {
    for (const char* text : {"KTX_CLS_PCI_SLOT", "ktx_cls_pci_slot", "pci_slot", "PCI-Slot", "pci slot", "24"}) {
        EXPECT_EQ(24u, FindClass(text)) << text;
    }
    for (const char* text : {"", "61", "-1", "24x", "4294967320", "slot", "KTX_PROP_TYPE"}) {
        EXPECT_EQ(std::nullopt, FindClass(text)) << text;
    }
}

/// An enumeration of one instance.
class KvhostValues : public testing::Test {
protected:
    _KVCIM_CLASS* Add(int classId) {
        _KVCIM_ENUM* e = nullptr;
        _KVCIM_CLASS* c = nullptr;
        EXPECT_EQ(0, CreateEnum(static_cast<uint32_t>(classId), &e));
        EXPECT_EQ(0, CreateClass(classId, &c));
        EXPECT_EQ(0, InsertClass(e, c));
        enum_.reset(e);
        return c;
    }
    std::string Text(int code) const {
        const ClassData data = ReadEnum(*enum_, false);
        for (const Property& property : data.instances.at(0)) {
            if (property.code == static_cast<uint32_t>(code)) return ToText(property);
        }
        return "(no such property)";
    }
    std::string Json() const { return ToJson(ReadEnum(*enum_, false)).at("instances").at(0).dump(); }

    std::unique_ptr<_KVCIM_ENUM, decltype(&FreeEnum)> enum_{nullptr, &FreeEnum};
};

TEST_F(KvhostValues, EachTypeOfNumber) {
    _KVCIM_CLASS* const zone = Add(KTX_CLS_TIME_ZONE);
    SetPropertySint16(zone, KTX_PROP_BIAS, -540);
    SetPropertyUint32(zone, KTX_PROP_STANDERD_YEAR, kUnknownNumber);
    SetPropertyUint32(zone, KTX_PROP_STANDERD_DAY, 0xFFFFFFFF);
    EXPECT_EQ("-540", Text(KTX_PROP_BIAS));
    EXPECT_EQ("unknown", Text(KTX_PROP_STANDERD_YEAR));
    EXPECT_EQ("4294967295", Text(KTX_PROP_STANDERD_DAY));
    EXPECT_EQ("-", Text(KTX_PROP_STANDERD_HOUR));

    _KVCIM_CLASS* const port = Add(KTX_CLS_PORT_RES);
    SetPropertyUint64(port, KTX_PROP_STARTING_ADDRESS, 0xCF8);
    SetPropertyUint64(port, KTX_PROP_ENDING_ADDRESS, 0x80000000);  // an address like any other, in 64 bits
    SetPropertyUint32(port, KTX_PROP_INDEX, 7);
    SetPropertyUint32(port, KTX_PROP_TYPE_CODE, kUnknownNumber);
    SetPropertyStr(port, KTX_PROP_DEVICE, "PCI \x1b[2Jconf1\n");
    EXPECT_EQ("0x0cf8", Text(KTX_PROP_STARTING_ADDRESS));
    EXPECT_EQ("0x80000000", Text(KTX_PROP_ENDING_ADDRESS));
    EXPECT_EQ("PCI ?[2Jconf1 ", Text(KTX_PROP_DEVICE));
    EXPECT_EQ(R"({"starting_address":3320,"ending_address":2147483648,"index":7,"device":"PCI \u001b[2Jconf1\n",)"
              R"("type_code":null,"type_string":null})",
              Json());

    SetProperyUint8(Add(KTX_CLS_COD_INFO), KTX_PROP_DEVICE_REV, 0xFF);
    EXPECT_EQ("255", Text(KTX_PROP_DEVICE_REV));
}

TEST_F(KvhostValues, MacAddressesAreAList) {
    _KVCIM_CLASS* const computer = Add(KTX_CLS_COMPUTER_SYSTEM);
    const char* const addresses[] = {"00:11:22:33:44:55", "66:77:88:99:aa:bb"};
    SetPropertyArray(computer, KTX_PROP_ALL_MAC_ADDRESS, addresses, 2);
    EXPECT_EQ("00:11:22:33:44:55, 66:77:88:99:aa:bb", Text(KTX_PROP_ALL_MAC_ADDRESS));
    EXPECT_THAT(Json(), HasSubstr(R"("all_mac_address":["00:11:22:33:44:55","66:77:88:99:aa:bb"])"));

    auto** const table = static_cast<char**>(computer->last->value);
    table[1] = nullptr;  // no array any more: bytes, within their block
    EXPECT_THAT(Json(), testing::Not(HasSubstr(R"("all_mac_address":[)")));
    SetPropertyStr(computer, KTX_PROP_ALL_MAC_ADDRESS, "00:11:22:33:44:55");
    EXPECT_EQ("00:11:22:33:44:55", Text(KTX_PROP_ALL_MAC_ADDRESS));
}

TEST(KvhostText, ShiftJisBecomesUtf8WhereTextsAreJapanese) {
    constexpr const char* kNormal = "\x90\xb3\x8f\xed";  // "normal"
    EXPECT_EQ("正常", ToUtf8(kNormal, true));
    EXPECT_EQ("????", ToUtf8(kNormal, false));
    EXPECT_EQ("正常", ToUtf8("正常", true));
    EXPECT_EQ("正?", ToUtf8("\x90\xb3\x8f", true));
    EXPECT_EQ("?b", ToUtf8("\xc0"
                           "b",
                           false));
    EXPECT_EQ("???", ToUtf8("\xed\xa0\x80", false));  // half of a surrogate pair
}

TEST(KvhostText, IsCutByColumns) {
    using Case = std::tuple<const char*, size_t, const char*>;
    for (const auto& [text, columns, cut] :
         {Case{"abcdef", 6, "abcdef"}, Case{"abcdef", 5, "abcd…"}, Case{"正常正常", 8, "正常正常"},
          Case{"正常正常", 6, "正常…"}, Case{"abc", 1, "…"}, Case{"abc", 0, ""}}) {
        EXPECT_EQ(cut, Cut(text, columns));
        EXPECT_LE(Columns(Cut(text, columns)), columns);
    }
}

const std::vector<Column> kColumns = {{"type code", true}, {"device"}};

TEST(KvhostTable, TitlesAreBrokenAndNumbersStandRight) {
    EXPECT_EQ(
        "type\n"
        "code  device\n"
        "----  ------\n"
        "   5  正常\n"
        "  10  ok\n",
        FormatTable(kColumns, {{"5", "正常"}, {"10", "ok"}}, {}));
}

TEST(KvhostTable, FitsATerminalAndIsWholeElsewhere) {
    const std::string device(40, 'x');
    const std::vector<Row> rows = {{"5", device}};
    EXPECT_THAT(FormatTable(kColumns, rows, {30, true}), HasSubstr("   5  " + std::string(23, 'x') + "…\n"));
    EXPECT_THAT(FormatTable(kColumns, rows, {30, false}), HasSubstr("   5  " + device + "\n"));
    // Too narrow for columns.
    EXPECT_EQ("type code: 5\ndevice:    ok\n\ntype code: 6\ndevice:    正…\n",
              FormatTable(kColumns, {{"5", "ok"}, {"6", "正常正常正常"}}, {15, true}));
}

/// The program as it is installed, on a machine with one DMA channel.
class Kvhost : public KvhostProgram {
protected:
    void SetUp() override {
        root_.ReplaceProc("/proc/dma", " 4: cascade\n");
        UseRackServer();
        unsetenv("LANG");
    }
    void TearDown() override { unsetenv("LANG"); }
};

TEST_F(Kvhost, ListsTheClasses) {
    const std::string text = Output("classes");
    EXPECT_THAT(text, StartsWith("id  name                 served\n"));
    EXPECT_THAT(text, HasSubstr("\n30  irq                  yes\n"));
    EXPECT_THAT(text, HasSubstr("\n32  product              no\n"));
    const auto list = Json("classes");
    ASSERT_EQ(61u, list.size());
    EXPECT_EQ("KTX_CLS_HOSTID_INFO", list[59]["class"]);
    EXPECT_EQ(40, std::count_if(list.begin(), list.end(), [](const auto& row) { return row["served"] == true; }));
}

TEST_F(Kvhost, ShowsInstances) {
    const std::string text = Output("show dma KTX_CLS_PROVIDER");
    EXPECT_THAT(text, HasSubstr("dma (31): 1 instance\n"));
    EXPECT_THAT(text, HasSubstr("cascade"));
    EXPECT_THAT(text, HasSubstr("\n\nprovider (0): 1 instance\nversion\n--------\n04-08-00\n"));

    const auto all = Json("--all");
    EXPECT_EQ(39u, all.size());  // powering off is no query
    EXPECT_THAT(all[31]["instances"][0]["device"].get<std::string>(), HasSubstr("cascade"));
    EXPECT_THAT(Run("--version").output, StartsWith("libplatform 1\n"));
}

TEST_F(Kvhost, OneLineForAnError) {
    using Case = std::tuple<const char*, int, const char*>;
    for (const auto& [arguments, status, line] :
         {Case{"show power_ctrl", 1, "kvhost: QNTR 64202-C 002: "},
          Case{"show product", 1, "kvhost: the plug-in does not serve this class (product)\n"},
          Case{"show nonsense", 2, "kvhost: there is no class \"nonsense\"; "},
          Case{"--library /dev/null classes", 1, "kvhost: /dev/null: file too short\n"},
          Case{"--trace show provider", 0, "kvhost: no trace daemon is listening"}}) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(status, outcome.status) << arguments;
        EXPECT_THAT(outcome.output, StartsWith(line));
    }
    EXPECT_EQ(2, Run("--bogus").status);
    EXPECT_EQ(2, Run("").status);
}

TEST_F(Kvhost, ShowsTheMachineBelowTheClasses) {
    const auto bmc = Json("bmc");
    EXPECT_EQ("0x20", bmc["device id"]);
    EXPECT_EQ("2.0", bmc["ipmi version"]);
    EXPECT_EQ("KCS", bmc["interface"]);
    EXPECT_EQ("0x0ca2 0x0ca3", bmc["registers"]);
    const auto structures = Json("smbios 1 17");
    ASSERT_GT(structures.size(), 2u);
    EXPECT_EQ(1, structures[0]["type"]);
    EXPECT_EQ("Velmora", structures[0]["strings"][0]);
    EXPECT_EQ(17, structures.back()["type"]);
}

TEST_F(Kvhost, ShowsEveryStructureOfATableAndTellsWhenThereIsNone) {
    UseMachine(R"({"smbios": {"raw": ["01 04 01 00 00 00  C8 05 02 C8 01 41 00 00  26 10 03 00 03 20 00 FF )"
               R"(00 00 00 00 00 00 00 00 00 00  7F 04 04 00 00 00"]}})");
    std::string shown;
    for (const auto& structure : Json("smbios"))
        shown += structure["type"].dump() + structure["strings"].dump() + ' ';
    EXPECT_EQ("1[] 38[] 127[] 200[\"A\"] ", shown);
    EXPECT_EQ(1u, Json("smbios 200 201").size());
    EXPECT_EQ("other", Json("bmc")["interface"]) << "BT";

    UseMachine("{}");
    const int status = root_.Run([] {
        umount2("/sys", MNT_DETACH);  // the kernel has its own copy of the firmware's table
        const char* const command = "/opt/velmora/lantrel/bin/kvhost --machine sim:/machine.json smbios 2>/output";
        execl("/bin/sh", "sh", "-c", command, nullptr);
        return 127;
    });
    EXPECT_EQ(1, status);
    EXPECT_THAT(root_.ReadFile("/output"), testing::EndsWith("kvhost: the firmware's table was not found\n"));
}

TEST_F(Kvhost, AMachineWithoutFirmwareStillHasItsKernelsLists) {
    const Outcome outcome = RunOn("", "show dma");
    EXPECT_EQ(0, outcome.status);
    EXPECT_THAT(outcome.output, HasSubstr("cascade"));
    EXPECT_EQ(1, RunOn("sim:/nowhere.json", "classes").status);
    EXPECT_EQ(2, RunOn("real", "classes").status);
}

TEST(Strings, StayWithinTheirStructure) {
    const auto stringsOf = [](std::string bytes, size_t formatted) {
        const std::vector<uint8_t> data(bytes.begin(), bytes.end());
        return StringsOf(data, formatted);
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ((Texts{"ab", "c"}), stringsOf(std::string("1234ab\0c\0", 9), 4));
    EXPECT_EQ((Texts{"ab", "c"}), stringsOf("1234ab" + std::string(1, '\0') + "c", 4)) << "no end";
    EXPECT_EQ(Texts{}, stringsOf("1234", 4));
    EXPECT_EQ(Texts{}, stringsOf("1234", 200)) << "a length that lies";
}

TEST_F(Kvhost, JapaneseTextsAreUtf8) {
    setenv("LANG", "ja_JP.UTF-8", 1);
    const std::string output = Run("show power_ctrl").output;
    EXPECT_THAT(output, StartsWith("kvhost: QNTR 64202-C 002: "));
    EXPECT_NE(Columns(output), output.size()) << output;
    EXPECT_EQ(std::string::npos, output.find('?')) << output;
}

}  // namespace
