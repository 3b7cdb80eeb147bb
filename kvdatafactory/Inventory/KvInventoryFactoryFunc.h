#pragma once
/// @file
/// The inventories that the library makes itself where no file defines them, and the records that are filled from their
/// instances. The public getters are in libplatform/KvDfHardware.h.
///
/// Creators: 0; 0x63F1.... the key is unknown; 0x60001202; what the repository or SMBIOS gave.
/// Fillers: 0; the filler's number with reason 0x4201 null argument, 0x1302 the instance has other columns; what a column
/// gave.

#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon_Maps.h"
#include "libplatform/KvDfRecords.h"
#include "libplatform/KvPsSmbios.h"

// Body sensors

uint32_t CreateBodyTmp();
uint32_t CreateBodyFan();
uint32_t CreatePowerUnit();
uint32_t CreateVoltage();

uint32_t KvIfSetBodyTemperature(KVDF_TEMPERATURE* record, CKvInstance* instance);
uint32_t KvIfSetBodyFan(KVDF_FAN* record, CKvInstance* instance);
uint32_t KvIfSetPowerUnit(KVDF_POWUNIT* record, CKvInstance* instance);
uint32_t KvIfSetVoltage(KVDF_VOLTAGE* record, CKvInstance* instance);
uint32_t KvIfSetCpuTemperature(KVDF_TEMPERATURE* record, CKvInstance* instance);
uint32_t KvIfSetCpuFan(KVDF_FAN* record, CKvInstance* instance);

uint32_t KvIfSetTemperatureString(KVDF_TEMPERATURE* record);
uint32_t KvIfSetFanString(KVDF_FAN* record);
uint32_t KvIfSetPowerUnitString(KVDF_POWUNIT* record);

// Firmware and machine

uint32_t KvIfSetSmbiosSystemBios(const KVPS_SMBIOS_TPHEAD* structure, KVDF_SYSBIOS* record);
/// Keeps the network address that the machine's UUID tells in MacAddrFromSmbios.dat. @return also reason 0x1300
uint32_t KvIfSetSmbiosSystemInfo(const KVPS_SMBIOS_TPHEAD* structure, KVDF_SYSINFO* record);

// Processors, caches, boards

uint32_t CreateCpu();
/// The cache structure whose handle stands in a processor's field; null when there is none.
uint32_t CpuL2HandleToCpuCacheData(CSmbios* field, const KVPS_SMBIOS_TPHEAD* processor, KVPS_SMBIOS_TPHEAD** cache);
/// The family number of today for one of a table as old as the entry point says.
unsigned char KvIfConvert20To21(const KVPS_SMBIOS_HEAD& header, unsigned char family);

/// @param nth  of the structures with that designation, from 0
uint32_t KvIfSetSmbiosCpu(const char* designation, KVDF_CPU* record, unsigned long nth = 0);
/// @param record  with its level @param only  the structure that is meant, from 0, or kKvAnyStructure: the first enabled
uint32_t KvIfSetSmbiosCache(const char* designation, KVDF_CACHE* record, long only);
uint32_t KvIfSetCpu(KVDF_CPU* record, CKvInstance* instance);
uint32_t KvIfSetCpuCache(KVDF_CACHE* record, CKvInstance* instance);
uint32_t KvIfSetNodeCache(KVDF_CACHE* record, CKvInstance* instance);
uint32_t KvIfSetCpuBoard(KVDF_CPUBOARD* record, CKvInstance* instance);

uint32_t KvIfSetCpuString(KVDF_CPU* record);
uint32_t KvIfSetCacheString(KVDF_CACHE* record);
uint32_t KvIfSetCpuBoardString(KVDF_CPUBOARD* record);

// Memory

/// Types of the memory inventory: what its sockets' structures are. Type 4 tells them by their bank too.
enum KvMemoryType : unsigned long { kMemoryModules = 1, kMemoryDevices = 2, kMemoryOther = 3, kMemoryBanks = 4 };

uint32_t CreateMemory();
uint32_t CreateMemory5(CKvInventory* inventory, KVPS_SMBIOS_TPHEAD** controllers, unsigned long count);
uint32_t CreateMemory16(CKvInventory* inventory, KVPS_SMBIOS_TPHEAD** arrays, unsigned long count);
/// @param handles  receives a new array of as many as the controller has slots, deleted by the caller (array delete)
uint32_t MemSlotHandleList(const KVPS_SMBIOS_TPHEAD* controller, unsigned long slots, unsigned short** handles);

/// Columns of an instance: array, socket, designation, for type 4 also the bank. 0: no such type.
unsigned long KvIfGetMaxRowCount(unsigned long type);
/// Registers who knows the variant of the board's memory addressing (1 the usual one, 2 and 3 the maker's own).
/// Null: the usual one.
using KvOemDimmFunction = unsigned long (*)();
void KvIfSetOemDimmFunction(KvOemDimmFunction function);

/// @param nth  of the structures with that designation, from 0
uint32_t KvIfSetSmbiosMemorySocket6(const char* key, KVDF_MEMSOCKET* record, unsigned long nth = 0);
uint32_t KvIfSetSmbiosMemorySocket17_2(unsigned long type, const char* key, const char* bank, KVDF_MEMSOCKET* record,
                                       unsigned long nth = 0);
uint32_t KvIfSetSmbiosMemorySocket17OEM_HE_Intel(const char* key, KVDF_MEMSOCKET* record, unsigned long nth = 0);
/// Takes the state from the BMC on the maker's own variants. @return 0; 0x63FF4202 it has none: the state stays
uint32_t KvIfGetDIMMStateHWIntel(KVDF_MEMSOCKET* record);
/// Whether the structure of a socket exists. @return 0; reason 0x1302 it does not
uint32_t KvIfCheckSmbiosMemorySocket_2(unsigned long type, const char* key, const char* bank, unsigned long nth = 0);

uint32_t KvIfSetMemorySocket(unsigned long type, KVDF_MEMSOCKET* record, CKvInstance* instance);
uint32_t KvIfSetMemorySocketString(KVDF_MEMSOCKET* record);
uint32_t KvIfGetMemoryArrayCount(CKvInventory* inventory, unsigned long* count);
/// @param n  from 0 @param number  receives the number of the n-th array
uint32_t KvIfGetMemoryArrayIndex(CKvInventory* inventory, unsigned long n, unsigned long* number);
uint32_t KvIfSetMemorySocketCount(KVDF_MEMARRAY* record, CKvInventory* inventory);

/// Makes the inventory of that id where there is none.
/// @return 0; 0x607B1302 no such id; 0x607B4202 there is no creator for it; what the creator gave
uint32_t KvIf_CreateInstance(unsigned long id);
