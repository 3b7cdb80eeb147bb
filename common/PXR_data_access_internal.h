#pragma once
/// @file
/// Tables of the class data model, and what the files of PXR_data_access share.

#include <array>
#include <cstddef>
#include <cstdint>

#include "libplatform/PXR_data_access.h"

/// One property of a class's template.
struct ClassTemplateEntry {
    const char* name;
    uint32_t code;
    uint32_t type;
};

/// The properties that every instance of a class has, in this order.
struct ClassTemplate {
    uint32_t count;
    const ClassTemplateEntry* properties;
};

/// Printed names; the index is the number.
extern const char* const CimPropTypeStr[PROP_TYPE_COUNT];
extern const char* const CimClassCodeStr[KTX_CLASS_COUNT];
extern const char* const CimPropCodeStr[KTX_PROPERTY_COUNT];

/// The index is the class id.
extern const ClassTemplate ClassTemplates[KTX_CLASS_COUNT];
extern const std::array<ClassTemplateEntry, 1> ProviderPropTemp;

/// Printed name of a number that may come from outside: "unknown" when there is none.
const char* PropTypeName(uint32_t type);
const char* ClassName(uint32_t classId);
const char* PropCodeName(uint32_t code);

/// Rounds a size up to a multiple of 8. A size that has none in 32 bits gives the highest multiple, which no allocation
/// can satisfy.
extern "C" uint32_t AdjustAlignmentSize(uint32_t size);

/// Types whose value is a text.
constexpr bool IsTextType(uint32_t type) {
    return type == PROP_TYPE_STRING || type == PROP_TYPE_TIME;
}

/// Bytes of one value of a type; 0 for texts, whose length varies, and for unknown types.
constexpr uint32_t ScalarSize(uint32_t type) {
    switch (type) {
        case PROP_TYPE_UINT8:
        case PROP_TYPE_SINT8:
            return 1;
        case PROP_TYPE_UINT16:
        case PROP_TYPE_SINT16:
        case PROP_TYPE_UINT32:
        case PROP_TYPE_SINT32:
            return 4;
        case PROP_TYPE_UINT64:
        case PROP_TYPE_SINT64:
            return 8;
        default:
            return 0;
    }
}

/// A value block that may be an array of texts. The record does not say so; it is one when its code is
/// KTX_PROP_ALL_MAC_ADDRESS and the block begins with a table of pointers, the first to the byte right behind the table
/// and every one to a text that ends inside the block.
struct TextArray {
    char* const* texts = nullptr;  ///< in the block
    uint32_t count = 0;            ///< 0: no array of texts
};
TextArray TextsOf(const _KVCIM_PROP& p);

/// Length of the single text that a text property holds, without its terminator. Where the block may be an array of
/// texts it ends with the block.
size_t TextLength(const _KVCIM_PROP& p);
