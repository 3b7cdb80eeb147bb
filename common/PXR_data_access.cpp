/// @file
/// The class data model: making, filling, copying, searching and freeing enumerations.

#include "libplatform/PXR_data_access.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "common/PXR_data_access_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "libplatform/PXR_trace.h"
#include "libplatform/trace_protocol.h"

namespace {

template <auto kRelease>
struct Release {
    template <class T>
    void operator()(T* object) const {
        kRelease(object);
    }
};
using OwnedProp = std::unique_ptr<_KVCIM_PROP, Release<FreeProp>>;
using OwnedClass = std::unique_ptr<_KVCIM_CLASS, Release<FreeClass>>;
using OwnedEnum = std::unique_ptr<_KVCIM_ENUM, Release<FreeEnum>>;
using OwnedCommandList = std::unique_ptr<_PXR_COMMAND_LIST, Release<FreeCommandList>>;

int Fail(uint32_t function, Reason reason, std::source_location where = std::source_location::current()) {
    return static_cast<int>(PXR_ReportError(MakeResult(function, reason), where));
}

/// Zeroed memory of the rounded size; null when it is exhausted or the size exceeds what a block can hold.
void* Allocate(uint64_t bytes) {
    if (bytes > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return nullptr;
    return std::calloc(1, AdjustAlignmentSize(static_cast<uint32_t>(bytes)));
}

template <class Record>
Record* AllocateRecord() {
    return static_cast<Record*>(Allocate(sizeof(Record)));
}

char* CopyText(const char* text, size_t length) {
    auto* copy = static_cast<char*>(Allocate(uint64_t{length} + 1));
    if (copy != nullptr) std::memcpy(copy, text, length);
    return copy;
}

/// Appends to the list of an instance or an enumeration and counts.
template <class Owner, class Item>
void Append(Owner& owner, uint32_t& count, Item* item) {
    if (owner.last == nullptr) {
        owner.first = item;
    } else {
        owner.last->next = item;
    }
    owner.last = item;
    ++count;
}

template <class Item>
void FreeList(Item* item, void (*release)(Item*)) {
    while (item != nullptr) {
        Item* const next = item->next;
        release(item);
        item = next;
    }
}

_KVCIM_PROP* MakeProperty(uint32_t code, uint32_t type) {
    auto* p = AllocateRecord<_KVCIM_PROP>();
    if (p != nullptr) {
        p->code = code;
        p->type = type;
    }
    return p;
}

void SetUndefined(_KVCIM_PROP& p) {
    std::free(p.value);
    p.value = nullptr;
}

/// Puts a new block into the property, null for none. The old one goes only now, since the new one may have been copied
/// from it.
bool ReplaceValue(_KVCIM_PROP& p, void* block) {
    std::free(p.value);
    p.value = block;
    return block != nullptr;
}

int StoreText(_KVCIM_PROP& p, const char* text, size_t length) {
    if (!ReplaceValue(p, CopyText(text, length))) return Fail(fn::kSetPropertyString, Reason::OutOfMemory);
    return 0;
}

/// Stores size bytes, of which the first readable ones are taken from value; the others are 0.
int StoreScalar(_KVCIM_PROP& p, const void* value, size_t size, size_t readable) {
    void* const block = Allocate(size);
    if (block != nullptr) std::memcpy(block, value, size < readable ? size : readable);
    if (!ReplaceValue(p, block)) return Fail(fn::kSetProperty, Reason::OutOfMemory);
    return 0;
}

/// What SetProperty and its typed forms do. readable says how much of value is there: a typed form knows, while its
/// type and the property's may differ.
int SetFromMemory(_KVCIM_CLASS* c, int propCode, const void* value, size_t readable) {
    if (c == nullptr) return Fail(fn::kSetProperty, Reason::NullArgument);
    _KVCIM_PROP* const p = SearchProperty(c, propCode);
    if (p == nullptr) {
        const int result = Fail(fn::kSetProperty, Reason::BadArgument);
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_CALL, "Missing Property:%p-%d.", static_cast<void*>(c),
                  propCode);
        return result;
    }
    const uint32_t size = ScalarSize(p->type);
    if (!IsTextType(p->type) && size == 0) return 0;
    if (value == nullptr) {
        SetUndefined(*p);
        return 0;
    }
    if (size != 0) return StoreScalar(*p, value, size, readable);
    const auto* text = static_cast<const char*>(value);
    return StoreText(*p, text, strnlen(text, readable));
}

constexpr size_t kWholeValue = std::numeric_limits<size_t>::max();

int SetText(_KVCIM_CLASS* c, int propCode, const char* v) {
    return SetFromMemory(c, propCode, v, v != nullptr ? std::strlen(v) + 1 : 0);
}

/// Numbers are widened, so that a property of a wider type finds its bytes.
template <class Wide>
int SetNumber(_KVCIM_CLASS* c, int propCode, Wide v) {
    static_assert(sizeof(v) == 8);
    return SetFromMemory(c, propCode, &v, sizeof v);
}

/// Table and texts of an array of texts in one block; null when memory is exhausted.
void* PackTexts(char* const* texts, uint32_t count) {
    uint64_t bytes = uint64_t{count} * sizeof(char*);
    // A table that no block can hold is a wrong count: then the texts may not be there to be measured.
    if (bytes > static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) return nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        bytes += (texts[i] != nullptr ? std::strlen(texts[i]) : 0) + 1;
    }
    void* const block = Allocate(bytes);
    if (block == nullptr) return nullptr;
    auto** const table = static_cast<char**>(block);
    char* end = reinterpret_cast<char*>(table + count);
    for (uint32_t i = 0; i < count; ++i) {
        table[i] = end;
        const char* const text = texts[i] != nullptr ? texts[i] : "";
        const size_t size = std::strlen(text) + 1;
        std::memcpy(end, text, size);
        end += size;
    }
    return block;
}

/// A copy of the value block as far as the record tells its size; null when memory is exhausted.
void* CopyValue(const _KVCIM_PROP& p) {
    if (const TextArray array = TextsOf(p); array.count != 0) return PackTexts(array.texts, array.count);
    if (IsTextType(p.type)) return CopyText(static_cast<const char*>(p.value), TextLength(p));
    const uint32_t size = ScalarSize(p.type);
    void* const block = Allocate(size);
    if (block != nullptr) std::memcpy(block, p.value, size);
    return block;
}

}  // namespace

uint32_t AdjustAlignmentSize(uint32_t size) {
    constexpr uint32_t kLowBits = 7;
    constexpr uint32_t kHighest = ~kLowBits;
    return size > kHighest ? kHighest : (size + kLowBits) & ~kLowBits;
}

int CreateEnum(uint32_t classId, _KVCIM_ENUM** out) {
    if (out == nullptr) return Fail(fn::kCreateEnum, Reason::NullArgument);
    auto* const e = AllocateRecord<_KVCIM_ENUM>();
    if (e == nullptr) return Fail(fn::kCreateEnum, Reason::OutOfMemory);
    e->classId = classId;
    *out = e;
    return 0;
}

int CreateClass(int classId, _KVCIM_CLASS** out) {
    if (classId < 0 || classId >= KTX_CLASS_COUNT) return Fail(fn::kCreateClass, Reason::BadArgument);
    if (out == nullptr) return Fail(fn::kCreateClass, Reason::NullArgument);
    *out = nullptr;
    OwnedClass c(AllocateRecord<_KVCIM_CLASS>());
    if (!c) return Fail(fn::kCreateClass, Reason::OutOfMemory);
    const ClassTemplate& classTemplate = ClassTemplates[classId];
    for (uint32_t i = 0; i < classTemplate.count; ++i) {
        _KVCIM_PROP* const p = MakeProperty(classTemplate.properties[i].code, classTemplate.properties[i].type);
        if (p == nullptr) return Fail(fn::kCreateClass, Reason::OutOfMemory);
        Append(*c, c->propCount, p);
    }
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_FINE, "Class%d have %d properties.", classId,
              static_cast<int>(c->propCount));
    *out = c.release();
    return 0;
}

int InsertClass(_KVCIM_ENUM* e, _KVCIM_CLASS* c) {
    if (e == nullptr || c == nullptr) return Fail(fn::kInsertClass, Reason::NullArgument);
    c->next = nullptr;
    Append(*e, e->classCount, c);
    return 0;
}

int SetProperty(_KVCIM_CLASS* c, int propCode, const void* value) {
    return SetFromMemory(c, propCode, value, kWholeValue);
}

int SetPropertyString(_KVCIM_PROP* p, const char* s) {
    if (p == nullptr) return Fail(fn::kSetPropertyString, Reason::NullArgument);
    if (s == nullptr) {
        SetUndefined(*p);
        return 0;
    }
    return StoreText(*p, s, std::strlen(s));
}

int SetPropertyStr(_KVCIM_CLASS* c, int propCode, const char* v) {
    return SetText(c, propCode, v);
}

int SetPropertyTime(_KVCIM_CLASS* c, int propCode, const char* v) {
    return SetText(c, propCode, v);
}

int SetProperyUint8(_KVCIM_CLASS* c, int propCode, uint8_t v) {
    return SetNumber<uint64_t>(c, propCode, v);
}

int SetPropertyUint16(_KVCIM_CLASS* c, int propCode, uint16_t v) {
    return SetNumber<uint64_t>(c, propCode, v);
}

int SetPropertyUint32(_KVCIM_CLASS* c, int propCode, uint32_t v) {
    return SetNumber<uint64_t>(c, propCode, v);
}

int SetPropertyUint64(_KVCIM_CLASS* c, int propCode, uint64_t v) {
    return SetNumber<uint64_t>(c, propCode, v);
}

int SetProperySint8(_KVCIM_CLASS* c, int propCode, signed char v) {
    return SetNumber<int64_t>(c, propCode, v);
}

int SetPropertySint16(_KVCIM_CLASS* c, int propCode, int16_t v) {
    return SetNumber<int64_t>(c, propCode, v);
}

int SetPropertySint32(_KVCIM_CLASS* c, int propCode, int32_t v) {
    return SetNumber<int64_t>(c, propCode, v);
}

int SetPropertySint64(_KVCIM_CLASS* c, int propCode, int64_t v) {
    return SetNumber<int64_t>(c, propCode, v);
}

int SetPropertyArray(_KVCIM_CLASS* c, int propCode, const void* values, uint32_t count) {
    if (c == nullptr) return Fail(fn::kSetPropertyArray, Reason::NullArgument);
    _KVCIM_PROP* const p = SearchProperty(c, propCode);
    if (p == nullptr) return Fail(fn::kSetPropertyArray, Reason::BadArgument);
    const uint32_t size = ScalarSize(p->type);
    if (!IsTextType(p->type) && size == 0) return 0;
    if (values == nullptr || count == 0) {
        SetUndefined(*p);
        return 0;
    }
    if (size == 0) return SetPropertyStringArray(p, static_cast<char**>(const_cast<void*>(values)), count);
    const uint64_t bytes = uint64_t{count} * size;
    void* const block = Allocate(bytes);
    if (block != nullptr) std::memcpy(block, values, static_cast<size_t>(bytes));
    if (!ReplaceValue(*p, block)) return Fail(fn::kSetPropertyArray, Reason::OutOfMemory);
    return 0;
}

int SetPropertyStringArray(_KVCIM_PROP* p, char** strings, uint32_t count) {
    if (p == nullptr) return Fail(fn::kSetPropertyStringArray, Reason::NullArgument);
    if (strings == nullptr || count == 0) {
        SetUndefined(*p);
        return 0;
    }
    if (!ReplaceValue(*p, PackTexts(strings, count))) return Fail(fn::kSetPropertyStringArray, Reason::OutOfMemory);
    return 0;
}

int DuplicateEnum(const _KVCIM_ENUM* src, _KVCIM_ENUM** out) {
    if (src == nullptr || out == nullptr) return Fail(fn::kDuplicateEnum, Reason::NullArgument);
    OwnedEnum copy(AllocateRecord<_KVCIM_ENUM>());
    if (!copy) return Fail(fn::kDuplicateEnum, Reason::OutOfMemory);
    copy->classId = src->classId;
    if (src->nameSpace != nullptr) {
        copy->nameSpace = CopyText(src->nameSpace, std::strlen(src->nameSpace));
        if (copy->nameSpace == nullptr) return Fail(fn::kDuplicateEnum, Reason::OutOfMemory);
    }
    for (const _KVCIM_CLASS* c = src->first; c != nullptr; c = c->next) {
        _KVCIM_CLASS* classCopy = nullptr;
        if (const int error = DuplicateClass(c, &classCopy)) return error;
        Append(*copy, copy->classCount, classCopy);
    }
    *out = copy.release();
    return 0;
}

int DuplicateClass(const _KVCIM_CLASS* src, _KVCIM_CLASS** out) {
    if (src == nullptr || out == nullptr) return Fail(fn::kDuplicateClass, Reason::NullArgument);
    OwnedClass copy(AllocateRecord<_KVCIM_CLASS>());
    if (!copy) return Fail(fn::kDuplicateClass, Reason::OutOfMemory);
    for (const _KVCIM_PROP* p = src->first; p != nullptr; p = p->next) {
        _KVCIM_PROP* propCopy = nullptr;
        if (const int error = DuplicateProperty(p, &propCopy)) return error;
        Append(*copy, copy->propCount, propCopy);
    }
    *out = copy.release();
    return 0;
}

int DuplicateProperty(const _KVCIM_PROP* src, _KVCIM_PROP** out) {
    if (src == nullptr || out == nullptr) return Fail(fn::kDuplicateProperty, Reason::NullArgument);
    OwnedProp copy(MakeProperty(src->code, src->type));
    if (!copy) return Fail(fn::kDuplicateProperty, Reason::OutOfMemory);
    const bool known = IsTextType(src->type) || ScalarSize(src->type) != 0;
    if (src->value != nullptr && known) {
        copy->value = CopyValue(*src);
        if (copy->value == nullptr) return Fail(fn::kDuplicateProperty, Reason::OutOfMemory);
    }
    *out = copy.release();
    return 0;
}

_KVCIM_PROP* SearchProperty(_KVCIM_CLASS* c, int propCode) {
    if (c == nullptr) return nullptr;
    _KVCIM_PROP* p = c->first;
    while (p != nullptr && p->code != static_cast<uint32_t>(propCode)) {
        p = p->next;
    }
    return p;
}

uint32_t GetPropertySize(const _KVCIM_PROP* p) {
    if (p == nullptr) return 0;
    if (IsTextType(p->type)) {
        return p->value != nullptr ? static_cast<uint32_t>(std::strlen(static_cast<const char*>(p->value)) + 1) : 0;
    }
    const uint32_t size = ScalarSize(p->type);
    return size == 1 ? 0 : size;
}

void FreeProp(_KVCIM_PROP* p) {
    if (p == nullptr) return;
    std::free(p->value);
    std::free(p);
}

void FreeClassContents(_KVCIM_CLASS* c) {
    if (c == nullptr) return;
    FreeList(c->first, FreeProp);
    c->propCount = 0;
    c->first = nullptr;
    c->last = nullptr;
}

void FreeClass(_KVCIM_CLASS* c) {
    FreeClassContents(c);
    std::free(c);
}

void FreeEnumContents(_KVCIM_ENUM* e) {
    if (e == nullptr) return;
    FreeList(e->first, FreeClass);
    e->classCount = 0;
    e->first = nullptr;
    e->last = nullptr;
    std::free(e->nameSpace);
    e->nameSpace = nullptr;
}

void FreeEnum(_KVCIM_ENUM* e) {
    FreeEnumContents(e);
    std::free(e);
}

int AllocCommandList(const uint32_t* ids, int n, _PXR_COMMAND_LIST** out) {
    if (out == nullptr || (ids == nullptr && n > 0)) return Fail(fn::kAllocCommandList, Reason::NullArgument);
    *out = nullptr;
    if (ids == nullptr) return 0;
    OwnedCommandList head;
    // Built from the end, each node in front of the ones that follow it.
    for (int i = n - 1; i >= 0; --i) {
        auto* const node = AllocateRecord<_PXR_COMMAND_LIST>();
        if (node == nullptr) return Fail(fn::kAllocCommandList, Reason::OutOfMemory);
        node->classId = ids[i];
        node->next = head.release();
        head.reset(node);
    }
    *out = head.release();
    return 0;
}

void FreeCommandList(_PXR_COMMAND_LIST* head) {
    FreeList(
        head, +[](_PXR_COMMAND_LIST* node) { std::free(node); });
}
