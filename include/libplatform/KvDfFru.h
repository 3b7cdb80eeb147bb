#pragma once
/// @file
/// Single fields of the machine's inventory of replaceable units (FRU), as the board's controller keeps it. Served on
/// blade servers of the product's own families.
///
/// @code
///     _KvFruData field;
///     if (KvDf_GetFruInventoryData(KV_FRU_PRODUCT_AREA | 4, &field) == 0 && field.length > 0) {
///         Use(field.data, field.length);  // the serial number, as it is stored
///     }
/// @endcode

#include "libplatform/KvExport.h"

/// One field.
typedef struct _KvFruData {
    uint8_t unused;
    uint8_t length;  ///< of the field in bytes; 0: the inventory has no such field
    uint8_t reserved[2];
    uint8_t data[256];  ///< the bytes as they are stored, whatever their encoding; zeroes behind them
} _KvFruData;

KV_STATIC_ASSERT(sizeof(_KvFruData) == 260 && offsetof(_KvFruData, length) == 1 && offsetof(_KvFruData, data) == 4);

/// Names a field: the area in bits 31 to 16, the field's index, from 0, in bits 15 to 0.
typedef uint32_t FruProductAreaNumber;
#define KV_FRU_PRODUCT_AREA 0x00040000u     ///< product information: manufacturer, name, part number, version, ...
#define KV_FRU_OEM_AREA 0x00050000u         ///< the first of the product's own records
#define KV_FRU_SECOND_OEM_AREA 0x00150000u  ///< the second of them

KV_EXTERN_C_BEGIN

/// Gives one field. The first call reads the inventory from the controller, which takes a second; its result stays for
/// the life of the process, a failure too. Any thread may call.
/// @param out  the caller's; nothing of use in it unless 0 is returned
/// @return 0, with length 0 when there is no such field; 0x63F54201 null argument; 0x63F5A101 another machine;
///         0x63F51302 the inventory, or the index for this machine, makes no sense; 0x63F54202 no such area; 0x63F54203
///         the board keeps the field where it cannot be read; 0x63F51202 out of memory; or what the reading of SMBIOS
///         or of the BMC gave: 0x6000B104 the IPMI driver could not be opened, 0x63F6B2cc the BMC refused
KV_EXPORT uint32_t KvDf_GetFruInventoryData(FruProductAreaNumber target, _KvFruData* out);

KV_EXTERN_C_END
