#pragma once
/// @file
/// The walks over the sensor data repository. They run under the caller's bracket, in which others are let in after each
/// record until a walk was cancelled.

#include <cstdint>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"

namespace ktx_ipmi {

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

/// Tells the state of the sensor that a record describes, for full and compact ones by one reading.
int IsSensorEnable(int handle, const uint8_t* record);

}  // namespace ktx_ipmi
