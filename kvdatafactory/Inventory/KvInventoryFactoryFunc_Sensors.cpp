// Temperatures, fans, power units and voltages: their inventories and records.
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>

#include "common/PXR_function_numbers.h"
#include "common/RasLog.h"
#include "kvdatafactory/Inventory/KvIfBuild.h"
#include "kvdatafactory/Inventory/KvIfConvert.h"
#include "kvdatafactory/Inventory/KvIfFill.h"
#include "kvdatafactory/Inventory/KvInventoryFactoryFunc.h"
#include "kvdatafactory/KvDfConvert.h"
#include "kvdatafactory/KvDfRecordArray.h"
#include "kvdatafactory/KvDfTexts.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "libplatform/KvDfHardware.h"

namespace {

constexpr char kRasSource[] = "kvdatafactory/Inventory/KvInventoryFactoryFunc";

// Columns of all inventories of body sensors.
constexpr unsigned long kNumber = 0;
constexpr unsigned long kName = 1;

// ---- Inventories

/// What stands in the columns behind number and name.
enum class Content { kSensor, kPresent };

std::string NameOf(const SDR& record) {
    return {record.name, strnlen(record.name, sizeof record.name)};
}

uint32_t AddInstance(CKvInventory& inventory, SDR** list, unsigned long index,
                     std::initializer_list<Content> contents) {
    CKvInstance* instance = nullptr;
    if (const uint32_t rc = KvIfAddInstance(inventory, instance)) return rc;
    uint32_t rc = KvIfAddValue(*instance, index + 1);
    if (rc == 0) rc = KvIfAddText(*instance, NameOf(*list[index]).c_str());
    for (const Content content : contents) {
        if (rc != 0) break;
        rc = content == Content::kSensor ? KvIfAddSensor(*instance, list, index, 0)
                                         : KvIfAddValue(*instance, kExistPresent);
    }
    return rc;
}

/// Makes an inventory of body sensors: one instance for each record of a key, with the columns given behind its number
/// and name. What was built when memory ran out stays.
uint32_t CreateSensorInventory(unsigned long id, const char* key, std::initializer_list<Content> contents) {
    const auto tables = g_tables.Get();  // the kinds live as long
    HeapOwned<SDR*> list;
    unsigned long count = 0;
    if (const uint32_t rc = KvIfCollectSensors(key, list, count)) return rc;
    auto inventory = std::unique_ptr<CKvInventory>(new (std::nothrow) CKvInventory(id, 0));
    if (inventory == nullptr) {
        RAS_ERROR("Memory Allocation Failed. (size=%d Bytes, InvId=%d)", static_cast<int>(sizeof(CKvInventory)),
                  static_cast<int>(id));
        return PXR_ReportError(MakeResult(fn::kNone, Reason::OutOfMemory));
    }
    uint32_t rc = 0;
    for (unsigned long i = 0; i < count && rc == 0; ++i)
        rc = AddInstance(*inventory, list.get(), i, contents);
    const uint32_t added = g_invFactory.Get()->AddInventory(id, inventory.release());
    return rc != 0 ? rc : added;
}

// ---- Records

uint32_t FanState(CKvColumn* column, unsigned long* state) {
    const uint32_t rc = KvIfConvertStateCode(column, state);
    if (rc == 0) KvIfCnvertFanStatus(state);
    return rc;
}

/// Boards of this kind tell of an empty fan bay by a sensor that has events but is not scanned.
bool IsEmptyBay(CKvColumn& column) {
    int pilot2 = 0;
    if (!IsPilot2_File(&pilot2) || pilot2 == 0) return false;
    KVPS_SENSOR_DATA* data = nullptr;
    const uint32_t rc = column.GetSensor(data);
    const std::unique_ptr<KVPS_SENSOR_DATA> owner(data);
    return rc == 0 && data != nullptr && !IsScanningEnabled(*data) && AreEventsEnabled(*data);
}

uint32_t BodyFanExist(CKvColumn* column, unsigned long* exist) {
    if (column->GetType() != kColumnSensor) return KvIfConvertExistCode(column, exist);
    unsigned long there = 0;
    if (column->GetSensorStatus(&there) != 0) there = 0;
    *exist = there != 0 && !IsEmptyBay(*column) ? kExistPresent : kExistAbsent;
    return 0;
}

uint32_t SetTemperature(uint32_t function, KVDF_TEMPERATURE* record, const CKvInstance* instance, unsigned long columns,
                        unsigned long state, unsigned long temperature) {
    if (const uint32_t rc = KvIfCheckFilling(function, record, instance, columns)) return rc;
    const uint32_t rc = KvIfFilling(*instance)
                            .Number(kNumber, record->number)
                            .Text(kName, record->name)
                            .Convert(state, record->state, KvIfConvertStateCode)
                            .Convert(temperature, record->temperature, KvIfConvertTemperature)
                            .Code();
    return rc != 0 ? rc : KvIfSetTemperatureString(record);
}

/// Presence and state in words. @param record  has been checked
template <typename Record>
uint32_t SetExistAndStateTexts(Record& record) {
    const uint32_t rc = SetCodeText(record.existText, kStateTexts, record.exist);
    return rc != 0 ? rc : SetCodeText(record.stateText, kStateTexts, record.state);
}

uint32_t NullRecord(uint32_t function, std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(function, Reason::NullArgument), where);
}

}  // namespace

uint32_t CreateBodyTmp() {
    return CreateSensorInventory(kInventoryBodyTemp, "CPU Board Temp", {Content::kSensor, Content::kSensor});
}

uint32_t CreateBodyFan() {
    return CreateSensorInventory(kInventoryBodyFan, "BodyFan", {Content::kPresent, Content::kSensor});
}

uint32_t CreatePowerUnit() {
    return CreateSensorInventory(kInventoryPowerUnit, "PowerUnit", {Content::kSensor, Content::kSensor});
}

uint32_t CreateVoltage() {
    return CreateSensorInventory(kInventoryVoltage, "Voltage", {Content::kSensor});
}

uint32_t KvIfSetBodyTemperature(KVDF_TEMPERATURE* record, CKvInstance* instance) {
    return SetTemperature(fn::kSetBodyTemperature, record, instance, 4, 2, 3);
}

uint32_t KvIfSetCpuTemperature(KVDF_TEMPERATURE* record, CKvInstance* instance) {
    return SetTemperature(fn::kSetCpuTemperature, record, instance, 9, 5, 6);
}

uint32_t KvIfSetBodyFan(KVDF_FAN* record, CKvInstance* instance) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetBodyFan, record, instance, 4)) return rc;
    const uint32_t rc = KvIfFilling(*instance)
                            .Number(kNumber, record->number)
                            .Convert(2, record->exist, BodyFanExist)
                            .Convert(3, record->state, FanState)
                            .Code();
    return rc != 0 ? rc : KvIfSetFanString(record);
}

uint32_t KvIfSetCpuFan(KVDF_FAN* record, CKvInstance* instance) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetCpuFan, record, instance, 9)) return rc;
    const uint32_t rc = KvIfFilling(*instance)
                            .Number(kNumber, record->number)
                            .Convert(7, record->exist, KvIfConvertExistCode)
                            .Convert(8, record->state, FanState)
                            .Code();
    return rc != 0 ? rc : KvIfSetFanString(record);
}

uint32_t KvIfSetPowerUnit(KVDF_POWUNIT* record, CKvInstance* instance) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetPowerUnit, record, instance, 4)) return rc;
    const uint32_t rc = KvIfFilling(*instance)
                            .Number(kNumber, record->number)
                            .Convert(2, record->exist, KvIfConvertExistCode)
                            .Convert(3, record->state, KvIfConvertStateCode)
                            .Code();
    return rc != 0 ? rc : KvIfSetPowerUnitString(record);
}

uint32_t KvIfSetVoltage(KVDF_VOLTAGE* record, CKvInstance* instance) {
    if (const uint32_t rc = KvIfCheckFilling(fn::kSetVoltage, record, instance, 3)) return rc;
    return KvIfFilling(*instance)
        .Number(kNumber, record->number)
        .Text(kName, record->name)
        .Convert(2, record->voltage, KvIfConvertVoltage)
        .Convert(2, record->nominal, KvIfConvertNominalVoltage)
        .Code();
}

uint32_t KvIfSetTemperatureString(KVDF_TEMPERATURE* record) {
    constexpr uint32_t kNoKnownState = 1;
    if (record == nullptr) return NullRecord(fn::kSetTemperatureString);
    const bool known = record->state >= kStateNormal && record->state <= kStateNonRecoverable;
    if (!known) record->state = kNoKnownState;
    return SetCodeText(record->stateText, kStateTexts, known ? record->state : 0);
}

uint32_t KvIfSetFanString(KVDF_FAN* record) {
    return record != nullptr ? SetExistAndStateTexts(*record) : NullRecord(fn::kSetFanString);
}

uint32_t KvIfSetPowerUnitString(KVDF_POWUNIT* record) {
    return record != nullptr ? SetExistAndStateTexts(*record) : NullRecord(fn::kSetPowerUnitString);
}

// ---- Getters

uint32_t KvDfGetBodyTemperature(unsigned long* count, KVDF_TEMPERATURE** records) {
    return GetInventoryRecords(fn::kGetBodyTemperature, kInventoryBodyTemp, count, records,
                               KvIfWith(KvIfSetBodyTemperature));
}

uint32_t KvDfGetBodyFan(unsigned long* count, KVDF_FAN** records) {
    return GetInventoryRecords(fn::kGetBodyFan, kInventoryBodyFan, count, records, KvIfWith(KvIfSetBodyFan));
}

uint32_t KvDfGetPowerUnit(unsigned long* count, KVDF_POWUNIT** records) {
    const uint32_t rc =
        GetInventoryRecords(fn::kGetPowerUnit, kInventoryPowerUnit, count, records, KvIfWith(KvIfSetPowerUnit));
    if (rc != 0) return rc;
    // A machine runs on something: when every unit reports itself absent, nothing is known.
    bool anyThere = false;
    for (unsigned long i = 0; i < *count; ++i)
        anyThere = anyThere || (*records)[i].exist != kExistAbsent;
    for (unsigned long i = 0; i < *count && !anyThere; ++i) {
        (*records)[i].exist = kExistUnknown;
        SetCodeText((*records)[i].existText, kStateTexts, kExistUnknown);
    }
    return 0;
}

uint32_t KvDfGetVoltageProbe(unsigned long* count, KVDF_VOLTAGE** records) {
    return GetInventoryRecords(fn::kGetVoltageProbe, kInventoryVoltage, count, records, KvIfWith(KvIfSetVoltage));
}

uint32_t KvDfGetCpuTemperature(unsigned long* count, KVDF_TEMPERATURE** records) {
    return GetInventoryRecords(fn::kGetCpuTemperature, kInventoryCpu, count, records, KvIfWith(KvIfSetCpuTemperature));
}

uint32_t KvDfGetCpuFan(unsigned long* count, KVDF_FAN** records) {
    return GetInventoryRecords(fn::kGetCpuFan, kInventoryCpu, count, records, KvIfWith(KvIfSetCpuFan));
}
