#pragma once
/// @file
/// The BMC's sensors: their records, and what they read now.

#include <ostream>
#include <string>

#include "host/kvhost_Library.h"
#include "host/kvhost_Table.h"

namespace kvhost {

/// What a sensor measures, in the words of the standard; the number where it has none.
std::string SensorTypeName(uint8_t type);

enum class SensorView {
    kReadings,  ///< raw readings and states
    kPacked,    ///< the records as the plug-in keeps them
};

/// Shows every sensor that the plug-in has a record of. A sensor that does not answer is shown without a reading.
/// @throws std::runtime_error with the code and its text
void ShowSensors(const Library& library, SensorView view, std::ostream& out, bool json, const Screen& screen);

}  // namespace kvhost
