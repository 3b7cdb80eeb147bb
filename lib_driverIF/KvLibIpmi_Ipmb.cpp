// Bridging: a request for a controller behind the BMC travels inside a Send Message request; its response comes back in
// a Get Message response, which the timer thread fetches.
//
// On the bus a message has a header of two addressed bytes with their checksum, and a body with its own. The BMC puts
// the responder's half of the header in front and takes the requester's off:
//
//   Send Message  18 34 channel | target NetFn/LUN sum | own-address seq/LUN command data... sum
//   Get Message   1C 33 cc channel | NetFn/LUN sum | responder seq/LUN command cc data... sum

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib_driverIF/KvLibIpmi_Message.h"
#include "lib_driverIF/KvLibIpmi_Queue.h"

namespace {

constexpr uint8_t kNetFnAppRequest = 0x18;  // network function App, LUN 0, as in the first byte of a request
constexpr uint8_t kNetFnAppResponse = 0x1C;
constexpr uint8_t kNetFnMask = 0xFC;
constexpr uint8_t kLunMask = 0x03;
constexpr uint8_t kResponseBit = 0x04;
constexpr uint8_t kCommandSendMessage = 0x34;
constexpr uint8_t kChannelIpmb = 0x00;
constexpr uint8_t kRequesterLun = 0x02;  // the BMC keeps responses to it for the system software

constexpr uint32_t kShortestRequest = 2;   // NetFn/LUN, command
constexpr uint32_t kShortestResponse = 3;  // and completion code
constexpr uint32_t kBridgeOverhead = 8;

/// Makes the bytes and their checksum sum to 0.
uint8_t Checksum(const uint8_t* bytes, uint32_t count) {
    uint8_t sum = 0;
    for (uint32_t i = 0; i < count; ++i)
        sum = static_cast<uint8_t>(sum + bytes[i]);
    return static_cast<uint8_t>(-sum);
}

/// A requester's place in the queue, taken before the request is sent: the answer may be there before Send Message has
/// returned.
class Place {
public:
    explicit Place(IpmbRequestEntry* entry) : entry_(entry) {}
    ~Place() {
        if (entry_ != nullptr) ipmb_reqq_cancel(entry_);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    /// The wait takes over.
    void Hand() { entry_ = nullptr; }

private:
    IpmbRequestEntry* entry_;
};

/// The BMC would not pass the request on; its completion code stands for the target's.
int AnswerWithCode(uint8_t completionCode, uint8_t* buffer, uint32_t* responseLength) {
    if (*responseLength < kShortestResponse) return -ENOBUFS;
    buffer[0] = static_cast<uint8_t>(buffer[0] | kResponseBit);
    buffer[2] = completionCode;
    *responseLength = kShortestResponse;
    return 0;
}

int ReceiveBridged(uint8_t sequence, uint8_t* buffer, uint32_t* responseLength) {
    uint8_t message[kIpmiMaxMessage];
    uint32_t received = sizeof message;
    if (const int error = ipmb_reqq_enq(sequence, message, &received)) return error;
    if (received > sizeof message) return -ENOBUFS;
    return ipmb_create_response_data(message, received, buffer, responseLength);
}

}  // namespace

int ipmb_create_send_message(uint8_t target, uint8_t sequence, const uint8_t* request, uint32_t length, uint8_t* out,
                             uint32_t capacity, uint32_t* outLength) {
    IpmiCallTrace trace(__func__);
    if (length < kShortestRequest || length > kIpmiMaxMessage) return trace.Fail(-EFAULT);
    if (length + kBridgeOverhead > capacity) return trace.Fail(-ENOBUFS);

    out[0] = kNetFnAppRequest;
    out[1] = kCommandSendMessage;
    out[2] = kChannelIpmb;
    out[3] = target;
    out[4] = request[0];
    out[5] = Checksum(out + 3, 2);
    out[6] = IPMI_SLAVE_ADDR;
    out[7] = static_cast<uint8_t>(sequence | kRequesterLun);
    memcpy(out + 8, request + 1, length - 1);
    out[length + 7] = Checksum(out + 6, length + 1);
    *outLength = length + kBridgeOverhead;
    return trace.Out(0);
}

int ipmb_create_response_data(const uint8_t* message, uint32_t received, uint8_t* out, uint32_t* length) {
    IpmiCallTrace trace(__func__);
    if (received < kBridgeOverhead) return trace.Fail(-EBADMSG);
    const auto headerSum = static_cast<uint8_t>(IPMI_SLAVE_ADDR + message[4] + message[5]);
    if ((message[0] & kNetFnMask) != kNetFnAppResponse || headerSum != 0) return trace.Fail(-EBADMSG);

    const uint32_t capacity = *length;
    *length = received + 1 - kBridgeOverhead;  // the checksum at the end stays on
    if (capacity == 0) return trace.Out(0);
    out[0] = static_cast<uint8_t>((message[4] & kNetFnMask) | (message[7] & kLunMask));
    memcpy(out + 1, message + 8, std::min(*length, capacity) - 1);
    return trace.Out(0);
}

int ipmb_message(uint8_t target, uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    IpmbRequestEntry* const entry = ipmb_reqq_reserve();
    if (entry == nullptr) return trace.Fail(-ENOMEM);

    const uint8_t sequence = ipmb_reqq_push(entry, {.target = target, .command = buffer[1]});
    if (sequence == kIpmbNoSequence) {
        ipmb_reqq_release(entry);
        return trace.Fail(-EBUSY);
    }
    Place place(entry);

    uint8_t message[kIpmiMaxMessage];
    uint32_t messageLength = 0;
    int error = ipmb_create_send_message(target, sequence, buffer, length, message, sizeof message, &messageLength);
    if (error != 0) return trace.Out(error);
    uint32_t sentLength = sizeof message;
    error = ipmi_message(message, messageLength, &sentLength, status);
    if (error != 0 || *status != 0) return trace.Out(error);
    if (sentLength < kShortestResponse) return trace.Fail(-EBADMSG);
    if (const uint8_t completionCode = message[2]; completionCode != 0) {
        error = AnswerWithCode(completionCode, buffer, responseLength);
        return error == 0 ? trace.Out(0) : trace.Fail(error);
    }
    place.Hand();
    return trace.Out(ReceiveBridged(sequence, buffer, responseLength));
}
