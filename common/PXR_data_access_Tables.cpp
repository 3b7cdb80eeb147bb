/// @file
/// Names and templates of the class data model, made from the lists in libplatform/PXR_data_codes.h.

#include <iterator>

#include "common/PXR_data_access_internal.h"

#define NAME(name, number) #name,
const char* const CimPropTypeStr[] = {PROP_TYPE_LIST(NAME)};
const char* const CimClassCodeStr[] = {KTX_CLASS_LIST(NAME)};
const char* const CimPropCodeStr[] = {KTX_PROPERTY_LIST(NAME)};
#undef NAME

namespace {

#define NUMBER(name, number) number,
constexpr uint32_t kPropTypeNumbers[] = {PROP_TYPE_LIST(NUMBER)};
constexpr uint32_t kClassNumbers[] = {KTX_CLASS_LIST(NUMBER)};
constexpr uint32_t kPropCodeNumbers[] = {KTX_PROPERTY_LIST(NUMBER)};
#undef NUMBER

// The tables are indexed by number, so a list may neither skip nor repeat one.
template <size_t kCount>
constexpr bool CountsFromZero(const uint32_t (&numbers)[kCount]) {
    for (size_t i = 0; i < kCount; ++i) {
        if (numbers[i] != i) return false;
    }
    return true;
}
static_assert(CountsFromZero(kPropTypeNumbers) && std::size(kPropTypeNumbers) == 10);
static_assert(CountsFromZero(kClassNumbers) && std::size(kClassNumbers) == 61);
static_assert(CountsFromZero(kPropCodeNumbers) && std::size(kPropCodeNumbers) == 214);

template <class... Entries>
constexpr std::array<ClassTemplateEntry, sizeof...(Entries)> Template(Entries... entries) {
    return {entries...};
}

#define PROP(code, type)                                     \
    ClassTemplateEntry {                                     \
        "KTX_PROP_" #code, KTX_PROP_##code, PROP_TYPE_##type \
    }
#include "common/PXR_data_access_Tables.inc"
#undef PROP

}  // namespace

const std::array<ClassTemplateEntry, 1> ProviderPropTemp = kTemplate_KTX_CLS_PROVIDER;

// One row per class of the list: a class without a template, or the other way round, does not compile.
#define ROW(name, number) {std::size(kTemplate_##name), kTemplate_##name.data()},
const ClassTemplate ClassTemplates[] = {KTX_CLASS_LIST(ROW)};
#undef ROW

namespace {

template <size_t kCount>
const char* NameAt(const char* const (&names)[kCount], uint32_t index) {
    return index < kCount ? names[index] : "unknown";
}

}  // namespace

const char* PropTypeName(uint32_t type) {
    return NameAt(CimPropTypeStr, type);
}

const char* ClassName(uint32_t classId) {
    return NameAt(CimClassCodeStr, classId);
}

const char* PropCodeName(uint32_t code) {
    return NameAt(CimPropCodeStr, code);
}
