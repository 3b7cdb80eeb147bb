#pragma once
/// @file
/// The commands about classes.

#include "host/kvhost_Options.h"

namespace kvhost {

/// Lists all classes, and which of them the plug-in serves.
int ListClasses(const Context& context);
/// Asks for each class and shows the answers; a class that fails is reported and does not keep back the others.
int ShowClasses(const Context& context);
/// @return the first class named that is none; null where all are
const std::string* FindWrongClass(const Options& options);

}  // namespace kvhost
