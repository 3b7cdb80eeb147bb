#pragma once
/// @file
/// What the creators of the built-in inventories are made of. Results: 0; 0x60001202 out of memory.

#include "cover/Heap.h"
#include "kvdatafactory/Inventory/KvIfCommon.h"

/// Adds a new instance, the inventory's. @param instance  receives it
uint32_t KvIfAddInstance(CKvInventory& inventory, CKvInstance*& instance);
uint32_t KvIfAddValue(CKvInstance& instance, unsigned long value);
uint32_t KvIfAddText(CKvInstance& instance, const char* text);
/// As CreateSensorColumn.
uint32_t KvIfAddSensor(CKvInstance& instance, SDR** list, unsigned long index, unsigned long count);

/// All records of a key's kinds. A kind that the controller has no sensor of adds nothing.
/// @return also what KvIf_GetSensorKey and KvIf_SdrList give
uint32_t KvIfCollectSensors(const char* key, HeapOwned<SDR*>& list, unsigned long& count);
