#pragma once
/// @file
/// Enumerations as data that a program can show: names that people read, values out of their blocks, JSON.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "libplatform/PXR_data_access.h"

namespace kvhost {

/// A numeric property of which the machine gives no value.
inline constexpr uint32_t kUnknownNumber = 0x80000000;

struct Undefined {};
struct Unknown {};
using Value = std::variant<Undefined, Unknown, uint64_t, int64_t, std::string, std::vector<std::string>>;

struct Property {
    uint32_t code;
    Value value;
};

struct ClassData {
    uint32_t id;
    std::vector<std::vector<Property>> instances;
};

/// "KTX_CLS_PCI_SLOT" for 24; empty for a number that is no class.
std::string_view ClassCodeName(uint32_t classId);

/// What follows the prefix of a code name, in small letters: "pci_slot".
std::string Key(std::string_view codeName);

/// The same with blanks: "pci slot", "starting address".
std::string ReadableName(std::string_view codeName);

std::string PropertyKey(uint32_t code);
std::string PropertyName(uint32_t code);

/// The class that text means: "KTX_CLS_PCI_SLOT", "pci-slot", "pci_slot" or "24", in capitals or not.
std::optional<uint32_t> FindClass(std::string_view text);

/// Copies an enumeration.
/// @param japanese  texts may be in Shift-JIS
ClassData ReadEnum(const _KVCIM_ENUM& e, bool japanese);

/// A value as a table shows it: addresses and device ids in hexadecimal, "unknown" for an unknown number, "-" for an
/// undefined value.
std::string ToText(const Property& property);

/// {"class": ..., "id": ..., "instances": [{"starting_address": 0, ...}, ...]}; unknown and undefined values are null.
nlohmann::ordered_json ToJson(const ClassData& data);

}  // namespace kvhost
