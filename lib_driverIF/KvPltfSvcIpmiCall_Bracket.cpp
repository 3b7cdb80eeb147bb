// The bracket around every conversation with the BMC: the IPMI lock and, inside it, the open device.
//
// From having the lock until the caller has the bracket, and on the way out, nobody is cancelled.

#include <pthread.h>

#include <atomic>

#include "cover/CancelBlock.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"
#include "lib_driverIF/WDTOperationThread.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kPauseAfterFailedOpen = 100;  // ms
constexpr int kOpenTries = 3;

std::atomic<int> g_bIPMIPriorityCtrl{0};

thread_local unsigned t_deviceDepth = 0;  // brackets nest: the device belongs to the outermost one
std::atomic<bool> g_deviceOpen = false;
std::atomic<bool> g_deviceInherited = false;

/// A child process has the device open when the parent had: what it receives there would be missing to the parent.
void ForgetParentsDevice() {
    t_deviceDepth = 0;
    if (g_deviceOpen.exchange(false)) g_deviceInherited = true;
}

/// @return 0, also when the device is open already; -1
int OpenDevice() {
    const CancelBlock block;
    if (t_deviceDepth == 0) {
        static const int followsForks = pthread_atfork(nullptr, nullptr, ForgetParentsDevice);
        if (followsForks != 0) return -1;
        if (g_deviceInherited.exchange(false)) objOprThread.LOGG_IPMIClose();
        if (const int rc = objOprThread.LOGG_IPMIInit(); rc != 0) return rc;
        g_deviceOpen = true;
    }
    ++t_deviceDepth;
    return 0;
}

void CloseDevice() {
    const CancelBlock block;
    if (t_deviceDepth == 0 || --t_deviceDepth > 0) return;
    g_deviceOpen = false;
    objOprThread.LOGG_IPMIClose();
}

/// The priority flag, set for its scope.
class PriorityFlag {
public:
    PriorityFlag() { IPMIPriorityCtrl(1); }
    ~PriorityFlag() { IPMIPriorityCtrl(0); }
    PriorityFlag(const PriorityFlag&) = delete;
    PriorityFlag& operator=(const PriorityFlag&) = delete;
};

}  // namespace

bool OpenIpmiDriver(int* handle, uint32_t timeoutMs) {
    *handle = kInvalidHandle;
    if (!IsIpmiLibStarted()) return false;
    const LockWait wait(timeoutMs);
    for (int retry = 0; retry < kOpenTries; ++retry) {
        PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Try to lock", __func__);
        if (!TakeIpmiLock(wait, handle)) return false;
        const CancelBlock block;
        const int rc = OpenDevice();
        if (rc == 0) {
            PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Lock", __func__);
            return true;
        }
        PXR_trace(kMaskIpmi, kLevelCall, "IPMI open fail.  l_nReturn=0x%08X nRetryCount=%d", static_cast<unsigned>(rc),
                  retry);
        ReleaseIpmiLock(*handle);
        *handle = kInvalidHandle;
        Sleep(kPauseAfterFailedOpen);
    }
    return false;
}

void CloseIpmiDriver(int handle) {
    CloseDevice();
    ReleaseIpmiLock(handle);
    PXR_trace(kMaskIpmi, kLevelPolled, "[%s] Unlock", __func__);
}

bool OpenIpmiDriverPriority(int* handle, uint32_t timeoutMs) {
    const PriorityFlag flag;
    if (TakeIpmiLock(LockWait(timeoutMs), handle)) return true;
    *handle = kInvalidHandle;
    return false;
}

void CloseIpmiDriverPriority(int handle) {
    ReleaseIpmiLock(handle);
}

void IPMIPriorityCtrl(int on) {
    g_bIPMIPriorityCtrl = on;
}

int IsIPMIPriorityCtrl() {
    return g_bIPMIPriorityCtrl;
}

DeviceInBracket::DeviceInBracket() : open_(OpenDevice() == 0) {}

DeviceInBracket::~DeviceInBracket() {
    if (open_) CloseDevice();
}

IpmiBracket::IpmiBracket(uint32_t timeoutMs) : open_(OpenIpmiDriver(&handle_, timeoutMs)) {}

IpmiBracket::~IpmiBracket() {
    if (open_) CloseIpmiDriver(handle_);
}

bool IpmiBracket::LetOthersIn() {
    if (!open_ || !SomebodyWaitsForIpmiLock()) return open_;
    CloseIpmiDriver(handle_);
    open_ = OpenIpmiDriver(&handle_, kInfinite);
    return open_;
}

}  // namespace ktx_ipmi
