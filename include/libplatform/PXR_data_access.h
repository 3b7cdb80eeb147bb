#pragma once
/// @file
/// The class data model: the records in which every answer of the library is built, and the functions that make, fill,
/// copy, search, free and trace them.
///
/// A request is one enumeration (_KVCIM_ENUM): the instances of one class. An instance (_KVCIM_CLASS) has exactly the
/// properties of its class's template, in template order; setters change values only. A property without a value is
/// undefined.
/// @code
///     _KVCIM_CLASS* irq = NULL;
///     const int error = CreateClass(KTX_CLS_IRQ, &irq);
///     if (error != 0) return error;
///     SetPropertyUint32(irq, KTX_PROP_IRQ_NUMBER, 9);
///     SetPropertyStr(irq, KTX_PROP_DEVICE, "acpi");
///     return InsertClass(e, irq);  // e owns irq from here on
/// @endcode
///
/// Every record, value and text is a block of the process heap (malloc), its size rounded up to a multiple of 8, so
/// either side of the interface may free what the other made.
///
/// Functions that return int give 0 or a result code, which has been traced by then. The reasons (low 16 bits) are
/// 0x1202 memory exhausted, 0x4201 a required pointer is null, 0x4202 no such class or property. An output pointer is
/// written on success only, unless its function says otherwise.
///
/// No function locks: an enumeration belongs to the one request that fills it.

#include "libplatform/KvExport.h"
#include "libplatform/PXR_data_codes.h"

/// One property of an instance.
///
/// A single value is a block of 1 byte (UINT8, SINT8), 4 bytes (the 16-bit types, widened, and the 32-bit ones), 8
/// bytes (the 64-bit types) or a text with its terminator (STRING, TIME). An array value is a block of such elements;
/// an array of texts is one block too: a table of pointers, then the texts they point to. The number of elements is
/// recorded nowhere, the reader has to know it.
typedef struct _KVCIM_PROP {
    uint32_t code;  ///< KTX_PROP_*
    void* value;    ///< null: undefined
    uint32_t type;  ///< PROP_TYPE_*
    struct _KVCIM_PROP* next;
} _KVCIM_PROP;

/// One instance of a class.
typedef struct _KVCIM_CLASS {
    uint32_t propCount;         ///< length of the property list
    struct _KVCIM_CLASS* next;  ///< next instance of the enumeration
    _KVCIM_PROP* first;
    _KVCIM_PROP* last;  ///< null exactly when first is
} _KVCIM_CLASS;

/// All instances of one class.
typedef struct _KVCIM_ENUM {
    char* nameSpace;      ///< owned; null: none. The library never sets it
    uint32_t classId;     ///< KTX_CLS_* of every instance
    uint32_t classCount;  ///< length of the instance list
    _KVCIM_CLASS* first;
    _KVCIM_CLASS* last;  ///< null exactly when first is
} _KVCIM_ENUM;

/// One class that a library serves.
typedef struct _PXR_COMMAND_LIST {
    uint32_t classId;
    struct _PXR_COMMAND_LIST* next;
} _PXR_COMMAND_LIST;

KV_STATIC_ASSERT(sizeof(_KVCIM_PROP) == 16 && offsetof(_KVCIM_PROP, code) == 0 && offsetof(_KVCIM_PROP, value) == 4 &&
                 offsetof(_KVCIM_PROP, type) == 8 && offsetof(_KVCIM_PROP, next) == 12);
KV_STATIC_ASSERT(sizeof(_KVCIM_CLASS) == 16 && offsetof(_KVCIM_CLASS, propCount) == 0 &&
                 offsetof(_KVCIM_CLASS, next) == 4 && offsetof(_KVCIM_CLASS, first) == 8 &&
                 offsetof(_KVCIM_CLASS, last) == 12);
KV_STATIC_ASSERT(sizeof(_KVCIM_ENUM) == 20 && offsetof(_KVCIM_ENUM, nameSpace) == 0 &&
                 offsetof(_KVCIM_ENUM, classId) == 4 && offsetof(_KVCIM_ENUM, classCount) == 8 &&
                 offsetof(_KVCIM_ENUM, first) == 12 && offsetof(_KVCIM_ENUM, last) == 16);
KV_STATIC_ASSERT(sizeof(_PXR_COMMAND_LIST) == 8 && offsetof(_PXR_COMMAND_LIST, classId) == 0 &&
                 offsetof(_PXR_COMMAND_LIST, next) == 4);

KV_EXTERN_C_BEGIN

/// @name Creation
/// @{

/// Makes an empty enumeration; the caller releases it with FreeEnum.
/// @return 0; 0x61861202
KV_EXPORT int CreateEnum(uint32_t classId, _KVCIM_ENUM** out);

/// Makes an instance with every property of the class, all undefined. The caller inserts it or releases it with
/// FreeClass.
/// @return 0; 0x61884202 no such class; 0x61881202, *out is null then
KV_EXPORT int CreateClass(int classId, _KVCIM_CLASS** out);

/// Appends an instance to the enumeration, which owns it from then on. An instance belongs to one enumeration, once.
/// @return 0; 0x618F4201, nothing is changed then and c is still the caller's
KV_EXPORT int InsertClass(_KVCIM_ENUM* e, _KVCIM_CLASS* c);

/// @}
/// @name Values
/// A setter replaces the value and releases the old one, which the new one may be copied from. When memory is exhausted
/// the property is left undefined.
/// @{

/// Sets a property from memory, reading what its type says: a text, 1 byte, a 32-bit word (the 16-bit types too) or 8
/// bytes. Null makes the property undefined. A property of unknown type is left as it is.
/// @return 0; 0x618C4201; 0x618C4202; 0x618C1202; 0x618B1202 for a text
KV_EXPORT int SetProperty(_KVCIM_CLASS* c, int propCode, const void* value);

/// Stores a copy of the text s in p, whatever its type; null makes it undefined.
/// @return 0; 0x618B4201; 0x618B1202
KV_EXPORT int SetPropertyString(_KVCIM_PROP* p, const char* s);

/// SetProperty by value. The property's type, not the function's, decides what is stored: where they differ, a number
/// goes in widened to 64 bits, lowest byte first, and a text as its first bytes, followed by zeros.
/// @return as SetProperty
KV_EXPORT int SetPropertyStr(_KVCIM_CLASS* c, int propCode, const char* v);
KV_EXPORT int SetPropertyTime(_KVCIM_CLASS* c, int propCode, const char* v);
KV_EXPORT int SetProperyUint8(_KVCIM_CLASS* c, int propCode, uint8_t v);
KV_EXPORT int SetPropertyUint16(_KVCIM_CLASS* c, int propCode, uint16_t v);
KV_EXPORT int SetPropertyUint32(_KVCIM_CLASS* c, int propCode, uint32_t v);
KV_EXPORT int SetPropertyUint64(_KVCIM_CLASS* c, int propCode, uint64_t v);
KV_EXPORT int SetProperySint8(_KVCIM_CLASS* c, int propCode, signed char v);
KV_EXPORT int SetPropertySint16(_KVCIM_CLASS* c, int propCode, int16_t v);
KV_EXPORT int SetPropertySint32(_KVCIM_CLASS* c, int propCode, int32_t v);
KV_EXPORT int SetPropertySint64(_KVCIM_CLASS* c, int propCode, int64_t v);

/// Sets a property to an array.
/// @param values  count elements of 1, 4 or 8 bytes by the property's type; for texts, count pointers (const char*
///                const*). Null makes the property undefined
/// @param count   0 makes the property undefined
/// @return 0; 0x618E4201; 0x618E4202; 0x618E1202; 0x618D1202 for texts
KV_EXPORT int SetPropertyArray(_KVCIM_CLASS* c, int propCode, const void* values, uint32_t count);

/// Stores count texts in p as one block, which a single free releases: the pointers, then the texts end to end. A null
/// pointer counts as "". Null or a count of 0 makes p undefined. The texts are only read.
/// @return 0; 0x618D4201; 0x618D1202
KV_EXPORT int SetPropertyStringArray(_KVCIM_PROP* p, char** strings, uint32_t count);

/// @}
/// @name Copies
/// Copies share nothing with the original. On failure everything copied so far is released.
/// @{

/// @return 0; 0x61874201; 0x61871202; the code of the instance that could not be copied
KV_EXPORT int DuplicateEnum(const _KVCIM_ENUM* src, _KVCIM_ENUM** out);

/// The copy belongs to no enumeration.
/// @return 0; 0x61894201; 0x61891202; the code of the property that could not be copied
KV_EXPORT int DuplicateClass(const _KVCIM_CLASS* src, _KVCIM_CLASS** out);

/// Copies one property. Of an array its first element is copied; the array of texts of KTX_PROP_ALL_MAC_ADDRESS, the
/// one that the library sets itself, is copied whole.
/// @return 0; 0x618A4201; 0x618A1202
KV_EXPORT int DuplicateProperty(const _KVCIM_PROP* src, _KVCIM_PROP** out);

/// @}
/// @name Reading
/// @{

/// @return the first property of c with that code, still owned by c; null when there is none or c is null
KV_EXPORT _KVCIM_PROP* SearchProperty(_KVCIM_CLASS* c, int propCode);

/// @return bytes of a single value: 4 (16- and 32-bit types), 8 (64-bit types), a text's length with its terminator;
///         0 for the 8-bit types, an undefined text and null
KV_EXPORT uint32_t GetPropertySize(const _KVCIM_PROP* p);

/// @}
/// @name Release
/// All of them accept null.
/// @{

/// Releases a property that is in no instance, and its value.
KV_EXPORT void FreeProp(_KVCIM_PROP* p);

/// Releases every property; the instance is left with none.
KV_EXPORT void FreeClassContents(_KVCIM_CLASS* c);

/// Releases an instance that is in no enumeration.
KV_EXPORT void FreeClass(_KVCIM_CLASS* c);

/// Releases every instance and the name space; the enumeration is left empty, its class id kept.
KV_EXPORT void FreeEnumContents(_KVCIM_ENUM* e);

KV_EXPORT void FreeEnum(_KVCIM_ENUM* e);

/// @}
/// @name Command list
/// @{

/// Makes a list of n class ids, in the order given; the caller releases it with FreeCommandList.
/// @param out  null is stored when n is 0 (or less) and when memory is exhausted
/// @return 0; 0x61854201; 0x61851202
KV_EXPORT int AllocCommandList(const uint32_t* ids, int n, _PXR_COMMAND_LIST** out);

KV_EXPORT void FreeCommandList(_PXR_COMMAND_LIST* head);

/// @}
/// @name Trace
/// Lines without a header (they continue the one before), each cut at 256 characters. Nothing while tracing is off.
/// @{

/// Traces the enumeration with all instances, at level 20; alert records, which are polled often, at level 30. Null
/// traces nothing.
KV_EXPORT void TraceEnum(int mask, const _KVCIM_ENUM* e);

/// Traces an instance and those after it.
KV_EXPORT void TraceClass(int mask, const _KVCIM_CLASS* first, int level);

/// Traces a property and those after it.
KV_EXPORT void TraceProp(int mask, const _KVCIM_PROP* first, int level);

/// @}

KV_EXTERN_C_END
