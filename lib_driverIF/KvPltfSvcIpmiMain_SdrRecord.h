#pragma once
/// @file
/// A sensor data record as the controller gives it: a buffer of kMaxSdrSize bytes, zero behind the record's end. Byte
/// numbers count from the record id.

#include <cstddef>
#include <cstdint>

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

// State of the sensor that a record describes.
inline constexpr int kSensorEnabled = 1;
inline constexpr int kSensorForceEnabled = 2;  ///< it is not asked
inline constexpr int kSensorDisabled = 3;      ///< it does not scan, or does not answer

}  // namespace ktx_ipmi
