#pragma once
/// @file
/// Shared by the KvPltfSvcLibPilot2_*.cpp alone.

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib_driverIF/KvPltfSvcLibPilot2.h"

// Levels of the log.
inline constexpr int kLogError = 1;
inline constexpr int kLogTrace = 2;
inline constexpr int kLogDebug = 3;

inline constexpr const char* kLogSource = "lib_driverIF/KvPltfSvcLibPilot2";
/// One line; the format is a literal.
#define LOG_CAPABILITY(level, ...) ExecLogFunction(level, kLogSource, __LINE__, "[LibPilot2] " __VA_ARGS__)

/// Guards what this module keeps for the process. Taken inside an IPMI bracket and out of it: nothing that waits for
/// the BMC is called while it is held.
extern std::recursive_mutex g_capabilityMutex;

/// Reads a file whole. @return nothing when it cannot be opened or read, or has more than 1 MiB; logged
std::optional<std::string> ReadWholeFile(const char* path);
/// Replaces a file, durably, or leaves it as it was. @return false: logged
bool WriteWholeFile(const char* path, std::string_view content);

/// Whether the kernel lists a PCI device.
/// @param id  vendor and device as eight hexadecimal digits
bool IsPciDeviceListed(std::string_view id);

/// A list of MAC addresses as its file has it.
using AddressList = std::vector<std::string>;
AddressList ParseAddressList(std::string_view text);
