// From sensor data records to the fixed records of the sensor table.

#include <algorithm>
#include <array>
#include <cstring>

#include "common/ByteReader.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_IdString.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrPack.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrRecord.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_SdrTable.h"

namespace ktx_ipmi {

namespace {

/// The ID string of a record, with its length cut to what the record really holds. It is the record's last field, so
/// that a Unicode string whose length counts bytes instead of characters comes out right as well.
class IdField {
public:
    IdField(const uint8_t* record, size_t offset) {
        const uint32_t recordLength = SdrLength(record);
        if (offset >= recordLength) return;
        ByteReader in(std::span(record + offset, recordLength - offset));
        const uint8_t typeLength = in.U8();
        const size_t present = in.Rest().size() * 8 / BitsPerIdCharacter(typeLength);
        const size_t length = std::min<size_t>(typeLength & kIdLengthBits, present);
        bytes_[0] = static_cast<uint8_t>((typeLength & ~kIdLengthBits) | length);
        in.Bytes(std::span(bytes_).subspan(1));
    }

    void PutInto(char (&name)[KVPS_SENSOR_NAME_SIZE]) const { GetIdString(bytes_.data(), name, sizeof name); }

private:
    std::array<uint8_t, 1 + 2 * kIdLengthBits> bytes_{};  // Unicode takes two bytes a character
};

/// What stands at the same place in all three kinds.
SDR CommonFields(const uint8_t* record) {
    SDR sdr{};
    sdr.owner = record[sdr_byte::kOwner];
    sdr.lun = OwnerLun(record[sdr_byte::kLun]);
    sdr.number = record[sdr_byte::kNumber];
    sdr.entityId = record[sdr_byte::kEntityId];
    sdr.entityInstance = record[sdr_byte::kEntityInstance];
    sdr.recordType = record[sdr_byte::kType];
    return sdr;
}

/// Stores a record and notes it in the dump. @param format  a line with number, type and name
void Store(const SDR& sdr, const char* kind, FILE* dump) {
    if (!StoreSdr(sdr) || dump == nullptr) return;
    fprintf(dump, "%s(Sensor#:0x%02x, Type:0x%02x, Name:\"%s\")\n", kind, sdr.number, sdr.sensorType, sdr.name);
}

/// Where the fields of a kind of record stand that may be shared by a run of sensors.
struct SharedLayout {
    const char* kind;   ///< name in the dump
    size_t sensorType;  ///< the reading type follows
    size_t share;       ///< bits 0 to 3 how many sensors, 4 and 5 how their names differ; the modifier follows
    size_t idString;
};
constexpr SharedLayout kCompactLayout{"CompactSDR", 12, 23, 31};
constexpr SharedLayout kEventOnlyLayout{"EventOnlySDR", 10, 12, 16};

/// How the sensors of a run differ. A count of 0 means one, like 1; what a record of one says about names is noise:
/// boards leave zeroes there, and "PCIe Slot3" would become "PCIe Slot30".
class Run {
public:
    explicit Run(const uint8_t* share) : share_(share[0]), modifier_(share[1]) {}

    unsigned Count() const { return std::max(1u, share_ & 0x0Fu); }
    bool InstancesDiffer() const { return (modifier_ & 0x80) != 0; }
    /// Appends what tells the sensors of the run apart: a number, or a letter.
    void AppendSuffix(char (&name)[KVPS_SENSOR_NAME_SIZE], unsigned index) const {
        if (Count() == 1) return;
        const unsigned offset = (modifier_ & 0x7Fu) + index;
        const size_t used = strlen(name);
        const unsigned kind = share_ >> 4 & 0x03u;
        if (kind == kNumber) {
            snprintf(name + used, sizeof name - used, "%u", offset);
        } else if (kind == kLetter) {
            snprintf(name + used, sizeof name - used, "%c", static_cast<int>('A' + offset));
        }
    }

private:
    enum : unsigned { kNumber = 0, kLetter = 1 };
    uint8_t share_;
    uint8_t modifier_;
};

void PackShared(const uint8_t* record, const SharedLayout& layout, FILE* dump) {
    const Run run(record + layout.share);
    const IdField name(record, layout.idString);
    const SDR first = CommonFields(record);
    for (unsigned i = 0; i < run.Count() && first.number + i < kSlotsPerDevice; ++i) {
        SDR sdr = first;
        sdr.number = static_cast<uint8_t>(first.number + i);
        if (run.InstancesDiffer()) sdr.entityInstance = static_cast<uint8_t>(first.entityInstance + i);
        sdr.sensorType = record[layout.sensorType];
        sdr.readingType = record[layout.sensorType + 1];
        std::ranges::fill(sdr.conversion, uint8_t{0xFF});
        name.PutInto(sdr.name);
        run.AppendSuffix(sdr.name, i);
        Store(sdr, layout.kind, dump);
    }
}

}  // namespace

void PackFullSdr(const uint8_t* record, FILE* dump) {
    constexpr size_t kSensorType = 12, kConversion = 20, kAnalogFlags = 30, kNominal = 31, kIdString = 47;
    SDR sdr = CommonFields(record);
    sdr.sensorType = record[kSensorType];
    sdr.readingType = record[kSensorType + 1];
    std::copy_n(record + kConversion, sizeof sdr.conversion, sdr.conversion);
    sdr.nominalSpecified = record[kAnalogFlags] & 0x01;
    sdr.nominal = record[kNominal];
    IdField(record, kIdString).PutInto(sdr.name);
    Store(sdr, "FullSDR", dump);
}

void PackCompactSdr(const uint8_t* record, FILE* dump) {
    PackShared(record, kCompactLayout, dump);
}

void PackEvonlySdr(const uint8_t* record, FILE* dump) {
    PackShared(record, kEventOnlyLayout, dump);
}

}  // namespace ktx_ipmi
