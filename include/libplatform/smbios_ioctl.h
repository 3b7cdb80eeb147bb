#pragma once
/// @file
/// Requests to the SMBIOS table reader: one entry, smbios_ioctl, and one block per request. The first field of every
/// block is its status; a call that returns 0 has been carried out, and the status says what it found.
///
/// @code
///     uint32_t count = 0;
///     smbios_gettable_block block;
///     block.mode = SMBIOS_TABLE_BY_INDEX;
///     block.type = 17;  // memory devices
///     block.index = 0;  // 0: how many are there?
///     block.buffer = &count;
///     block.size = sizeof(count);
///     if (smbios_ioctl(SMBIOS_GETTABLE, &block) == 0 && block.status == SMBIOS_STATUS_OK) {
///         printf("%u memory devices\n", (unsigned)count);
///     }
/// @endcode
///
/// Any thread may call, between InitLib and TerminateLib.

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// Request codes.
#define SMBIOS_GETINFO 1
#define SMBIOS_GETTABLE 2
#define SMBIOS_GETPCI 4

enum smbios_status {
    SMBIOS_STATUS_OK = 0,
    SMBIOS_STATUS_MODE = -1,    ///< unknown mode
    SMBIOS_STATUS_TYPE = -10,   ///< no structure of the type
    SMBIOS_STATUS_INDEX = -11,  ///< no structure with the index or handle
};

enum smbios_info_mode {
    SMBIOS_INFO_ENTRY_POINT = 1,
    SMBIOS_INFO_MAX_SIZE = 2,  ///< 4 bytes: what a slot of SMBIOS_TABLE_RUN must hold for the largest structure
};

enum smbios_table_mode {
    SMBIOS_TABLE_RUN = 1,        ///< structures from index on, at most count of them
    SMBIOS_TABLE_BY_INDEX = 2,   ///< index from 1; index 0: the number of structures of the type (4 bytes)
    SMBIOS_TABLE_BY_HANDLE = 3,  ///< index is the handle
};

/// Bytes before the structure in each slot of SMBIOS_TABLE_RUN: its size (u16), then zeroes.
#define SMBIOS_SLOT_HEADER 8

/// The only mode of SMBIOS_GETPCI.
#define SMBIOS_PCI_SLOTS 2
/// Bytes of one slot entry of the PCI interrupt routing table: bus, device (upper five bits), links, slot number (14).
#define SMBIOS_PCI_ENTRY_SIZE 16

/// SMBIOS_GETINFO.
typedef struct smbios_getinfo_block {
    int32_t status;
    uint32_t mode;
    uint32_t unused[9];
    void* buffer;
    uint32_t size;  ///< in: of the buffer; out: bytes that there are
    uint32_t unused2[2];
} smbios_getinfo_block;

/// SMBIOS_GETTABLE. Structures of a type are counted from 1 in the order of their handles.
typedef struct smbios_gettable_block {
    int32_t status;
    uint32_t mode;
    uint16_t type;
    uint16_t index;  ///< or handle
    uint32_t unused;
    void* buffer;
    uint32_t size;   ///< in: of the buffer (SMBIOS_TABLE_RUN: of one slot, at least 8); out: size of the structure
    uint32_t count;  ///< SMBIOS_TABLE_RUN only; in: slots in the buffer; out: slots filled
} smbios_gettable_block;

/// SMBIOS_GETPCI.
typedef struct smbios_getpci_block {
    int32_t status;
    uint32_t mode;
    void* buffer;
    uint32_t capacity;  ///< of the buffer, in bytes
    uint32_t count;     ///< out: entries copied
} smbios_getpci_block;

KV_STATIC_ASSERT(sizeof(smbios_getinfo_block) == 60 && offsetof(smbios_getinfo_block, buffer) == 44);
KV_STATIC_ASSERT(offsetof(smbios_getinfo_block, size) == 48);
KV_STATIC_ASSERT(sizeof(smbios_gettable_block) == 28 && offsetof(smbios_gettable_block, index) == 10);
KV_STATIC_ASSERT(offsetof(smbios_gettable_block, buffer) == 16 && offsetof(smbios_gettable_block, count) == 24);
KV_STATIC_ASSERT(sizeof(smbios_getpci_block) == 20 && offsetof(smbios_getpci_block, count) == 16);

/// Carries out one request. The block is changed only when 0 is returned.
/// @param code   SMBIOS_GETINFO, SMBIOS_GETTABLE or SMBIOS_GETPCI
/// @param block  the request's block, the caller's like the buffer that it names
/// @return 0; -5 physical memory cannot be read, or no table was found at start-up; -12 out of memory; -22 unknown
///         code, a null block or buffer, or slots below 8 bytes
KV_EXPORT int smbios_ioctl(uint32_t code, void* block);

KV_EXTERN_C_END
