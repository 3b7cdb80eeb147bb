// Start and stop of the IPMI layer, and the gate that every command goes through.

#include "lib_driverIF/KvPltfSvcIpmiCall.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>

#include "common/PXR_host.h"
#include "common/PXR_thread_internal.h"
#include "common/PXR_trace_internal.h"
#include "cover/FileCover.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvLibIpmi.h"
#include "lib_driverIF/KvPltfSvcIpmiCall_Internal.h"
#include "lib_driverIF/WDTOperationThread.h"
#include "libplatform/PXR_syscall.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

std::atomic<uint32_t> g_dwBmcTimezone{0};

namespace {

constexpr int kAttempts = 51;
constexpr uint32_t kPauseBetweenAttempts = 100;  // ms
constexpr int kFirmwareUpdate = -6;              // the device of today never says so
constexpr uint32_t kDriverFailure = 0x10000000;

constexpr const char* kIpmiLog = "/var/opt/velmora/lantrel/log/@ipmi@.log";
constexpr const char* kIpmiLogCopy = "/var/opt/velmora/lantrel/log/@ipmi@_comperr_%02X.log";

std::atomic<uint32_t> g_szCDCompCode{kCompCodeNone};
thread_local bool t_singleAttempt = false;

/// A request as the gate sees it: checked, never changed.
struct Request {
    const uint8_t* bytes;
    uint32_t length;

    uint8_t NetFnLun() const { return bytes[0]; }
    uint8_t Command() const { return bytes[1]; }
    bool Is(uint8_t netFnLun, uint8_t command) const { return NetFnLun() == netFnLun && Command() == command; }
};

/// The caller's response buffer.
struct Response {
    uint8_t* bytes;
    uint32_t capacity;
    uint32_t* length;

    void Clear() const { memset(bytes, 0, capacity); }

    /// @param received  completion code and data
    void Fill(const Request& request, const uint8_t* received, uint32_t receivedLength) const {
        bytes[0] = static_cast<uint8_t>(request.NetFnLun() + 4);
        bytes[1] = request.Command();
        memcpy(bytes + 2, received, std::min(receivedLength, capacity - 2));
        *length = receivedLength + 2;
    }
};

const char* ArgumentFault(int handle, uint8_t address, const uint8_t* request, uint32_t requestLength,
                          const uint8_t* response, const uint32_t* responseLength) {
    if (handle == kInvalidHandle) return "args error(bad handle)\n";
    if (address & 1) return "args error(bad address)\n";
    if (request == nullptr || requestLength == 0) return "args error(request data Null)\n";
    if (requestLength < 2) return "args error(request buffer Illegal size)\n";
    if (response == nullptr || responseLength == nullptr) return "args error(response buffer Null)\n";
    if (*responseLength <= 2) return "args error(response buffer Illegal size)\n";
    return nullptr;
}

struct Levels {
    int call;
    int data;
};

// SEL commands are sent at every poll: their traces are for the patient.
Levels LevelsOf(uint8_t command) {
    const bool polled = command == 0x40 || (command >= 0x42 && command <= 0x48);
    return polled ? Levels{kLevelPolled, kLevelPolled} : Levels{kLevelCall, kLevelData};
}

void TraceRequest(const Request& request, uint8_t address, const Levels& levels) {
    const unsigned netFn = request.NetFnLun() & 0xFCu;
    const unsigned lun = request.NetFnLun() & 0x03u;
    if (request.Command() == 0x2D) {
        const unsigned sensor = request.length > 2 ? request.bytes[2] : 0;
        PXR_trace(kMaskIpmi, levels.call, "IPMI GetSensorReading(NetFn=%X Adr=%X Lun=%X SnsNo=%X)\n", netFn, address,
                  lun, sensor);
    } else {
        PXR_trace(kMaskIpmi, levels.call, "IPMI Command(NetFn=%X Lun=%X Cmd=%X Adr=%X)\n", netFn, lun,
                  request.Command(), address);
    }
    PXR_mem_trace(kMaskIpmi, levels.data, "IPMI Request Data\n", request.bytes, static_cast<int>(request.length));
}

// The log around a refused command is kept aside, one copy per completion code, before the log rolls over. An old log
// that nobody writes tells nothing about it, and absent sensors are refused at every poll, with the BMC locked.
void KeepLogOf(uint8_t completionCode) {
    if (!trace::WritesIpmiLog()) return;
    const CancelBlock block;
    char copy[128];
    snprintf(copy, sizeof copy, kIpmiLogCopy, completionCode);
    if (!CreateCopyFile(kIpmiLog, copy, 0)) {
        PXR_trace(kMaskIpmi, kLevelCall, "The log file copy failed. FILE=%s\n", copy);
    }
}

/// Executes one attempt. @return what the kernel's device says
int Attempt(const Request& request, const Response& response, const Levels& levels,
            CWDTOperationThread::Attempts& attempts) {
    std::array<uint8_t, kMaxMessage> received;  // written before it is read
    auto receivedLength = static_cast<uint16_t>(received.size());
    SetFreeRecentCompCode(kCompCodeNone);
    response.Clear();
    const int rc = objOprThread.IPMI_ExecCommand(request.Command(), static_cast<uint8_t>(request.NetFnLun() >> 2),
                                                 static_cast<uint16_t>(request.length - 2), request.bytes + 2,
                                                 &receivedLength, received.data(), attempts);
    if (rc != 0) return rc;
    if (receivedLength == 0 || receivedLength > received.size()) return -1;  // not even a completion code
    response.Fill(request, received.data(), receivedLength);
    PXR_trace(kMaskIpmi, levels.call, "IPMI call success. response data length = %d\n",
              static_cast<int>(*response.length));
    PXR_mem_trace(kMaskIpmi, levels.data, "IPMI Response Data\n", response.bytes,
                  static_cast<int>(std::min(*response.length, response.capacity)));
    SetRecentCompCode(received[0]);
    if (received[0] != 0) KeepLogOf(received[0]);
    return 0;
}

/// Sits out the host's pause while the firmware is updated. @return false when the process is to end
bool WaitForFirmware() {
    const int seconds = host::UpdateWaitSeconds();
    PXR_trace(kMaskIpmi, kLevelCall, "After the sleep, it retries for BMCUPDATE. Sleep time = %d seconds", seconds);
    for (int second = 0; second < seconds; ++second) {
        if (IsTerminateProcess() || IsIpmiEnding()) {
            PXR_trace(kMaskIpmi, kLevelCall, "Process termination. Rejected Request.");
            return false;
        }
        Sleep(1000);
    }
    return true;
}

bool IsWatchdogResetOrSvpCommand(const Request& request) {
    return request.Is(0x18, 0x22) || request.Is(0xF8, 0x00);
}

// These work under a reservation, which an update voids in any case: their callers reserve anew and start over.
bool WorksUnderReservation(const Request& request) {
    return request.Is(0x28, 0x23) || request.Is(0x28, 0x43) || request.Is(0x28, 0x47);
}

void AnswerReservationCancelled(const Request& request, const Response& response) {
    response.Fill(request, &kReservationCancelled, 1);
    PXR_trace(kMaskIpmi, kLevelCall,
              "BMCUPDATE occurred. it set ReservationCancel at Responce data. (Request=%02X %02X Response=%02X %02X "
              "%02X)\n",
              request.NetFnLun(), request.Command(), response.bytes[0], response.bytes[1], response.bytes[2]);
}

/// Sits an update of the firmware out.
/// @return the result that ends it; no value: it is tried again, with all its attempts
std::optional<uint32_t> SitOutUpdate(const Request& request, const Response& response) {
    if (!WaitForFirmware()) return reason::kTerminating;
    SetFreeRecentCompCode(kCompCodeFirmwareUpdate);
    if (IsWatchdogResetOrSvpCommand(request)) return reason::kFirmwareUpdate;
    if (!WorksUnderReservation(request)) return std::nullopt;
    AnswerReservationCancelled(request, response);
    return 0;
}

/// The attempts at one command. An update of the firmware gives all of them back, as often as the host wants.
class Retries {
public:
    bool AreLeft() const { return failed_ < kAttempts && updates_ <= updateLimit_; }
    void CountFailure() { Trace(failed_++); }
    void CountUpdate() {
        failed_ = 0;
        ++updates_;
        Trace(0);
    }

private:
    void Trace(int failedBefore) const {
        PXR_trace(kMaskIpmi, kLevelCall, "It failed in the IPMI command. It retries. retrycount=%d updateretrycount=%d",
                  failedBefore, updates_);
    }

    const int updateLimit_ = std::max(host::UpdateRetryLimit(), 0);
    int failed_ = 0;
    int updates_ = 0;
};

uint32_t Execute(const Request& request, const Response& response, const Levels& levels) {
    uint32_t result = 0;
    CWDTOperationThread::Attempts attempts;
    for (Retries retries; retries.AreLeft(); Sleep(kPauseBetweenAttempts)) {
        const int rc = Attempt(request, response, levels, attempts);
        if (rc == 0) return 0;
        result = kDriverFailure | (static_cast<uint32_t>(rc) & 0x0FFFFFFF);
        PXR_trace(kMaskIpmi, kLevelCall, "IPMI call fail.  rc=0x%08X", result);
        if (IsIpmiEnding() || t_singleAttempt) return result;  // a silent controller does not hold up the end
        if (rc == kFirmwareUpdate) {
            if (const std::optional<uint32_t> end = SitOutUpdate(request, response)) return *end;
            retries.CountUpdate();
        } else {
            retries.CountFailure();
        }
    }
    return result;
}

}  // namespace

bool InitIpmiLib() {
    if (!OpenIpmiLock()) return false;
    // The library's own commands need the kernel's device alone; the registers serve other modules of the agent.
    if (Init_IpmiIF() == 0 || CWDTOperationThread::IsDeviceThere()) return true;
    CloseIpmiLock();
    return false;
}

void TerminateIpmiLib() {
    Terminate_IpmiIF();
    CloseIpmiLock();
}

uint32_t CallIpmiDriver(int handle, uint8_t address, uint8_t* request, uint32_t requestLength, uint8_t* response,
                        uint32_t* responseLength) {
    if (const char* fault = ArgumentFault(handle, address, request, requestLength, response, responseLength)) {
        PXR_trace(kMaskIpmi, kLevelCall, "%s", fault);
        return reason::kBadArguments;
    }
    const Request checked{request, std::min(requestLength, kMaxMessage)};
    const Levels levels = LevelsOf(checked.Command());
    TraceRequest(checked, address, levels);
    return Execute(checked, {response, *responseLength, responseLength}, levels);
}

SingleAttempt::SingleAttempt() {
    t_singleAttempt = true;
}

SingleAttempt::~SingleAttempt() {
    t_singleAttempt = false;
}

uint32_t ModifyErrorCode(uint32_t result) {
    if (result == 0) return 0;
    switch (result >> 28) {
        case 0:
        case 1:
            return reason::kCallFailed;
        case 2:
            return reason::kCallFailedClass2;
        default:
            return 0;
    }
}

void SetRecentCompCode(uint8_t code) {
    g_szCDCompCode = code;
}

void SetFreeRecentCompCode(uint32_t marker) {
    g_szCDCompCode = marker;
}

uint32_t GetRecentCompCode() {
    return g_szCDCompCode;
}

int CheckRecentCompCode() {
    switch (GetRecentCompCode()) {
        case 0:
            return kCompCodeGood;
        case 0xC3:
        case kReservationCancelled:
            return kCompCodeReReserve;
        case 0x81:
        case 0xC0:
        case 0xD2:
        case kCompCodeFirmwareUpdate:
            return kCompCodeBusy;
        case kCompCodeNone:
            return kCompCodeNoResponse;
        default:
            return kCompCodeError;
    }
}

}  // namespace ktx_ipmi
