#pragma once
/// @file
/// How records get out: one pattern for all of them.

#include <memory>
#include <new>

#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvIfReadings.h"
#include "kvdatafactory/Inventory/KvInventoryFactory.h"
#include "kvdatafactory/KvDfCommon_Maps.h"
#include "libplatform/KvDfRecords.h"

/// A null output is the getter's failure; else both are made empty.
/// @param function  number of the getter
template <typename Record>
uint32_t EmptyOutputs(uint32_t function, unsigned long* count, Record** records,
                      std::source_location where = std::source_location::current()) {
    if (count == nullptr || records == nullptr) {
        return PXR_ReportError(MakeResult(function, Reason::NullArgument), where);
    }
    *count = 0;
    *records = nullptr;
    return 0;
}

/// Fills a new array with what sources give: one record each, those that fail left out.
/// @param n     of sources
/// @param fill  uint32_t (Record&, unsigned long index): 0, or the failure, which has been reported
template <typename Record, typename Fill>
uint32_t FillRecords(uint32_t function, unsigned long n, unsigned long* count, Record** records, Fill fill,
                     std::source_location where = std::source_location::current()) {
    if (n == 0) return 0;
    std::unique_ptr<Record[]> array(new (std::nothrow) Record[n]);
    if (array == nullptr) return PXR_ReportError(MakeResult(function, Reason::OutOfMemory), where);
    unsigned long filled = 0;
    for (unsigned long i = 0; i < n; ++i) {
        if (fill(array[filled], i) == 0) {
            ++filled;
        } else {
            array[filled] = Record();  // the next one finds nothing of it
        }
    }
    *count = filled;
    *records = array.release();
    return 0;
}

/// Records of an inventory's instances. Its sensors are read once, before.
/// @param fill  uint32_t (Record&, CKvInstance&, const CKvInventory&)
template <typename Record, typename Fill>
uint32_t GetInventoryRecords(uint32_t function, unsigned long inventoryId, unsigned long* count, Record** records,
                             Fill fill, std::source_location where = std::source_location::current()) {
    if (const uint32_t rc = EmptyOutputs(function, count, records, where)) return rc;
    RetryDefinitionsIfDue();
    const auto factory = g_invFactory.Get();
    CKvInventory* inventory = nullptr;
    if (const uint32_t rc = factory->SearchInventory(inventoryId, &inventory)) return rc;
    try {
        const KvIfReadings readings(inventory->GetSensors());
        return FillRecords(
            function, inventory->GetInstanceCount(), count, records,
            [&](Record& record, unsigned long i) {
                CKvInstance* instance = nullptr;
                const uint32_t rc = inventory->GetInstance(i, &instance);
                return rc != 0 ? rc : fill(record, *instance, *inventory);
            },
            where);
    } catch (const std::bad_alloc&) {
        return PXR_ReportError(MakeResult(function, Reason::OutOfMemory), where);
    }
}
