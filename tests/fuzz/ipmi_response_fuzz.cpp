// Whatever a management controller answers: bytes of its registers, and messages from the IPMB behind it. The first
// byte chooses which.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "lib_driverIF/KvLibIpmi.h"
#include "tests/support/RecordingClock.h"

namespace {

/// Registers that read as the input says, one byte after the other; at its end the controller is not available (KCS) or
/// no longer moves (SMIC).
const uint8_t* g_next = nullptr;
const uint8_t* g_end = nullptr;

uint8_t ReadNext(uint16_t /*reg*/) {
    return g_next != g_end ? *g_next++ : 0x10;
}
int WriteNothing(uint16_t /*reg*/, uint8_t /*value*/) {
    return 0;
}
constexpr IpmiRegisterTable kInput = {WriteNothing, ReadNext};

void Require(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "broken: %s\n", what);
    abort();
}

/// A message to the BMC, over registers that answer what they like.
void Exchange() {
    std::vector<uint8_t> buffer(kIpmiMaxMessage);  // no byte more: the sanitizer watches its end
    buffer[0] = 0x18;
    buffer[1] = 0x01;
    uint32_t length = kIpmiMaxMessage;
    uint8_t status = 0;
    const int result = ipmi_message(buffer.data(), 2, &length, &status);
    Require(result <= 0, "result is 0 or negative");
    Require(length <= kIpmiMaxMessage, "no response is longer than a message");
}

/// A response into as little room as the first byte says.
void ReadOnce() {
    const uint32_t capacity = ReadNext(0);
    std::vector<uint8_t> response(capacity);
    uint32_t length = capacity;
    uint8_t status = 0;
    if (capacity > 0) IPMI_READ.load()(response.data(), &length, &status);
    Require(length <= kIpmiMaxMessage, "no response is longer than a message");
}

/// A Get Message response for a requester who waits.
void Bridge(const uint8_t* data, uint32_t size) {
    const std::vector<uint8_t> message(data, data + std::min(size, kIpmiMaxMessage));
    const auto received = static_cast<uint32_t>(message.size());
    std::vector<uint8_t> out(16);
    uint32_t length = 16;
    if (ipmb_create_response_data(message.data(), received, out.data(), &length) == 0) {
        Require(length == received - 7, "the response is the message without its header");
    }

    const uint8_t sequence = ipmb_reqq_push(ipmb_reqq_reserve(), {0x24, 0x01});
    ipmb_reqq_deq(message.data(), received);
    length = 16;
    const int result = ipmb_reqq_enq(sequence, out.data(), &length);
    Require(result == 0 || result == -110, "the requester has a response or none");
    Require(result != 0 || (length == received && message[6] == 0x24 && message[8] == 0x01), "it is the right one");
    Require(ipmb_seq_check() == 0, "the number is free again");
    ipmb_reqq_term();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static RecordingClock clock;
    clock.pauses.clear();
    if (size == 0) return 0;
    const uint8_t choice = data[0];
    g_next = data + 1;
    g_end = data + size;
    if (choice % 2 == 0)
        ipmi_set_function_kcs_ioport(0x0CA2);
    else
        ipmi_set_function_SMIC();
    ipmi_set_register_access(kInput);
    switch (choice / 2 % 3) {
        case 0:
            Exchange();
            break;
        case 1:
            ReadOnce();
            break;
        default:
            Bridge(g_next, static_cast<uint32_t>(size - 1));
    }
    return 0;
}
