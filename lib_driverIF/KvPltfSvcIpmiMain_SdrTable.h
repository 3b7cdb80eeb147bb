#pragma once
/// @file
/// The tables that the sensor data repository is read into: who owns sensors, who keeps an event log, and a record for
/// each sensor.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <shared_mutex>

#include "libplatform/KvPsSensor.h"

/// A controller that owns sensors or keeps an event log. For sensor owners what follows the type is zero. An SEL
/// device's entry is kept on disk as it stands.
struct DEVICE_INFO {
    uint8_t address;         ///< slave address, or owner id
    uint8_t lun;             ///< 0 for SEL devices
    uint16_t recordId;       ///< of the sensor data record that named it
    uint8_t sdrVersion;      ///< of that record; with recordId the key of the device's files
    uint8_t bType;           ///< of that record
    uint8_t reserve;         ///< 1: the log is read and cleared under a reservation
    uint8_t reserved;        ///< 0
    uint16_t selCount;       ///< entries taken so far
    uint16_t nextSelId;      ///< where the next read starts
    uint32_t lastTimeStamp;  ///< of the last entry taken; 0: the log was never read
};
static_assert(sizeof(DEVICE_INFO) == 16);
static_assert(offsetof(DEVICE_INFO, recordId) == 2 && offsetof(DEVICE_INFO, sdrVersion) == 4);
static_assert(offsetof(DEVICE_INFO, bType) == 5 && offsetof(DEVICE_INFO, reserve) == 6);
static_assert(offsetof(DEVICE_INFO, selCount) == 8 && offsetof(DEVICE_INFO, nextSelId) == 10);
static_assert(offsetof(DEVICE_INFO, lastTimeStamp) == 12);

inline constexpr uint32_t kMaxDevices = 127;      ///< in each table; further ones are left out
inline constexpr uint32_t kSlotsPerDevice = 255;  ///< sensor numbers 0 to 254; 255 stands for none

// Filled by KvPsInitializeIpmi. The sensor devices and the sensor table are guarded by g_sdrMutex, a leaf: nothing is
// called with it held. The SEL devices are put in place before the first poll; from then on the SEL database's lock
// guards them.
extern std::shared_mutex g_sdrMutex;
extern DEVICE_INFO g_stSnsDev[kMaxDevices];
extern uint32_t g_dwSnsDevCnt;
extern SDR (*g_pSdr)[kSlotsPerDevice];  ///< a block for each sensor device; null while no records are loaded
extern uint32_t g_dwSdrBlocks;          ///< how many; devices found since the table was made have none
extern DEVICE_INFO g_stSelDev[kMaxDevices];
extern uint32_t g_dwSelDevCnt;

namespace ktx_ipmi {

inline constexpr uint8_t kLastLun = 3;
inline constexpr uint8_t kNoSensor = 0xFF;  ///< a number that no sensor has

/// Why no controller can have a sensor of this owner, LUN and number: a service_reason. Nothing when one can.
std::optional<uint16_t> SensorRefusal(uint8_t owner, uint8_t lun, uint8_t sensor);

/// What the sensor table says about a sensor.
enum class SdrLookup {
    kFound,
    kNoTable,   ///< no records are loaded
    kNoDevice,  ///< no record names this owner and LUN
    kNoNumber,  ///< 255 stands for no sensor
    kEmpty,     ///< the owner is known, the sensor is not
};
/// Looks a sensor up; the number is checked after the table and before the device.
/// @param copy  receives the record, zeroes when there is none; may be null
SdrLookup FindSdr(uint8_t owner, uint8_t lun, uint8_t sensor, SDR* copy);

/// Whether the table of sensors holds a record for this one.
bool HasSensorRecord(uint8_t owner, uint8_t lun, uint8_t sensor);

/// Empties both device tables and frees the sensor table.
void ClearSensorTables();
/// Each appends a device unless its table is full or names it already: a sensor device by owner and LUN, an SEL device
/// by address and record id.
void AddSensorDevice(const DEVICE_INFO& device);
void AddSelDevice(const DEVICE_INFO& device);
/// Whether AddSelDevice would take it.
bool IsNewSelDevice(const DEVICE_INFO& device);
/// Makes an empty sensor table for the devices that are known, in place of the one there is. @return false: no memory
bool MakeSdrTable();
void FreeSdrTable();
/// Puts a record into its slot. @return whether there is one for it
bool StoreSdr(const SDR& sdr);

/// Index of the sensor device; -1 for none.
int GetSensorDeviceNo(uint8_t owner, uint8_t lun);
/// Number of records in the sensor table.
uint32_t SdrInstanceCnt();

/// Visits every record of the sensor table, by device and sensor number. The caller holds g_sdrMutex.
template <typename Visit>
void ForEachSdr(Visit visit) {
    if (g_pSdr == nullptr) return;
    for (uint32_t device = 0; device < g_dwSdrBlocks; ++device) {
        for (SDR& slot : g_pSdr[device]) {
            if (slot.recordType != 0) visit(slot);
        }
    }
}

}  // namespace ktx_ipmi

/// Tells whether the sensor table has a record for a sensor.
/// @param flag  1 or 0
/// @return 0; 0x60004201 null; 0x6000B103 no records are loaded; 0x6000B106 sensor 255
uint32_t IsSensorExist(uint8_t owner, uint8_t lun, uint8_t sensor, unsigned long* flag);
