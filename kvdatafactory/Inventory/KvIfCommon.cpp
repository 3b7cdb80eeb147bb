// Keys of the definition files, the sensor records behind them, and columns made of these.
#include "kvdatafactory/Inventory/KvIfCommon.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <tuple>
#include <vector>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/RasLog.h"
#include "cover/Heap.h"
#include "kvdatafactory/KvDfCommon.h"
#include "lib_driverIF/KvPltfSvcProduct.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/KvPsSmbios.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvIfCommon";

constexpr uint16_t kUnknownSmbiosKey = 0xB119;
constexpr uint16_t kUnknownSensorKey = 0xB11A;
constexpr uint16_t kNoSmbiosField = 0xB11A;
constexpr uint16_t kNoSensor = 0xB117;

constexpr uint8_t kEventOnlySensor = 3;
constexpr size_t kBaseUnit = 1;  // of the conversion bytes

/// The number that a key stands for; 0: it is unknown.
unsigned long NumberOfKey(const KvEnumMap& names, const char* key) {
    CKvString name(key, KvHeld<CKvString>::kCapacity);
    KvDf_TrimString(name);
    unsigned long number = 0;
    if (names.Lookup(name, number) != 0) return number;
    const char* const text = name;
    return text != nullptr ? definition::ReadHexKey(text) : 0;
}

uint32_t NullArgument(std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(fn::kGetKey, Reason::NullArgument), where);
}

/// Calls visit for each kind of a key until it gives true.
template <typename Visit>
uint32_t VisitKinds(const char* key, Visit visit) {
    const auto tables = g_tables.Get();
    const unsigned long id = NumberOfKey(tables->mapSnsId, key);
    if (id == 0) {
        RAS_ERROR(" Unknown sensor keyword ");
        return PXR_ReportError(MakeResult(fn::kGetKey, kUnknownSensorKey));
    }
    tables->listSensorType.AnyOf([&](CKvSensorType* kind) { return kind->GetSensorId() == id && visit(kind); });
    return 0;
}

/// The controller of these models lists its processor sensors in the order of the sockets.
bool IsInWantedOrder(const SDR& first) {
    using product::ModelGroup;
    std::string_view version;
    if (product::SystemVersion(&version) != 0) return false;
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_DETAIL, "svVersion = %.*s", static_cast<int>(version.size()),
              version.data());
    const ModelGroup group = product::ModelGroupOf(version);
    const std::string_view name(first.name, strnlen(first.name, sizeof first.name));
    return (group == ModelGroup::kFirst && name == "CPU 1-1 Temp") ||
           (group == ModelGroup::kSecond && name == "Proc 0-1 Temp");
}

bool BelongsTo(const CKvSensorType& kind, const SDR& record, uint8_t bmc) {
    if (record.recordType == kEventOnlySensor || record.owner != bmc) return false;
    char name[sizeof record.name + 1] = {};
    memcpy(name, record.name, sizeof record.name);
    return kind.CompareSensor(record.sensorType, record.entityId, name) != 0;
}

/// The records of a kind that are kept. @return 0, or the code
uint32_t Collect(const CKvSensorType& kind, std::vector<SDR*>& kept) {
    unsigned long found = 0;
    SDR** records = nullptr;
    const uint32_t rc = KvPsGetSdrData(static_cast<uint8_t>(kind.GetEntityId()),
                                       static_cast<uint8_t>(kind.GetSensorType()), &found, &records);
    const HeapOwned<SDR*> owner(records);
    if (rc != 0) return rc;
    if (found == 0) {
        RAS_INFO("No Exist Sdr .SnsCnt==0");
        return MakeResult(fn::kNone, kNoSensor);
    }
    uint8_t bmc = 0;
    KvPsGetBmcAdr(&bmc);
    for (unsigned long i = 0; i < found; ++i) {
        if (BelongsTo(kind, *records[i], bmc)) kept.push_back(records[i]);
    }
    return 0;
}

void SortSnsNumber(SDR** list, unsigned long count) {
    std::ranges::stable_sort(list, list + count, {}, &SDR::number);
}

/// A record of a device, by the order in which devices are counted.
struct DeviceSensor {
    uint8_t instance;
    uint8_t number;
    const SDR* record;
};

void SortEntInstance(std::vector<DeviceSensor>& sensors) {
    std::ranges::stable_sort(sensors, {},
                             [](const DeviceSensor& sensor) { return std::tuple(sensor.instance, sensor.number); });
}

/// The first record of the device of that index. @return null when there are not so many
const SDR* FindDevice(const std::vector<DeviceSensor>& sensors, unsigned long index) {
    for (size_t i = 0; i < sensors.size(); ++i) {
        const bool begins = i == 0 || sensors[i].instance != sensors[i - 1].instance;
        if (begins && index-- == 0) return sensors[i].record;
    }
    return nullptr;
}

/// @param record  null: a column without a sensor
uint32_t MakeSensorColumn(CKvColumn** out, const SDR* record) {
    auto* const column = new (std::nothrow) CKvSensorColumn;
    if (column == nullptr) {
        RAS_ERROR("Get Column Type=%d", static_cast<int>(kColumnSensor));
        RAS_ERROR("Memory Allocation Failed. (%dBytes)", static_cast<int>(sizeof(CKvSensorColumn)));
        return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    }
    if (record != nullptr) {
        column->SetData(record->owner, record->lun, record->number, record->nominal);
    } else {
        column->SetType(kColumnValue);
    }
    *out = column;
    return 0;
}

}  // namespace

uint32_t KvIf_GetSensorKey(const char* key, CKvList<CKvSensorType*>* kinds) {
    if (key == nullptr || kinds == nullptr) return NullArgument();
    return VisitKinds(key, [kinds](CKvSensorType* kind) {
        kinds->AddTail(kind);
        return false;
    });
}

uint32_t KvIf_GetSensorKey(const char* key, CKvSensorType** out) {
    if (key == nullptr || out == nullptr) return NullArgument();
    return VisitKinds(key, [out](CKvSensorType* kind) {
        *out = kind;
        return true;
    });
}

uint32_t KvIf_GetSmbiosKey(const char* key, CSmbios** out) {
    if (key == nullptr || out == nullptr) return NullArgument();
    const auto tables = g_tables.Get();
    const unsigned long id = NumberOfKey(tables->mapSmbiosId, key);
    if (id == 0) {
        RAS_ERROR(" Unknown smbios keyword ");
        return PXR_ReportError(MakeResult(fn::kGetKey, kUnknownSmbiosKey));
    }
    const bool found = tables->listSmbios.AnyOf([&](CSmbios* field) {
        if (field->GetInstanceId() != id) return false;
        *out = field;
        return true;
    });
    return found ? 0 : PXR_ReportError(MakeResult(fn::kNone, kNoSmbiosField));
}

uint32_t KvIf_SdrList(CKvSensorType* kind, SDR*** list, unsigned long* count) {
    if (kind == nullptr || list == nullptr || count == nullptr) return NullArgument();
    std::vector<SDR*> kept;
    if (const uint32_t rc = Collect(*kind, kept)) return rc;
    if (kept.empty()) return 0;
    auto* const longer = static_cast<SDR**>(realloc(*list, (*count + kept.size()) * sizeof(SDR*)));
    if (longer == nullptr) {
        RAS_ERROR("Memory allocate failed.");
        return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    }
    std::ranges::copy(kept, longer + *count);
    *list = longer;
    *count += static_cast<unsigned long>(kept.size());
    if (!IsInWantedOrder(*kept.front())) SortSnsNumber(*list, *count);
    return 0;
}

uint32_t CreateSensorColumn(CKvColumn** out, SDR** list, unsigned long index, unsigned long count) {
    if (out == nullptr) return NullArgument();
    const bool beyond = count != 0 && index >= count;
    if (beyond) {
        RAS_INFO("# CreateSensorColumn() : Can Not Access Count : %d >= %d", static_cast<int>(index),
                 static_cast<int>(count));
    }
    return MakeSensorColumn(out, list != nullptr && !beyond ? list[index] : nullptr);
}

uint32_t CreateSensorColumnByArgs(CKvColumn** out, SDR** list, unsigned long count, unsigned long instance,
                                  int unitCount, ...) {
    if (out == nullptr) return NullArgument();
    std::vector<int> units(static_cast<size_t>(std::max(unitCount, 0)));
    va_list arguments;
    va_start(arguments, unitCount);
    for (int& unit : units)
        unit = va_arg(arguments, int);  // NOLINT(clang-analyzer-valist.Uninitialized): begun two lines above
    va_end(arguments);

    std::vector<DeviceSensor> sensors;
    for (unsigned long i = 0; list != nullptr && i < count; ++i) {
        const SDR& record = *list[i];
        if (std::ranges::find(units, record.conversion[kBaseUnit]) == units.end()) continue;
        sensors.push_back({record.entityInstance, record.number, &record});
    }
    SortEntInstance(sensors);
    const SDR* const record = FindDevice(sensors, instance);
    if (record != nullptr) {
        RAS_INFO("# CreateSensorColumnByArgs() : InsCnt = %d, GenId = %x, Lun = %x, SnsNo = %x, Convert = %x",
                 static_cast<int>(instance), record->owner, record->lun, record->number, record->nominal);
    }
    return MakeSensorColumn(out, record);
}
