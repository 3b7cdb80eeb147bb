// The host agent as the library sees it.

#include "common/PXR_host.h"

#pragma weak IsLPARAgent
#pragma weak PXR_SendPacket
#pragma weak PXR_ExecCommand_LogFile
#pragma weak PXR_DispatchForGetInfo
#pragma weak GetIPMIRegSpace
#pragma weak GetIPMIUpdate
#pragma weak GetSVPConfigType
#pragma weak nGetBMCFunc_cfgData
#pragma weak g_Update
#pragma weak g_WaitUpdate
#pragma weak pxr_bmccfg
#pragma weak __pxr_tsd

namespace host {

namespace {

// The settings of a board on which nothing was configured.
constexpr std::array<uint32_t, 7> kDefaultBmcFunctions{1, 5, 0, 0, 10, 0, 10};
constexpr size_t kWatchdogRecordOffset = 168;
constexpr int kQuery = 1;  // the mode of a request, as in our own PXR_ExecCommand

}  // namespace

bool IsLogicalPartition() {
    return &IsLPARAgent != nullptr && IsLPARAgent(nullptr) == 1;
}

void SendPacket(_KVCIM_ENUM* alerts) {
    if (&PXR_SendPacket != nullptr) PXR_SendPacket(alerts, 0);
}

void WriteLogFile(_KVCIM_ENUM* alerts) {
    if (&PXR_ExecCommand_LogFile != nullptr) PXR_ExecCommand_LogFile(alerts, nullptr, 0);
}

bool FillFromProviders(_KVCIM_ENUM* e) {
    return &PXR_DispatchForGetInfo != nullptr && PXR_DispatchForGetInfo(e, nullptr, kQuery) == 0;
}

uint16_t RegisterSpacing(uint16_t fromFirmware) {
    if (&GetIPMIRegSpace != nullptr) GetIPMIRegSpace(&fromFirmware);
    return fromFirmware;
}

void AnnounceIpmiUpdate() {
    if (&GetIPMIUpdate != nullptr) GetIPMIUpdate();
}

int ServiceProcessorType() {
    return &GetSVPConfigType != nullptr ? GetSVPConfigType() : -1;
}

std::array<uint32_t, 7> BmcFunctionConfig(int& error) {
    std::array<uint32_t, 7> values{};
    error = &nGetBMCFunc_cfgData != nullptr ? nGetBMCFunc_cfgData(values.data()) : -1;
    return error == 0 ? values : kDefaultBmcFunctions;
}

int UpdateRetryLimit() {
    return &g_Update != nullptr ? g_Update : 0;
}

int UpdateWaitSeconds() {
    return &g_WaitUpdate != nullptr ? g_WaitUpdate : 0;
}

bool RecordsWatchdogEvents() {
    return &pxr_bmccfg != nullptr && pxr_bmccfg[kWatchdogRecordOffset] == 1;
}

const pthread_key_t* ThreadNameKey() {
    return &__pxr_tsd;
}

}  // namespace host
