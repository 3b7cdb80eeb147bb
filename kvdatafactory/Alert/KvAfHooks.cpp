#include "kvdatafactory/Alert/KvAfHooks.h"

std::atomic<WatchdogWriter> pPXR_Write_ProcessAtErrorExecWDTTime{nullptr};
std::atomic<WatchdogCleaner> pPXR_Delete_ProcessAtErrorExecInfo{nullptr};
