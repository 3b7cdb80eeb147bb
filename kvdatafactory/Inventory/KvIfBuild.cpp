// Instances and columns of the built-in inventories.
#include "kvdatafactory/Inventory/KvIfBuild.h"

#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvInventoryFactoryFunc";

constexpr uint32_t kNoSensorOfKind = 0x6000B117;

uint32_t NoMemory(unsigned long type, size_t size) {
    RAS_ERROR("Get Column Type=%d", static_cast<int>(type));
    RAS_ERROR("Memory Allocation Failed. (%dBytes)", static_cast<int>(size));
    return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
}

}  // namespace

uint32_t KvIfAddInstance(CKvInventory& inventory, CKvInstance*& instance) {
    instance = new (std::nothrow) CKvInstance(0, nullptr);
    return instance != nullptr ? inventory.AddInstance(instance) : NoMemory(kColumnUnknown, sizeof *instance);
}

uint32_t KvIfAddValue(CKvInstance& instance, unsigned long value) {
    auto* const column = new (std::nothrow) CKvValueColumn;
    if (column == nullptr) return NoMemory(kColumnValue, sizeof *column);
    column->SetData(value);
    return instance.AddColumn(column);
}

uint32_t KvIfAddText(CKvInstance& instance, const char* text) {
    auto* const column = new (std::nothrow) CKvStringColumn;
    if (column == nullptr) return NoMemory(kColumnString, sizeof *column);
    column->SetData(CKvString(text, KvHeld<CKvString>::kCapacity));
    return instance.AddColumn(column);
}

uint32_t KvIfAddSensor(CKvInstance& instance, SDR** list, unsigned long index, unsigned long count) {
    CKvColumn* column = nullptr;
    const uint32_t rc = CreateSensorColumn(&column, list, index, count);
    return rc != 0 ? rc : instance.AddColumn(column);
}

uint32_t KvIfCollectSensors(const char* key, HeapOwned<SDR*>& list, unsigned long& count) {
    CKvList<CKvSensorType*> kinds;
    if (const uint32_t rc = KvIf_GetSensorKey(key, &kinds)) {
        RAS_FAILED(rc, "KvIf_GetSensorKey");
        return rc;
    }
    SDR** records = nullptr;
    count = 0;
    uint32_t rc = 0;
    kinds.AnyOf([&](CKvSensorType* kind) {
        rc = KvIf_SdrList(kind, &records, &count);
        if (rc == kNoSensorOfKind) rc = 0;
        return rc != 0;
    });
    list.reset(records);
    if (rc != 0) RAS_ERROR("Get SdrList failed.");
    return rc;
}
