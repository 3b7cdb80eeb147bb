#include "lib_driverIF/WDTOperationThread.h"

#include <cxxabi.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "cover/DeviceCover.h"
#include "cover/TimerCover.h"
#include "libplatform/PXR_trace.h"

CWDTOperationThread objOprThread;

namespace {

// The records of the kernel's IPMI device as a 32-bit process hands them over.

struct SystemInterfaceAddress {
    int32_t type;
    int16_t channel;
    uint8_t lun;
};
static_assert(sizeof(SystemInterfaceAddress) == 8 && offsetof(SystemInterfaceAddress, lun) == 6);

/// Room for an address of any kind; the kernel refuses a receive with less.
struct AnyAddress {
    int32_t type;
    int16_t channel;
    uint8_t data[32];
};
static_assert(sizeof(AnyAddress) == 40);

struct KernelMessage {
    uint8_t netFn;
    uint8_t command;
    uint16_t dataLength;
    uint8_t* data;
};
static_assert(sizeof(KernelMessage) == 8 && offsetof(KernelMessage, data) == 4);

struct KernelRequest {
    const void* address;
    uint32_t addressLength;
    int32_t messageId;
    KernelMessage message;
};
static_assert(sizeof(KernelRequest) == 20 && offsetof(KernelRequest, message) == 12);

struct KernelReceive {
    int32_t type;
    void* address;
    uint32_t addressLength;
    int32_t messageId;
    KernelMessage message;
};
static_assert(sizeof(KernelReceive) == 24 && offsetof(KernelReceive, message) == 16);

constexpr const char* kDevice = "/dev/ipmi0";
constexpr unsigned long kSendCommand = 0x8014690D;
constexpr unsigned long kReceiveMessageTruncated = 0xC018690B;
constexpr int32_t kSystemInterface = 0x0C;
constexpr int16_t kBmcChannel = 0x0F;
constexpr int32_t kResponseMessage = 1;

constexpr uint16_t kMaxRequestData = 270;  // the kernel's limit of one message, less network function and command
constexpr int kTries = 5;
constexpr int kTryMs = 100;
// More than the kernel queues for one user: 25 events and the late responses. A device that goes on is broken.
constexpr int kMaxForeignMessages = 128;

void TraceFailure(int result, int error) {
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL,
              "Failed to IPMI command. The return value is %d and error number is %d.", result, error);
}

void Trace(const char* text) {
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL, "%s", text);
}

/// Whole milliseconds until the deadline, 0 once it has passed.
int RestMs(uint64_t deadline) {
    const uint64_t now = Clock().Now();
    return now < deadline ? static_cast<int>((deadline - now + 999) / 1000) : 0;
}

/// How long the last answer took, in us; 0 when it came in its own attempt. Guarded like the device by the lock that
/// the caller has.
uint64_t g_lateAnswerTook = 0;

/// Uses up one message id, however the command ends.
class NextMessageId {
public:
    explicit NextMessageId(uint32_t& id) : id_(id) {}
    ~NextMessageId() { ++id_; }
    NextMessageId(const NextMessageId&) = delete;
    NextMessageId& operator=(const NextMessageId&) = delete;

private:
    uint32_t& id_;
};

}  // namespace

bool CWDTOperationThread::IsDeviceThere() {
    return static_cast<bool>(device::Descriptor(kDevice, O_RDWR));
}

int CWDTOperationThread::LOGG_IPMIInit() {
    if (device_ >= 0) {
        Trace("Allready ipmi driver open.");
        return 0;
    }
    device_ = device::Open(kDevice, O_RDWR);
    if (device_ >= 0) return 0;
    const int error = errno;
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL,
              "Failed to IPMI open. The return value is %d and error number is %d.", device_, error);
    device_ = -1;
    return -1;
}

void CWDTOperationThread::LOGG_IPMIClose() {
    if (device_ < 0) return;
    device::Close(device_);
    device_ = -1;
}

int CWDTOperationThread::IPMI_ExecCommand(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data,
                                          uint16_t* responseLength, uint8_t* response, Attempts& attempts) {
    const bool refused = response == nullptr || responseLength == nullptr || *responseLength == 0 ||
                         (data == nullptr && dataLength > 0) || dataLength > kMaxRequestData;
    if (refused) {
        Trace("Function input parameters are invalid.");
        return -1;
    }
    try {
        const NextMessageId next(messageId_);
        return Execute(command, netFn, dataLength, data, responseLength, response, attempts);
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is being cancelled
    } catch (...) {
        Trace("IPMI_ExecCommand:Exception has been occurred in the function. Thus exits from the function.");
        return -1;
    }
}

/// Where the response goes, and what it is known by.
struct CWDTOperationThread::Awaited {
    uint8_t* response;
    uint16_t capacity;
    uint32_t firstId;
    uint32_t lastId;
    uint32_t answeredId = 0;
    uint16_t received = 0;

    bool IsAnsweredBy(int32_t id) const { return static_cast<uint32_t>(id) - firstId <= lastId - firstId; }
};

void CWDTOperationThread::Attempts::Sent(uint32_t id, uint64_t now) {
    pause = firstSent == 0 ? g_lateAnswerTook : 2 * pause;
    if (firstSent == 0) firstSent = now;
    lastSentId = id;
    lastSent = now;
}

int CWDTOperationThread::Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data,
                                 uint16_t* responseLength, uint8_t* response, Attempts& attempts) {
    if (device_ < 0) return -1;
    const bool again = attempts.firstId.has_value();
    if (!again) attempts.firstId = messageId_;
    Awaited awaited = {response, *responseLength, *attempts.firstId, messageId_};

    int foreignLeft = kMaxForeignMessages;
    if (!again || !ReceiveOwn(awaited, foreignLeft)) {
        const uint64_t now = Clock().Now();
        if (attempts.MayBeSent(now)) {
            if (!Send(command, netFn, dataLength, data)) return -1;
            attempts.Sent(messageId_, now);
        }
        if (!Await(awaited, now)) return -1;
    }
    g_lateAnswerTook = again ? Clock().Now() - attempts.SentAt(awaited.answeredId) : 0;
    if (awaited.received == 0) {
        Trace("The length of the IPMI response data is 0.");
        return -1;
    }
    *responseLength = awaited.received;
    return 0;
}

bool CWDTOperationThread::Await(Awaited& awaited, uint64_t now) const {
    int error = 0;
    for (int attempt = 1; attempt <= kTries; ++attempt, now = Clock().Now()) {
        if (Try(awaited, now)) return true;
        error = errno;
        TraceFailure(-1, error);
        PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL,
                  "Retrying to get the response from IPMI. Retry count is %d.", attempt);
    }
    TraceFailure(-1, error);
    return false;
}

bool CWDTOperationThread::Send(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data) const {
    const SystemInterfaceAddress bmc = {.type = kSystemInterface, .channel = kBmcChannel, .lun = 0};
    KernelRequest request = {
        .address = &bmc,
        .addressLength = sizeof bmc,
        .messageId = static_cast<int32_t>(messageId_),
        // The kernel copies the data and leaves it as it is.
        .message = {.netFn = netFn, .command = command, .dataLength = dataLength, .data = const_cast<uint8_t*>(data)},
    };
    return device::Ioctl(device_, kSendCommand, &request) >= 0;
}

/// One try: 100 ms at most. Goes on as soon as the device has something to read; where it cannot be waited for, or
/// says so and has nothing, or fails, the time is slept away: the request must not be sent again too soon. The clock is
/// asked once where all goes well: commands are sent by the hundred.
bool CWDTOperationThread::Try(Awaited& awaited, uint64_t now) const {
    const uint64_t deadline = now + uint64_t{kTryMs} * 1000;
    int foreignLeft = kMaxForeignMessages;
    int error = EAGAIN;
    for (int rest = kTryMs; rest > 0 && error == EAGAIN; rest = RestMs(deadline)) {
        const int foreignBefore = foreignLeft;
        const int ready = device::WaitReadable(device_, rest);
        if (ready < 0) Sleep(static_cast<uint32_t>(rest));
        if (ReceiveOwn(awaited, foreignLeft)) return true;
        error = errno;
        // Nothing there, although the device said so, and nothing was dropped either: it knows no waiting.
        const bool toNoEnd = ready > 0 && foreignLeft == foreignBefore;
        if (error != EAGAIN || toNoEnd) Sleep(static_cast<uint32_t>(RestMs(deadline)));
    }
    errno = error;
    return false;
}

/// Takes messages out of the device up to a response to the request under way. A late response to another one would
/// otherwise pass for the answer, one sensor's value for another's. False with errno EAGAIN: not there yet.
bool CWDTOperationThread::ReceiveOwn(Awaited& awaited, int& foreignLeft) const {
    AnyAddress from = {};
    for (;;) {
        KernelReceive receive = {
            .type = 0,
            .address = &from,
            .addressLength = sizeof from,  // the kernel overwrites it with the length of what it delivered
            .messageId = 0,
            .message = {.netFn = 0, .command = 0, .dataLength = awaited.capacity, .data = awaited.response},
        };
        // EMSGSIZE: the message was delivered as far as it fits, and is gone from the device.
        if (device::Ioctl(device_, kReceiveMessageTruncated, &receive) < 0 && errno != EMSGSIZE) return false;
        if (receive.type == kResponseMessage && awaited.IsAnsweredBy(receive.messageId)) {
            awaited.answeredId = static_cast<uint32_t>(receive.messageId);
            awaited.received = std::min(receive.message.dataLength, awaited.capacity);
            return true;
        }
        if (--foreignLeft <= 0) {
            errno = EBUSY;
            return false;
        }
    }
}
