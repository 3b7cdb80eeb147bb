#pragma once
/// @file
/// What the command line asks for, and what a command has to work with.

#include <cstdint>
#include <string>
#include <vector>

#include "host/kvhost_Sel.h"
#include "host/kvhost_Session.h"
#include "host/kvhost_Table.h"

namespace kvhost {

inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kWrongUsage = 2;

struct Options {
    std::string library;
    std::string machine;
    std::vector<std::string> classes;
    std::vector<unsigned> smbiosTypes;
    std::string directory;
    uint8_t fruDevice = 0;
    bool packed = false;
    bool known = false;
    bool follow = false;
    bool all = false;
    bool json = false;
    bool trace = false;
};

/// The plug-in that a command works with, and where it writes.
struct Context {
    const Library& library;
    const Session* session;  ///< null for commands that do not start the plug-in
    const Options& options;
    Screen screen;
    const StopSignals* stop;  ///< null for commands that end by themselves
};

/// Runs a command. @return the status to exit with @throws std::runtime_error with one line for the user
using Run = int (*)(const Context& context);

}  // namespace kvhost
