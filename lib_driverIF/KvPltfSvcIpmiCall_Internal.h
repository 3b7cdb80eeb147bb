#pragma once
/// @file
/// Shared by the KvPltfSvcIpmiCall_*.cpp alone.

#include <cstdint>

#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"

namespace ktx_ipmi {

inline constexpr int kMaskIpmi = 0x8000;
inline constexpr int kLevelCall = 5;
inline constexpr int kLevelData = 10;
inline constexpr int kLevelPolled = 30;

/// Opens the lock file and the turnstile; nothing happens when they are open.
bool OpenIpmiLock();
/// Lets nobody in any more, ends all waits, and waits up to a second for the other threads that hold the lock: whoever
/// is last closes the files.
void CloseIpmiLock();

/// Takes the lock. Nests per thread: only the outermost level waits.
/// @param handle  the lock's descriptor, whether it was to be had or not; kInvalidHandle where the lock is not open
bool TakeIpmiLock(const LockWait& wait, int* handle);
/// Ends one level; does nothing where the thread does not hold the lock of this descriptor.
void ReleaseIpmiLock(int handle);
/// Whether anybody waits for what only this level holds: a thread of this process or another, or the end of the layer.
bool SomebodyWaitsForIpmiLock();

}  // namespace ktx_ipmi
