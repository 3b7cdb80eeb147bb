// One message on the system interface, one at a time.

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "lib_driverIF/KvLibIpmi_Message.h"

namespace {

constexpr uint32_t kKcsMessageAttempts = 3;

/// Who waits for a turn waits here. Turns are numbered: who gives his back and asks again at once would otherwise have
/// it before a sleeper wakes, and requesters that are always busy would keep the timer thread from the registers.
struct TurnState {
    std::mutex mutex;
    std::condition_variable moved;
    // Guarded by mutex.
    uint64_t next = 0;     // the number of the next who asks
    uint64_t serving = 0;  // whose turn it is, or will be when he asks
};
TurnState& ioctllock_cond = *new TurnState;  // never destroyed: threads may wait when the process ends

/// Those who gave up waiting have left numbers behind; nobody asks or waits.
void NumberAnew() {
    const std::lock_guard lock(ioctllock_cond.mutex);
    ioctllock_cond.next = ioctllock_cond.serving = 0;
}

void TraceBytes(const char* what, const uint8_t* bytes, uint32_t length) {
    char title[64];
    snprintf(title, sizeof title, "IPMI %s:size=%d\n", what, static_cast<int>(length));
    PXR_mem_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, title, bytes, static_cast<int>(length));
}

/// A requester that was stopped in the middle leaves its response behind; the BMC takes no request before it is read.
void DiscardPendingResponse() {
    uint8_t scratch[kIpmiMaxMessage];
    uint32_t length = sizeof scratch;
    uint8_t status = 0;
    const int result = IPMI_READ.load()(scratch, &length, &status);
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "Dummy read execute: re=%d\n", result);
}

/// What became of one attempt.
struct Outcome {
    int result;
    bool final;
};

Outcome Attempt(uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status) {
    if (IPMI_ISREAD_STATE.load()() != 0) DiscardPendingResponse();
    *status = 0;
    const int written = IPMI_WRITE.load()(buffer, length, status);
    if (written != 0 || *status != 0) return {written, true};
    const int read = IPMI_READ.load()(buffer, responseLength, status);
    return {read, read == 0 && *status == 0};
}

/// The caller has the turn.
int Exchange(uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status) {
    uint8_t request[kIpmiMaxMessage];
    memcpy(request, buffer, length);
    const uint32_t capacity = *responseLength;
    const uint32_t attempts =
        IPMI_IFTYPE == kIfTypeSmic ? ipmi_param[kParamSmicMessageAttempts].load() : kKcsMessageAttempts;

    Outcome outcome = {};
    for (uint32_t attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0) memcpy(buffer, request, length);
        *responseLength = capacity;
        outcome = Attempt(buffer, length, responseLength, status);
        if (outcome.final || g_ipmiStopping) break;
    }
    return outcome.result;
}

}  // namespace

IpmiTurn::IpmiTurn() {
    std::unique_lock lock(ioctllock_cond.mutex);
    const uint64_t mine = ioctllock_cond.next++;
    ioctllock_cond.moved.wait(lock, [mine] { return ioctllock_cond.serving == mine || g_ipmiStopping; });
    taken_ = ioctllock_cond.serving == mine && !g_ipmiStopping;
}

IpmiTurn::~IpmiTurn() {
    if (!taken_) return;
    const std::lock_guard lock(ioctllock_cond.mutex);
    ++ioctllock_cond.serving;
    ioctllock_cond.moved.notify_all();
}

int ipmi_message(uint8_t* buffer, uint32_t length, uint32_t* responseLength, uint8_t* status) {
    IpmiCallTrace trace(__func__);
    if (buffer == nullptr || responseLength == nullptr || status == nullptr || length > kIpmiMaxMessage) {
        return trace.Fail(-EFAULT);
    }
    const IpmiTurn turn;
    if (!turn) return trace.Fail(-EPERM);
    // The read would refuse it, after the request has been carried out.
    if (IPMI_IFTYPE == kIfTypeKcs && *responseLength == 0) return trace.Fail(-EFAULT);

    TraceBytes("request", buffer, length);
    const uint32_t capacity = *responseLength;
    const int result = Exchange(buffer, length, responseLength, status);
    if (result != 0) return trace.Out(result);
    if (*status == 0) TraceBytes("response", buffer, std::min(*responseLength, capacity));
    return trace.Out(0);
}

int ipmi_init_conditions() {
    const IpmiCallTrace trace(__func__);
    NumberAnew();
    return 0;
}

void ipmi_destroy_conditions() {
    const IpmiCallTrace trace(__func__);
    NumberAnew();
}

void ipmi_wake_conditions() {
    const std::lock_guard lock(ioctllock_cond.mutex);
    ioctllock_cond.moved.notify_all();
}

void ipmi_forget_conditions() {
    new (&ioctllock_cond) TurnState;
}
