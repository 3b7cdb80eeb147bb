// Inventories, their instances and columns.
#include "kvdatafactory/Inventory/KvInventoryFactory.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/Inventory/KvIfReadings.h"
#include "kvdatafactory/KvDfCommon.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

Published<CKvInventoryFactory> g_invFactory;

namespace {

uint32_t Failed(uint32_t function, Reason reason, std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(function, reason), where);
}

/// Appends what the list then owns. @return false, and the object is gone, without memory
template <typename Object>
bool Append(CKvList<Object*>& list, Object* object) {
    const unsigned long before = list.GetCount();
    list.AddTail(object);
    if (list.GetCount() != before) return true;
    delete object;
    return false;
}

template <typename Object>
void DeleteAll(CKvList<Object*>& list) {
    for (Object* object = nullptr; list.RemoveHead(object) != 0;)
        delete object;
}

}  // namespace

// ---- Columns

uint32_t CKvColumn::GetUlong(unsigned long& /*value*/) {
    return Failed(fn::kColumn, Reason::BadData);
}
uint32_t CKvColumn::GetString(CKvString& /*text*/) {
    return Failed(fn::kColumn, Reason::BadData);
}
uint32_t CKvColumn::GetSensor(KVPS_SENSOR_DATA*& /*data*/) {
    return Failed(fn::kColumn, Reason::BadData);
}
uint32_t CKvColumn::GetSensorStatus(unsigned long* /*status*/) {
    return Failed(fn::kColumn, Reason::BadData);
}
void CKvColumn::SetData(char* /*text*/, const char* /*limit*/) {}
void CKvColumn::SetData(unsigned long /*value*/) {}
void CKvColumn::SetData(unsigned char /*owner*/, unsigned char /*lun*/, unsigned char /*number*/,
                        unsigned char /*fourth*/) {}
void CKvColumn::SetData(const CKvString& /*text*/) {}
void CKvColumn::SetValue(unsigned long /*value*/) {}

uint32_t CKvSensorColumn::GetUlong(unsigned long& /*value*/) {
    return Failed(fn::kSensorColumnGetUlong, Reason::BadData);
}

uint32_t CKvSensorColumn::GetString(CKvString& /*text*/) {
    return Failed(fn::kSensorColumnGetString, Reason::BadData);
}

uint32_t CKvSensorColumn::GetSensor(KVPS_SENSOR_DATA*& data) {
    KVPS_SENSOR_DATA reading = {};
    if (const uint32_t rc = KvIfReadSensor(sensor_, reading)) return rc;
    data = new (std::nothrow) KVPS_SENSOR_DATA(reading);
    return data != nullptr ? 0 : Failed(fn::kColumn, Reason::OutOfMemory);
}

uint32_t CKvSensorColumn::GetSensorStatus(unsigned long* status) {
    return IsSensorExist(sensor_.GetOwner(), sensor_.GetLun(), sensor_.GetNumber(), status);
}

void CKvSensorColumn::SetData(char* text, const char* limit) {
    sensor_ = CKvSensor(text, limit);
}

void CKvSensorColumn::SetData(unsigned char owner, unsigned char lun, unsigned char number, unsigned char fourth) {
    sensor_ = CKvSensor(owner, lun, number, fourth);
}

uint32_t CKvStringColumn::GetUlong(unsigned long& /*value*/) {
    return Failed(fn::kStringColumnGetUlong, Reason::BadData);
}

uint32_t CKvStringColumn::GetString(CKvString& text) {
    text = text_;
    return 0;
}

uint32_t CKvStringColumn::GetSensor(KVPS_SENSOR_DATA*& /*data*/) {
    return Failed(fn::kStringColumnGetSensor, Reason::BadData);
}

void CKvStringColumn::SetData(char* text, const char* /*limit*/) {
    text_ = static_cast<const char*>(text);
    KvDf_TrimString(text_);
}

void CKvStringColumn::SetData(const CKvString& text) {
    text_ = text;
}

uint32_t CKvValueColumn::GetUlong(unsigned long& value) {
    value = value_;
    return 0;
}

uint32_t CKvValueColumn::GetString(CKvString& /*text*/) {
    return Failed(fn::kValueColumnGetString, Reason::BadData);
}

uint32_t CKvValueColumn::GetSensor(KVPS_SENSOR_DATA*& /*data*/) {
    return Failed(fn::kValueColumnGetSensor, Reason::BadData);
}

void CKvValueColumn::SetData(char* text, const char* /*limit*/) {
    CKvString number(text, KvHeld<CKvString>::kCapacity);
    KvDf_TrimString(number);
    const char* const digits = number;
    value_ = digits != nullptr ? static_cast<uint32_t>(strtoul(digits, nullptr, 16)) : 0;
}

void CKvValueColumn::SetData(unsigned long value) {
    SetValue(value);
}

void CKvValueColumn::SetValue(unsigned long value) {
    value_ = static_cast<uint32_t>(value);
}

// ---- Instances

CKvInstance::CKvInstance(unsigned long index, const char* design)
    : index_(static_cast<uint32_t>(index)), design_(design, KvHeld<CKvString>::kCapacity) {}

CKvInstance::~CKvInstance() {
    DeleteAll(columns_);
}

uint32_t CKvInstance::AddColumn(CKvColumn* column) {
    return Append(columns_, column) ? 0 : Failed(fn::kInstance, Reason::OutOfMemory);
}

uint32_t CKvInstance::GetColumn(unsigned long index, CKvColumn** column) const {
    if (column == nullptr) return Failed(fn::kInstance, Reason::NullArgument);
    return columns_.GetAt(index, *column) != 0 ? 0 : Failed(fn::kInstance, Reason::BadData);
}

uint32_t CKvInstance::GetUlongColumn(unsigned long index, unsigned long& value) const {
    CKvColumn* column = nullptr;
    const uint32_t rc = GetColumn(index, &column);
    return rc != 0 || column == nullptr ? rc : column->GetUlong(value);
}

uint32_t CKvInstance::GetStringColumn(unsigned long index, CKvString& text) const {
    CKvColumn* column = nullptr;
    const uint32_t rc = GetColumn(index, &column);
    return rc != 0 || column == nullptr ? rc : column->GetString(text);
}

uint32_t CKvInstance::GetSensorColumn(unsigned long index, KVPS_SENSOR_DATA*& data) const {
    CKvColumn* column = nullptr;
    const uint32_t rc = GetColumn(index, &column);
    return rc != 0 || column == nullptr ? rc : column->GetSensor(data);
}

void CKvInstance::AppendSensors(std::vector<CKvSensor>& sensors) const {
    columns_.AnyOf([&sensors](const CKvColumn* column) {
        const auto* const sensor = dynamic_cast<const CKvSensorColumn*>(column);
        if (sensor != nullptr && sensor->GetType() == kColumnSensor) sensors.push_back(sensor->GetKey());
        return false;
    });
}

// ---- Inventories

CKvInventory::CKvInventory(unsigned long id, unsigned long type)
    : id_(static_cast<uint32_t>(id)), type_(static_cast<uint32_t>(type)) {}

CKvInventory::~CKvInventory() {
    DeleteAll(instances_);
}

uint32_t CKvInventory::AddInstance(CKvInstance* instance) {
    return Append(instances_, instance) ? 0 : Failed(fn::kInventory, Reason::OutOfMemory);
}

uint32_t CKvInventory::GetInstance(unsigned long index, CKvInstance** instance) const {
    if (instance == nullptr) return Failed(fn::kInventory, Reason::NullArgument);
    return instances_.GetAt(index, *instance) != 0 ? 0 : Failed(fn::kInventory, Reason::BadData);
}

std::vector<CKvSensor> CKvInventory::GetSensors() const {
    std::vector<CKvSensor> sensors;
    instances_.AnyOf([&sensors](const CKvInstance* instance) {
        instance->AppendSensors(sensors);
        return false;
    });
    return sensors;
}

CKvInventoryFactory::~CKvInventoryFactory() {
    for (CKvInventory* inventory = nullptr; inventories_.RemoveHead(inventory) != 0;)
        delete inventory;
}

uint32_t CKvInventoryFactory::AddInventory(unsigned long id, CKvInventory* inventory) {
    if (inventory == nullptr) return Failed(fn::kInventoryFactory, Reason::NullArgument);
    std::unique_ptr<CKvInventory> old;
    bool added = false;
    {
        const std::lock_guard lock(mutex_);
        CKvInventory* replaced = nullptr;
        inventories_.SetAt(id, inventory, replaced);
        old.reset(replaced);
        CKvInventory* found = nullptr;
        added = inventories_.Lookup(id, found) != 0 && found == inventory;
    }
    if (added) return 0;
    delete inventory;
    return Failed(fn::kInventoryFactory, Reason::OutOfMemory);
}

uint32_t CKvInventoryFactory::SearchInventory(unsigned long id, CKvInventory** inventory) {
    if (inventory == nullptr) return Failed(fn::kInventoryFactory, Reason::NullArgument);
    bool found = false;
    {
        const std::lock_guard lock(mutex_);
        found = inventories_.Lookup(id, *inventory) != 0;
    }
    return found ? 0 : Failed(fn::kInventoryFactory, Reason::BadData);
}

bool CKvInventoryFactory::HasInventory(unsigned long id) {
    const std::lock_guard lock(mutex_);
    CKvInventory* found = nullptr;
    return inventories_.Lookup(id, found) != 0;
}

unsigned long CKvInventoryFactory::GetInventoryCount() {
    const std::lock_guard lock(mutex_);
    return inventories_.GetCount();
}
