#include "lib_driverIF/KvLibSmbios.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <numeric>
#include <random>
#include <span>
#include <tuple>

#include "common/ByteReader.h"
#include "common/Checksum.h"
#include "cover/DeviceCover.h"
#include "libplatform/PXR_message.h"
#include "simulator/SmbiosImage.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/SimulatedMemory.h"
#include "tests/support/Tracing.h"

// Memory runs out when a test says so: the linker sends the calls here (--wrap).
extern "C" void* __real__ZnajRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);

namespace {
int g_arraysLeft = -1;  // negative: no limit
}

extern "C" void* __wrap__ZnajRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    if (g_arraysLeft == 0) return nullptr;
    if (g_arraysLeft > 0) --g_arraysLeft;
    return __real__ZnajRKSt9nothrow_t(size, tag);
}

namespace {

using sim::Bytes;
using sim::SmbiosImage;
using sim::SmbiosStructure;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr uint32_t kSegment = 0xF0000;
constexpr uint32_t kHighTable = 0xCF7B8010;  // where firmware of large machines puts it: above 2 GB, in a page's middle

class Smbios : public testing::Test {
protected:
    ~Smbios() override { Terminate_SmbiosIF(); }

    int Init(const SmbiosImage& image) {
        Terminate_SmbiosIF();
        memory.ClearMemory();
        memory.AddMemory(image.Blocks());
        return Init_SmbiosIF();
    }

    /// Initialises on a table of raw bytes that the entry point tells `count` structures of.
    int InitRaw(const Bytes& table, uint16_t count) {
        SmbiosImage image;
        image.AddRaw(table);
        image.claimedCount = count;
        return Init(image);
    }

    struct Reply {
        int result;
        int status;
        uint32_t size;
        uint32_t count;
        Bytes buffer;
    };
    static Reply Table(uint32_t mode, uint16_t type, uint16_t index, uint32_t size, uint32_t count = 0) {
        Bytes buffer(size * std::max(count, 1U), 0xEE);
        smbios_gettable_block block = {99, mode, type, index, 0, buffer.data(), size, count};
        const int result = smbios_ioctl(SMBIOS_GETTABLE, &block);
        return {result, block.status, block.size, block.count, buffer};
    }
    static uint32_t CountOf(uint16_t type) {
        const Reply reply = Table(SMBIOS_TABLE_BY_INDEX, type, 0, 4);
        return reply.status == 0 ? U32At(reply.buffer, 0) : 0;
    }
    static Bytes Structure(uint16_t type, uint16_t index) {
        Reply reply = Table(SMBIOS_TABLE_BY_INDEX, type, index, 4096);
        reply.buffer.resize(reply.result == 0 && reply.status == 0 ? reply.size : 0);
        return reply.buffer;
    }
    /// Types and sizes of the index, in its order.
    static std::vector<std::pair<uint32_t, uint32_t>> Index() {
        std::vector<std::pair<uint32_t, uint32_t>> index;
        for (uint32_t i = 0; i < smbios_tablecnt; ++i)
            index.emplace_back(smbios_tableinfo[i].type, smbios_tableinfo[i].size);
        return index;
    }

    SimulatedMemory memory;
};

SmbiosImage Server() {
    SmbiosImage image;
    image.tableAddress = kHighTable;
    image.Add(sim::SmbiosBios{.vendor = "Vendor", .version = "V1.0"});
    for (int slot = 7; slot >= 0; --slot) {  // against the order of handles
        const auto handle = static_cast<uint16_t>(0x1100 + slot);
        image.Add(SmbiosStructure(17, handle, 0x1C).String(0x10, "DIMM" + std::to_string(slot)));
    }
    image.Add(SmbiosStructure(32, 0x2000, 11));
    image.AddEndOfTable();
    return image;
}

// ---- Requests ----

TEST_F(Smbios, AnswersByIndexInHandleOrder) {
    ASSERT_EQ(0, Init(Server()));
    EXPECT_EQ(8U, CountOf(17));
    for (int i = 0; i < 8; ++i) {
        const auto handle = static_cast<uint16_t>(0x1100 + i);
        Bytes expected = SmbiosStructure(17, handle, 0x1C).String(0x10, "DIMM" + std::to_string(i)).Encode();
        expected.pop_back();
        EXPECT_EQ(expected, Structure(17, static_cast<uint16_t>(i + 1))) << "up to the last string's NUL";
    }
    EXPECT_EQ(SMBIOS_STATUS_INDEX, Table(SMBIOS_TABLE_BY_INDEX, 17, 9, 100).status);
    EXPECT_EQ(SMBIOS_STATUS_TYPE, Table(SMBIOS_TABLE_BY_INDEX, 200, 0, 4).status);
    EXPECT_EQ(SMBIOS_STATUS_TYPE, Table(SMBIOS_TABLE_BY_INDEX, 0x111, 1, 4).status) << "types are not cut to a byte";
    EXPECT_EQ(SMBIOS_STATUS_MODE, Table(4, 17, 1, 100).status);
    EXPECT_EQ(0U, memory.OpenDescriptors());
    EXPECT_EQ(0U, memory.OpenMaps());
}

TEST_F(Smbios, CutsToTheBufferAndTellsTheSize) {
    ASSERT_EQ(0, Init(Server()));
    for (const auto& [mode, which] : {std::pair(SMBIOS_TABLE_BY_INDEX, 6), std::pair(SMBIOS_TABLE_BY_HANDLE, 0x1105)}) {
        const Reply cut = Table(mode, 17, static_cast<uint16_t>(which), 5);
        EXPECT_EQ((Bytes{17, 0x1C, 5, 0x11, 0}), cut.buffer);
        EXPECT_EQ(0x1CU + 6, cut.size);
    }
    uint8_t word[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    smbios_gettable_block count = {0, SMBIOS_TABLE_BY_INDEX, 17, 0, 0, word, 2, 0};
    EXPECT_EQ(0, smbios_ioctl(SMBIOS_GETTABLE, &count));
    EXPECT_EQ(4U, count.size);
    EXPECT_THAT(word, ElementsAre(8, 0, 0xEE, 0xEE));
    EXPECT_EQ(SMBIOS_STATUS_INDEX, Table(SMBIOS_TABLE_BY_HANDLE, 17, 0x2000, 100).status);
    EXPECT_EQ(SMBIOS_STATUS_TYPE, Table(SMBIOS_TABLE_BY_HANDLE, 2, 0x2000, 100).status);
    smbios_gettable_block null = {0, SMBIOS_TABLE_BY_INDEX, 17, 1, 0, nullptr, 10, 0};
    EXPECT_EQ(-22, smbios_ioctl(SMBIOS_GETTABLE, &null));
    EXPECT_EQ(-22, smbios_ioctl(SMBIOS_GETTABLE, nullptr));
    EXPECT_EQ(-22, smbios_ioctl(3, &null));
}

TEST_F(Smbios, FillsSlots) {
    ASSERT_EQ(0, Init(Server()));
    constexpr uint32_t kSlot = 20;  // 12 bytes of each structure
    const Reply run = Table(SMBIOS_TABLE_RUN, 17, 6, kSlot, 5);
    EXPECT_EQ(0, run.status);
    ASSERT_EQ(3U, run.count) << "6, 7, 8";
    for (uint32_t i = 0; i < run.count; ++i) {
        const std::span<const uint8_t> slot = std::span(run.buffer).subspan(i * kSlot, kSlot);
        EXPECT_THAT(slot.first(12), ElementsAre(0x22, 0, 0, 0, 0, 0, 0, 0, 17, 0x1C, 5 + i, 0x11));
    }
    EXPECT_TRUE(std::all_of(run.buffer.begin() + 3 * kSlot, run.buffer.end(), [](uint8_t b) { return b == 0xEE; }));
    EXPECT_EQ(SMBIOS_STATUS_INDEX, Table(SMBIOS_TABLE_RUN, 17, 9, kSlot, 5).status);
    EXPECT_EQ(SMBIOS_STATUS_INDEX, Table(SMBIOS_TABLE_RUN, 17, 0, kSlot, 5).status);
    EXPECT_EQ(0, Table(SMBIOS_TABLE_RUN, 17, 1, 8, 2).result) << "sizes alone";
    EXPECT_EQ(-22, Table(SMBIOS_TABLE_RUN, 17, 1, 7, 2).result) << "no room for the size";
}

TEST_F(Smbios, TellsEntryPointAndSlotSize) {
    const SmbiosImage image = Server();
    ASSERT_EQ(0, Init(image));
    Bytes buffer(40, 0xEE);
    smbios_getinfo_block block = {99, SMBIOS_INFO_ENTRY_POINT, {}, buffer.data(), 40, {}};
    ASSERT_EQ(0, smbios_ioctl(SMBIOS_GETINFO, &block));
    EXPECT_EQ(31U, block.size);
    Bytes expected = image.EntryPoint();
    expected[31] = 0xEE;
    expected.resize(40, 0xEE);
    EXPECT_EQ(expected, buffer);
    buffer.assign(40, 0xEE);
    block.size = 8;
    ASSERT_EQ(0, smbios_ioctl(SMBIOS_GETINFO, &block));
    EXPECT_EQ(31U, block.size);
    std::fill(expected.begin() + 8, expected.end(), uint8_t{0xEE});
    EXPECT_EQ(expected, buffer);

    uint32_t slot = 0;
    block = {99, SMBIOS_INFO_MAX_SIZE, {}, &slot, sizeof(slot), {}};
    ASSERT_EQ(0, smbios_getinfo(SMBIOS_GETINFO, &block));
    EXPECT_EQ(4U, block.size);
    EXPECT_EQ(44U, slot) << "the BIOS structure's 0x18 + 7 + 5 = 36 bytes, and 8";

    block = {99, 3, {}, &slot, sizeof(slot), {}};
    ASSERT_EQ(0, smbios_ioctl(SMBIOS_GETINFO, &block));
    EXPECT_EQ(SMBIOS_STATUS_MODE, block.status);
}

TEST_F(Smbios, FailedRequestLeavesAPrivateBlockAlone) {
    ASSERT_EQ(0, Init(Server()));
    memory.FailToOpen(EPERM);
    smbios_gettable_block block = {99, SMBIOS_TABLE_BY_HANDLE, 17, 0x1100, 7, &block, 4, 5};
    const smbios_gettable_block before = block;
    EXPECT_EQ(-5, smbios_ioctl(SMBIOS_GETTABLE, &block));
    EXPECT_EQ(0, memcmp(&before, &block, sizeof(block)));
    EXPECT_EQ(-5, smbios_getinfo(SMBIOS_GETTABLE, &block));
    EXPECT_EQ(0, block.status) << "worked on in place";
}

TEST_F(Smbios, StartsAgainAfterTermination) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(-5, Table(SMBIOS_TABLE_BY_INDEX, 0, 0, 4).result) << "not started";
        ASSERT_EQ(0, Init(Server()));
        memory.ClearMemory();
        ASSERT_EQ(0, Init_SmbiosIF()) << "runs once";
        EXPECT_EQ(8U, CountOf(17));
        Terminate_SmbiosIF();
    }
    EXPECT_EQ(nullptr, smbios_tableinfo);
}

// ---- Finding the entry point ----

TEST_F(Smbios, FindsTheEntryPointWhereverItLies) {
    const SmbiosImage image = Server();
    for (const uint32_t offset : {0U, 1U, 0x5A3U, 0xFFE0U}) {
        memory.ClearMemory();
        memory.AddMemory(kHighTable, image.Table());
        memory.AddMemory(kSegment + offset, image.EntryPoint());
        EXPECT_EQ(0, Init_SmbiosIF()) << offset;
        Terminate_SmbiosIF();
    }
    memory.ClearMemory();
    memory.AddMemory(kSegment + 0xFFE1, image.EntryPoint());
    EXPECT_EQ(-6, Init_SmbiosIF()) << "cut by the end of the segment";
    memory.FailToOpen(EPERM);
    EXPECT_EQ(-5, Init_SmbiosIF());
}

TEST_F(Smbios, SkipsEntryPointsThatAreNone) {
    const SmbiosImage image = Server();
    const Bytes good = image.EntryPoint();
    using Case = std::tuple<const char*, size_t, uint8_t>;
    for (const auto& [what, at, value] :
         {Case{"checksum", 4, static_cast<uint8_t>(good[4] + 1)},
          Case{"intermediate checksum", 21, static_cast<uint8_t>(good[21] + 1)}, Case{"intermediate anchor", 16, '-'},
          Case{"length beyond the segment", 5, 0xFF}}) {
        Bytes bad = good;
        bad[at] = value;
        memory.ClearMemory();
        memory.AddMemory(kSegment + 0xFF00, bad);
        EXPECT_EQ(-6, Init_SmbiosIF()) << what;
        memory.AddMemory(kHighTable, image.Table());
        memory.AddMemory(kSegment + 0xFF20, good);
        EXPECT_EQ(0, Init_SmbiosIF()) << what << ", and a good one behind it";
        Terminate_SmbiosIF();
    }
    for (const uint8_t length : Bytes{0, 15, 29, 30}) {
        Bytes bad = good;
        bad[5] = length;
        bad[4] = 0;
        if (length > 0) bad[4] = sim::SmbiosChecksum(bad, 0, length);
        memory.AddMemory(kSegment + 0xFF20, bad);
        EXPECT_EQ(length == 30 ? 0 : -6, Init_SmbiosIF()) << int{length};
        Terminate_SmbiosIF();
    }
    Bytes overlapping = {'_', 'S', 'M'};
    overlapping.insert(overlapping.end(), good.begin(), good.end());
    memory.AddMemory(kSegment, overlapping);
    memory.AddMemory(kSegment + 0xFF20, Bytes(32));
    EXPECT_EQ(0, Init_SmbiosIF()) << "the scan goes on 3 bytes behind a rejected anchor";
}

TEST(SmbiosSearch, ComparesKernelsByNumber) {
    for (const char* const modern : {"2.6", "2.6.18-8.el5", "2.10.1", "10.0", "6.1.0-13-amd64", ""})
        EXPECT_TRUE(sb::IsKernel26(modern)) << modern;
    for (const char* const old : {"2.4.37", "2.5", "1.9", "2"})
        EXPECT_FALSE(sb::IsKernel26(old)) << old;
}

/// Runs body in a machine whose /sys is empty, and its own.
void RunWithOwnSysfs(const std::function<void()>& body) {
    RunInRoot(MakeTestRoot(), [&] {
        ASSERT_EQ(0, umount2("/sys", MNT_DETACH));
        body();
    });
}

void WriteSysfs(const std::filesystem::path& name, const std::string& content) {
    const std::filesystem::path file = "/sys/firmware" / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

TEST(SmbiosSearch, TakesTheAddressOfTheSystemTable) {
    using Case = std::tuple<const char*, uint32_t, const char*>;
    const std::vector<Case> cases = {
        {"SMBIOS3=0x1\nXSMBIOS=2\nSMBIOS=0xCF7B8000\nSMBIOS=3\n", 0xCF7B8000, nullptr},
        {"SMBIOS=\t 917504", 917504, nullptr},
        {"SMBIOS=03400000\n", 0xE0000, nullptr},
        {"SMBIOS=0xFFFFFFFF\n", 0xFFFFFFFF, nullptr},
        {"SMBIOS=0x100000000\n", kSegment, "invalid char=0x30, index=0)"},  // out of reach
        {"SMBIOS=99999999999999999999999\n", kSegment, "invalid char=0x39, index=0)"},
        {"SMBIOS= 0xE0000 \n", kSegment, "SMBIOS Data Error(invalid char=0x20, index=8)\n"},
        {"SMBIOS=0xE00G0\n", kSegment, "invalid char=0x47, index=5)"},
        {"SMBIOS=-1\n", kSegment, "invalid char=0x2D, index=0)"},
        {"SMBIOS=\nSMBIOS=0xE0000\n", kSegment, " : SMBIOS Data Error(leng=0)\n"},
        {"SMBIOS=  \n", kSegment, " : SMBIOS Data Error(blank leng=2)\n"},
        {"SMBIOS3=0xE0000\nSMBIOS\n", kSegment, " : GetParameter Error(ret=NULL)\n"},
    };
    RunWithOwnSysfs([&] {
        EXPECT_EQ(kSegment, GetSbBaseAddr());
        EXPECT_EQ(0x10000U, sb::SearchLength());
        Tracing tracing;
        for (const auto& [table, address, complaint] : cases) {
            WriteSysfs("efi/systab", table);
            const auto lines = tracing.LinesOf([&] { EXPECT_EQ(address, GetSbBaseAddr()) << table; });
            EXPECT_EQ(32U, sb::SearchLength());
            if (complaint == nullptr) continue;
            EXPECT_THAT(lines, ElementsAre(HasSubstr(complaint)));
        }
    });
}

// ---- The walk over the table ----

TEST_F(Smbios, WalkEndsWhereTheTableStopsMakingSense) {
    const Bytes good = SmbiosStructure(1, 2, 6).String(4, "ab").Encode();
    using Case = std::tuple<const char*, Bytes, uint16_t, std::vector<std::pair<uint32_t, uint32_t>>>;
    const std::vector<Case> cases = {
        {"count below the truth", good, 1, {}},
        {"count above the truth", {}, 0xFFFF, {}},
        {"length 0", {9, 0, 0, 0, 0, 0}, 9, {}},
        {"length 3", {9, 3, 0, 0, 0, 0}, 9, {}},
        {"length 4", {9, 4, 0, 0, 0, 0}, 9, {{9, 4}}},
        {"header cut", {9, 4, 0}, 9, {}},
        {"formatted area cut", {9, 20, 0, 0, 1, 2, 3, 4, 5}, 9, {}},
        {"strings cut", {9, 5, 0, 0, 1, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0}, 9, {{9, 12}}},
        {"strings cut, and less than 12 bytes", {9, 5, 0, 0, 1, 'a', 0}, 9, {{9, 7}}},
        {"no NUL at all", {9, 4, 0, 0}, 9, {{9, 4}}},
        {"one NUL", {9, 4, 0, 0, 0}, 9, {{9, 5}}},
    };
    for (const auto& [what, tail, count, rest] : cases) {
        Bytes table = good;
        table.insert(table.end(), tail.begin(), tail.end());
        ASSERT_EQ(0, InitRaw(table, count)) << what;
        std::vector<std::pair<uint32_t, uint32_t>> expected = {{1, 9}};
        expected.insert(expected.end(), rest.begin(), rest.end());
        EXPECT_EQ(expected, Index()) << what;
    }
}

TEST_F(Smbios, TableCutAnywhereIsReadUpToThere) {
    const Bytes whole = Server().Table();
    size_t before = 0;
    for (size_t length = 1; length <= whole.size(); ++length) {
        ASSERT_EQ(0, InitRaw(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)), 0xFFFF)) << length;
        EXPECT_LE(before, smbios_tablecnt) << length;
        before = smbios_tablecnt;
        for (const auto& [type, size] : Index())
            EXPECT_LE(size, length);
    }
    EXPECT_EQ(11U, before);
}

TEST_F(Smbios, TableThatIsNotThere) {
    SmbiosImage image = Server();
    image.tableAddress = 0xFFFFF800;
    image.claimedLength = 0x1000;
    EXPECT_EQ(-5, Init(image)) << "goes over the end of the address space";
    image.tableAddress = 0x80000000;
    Terminate_SmbiosIF();
    memory.ClearMemory();
    memory.AddMemory(kSegment, image.EntryPoint());
    EXPECT_EQ(-5, Init_SmbiosIF());
    image.claimedLength = 0;
    EXPECT_EQ(-5, Init(image));
    image = Server();
    image.claimedCount = 0;
    ASSERT_EQ(0, Init(image)) << "a table without structures";
    EXPECT_EQ(SMBIOS_STATUS_TYPE, Table(SMBIOS_TABLE_BY_INDEX, 0, 0, 4).status);
}

TEST_F(Smbios, AHandleThatIsGivenTwiceKeepsTheOrderOfTheTable) {
    SmbiosImage image;
    for (const char* const name : {"a", "b", "c", "d", "e"})
        image.Add(SmbiosStructure(17, 0x1100, 5).String(4, name));
    ASSERT_EQ(0, Init(image));
    for (uint16_t i = 1; i <= 5; ++i)
        EXPECT_EQ('a' + i - 1, Structure(17, i).at(5)) << i;
    EXPECT_EQ('a', Table(SMBIOS_TABLE_BY_HANDLE, 17, 0x1100, 7).buffer[5]);
}

TEST_F(Smbios, FourThousandStructures) {
    SmbiosImage image;
    for (uint32_t i = 0; i < 4000; ++i)
        image.Add(SmbiosStructure(static_cast<uint8_t>(i % 50), static_cast<uint16_t>(i * 40503), 12));
    ASSERT_EQ(0, Init(image));
    ASSERT_EQ(4000U, smbios_tablecnt);
    for (uint16_t type = 0; type < 50; ++type) {
        ASSERT_EQ(80U, CountOf(type));
        int last = -1;
        for (uint16_t i = 1; i <= 80; ++i) {
            const Bytes structure = Structure(type, i);
            ASSERT_EQ(12U, structure.size());
            EXPECT_EQ(type, structure[0]);
            EXPECT_LT(last, U16At(structure, 2));
            last = U16At(structure, 2);
        }
    }
}

TEST(SmbiosIndex, SortsAndFinds) {
    std::mt19937 random(20);
    const auto compare = [](const void* a, const void* b) {
        return *static_cast<const int*>(a) - *static_cast<const int*>(b);
    };
    for (uint32_t count = 0; count < 70; ++count) {
        std::vector<int> values(count);
        for (int& value : values)
            value = static_cast<int>(random() % 40) * 2;
        std::vector<int> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        hsort(values.data(), count, sizeof(int), compare);
        ASSERT_EQ(sorted, values);
        for (int key = -1; key < 82; ++key) {
            const auto first = std::lower_bound(sorted.begin(), sorted.end(), key);
            const bool there = first != sorted.end() && *first == key;
            const int* const expected = there ? values.data() + (first - sorted.begin()) : nullptr;
            EXPECT_EQ(expected, bsrch(&key, values.data(), count, sizeof(int), compare));
        }
    }
}

TEST_F(Smbios, TracesWhatItFinds) {
    RunWithOwnSysfs([&] {
        Tracing tracing;
        SmbiosImage image;
        image.Add(SmbiosStructure(9, 0x123, 6).String(4, "A"));
        image.AddRaw({1, 2, 3});
        auto lines = tracing.LinesOf([&] {
            Init_SmbiosIF();
            Init(image);
            Structure(9, 1);
            CountOf(3);
            smbios_ioctl(77, nullptr);
        });
        std::erase_if(lines, [](const std::string& line) {  // what other tests look at, and the frame of a dump
            const auto has = [&line](const char* text) { return line.find(text) != std::string::npos; };
            const bool dump = line.starts_with("7000 5 0 ") || line.starts_with("7000 10 0 ");
            return has("KvDrvMem") || has("Error occured.(") || has("FileDataAllRead") || line.ends_with(" 1 ") ||
                   (dump && !has("0x"));
        });
        const auto bytes = EndsWith(" 09 06 23 01 01 00 41 00                            ..#...A.\n");
        EXPECT_THAT(
            lines,
            ElementsAre("7000 0 1 Can't found SMBIOS header.\n", "7000 10 1 SMBIOS table length      = 12\n",
                        "7000 10 1 SMBIOS table address     = 0xe0000\n", "7000 10 1 SMBIOS structure count   = 2\n",
                        "7000 10 1 SMBIOS max size          = 9\n", "7000 10 1 SMBIOS major version     = 2\n",
                        "7000 10 1 SMBIOS minor version     = 8\n", "7000 10 1 SMBIOS revision          = 0x28\n",
                        "7000 5 1 0: Table Type 9 has 8(0x8)Bytes.\n", bytes, "7000 1 1 The 1th table has no data.\n",
                        "7000 5 1 ioctl:call SMBIOS_GETTABLE\n", "7000 10 1 Get Table Type 9.\n",
                        "7000 10 1 SMBIOS data:size=8\n", bytes, "7000 5 1 ioctl:call SMBIOS_GETTABLE\n",
                        "7000 10 1 Table Type 3 not found.\n", "7000 0 1 ioctl:unknown(77)\n"));
    });
}

// ---- Physical memory ----

TEST_F(Smbios, BothWaysThroughDevMemGiveTheSame) {
    const device::Descriptor device("/dev/mem", O_RDONLY);
    const int fd = device.Get();
    Bytes block(10'000);
    std::iota(block.begin(), block.end(), uint8_t{0});
    memory.AddMemory(0xFFFFD000, block);
    for (const auto& [offset, length] : {std::pair<uint32_t, uint32_t>{0, 1}, {4095, 2}, {100, 9000}, {8191, 1}}) {
        const std::span<const uint8_t> part = std::span(block).subspan(offset, length);
        const Bytes expected(part.begin(), part.end());
        Bytes got(length);
        EXPECT_EQ(length, sb::ReadByMap(fd, got.data(), 0xFFFFD000 + offset, length));
        EXPECT_EQ(expected, got);
        got.assign(length, 0);
        memory.LimitReads(1000, 1);
        EXPECT_EQ(length, sb::ReadBySeek(fd, got.data(), 0xFFFFD000 + offset, length));
        EXPECT_EQ(expected, got);
    }
    Bytes got(0x3001);
    EXPECT_EQ(0U, sb::ReadByMap(fd, got.data(), 0xFFFFD000, 0x3001)) << "beyond 4 GB";
    EXPECT_EQ(0U, sb::ReadByMap(fd, got.data(), 0x40000000, 16)) << "no memory there";
    EXPECT_EQ(0U, sb::ReadBySeek(fd, got.data(), 0x40000000, 16));
    EXPECT_EQ(0U, memory.OpenMaps());
}

TEST_F(Smbios, TheMemoryDriverIsUsedWhenItsModuleIsInstalled) {
    const MachineRoot root(".");
    root.AddFile("/opt/velmora/lantrel/lib/KvDrvMem.o", "");
    RunInRoot(root, [&] {
        Tracing tracing;
        memory.SetMemoryDriver(true);
        memory.AddMemory(Server().Blocks());
        const auto lines = tracing.LinesOf([&] {
            uint32_t word = 0;
            EXPECT_EQ(4U, ReadMem(&word, kHighTable, 4));
            EXPECT_EQ(0x00001800U, word);
            EXPECT_EQ(0U, ReadMem(&word, 0x40000000, 4));
            memory.SetMemoryDriver(false);
            EXPECT_EQ(0U, ReadMem(&word, kSegment, 4));
        });
        EXPECT_EQ(0U, memory.OpenDescriptors());
        ASSERT_EQ(6U, lines.size());
        EXPECT_THAT(lines[0], EndsWith(" The file /opt/velmora/lantrel/lib/KvDrvMem.o is found, so SMBIOS data will be "
                                       "read by the driver."));
        EXPECT_THAT(lines[2], EndsWith(" Failed to read the data from /dev/kvdrvmem using ioctl.(errno=14)\n"));
        EXPECT_THAT(lines[5], EndsWith(" Failed to open /dev/kvdrvmem.(errno=2)\n"));

        memory.SetMemoryDriver(true);
        ASSERT_EQ(0, Init_SmbiosIF()) << "the whole reader works through the driver";
        EXPECT_EQ(11U, smbios_tablecnt);
        Terminate_SmbiosIF();
        EXPECT_EQ(0U, memory.Opens("/dev/mem"));
    });
}

// ---- The operating system's copy ----

constexpr const char* kEntryFile = "dmi/tables/smbios_entry_point";
constexpr const char* kTableFile = "dmi/tables/DMI";

std::string Text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST_F(Smbios, TheKernelsTableServesWhenMemoryShowsNothing) {
    SmbiosImage image = Server();
    image.majorVersion = 3;
    image.minorVersion = 2;
    const std::string padded = Text(image.Table()) + std::string(70'000, '\x11');  // behind the end-of-table structure
    RunWithOwnSysfs([&] {
        memory.FailToOpen(EPERM);
        WriteSysfs(kTableFile, padded);
        for (const Bytes& entry : {image.EntryPoint64(), image.EntryPoint()}) {
            WriteSysfs(kEntryFile, Text(entry));
            ASSERT_EQ(0, Init_SmbiosIF());
            EXPECT_EQ(11U, smbios_tablecnt);
            EXPECT_TRUE(IsSumZero(std::span(smbios_header).first(31)));
            EXPECT_THAT(std::span(smbios_header).subspan(6, 2), ElementsAre(3, 2));
            EXPECT_EQ(0xFFFF, U16At(smbios_header, 22)) << "more than the field can tell";
            EXPECT_EQ(0U, U32At(smbios_header, 24));
            EXPECT_EQ(11U, U16At(smbios_header, 28));
            EXPECT_THAT(Text(Structure(17, 8)), HasSubstr("DIMM7"));
            Terminate_SmbiosIF();
            EXPECT_TRUE(sb::KernelTable().empty());
        }
    });
}

TEST_F(Smbios, TheKernelsTableIsTakenOnlyWhenSound) {
    const SmbiosImage image = Server();
    const std::string table = Text(image.Table());
    const std::string good = Text(image.EntryPoint64());
    std::string badSum = good;
    badSum[7] ^= 1;
    std::string badLength = good;
    badLength[6] = '\x7F';
    RunWithOwnSysfs([&] {
        for (const auto& [entry, content] : {std::pair(badSum, table),
                                             {badLength, table},
                                             {good.substr(0, 23), table},
                                             {"", table},
                                             {good, ""},
                                             {good, "\x01"},
                                             {good, std::string(3000, '\x02')}}) {
            WriteSysfs(kEntryFile, entry);
            WriteSysfs(kTableFile, content);
            memory.FailToOpen(0);
            EXPECT_EQ(-6, Init_SmbiosIF());
            memory.FailToOpen(EPERM);
            EXPECT_EQ(-5, Init_SmbiosIF()) << "what physical memory had said";
        }
        WriteSysfs(kTableFile, table);
        g_arraysLeft = 1;  // for the search in memory; none for the index
        EXPECT_EQ(-12, Init_SmbiosIF());
        g_arraysLeft = 0;
        EXPECT_EQ(-12, Init_SmbiosIF());
        g_arraysLeft = -1;
        SmbiosImage other;
        other.Add(sim::SmbiosSystem{});
        memory.AddMemory(other.Blocks());
        memory.FailToOpen(0);
        ASSERT_EQ(0, Init_SmbiosIF());
        EXPECT_EQ(1U, smbios_tablecnt) << "memory comes first";
        Terminate_SmbiosIF();
    });
}

// ---- PCI interrupt routing ----

/// A table that claims to have so many bytes, with a sum that is right for it.
Bytes RoutingTable(size_t slots, size_t claimed) {
    Bytes table(32 + 16 * slots);
    memcpy(table.data(), "$PIR", 4);
    table[6] = static_cast<uint8_t>(claimed);
    table[7] = static_cast<uint8_t>(claimed >> 8);
    for (size_t i = 0; i < slots; ++i)
        table[32 + 16 * i + 14] = static_cast<uint8_t>(i + 1);
    const size_t summed = std::min(claimed, table.size());
    table[std::min<size_t>(summed, 32) - 1] = sim::SmbiosChecksum(table, 0, summed);
    return table;
}

TEST_F(Smbios, FindsPciSlots) {
    Bytes bad = RoutingTable(2, 64);
    bad[31] ^= 1;
    memory.AddMemory(kSegment + 0x100, bad);
    memory.AddMemory(kSegment + 0x180, bad);
    memory.AddMemory(kSegment + 0x200, RoutingTable(0, 31));
    memory.AddMemory(kSegment + 0x300, RoutingTable(2, 0xFF40));  // beyond the area
    RunInRoot(MakeTestRoot(), [&] {
        char* text = nullptr;
        size_t length = 0;
        FILE* const log = open_memstream(&text, &length);
        PXR_set_syslog_output(log);
        Bytes buffer(3 * 16 + 5, 0xEE);
        smbios_getpci_block block = {99, SMBIOS_PCI_SLOTS, buffer.data(), static_cast<uint32_t>(buffer.size()), 99};
        EXPECT_EQ(-5, smbios_ioctl(SMBIOS_GETPCI, &block)) << "none of them is sound";
        memory.AddMemory(kSegment + 0xF000, RoutingTable(5, 112));
        EXPECT_EQ(0, smbios_ioctl(SMBIOS_GETPCI, &block));
        PXR_set_syslog_output(nullptr);
        fclose(log);
        EXPECT_THAT(std::string(text), HasSubstr("PCIBIOS"));
        EXPECT_EQ(1, std::count(text, text + length, '\n')) << "once a request, and not where one is sound";
        free(text);
        EXPECT_EQ(0, block.status);
        EXPECT_EQ(3U, block.count) << "what the buffer holds";
        EXPECT_EQ(3, buffer[2 * 16 + 14]);
        EXPECT_EQ(0xEE, buffer[3 * 16]);
        block.mode = 1;
        EXPECT_EQ(0, smbios_ioctl(SMBIOS_GETPCI, &block));
        EXPECT_EQ(SMBIOS_STATUS_MODE, block.status);
        memory.FailToOpen(EPERM);
        block.mode = SMBIOS_PCI_SLOTS;
        EXPECT_EQ(-5, smbios_ioctl(SMBIOS_GETPCI, &block));
    });
}

}  // namespace
