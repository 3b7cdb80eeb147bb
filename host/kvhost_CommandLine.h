#pragma once
/// @file
/// The command line: one row for each command.

#include <optional>

#include "host/kvhost_Options.h"

namespace kvhost {

/// What the command line asks to be run.
struct Order {
    Run run = nullptr;
    bool startsPlugin = true;
    Options options;
};

/// @return the status to exit with, when the command line already decides it
std::optional<int> ParseCommandLine(int argc, char** argv, Order& order);

}  // namespace kvhost
