#pragma once
/// @file
/// The reader of the sensor data repository: walks over it, the packing of its records, and the table that they are
/// packed into. Shared by the KvPltfSvcIpmiMain_*.cpp.
///
/// A record is a buffer of kMaxSdrSize bytes, zero behind the record's end; byte numbers count from the record id.

#include <cstdint>
#include <cstdio>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiMain.h"

namespace ktx_ipmi {

// Record types; those of sensors stand in SDR::recordType too.
inline constexpr uint8_t kFullSensor = 0x01;
inline constexpr uint8_t kCompactSensor = 0x02;
inline constexpr uint8_t kEventOnlySensor = 0x03;
inline constexpr uint8_t kControllerLocator = 0x12;

inline constexpr uint32_t kSdrHeaderSize = 5;
inline constexpr uint32_t kMaxSdrSize = kSdrHeaderSize + 0xFF;

/// Where the fields stand that several kinds of records share.
namespace sdr_byte {
inline constexpr size_t kRecordId = 0;  // 2 bytes
inline constexpr size_t kVersion = 2;
inline constexpr size_t kType = 3;
inline constexpr size_t kLength = 4;  // of what follows
inline constexpr size_t kOwner = 5;
inline constexpr size_t kLun = 6;  // bits 0 and 1; the others say which channel leads to the owner
inline constexpr size_t kNumber = 7;
inline constexpr size_t kEntityId = 8;
inline constexpr size_t kEntityInstance = 9;
}  // namespace sdr_byte

constexpr uint8_t OwnerLun(uint8_t byte) {
    return byte & 0x03;
}

/// Bytes of a record, header included, as it says itself.
inline uint32_t SdrLength(const uint8_t* record) {
    return kSdrHeaderSize + record[sdr_byte::kLength];
}

// Walks, under the caller's bracket, in which others are let in after each record until a walk was cancelled

/// Finds the owners of sensors and the keepers of event logs and appends them to their tables. Up to four passes, as
/// the controller may cancel a reservation at any time; what was found stays.
/// @return 0, also after four cancellations; 0x6000B10D the process is terminating; 0x6000B104; what a command gave
uint32_t GetDeviceInfo(IpmiBracket& bracket);

/// Reads every record, asks each sensor for its state, and packs the sensors into the table, which must be there.
/// @return 0, also after four cancellations; 0x6040B10D the process is terminating; 0x6040B104; what a command gave
uint32_t GetAllSdr(IpmiBracket& bracket);

/// Reads one record, in pieces of at most 16 bytes.
/// @param nextId  out: the record behind it
/// @param record  kMaxSdrSize bytes
/// @param length  out: of the record
/// @return 0; 0x6000B100 the record ends before its length says so; what a command gave
uint32_t GetFullSdr(int handle, uint16_t reservation, uint16_t recordId, uint16_t* nextId, uint8_t* record,
                    uint32_t* length);

inline constexpr int kSensorEnabled = 1;
inline constexpr int kSensorForceEnabled = 2;  ///< it is not asked
inline constexpr int kSensorDisabled = 3;      ///< it does not scan, or does not answer
/// Tells the state of the sensor that a record describes, for full and compact ones by one reading.
int IsSensorEnable(int handle, const uint8_t* record);

// Packing. A record whose owner is in no table is left out, and so is sensor number 255.

/// @param dump  gets one line for each sensor packed; may be null
void PackFullSdr(const uint8_t* record, FILE* dump);
/// These may stand for a run of sensors with consecutive numbers.
void PackCompactSdr(const uint8_t* record, FILE* dump);
void PackEvonlySdr(const uint8_t* record, FILE* dump);

// Dump of the repository, for support; made where the file is already there

/// Opens the dump. @return null without one
FILE* OpenSdrDump();
/// Begins it anew.
void RestartSdrDump(FILE* dump);
void DumpSdr(FILE* dump, const uint8_t* record, uint32_t length, int sensorState);

// Tables

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
