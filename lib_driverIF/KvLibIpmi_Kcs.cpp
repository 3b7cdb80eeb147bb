// The keyboard controller style interface, seen from system software.
//
// Every byte goes one way or the other through the data register while status bits tell who may touch it: IBF while the
// BMC has not taken what was written, OBF while there is something to read. The state bits tell what the BMC believes
// to be going on; when it disagrees, an abort brings both sides back to idle.

#include "lib_driverIF/KvLibIpmi_Interface.h"

#include <cerrno>

#include "cover/TimerCover.h"

const IpmiInterfaceTable kcs_func = {ipmi_kcs_Write,       ipmi_kcs_Read,         ipmi_kcs_GetStatus,
                                     ipmi_kcs_SMSBitCheck, ipmi_kcs_IsREAD_STATE, 0x0CA2};

namespace {

// Status register.
constexpr uint8_t kObf = 0x01;
constexpr uint8_t kIbf = 0x02;
constexpr uint8_t kSmsAttention = 0x04;
constexpr uint8_t kBmcNotAvailable = 0x10;
constexpr uint8_t kStateMask = 0xC0;
constexpr uint8_t kStateIdle = 0x00;
constexpr uint8_t kStateRead = 0x40;
constexpr uint8_t kStateWrite = 0x80;

// Control codes; READ goes to the data register, the others to the command register.
constexpr uint8_t kControlAbort = 0x60;
constexpr uint8_t kControlWriteStart = 0x61;
constexpr uint8_t kControlWriteEnd = 0x62;
constexpr uint8_t kControlRead = 0x68;

constexpr int kPolls = 10000;
constexpr uint32_t kPollPauseMs = 1;

int WaitIbfClear(uint8_t* status) {
    return KCSWaitStatusReg(0, kIbf, status);
}
int WaitObfSet() {
    uint8_t status = 0;
    return KCSWaitStatusReg(kObf, kObf, &status);
}

/// Waits until the BMC has taken the byte, then looks at the state that it went to.
int WaitForState(uint8_t state) {
    uint8_t status = 0;
    if (const int result = WaitIbfClear(&status); result != kKcsDone) return result;
    return (status & kStateMask) == state ? kKcsDone : kKcsStateError;
}

int WriteCommandAndWait(uint8_t code, uint8_t state) {
    WriteRegister(IPMI_REG_STATUS, code);
    return WaitForState(state);
}

int WriteDataAndWait(uint8_t value, uint8_t state) {
    WriteRegister(IPMI_REG_DATA, value);
    return WaitForState(state);
}

int ClearObf() {
    uint8_t status = 0;
    return KCSClearObf(&status);
}

int WaitAndReadData(uint8_t* value) {
    if (const int result = WaitObfSet(); result != kKcsDone) return result;
    *value = ReadRegister(IPMI_REG_DATA);
    return kKcsDone;
}

/// What one transfer may still spend.
struct Budget {
    int stateErrors;
    int timeouts;
    bool IsLeft() const { return stateErrors > 0 && timeouts > 0 && !g_ipmiStopping; }
};

/// After a state error: brings the interface back to idle. False when the transfer ends with the abort's result.
bool Recover(Budget& budget, int* abortResult) {
    --budget.stateErrors;
    uint8_t code = 0;
    *abortResult = KCSAbortAndGetStatusCode(&code);
    if (*abortResult == kKcsStateError) --budget.stateErrors;
    if (*abortResult == kKcsTimeout) --budget.timeouts;
    return *abortResult == kKcsDone || *abortResult == kKcsStateError || *abortResult == kKcsTimeout;
}

/// Runs passes of a transfer until one is done or the budget is spent; there is always a first. A pass gives a
/// KcsResult, or a negative value that is final.
template <class Pass>
int Transfer(Budget budget, const Pass& pass) {
    int result = kKcsDone;
    do {
        result = pass();
        if (result <= kKcsDone) return result;
        if (result == kKcsTimeout) {
            --budget.timeouts;
        } else if (result != kKcsStateError || !Recover(budget, &result)) {
            break;
        }
    } while (budget.IsLeft());
    if (result == kKcsNotAvailable) return -ENXIO;
    if (budget.stateErrors <= 0) return -EFAULT;
    if (budget.timeouts <= 0) return -EBUSY;
    return -EFAULT;
}

int StartWrite() {
    uint8_t status = 0;
    if (const int result = WaitIbfClear(&status); result != kKcsDone) return result;
    if (const int result = ClearObf(); result != kKcsDone) return result;
    if (const int result = WriteCommandAndWait(kControlWriteStart, kStateWrite); result != kKcsDone) return result;
    return ClearObf();
}

int WritePass(const uint8_t* request, uint32_t length) {
    if (const int result = StartWrite(); result != kKcsDone) return result;
    for (uint32_t i = 0; i + 1 < length; ++i) {
        if (const int result = WriteDataAndWait(request[i], kStateWrite); result != kKcsDone) return result;
        if (const int result = ClearObf(); result != kKcsDone) return result;
    }
    if (const int result = WriteCommandAndWait(kControlWriteEnd, kStateWrite); result != kKcsDone) return result;
    if (const int result = ClearObf(); result != kKcsDone) return result;
    WriteRegister(IPMI_REG_DATA, request[length - 1]);
    return kKcsDone;
}

/// The BMC ends with a byte that has no meaning; it stays in the register until it is read.
int TakeFinalByte() {
    uint8_t dummy = 0;
    const int result = WaitAndReadData(&dummy);
    if (result == kKcsDone) return kKcsDone;
    return result == kKcsTimeout ? -EBUSY : -EFAULT;
}

/// One pass. The count goes on over several passes, as the BMC does.
int ReadPass(IpmiIncoming& response) {
    uint8_t status = 0;
    for (;;) {
        if (const int result = WaitIbfClear(&status); result != kKcsDone) return result;
        if ((status & kStateMask) != kStateRead) break;
        if (response.count >= kIpmiMaxMessage) {
            uint8_t code = 0;
            KCSAbortAndGetStatusCode(&code);
            return -EFAULT;
        }
        uint8_t value = 0;
        if (const int result = WaitAndReadData(&value); result != kKcsDone) return result;
        response.Append(value);
        WriteRegister(IPMI_REG_DATA, kControlRead);
    }
    return (status & kStateMask) == kStateIdle ? TakeFinalByte() : kKcsStateError;
}

/// Waits for a status, at most 10 s, and no longer than until the wait is given up.
int WaitStatus(uint8_t value, uint8_t mask, uint8_t* status, bool (*givenUp)()) {
    if ((value != 0 && (value & mask) == 0) || status == nullptr) return kKcsBadArgument;
    for (int poll = 0; poll < kPolls; ++poll) {
        *status = ReadRegister(IPMI_REG_STATUS);
        if ((*status & kBmcNotAvailable) != 0) return kKcsNotAvailable;
        if ((*status & mask) == value) return kKcsDone;
        if (givenUp()) break;
        Sleep(kPollPauseMs);
    }
    return kKcsTimeout;
}

int AbortSequence(uint8_t* code) {
    uint8_t status = 0;
    if (const int result = WaitIbfClear(&status); result != kKcsDone) return result;
    WriteRegister(IPMI_REG_STATUS, kControlAbort);
    if (const int result = WaitIbfClear(&status); result != kKcsDone) return result;
    if (const int result = ClearObf(); result != kKcsDone) return result;
    if (const int result = WriteDataAndWait(0x00, kStateRead); result != kKcsDone) return result;
    if (const int result = WaitAndReadData(code); result != kKcsDone) return result;
    if (const int result = WriteDataAndWait(kControlRead, kStateIdle); result != kKcsDone) return result;
    if (const int result = WaitObfSet(); result != kKcsDone) return result;
    return ClearObf();
}

}  // namespace

int KCSWaitStatusReg(uint8_t value, uint8_t mask, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    return trace.Out(WaitStatus(value, mask, status, ipmi_is_given_up));
}

int KCSClearObf(uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (status == nullptr) return trace.Out(kKcsBadArgument);
    for (int poll = 0; poll < kPolls; ++poll) {
        *status = ReadRegister(IPMI_REG_STATUS);
        if ((*status & kBmcNotAvailable) != 0) return trace.Out(kKcsNotAvailable);
        if ((*status & kObf) == 0) return trace.Out(kKcsDone);
        if (poll == 0) ReadRegister(IPMI_REG_DATA);  // what was left there
        if (ipmi_is_given_up()) break;
        Sleep(kPollPauseMs);
    }
    return trace.Out(kKcsTimeout);
}

int KCSGetStatusReg(uint8_t value, uint8_t mask, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    const uint8_t now = ReadRegister(IPMI_REG_STATUS);
    if (status != nullptr) *status = now;
    return trace.Out((now & mask) == value ? 1 : 0);
}

int KCSAbortAndGetStatusCode(uint8_t* code) {
    IpmiCallTrace trace(__func__);
    if (code == nullptr) return trace.Fail(kKcsBadArgument);
    const int result = AbortSequence(code);
    return result == kKcsDone ? trace.Out(result) : trace.Fail(result);
}

int ipmi_kcs_Write(uint8_t* request, uint32_t length, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (status != nullptr) *status = 0;
    if (request == nullptr || length < 2 || length > kIpmiMaxMessage) return trace.Fail(-EFAULT);
    const int result = Transfer({.stateErrors = 3, .timeouts = 3}, [&] { return WritePass(request, length); });
    return result == 0 ? trace.Out(result) : trace.Fail(result);
}

int ipmi_kcs_Read(uint8_t* response, uint32_t* length, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (status != nullptr) *status = 0;
    const uint32_t capacity = length != nullptr ? *length : kIpmiMaxMessage;
    if (response == nullptr || capacity < 1 || capacity > kIpmiMaxMessage) return trace.Fail(-EFAULT);
    IpmiIncoming taken = {.bytes = response, .capacity = capacity};
    const int result = Transfer({.stateErrors = 1, .timeouts = 3}, [&] { return ReadPass(taken); });
    if (length != nullptr) *length = taken.count;
    return result == 0 ? trace.Out(result) : trace.Fail(result);
}

int ipmi_kcs_GetStatus(uint8_t* status) {
    IpmiCallTrace trace(__func__);
    switch (KCSAbortAndGetStatusCode(status)) {
        case kKcsDone:
            return trace.Out(0);
        case kKcsTimeout:
            return trace.Fail(-EBUSY);
        case kKcsNotAvailable:
            return trace.Fail(-ENXIO);
        default:
            return trace.Fail(-EFAULT);
    }
}

int ipmi_kcs_SMSBitCheck(int mode) {
    IpmiCallTrace trace(__func__);
    uint8_t status = 0;
    if (mode == 1) return trace.Out(KCSGetStatusReg(kSmsAttention, kSmsAttention, &status));
    return trace.Out(WaitStatus(kSmsAttention, kSmsAttention, &status, [] { return g_ipmbAttentionUnwanted.load(); }));
}

int ipmi_kcs_IsREAD_STATE() {
    IpmiCallTrace trace(__func__);
    uint8_t status = 0;
    return trace.Out(KCSGetStatusReg(kStateRead, kStateMask, &status));
}
