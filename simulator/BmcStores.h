#pragma once
/// @file
/// What a management controller knows besides its repositories: identity, sensors, watchdog, LAN channels, OEM records.
/// Plain data; a controller's lock guards it.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "simulator/BmcMessage.h"

namespace sim {

/// Answer of Get Device ID.
struct DeviceId {
    uint8_t id = 0x20;
    uint8_t revision = 0x01;
    uint8_t firmwareMajor = 0x02;  ///< bit 7: update in progress
    uint8_t firmwareMinor = 0x15;  ///< BCD
    uint8_t ipmiVersion = 0x02;    ///< 2.0, the halves swapped
    uint8_t support = 0xBF;        ///< chassis, event generator, FRU, SEL, SDR, sensor
    uint32_t manufacturer = 0x00C0DE;
    uint16_t product = 0x0102;
};

/// One sensor as Get Sensor Reading shows it.
struct Sensor {
    uint8_t reading = 0;
    uint8_t flags = 0xC0;  ///< bit 7 event messages, bit 6 scanning, bit 5 reading unavailable
    std::array<uint8_t, 2> states{0, 0x80};
    std::array<uint8_t, 6> factors{1, 0, 0, 0, 0, 0};  ///< M, M/tolerance, B, B/accuracy, accuracy, exponents
    /// Factors that hold from a reading on (non-linear sensors); without any, `factors` hold everywhere.
    std::map<uint8_t, std::array<uint8_t, 6>> factorsFrom;
};

class SensorBank {
public:
    Sensor& At(uint8_t number, uint8_t lun = 0) { return sensors_[{lun, number}]; }
    const Sensor* Find(uint8_t number, uint8_t lun = 0) const;
    void Remove(uint8_t number, uint8_t lun = 0) { sensors_.erase({lun, number}); }
    size_t Count() const { return sensors_.size(); }

    Response GetReading(const Request& request) const;
    Response GetFactors(const Request& request) const;

private:
    std::map<std::pair<uint8_t, uint8_t>, Sensor> sensors_;  // by LUN and number
};

struct WatchdogTimer {
    bool set = false;  ///< Set Watchdog Timer was received
    bool running = false;
    std::array<uint8_t, 6> settings{};  ///< as last set: use, actions, pre-timeout, flags to clear, count (LE)
    uint8_t expirationFlags = 0;
    unsigned resets = 0;  ///< Reset Watchdog Timer commands carried out
    uint64_t startedAt = 0;

    Response Set(const Request& request);
    Response Reset(uint64_t now);
    Response Get(uint64_t now) const;
};

/// One channel as Get Channel Info shows it.
struct Channel {
    uint8_t medium = 0;
    uint8_t protocol = 0;
    uint8_t sessions = 0;
    std::map<uint8_t, Bytes> lanParameters;  ///< by parameter selector, without the revision byte
};

class LanChannels {
public:
    LanChannels();  // channel 0: the IPMB; 1: a LAN; 15: the system interface
    std::map<uint8_t, Channel> channels;

    Response GetChannelInfo(const Request& request) const;
    Response GetConfiguration(const Request& request) const;
};

/// Records behind the product's own commands. What holds no value is answered with "invalid command".
struct OemData {
    std::optional<Bytes> capability;           ///< 0x3E/0x2A, up to 52 bytes
    std::optional<Bytes> modelModifiers;       ///< 0x3E/0x22, up to 9 bytes
    std::map<uint8_t, Bytes> capacity;         ///< 0x3E/0x23 by its selector byte
    std::optional<std::string> productName;    ///< 0x3E/0x24: a count, then the characters
    std::optional<std::string> processorName;  ///< 0x3E/0x26: the same
    std::optional<Bytes> fru;                  ///< image read by 0x3E/0x28
    std::optional<Bytes> secondFru;            ///< image read by 0x3E/0x2C
    bool acceptsSvp = true;                    ///< 0x3E/0x00 answers 0
    Bytes lastSvpCommand;
    std::map<uint8_t, Bytes> dimmStates;  ///< 0x30/0x21 by board code

    Response Handle(const Request& request);
};

}  // namespace sim
