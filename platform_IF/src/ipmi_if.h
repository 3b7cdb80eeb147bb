#pragma once
/// @file
/// The way from the plug-in frame to the hardware data: each function forwards to the layer below and gives its result.

#include <cstdint>

/// Starts the hardware data: the copy of the SMBIOS structures, and the BMC's sensors and event logs. A machine without
/// these, or whose BMC cannot be reached, still has everything else: that failure is traced, and the start goes on.
/// @return 0; reason 0xB10D the process is terminating
uint32_t InitIpmiIf();
/// Ends both. @return 0
uint32_t TerminateIpmiIf();
