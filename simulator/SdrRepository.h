#pragma once
/// @file
/// The repository of sensor data records, and makers of the records that it holds.

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/ReservedStore.h"

namespace sim {

/// Records in the order in which the walk by next id meets them. Reservations are cancelled by every change.
class SdrRepository : public ReservedStore {
public:
    /// Appends a record; its id is put into bytes 0 and 1. @param bytes header and body; @return the id
    uint16_t Add(Bytes bytes);
    /// Replaces a record's bytes and leaves the id.
    void Replace(uint16_t id, Bytes bytes);
    void Clear();
    const std::vector<Bytes>& Records() const { return records_; }

    /// What the walk is told to go on with behind a record, in place of the truth.
    void LieAboutNext(uint16_t id, uint16_t next) { nextLies_[id] = next; }
    /// Largest piece that Get SDR gives; more is refused with 0xCA.
    void SetLargestPiece(uint8_t bytes) { largestPiece_ = bytes; }

    Response GetInfo() const;
    Response Get(const Request& request) const;

private:
    std::vector<Bytes> records_;
    std::map<uint16_t, uint16_t> nextLies_;
    uint16_t nextId_ = 1;
    uint8_t largestPiece_ = 0xFF;
};

/// Codings of an id string.
enum class TextCoding : uint8_t { kUnicode = 0, kBcdPlus = 1, kSixBit = 2, kEightBit = 3 };

/// Type/length byte and coded characters. Characters that the coding lacks become blanks.
Bytes IdString(std::string_view text, TextCoding coding = TextCoding::kEightBit);

/// What the three kinds of sensor records share.
struct SensorRecord {
    uint8_t owner = kBmcAddress;
    uint8_t lun = 0;
    uint8_t number = 0;
    uint8_t entityId = 0;
    uint8_t entityInstance = 1;
    uint8_t sensorType = 0;
    uint8_t eventType = 0x01;
    std::string name;
    TextCoding coding = TextCoding::kEightBit;
};

/// Type 0x01.
struct FullRecord : SensorRecord {
    std::array<uint8_t, 10> conversion{};  ///< units 1 .. exponents, record bytes 20 to 29
    bool nominalGiven = false;
    uint8_t nominal = 0;
    uint8_t upperCritical = 0, upperNonCritical = 0, lowerCritical = 0, lowerNonCritical = 0;
    Bytes Encode() const;
};

/// Types 0x02 and 0x03 may stand for a run of sensors.
struct SharedRecord : SensorRecord {
    uint8_t shareCount = 1;
    bool modifierAlpha = false;  ///< names end in letters instead of numbers
    uint8_t modifierOffset = 0;
    bool instancesIncrease = false;
    Bytes EncodeCompact() const;
    Bytes EncodeEventOnly() const;
};

Bytes FruLocator(uint8_t address, uint8_t fruId, uint8_t entityId, uint8_t instance, std::string_view name);
Bytes ControllerLocator(uint8_t address, uint8_t capabilities, uint8_t entityId, uint8_t instance,
                        std::string_view name);
Bytes GenericLocator(uint8_t address, uint8_t deviceType, uint8_t entityId, uint8_t instance, std::string_view name);
Bytes EntityAssociation(uint8_t containerId, uint8_t containerInstance, const std::array<uint8_t, 8>& contained);
Bytes ControllerConfirmation(uint8_t address, uint8_t deviceId);
Bytes OemRecord(uint32_t manufacturer, const Bytes& data);
/// A record of any type: header for the body given.
Bytes RawRecord(uint8_t type, const Bytes& body);

}  // namespace sim
