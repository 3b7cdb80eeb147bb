// What columns mean in records: values, presence, state.
#include "kvdatafactory/Inventory/KvIfConvert.h"

#include <memory>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "kvdatafactory/KvDfConvert.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "libplatform/KvDfConvert.h"
#include "libplatform/KvPsBmc.h"

namespace {

constexpr uint16_t kNotScanned = 0xB10C;
constexpr uint32_t kNoCapacityRecord = 0x6000B133;

uint32_t Failed(uint32_t function, auto reason, std::source_location where = std::source_location::current()) {
    return PXR_ReportError(MakeResult(function, reason), where);
}

// Blades whose processors are paid for by the piece.

bool HasCapacityOnDemand() {
    int pilot2 = 0;
    KVPS_COD_BLADE_INFO blade = {};
    return IsPilot2_File(&pilot2) && pilot2 != 0 && KvPsGetCoDBladeInfo(&blade) == 0 && blade.supported == 1;
}

/// Asks a processor's capacity record for both codes. @return whether it decided
bool AskCapacityRecord(CKvColumn* column, unsigned long& exist, unsigned long& state) {
    const auto* const sensorColumn = dynamic_cast<const CKvSensorColumn*>(column);
    if (sensorColumn == nullptr || !HasCapacityOnDemand()) return false;
    const CKvSensor& key = sensorColumn->GetKey();
    KVPS_COD_SENSOR_DATA record = {};
    const uint32_t result = KvPsOEMGetCodData(key.GetOwner(), key.GetLun(), key.GetNumber(), record.bytes);
    return KvIfValidCodInfo(&record, result, &exist, &state) != 0;
}

/// Reads a sensor column as codes do: what cannot be read, or is not scanned, has a code of its own.
/// @return the reading; null without one
std::unique_ptr<KVPS_SENSOR_DATA> ReadForCode(CKvColumn& column) {
    KVPS_SENSOR_DATA* data = nullptr;
    const uint32_t rc = column.GetSensor(data);
    std::unique_ptr<KVPS_SENSOR_DATA> owner(data);
    if (rc != 0 || data == nullptr || !IsScanningEnabled(*data)) return nullptr;
    return owner;
}

/// Converts a column: what fromSensor makes of a sensor, a value column's number, or the function's failure.
template <typename FromSensor>
uint32_t Convert(uint32_t function, CKvColumn* column, unsigned long* out, FromSensor fromSensor) {
    if (out != nullptr) *out = 0;
    if (column == nullptr || out == nullptr) return Failed(function, Reason::NullArgument);
    switch (column->GetType()) {
        case kColumnSensor:
            return fromSensor(*column);
        case kColumnValue:
            return column->GetUlong(*out);
        default:
            return Failed(function, Reason::BadData);
    }
}

/// Converts a sensor's reading, current or nominal, into thousandths, tenths ... of a unit.
template <typename Raw>
uint32_t ConvertValue(uint32_t function, CKvColumn* column, unsigned long* out, uint8_t unit, double scale, Raw raw) {
    return Convert(function, column, out, [&](CKvColumn& sensorColumn) -> uint32_t {
        KVPS_SENSOR_DATA* data = nullptr;
        if (const uint32_t rc = sensorColumn.GetSensor(data)) return rc;
        const std::unique_ptr<KVPS_SENSOR_DATA> owner(data);
        const std::optional<uint8_t> reading = raw(*data);
        if (!reading) {
            *out = kUnknownValue;
            return 0;
        }
        const auto* const keyed = dynamic_cast<const CKvSensorColumn*>(&sensorColumn);
        CKvSensor key = keyed != nullptr ? keyed->GetKey() : CKvSensor();
        double value = 0;
        if (const uint32_t rc = KvDfGetSensorValueWithUnit(*reading, data, &value, unit, &key)) return rc;
        *out = TruncateValue(value * scale);
        return 0;
    });
}

std::optional<uint8_t> CurrentReading(const KVPS_SENSOR_DATA& data) {
    return data.reading;
}

std::optional<uint8_t> NominalReading(const KVPS_SENSOR_DATA& data) {
    if (data.nominalSpecified == 0) return std::nullopt;
    return data.nominal;
}

}  // namespace

uint32_t KvDfGetSensorValue(unsigned char raw, KVPS_SENSOR_DATA* data, double* value, CKvSensor* sensor) {
    constexpr uint8_t kFetchFactors = 1;
    if (data == nullptr || value == nullptr) return Failed(fn::kGetSensorValue, Reason::NullArgument);
    if (!IsScanningEnabled(*data)) return Failed(fn::kGetSensorValue, kNotScanned);
    *value = kNoSensorValue;
    if (sensor != nullptr && sensor->GetFourth() == kFetchFactors) {
        const uint32_t rc =
            KvPsGetSensorConvert(sensor->GetOwner(), sensor->GetLun(), sensor->GetNumber(), raw, data->conversion);
        if (rc != 0) return rc;
    }
    *value = SensorValue(raw, data->conversion);
    return 0;
}

uint32_t KvDfGetSensorValueWithUnit(unsigned char raw, KVPS_SENSOR_DATA* data, double* value, unsigned char unit,
                                    CKvSensor* sensor) {
    constexpr size_t kBaseUnit = 1;
    if (data == nullptr || value == nullptr) return Failed(fn::kGetSensorValueWithUnit, Reason::NullArgument);
    if (!IsScanningEnabled(*data)) return Failed(fn::kGetSensorValueWithUnit, kNotScanned);
    *value = kNoSensorValue;
    if (!AreEventsEnabled(*data) || !IsReadingAvailable(*data)) return 0;
    double converted = 0;
    if (const uint32_t rc = KvDfGetSensorValue(raw, data, &converted, sensor)) return rc;
    const uint8_t base = data->conversion[kBaseUnit];
    if (base == 0 || base == unit) {
        *value = converted;
        return 0;
    }
    return ConvertUnit(converted, base, unit, *value) ? 0 : Failed(fn::kGetSensorValueWithUnit, Reason::BadData);
}

uint32_t KvIfConvertTemperature(CKvColumn* column, unsigned long* out) {
    return ConvertValue(fn::kConvertTemperature, column, out, kUnitCelsius, 10, CurrentReading);
}

uint32_t KvIfConvertVoltage(CKvColumn* column, unsigned long* out) {
    return ConvertValue(fn::kConvertVoltage, column, out, kUnitVolts, 1000, CurrentReading);
}

uint32_t KvIfConvertNominalVoltage(CKvColumn* column, unsigned long* out) {
    return ConvertValue(fn::kConvertNominalVoltage, column, out, kUnitVolts, 1000, NominalReading);
}

uint32_t KvIfConvertExistCode(CKvColumn* column, unsigned long* out) {
    return Convert(fn::kConvertExistCode, column, out, [out](CKvColumn& sensorColumn) -> uint32_t {
        const auto data = ReadForCode(sensorColumn);
        if (data != nullptr) return KvIfGetExistCode(data.get(), out, &sensorColumn);
        *out = kExistAbsent;
        return 0;
    });
}

uint32_t KvIfConvertStateCode(CKvColumn* column, unsigned long* out) {
    return Convert(fn::kConvertStateCode, column, out, [out](CKvColumn& sensorColumn) -> uint32_t {
        const auto data = ReadForCode(sensorColumn);
        return data != nullptr ? KvIfGetState(data.get(), out, &sensorColumn) : 0;
    });
}

uint32_t KvIfGetExistCode(KVPS_SENSOR_DATA* data, unsigned long* out, CKvColumn* column) {
    if (data == nullptr || out == nullptr) return Failed(fn::kGetExistCode, Reason::NullArgument);
    unsigned long state = 0;
    const bool mayBeRecorded = IsScanningEnabled(*data) && IsReadingAvailable(*data) && IsProcessorSensor(*data);
    if (mayBeRecorded && AskCapacityRecord(column, *out, state)) return 0;
    const std::optional<unsigned long> exist = ExistCodeOf(*data);
    *out = exist.value_or(0);
    return exist ? 0 : Failed(fn::kGetExistCode, Reason::BadData);
}

uint32_t KvIfGetState(KVPS_SENSOR_DATA* data, unsigned long* out, CKvColumn* column) {
    if (data == nullptr || out == nullptr) return Failed(fn::kGetState, Reason::NullArgument);
    unsigned long exist = 0;
    const bool mayBeRecorded = IsScanningEnabled(*data) && IsReadingAvailable(*data) && IsProcessorSensor(*data);
    if (mayBeRecorded && AskCapacityRecord(column, exist, *out)) return 0;
    const std::optional<unsigned long> state = StateCodeOf(*data);
    *out = state.value_or(0);
    return state ? 0 : Failed(fn::kGetState, Reason::BadData);
}

int KvIfValidCodInfo(const KVPS_COD_SENSOR_DATA* record, unsigned long result, unsigned long* exist,
                     unsigned long* state) {
    if (record == nullptr || exist == nullptr || state == nullptr) return 0;
    const auto decide = [&](unsigned long existCode, unsigned long stateCode) {
        *exist = existCode;
        *state = stateCode;
        return 1;
    };
    if (result == kNoCapacityRecord) return decide(kExistAbsent, 10);
    if (result != 0) return 0;
    if ((record->bytes[1] & 0x80) == 0) return decide(kExistAbsent, 13);
    if ((record->bytes[1] & 0x03) == 0x02) return decide(kExistAbsent, 15);
    switch (record->bytes[2]) {
        case 0:
            return decide(kExistPresent, kStateNormal);
        case 1:
            return decide(kExistAbsent, 11);
        case 2:
            return decide(kExistPresent, kStateNonCritical);
        case 3:
            return decide(kExistAbsent, 12);
        default:
            return 0;
    }
}

void KvIfCnvertFanStatus(unsigned long* state) {
    if (state == nullptr) return;
    switch (*state) {
        case kStateNormal:
            break;
        case kStateNonCritical:
        case kStateCritical:
        case kStateNonRecoverable:
            *state = kStateNonCritical;
            break;
        default:
            *state = kStateUnknown;
    }
}
