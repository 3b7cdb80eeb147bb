#pragma once
/// @file
/// The sum by which firmware and controllers guard their records: all bytes, the checksum among them, make 0 modulo 256.

#include <cstdint>
#include <numeric>
#include <span>

inline uint8_t SumOf(std::span<const uint8_t> bytes) {
    return static_cast<uint8_t>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

inline bool IsSumZero(std::span<const uint8_t> bytes) {
    return SumOf(bytes) == 0;
}

/// The value that makes the sum of the bytes and itself 0.
inline uint8_t ChecksumOf(std::span<const uint8_t> bytes) {
    return static_cast<uint8_t>(0U - SumOf(bytes));
}
