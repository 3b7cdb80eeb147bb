#pragma once
/// @file
/// The command that checks definition files.

#include "host/kvhost_Options.h"

namespace kvhost {

/// Lists every element that the plug-in would leave out of the definition files, and what else is worth knowing of them.
/// @return kFailure when anything would be left out or a file of a directory that was named is missing
int CheckMaps(const Context& context);

}  // namespace kvhost
