#pragma once
/// @file
/// The sensors that the BMC knows: their records, read once at start-up, and their current values.
///
/// @code
///     unsigned long count = 0;
///     SDR* records = NULL;
///     if (KvPsGetAllSdrData(&count, &records) != 0) return;
///     for (unsigned long i = 0; i < count; ++i) {
///         KVPS_SENSOR_DATA data;  // for many at once: KvPsGetSensorDataList
///         if (KvPsGetSensorData(records[i].owner, records[i].lun, records[i].number, &data) == 0) {
///             printf("%s: %u\n", records[i].name, (unsigned)data.reading);
///         }
///     }
///     free(records);
/// @endcode
///
/// A sensor is named by its owner (slave address of the controller), the owner's LUN (0 to 3) and its number (0 to
/// 254). Any thread may call; a failure has been traced when the function returns. Functions that ask the BMC open,
/// work and close in themselves and wait for their turn as long as it takes; they also give what the command gave: with
/// the command's number in bits 16 to 25, 0xB101 or 0xB102 the driver failed, 0xB2cc the BMC refused with completion
/// code cc.

#include "libplatform/KvExport.h"

#define KVPS_SENSOR_NAME_SIZE 64
/// Bytes that say how a reading becomes a value: units, base unit, modifier unit, linearization, M (2), B (2),
/// accuracy, exponents; as in bytes 20 to 29 of a full record.
#define KVPS_SENSOR_CONVERSION_SIZE 10

/// One sensor's record, packed: the fields of its sensor data record that are of use later.
typedef struct SDR {
    uint8_t owner;                                    ///< slave address of the owner; bit 0 set: software
    uint8_t lun;                                      ///< of the owner
    uint8_t number;                                   ///< of the sensor
    uint8_t entityId;                                 ///< what it measures: processor, fan ...
    uint8_t entityInstance;                           ///< which one of these
    uint8_t sensorType;                               ///< temperature, voltage ...
    uint8_t readingType;                              ///< event/reading type code; 1: threshold
    uint8_t conversion[KVPS_SENSOR_CONVERSION_SIZE];  ///< all 0xFF where the reading is no number
    uint8_t nominalSpecified;                         ///< 1: the next field counts
    uint8_t nominal;                                  ///< raw reading in normal operation
    char name[KVPS_SENSOR_NAME_SIZE];
    uint8_t recordType;  ///< 1 full, 2 compact, 3 event-only
} SDR;

/// The current reading of a sensor, with what is needed to make sense of it.
typedef struct KVPS_SENSOR_DATA {
    uint8_t reading;      ///< raw
    uint8_t states[2];    ///< thresholds crossed, or states that hold
    uint8_t readingType;  ///< as in SDR, and so are those below
    uint8_t sensorType;
    uint8_t flags;  ///< bit 7 event messages enabled, bit 6 scanning enabled, bit 5 reading unavailable
    uint8_t nominalSpecified;
    uint8_t nominal;
    uint8_t conversion[KVPS_SENSOR_CONVERSION_SIZE];
} KVPS_SENSOR_DATA;

KV_STATIC_ASSERT(sizeof(SDR) == 84 && offsetof(SDR, sensorType) == 5 && offsetof(SDR, conversion) == 7);
KV_STATIC_ASSERT(offsetof(SDR, nominalSpecified) == 17 && offsetof(SDR, name) == 19 && offsetof(SDR, recordType) == 83);
KV_STATIC_ASSERT(sizeof(KVPS_SENSOR_DATA) == 18 && offsetof(KVPS_SENSOR_DATA, readingType) == 3);
KV_STATIC_ASSERT(offsetof(KVPS_SENSOR_DATA, flags) == 5 && offsetof(KVPS_SENSOR_DATA, nominal) == 7);
KV_STATIC_ASSERT(offsetof(KVPS_SENSOR_DATA, conversion) == 8);

KV_EXTERN_C_BEGIN

/// Finds the controllers, sets the clock of the event log, and reads the whole repository of sensor data records. It
/// takes some five commands for each sensor. InitLib calls it; a host does so when sensors have come or gone, with no
/// poll of the event log in progress. The tables are then made anew.
/// @return 0; 0x6050B104, 0x6000B104, 0x6040B104 the driver could not be opened; 0x6050B105 nothing owns a sensor;
///         0x60501202 out of memory; 0x6000B10D, 0x6040B10D the process is terminating; what a command gave. After a
///         failure of the full read the records read so far are there.
KV_EXPORT uint32_t KvPsInitializeIpmi(void);

/// Frees the sensor table and ends the local databases of the event logs. TerminateLib calls it. @return 0
KV_EXPORT uint32_t KvPsTerminateIpmi(void);

/// Copies the records of all sensors, in the order of owners and sensor numbers.
/// @param count    receives their number
/// @param records  receives the copies, the caller's to free(); null when there are none
/// @return 0; 0x60004201 null argument; 0x6000B103 no records are loaded; 0x6000B111 out of memory
KV_EXPORT uint32_t KvPsGetAllSdrData(unsigned long* count, SDR** records);

/// Finds the records of an entity and sensor type. The records stay the library's and last until TerminateLib or
/// another KvPsInitializeIpmi.
/// @param count  receives their number; may be null when array is not
/// @param array  receives the array of pointers, the caller's to free(); may be null when count is not
/// @return 0, and the outputs as they were when there is no such record; 0x60004201 both outputs are null; 0x6000B103
///         no records are loaded; 0x6000B111 out of memory
KV_EXPORT uint32_t KvPsGetSdrData(uint8_t entityId, uint8_t sensorType, unsigned long* count, SDR*** array);

/// Reads a sensor's current value with one command, and joins it with its record. What cannot be is not asked.
/// @param out  zeroes where nothing is known
/// @return 0; 0x60004201 null; 0x6049B106 LUN above 3, sensor number 255, or no such sensor owner; 0x6054B104 the
///         driver could not be opened
KV_EXPORT uint32_t KvPsGetSensorData(uint8_t owner, uint8_t lun, uint8_t sensor, KVPS_SENSOR_DATA* out);

/// Reads many sensors under one opening of the device, which is what most of a reading costs; others who want the BMC
/// get their turn in between. One that fails does not keep back the others.
/// @param records  count records, as KvPsGetAllSdrData gives them
/// @param data     count readings, the caller's
/// @param results  count codes as KvPsGetSensorData gives them; 0x6000B100, untraced as it is no failure, for
///                 event-only sensors, which have no reading
/// @return 0; 0x60004201 null; 0x6054B104 the driver could not be opened, from the start or again on the way; the
///         sensors not reached have the same code
KV_EXPORT uint32_t KvPsGetSensorDataList(const SDR* records, unsigned long count, KVPS_SENSOR_DATA* data,
                                         uint32_t* results);

/// Asks for the factors of a reading, for sensors whose conversion is not the same over their range.
/// @param conversion  KVPS_SENSOR_CONVERSION_SIZE bytes, of which the last six are replaced
/// @return 0; 0x605B4201 null; 0x605BB109 the owner is software; 0x605BB10A LUN above 3; 0x605BB106 sensor number 255;
///         0x605BB104 the driver could not be opened; 0x605BB107 the command failed
KV_EXPORT uint32_t KvPsGetSensorConvert(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t reading,
                                        uint8_t* conversion);

// Single fields of a sensor's record.
// Results: 0; 0x60004201 null; 2001 LUN above 3; 2006 sensor number 255; 2014 no such sensor owner, or no records are
// loaded; 2018 no such sensor.

/// @param name  KVPS_SENSOR_NAME_SIZE bytes
KV_EXPORT uint32_t KvPsGetSensorIdString(uint8_t owner, uint8_t lun, uint8_t sensor, char* name);
KV_EXPORT uint32_t KvPsGetEntityId(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out);
KV_EXPORT uint32_t KvPsGetEntityInstance(uint8_t owner, uint8_t lun, uint8_t sensor, uint8_t* out);

KV_EXTERN_C_END
