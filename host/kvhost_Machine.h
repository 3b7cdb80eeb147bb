#pragma once
/// @file
/// Views of the machine below the classes: the BMC and the SMBIOS structures.

#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "host/kvhost_Library.h"

namespace kvhost {

/// Shows who the BMC says it is, and the registers that lead to it.
/// @throws std::runtime_error with the code and its text
void ShowBmc(const Library& library, std::ostream& out, bool json);

/// Shows every SMBIOS structure with its strings; only those of the given types unless there are none given.
/// @throws std::runtime_error with the code and its text
void ShowSmbios(const Library& library, const std::vector<unsigned>& types, std::ostream& out, bool json);

/// The strings of a structure, as far as they lie within it.
/// @param structure  formatted area and strings
/// @param formatted  length of the formatted area
std::vector<std::string> StringsOf(std::span<const uint8_t> structure, size_t formatted);

}  // namespace kvhost
