// What a raw reading means: the formulas of the sensor data records, and the tables of states.
#include "kvdatafactory/KvDfConvert.h"

#include <cmath>
#include <iterator>

namespace {

// Event/reading type codes.
constexpr uint8_t kThreshold = 0x01;
constexpr uint8_t kStateAsserted = 0x03;
constexpr uint8_t kLimit = 0x05;
constexpr uint8_t kPerformance = 0x06;
constexpr uint8_t kSeverity = 0x07;
constexpr uint8_t kPresence = 0x08;
constexpr uint8_t kEnabled = 0x09;
constexpr uint8_t kSensorSpecific = 0x6F;

// Sensor types.
constexpr uint8_t kFanSensor = 0x04;
constexpr uint8_t kProcessorSensor = 0x07;
constexpr uint8_t kPowerSupplySensor = 0x08;
constexpr uint8_t kOemSensor = 0xC1;

/// Offsets within the conversion bytes.
enum Conversion : uint8_t { kFormat = 0, kLinearization = 3, kM = 4, kMHigh = 5, kB = 6, kBHigh = 7, kExponents = 9 };

/// The raw byte as a number, by the analog data format in bits 7 and 6.
int RawNumber(uint8_t raw, uint8_t format) {
    const int number = raw < 0x80 ? raw : raw - 0x100;
    switch (format >> 6) {
        case 0:
            return raw;
        case 1:  // one's complement
            return number < 0 ? number + 1 : number;
        default:
            return number;
    }
}

double Linearize(double y, uint8_t linearization) {
    switch (linearization) {
        case 1:
            return std::log(y);
        case 2:
            return std::log10(y);
        case 3:
            return std::log(y) / std::log(2.0);
        case 4:
            return std::exp(y);
        case 5:
            return std::pow(10.0, y);
        case 6:
            return std::pow(2.0, y);
        case 7:
            return 1 / y;
        case 8:
            return y * y;
        case 9:
            return y * y * y;
        case 10:
            return std::sqrt(y);
        case 11:
            return std::pow(y, 1.0 / 3);
        default:
            return y;
    }
}

double CelsiusToFahrenheit(double v) {
    return v * 9 / 5 + 32;
}
double FahrenheitToCelsius(double v) {
    return (v - 32) * 5 / 9;
}

struct UnitConversion {
    uint8_t from;
    uint8_t to;
    double (*convert)(double value);
};
constexpr double kKelvin = 273.15;
constexpr UnitConversion kTemperatures[] = {
    {kUnitFahrenheit, kUnitCelsius, FahrenheitToCelsius},
    {kUnitKelvin, kUnitCelsius, [](double v) { return v - kKelvin; }},
    {kUnitCelsius, kUnitFahrenheit, CelsiusToFahrenheit},
    {kUnitKelvin, kUnitFahrenheit, [](double v) { return CelsiusToFahrenheit(v - kKelvin); }},
    {kUnitCelsius, kUnitKelvin, [](double v) { return v + kKelvin; }},
    {kUnitFahrenheit, kUnitKelvin, [](double v) { return FahrenheitToCelsius(v) + kKelvin; }},
};

bool IsMemoryUnit(uint8_t unit) {
    return unit >= kUnitBytes && unit <= kUnitGigabytes;
}

bool HasState(const KVPS_SENSOR_DATA& data, int bit) {
    return (data.states[0] >> bit & 1) != 0;
}
bool HasAny(const KVPS_SENSOR_DATA& data, uint8_t mask) {
    return (data.states[0] & mask) != 0;
}

unsigned long ThresholdState(const KVPS_SENSOR_DATA& data) {
    if (!AreEventsEnabled(data)) return kStateUnknown;
    if (HasAny(data, 0x24)) return kStateNonRecoverable;
    if (HasAny(data, 0x12)) return kStateCritical;
    return HasAny(data, 0x09) ? kStateNonCritical : kStateNormal;
}

unsigned long LimitState(const KVPS_SENSOR_DATA& data) {
    if (HasState(data, 0)) return kStateLimitLow;
    return HasState(data, 1) ? kStateLimitHigh : kStateUnknown;
}

unsigned long SeverityState(const KVPS_SENSOR_DATA& data) {
    if (HasAny(data, 0x48)) return kStateNonRecoverable;
    if (HasAny(data, 0x24)) return kStateCritical;
    return HasAny(data, 0x12) ? kStateNonCritical : kStateNormal;
}

unsigned long EnabledState(const KVPS_SENSOR_DATA& data) {
    if (HasState(data, 0)) return kStateNonCritical;
    return HasState(data, 1) ? kStateNormal : kStateUnknown;
}

unsigned long ProcessorState(const KVPS_SENSOR_DATA& data) {
    constexpr uint8_t kDisabled = 0x01;    // of the second state byte
    constexpr uint8_t kTerminator = 0x02;  // in the socket instead of a processor
    constexpr uint8_t kErrors = 0x7F;
    if ((data.states[1] & kTerminator) != 0) return kStateLimitHigh;
    if ((data.states[1] & kDisabled) != 0) return kStateDisabled;
    if (!HasState(data, 7)) return kStateLimitHigh;
    return HasAny(data, kErrors) ? kStateNonCritical : kStateNormal;
}

std::optional<unsigned long> SpecificState(const KVPS_SENSOR_DATA& data) {
    const bool available = IsReadingAvailable(data);
    switch (data.sensorType) {
        case kPowerSupplySensor:
            return available && HasState(data, 1) && HasState(data, 0) ? kStateNonCritical : kStateNormal;
        case kProcessorSensor:
            return available ? ProcessorState(data) : kStateLimitHigh;
        case kOemSensor:
            if (!available) return kStateUnknown;
            return HasState(data, 1) ? kStateDisabled : kStateNormal;
        default:
            return std::nullopt;
    }
}

/// The states of an available reading, for kinds that are unknown while it is not.
std::optional<unsigned long> GenericState(const KVPS_SENSOR_DATA& data) {
    switch (data.readingType) {
        case kThreshold:
            return ThresholdState(data);
        case kStateAsserted:
        case kPerformance:
            return HasState(data, 1) ? kStateNonRecoverable : kStateNormal;
        case kLimit:
            return LimitState(data);
        case kSeverity:
            return SeverityState(data);
        case kEnabled:
            return EnabledState(data);
        default:
            return std::nullopt;
    }
}

std::optional<unsigned long> SpecificExist(const KVPS_SENSOR_DATA& data) {
    const bool available = IsReadingAvailable(data);
    switch (data.sensorType) {
        case kPowerSupplySensor:
            return available && HasState(data, 0) ? kExistPresent : kExistAbsent;
        case kProcessorSensor:
            return available && HasState(data, 7) ? kExistPresent : kExistAbsent;
        case kOemSensor:
            if (!available) return kExistUnknown;
            return HasState(data, 0) ? kExistPresent : kExistAbsent;
        default:
            return std::nullopt;
    }
}

unsigned long PresenceExist(const KVPS_SENSOR_DATA& data) {
    if (HasState(data, 0)) return kExistAbsent;
    return HasState(data, 1) ? kExistPresent : kExistUnknown;
}

}  // namespace

int16_t ConvertSigned(uint16_t bits, int width) {
    const int value = bits;
    return static_cast<int16_t>(value >= 1 << (width - 1) ? value - (1 << width) : value);
}

double SensorValue(uint8_t raw, const uint8_t* conversion) {
    const int x = RawNumber(raw, conversion[kFormat]);
    const auto field = [conversion](Conversion low, Conversion high) {
        return ConvertSigned(static_cast<uint16_t>(conversion[low] + 256 * (conversion[high] >> 6)), 10);
    };
    const int m = field(kM, kMHigh);
    const int b = field(kB, kBHigh);
    const int resultExponent = ConvertSigned(conversion[kExponents] >> 4, 4);
    const int bExponent = ConvertSigned(conversion[kExponents] & 0x0F, 4);
    const double y = (m * x + b * std::pow(10.0, bExponent)) * std::pow(10.0, resultExponent);
    return Linearize(y, conversion[kLinearization]);
}

bool ConvertUnit(double value, uint8_t from, uint8_t to, double& out) {
    if (from != to && IsMemoryUnit(from) && IsMemoryUnit(to)) {
        out = value * std::pow(1024.0, from - to);
        return true;
    }
    for (const UnitConversion& conversion : kTemperatures) {
        if (conversion.from != from || conversion.to != to) continue;
        out = conversion.convert(value);
        return true;
    }
    return false;
}

uint32_t TruncateValue(double value) {
    // Below 2^31 on both sides; what is no number fails both comparisons.
    const bool fits = value > -2147483649.0 && value < 2147483648.0;
    if (!fits) return kUnknownValue;
    return static_cast<uint32_t>(static_cast<int32_t>(value));
}

bool IsProcessorSensor(const KVPS_SENSOR_DATA& data) {
    return data.readingType == kSensorSpecific && data.sensorType == kProcessorSensor;
}

std::optional<unsigned long> ExistCodeOf(const KVPS_SENSOR_DATA& data) {
    const bool available = IsReadingAvailable(data);
    if (!IsScanningEnabled(data)) {
        return !AreEventsEnabled(data) && !available ? kExistUnknown : kExistAbsent;
    }
    switch (data.readingType) {
        case kPresence:
            return available ? PresenceExist(data) : kExistUnknown;
        case kStateAsserted:
            return available ? kExistPresent : kExistUnknown;
        case kSensorSpecific:
            return SpecificExist(data);
        default:
            return std::nullopt;
    }
}

std::optional<unsigned long> StateCodeOf(const KVPS_SENSOR_DATA& data) {
    if (!IsScanningEnabled(data)) return kStateUnknown;
    if (data.readingType == kSensorSpecific) return SpecificState(data);
    if (data.readingType == kStateAsserted && data.sensorType != kFanSensor) return std::nullopt;
    const std::optional<unsigned long> state = GenericState(data);
    return state && !IsReadingAvailable(data) ? kStateUnknown : state;
}
