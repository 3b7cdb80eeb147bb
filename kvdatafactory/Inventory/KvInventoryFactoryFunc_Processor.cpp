// Processors, their caches, and the boards that carry them.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "kvdatafactory/Inventory/KvIfBuild.h"
#include "kvdatafactory/Inventory/KvIfConvert.h"
#include "kvdatafactory/Inventory/KvIfFill.h"
#include "kvdatafactory/Inventory/KvIfSmbios.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"
#include "kvdatafactory/KvDfConvert.h"
#include "kvdatafactory/KvDfRecordArray.h"
#include "kvdatafactory/KvDfTexts.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/KvDfHardware.h"
#include "libplatform/KvPsBmc.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvInventoryFactoryFunc";

// Columns of the processor inventory.
constexpr unsigned long kCpuColumns = 9;
constexpr unsigned long kNumber = 0;
constexpr unsigned long kSocket = 1;
constexpr unsigned long kCache = 2;
constexpr unsigned long kCpuName = 3;
constexpr unsigned long kCpuSensor = 4;
// Columns of the board inventory.
constexpr unsigned long kBoardColumns = 4;
constexpr unsigned long kBoardCache = 1;

// SMBIOS structures and their fields.
constexpr uint8_t kProcessor = 4;
constexpr uint8_t kProcessorSocket = 0x04;
constexpr uint8_t kProcessorFamily = 0x06;
constexpr uint8_t kProcessorSpeed = 0x16;
constexpr uint8_t kProcessorStatus = 0x18;
constexpr uint8_t kCacheType = 7;
constexpr uint8_t kCacheSocket = 0x04;
constexpr uint8_t kCacheConfiguration = 0x05;
constexpr uint8_t kCacheInstalledSize = 0x09;

constexpr uint32_t kFamilyOther = 1;
constexpr uint32_t kFamilyUnknownCpu = 2;
constexpr uint32_t kProcessorCacheLevel = 2;
constexpr uint32_t kNodeCacheLevel = 3;

// ---- Inventory

/// The sensors of processors: of their sockets, their temperatures, their fans.
struct CpuSensors {
    HeapOwned<SDR*> list;
    unsigned long count = 0;

    /// Processors are listed without sensors where the controller does not tell of any.
    explicit CpuSensors(const char* key) {
        if (KvIfCollectSensors(key, list, count) != 0) {
            list.reset();
            count = 0;
        }
    }
};

/// The controller of these models gives each processor several temperatures, told apart by entity instance.
bool HasSeveralTemperatures() {
    return product::Models() != product::ModelGroup::kNone;
}

uint32_t AddTemperature(CKvInstance& instance, const CpuSensors& sensors, unsigned long index, bool several) {
    if (!several) return KvIfAddSensor(instance, sensors.list.get(), index, sensors.count);
    CKvColumn* column = nullptr;
    const uint32_t rc = CreateSensorColumnByArgs(&column, sensors.list.get(), sensors.count, index, 3, kUnitCelsius,
                                                 kUnitFahrenheit, kUnitKelvin);
    return rc != 0 ? rc : instance.AddColumn(column);
}

/// Gives the designation of a processor's second-level cache, or the word for "unknown".
uint32_t CacheDesignation(const KVPS_SMBIOS_TPHEAD& processor, CKvString& text) {
    const auto tables = g_tables.Get();
    CSmbios* handleField = nullptr;
    if (const uint32_t rc = KvIf_GetSmbiosKey("SmbiosCpuL2Handle", &handleField)) {
        RAS_FAILED(rc, "KvIf_GetSmbiosKey");
        return rc;
    }
    KVPS_SMBIOS_TPHEAD* cache = nullptr;
    if (const uint32_t rc = CpuL2HandleToCpuCacheData(handleField, &processor, &cache)) return rc;
    if (cache == nullptr) return SetCodeText(text, kStateTexts, kStateUnknown);
    return KvIfKeyToSmbiosString(cache, "SmbiosCacheStr", text);
}

struct CpuInventorySources {
    CpuSensors slots{"CPU Slot"};
    CpuSensors temperatures{"Processor Temp"};
    CpuSensors fans{"CpuFan"};
    bool severalTemperatures = HasSeveralTemperatures();
};

uint32_t AddProcessor(CKvInventory& inventory, const KVPS_SMBIOS_TPHEAD& processor, unsigned long index,
                      const CpuInventorySources& sources) {
    CKvString socket(nullptr, KvHeld<CKvString>::kCapacity);
    CKvString cache(nullptr, KvHeld<CKvString>::kCapacity);
    if (const uint32_t rc = KvIfKeyToSmbiosString(&processor, "SmbiosCpuStr", socket)) return rc;
    if (const uint32_t rc = CacheDesignation(processor, cache)) return rc;
    CKvInstance* instance = nullptr;
    if (const uint32_t rc = KvIfAddInstance(inventory, instance)) return rc;
    uint32_t rc = KvIfAddValue(*instance, index + 1);
    for (const char* const text :
         {static_cast<const char*>(socket), static_cast<const char*>(cache), static_cast<const char*>(cache)}) {
        if (rc == 0) rc = KvIfAddText(*instance, text);
    }
    if (rc == 0) rc = KvIfAddSensor(*instance, sources.slots.list.get(), index, sources.slots.count);
    for (int i = 0; i < 2 && rc == 0; ++i)
        rc = AddTemperature(*instance, sources.temperatures, index, sources.severalTemperatures);
    for (int i = 0; i < 2 && rc == 0; ++i)
        rc = KvIfAddSensor(*instance, sources.fans.list.get(), index, sources.fans.count);
    return rc;
}

// ---- Records

unsigned long StateOfStatus(uint8_t status) {
    switch (status & 7) {
        case 1:  // enabled
        case 4:  // idle
            return kStateNormal;
        case 3:  // disabled by the power-on self test
            return kStateNonCritical;
        default:
            return kStateUnknown;
    }
}

void FillFromProcessor(const KVPS_SMBIOS_TPHEAD& processor, KVDF_CPU& record) {
    KVPS_SMBIOS_HEAD header = {};
    KvPsGetStructureHeader(&header);
    uint8_t family = 0;
    uint16_t speed = 0;
    uint8_t status = 0;
    KvIfGetSmbiosByte(&processor, kProcessorFamily, &family);
    KvIfGetSmbiosWord(&processor, kProcessorSpeed, &speed);
    KvIfGetSmbiosByte(&processor, kProcessorStatus, &status);
    record.family = family != 0 ? KvIfConvert20To21(header, family) : kFamilyUnknownCpu;
    record.speed = speed;
    record.exist = (status & 0x40) != 0 ? kExistPresent : kExistAbsent;
    record.state = static_cast<uint32_t>(StateOfStatus(status));
}

/// The n-th structure of a type, counted from 0, whose string at offset is that text. @return null: there is none
const KVPS_SMBIOS_TPHEAD* FindByText(const KvIfStructures& structures, uint8_t offset, const char* text,
                                     unsigned long nth) {
    for (const KVPS_SMBIOS_TPHEAD* const structure : structures.All()) {
        if (KvIfHasText(*structure, offset, text) && nth-- == 0) return structure;
    }
    return nullptr;
}

/// What a cache structure says. @return false: it is of another level
bool FillFromCache(const KVPS_SMBIOS_TPHEAD& cache, KVDF_CACHE& record) {
    uint16_t configuration = 0;
    uint16_t size = 0;
    KvIfGetSmbiosWord(&cache, kCacheConfiguration, &configuration);
    KvIfGetSmbiosWord(&cache, kCacheInstalledSize, &size);
    if ((configuration & 7) + 1u != record.level) return false;
    const bool enabled = (configuration & 0x80) != 0;
    const uint32_t kilobytes = (size & 0x7FFFu) << ((size & 0x8000) != 0 ? 6 : 0);
    record.state = enabled ? kStateNormal : kStateDisabled;
    record.size = enabled && kilobytes != 0 ? kilobytes : kKvUnknownNumber;
    return true;
}

uint32_t FamilyText(KVDF_CPU& record) {
    int pilot2 = 0;
    if (IsPilot2_File(&pilot2) && pilot2 != 0) {
        char name[KVPS_PROCESSOR_NAME_SIZE + 1] = {};
        const uint32_t rc = KvPsGetProcessorName(name);
        if (rc == 0) record.familyText = static_cast<const char*>(name);
        return rc;
    }
    // Firmware knows families that are younger than the catalogue.
    if (SetCodeText(record.familyText, kFamilyTexts, record.family) == 0) return 0;
    return SetCodeText(record.familyText, kFamilyTexts, kFamilyUnknownCpu);
}

bool IsKnownFamily(const KVDF_CPU& record) {
    return record.family != kFamilyOther && record.family != kFamilyUnknownCpu;
}

void TakeFamily(KVDF_CPU& record, const KVDF_CPU& from) {
    record.family = from.family;
    record.familyText = from.familyText;
    record.speed = from.speed;
}

uint32_t SetCpu(KVDF_CPU* record, CKvInstance* instance, unsigned long nth) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetCpu, record, instance, kCpuColumns)) return rc;
    CKvString socket(nullptr, KvHeld<CKvString>::kCapacity);
    KvIfFilling filling(*instance);
    filling.Number(kNumber, record->number).Text(kSocket, socket).Text(kCpuName, record->name);
    if (filling.Code() != 0) return filling.Code();
    if (const uint32_t rc = KvIfSetSmbiosCpu(socket, record, nth)) return rc;
    CKvColumn* sensor = nullptr;
    if (instance->GetColumn(kCpuSensor, &sensor) == 0 && sensor->GetType() == kColumnSensor) {
        filling.Convert(kCpuSensor, record->state, KvIfConvertStateCode)
            .Convert(kCpuSensor, record->exist, KvIfConvertExistCode);
        if (filling.Code() != 0) return filling.Code();
    }
    if (const uint32_t rc = KvIfSetCpuString(record)) return rc;
    if (record->state == kStateDisabled) record->state = kStateNonCritical;
    if (record->state == kStateLimitHigh) record->state = kStateLimitLow;
    return 0;
}

uint32_t SetCache(uint32_t function, KVDF_CACHE* record, CKvInstance* instance, unsigned long columns,
                  unsigned long designation, uint32_t level, long only) {
    if (const uint32_t rc = KvIfCheckFilling(function, record, instance, columns)) return rc;
    CKvString text(nullptr, KvHeld<CKvString>::kCapacity);
    const uint32_t rc = KvIfFilling(*instance).Number(kNumber, record->number).Text(designation, text).Code();
    if (rc != 0) return rc;
    record->level = level;
    if (const uint32_t cacheRc = KvIfSetSmbiosCache(text, record, only)) return cacheRc;
    return KvIfSetCacheString(record);
}

uint32_t NullRecord(uint32_t function, std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(function, Reason::NullArgument), where);
}

}  // namespace

uint32_t CpuL2HandleToCpuCacheData(CSmbios* field, const KVPS_SMBIOS_TPHEAD* processor, KVPS_SMBIOS_TPHEAD** cache) {
    if (field == nullptr || processor == nullptr || cache == nullptr) return NullRecord(fn::kGetKey);
    uint16_t wanted = 0;
    if (const uint32_t rc = KvIfGetSmbiosWord(processor, field->GetOffset(), &wanted)) return rc;
    const KvIfStructures caches("SmbiosCache");
    if (caches.Code() != 0) {
        RAS_ERROR("No Exist SmbiosData(TYPE17).");
        return caches.Code();
    }
    *cache = nullptr;
    for (KVPS_SMBIOS_TPHEAD* const structure : caches.All()) {
        uint16_t handle = 0;
        if (const uint32_t rc = KvIfKeyToSmbiosWord(structure, "SmbiosCacheHandle", &handle)) return rc;
        if (handle != wanted) continue;
        *cache = structure;
        return 0;
    }
    RAS_INFO("No Exist CpuCache_SmbiosData");
    return 0;
}

uint32_t CreateCpu() {
    const auto tables = g_tables.Get();
    const CpuInventorySources sources;
    const KvIfStructures processors("SmbiosCpu");
    if (processors.Code() != 0) return processors.Code();
    auto inventory = std::unique_ptr<CKvInventory>(new (std::nothrow) CKvInventory(kInventoryCpu, 0));
    if (inventory == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    uint32_t rc = 0;
    for (size_t i = 0; i < processors.All().size() && rc == 0; ++i)
        rc = AddProcessor(*inventory, *processors.All()[i], static_cast<unsigned long>(i), sources);
    const uint32_t added = g_invFactory.Get()->AddInventory(kInventoryCpu, inventory.release());
    return rc != 0 ? rc : added;
}

unsigned char KvIfConvert20To21(const KVPS_SMBIOS_HEAD& header, unsigned char family) {
    constexpr size_t kRevision = 10;  // of the entry point, in its header
    constexpr uint8_t kRevision20 = 0x20;
    constexpr unsigned char kOldNumber = 48;
    constexpr unsigned char kNewNumber = 12;
    const bool old = reinterpret_cast<const uint8_t*>(&header)[kRevision] == kRevision20;
    return old && family == kOldNumber ? kNewNumber : family;
}

uint32_t KvIfSetSmbiosCpu(const char* designation, KVDF_CPU* record, unsigned long nth) {
    if (designation == nullptr || record == nullptr) return NullRecord(fn::kSetSmbiosCpu);
    const KvIfStructures processors(kProcessor);
    if (processors.Code() != 0) return processors.Code();
    const KVPS_SMBIOS_TPHEAD* const processor = FindByText(processors, kProcessorSocket, designation, nth);
    constexpr uint32_t kNone = MakeResult(fn::kSetSmbiosCpu, Reason::BadData);
    static_assert(kNone == 0x60941302);
    if (processor == nullptr) return PXR_ReportError(kNone);
    FillFromProcessor(*processor, *record);
    return 0;
}

uint32_t KvIfSetSmbiosCache(const char* designation, KVDF_CACHE* record, long only) {
    constexpr uint32_t kNull = MakeResult(fn::kSetSmbiosCache, Reason::NullArgument);
    static_assert(kNull == 0x60954201);
    if (designation == nullptr || record == nullptr) return PXR_ReportError(kNull);
    const KvIfStructures caches(kCacheType);
    if (caches.Code() != 0) return caches.Code();
    long index = 0;
    for (const KVPS_SMBIOS_TPHEAD* const cache : caches.All()) {
        if (!KvIfHasText(*cache, kCacheSocket, designation) || !FillFromCache(*cache, *record)) continue;
        const bool meant = only == kKvAnyStructure || index++ == only;
        if (meant && (record->state == kStateNormal || only != kKvAnyStructure)) return 0;
    }
    record->state = kStateDisabled;
    record->size = kKvUnknownNumber;
    return 0;
}

uint32_t KvIfSetCpuString(KVDF_CPU* record) {
    constexpr uint32_t kLastWithText = 9;
    if (record == nullptr) return NullRecord(fn::kSetCpuString);
    uint32_t rc = SetCodeText(record->existText, kStateTexts, record->exist);
    const unsigned long state = record->state <= kLastWithText ? record->state : 0ul + kStateLimitHigh;
    if (rc == 0) rc = SetCodeText(record->stateText, kStateTexts, state);
    return rc != 0 ? rc : FamilyText(*record);
}

uint32_t KvIfSetCacheString(KVDF_CACHE* record) {
    if (record == nullptr) return NullRecord(fn::kSetCacheString);
    return SetCodeText(record->stateText, kStateTexts, record->state);
}

uint32_t KvIfSetCpuBoardString(KVDF_CPUBOARD* record) {
    if (record == nullptr) return NullRecord(fn::kSetCpuBoardString);
    uint32_t rc = SetCodeText(record->existText, kStateTexts, record->exist);
    if (rc == 0) rc = SetCodeText(record->stateText, kStateTexts, record->state);
    return rc != 0 ? rc : SetCodeText(record->state2Text, kStateTexts, record->state2);
}

uint32_t KvIfSetCpu(KVDF_CPU* record, CKvInstance* instance) {
    return SetCpu(record, instance, 0);
}

uint32_t KvIfSetCpuCache(KVDF_CACHE* record, CKvInstance* instance) {
    return SetCache(fn::kSetCpuCache, record, instance, kCpuColumns, kCache, kProcessorCacheLevel, kKvAnyStructure);
}

uint32_t KvIfSetNodeCache(KVDF_CACHE* record, CKvInstance* instance) {
    return SetCache(fn::kSetNodeCache, record, instance, kBoardColumns, kBoardCache, kNodeCacheLevel, kKvAnyStructure);
}

uint32_t KvIfSetCpuBoard(KVDF_CPUBOARD* record, CKvInstance* instance) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetCpuBoard, record, instance, kBoardColumns)) return rc;
    const uint32_t rc = KvIfFilling(*instance)
                            .Number(kNumber, record->number)
                            .Convert(2, record->exist, KvIfConvertExistCode)
                            .Convert(2, record->state, KvIfConvertStateCode)
                            .Convert(3, record->state2, KvIfConvertStateCode)
                            .Code();
    return rc != 0 ? rc : KvIfSetCpuBoardString(record);
}

// ---- Getters

uint32_t KvDfGetCpu(unsigned long* count, KVDF_CPU** records) {
    // Sockets of one machine hold processors of one family: a known one speaks for those that firmware leaves open.
    KVDF_CPU* first = nullptr;
    const auto fill = [&first](KVDF_CPU& record, CKvInstance& instance, const CKvInventory& inventory) {
        if (const uint32_t rc = SetCpu(&record, &instance, KvIfFindEqual(inventory, instance, {kSocket}).before))
            return rc;
        if (first == nullptr) first = &record;
        if (!IsKnownFamily(*first) && IsKnownFamily(record)) TakeFamily(*first, record);
        if (IsKnownFamily(*first) && !IsKnownFamily(record)) TakeFamily(record, *first);
        return 0u;
    };
    return GetInventoryRecords(fn::kGetCpu, kInventoryCpu, count, records, fill);
}

uint32_t KvDfGetCpuCache(unsigned long* count, KVDF_CACHE** records) {
    const auto fill = [](KVDF_CACHE& record, CKvInstance& instance, const CKvInventory& inventory) {
        return SetCache(fn::kSetCpuCache, &record, &instance, kCpuColumns, kCache, kProcessorCacheLevel,
                        KvIfFindEqual(inventory, instance, {kCache}).Only());
    };
    return GetInventoryRecords(fn::kGetCpuCache, kInventoryCpu, count, records, fill);
}

uint32_t KvDfGetCpuBoard(unsigned long* count, KVDF_CPUBOARD** records) {
    return GetInventoryRecords(fn::kGetCpuBoard, kInventoryCpuBoard, count, records, KvIfWith(KvIfSetCpuBoard));
}

uint32_t KvDfGetNodeCache(unsigned long* count, KVDF_CACHE** records) {
    const auto fill = [](KVDF_CACHE& record, CKvInstance& instance, const CKvInventory& inventory) {
        return SetCache(fn::kSetNodeCache, &record, &instance, kBoardColumns, kBoardCache, kNodeCacheLevel,
                        KvIfFindEqual(inventory, instance, {kBoardCache}).Only());
    };
    return GetInventoryRecords(fn::kGetNodeCache, kInventoryCpuBoard, count, records, fill);
}
