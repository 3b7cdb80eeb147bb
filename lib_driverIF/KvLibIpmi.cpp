// The entry to the register path, its watchdog flags, its start and its end.

#include "lib_driverIF/KvLibIpmi.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <shared_mutex>
#include <string_view>

#include "common/PXR_thread_internal.h"
#include "cover/TimerCover.h"
#include "lib_driverIF/KvLibIpmi_Interface.h"
#include "lib_driverIF/KvLibIpmi_Message.h"
#include "lib_driverIF/KvLibIpmi_Queue.h"

uint8_t WatchDogRequest = 0;
uint8_t WatchDogReqReceive = 0;

namespace {

constexpr uint32_t kSwitchToSmic = 1;
constexpr uint64_t kTimeToFinish = 500'000;  // us, for a transfer that is under way when the path is stopped

struct Lifecycle {
    std::mutex change;      // Init_IpmiIF and Terminate_IpmiIF, one at a time
    std::shared_mutex use;  // shared: a call is under way; exclusive: the last one has left
};
Lifecycle g_lifecycle;
std::atomic<bool> g_initialised = false;

/// A watchdog flag and its lock.
struct NamedLock {
    const char* name;
    uint8_t& flag;
    std::atomic<bool> exists = false;
    std::mutex mutex = {};
};
NamedLock g_locks[] = {{"WDOG REQUEST", WatchDogRequest}, {"WDOG RECEIVE", WatchDogReqReceive}};
NamedLock& g_wdogRequest = g_locks[0];
NamedLock& g_wdogReceive = g_locks[1];

NamedLock* FindLock(std::string_view name) {
    for (NamedLock& lock : g_locks) {
        if (name == lock.name) return &lock;
    }
    return nullptr;
}

int ReadFlag(NamedLock& lock, void* out) {
    if (!lock.exists) return IpmiCallTrace::Report(-EFAULT, __func__);
    const std::lock_guard guard(lock.mutex);
    *static_cast<uint8_t*>(out) = lock.flag;
    return 0;
}

int WriteFlag(NamedLock& lock, const void* in) {
    if (!lock.exists) return IpmiCallTrace::Report(-EFAULT, __func__);
    const std::lock_guard guard(lock.mutex);
    lock.flag = *static_cast<const uint8_t*>(in);
    return 0;
}

// ---- The requests. The argument is not null. ----

int ExecuteMessage(void* argument) {
    KvIpmiExecBlock block = {};
    memcpy(&block, argument, sizeof block);
    const uint32_t requestLength = std::min(block.requestLength, kIpmiMaxMessage);
    const uint32_t capacity = std::min(block.responseLength, kIpmiMaxMessage);
    const bool addressMissing =
        (block.request == nullptr && requestLength > 0) || (block.response == nullptr && capacity > 0);
    if (addressMissing) return IpmiCallTrace::Report(-EFAULT, __func__);

    uint8_t message[kIpmiMaxMessage] = {};
    if (requestLength > 0) memcpy(message, block.request, requestLength);
    uint32_t length = capacity;
    uint8_t status = 0;
    const int result = block.targetAddress == IPMI_SLAVE_ADDR
                           ? ipmi_message(message, requestLength, &length, &status)
                           : ipmb_message(block.targetAddress, message, requestLength, &length, &status);
    if (result != 0) return result;

    block.status = status;
    if (status == 0) block.responseLength = length;
    memcpy(argument, &block, sizeof block);
    const uint32_t stored = status == 0 ? std::min(length, capacity) : 0;
    if (stored > 0) memcpy(block.response, message, stored);
    return 0;
}

int GetParameters(void* argument) {
    std::array<uint32_t, kParamCount> values = {};
    std::copy(ipmi_param.begin(), ipmi_param.end(), values.begin());
    static_assert(sizeof values == sizeof(KvIpmiParameterBlock));
    memcpy(argument, values.data(), sizeof values);
    return 0;
}

int SetParameters(void* argument) {
    std::array<uint32_t, kParamCount> values = {};
    memcpy(values.data(), argument, sizeof values);
    const IpmiTurn turn;
    if (!turn) return IpmiCallTrace::Report(-EPERM, __func__);
    for (size_t i = 0; i < kParamCount; ++i)
        ipmi_param[i] = std::clamp(values[i], ipmi_prmin[i], ipmi_prmax[i]);
    if (values[kParamIpmbTimeout] == kSwitchToSmic) ipmi_set_function_SMIC();
    return 0;
}

int TraceOnly(void* /*argument*/) {
    return 0;
}

int GetWatchdogRequest(void* argument) {
    return ReadFlag(g_wdogRequest, argument);
}
int SetWatchdogRequest(void* argument) {
    return WriteFlag(g_wdogRequest, argument);
}
int GetWatchdogReceived(void* argument) {
    return ReadFlag(g_wdogReceive, argument);
}
int SetWatchdogReceived(void* argument) {
    return WriteFlag(g_wdogReceive, argument);
}

int SetAddress(void* argument) {
    KvIpmiAddressBlock block = {};
    memcpy(&block, argument, sizeof block);
    const IpmiTurn turn;
    if (!turn) return IpmiCallTrace::Report(-EPERM, __func__);
    if (block.kind == KV_IPMI_ADDRESS_PORT) {
        if (block.address > 0xFFFF) return IpmiCallTrace::Report(-EINVAL, __func__);
        if (const int error = ipmi_set_function_kcs_ioport(static_cast<uint16_t>(block.address))) return error;
        ipmi_set_register_access(ioreg_func);
    } else if (block.kind == KV_IPMI_ADDRESS_MEMORY) {
        g_pMMapSegmentAddress = block.address;
        ipmi_set_register_access(memoryreg_func);
    }
    return 0;
}

struct Request {
    uint32_t code;
    const char* name;
    bool hasArgument;
    int (*action)(void* argument);
};

#define KV_REQUEST(code, hasArgument, action) \
    Request {                                 \
        code, #code, hasArgument, action      \
    }
constexpr Request kRequests[] = {
    KV_REQUEST(IPMI_EXECCMD, true, ExecuteMessage),
    KV_REQUEST(IPMI_GETPARM, true, GetParameters),
    KV_REQUEST(IPMI_SETPARM, true, SetParameters),
    KV_REQUEST(IPMI_TRACE, false, TraceOnly),
    KV_REQUEST(GET_WDOG_STATUS, true, GetWatchdogRequest),
    KV_REQUEST(SET_WDOG_STATUS, true, SetWatchdogRequest),
    KV_REQUEST(GET_RECEIVE_WDOG_REQ, true, GetWatchdogReceived),
    KV_REQUEST(SET_RECEIVE_WDOG_REQ, true, SetWatchdogReceived),
    KV_REQUEST(IPMI_SETADDR, true, SetAddress),
};
#undef KV_REQUEST

int Carry(uint32_t code, void* argument) {
    const auto* const request = std::find_if(std::begin(kRequests), std::end(kRequests),
                                             [code](const Request& candidate) { return candidate.code == code; });
    if (request == std::end(kRequests)) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "ioctl:unknown(%d)\n", static_cast<int>(code));
        return -EINVAL;
    }
    PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_DETAIL, "ioctl:call %s\n", request->name);
    if (request->hasArgument && argument == nullptr) return IpmiCallTrace::Report(-EFAULT, __func__);
    return request->action(argument);
}

// ---- Start and end ----

/// In a child process only the forking thread exists: the register path is down there, and its locks are free.
void ForgetParent() {
    g_initialised = false;
    g_ipmiStopping = false;
    new (&g_lifecycle) Lifecycle;
    for (NamedLock& lock : g_locks) {
        new (&lock.mutex) std::mutex;
        lock.exists = false;
    }
    ipmi_forget_conditions();
    ipmb_forget();
}

int CreateLocks() {
    int error = 0;
    for (const NamedLock& lock : g_locks) {
        if (error == 0) error = ipmi_create_lock(lock.name);
    }
    return error;
}

void ReleaseLocks() {
    for (const NamedLock& lock : g_locks)
        ipmi_release_lock(lock.name);
}

int Start() {
    static const int followsForks = pthread_atfork(nullptr, nullptr, ForgetParent);
    if (followsForks != 0) return IpmiCallTrace::Report(-EFAULT, __func__);
    if (const int error = ipmi_set_function()) return error;
    g_ipmiStopping = false;
    int error = CreateLocks();
    if (error == 0) error = ipmi_init_conditions();
    if (error == 0) error = ipmb_timer_start();
    if (error != 0) ReleaseLocks();
    return error;
}

}  // namespace

int ipmi_ioctl(uint32_t code, unsigned long argument) {
    // A message that stopped half-way would leave the BMC in the middle of a transfer.
    const CancelBlock wholeMessages;
    IpmiCallTrace trace(__func__);
    std::shared_lock inUse(g_lifecycle.use, std::defer_lock);
    if (g_initialised) inUse.lock();
    if (!g_initialised) {
        PXR_trace(PXR_TRACE_MASK_IPMI, PXR_TRACE_LEVEL_ERROR, "ioctl:IPMI library not initialized\n");
        return trace.Out(-EPERM);
    }
    auto* const block = reinterpret_cast<void*>(argument);  // NOLINT(performance-no-int-to-ptr): a given interface
    return trace.Out(Carry(code, block));
}

int ipmi_create_lock(const char* name) {
    IpmiCallTrace trace(__func__);
    NamedLock* const lock = FindLock(name);
    if (lock == nullptr || lock->exists.exchange(true)) return trace.Fail(-EFAULT);
    return trace.Out(0);
}

void ipmi_release_lock(const char* name) {
    const IpmiCallTrace trace(__func__);
    if (NamedLock* const lock = FindLock(name); lock != nullptr) lock->exists = false;
}

int Init_IpmiIF() {
    const CancelBlock whole;
    IpmiCallTrace trace(__func__);
    const std::lock_guard change(g_lifecycle.change);
    if (g_initialised) return trace.Out(0);
    const int error = Start();
    g_initialised = error == 0;
    return trace.Out(error);
}

bool IsIpmiIFUp() {
    return g_initialised;
}

void Terminate_IpmiIF() {
    const CancelBlock whole;
    const IpmiCallTrace trace(__func__);
    const std::lock_guard change(g_lifecycle.change);
    if (!g_initialised) return;
    g_initialised = false;
    g_ipmiGiveUpAt = Clock().Now() + kTimeToFinish;
    g_ipmiStopping = true;
    ipmi_wake_conditions();
    ipmb_timer_stop();
    ipmb_reqq_wake();
    { const std::unique_lock everyoneLeft(g_lifecycle.use); }
    ReleaseLocks();
    ipmi_destroy_conditions();
    ipmb_reqq_term();
    g_ipmiStopping = false;
}
