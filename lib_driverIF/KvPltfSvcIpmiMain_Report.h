#pragma once
/// @file
/// The bottom of the IPMI service layer: where the BMC is, what its functions may all meet and how they
/// report it.

#include <atomic>
#include <cstdint>
#include <source_location>

/// Slave address of the BMC: 0x20 until KvPsInitializeIpmi has learned better.
extern std::atomic<uint8_t> g_bBmcAdr;

namespace ktx_ipmi {

inline constexpr uint8_t kBmcAddress = 0x20;  ///< slave address of every BMC that does not say otherwise

/// Reasons of this layer's result codes (bits 0 to 15).
namespace service_reason {
inline constexpr uint16_t kBadResponse = 0xB100;
inline constexpr uint16_t kNoRecords = 0xB103;  ///< the repository has not been read
inline constexpr uint16_t kNotOpened = 0xB104;
inline constexpr uint16_t kNoDevices = 0xB105;  ///< nothing owns a sensor
inline constexpr uint16_t kNoSuchSensor = 0xB106;
inline constexpr uint16_t kOemFailed = 0xB107;
inline constexpr uint16_t kSoftwareId = 0xB109;
inline constexpr uint16_t kBadLun = 0xB10A;
inline constexpr uint16_t kIoctlFailed = 0xB10B;
inline constexpr uint16_t kTerminating = 0xB10D;
inline constexpr uint16_t kNoArray = 0xB111;  ///< no memory for the answer
inline constexpr uint16_t kNoLanParameter = 0xB11C;
inline constexpr uint16_t kNoCapacityRecord = 0xB133;
}  // namespace service_reason

/// Reports a null argument of a function without a number of its own. @return 0x60004201
uint32_t ReportNull(std::source_location where = std::source_location::current());

/// Traces and reports that the IPMI driver could not be opened. @return code
uint32_t ReportNotOpened(uint32_t code, std::source_location where = std::source_location::current());

/// Whether the process is told to end, or SIGINT or SIGTERM waits to be taken: it must not wait for hundreds of
/// commands then. The signal is left for the host.
bool ShallEnd();

}  // namespace ktx_ipmi
