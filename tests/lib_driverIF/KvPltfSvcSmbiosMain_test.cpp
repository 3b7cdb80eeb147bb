#include "lib_driverIF/KvPltfSvcSmbiosMain.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "lib_driverIF/KvLibSmbios.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/SimulatedMemory.h"
#include "tests/support/Tracing.h"

namespace {

namespace fs = std::filesystem;
using sim::Bytes;
using sim::SmbiosImage;
using sim::SmbiosStructure;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr Bytes::value_type kUuid[] = {0x00, 0xFF, 0x80, 0x7F, 0x0A, 0xB0, 0xC1, 0xD2,
                                       0xE3, 0xF4, 0x05, 0x16, 0x27, 0x38, 0x49, 0x5A};

class SmbiosQuery : public testing::Test {
protected:
    ~SmbiosQuery() override { KvPsTerminateSmbios(); }

    uint32_t Start(const SmbiosImage& image) {
        KvPsTerminateSmbios();
        memory.ClearMemory();
        memory.AddMemory(image.Blocks());
        return ktx_smbios::InitSmbiosLib() ? KvPsInitializeSmbios() : 1;
    }

    uint32_t StartServer() {
        SmbiosImage image;
        image.Add(sim::SmbiosSystem{.product = "Server", .version = "R2", .uuid = Bytes(kUuid, kUuid + 16)});
        image.Add(SmbiosStructure(17, 0x1102, 0x12).String(0x10, "B"));
        image.Add(SmbiosStructure(17, 0x1101, 0x12).String(0x10, "A"));
        image.Add(SmbiosStructure(128, 0x8000, 4));
        image.AddEndOfTable();
        return Start(image);
    }

    /// The structures that a type has, after a look at the result.
    static std::vector<KVPS_SMBIOS_TPHEAD*> OfType(uint8_t type) {
        unsigned long count = 99;
        KVPS_SMBIOS_TPHEAD** array = nullptr;
        EXPECT_EQ(0U, KvPsGetTypeData(type, &count, &array));
        const std::unique_ptr<KVPS_SMBIOS_TPHEAD*[], decltype(&KvPsFreeTypeData)> owner(array, KvPsFreeTypeData);
        EXPECT_EQ(count == 0, array == nullptr);
        return {array, array + count};
    }

    static std::string System(uint8_t offset) {
        char* text = nullptr;
        const uint32_t result = KvPsGetSystemInformation(offset, &text);
        const std::unique_ptr<char[], decltype(&KvPsFreeSystemInformation)> owner(text, KvPsFreeSystemInformation);
        return result == 0 ? text : std::to_string(result);
    }

    SimulatedMemory memory;
};

TEST_F(SmbiosQuery, GroupsStructuresByType) {
    ASSERT_EQ(0U, StartServer());
    const auto devices = OfType(17);
    ASSERT_EQ(2U, devices.size());
    EXPECT_EQ(0x1101, devices[0]->handle);
    EXPECT_EQ(4U + 0x12 + 2, devices[0]->dataSize) << "size field, formatted area, \"A\" and its NUL";
    EXPECT_TRUE(OfType(2).empty());
    EXPECT_EQ(1U, OfType(127).size());
    const auto is = [](uint8_t type) { return testing::Pointee(testing::Field(&KVPS_SMBIOS_TPHEAD::type, type)); };
    EXPECT_THAT(OfType(255), ElementsAre(is(1), is(17), is(17), is(127)));

    unsigned long count = 99;
    KVPS_SMBIOS_TPHEAD** array = nullptr;
    for (const uint8_t type : Bytes{128, 254})
        EXPECT_EQ(0x611A4202U, KvPsGetTypeData(type, &count, &array));
}

TEST_F(SmbiosQuery, HandsOutTheEntryPoint) {
    ASSERT_EQ(0U, StartServer());
    KVPS_SMBIOS_HEAD head = {};
    EXPECT_EQ(0U, KvPsGetStructureHeader(&head));
    EXPECT_EQ("_SM_", std::string(head.anchor, 4));
    EXPECT_EQ(0xE0000U, head.tableAddress);
    EXPECT_EQ(5, head.structureCount);
    EXPECT_EQ(0x28, head.bcdRevision);
}

TEST_F(SmbiosQuery, SystemInformation) {
    ASSERT_EQ(0U, StartServer());
    EXPECT_EQ("Server", System(5));
    EXPECT_EQ("R2", System(6));
    EXPECT_EQ("", System(4)) << "string number 0";
    EXPECT_EQ("00ff807f-0ab0-c1d2-e3f4-05162738495a", System(8));
    EXPECT_EQ(std::to_string(0x60D04202U), System(25));

    for (const uint8_t length : Bytes{8, 23, 24}) {  // version 2.0, one that is cut, 2.1
        SmbiosImage image;
        image.Add(SmbiosStructure(1, 1, length).String(4, "Manufacturer Inc"));
        ASSERT_EQ(0U, Start(image));
        const bool whole = length == 24;
        EXPECT_EQ(whole ? "00000000-0000-0000-0000-000000000000" : std::to_string(0x60D0B802U), System(8)) << +length;
        EXPECT_EQ(whole, System(24) != std::to_string(0x60D0B802U)) << "no such field";
    }
    SmbiosImage without;
    without.AddEndOfTable();
    ASSERT_EQ(0U, Start(without));
    EXPECT_EQ(std::to_string(0x60D0B802U), System(5)) << "no such structure";
}

TEST_F(SmbiosQuery, Strings) {
    SmbiosImage image;
    image.Add(SmbiosStructure(9, 1, 10)
                  .String(4, "first")
                  .String(5, std::string(300, 'x'))
                  .String(6, "third")
                  .Byte(7, 4)
                  .Byte(8, 255));
    ASSERT_EQ(0U, Start(image));
    KVPS_SMBIOS_TPHEAD* const head = OfType(9).at(0);
    const auto text = [&](uint8_t offset, uint32_t size) {
        std::string buffer(300, '?');
        EXPECT_EQ(0U, KvPsGetSmbiosString(head, offset, size, buffer.data())) << int{offset};
        return buffer;
    };
    EXPECT_EQ("first" + std::string(15, '\0') + std::string(280, '?'), text(4, 20)) << "zeroes to the buffer's end";
    EXPECT_EQ("fir" + std::string(1, '\0') + std::string(296, '?'), text(4, 4)) << "cut";
    EXPECT_EQ(std::string(1, '\0') + std::string(299, '?'), text(4, 1));
    EXPECT_STREQ("third", text(6, 300).c_str());
    for (const uint8_t offset : Bytes{7, 8, 9, 10})  // beyond the set, number 0, and the first character of the strings
        EXPECT_EQ(std::string(300, '?'), text(offset, 300)) << int{offset};

    char buffer[4] = "";
    EXPECT_EQ(0x60981302U, KvPsGetSmbiosString(head, 11, sizeof(buffer), buffer));
    EXPECT_EQ(0x60984201U, KvPsGetSmbiosString(head, 4, 0, buffer));
}

TEST_F(SmbiosQuery, DamagedStructuresGiveNoBytesThatAreNotTheirs) {
    SmbiosImage image;
    image.Add(SmbiosStructure(10, 2, 6).Byte(4, 1));  // names a string, has none
    Bytes cut = SmbiosStructure(9, 1, 30).String(4, "never").Encode();
    cut.resize(30 + 3);  // the strings do not end: 12 bytes are left
    image.AddRaw(cut);
    ASSERT_EQ(0U, Start(image));
    char text[4] = "old";
    EXPECT_EQ(0x60981302U, KvPsGetSmbiosString(OfType(10).at(0), 4, sizeof(text), text));
    KVPS_SMBIOS_TPHEAD* const head = OfType(9).at(0);
    EXPECT_EQ(16U, head->dataSize);
    EXPECT_EQ(30, head->length);
    EXPECT_EQ(0x60981302U, KvPsGetSmbiosString(head, 4, sizeof(text), text));
    EXPECT_STREQ("old", text);

    Bytes bytes(200, 0xEE);
    EXPECT_EQ(0U, KvPsGetSmbiosMultiByte(head, 1, 150, bytes.data()));
    EXPECT_EQ(30, bytes[0]);
    EXPECT_THAT(Bytes(bytes.begin() + 11, bytes.begin() + 150), Each(0));
    EXPECT_THAT(Bytes(bytes.begin() + 150, bytes.end()), Each(0xEE));
    EXPECT_EQ(0U, KvPsGetSmbiosMultiByte(head, 30, 2, bytes.data()));
    EXPECT_EQ(0x60D24202U, KvPsGetSmbiosMultiByte(head, 31, 1, bytes.data()));
    const auto* const behind = reinterpret_cast<const uint8_t*>(head) + head->dataSize;
    EXPECT_THAT(std::vector<uint8_t>(behind, behind + 64), Each(0));
}

TEST_F(SmbiosQuery, FailedStartKeepsWhatWasCopied) {
    EXPECT_EQ(0x6118B802U, KvPsInitializeSmbios()) << "the table reader has not started";
    KVPS_SMBIOS_HEAD head = {};
    EXPECT_EQ(0xFFFFFFFBU, ktx_smbios::GetHeader(&head)) << "-5, with the mark of a failed call";

    ASSERT_EQ(0U, StartServer());
    smbios_tableinfo[1].address = 0xC0000000;  // the first memory device cannot be read any more
    EXPECT_EQ(0x6118B802U, KvPsInitializeSmbios());
    EXPECT_EQ(1U, OfType(255).size());
    EXPECT_EQ("Server", System(5));
}

TEST_F(SmbiosQuery, OneHugeStructureDoesNotMakeAllSlotsHuge) {
    RunInRoot(MachineRoot("."), [&] {
        ASSERT_EQ(0, umount2("/sys", MNT_DETACH));
        memory.FailToOpen(EPERM);
        SmbiosImage entry;
        entry.AddEndOfTable();
        std::string table = std::string("\xC8\x04\x01\x00", 4) + std::string(70'000, 'x') + std::string(2, '\0');
        for (unsigned i = 0; i < 60'000; ++i)
            table += {5, 4, static_cast<char>(i), static_cast<char>(i >> 8), 0, 0};
        const Bytes head = entry.EntryPoint64();
        fs::create_directories("/sys/firmware/dmi/tables");
        std::ofstream("/sys/firmware/dmi/tables/smbios_entry_point") << std::string(head.begin(), head.end());
        std::ofstream("/sys/firmware/dmi/tables/DMI") << table;
        ASSERT_TRUE(ktx_smbios::InitSmbiosLib());
        ASSERT_EQ(0U, KvPsInitializeSmbios());
        const auto all = OfType(255);
        ASSERT_EQ(60'000U, all.size());
        EXPECT_EQ(59'999, all.back()->handle);
    });
}

TEST_F(SmbiosQuery, SurvivesStopAndStart) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(0U, StartServer());
        ASSERT_EQ(0U, KvPsInitializeSmbios()) << "a second copy replaces the first";
        EXPECT_EQ(4U, OfType(255).size());
        EXPECT_EQ(0U, KvPsTerminateSmbios());
        EXPECT_TRUE(OfType(255).empty());
        KVPS_SMBIOS_HEAD head = {};
        KvPsGetStructureHeader(&head);
        EXPECT_EQ(0, head.length);
    }
}

TEST(SmbiosQueryTrace, SaysWhatWentWrong) {
    RunInRoot(MakeTestRoot(), [] {
        Tracing tracing;
        EXPECT_THAT(tracing.LinesOf(KvPsInitializeSmbios),
                    ElementsAre(EndsWith(" SMBIOS_GETINFO call"), EndsWith(" ioctl:call SMBIOS_GETINFO\n"),
                                ContainsRegex(" Error occured.\\(-5\\) KvLibSmbios_Requests.cpp\\([0-9]+\\)\n$"),
                                EndsWith(" SMBIOS_GETINFO failed. 0xfffffffb"), EndsWith(" Can't get SMBIOS header.\n"),
                                HasSubstr(" QNTR 6B802-C 118 driver_result = 0xFFFFFFFB ")));
    });
}

}  // namespace
