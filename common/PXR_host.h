#pragma once
/// @file
/// The host agent as the library sees it: every optional name of libplatform/PXR_host.h behind a function that has a
/// sound answer when the host lacks it. Nothing else in the library touches those names.

#include <array>
#include <cstdint>

#include "libplatform/PXR_host.h"

namespace host {

bool IsLogicalPartition();
void SendPacket(_KVCIM_ENUM* alerts);
void WriteLogFile(_KVCIM_ENUM* alerts);
/// @return false when the host cannot be asked or reports a failure
bool FillFromProviders(_KVCIM_ENUM* e);
uint16_t RegisterSpacing(uint16_t fromFirmware);
void AnnounceIpmiUpdate();
int ServiceProcessorType();
std::array<uint32_t, 7> BmcFunctionConfig(int& error);
int UpdateRetryLimit();
int UpdateWaitSeconds();
bool RecordsWatchdogEvents();
/// The host's key of thread names, or null.
const pthread_key_t* ThreadNameKey();

}  // namespace host
