#pragma once
/// @file
/// Converting raw sensor readings into values.

#include "libplatform/KvPsSensor.h"

#ifdef __cplusplus
/// The key of a sensor: owner, LUN, number, and a fourth byte; 1 in it: the factors are asked for with each reading.
class CKvSensor;

KV_EXTERN_C_BEGIN

/// Converts a raw reading into the sensor's own unit, by its record.
/// @param data    of the sensor; its conversion bytes are replaced where the factors are asked for
/// @param value   2147483648.0 when there is none
/// @param sensor  null: the factors are those of data
/// @return 0; 0x60B64201 null data or value; 0x60B6B10C the sensor is not scanned; what KvPsGetSensorConvert gives
KV_EXPORT uint32_t KvDfGetSensorValue(unsigned char raw, KVPS_SENSOR_DATA* data, double* value, CKvSensor* sensor);
/// The same in a given unit, as IPMI numbers them. A sensor whose events are disabled, or whose reading is not
/// available, has no value.
/// @return 0; 0x60B54201 null data or value; 0x60B5B10C the sensor is not scanned; 0x60B51302 the units do not go
///         together; what KvDfGetSensorValue gives
KV_EXPORT uint32_t KvDfGetSensorValueWithUnit(unsigned char raw, KVPS_SENSOR_DATA* data, double* value,
                                              unsigned char unit, CKvSensor* sensor);

KV_EXTERN_C_END
#endif
