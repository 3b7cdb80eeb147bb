#pragma once
/// @file
/// The layout of FRU images, as the standard and the product have it. Depends on nothing.

#include <cstddef>
#include <cstdint>

namespace fru {

/// Unit of the offsets in the common header, and of the lengths of areas of texts; in bytes.
inline constexpr size_t kAreaUnit = 8;

// Every image begins with the common header: a version, where each area begins (0: there is none), a checksum.
inline constexpr size_t kCommonHeaderSize = 8;
inline constexpr uint8_t kVersionBits = 0x0F;
enum AreaPointer : size_t { kChassisArea = 2, kBoardArea = 3, kProductArea = 4, kRecordArea = 5 };

// Areas of texts: each text stands behind a byte with its coding and length.
inline constexpr uint8_t kLengthBits = 0x3F;
inline constexpr uint8_t kEndOfFields = 0xC1;  ///< stands in the place of such a byte

// The record area: each record stands behind a header of its own.
inline constexpr size_t kRecordHeaderSize = 5;
inline constexpr uint8_t kEndOfList = 0x80;  ///< of byte 1: the last record

// Where the product's own inventory has the addresses of the onboard network adapters.
inline constexpr uint32_t kAdapterA = 0x5000E;
inline constexpr uint32_t kAdapterB = 0x5000F;

}  // namespace fru
