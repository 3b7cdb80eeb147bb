#pragma once
/// @file
/// One function per IPMI command that the library needs: typed arguments in, a typed record out.
///
/// All share their first arguments and their results. `handle` is the bracket's (KvPltfSvcIpmiCall.h); `address` the
/// slave address of the owner. Records are zeroed first and filled as far as the answer goes. Results: 0; 0x6000B116 an
/// output pointer is missing; 0x6000B104 no open bracket; 0x6000B109 the address is a software id; or, with the
/// function's number in bits 16 to 25: 0xB101/0xB102 the driver failed, 0xB100 an answer too short to be one, 0xB2cc
/// the BMC answered with completion code cc. A firmware update gives 0x6000B600, a terminating process reason 0xB120.
/// OEM functions give 0x6000B101 for a failed call and 0x6000B107 for a nonzero completion code. Every failure has been
/// reported when it comes back.

#include <array>
#include <cstdint>
#include <span>

#include "libplatform/KvPsSel.h"

namespace ktx_ipmi {

/// Answer to Get Device ID.
struct DeviceId {
    uint8_t deviceId;
    uint8_t deviceRevision;
    uint8_t firmwareRevision1;
    uint8_t firmwareRevision2;
    uint8_t ipmiVersion;
    uint8_t deviceSupport;
    uint8_t manufacturerId[3];  ///< least significant byte first
    uint8_t productId[2];       ///< least significant byte first
};
static_assert(sizeof(DeviceId) == 11);

/// Request of Set Watchdog Timer.
struct WatchdogTimer {
    uint8_t timerUse;
    uint8_t timerActions;
    uint8_t preTimeoutInterval;  ///< seconds
    uint8_t expirationFlagsClear;
    uint16_t initialCount;  ///< in 100 ms
};
static_assert(sizeof(WatchdogTimer) == 6);

/// Answer to Get SEL Info.
struct SelInfo {
    uint8_t version;
    uint16_t entries;
    uint16_t freeSpace;        ///< bytes; 0xFFFF means 65,535 or more
    uint32_t lastAddition;     ///< seconds since 1970
    uint32_t lastErase;        ///< seconds since 1970
    uint8_t operationSupport;  ///< bit 1: Reserve SEL is supported
};
inline constexpr uint8_t kSelReserveSupported = 1u << 1;

/// Answer to Get Sensor Reading.
struct SensorReading {
    uint8_t reading;
    uint8_t flags;      ///< bit 7 event messages enabled, bit 6 scanning enabled, bit 5 reading unavailable
    uint8_t states[2];  ///< the last one is left out by some controllers
};
static_assert(sizeof(SensorReading) == 4);
inline constexpr uint8_t kScanningEnabled = 1u << 6;

/// Answer to Get Sensor Reading Factors.
struct SensorReadingFactors {
    uint8_t nextReading;
    uint8_t factors[6];
};
static_assert(sizeof(SensorReadingFactors) == 7);

inline constexpr uint16_t kLastRecord = 0xFFFF;  ///< as next id: there is none after this one

// App

uint32_t GetDeviceId(int handle, uint8_t address, DeviceId* out);
uint32_t ResetWatchdogTimer(int handle, uint8_t address);
uint32_t SetWatchdogTimer(int handle, uint8_t address, const WatchdogTimer* timer);
/// Timer use, actions and flags as the watchdog of this product takes them.
/// @param action  bits 0-2 timer action; bit 7: OEM timer use, else SMS/OS
/// @param count   in 100 ms
uint32_t SetWatchdogTimerCF2(int handle, uint8_t address, uint8_t action, uint16_t count);
uint32_t GetChannelInfo(int handle, uint8_t address, uint8_t channel, uint8_t* medium, uint8_t* protocol,
                        uint8_t* session);

// Transport

/// @param data    parameter data, the parameter revision byte before it
/// @param length  in: capacity; out: bytes received
uint32_t GetLanConfiguration(int handle, uint8_t address, uint8_t channel, uint8_t parameter, uint8_t set,
                             uint8_t block, uint8_t* data, uint32_t* length);

// Storage: system event log

uint32_t GetSelInfo(int handle, uint8_t address, SelInfo* out);
uint32_t ReserveSel(int handle, uint8_t address, uint16_t* reservation);
/// @param nextId  kLastRecord after any failure
uint32_t GetSelEntry(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                     KVPS_SEL_ENTRY* out);
uint32_t DeleteSelEntry(int handle, uint8_t address, uint16_t reservation, uint16_t recordId);
inline constexpr uint8_t kEraseInitiate = 0xAA;
inline constexpr uint8_t kEraseGetStatus = 0x00;
/// @param progress  low 4 bits: 0 in progress, 1 completed
uint32_t ClearSel(int handle, uint8_t address, uint16_t reservation, uint8_t action, uint8_t* progress);
uint32_t GetSelTime(int handle, uint8_t address, uint32_t* time);
uint32_t SetSelTime(int handle, uint8_t address, uint32_t time);

// Storage: sensor data records

uint32_t ReserveSdrRepository(int handle, uint8_t address, uint16_t* reservation);
/// @param bytes     room for count bytes
/// @param received  record bytes that came back, at most count; may be fewer
uint32_t GetSdr(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint8_t offset, uint8_t count,
                uint16_t* nextId, uint8_t* bytes, uint32_t* received);
/// An answer without the whole header is reason 0xB100.
uint32_t GetSdrHeader(int handle, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                      uint8_t header[5]);

// Sensor/Event

uint32_t GetSensorReading(int handle, uint8_t address, uint8_t lun, uint8_t sensor, SensorReading* out);
uint32_t GetSensorReadingFactors(int handle, uint8_t address, uint8_t lun, uint8_t sensor, uint8_t reading,
                                 SensorReadingFactors* out);

// Storage: FRU inventory

uint32_t GetFruInventoryAreaInfo(int handle, uint8_t address, uint8_t fru, uint16_t* size, uint8_t* access);
/// @param data      room for count bytes
/// @param returned  bytes that came back, as far as they really did; at most count
uint32_t ReadFruInventoryData(int handle, uint8_t address, uint8_t fru, uint16_t offset, uint8_t count,
                              uint8_t* returned, uint8_t* data);

// OEM

/// What an OEM command answered behind its completion code.
struct OemAnswer {
    std::array<uint8_t, 1025> bytes{};
    uint32_t length = 0;
    std::span<const uint8_t> Data() const { return {bytes.data(), length}; }
};

/// BMC capability, at most 52 bytes. The bare command; who may send it decides GetBMCStatus of the capability code.
uint32_t ReadBMCCapability(int handle, uint8_t address, OemAnswer* out);
/// At most 9 bytes.
uint32_t OEMGetModelModifiers(int handle, uint8_t address, OemAnswer* out);
uint32_t OEMGetCoDInformation(int handle, uint8_t address, uint8_t request, OemAnswer* out);
uint32_t ReadOEMFRU(int handle, uint8_t address, uint16_t offset, uint8_t count, OemAnswer* out);
uint32_t ReadVelmoraFruCmd(int handle, uint8_t address, uint16_t offset, uint8_t count, OemAnswer* out);
uint32_t GetProductName(int handle, uint8_t address, OemAnswer* out);
uint32_t GetProcessorName(int handle, uint8_t address, OemAnswer* out);
/// @param command  first byte: how many follow
uint32_t SendSVPCommand(int handle, uint8_t address, const uint8_t* command);
/// Five bytes of DIMM bit masks; an answer without them is reason 0xB100.
uint32_t GetDIMMState(int handle, uint8_t address, uint8_t board, uint8_t response[5]);

}  // namespace ktx_ipmi
