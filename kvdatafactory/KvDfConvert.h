#pragma once
/// @file
/// From a raw reading to what it means: a value in units, whether the thing is there, how it is. Nothing here talks to the
/// controller.

#include <cstdint>
#include <optional>

#include "libplatform/KvPsSensor.h"

/// What a reading without a value is converted to.
inline constexpr double kNoSensorValue = 2147483648.0;
/// What a value is that 32 bits cannot hold, or that is none.
inline constexpr uint32_t kUnknownValue = 0x80000000;

// Units of readings, as IPMI numbers them.
inline constexpr uint8_t kUnitCelsius = 1;
inline constexpr uint8_t kUnitFahrenheit = 2;
inline constexpr uint8_t kUnitKelvin = 3;
inline constexpr uint8_t kUnitVolts = 4;
inline constexpr uint8_t kUnitBytes = 0x46;
inline constexpr uint8_t kUnitKilobytes = 0x47;
inline constexpr uint8_t kUnitMegabytes = 0x48;
inline constexpr uint8_t kUnitGigabytes = 0x49;

enum KvExistCode : unsigned long { kExistUnknown = 0, kExistPresent = 1, kExistAbsent = 2 };
enum KvStateCode : unsigned long {
    kStateUnknown = 0,
    kStateLimitLow = 1,
    kStateLimitHigh = 2,
    kStateNormal = 3,
    kStateNonCritical = 4,
    kStateCritical = 5,
    kStateNonRecoverable = 6,
    kStateDisabled = 7,
};

/// The two's-complement value of a field of that many bits.
int16_t ConvertSigned(uint16_t bits, int width);

/// The reading in the sensor's own unit, by the formula and the linearization of its record.
/// @param conversion  KVPS_SENSOR_CONVERSION_SIZE bytes
double SensorValue(uint8_t raw, const uint8_t* conversion);
/// Converts between units of temperature, and between those of memory size. @return false when there is no way
bool ConvertUnit(double value, uint8_t from, uint8_t to, double& out);
/// Cuts the digits behind the point. @return kUnknownValue for what is no number or does not fit into 32 bits, signed
uint32_t TruncateValue(double value);

inline bool IsScanningEnabled(const KVPS_SENSOR_DATA& data) {
    return (data.flags & 0x40) != 0;
}
inline bool AreEventsEnabled(const KVPS_SENSOR_DATA& data) {
    return (data.flags & 0x80) != 0;
}
inline bool IsReadingAvailable(const KVPS_SENSOR_DATA& data) {
    return (data.flags & 0x20) == 0;
}
/// Sensor-specific states of a processor, which may have a capacity record that knows better.
bool IsProcessorSensor(const KVPS_SENSOR_DATA& data);

/// Whether the thing that a sensor watches is there. @return none for kinds of sensors that do not tell
std::optional<unsigned long> ExistCodeOf(const KVPS_SENSOR_DATA& data);
/// How it is. @return none for kinds of sensors that do not tell
std::optional<unsigned long> StateCodeOf(const KVPS_SENSOR_DATA& data);
