// The watchdog timer of the BMC, and the two flags that the host's threads share about it.

#include <source_location>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcIpmiCmd.h"
#include "lib_driverIF/KvPltfSvcIpmiMain_Report.h"
#include "libplatform/KvPsBmc.h"
#include "libplatform/ipmi_ioctl.h"

namespace {

using namespace ktx_ipmi;

/// The IPMI lock, taken with the priority flag set. Nothing looks at the flag: a watchdog waits in the line like all.
class PriorityBracket {
public:
    PriorityBracket() : open_(OpenIpmiDriverPriority(&handle_, kInfinite)) {}
    ~PriorityBracket() {
        if (open_) CloseIpmiDriverPriority(handle_);
    }
    PriorityBracket(const PriorityBracket&) = delete;
    PriorityBracket& operator=(const PriorityBracket&) = delete;
    explicit operator bool() const { return open_; }
    int Handle() const { return handle_; }

private:
    int handle_ = kInvalidHandle;
    bool open_;
};

/// Runs a command under the priority lock. @param notOpened  the result when the BMC cannot be reached
template <typename Run>
uint32_t WithPriority(uint32_t notOpened, Run run, std::source_location where = std::source_location::current()) {
    const PriorityBracket bracket;
    if (!bracket) return ReportNotOpened(notOpened, where);
    const DeviceInBracket device;
    if (!device) return ReportNotOpened(notOpened, where);
    return run(bracket.Handle());
}

uint32_t Flag(uint32_t code, const uint8_t* flag, std::source_location where = std::source_location::current()) {
    if (ipmi_ioctl(code, reinterpret_cast<unsigned long>(flag)) == 0) return 0;
    return PXR_ReportError(MakeResult(fn::kNone, service_reason::kIoctlFailed), where);
}

}  // namespace

uint32_t KvPsSetWatchdogTimerIpmi(uint8_t action, uint16_t count) {
    return WithPriority(MakeResult(fn::kSetWatchdogTimer, service_reason::kNotOpened),
                        [=](int handle) { return SetWatchdogTimerCF2(handle, g_bBmcAdr, action, count); });
}

uint32_t KvPsResetWatchdogTimerIpmi(void) {
    return WithPriority(MakeResult(fn::kResetWatchdogTimer, service_reason::kNotOpened),
                        [](int handle) { return ResetWatchdogTimer(handle, g_bBmcAdr); });
}

uint32_t KvPsGetWatchDogStatusIpmi(uint8_t* flag) {
    return Flag(GET_WDOG_STATUS, flag);
}

uint32_t KvPsSetWatchDogStatusIpmi(const uint8_t* flag) {
    return Flag(SET_WDOG_STATUS, flag);
}

uint32_t KvPsGetWatchDogReceiveIpmi(uint8_t* flag) {
    return Flag(GET_RECEIVE_WDOG_REQ, flag);
}

uint32_t KvPsSetWatchDogReceiveIpmi(const uint8_t* flag) {
    return Flag(SET_RECEIVE_WDOG_REQ, flag);
}
