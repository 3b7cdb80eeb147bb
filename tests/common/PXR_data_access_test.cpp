#include "libplatform/PXR_data_access.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>

#include "common/PXR_data_access_internal.h"
#include "libplatform/PXR_trace.h"
#include "tests/support/InMachineRoot.h"
#include "tests/support/Tracing.h"

// Every block of the data model comes from calloc. The linker sends the calls here (--wrap), where they fail when they
// are told to and the blocks that have not been released are known.
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void __real_free(void* block);

namespace {
int g_allocationsLeft = -1;  // negative: no limit
std::array<void*, 128> g_blocks;
size_t g_blockCount = 0;
}  // namespace

extern "C" void* __wrap_calloc(size_t count, size_t size) {
    if (g_allocationsLeft == 0) return nullptr;
    void* const block = __real_calloc(count, size);
    if (g_allocationsLeft > 0) {
        --g_allocationsLeft;
        g_blocks.at(g_blockCount++) = block;
    }
    return block;
}

extern "C" void __wrap_free(void* block) {
    auto* const end = g_blocks.begin() + g_blockCount;
    auto* const known = std::find(g_blocks.begin(), end, block);
    if (block != nullptr && known != end) *known = g_blocks[--g_blockCount];
    __real_free(block);
}

namespace {

using testing::ElementsAre;

struct Free {
    void operator()(_KVCIM_ENUM* e) const { FreeEnum(e); }
    void operator()(_KVCIM_CLASS* c) const { FreeClass(c); }
    void operator()(_KVCIM_PROP* p) const { FreeProp(p); }
};
template <class Record>
using Owned = std::unique_ptr<Record, Free>;

uint32_t Code(int result) {
    return static_cast<uint32_t>(result);
}

Owned<_KVCIM_CLASS> NewClass(int classId) {
    _KVCIM_CLASS* c = nullptr;
    EXPECT_EQ(0, CreateClass(classId, &c));
    return Owned<_KVCIM_CLASS>(c);
}

/// An enumeration of interrupts 1 to count, on devices "dev1", ...
Owned<_KVCIM_ENUM> NewIrqs(uint32_t count) {
    _KVCIM_ENUM* e = nullptr;
    EXPECT_EQ(0, CreateEnum(KTX_CLS_IRQ, &e));
    for (uint32_t i = 1; i <= count; ++i) {
        _KVCIM_CLASS* const c = NewClass(KTX_CLS_IRQ).release();
        EXPECT_EQ(0, SetPropertyUint32(c, KTX_PROP_IRQ_NUMBER, i));
        EXPECT_EQ(0, SetPropertyStr(c, KTX_PROP_DEVICE, ("dev" + std::to_string(i)).c_str()));
        c->next = c;  // left over from another list
        EXPECT_EQ(0, InsertClass(e, c));
    }
    return Owned<_KVCIM_ENUM>(e);
}

void* ValueOf(_KVCIM_CLASS* c, int code) {
    return SearchProperty(c, code)->value;
}

template <class T>
T Stored(_KVCIM_CLASS* c, int code) {
    T value;
    std::memcpy(&value, ValueOf(c, code), sizeof value);
    return value;
}

const char* StoredText(_KVCIM_CLASS* c, int code) {
    return static_cast<char*>(ValueOf(c, code));
}

TEST(DataModel, EveryClassHasItsTemplate) {
    // FNV-1a over code and type of each property, in order, as the interface lists them.
    constexpr uint32_t kTemplates[] = {
        0x117697CD, 0xEB741D64, 0x969AE854, 0xFD3EE4C8, 0x7E5C18AA, 0xE6FA8411, 0xE6FA8411, 0x414B45F4, 0x414B45F4,
        0xEDDDE29A, 0x6B0F334A, 0x4CEC600D, 0x95329F2D, 0xBBF2A47B, 0xAB8720CE, 0x1B5265CA, 0x6847EBE0, 0xF2478D17,
        0xED23596F, 0xC48F90C7, 0x47F674B7, 0x9595EF29, 0x12993AA2, 0x7991AB37, 0xCC78C279, 0xAFE8C84A, 0x7351BD89,
        0x7BE80026, 0xB1210BF0, 0xB1210BF0, 0xFFD46A87, 0xFB946FDE, 0x27CFF2AB, 0x25888BD1, 0x0CDC2A9B, 0x67DDD476,
        0xC0591AAF, 0xDFC3059B, 0x49A8DD3C, 0x1CA617A4, 0x602074E5, 0x3549F660, 0x44067B46, 0x90957F8B, 0xA2355CA2,
        0x16ABB2A6, 0x8F90F247, 0x63A90A2F, 0x084F3EE8, 0xED0BDFDC, 0x566619FA, 0xD07FA33F, 0x566619FA, 0x566619FA,
        0x16ABB2A6, 0x566619FA, 0x811C9DC5, 0x811C9DC5, 0xE3EEE039, 0xE5B116BE, 0x1BFA36FD};
    ASSERT_EQ(61u, std::size(kTemplates));
    for (int id = 0; id < 61; ++id) {
        const auto c = NewClass(id);
        uint32_t length = 0;
        uint32_t digest = 0x811C9DC5;
        _KVCIM_PROP* last = nullptr;
        for (_KVCIM_PROP* p = c->first; p != nullptr; p = p->next, ++length) {
            EXPECT_EQ(nullptr, p->value);
            EXPECT_STREQ(CimPropCodeStr[p->code], ClassTemplates[id].properties[length].name);
            digest = ((digest ^ p->code) * 0x01000193 ^ p->type) * 0x01000193;
            last = p;
        }
        EXPECT_EQ(kTemplates[id], digest) << CimClassCodeStr[id];
        EXPECT_EQ(c->propCount, length);
        EXPECT_EQ(last, c->last);
        EXPECT_EQ(nullptr, c->next);
    }
    EXPECT_STREQ("KTX_PROP_OCCUR_COUNT_CLEAR", CimPropCodeStr[213]);
    EXPECT_STREQ("unknown", ClassName(61));
}

TEST(DataModel, WrongArgumentsGiveTheirCodes) {
    auto* const untouched = reinterpret_cast<_KVCIM_CLASS*>(0x1000);
    _KVCIM_CLASS* c = untouched;
    _KVCIM_ENUM* madeEnum = nullptr;
    _KVCIM_PROP* madeProp = nullptr;
    _PXR_COMMAND_LIST* list = nullptr;
    const auto e = NewIrqs(1);
    _KVCIM_CLASS* const irq = e->first;
    _KVCIM_PROP* const device = SearchProperty(irq, KTX_PROP_DEVICE);
    const uint32_t number = 7;
    const std::pair<uint32_t, std::vector<int>> failures[] = {
        {0x61864201, {CreateEnum(KTX_CLS_IRQ, nullptr)}},
        {0x61884202, {CreateClass(61, &c), CreateClass(-1, &c)}},
        {0x61884201, {CreateClass(0, nullptr)}},
        {0x618F4201, {InsertClass(e.get(), nullptr), InsertClass(nullptr, irq)}},
        {0x618C4201, {SetProperty(nullptr, KTX_PROP_INDEX, &number)}},
        {0x618C4202, {SetProperty(irq, KTX_PROP_FAN_NO, &number)}},
        {0x618B4201, {SetPropertyString(nullptr, "x")}},
        {0x618E4201, {SetPropertyArray(nullptr, KTX_PROP_INDEX, &number, 1)}},
        {0x618E4202, {SetPropertyArray(irq, KTX_PROP_FAN_NO, &number, 1)}},
        {0x618D4201, {SetPropertyStringArray(nullptr, nullptr, 0)}},
        {0x61874201, {DuplicateEnum(nullptr, &madeEnum), DuplicateEnum(e.get(), nullptr)}},
        {0x61894201, {DuplicateClass(nullptr, &c), DuplicateClass(irq, nullptr)}},
        {0x618A4201, {DuplicateProperty(nullptr, &madeProp), DuplicateProperty(device, nullptr)}},
        {0x61854201, {AllocCommandList(&number, 1, nullptr), AllocCommandList(nullptr, 1, &list)}}};
    for (const auto& [code, results] : failures)
        EXPECT_THAT(results, testing::Each(static_cast<int>(code)));
    EXPECT_EQ(untouched, c);
    EXPECT_EQ(1u, e->classCount);
    EXPECT_EQ(5u, irq->propCount);
    EXPECT_EQ(nullptr, ValueOf(irq, KTX_PROP_INDEX));
    EXPECT_EQ(nullptr, SearchProperty(nullptr, KTX_PROP_INDEX));
    EXPECT_EQ(0, SetPropertyStringArray(device, nullptr, 1));
    EXPECT_EQ(nullptr, device->value);
    FreeProp(nullptr);
    FreeClass(nullptr);
    FreeEnum(nullptr);
    FreeCommandList(nullptr);
}

TEST(DataModel, SizesAreRoundedUp) {
    for (const auto& [size, rounded] : std::vector<std::pair<uint32_t, uint32_t>>{
             {0, 0}, {1, 8}, {8, 8}, {9, 16}, {0xFFFFFFF8, 0xFFFFFFF8}, {0xFFFFFFF9, 0xFFFFFFF8}}) {
        EXPECT_EQ(rounded, AdjustAlignmentSize(size));
    }
}

TEST(DataModel, NumbersAreStoredByTheTypeOfThePropertyAndStayWithinTheirArgument) {
    const auto cpu = NewClass(KTX_CLS_PROCESSOR);
    EXPECT_EQ(0, SetPropertyUint16(cpu.get(), KTX_PROP_FAMILY, 0xBEEF));
    EXPECT_EQ(0xBEEFu, Stored<uint32_t>(cpu.get(), KTX_PROP_FAMILY));
    const auto zone = NewClass(KTX_CLS_TIME_ZONE);
    EXPECT_EQ(0, SetPropertySint16(zone.get(), KTX_PROP_BIAS, -540));
    EXPECT_EQ(-540, Stored<int32_t>(zone.get(), KTX_PROP_BIAS));
    const auto disk = NewClass(KTX_CLS_FILE_SYSTEM);
    EXPECT_EQ(0, SetPropertyUint64(disk.get(), KTX_PROP_TOTAL_SIZE, 0x123456789ABCDEF0));
    EXPECT_EQ(0x123456789ABCDEF0u, Stored<uint64_t>(disk.get(), KTX_PROP_TOTAL_SIZE));
    const auto cod = NewClass(KTX_CLS_COD_INFO);
    EXPECT_EQ(0, SetProperyUint8(cod.get(), KTX_PROP_FIRM_REV1, 0xA5));
    EXPECT_EQ(0xA5, Stored<uint8_t>(cod.get(), KTX_PROP_FIRM_REV1));

    EXPECT_EQ(4u, GetPropertySize(SearchProperty(cpu.get(), KTX_PROP_FAMILY)));
    EXPECT_EQ(8u, GetPropertySize(SearchProperty(disk.get(), KTX_PROP_TOTAL_SIZE)));
    EXPECT_EQ(0u, GetPropertySize(SearchProperty(cod.get(), KTX_PROP_FIRM_REV1)));
    EXPECT_EQ(0u, GetPropertySize(nullptr));
    EXPECT_EQ(0, SetPropertyTime(disk.get(), KTX_PROP_DISK, "2004"));
    EXPECT_EQ(5u, GetPropertySize(SearchProperty(disk.get(), KTX_PROP_DISK)));

    // setters of another type
    EXPECT_EQ(0, SetPropertySint32(disk.get(), KTX_PROP_FREE_SIZE, -2));
    EXPECT_EQ(-2, Stored<int64_t>(disk.get(), KTX_PROP_FREE_SIZE));
    EXPECT_EQ(0, SetProperySint8(disk.get(), KTX_PROP_FREE_SIZE, -3));
    EXPECT_EQ(-3, Stored<int64_t>(disk.get(), KTX_PROP_FREE_SIZE));
    EXPECT_EQ(0, SetProperyUint8(disk.get(), KTX_PROP_FREE_SIZE, 0xA5));
    EXPECT_EQ(0xA5, Stored<int64_t>(disk.get(), KTX_PROP_FREE_SIZE));
    EXPECT_EQ(0, SetPropertyStr(disk.get(), KTX_PROP_TOTAL_SIZE, "A"));
    EXPECT_EQ(0x41u, Stored<uint64_t>(disk.get(), KTX_PROP_TOTAL_SIZE));
    EXPECT_EQ(0, SetPropertyUint64(disk.get(), KTX_PROP_DISK, 0x4242424242424242));
    EXPECT_STREQ("BBBBBBBB", StoredText(disk.get(), KTX_PROP_DISK));
}

TEST(DataModel, ValuesAreReplacedAndRemoved) {
    const auto e = NewIrqs(1);
    _KVCIM_CLASS* const irq = e->first;
    // A value may be set from itself.
    EXPECT_EQ(0, SetPropertyStr(irq, KTX_PROP_DEVICE, StoredText(irq, KTX_PROP_DEVICE) + 1));
    EXPECT_STREQ("ev1", StoredText(irq, KTX_PROP_DEVICE));
    EXPECT_EQ(0, SetPropertyStr(irq, KTX_PROP_DEVICE, nullptr));
    EXPECT_EQ(nullptr, ValueOf(irq, KTX_PROP_DEVICE));
    EXPECT_EQ(0u, GetPropertySize(SearchProperty(irq, KTX_PROP_DEVICE)));
    EXPECT_EQ(0, SetProperty(irq, KTX_PROP_IRQ_NUMBER, nullptr));
    EXPECT_EQ(nullptr, ValueOf(irq, KTX_PROP_IRQ_NUMBER));

    _KVCIM_PROP* const index = SearchProperty(irq, KTX_PROP_INDEX);
    index->type = 10;
    EXPECT_EQ(0, SetPropertyUint32(irq, KTX_PROP_INDEX, 1));
    EXPECT_EQ(nullptr, index->value);
}

TEST(DataModel, ArraysOfTexts) {
    const auto owner = NewClass(KTX_CLS_COMPUTER_SYSTEM);
    _KVCIM_CLASS* const computer = owner.get();
    const char* const texts[] = {"a", "", "bc"};
    ASSERT_EQ(0, SetPropertyArray(computer, KTX_PROP_HOST, texts, 3));
    auto* const block = static_cast<char*>(ValueOf(computer, KTX_PROP_HOST));
    EXPECT_LE(24u, malloc_usable_size(block));
    EXPECT_EQ(0, std::memcmp(block + 12, "a\0\0bc", 6));
    char* table[3];
    std::memcpy(table, block, sizeof table);
    EXPECT_THAT(table, ElementsAre(block + 12, block + 14, block + 15));

    const char* const holes[] = {nullptr, "x"};
    ASSERT_EQ(0, SetPropertyArray(computer, KTX_PROP_HOST, holes, 2));
    EXPECT_EQ(0, std::memcmp(StoredText(computer, KTX_PROP_HOST) + 8, "\0x", 3));
    EXPECT_EQ(0, SetPropertyArray(computer, KTX_PROP_HOST, holes, 0));
    EXPECT_EQ(nullptr, ValueOf(computer, KTX_PROP_HOST));
}

TEST(DataModel, ArraysOfNumbers) {
    const auto file = NewClass(KTX_CLS_FILE_TRANSFER);
    ASSERT_EQ(0, SetPropertyArray(file.get(), KTX_PROP_DATA, "12345", 5));
    EXPECT_EQ(0, std::memcmp(ValueOf(file.get(), KTX_PROP_DATA), "12345", 5));
    const uint32_t words[] = {1, 2, 0xFFFFFFFF};
    ASSERT_EQ(0, SetPropertyArray(file.get(), KTX_PROP_FLAG, words, 3));
    EXPECT_EQ(0, std::memcmp(ValueOf(file.get(), KTX_PROP_FLAG), words, sizeof words));
    EXPECT_EQ(0, SetPropertyArray(file.get(), KTX_PROP_FLAG, nullptr, 3));
    EXPECT_EQ(nullptr, ValueOf(file.get(), KTX_PROP_FLAG));
}

TEST(DataModel, CountsThatNoBlockHolds) {
    const auto disk = NewClass(KTX_CLS_FILE_SYSTEM);
    const char* text = "x";
    const uint64_t number = 1;
    // Products of 2^32 and more must not wrap to a small block.
    for (const uint32_t count : {0x20000001u, 0x3FFFFFFFu, 0x40000000u, 0x40000001u, 0xFFFFFFFFu}) {
        ASSERT_EQ(0, SetPropertyStr(disk.get(), KTX_PROP_DISK, "old"));
        EXPECT_EQ(0x618D1202u, Code(SetPropertyArray(disk.get(), KTX_PROP_DISK, &text, count)));
        EXPECT_EQ(nullptr, ValueOf(disk.get(), KTX_PROP_DISK));
        EXPECT_EQ(0x618E1202u, Code(SetPropertyArray(disk.get(), KTX_PROP_TOTAL_SIZE, &number, count)));
        EXPECT_EQ(nullptr, ValueOf(disk.get(), KTX_PROP_TOTAL_SIZE));
    }
}

TEST(DataModel, ACopyIsEqualAndSharesNothing) {
    auto source = NewIrqs(3);
    source->nameSpace = strdup("root/cimv2");
    _KVCIM_ENUM* made = nullptr;
    ASSERT_EQ(0, DuplicateEnum(source.get(), &made));
    Owned<_KVCIM_ENUM> copy(made);
    for (_KVCIM_PROP* p = source->first->first; p != nullptr; p = p->next) {
        const auto* twin = SearchProperty(copy->first, static_cast<int>(p->code));
        EXPECT_TRUE(p->value == nullptr ? twin->value == nullptr : twin->value != p->value);
    }
    source.reset();
    EXPECT_STREQ("root/cimv2", copy->nameSpace);
    EXPECT_EQ(3u, copy->classCount);
    uint32_t number = 0;
    for (_KVCIM_CLASS* c = copy->first; c != nullptr; c = c->next) {
        EXPECT_EQ(++number, Stored<uint32_t>(c, KTX_PROP_IRQ_NUMBER));
        EXPECT_EQ("dev" + std::to_string(number), StoredText(c, KTX_PROP_DEVICE));
        EXPECT_TRUE(c->next != nullptr || c == copy->last);
    }
    EXPECT_EQ(3u, number);
    FreeClassContents(copy->first);
    EXPECT_EQ(0u, copy->first->propCount);
    EXPECT_EQ(nullptr, copy->first->first);
    EXPECT_EQ(nullptr, copy->first->last);
    FreeEnumContents(copy.get());
    EXPECT_EQ(nullptr, copy->nameSpace);
    EXPECT_EQ(nullptr, copy->first);
    EXPECT_EQ(nullptr, copy->last);
    EXPECT_EQ(0u, copy->classCount);
    EXPECT_EQ(uint32_t{KTX_CLS_IRQ}, copy->classId);
}

TEST(DataModel, ATextIsCopiedWhoeverAllocatedIt) {
    // What lies in front of it reads as the head of an empty block to the C library's allocator.
    alignas(16) char notOfTheHeap[16] = "\0\0\0\0\0\0\0\0text";
    _KVCIM_PROP property{KTX_PROP_HOST, notOfTheHeap + 8, PROP_TYPE_STRING, nullptr};
    _KVCIM_PROP* copy = nullptr;
    ASSERT_EQ(0, DuplicateProperty(&property, &copy));
    EXPECT_STREQ("text", static_cast<char*>(Owned<_KVCIM_PROP>(copy)->value));
}

class MacAddresses : public testing::Test {
protected:
    void SetUp() override {
        const char* const addresses[] = {"00:11", "22:33"};
        ASSERT_EQ(0, SetPropertyArray(computer_.get(), KTX_PROP_ALL_MAC_ADDRESS, addresses, 2));
        table_ = static_cast<char**>(property_->value);
    }
    Owned<_KVCIM_PROP> Copy() {
        _KVCIM_PROP* copy = nullptr;
        EXPECT_EQ(0, DuplicateProperty(property_, &copy));
        return Owned<_KVCIM_PROP>(copy);
    }

    Owned<_KVCIM_CLASS> computer_ = NewClass(KTX_CLS_COMPUTER_SYSTEM);
    _KVCIM_PROP* property_ = SearchProperty(computer_.get(), KTX_PROP_ALL_MAC_ADDRESS);
    char** table_ = nullptr;
};

TEST_F(MacAddresses, AreCopiedAsAnArray) {
    const auto copy = Copy();
    auto** const texts = static_cast<char**>(copy->value);
    EXPECT_STREQ("00:11", texts[0]);
    EXPECT_STREQ("22:33", texts[1]);
    EXPECT_EQ(reinterpret_cast<char*>(texts + 2), texts[0]);
}

TEST_F(MacAddresses, ATableThatLeavesItsBlockIsBytes) {
    char outside[] = "outside";
    char** const table = table_;
    const std::pair<int, char*> damages[] = {{0, outside},
                                             {1, outside},
                                             {1, nullptr},
                                             {0, reinterpret_cast<char*>(table) + 6},
                                             {1, reinterpret_cast<char*>(table) + 1},
                                             {0, *table + 4000},
                                             {1, reinterpret_cast<char*>(table) + malloc_usable_size(table)}};
    for (const auto& [index, pointer] : damages) {
        char* const whole = std::exchange(table_[index], pointer);
        EXPECT_EQ(0u, TextsOf(*property_).count);
        EXPECT_NE(nullptr, Copy()->value);
        table_[index] = whole;
    }
    EXPECT_EQ(2u, TextsOf(*property_).count);
}

TEST_F(MacAddresses, AnUnterminatedTextEndsWithItsBlock) {
    std::memset(table_, 'x', malloc_usable_size(table_));
    const auto copy = Copy();
    EXPECT_EQ(malloc_usable_size(table_), std::strlen(static_cast<char*>(copy->value)));
    EXPECT_EQ(0, SetPropertyStr(computer_.get(), KTX_PROP_ALL_MAC_ADDRESS, "00:11"));
    EXPECT_STREQ("00:11", static_cast<char*>(Copy()->value));
}

TEST(DataModel, CommandListKeepsTheOrder) {
    const uint32_t ids[] = {3, 60, 59};
    _PXR_COMMAND_LIST* head = nullptr;
    ASSERT_EQ(0, AllocCommandList(ids, 3, &head));
    std::vector<uint32_t> found;
    for (const _PXR_COMMAND_LIST* node = head; node != nullptr; node = node->next)
        found.push_back(node->classId);
    EXPECT_THAT(found, ElementsAre(3, 60, 59));
    FreeCommandList(head);
    EXPECT_EQ(0, AllocCommandList(nullptr, 0, &head));
    EXPECT_EQ(nullptr, head);
}

/// Lets each allocation of an operation fail in turn. Every time the operation gives one of the codes, stores nothing
/// in its output, and leaves no block behind.
template <class Output>
void FailEachAllocation(const std::function<int(Output**)>& operation, const std::function<void(Output*)>& release,
                        const std::vector<uint32_t>& codes, bool clearsOutput = false) {
    auto* const untouched = reinterpret_cast<Output*>(0x1000);
    for (int allowed = 0;; ++allowed) {
        ASSERT_LT(allowed, 100);
        Output* made = untouched;
        g_blockCount = 0;
        g_allocationsLeft = allowed;
        const int result = operation(&made);
        g_allocationsLeft = -1;
        if (result == 0) {
            EXPECT_LT(0, allowed);
            EXPECT_LT(0u, g_blockCount);
            release(made);
            EXPECT_EQ(0u, g_blockCount);
            return;
        }
        EXPECT_EQ(0u, g_blockCount) << "allocation " << allowed;
        EXPECT_THAT(codes, testing::Contains(Code(result)));
        EXPECT_EQ(clearsOutput ? nullptr : untouched, made);
    }
}

TEST(ExhaustedMemory, NothingHalfMadeIsLeft) {
    FailEachAllocation<_KVCIM_ENUM>([](auto out) { return CreateEnum(1, out); }, FreeEnum, {0x61861202});
    FailEachAllocation<_KVCIM_CLASS>([](auto out) { return CreateClass(12, out); }, FreeClass, {0x61881202}, true);
    const uint32_t ids[] = {1, 2, 3};
    FailEachAllocation<_PXR_COMMAND_LIST>([&](auto out) { return AllocCommandList(ids, 3, out); }, FreeCommandList,
                                          {0x61851202}, true);
    auto source = NewIrqs(2);
    source->nameSpace = strdup("space");
    FailEachAllocation<_KVCIM_ENUM>([&](auto out) { return DuplicateEnum(source.get(), out); }, FreeEnum,
                                    {0x61871202, 0x61891202, 0x618A1202});
    FailEachAllocation<_KVCIM_CLASS>([&](auto out) { return DuplicateClass(source->first, out); }, FreeClass,
                                     {0x61891202, 0x618A1202});
    _KVCIM_PROP* const device = SearchProperty(source->first, KTX_PROP_DEVICE);
    FailEachAllocation<_KVCIM_PROP>([&](auto out) { return DuplicateProperty(device, out); }, FreeProp, {0x618A1202});
}

TEST(ExhaustedMemory, ASetterLeavesThePropertyUndefined) {
    const auto e = NewIrqs(1);
    _KVCIM_CLASS* const irq = e->first;
    const char* const texts[] = {"a"};
    const uint32_t number = 1;
    const std::tuple<uint32_t, int, std::function<int()>> rows[] = {
        {0x618C1202, KTX_PROP_IRQ_NUMBER, [&] { return SetPropertyUint32(irq, KTX_PROP_IRQ_NUMBER, 2); }},
        {0x618B1202, KTX_PROP_DEVICE, [&] { return SetPropertyStr(irq, KTX_PROP_DEVICE, "x"); }},
        {0x618D1202, KTX_PROP_DEVICE, [&] { return SetPropertyArray(irq, KTX_PROP_DEVICE, texts, 1); }},
        {0x618E1202, KTX_PROP_INDEX, [&] { return SetPropertyArray(irq, KTX_PROP_INDEX, &number, 1); }}};
    for (const auto& [code, property, set] : rows) {
        ASSERT_EQ(0, set());
        g_allocationsLeft = 0;
        EXPECT_EQ(code, Code(set()));
        g_allocationsLeft = -1;
        EXPECT_EQ(nullptr, ValueOf(irq, property));
    }
}

void InRootWithTrace(const std::function<void(Tracing&)>& body) {
    RunInRoot(MakeTestRoot(), [&] {
        Tracing tracing;
        body(tracing);
    });
}

TEST(DataModelTrace, EnumerationLineByLine) {
    InRootWithTrace([](Tracing& tracing) {
        Owned<_KVCIM_ENUM> e;
        EXPECT_THAT(tracing.LinesOf([&] { e = NewIrqs(1); }), ElementsAre("1000 20 1 Class30 have 5 properties."));
        SetPropertyUint32(e->first, KTX_PROP_IRQ_NUMBER, 0xABCDE);
        EXPECT_THAT(tracing.LinesOf([] { TraceEnum(0x2000, nullptr); }), testing::IsEmpty());
        const std::string property = "2000 20 0         Property: ";
        EXPECT_THAT(tracing.LinesOf([&] { TraceEnum(0x2000, e.get()); }),
                    ElementsAre("2000 20 0 Enum: namespace=(none) class=30(KTX_CLS_IRQ) classcount=1\n",
                                "2000 20 0     Class: propcount=5\n",
                                property + "propcode=94(KTX_PROP_IRQ_NUMBER) type=4(PROP_TYPE_UINT32) value=000abcde",
                                property + "propcode=90(KTX_PROP_INDEX) type=4(PROP_TYPE_UINT32) value=UNDEFINE\n",
                                property + "propcode=91(KTX_PROP_DEVICE) type=0(PROP_TYPE_STRING) value=\"dev1\"",
                                property + "propcode=92(KTX_PROP_TYPE_CODE) type=4(PROP_TYPE_UINT32) value=UNDEFINE\n",
                                property + "propcode=93(KTX_PROP_TYPE_STRING) type=0(PROP_TYPE_STRING) "
                                           "value=UNDEFINE\n"));
        FreeEnumContents(e.get());
        e->nameSpace = strdup("root");
        e->classId = KTX_CLS_ALERT_RECORD;
        EXPECT_THAT(tracing.LinesOf([&] { TraceEnum(0x2000, e.get()); }),
                    ElementsAre("2000 30 0 Enum: namespace=root class=45(KTX_CLS_ALERT_RECORD) classcount=0\n"));
    });
}

TEST(DataModelTrace, OtherTypesArraysAndLongTexts) {
    InRootWithTrace([](Tracing& tracing) {
        const auto traced = [&](_KVCIM_CLASS* c, int code) {
            _KVCIM_PROP alone = *SearchProperty(c, code);
            alone.next = nullptr;
            const auto lines = tracing.LinesOf([&] { TraceProp(0x1000, &alone, 7); });
            return lines.size() == 1 ? lines[0].substr(lines[0].find("type=")) : "";
        };
        const auto cod = NewClass(KTX_CLS_COD_INFO);
        SetProperyUint8(cod.get(), KTX_PROP_FIRM_REV1, 0xA);
        EXPECT_EQ("type=2(PROP_TYPE_UINT8) value=0x0A", traced(cod.get(), KTX_PROP_FIRM_REV1));
        const auto disk = NewClass(KTX_CLS_FILE_SYSTEM);
        SetPropertyUint64(disk.get(), KTX_PROP_TOTAL_SIZE, 0x1F00000000);
        EXPECT_EQ("type=5(PROP_TYPE_UINT64) value=0000001f00000000", traced(disk.get(), KTX_PROP_TOTAL_SIZE));
        const auto computer = NewClass(KTX_CLS_COMPUTER_SYSTEM);
        const char* const addresses[] = {"00:11", "22:33"};
        SetPropertyArray(computer.get(), KTX_PROP_ALL_MAC_ADDRESS, addresses, 2);
        EXPECT_EQ(R"(type=0(PROP_TYPE_STRING) value="00:11" "22:33")",
                  traced(computer.get(), KTX_PROP_ALL_MAC_ADDRESS));
        SetPropertyStr(computer.get(), KTX_PROP_ALL_MAC_ADDRESS, std::string(1000, '%').c_str());
        const auto lines = tracing.LinesOf([&] { TraceProp(0x1000, computer->last, 7); });
        ASSERT_EQ(1u, lines.size());
        EXPECT_EQ(256u, lines[0].size() - std::strlen("1000 7 0 "));
    });
}

TEST(DataModelTrace, FailuresAreReportedOnce) {
    InRootWithTrace([](Tracing& tracing) {
        const auto c = NewClass(KTX_CLS_IRQ);
        char missing[64];
        std::snprintf(missing, sizeof missing, "1000 5 1 Missing Property:%p-21.", static_cast<void*>(c.get()));
        EXPECT_THAT(tracing.LinesOf([&] { SetPropertyUint32(c.get(), KTX_PROP_FAN_NO, 1); }),
                    ElementsAre(testing::StartsWith("1000 0 1 QNTR 64202-C 18C "), missing));
        EXPECT_THAT(tracing.LinesOf([] { CreateClass(61, nullptr); }),
                    ElementsAre(testing::StartsWith("1000 0 1 QNTR 64202-C 188 ")));
    });
}

}  // namespace
