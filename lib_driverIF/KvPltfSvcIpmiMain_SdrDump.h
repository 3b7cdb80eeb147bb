#pragma once
/// @file
/// A readable copy of the sensor data repository, for support; made where the file is already there.

#include <cstdint>
#include <cstdio>

namespace ktx_ipmi {

/// Opens the dump. @return null without one
FILE* OpenSdrDump();
/// Begins it anew.
void RestartSdrDump(FILE* dump);
void DumpSdr(FILE* dump, const uint8_t* record, uint32_t length, int sensorState);

}  // namespace ktx_ipmi
