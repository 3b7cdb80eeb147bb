// The readings of one request, each sensor once.
#include "kvdatafactory/Inventory/KvIfReadings.h"

#include <algorithm>

namespace {

thread_local const KvIfReadings* t_readings = nullptr;

bool IsNamed(const SDR& record, const CKvSensor& sensor) {
    return sensor.Compare(record.owner, record.lun, record.number) != 0;
}

SDR RecordOf(const CKvSensor& sensor) {
    SDR record = {};
    record.owner = sensor.GetOwner();
    record.lun = sensor.GetLun();
    record.number = sensor.GetNumber();
    return record;
}

}  // namespace

KvIfReadings::KvIfReadings(const std::vector<CKvSensor>& sensors) : before_(t_readings) {
    for (const CKvSensor& sensor : sensors) {
        const auto same = [&sensor](const SDR& record) { return IsNamed(record, sensor); };
        if (std::ranges::none_of(sensors_, same)) sensors_.push_back(RecordOf(sensor));
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
