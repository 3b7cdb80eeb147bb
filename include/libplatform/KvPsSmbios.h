#pragma once
/// @file
/// What the machine's firmware says about it: the SMBIOS structures, copied by InitLib. The copy stays as it is until
/// TerminateLib, so the queries may be called by any thread in between.
///
/// @code
///     unsigned long count = 0;
///     KVPS_SMBIOS_TPHEAD** devices = NULL;
///     if (KvPsGetTypeData(17, &count, &devices) != 0) return;
///     for (unsigned long i = 0; i < count; ++i) {
///         char locator[64] = "";
///         KvPsGetSmbiosString(devices[i], 0x10, sizeof(locator), locator);
///     }
///     KvPsFreeTypeData(devices);
/// @endcode

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// The entry point, as it lies in the firmware's memory.
typedef struct __attribute__((packed)) KVPS_SMBIOS_HEAD {
    char anchor[4];  ///< "_SM_"
    uint8_t checksum;
    uint8_t length;  ///< of the entry point
    uint8_t majorVersion;
    uint8_t minorVersion;
    uint16_t maxStructureSize;
    uint8_t revision;
    uint8_t formattedArea[5];
    char intermediateAnchor[5];  ///< "_DMI_"
    uint8_t intermediateChecksum;
    uint16_t tableLength;   ///< bytes
    uint32_t tableAddress;  ///< physical; 0 when the operating system's copy of the table is used
    uint16_t structureCount;
    uint8_t bcdRevision;
    uint8_t unused;
} KVPS_SMBIOS_HEAD;

/// One structure: a size, then the bytes as they lie in memory - formatted area (from `type`, `length` bytes long),
/// then the strings up to the NUL of the last one. Field offsets count from `type`. A damaged table may hold a `length`
/// that is longer than the data; 64 zero bytes follow the data.
typedef struct KVPS_SMBIOS_TPHEAD {
    uint32_t dataSize;  ///< of all that is here, these 4 bytes included
    uint8_t type;
    uint8_t length;
    uint16_t handle;
} KVPS_SMBIOS_TPHEAD;

KV_STATIC_ASSERT(sizeof(KVPS_SMBIOS_HEAD) == 32 && offsetof(KVPS_SMBIOS_HEAD, maxStructureSize) == 8);
KV_STATIC_ASSERT(offsetof(KVPS_SMBIOS_HEAD, intermediateAnchor) == 16 && offsetof(KVPS_SMBIOS_HEAD, tableLength) == 22);
KV_STATIC_ASSERT(offsetof(KVPS_SMBIOS_HEAD, tableAddress) == 24 && offsetof(KVPS_SMBIOS_HEAD, structureCount) == 28);
KV_STATIC_ASSERT(sizeof(KVPS_SMBIOS_TPHEAD) == 8 && offsetof(KVPS_SMBIOS_TPHEAD, handle) == 6);

/// Types that are copied are below this; larger ones are the vendor's own.
#define KVPS_SMBIOS_TYPES 128
/// The type that stands for all structures.
#define KVPS_SMBIOS_ALL_TYPES 255
/// Size of the text that KvPsGetSystemInformation gives.
#define KVPS_SMBIOS_TEXT_SIZE 257

/// Copies all structures of types 0 to 127. InitLib calls it, after it has found the table; a host has no need to. A
/// copy from an earlier call is freed, and with it every structure that was handed out: by then no other thread may
/// query.
/// @return 0; 0x6118B802 the table cannot be had, queries then answer from what was copied
KV_EXPORT uint32_t KvPsInitializeSmbios(void);

/// Frees the copy, and stops the table reader. TerminateLib calls it. @return 0
KV_EXPORT uint32_t KvPsTerminateSmbios(void);

/// Copies the entry point; zeroes before InitLib. @return 0
KV_EXPORT uint32_t KvPsGetStructureHeader(KVPS_SMBIOS_HEAD* out);

/// Gives the structures of a type in the order of their handles.
/// @param type   0 to 127, or KVPS_SMBIOS_ALL_TYPES
/// @param count  receives their number
/// @param array  receives the array, which KvPsFreeTypeData frees (it comes from C++'s operator new[]); null when there
///               is none. The structures in it stay the library's.
/// @return 0, also when there is none; 0x611A4202 type 128 to 254, or a null argument; 0x611A1202 out of memory
KV_EXPORT uint32_t KvPsGetTypeData(uint8_t type, unsigned long* count, KVPS_SMBIOS_TPHEAD*** array);
/// Frees the array, not the structures; null is fine.
KV_EXPORT void KvPsFreeTypeData(KVPS_SMBIOS_TPHEAD** array);

/// Gives a field of the first System Information structure as text: its string, or for offset 8 the UUID, 36 characters
/// in stored order.
/// @param offset  5 product name, 6 version, 8 UUID; at most 24
/// @param out     receives KVPS_SMBIOS_TEXT_SIZE bytes (operator new[]), which KvPsFreeSystemInformation frees
/// @return 0; 0x60D04202 bad argument; 0x60D0B802 no such structure or field; 0x60D01202 out of memory
KV_EXPORT uint32_t KvPsGetSystemInformation(uint8_t offset, char** out);
/// Frees such a text; null is fine.
KV_EXPORT void KvPsFreeSystemInformation(char* text);

/// Copies the string that a field names by its number, cut to fit, with zeroes behind it. A field that names no string
/// (number 0, or one that is not there) leaves the buffer as it was.
/// @param offset  of the field
/// @param size    of the buffer, in bytes
/// @return 0; 0x60984201 null argument or size 0; 0x60981302 the structure has no such field, or no strings
KV_EXPORT uint32_t KvPsGetSmbiosString(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t size,
                                       char* buffer);

/// Copies bytes of a structure. What lies behind its data reads as zero.
/// @return 0; 0x60D24202 null argument, or the structure has no such field
KV_EXPORT uint32_t KvPsGetSmbiosMultiByte(const KVPS_SMBIOS_TPHEAD* structure, uint8_t offset, uint32_t length,
                                          uint8_t* buffer);

KV_EXTERN_C_END
