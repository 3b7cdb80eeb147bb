#pragma once
/// @file
/// What the parts of the program share that runs in the guest.

#include <chrono>
#include <optional>
#include <vector>

#include "libplatform/KvPsSel.h"

/// Prints what the library costs beside the field's tools. @return exit status
int Beside();

/// Prints new entries of the event log until SIGUSR1 comes; first, once what was old has been passed over, the line
/// "following". @return exit status
int Follow();

/// Starts what lies below the sensors and the event log.
bool StartLayers();

/// The new entries of the event logs; nothing after a failure.
std::optional<std::vector<KVPS_SEL_ENTRY>> Poll();

inline double MsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}
