#pragma once
/// @file
/// What the built-in inventories are made from: the sensors and SMBIOS fields that a key of the definition files names.

#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon_Maps.h"
#include "libplatform/KvPsSensor.h"

/// Appends the sensor kinds of a key, in the order of the definitions; a name of [EnumSensorId], or a hexadecimal number.
/// @return 0, also when there is none; 0x63F1B11A unknown key; 0x63F14201 null argument
uint32_t KvIf_GetSensorKey(const char* key, CKvList<CKvSensorType*>* kinds);
/// Gives the first of them; out stays as it is when there is none.
uint32_t KvIf_GetSensorKey(const char* key, CKvSensorType** out);
/// Gives the SMBIOS field of a key: a name of [EnumSmbiosId], or a hexadecimal number.
/// @param out  lives as long as the tables that were asked (g_tables.Get)
/// @return 0; 0x63F1B119 unknown key; 0x6000B11A no such field; 0x63F14201 null argument
uint32_t KvIf_GetSmbiosKey(const char* key, CSmbios** out);

/// Appends the records of a kind of sensors that belong to the BMC itself, and sorts the whole list by sensor number, but
/// on models whose controller lists its processor sensors as they are wanted.
/// @param list   grows; the caller's to free(). The records stay the library's
/// @param count  of records in the list
/// @return 0; 0x63F14201 null argument; 0x6000B117 the controller has no such sensor; 0x60001202; what the repository gave
uint32_t KvIf_SdrList(CKvSensorType* kind, SDR*** list, unsigned long* count);

/// Makes a sensor column of the record at index.
/// @param list   null: a column without a sensor, which counts as a value
/// @param count  of records; 0: index is known to be good
/// @return 0; 0x60001202
uint32_t CreateSensorColumn(CKvColumn** out, SDR** list, unsigned long index, unsigned long count);
/// Makes a sensor column of the n-th device: the first record of the n-th entity instance, counted from 0, among the
/// records whose base unit is one of unitCount ints that follow.
uint32_t CreateSensorColumnByArgs(CKvColumn** out, SDR** list, unsigned long count, unsigned long instance,
                                  int unitCount, ...);
