#pragma once
/// @file
/// IPMI messages as the simulated controllers exchange them, and the numbers they are made of.

#include <chrono>
#include <cstdint>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;

/// A request without its addressing: what a controller acts on.
struct Request {
    uint8_t netFn = 0;  ///< even; 0x06 App, 0x0A Storage, ...
    uint8_t lun = 0;
    uint8_t command = 0;
    Bytes data;
};

/// What a controller answers.
struct Response {
    uint8_t completionCode = 0;
    Bytes data;                          ///< behind the completion code; may be longer than any interface carries
    bool silent = false;                 ///< no answer ever comes
    std::chrono::milliseconds delay{0};  ///< time until the answer is there
};

inline constexpr uint8_t kBmcAddress = 0x20;

namespace netfn {
inline constexpr uint8_t kSensorEvent = 0x04;
inline constexpr uint8_t kApp = 0x06;
inline constexpr uint8_t kStorage = 0x0A;
inline constexpr uint8_t kTransport = 0x0C;
inline constexpr uint8_t kOemIntel = 0x30;
inline constexpr uint8_t kOem = 0x3E;
}  // namespace netfn

/// Completion codes.
namespace cc {
inline constexpr uint8_t kOk = 0x00;
inline constexpr uint8_t kQueueEmpty = 0x80;          ///< Get Message, Read Event Message Buffer: nothing there
inline constexpr uint8_t kWatchdogNotStarted = 0x80;  ///< Reset Watchdog Timer before the first Set
inline constexpr uint8_t kNakOnWrite = 0x83;          ///< Send Message: nobody answers at that address
inline constexpr uint8_t kNodeBusy = 0xC0;
inline constexpr uint8_t kInvalidCommand = 0xC1;
inline constexpr uint8_t kTimeout = 0xC3;
inline constexpr uint8_t kOutOfSpace = 0xC4;
inline constexpr uint8_t kReservationCancelled = 0xC5;
inline constexpr uint8_t kBadLength = 0xC7;
inline constexpr uint8_t kOutOfRange = 0xC9;
inline constexpr uint8_t kTooManyBytes = 0xCA;
inline constexpr uint8_t kNotPresent = 0xCB;
inline constexpr uint8_t kInvalidData = 0xCC;
inline constexpr uint8_t kUnspecified = 0xFF;
}  // namespace cc

/// Two's complement of the sum: a run of bytes and its checksum add up to 0.
uint8_t Checksum(const uint8_t* bytes, size_t count);
uint8_t Checksum(const Bytes& bytes);

/// Little-endian parts of a message.
inline uint16_t Word(const Bytes& bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | static_cast<unsigned>(bytes[at + 1]) << 8);
}
inline uint32_t Long(const Bytes& bytes, size_t at) {
    return Word(bytes, at) | static_cast<uint32_t>(Word(bytes, at + 2)) << 16;
}
inline void PutWord(Bytes& bytes, unsigned value) {
    bytes.push_back(static_cast<uint8_t>(value));
    bytes.push_back(static_cast<uint8_t>(value >> 8));
}
inline void PutLong(Bytes& bytes, uint32_t value) {
    PutWord(bytes, value & 0xFFFF);
    PutWord(bytes, value >> 16);
}

}  // namespace sim
