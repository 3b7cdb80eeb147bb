#pragma once
/// @file
/// Shared by the KvPltfSvcIpmiCall_*.cpp alone.

#include <cstdint>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"

namespace ktx_ipmi {

inline constexpr int kMaskIpmi = 0x8000;
inline constexpr int kLevelCall = 5;
inline constexpr int kLevelData = 10;
inline constexpr int kLevelPolled = 30;

IpmiTransport& Transport();

/// The lock file and the turnstile before it.
bool OpenIpmiLock();
void CloseIpmiLock();

}  // namespace ktx_ipmi
