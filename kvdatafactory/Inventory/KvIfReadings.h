#pragma once
/// @file
/// The readings of one request. The columns of a record often show the same sensor in several ways, and a request goes
/// over all sensors of its kind: each is read once, all of them under one opening of the device.

#include <cstdint>
#include <vector>

#include "kvdatafactory/KvSensor.h"
#include "libplatform/KvPsSensor.h"

/// For its scope, sensors that the calling thread asks for with KvIfReadSensor are those that were read here.
class KvIfReadings {
public:
    /// Reads each of the sensors once.
    explicit KvIfReadings(const std::vector<CKvSensor>& sensors);
    ~KvIfReadings();
    KvIfReadings(const KvIfReadings&) = delete;
    KvIfReadings& operator=(const KvIfReadings&) = delete;

    /// @return false when the sensor is none of these; else code is what its reading gave
    bool Find(const CKvSensor& sensor, KVPS_SENSOR_DATA& data, uint32_t& code) const;

private:
    std::vector<SDR> sensors_;
    std::vector<KVPS_SENSOR_DATA> data_;
    std::vector<uint32_t> codes_;
    const KvIfReadings* before_;
};

/// A sensor's current reading: the request's, or where there is none a fresh one.
/// @return as KvPsGetSensorData
uint32_t KvIfReadSensor(const CKvSensor& sensor, KVPS_SENSOR_DATA& data);
