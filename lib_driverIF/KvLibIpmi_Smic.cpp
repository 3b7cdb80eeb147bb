// The server management interface chip, seen from system software.
//
// A byte is handed over in four steps: the code of what is to happen goes to the control register, the byte to the data
// register, BUSY is set in the flags, and when the chip has cleared it the status register tells what it made of it.

#include "lib_driverIF/KvLibIpmi_Interface.h"

#include <cerrno>

#include "cover/TimerCover.h"

const IpmiInterfaceTable smic_func = {ipmi_smic_write,   ipmi_smic_read,         ipmi_smic_status,
                                      ipmi_smic_smsflag, ipmi_smic_IsREAD_STATE, 0x0CA9};

namespace {

// Flags register.
constexpr uint8_t kBusy = 0x01;
constexpr uint8_t kSmsAttention = 0x04;
constexpr uint8_t kTxDataReady = 0x40;
constexpr uint8_t kRxDataReady = 0x80;

// Control codes.
constexpr uint8_t kControlGetStatus = 0x40;
constexpr uint8_t kControlWriteStart = 0x41;
constexpr uint8_t kControlWriteNext = 0x42;
constexpr uint8_t kControlWriteEnd = 0x43;
constexpr uint8_t kControlReadStart = 0x44;
constexpr uint8_t kControlReadNext = 0x45;
constexpr uint8_t kControlReadEnd = 0x46;

// Status codes.
constexpr uint8_t kStatusWriteStart = 0xC1;
constexpr uint8_t kStatusWriteNext = 0xC2;
constexpr uint8_t kStatusWriteEnd = 0xC3;
constexpr uint8_t kStatusReadStart = 0xC4;
constexpr uint8_t kStatusReadNext = 0xC5;
constexpr uint8_t kStatusReadEnd = 0xC6;

// Codes of a transfer, as the status byte carries them.
constexpr uint8_t kTransferGood = 0x00;
constexpr uint8_t kTransferBadLength = 0x04;
constexpr uint8_t kTransferUnknownError = 0xFF;

void ChangeFlags(uint8_t set, uint8_t clear) {
    WriteRegister(IPMI_REG_CONTROL, static_cast<uint8_t>((ReadRegister(IPMI_REG_CONTROL) | set) & ~clear));
}

/// Waits for flags, and no longer than until the wait is given up.
int WaitFlags(uint8_t mask, uint8_t value, bool (*givenUp)()) {
    const uint64_t deadline = Clock().Now() + uint64_t{ipmi_param[kParamSmicFlagLimit]} * 1000;
    while ((ReadRegister(IPMI_REG_CONTROL) & mask) != value) {
        if (Clock().Now() >= deadline || givenUp()) return -EBUSY;
        if (const int error = ipmi_sleep_on_timeout(static_cast<long>(ipmi_param[kParamSmicFlagInterval]))) {
            return error;
        }
    }
    return 0;
}

/// Lets the chip act on the code in the control register.
int Strobe(uint8_t* statusCode) {
    ChangeFlags(kBusy, 0);
    if (const int error = ipmi_smic_flagwait(kBusy, 0)) return error;
    *statusCode = ReadRegister(IPMI_REG_STATUS);
    return 0;
}

int WriteStep(uint8_t control, uint8_t value, uint8_t* statusCode) {
    const bool first = control == kControlWriteStart;
    const int error = first ? ipmi_smic_flagwait(kBusy, 0) : ipmi_smic_flagwait(kTxDataReady | kBusy, kTxDataReady);
    if (error != 0) return error;
    WriteRegister(IPMI_REG_STATUS, control);
    WriteRegister(IPMI_REG_DATA, value);
    return Strobe(statusCode);
}

int ReadStep(uint8_t control, uint8_t* statusCode) {
    const bool last = control == kControlReadEnd;
    const int error = last ? ipmi_smic_flagwait(kBusy, 0) : ipmi_smic_flagwait(kRxDataReady | kBusy, kRxDataReady);
    if (error != 0) return error;
    WriteRegister(IPMI_REG_STATUS, control);
    return Strobe(statusCode);
}

/// @param done  whether the chip took the whole request
int WriteAttempt(const uint8_t* request, uint32_t length, bool* done) {
    uint8_t code = 0;
    if (const int error = WriteStep(kControlWriteStart, request[0], &code)) return error;
    if (code != kStatusWriteStart) return 0;
    for (uint32_t i = 1; i + 1 < length; ++i) {
        if (const int error = WriteStep(kControlWriteNext, request[i], &code)) return error;
        if (code != kStatusWriteNext) return 0;
    }
    if (const int error = WriteStep(kControlWriteEnd, request[length - 1], &code)) return error;
    ReadRegister(IPMI_REG_DATA);
    *done = code == kStatusWriteEnd;
    return 0;
}

/// @param done  whether the response came to its end; no message is longer than kIpmiMaxMessage, so neither is this
/// walk
int ReadAttempt(IpmiIncoming& response, bool* done) {
    uint8_t code = 0;
    if (const int error = ReadStep(kControlReadStart, &code)) return error;
    if (code != kStatusReadStart) return 0;
    do {
        response.Append(ReadRegister(IPMI_REG_DATA));
        if (const int error = ReadStep(kControlReadNext, &code)) return error;
    } while (code == kStatusReadNext && response.count + 1 < kIpmiMaxMessage);
    if (code != kStatusReadEnd) return 0;
    response.Append(ReadRegister(IPMI_REG_DATA));
    if (const int error = ReadStep(kControlReadEnd, &code)) return error;
    ReadRegister(IPMI_REG_DATA);
    *done = true;
    return 0;
}

/// Why the chip broke a transfer off. Never "good", or half a transfer would pass for a whole one.
int FetchFailure(uint8_t* status) {
    if (const int error = ipmi_smic_status(status)) return error;
    if (*status == kTransferGood) *status = kTransferUnknownError;
    return 0;
}

int WriteWithRetries(const uint8_t* request, uint32_t length, uint8_t* status) {
    const uint32_t attempts = ipmi_param[kParamSmicWriteAttempts];
    bool done = false;
    for (uint32_t attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0) {
            const int error = ipmi_sleep_on_timeout(static_cast<long>(ipmi_param[kParamSmicWritePause]));
            if (error != 0) return error;
            if (g_ipmiStopping) break;
        }
        if (const int error = WriteAttempt(request, length, &done)) return error;
        if (done) return 0;
    }
    return FetchFailure(status);
}

}  // namespace

int ipmi_smic_flagwait(uint8_t mask, uint8_t value) {
    IpmiCallTrace trace(__func__);
    const int error = WaitFlags(mask, value, ipmi_is_given_up);
    return error == 0 ? trace.Out(0) : trace.Fail(error);
}

int ipmi_smic_write(uint8_t* request, uint32_t length, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (request == nullptr || status == nullptr || length > kIpmiMaxMessage) return trace.Fail(-EFAULT);
    *status = kTransferGood;
    if (length < 2) {
        *status = kTransferBadLength;
        return trace.Out(0);
    }
    return trace.Out(WriteWithRetries(request, length, status));
}

int ipmi_smic_read(uint8_t* response, uint32_t* length, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    const uint32_t capacity = length != nullptr ? *length : kIpmiMaxMessage;
    if (response == nullptr || status == nullptr || capacity > kIpmiMaxMessage) return trace.Fail(-EFAULT);
    *status = kTransferGood;
    IpmiIncoming taken = {.bytes = response, .capacity = capacity};
    bool done = false;
    if (const int error = ReadAttempt(taken, &done)) return trace.Out(error);
    if (done) {
        if (length != nullptr) *length = taken.count;
        return trace.Out(0);
    }
    const int error = FetchFailure(status);
    if (*status != kTransferGood) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "Error: SMIC read(0x%02X)\n", *status);
    }
    return trace.Out(error);
}

int ipmi_smic_status(uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (status == nullptr) return trace.Fail(-EFAULT);
    if (const int error = ipmi_smic_flagwait(kBusy, 0)) return trace.Out(error);
    WriteRegister(IPMI_REG_STATUS, kControlGetStatus);
    uint8_t code = 0;
    if (const int error = Strobe(&code)) return trace.Out(error);
    *status = ReadRegister(IPMI_REG_DATA);
    return trace.Out(0);
}

int ipmi_smic_smsflag(int mode) {
    IpmiCallTrace trace(__func__);
    if (mode == 1) return trace.Out((ReadRegister(IPMI_REG_CONTROL) & kSmsAttention) != 0 ? 1 : 0);
    return trace.Out(WaitFlags(kSmsAttention, kSmsAttention, [] { return g_ipmbAttentionUnwanted.load(); }));
}

int ipmi_smic_IsREAD_STATE() {
    const IpmiCallTrace trace(__func__);
    return 0;
}
