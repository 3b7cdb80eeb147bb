#pragma once
/// @file
/// What a column means in a record: its sensor is read, or its number is taken as it is.
///
/// Results: 0; reason 0x4201 null argument; 0x1302 a column, or a kind of sensor, that gives no such thing; 0xB10C the
/// sensor is not scanned; what the reading gave. Outputs are 0 unless 0 is returned.

#include "kvdatafactory/Inventory/KvInventoryFactory.h"

struct KVPS_COD_SENSOR_DATA {
    uint8_t bytes[4];
};

/// In tenths of a degree Celsius, signed; 0x80000000 without a value.
uint32_t KvIfConvertTemperature(CKvColumn* column, unsigned long* out);
/// In millivolts, signed; 0x80000000 without a value.
uint32_t KvIfConvertVoltage(CKvColumn* column, unsigned long* out);
/// The same of the sensor's nominal reading.
uint32_t KvIfConvertNominalVoltage(CKvColumn* column, unsigned long* out);
/// A sensor that cannot be read, or is not scanned, is absent.
uint32_t KvIfConvertExistCode(CKvColumn* column, unsigned long* out);
/// A sensor that cannot be read, or is not scanned, has an unknown state.
uint32_t KvIfConvertStateCode(CKvColumn* column, unsigned long* out);

/// The codes of a reading. @param column  its sensor column, asked for its capacity record; may be null
uint32_t KvIfGetExistCode(KVPS_SENSOR_DATA* data, unsigned long* out, CKvColumn* column);
uint32_t KvIfGetState(KVPS_SENSOR_DATA* data, unsigned long* out, CKvColumn* column);
/// What a processor's capacity record says. @param result  of reading it @return 1 when it decided both codes
int KvIfValidCodInfo(const KVPS_COD_SENSOR_DATA* record, unsigned long result, unsigned long* exist,
                     unsigned long* state);
/// Reduces a state code to what fans have: normal, not so, unknown.
void KvIfCnvertFanStatus(unsigned long* state);
