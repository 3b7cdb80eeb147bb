#pragma once
/// @file
/// What machine is this? The one place that knows product names and model codes. Answered from the copy of the SMBIOS
/// structures; the views are good as long as that.

#include <cstdint>
#include <string_view>

namespace product {

/// The names of the machine in SMBIOS, empty where their field names no string. A failure has been reported.
/// @return 0; 0x60D0B802 SMBIOS does not tell
uint32_t Name(std::string_view* name);
uint32_t SystemVersion(std::string_view* version);

/// Whether a product of that name belongs to the families whose boards have the product's own commands and records.
bool IsBlade(std::string_view name);

/// The Q52, a board with a layout of its own in several places.
bool IsQ52(std::string_view name);
/// Whether this machine is one; not, where SMBIOS does not tell.
bool IsQ52();

/// Whether the length in the header of a record in the FRU image leaves the header out, by the system version.
bool CountsRecordsWithoutHeader(std::string_view version);

/// Server models whose BMC lists its processor sensors in an order of its own, and gives each processor several.
enum class ModelGroup { kNone, kFirst, kSecond };
ModelGroup ModelGroupOf(std::string_view version);
/// The group of this machine; none, where SMBIOS does not tell.
ModelGroup Models();

}  // namespace product
