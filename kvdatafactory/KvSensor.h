#pragma once
/// @file
/// The four bytes that name a sensor in definition files and inventories.

#include <cstdint>

class CKvSensor {
public:
    CKvSensor() = default;
    CKvSensor(uint8_t owner, uint8_t lun, uint8_t number, uint8_t fourth)
        : owner_(owner), lun_(lun), number_(number), fourth_(fourth) {}
    /// From the first four fields, hexadecimal, of an element that was taken apart in place.
    /// @param text  the first field @param limit  the element's end
    CKvSensor(char* text, const char* limit);

    uint8_t GetOwner() const { return owner_; }    ///< slave address of the sensor's controller
    uint8_t GetLun() const { return lun_; }        ///< of the owner
    uint8_t GetNumber() const { return number_; }  ///< of the sensor
    /// 1: the conversion factors are asked for with each reading.
    uint8_t GetFourth() const { return fourth_; }

    /// The fourth byte never takes part. @return 1 when the sensor is the one named so
    int Compare(uint8_t owner, uint8_t lun, uint8_t number) const {
        return owner == owner_ && lun == lun_ && number == number_ ? 1 : 0;
    }
    /// As a key of a map all four count.
    bool operator==(const CKvSensor& other) const = default;

private:
    uint8_t owner_ = 0;
    uint8_t lun_ = 0;
    uint8_t number_ = 0;
    uint8_t fourth_ = 0;
};
static_assert(sizeof(CKvSensor) == 4);
