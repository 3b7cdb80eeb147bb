#pragma once
/// @file
/// FRU images, read under the caller's bracket. Between two pieces others are let in.
///
/// Results: 0; 0x6000B10D the process is told to end; 0x6000B104 the bracket was lost; what a command gave.

#include <cstdint>
#include <span>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"

namespace ktx_ipmi {

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
