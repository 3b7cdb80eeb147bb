#pragma once
/// @file
/// FRU images behind a controller, and a maker of such images.

#include <map>
#include <string>
#include <vector>

#include "simulator/BmcMessage.h"

namespace sim {

class FruStore {
public:
    /// Sets the image of a FRU device; replaces an earlier one.
    void Set(uint8_t device, Bytes image) { images_[device] = std::move(image); }
    const Bytes* Find(uint8_t device) const;
    /// Size that Get FRU Inventory Area Info claims, in place of the truth.
    void LieAboutSize(uint8_t device, uint16_t size) { sizeLies_[device] = size; }
    /// Largest count that Read FRU Data serves; more is refused with 0xCA.
    void SetLargestPiece(uint8_t bytes) { largestPiece_ = bytes; }

    Response GetAreaInfo(const Request& request) const;
    Response Read(const Request& request) const;

private:
    std::map<uint8_t, Bytes> images_;
    std::map<uint8_t, uint16_t> sizeLies_;
    uint8_t largestPiece_ = 0xFF;
};

/// What a FRU image is made of. An area whose texts are all empty is left out.
struct FruImage {
    struct MultiRecord {
        uint8_t type;
        uint8_t version = 2;  ///< format version, bits 3:0 of the header's second byte
        Bytes data;
    };

    uint8_t chassisType = 0x17;          ///< rack mount
    std::vector<std::string> chassis{};  ///< part number, serial number, own fields
    std::vector<std::string> board{};    ///< manufacturer, name, serial, part number, file id, own fields
    std::vector<std::string> product{};  ///< manufacturer, name, part number, version, serial, asset tag, file id, ...
    std::vector<MultiRecord> records{};  ///< multi-record area, in order
    Bytes internalUse{};                 ///< behind the format version byte
    size_t size = 0;                     ///< padded with zeros to this size

    Bytes Encode() const;
};

}  // namespace sim
