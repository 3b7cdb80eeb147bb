// The repository of sensor data records, and makers of records.

#include "simulator/SdrRepository.h"

#include <algorithm>
#include <stdexcept>

namespace sim {
namespace {

constexpr size_t kHeaderSize = 5;
constexpr uint8_t kSdrVersion = 0x51;
constexpr size_t kLongestIdString = 31;
constexpr std::string_view kBcdPlus = "0123456789 -.:,_";

/// Characters of `bits` bits each, the first one in the lowest bits.
Bytes Pack(std::string_view text, unsigned bits, uint8_t (*code)(char)) {
    Bytes packed;
    uint32_t pending = 0;
    unsigned have = 0;
    for (const char c : text) {
        pending |= static_cast<uint32_t>(code(c)) << have;
        for (have += bits; have >= 8; have -= 8, pending >>= 8)
            packed.push_back(static_cast<uint8_t>(pending));
    }
    if (have > 0) packed.push_back(static_cast<uint8_t>(pending));
    return packed;
}

uint8_t SixBitCode(char c) {
    const char upper = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return upper >= ' ' && upper <= '_' ? static_cast<uint8_t>(upper - ' ') : uint8_t{0};
}

uint8_t BcdPlusCode(char c) {
    const size_t found = kBcdPlus.find(c);
    return static_cast<uint8_t>(found == std::string_view::npos ? kBcdPlus.find(' ') : found);
}

void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

/// Bytes 5 to 9, the same in all sensor records.
Bytes Key(const SensorRecord& record) {
    return {record.owner, record.lun, record.number, record.entityId, record.entityInstance};
}

/// Bytes 10 to 19 of full and compact records: what the sensor is and which events it makes.
void AppendKind(Bytes& body, const SensorRecord& record) {
    constexpr uint8_t kInitialised = 0x7F, kAutoRearm = 0x40;
    const bool threshold = record.eventType == 0x01;
    const uint8_t readable = threshold ? 0x08 : 0x00;  // capabilities: thresholds can be read
    Append(body, {kInitialised, static_cast<uint8_t>(kAutoRearm | readable), record.sensorType, record.eventType});
    for (const unsigned mask : {0x0A85U, 0x0A85U, threshold ? 0x1B1BU : 0x0003U})
        PutWord(body, mask);
}

uint8_t ShareByte(const SharedRecord& record) {
    return static_cast<uint8_t>((record.shareCount & 0x0F) | (record.modifierAlpha ? 1 << 4 : 0));
}

uint8_t InstanceByte(const SharedRecord& record) {
    return static_cast<uint8_t>((record.modifierOffset & 0x7F) | (record.instancesIncrease ? 0x80 : 0));
}

/// Types 0x10 to 0x12 end alike: entity, instance, OEM byte, name.
Bytes Locator(uint8_t type, Bytes body, uint8_t entityId, uint8_t instance, std::string_view name) {
    Append(body, {entityId, instance, 0});
    Append(body, IdString(name));
    return RawRecord(type, body);
}

}  // namespace

uint16_t SdrRepository::Add(Bytes bytes) {
    if (bytes.size() < kHeaderSize) throw std::invalid_argument("a sensor data record has at least five bytes");
    const uint16_t id = nextId_++;
    bytes[0] = static_cast<uint8_t>(id);
    bytes[1] = static_cast<uint8_t>(id >> 8);
    records_.push_back(std::move(bytes));
    CancelReservation();
    return id;
}

void SdrRepository::Replace(uint16_t id, Bytes bytes) {
    for (Bytes& record : records_) {
        if (Word(record, 0) != id) continue;
        if (bytes.size() < kHeaderSize) throw std::invalid_argument("a sensor data record has at least five bytes");
        std::copy_n(record.begin(), 2, bytes.begin());
        record = std::move(bytes);
        CancelReservation();
        return;
    }
    throw std::out_of_range("no such sensor data record");
}

void SdrRepository::Clear() {
    records_.clear();
    nextLies_.clear();
    nextId_ = 1;
    CancelReservation();
}

Response SdrRepository::GetInfo() const {
    constexpr uint8_t kReserveSupported = 0x02;
    Response response{cc::kOk, {kSdrVersion}};
    PutWord(response.data, static_cast<unsigned>(records_.size()));
    PutWord(response.data, 0x4000);  // free space
    PutLong(response.data, 0);       // most recent addition
    PutLong(response.data, 0);       // most recent erase
    response.data.push_back(kReserveSupported);
    return response;
}

/// Count: up to the end of the record.
Response SdrRepository::Get(const Request& request) const {
    const Asked asked = ReadRequest(request);
    if (asked.refused != cc::kOk) return {asked.refused, {}};
    uint16_t next = 0;
    const Bytes* record = FindIn(records_, asked.id, next);
    if (record == nullptr) return {cc::kNotPresent, {}};
    if (asked.offset >= record->size()) return {cc::kOutOfRange, {}};
    const size_t given = std::min(asked.count, record->size() - asked.offset);
    if (given > largestPiece_) return {cc::kTooManyBytes, {}};
    const auto lie = nextLies_.find(IdOf(*record));
    return Piece(lie != nextLies_.end() ? lie->second : next, *record, asked.offset, given);
}

Bytes IdString(std::string_view text, TextCoding coding) {
    text = text.substr(0, kLongestIdString);
    Bytes characters;
    size_t length = text.size();
    switch (coding) {
        case TextCoding::kUnicode:
            text = text.substr(0, kLongestIdString / 2);
            for (const char c : text)
                Append(characters, {static_cast<uint8_t>(c), 0});
            length = characters.size();
            break;
        case TextCoding::kBcdPlus:
            characters = Pack(text, 4, BcdPlusCode);
            break;
        case TextCoding::kSixBit:
            characters = Pack(text, 6, SixBitCode);
            break;
        case TextCoding::kEightBit:
            characters.assign(text.begin(), text.end());
            break;
    }
    Bytes coded{static_cast<uint8_t>(static_cast<unsigned>(coding) << 6 | length)};
    Append(coded, characters);
    return coded;
}

Bytes RawRecord(uint8_t type, const Bytes& body) {
    if (body.size() > 0xFF) throw std::length_error("a sensor data record has at most 260 bytes");
    Bytes record{0, 0, kSdrVersion, type, static_cast<uint8_t>(body.size())};
    Append(record, body);
    return record;
}

Bytes FullRecord::Encode() const {
    Bytes body = Key(*this);
    AppendKind(body, *this);
    body.insert(body.end(), conversion.begin(), conversion.end());
    Append(body, {static_cast<uint8_t>(nominalGiven ? 1 : 0), nominal, 0, 0, 0xFF, 0});  // nominal, normal, limits
    Append(body, {0, upperCritical, upperNonCritical, 0, lowerCritical, lowerNonCritical});
    Append(body, {2, 2, 0, 0, 0});  // hysteresis up and down, reserved, OEM
    Append(body, IdString(name, coding));
    return RawRecord(0x01, body);
}

Bytes SharedRecord::EncodeCompact() const {
    constexpr uint8_t kNoAnalogReading = 0xC0;
    Bytes body = Key(*this);
    AppendKind(body, *this);
    Append(body, {kNoAnalogReading, 0, 0, ShareByte(*this), InstanceByte(*this)});
    Append(body, {0, 0, 0, 0, 0, 0});  // hysteresis, reserved, OEM
    Append(body, IdString(name, coding));
    return RawRecord(0x02, body);
}

Bytes SharedRecord::EncodeEventOnly() const {
    Bytes body = Key(*this);
    Append(body, {sensorType, eventType, ShareByte(*this), InstanceByte(*this), 0, 0});
    Append(body, IdString(name, coding));
    return RawRecord(0x03, body);
}

Bytes FruLocator(uint8_t address, uint8_t fruId, uint8_t entityId, uint8_t instance, std::string_view name) {
    constexpr uint8_t kLogicalDevice = 0x80, kFruDeviceType = 0x10;
    return Locator(0x11, {address, fruId, kLogicalDevice, 0, 0, kFruDeviceType, 0}, entityId, instance, name);
}

Bytes ControllerLocator(uint8_t address, uint8_t capabilities, uint8_t entityId, uint8_t instance,
                        std::string_view name) {
    return Locator(0x12, {address, 0, 0, capabilities, 0, 0, 0}, entityId, instance, name);
}

Bytes GenericLocator(uint8_t address, uint8_t deviceType, uint8_t entityId, uint8_t instance, std::string_view name) {
    return Locator(0x10, {kBmcAddress, address, 0, 0, 0, deviceType, 0}, entityId, instance, name);
}

Bytes EntityAssociation(uint8_t containerId, uint8_t containerInstance, const std::array<uint8_t, 8>& contained) {
    Bytes body{containerId, containerInstance, 0};
    body.insert(body.end(), contained.begin(), contained.end());
    return RawRecord(0x08, body);
}

Bytes ControllerConfirmation(uint8_t address, uint8_t deviceId) {
    Bytes body{address, deviceId, 0x01, 0x02, 0x15, 0x02, 0xDE, 0xC0, 0x00, 0x02, 0x01};
    body.resize(body.size() + 16);  // GUID: not given
    return RawRecord(0x13, body);
}

Bytes OemRecord(uint32_t manufacturer, const Bytes& data) {
    Bytes body{static_cast<uint8_t>(manufacturer), static_cast<uint8_t>(manufacturer >> 8),
               static_cast<uint8_t>(manufacturer >> 16)};
    Append(body, data);
    return RawRecord(0xC0, body);
}

}  // namespace sim
