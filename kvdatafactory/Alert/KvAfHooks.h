#pragma once
/// @file
/// The two callbacks that the host hands over for watchdog events. Set by the entry point SendMessage, called when
/// alerts are made; null until set, and kept until the library is unloaded.

#include <atomic>
#include <cstdint>

using WatchdogWriter = void (*)(uint32_t timeStamp);
using WatchdogCleaner = void (*)();

extern std::atomic<WatchdogWriter> pPXR_Write_ProcessAtErrorExecWDTTime;
extern std::atomic<WatchdogCleaner> pPXR_Delete_ProcessAtErrorExecInfo;
