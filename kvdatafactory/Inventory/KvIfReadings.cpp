// The readings of one request, each sensor once.
#include "kvdatafactory/Inventory/KvIfReadings.h"

#include <algorithm>
#include <utility>

#include "kvdatafactory/Inventory/KvInventoryFactory.h"

namespace {

thread_local const KvIfReadings* t_readings = nullptr;

bool IsNamed(const SDR& record, const CKvSensor& sensor) {
    return sensor.Compare(record.owner, record.lun, record.number) != 0;
}

/// Adds the sensor of a column, if it is one with a sensor that is not there yet.
void AddSensorOf(const CKvColumn& column, std::vector<SDR>& sensors) {
    if (column.GetType() != kColumnSensor) return;
    const auto* const sensorColumn = dynamic_cast<const CKvSensorColumn*>(&column);
    if (sensorColumn == nullptr) return;
    const CKvSensor& key = sensorColumn->GetKey();
    if (std::ranges::any_of(sensors, [&key](const SDR& record) { return IsNamed(record, key); })) return;
    SDR record = {};
    record.owner = key.GetOwner();
    record.lun = key.GetLun();
    record.number = key.GetNumber();
    sensors.push_back(record);
}

}  // namespace

KvIfReadings::KvIfReadings(const CKvInventory& inventory) : before_(t_readings) {
    CKvInstance* instance = nullptr;
    for (unsigned long i = 0; i < inventory.GetInstanceCount() && inventory.GetInstance(i, &instance) == 0; ++i) {
        CKvColumn* column = nullptr;
        for (unsigned long k = 0; k < instance->GetColumnCount() && instance->GetColumn(k, &column) == 0; ++k)
            AddSensorOf(*column, sensors_);
    }
    data_.resize(sensors_.size());
    codes_.resize(sensors_.size());
    if (!sensors_.empty()) {
        KvPsGetSensorDataList(sensors_.data(), static_cast<unsigned long>(sensors_.size()), data_.data(),
                              codes_.data());
    }
    t_readings = this;
}

KvIfReadings::~KvIfReadings() {
    t_readings = before_;
}

bool KvIfReadings::Find(const CKvSensor& sensor, KVPS_SENSOR_DATA& data, uint32_t& code) const {
    const auto found = std::ranges::find_if(sensors_, [&sensor](const SDR& record) { return IsNamed(record, sensor); });
    if (found == sensors_.end()) return false;
    const auto at = static_cast<size_t>(found - sensors_.begin());
    data = data_[at];
    code = codes_[at];
    return true;
}

uint32_t KvIfReadSensor(const CKvSensor& sensor, KVPS_SENSOR_DATA& data) {
    uint32_t code = 0;
    if (t_readings != nullptr && t_readings->Find(sensor, data, code)) return code;
    return KvPsGetSensorData(sensor.GetOwner(), sensor.GetLun(), sensor.GetNumber(), &data);
}
