#pragma once
/// @file
/// What the files of the IPMI service layer share: start-up state, and the steps that are built on several commands.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <span>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "libplatform/KvDfFru.h"
#include "libplatform/KvExport.h"
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

/// Whether the process is told to end, or SIGINT or SIGTERM waits to be taken: it must not wait for hundreds of
/// commands then. The signal is left for the host.
bool ShallEnd();

/// At start-up: what KvPsGetCoDBladeInfo answers from then on.
void SetCoDBladeInfo(const DeviceId& id, bool supported);

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

/// Reads a FRU field with the function that the data factory registered.
/// @return what it gives; 0x60004203 without one
uint32_t ReadFruField(uint32_t target, _KvFruData* out);

// FRU images, read under the caller's bracket. Between two pieces others are let in.
// @return 0; 0x6000B10D the process is told to end; 0x6000B104 the bracket was lost; what a command gave

/// Reads out.size() bytes of a standard FRU image, in the largest pieces that the controller takes.
/// @param read  out: bytes read, also after a failure
uint32_t ReadFruImage(IpmiBracket& bracket, uint8_t fru, uint32_t offset, std::span<uint8_t> out, uint16_t* read);

/// Whether the board keeps its FRU image behind its own command instead of the standard ones.
bool CheckReadVelmoraFruData();

/// Longest image that an offset of 16 bits reaches.
inline constexpr uint32_t kLargestFruImage = 0x10000;
/// Reads that image piece by piece until the controller says that there is no more.
/// @param image   kLargestFruImage bytes, the caller's
/// @param length  out: bytes read
uint32_t ReadVelmoraFruData(IpmiBracket& bracket, uint8_t* image, uint32_t* length);

inline constexpr uint32_t kOemFruRecordsSize = 2049;
/// Reads the records of the product from the OEM FRU: each with its header, one after the other. Every header and
/// record has been checked against its sum.
/// @param buffer  kOemFruRecordsSize bytes, the caller's; zeroes behind the records
/// @param length  out: bytes of records
/// @return also 0x63F51302: the image is damaged
uint32_t ReadOEMFRURecords(IpmiBracket& bracket, uint8_t* buffer, uint32_t* length);

}  // namespace ktx_ipmi

/// Tells whether the sensor table has a record for a sensor.
/// @param flag  1 or 0
/// @return 0; 0x60004201 null; 0x6000B103 no records are loaded; 0x6000B106 sensor 255
uint32_t IsSensorExist(uint8_t owner, uint8_t lun, uint8_t sensor, unsigned long* flag);
