#pragma once
/// @file
/// The inventory of a replaceable unit, as its controller keeps it.

#include <ostream>

#include "host/kvhost_Library.h"
#include "host/kvhost_Table.h"

namespace kvhost {

/// Shows the areas of a FRU device's image and, for device 0 of the product's own servers, the fields that the plug-in
/// finds in their records. Damage is told, what can be read is shown all the same.
/// @param device  0 is the BMC's own
/// @throws std::runtime_error with the code and its text
void ShowFru(const Library& library, uint8_t device, std::ostream& out, bool json, const Screen& screen);

}  // namespace kvhost
