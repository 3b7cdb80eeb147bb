#pragma once
/// @file
/// From sensor data records to the records of the sensor table.

#include <cstdint>
#include <cstdio>

namespace ktx_ipmi {

// A record whose owner is in no table is left out, and so is sensor number 255.

/// @param dump  gets one line for each sensor packed; may be null
void PackFullSdr(const uint8_t* record, FILE* dump);
/// These may stand for a run of sensors with consecutive numbers.
void PackCompactSdr(const uint8_t* record, FILE* dump);
void PackEvonlySdr(const uint8_t* record, FILE* dump);

}  // namespace ktx_ipmi
