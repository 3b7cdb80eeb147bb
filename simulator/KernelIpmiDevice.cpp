// "/dev/ipmi0" as the kernel offers it.

#include "simulator/KernelIpmiDevice.h"

#include <linux/ipmi.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

namespace sim {
namespace {

static_assert(sizeof(void*) != 4 || (sizeof(ipmi_msg) == 8 && sizeof(ipmi_req) == 20 && sizeof(ipmi_recv) == 24));
static_assert(sizeof(void*) != 4 ||
              (IPMICTL_SEND_COMMAND == kIpmiSendCommand && IPMICTL_RECEIVE_MSG_TRUNC == kIpmiReceiveTrunc &&
               IPMICTL_RECEIVE_MSG == kIpmiReceive && IPMICTL_SET_GETS_EVENTS_CMD == kIpmiSetGetsEvents));

constexpr size_t kLongestMessage = 272;  // what the kernel's driver carries to a controller
constexpr uint8_t kResponseNetFn = 1;    // bit 0 of a network function
constexpr int kLongestWaitMs = 3'600'000;

int Failed(int error) {
    errno = error;
    return -1;
}

/// Checks an address as the kernel does. @param slave 0 for the system interface @return 0 or an errno value
int CheckAddress(const ipmi_req& request, uint8_t& slave, uint8_t& lun) {
    if (request.addr == nullptr) return EFAULT;
    if (request.addr_len > sizeof(ipmi_addr) || request.addr_len < sizeof(ipmi_system_interface_addr)) return EINVAL;
    ipmi_addr address{};
    std::memcpy(&address, request.addr, request.addr_len);
    if (address.addr_type == IPMI_SYSTEM_INTERFACE_ADDR_TYPE) {
        if (address.channel != IPMI_BMC_CHANNEL) return EINVAL;
        slave = 0;
        lun = static_cast<uint8_t>(address.data[0]);
    } else if (address.addr_type == IPMI_IPMB_ADDR_TYPE) {
        if (address.channel != 0) return EINVAL;
        slave = static_cast<uint8_t>(address.data[0]);
        lun = static_cast<uint8_t>(address.data[1]);
    } else {
        return EINVAL;
    }
    return lun > 3 ? EINVAL : 0;
}

/// Commands that the driver keeps for itself on the system interface, besides every response.
bool IsKeptByDriver(uint8_t netFn, uint8_t command) {
    return (netFn & kResponseNetFn) != 0 || (netFn == netfn::kApp && command >= 0x33 && command <= 0x35);
}

void PutAddress(ipmi_recv& receive, const KernelMessage& message) {
    if (message.slave == 0) {
        ipmi_system_interface_addr address{};
        address.addr_type = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
        address.channel = IPMI_BMC_CHANNEL;
        std::memcpy(receive.addr, &address, sizeof(address));
    } else {
        ipmi_ipmb_addr address{};
        address.addr_type = IPMI_IPMB_ADDR_TYPE;
        address.slave_addr = message.slave;
        std::memcpy(receive.addr, &address, sizeof(address));
    }
    static_assert(sizeof(ipmi_system_interface_addr) == sizeof(ipmi_ipmb_addr));
    receive.addr_len = sizeof(ipmi_system_interface_addr);
}

KernelMessage EventMessage(const std::array<uint8_t, 16>& event) {
    constexpr uint8_t kReadEventBuffer = 0x35;
    return {IPMI_ASYNC_EVENT_RECV_TYPE, 0, netfn::kApp | kResponseNetFn, kReadEventBuffer,
            Bytes(event.begin(), event.end())};
}

}  // namespace

KernelIpmiDevice::KernelIpmiDevice(TimerClock& clock, Bmc& bmc) : clock_(clock), bmc_(bmc) {}

void KernelIpmiDevice::Open(int fd) {
    const std::lock_guard lock(mutex_);
    openings_[fd].opener = std::this_thread::get_id();
    marker_->Begin();
}

void KernelIpmiDevice::Close(int fd) {
    const std::lock_guard lock(mutex_);
    if (openings_.erase(fd) > 0) marker_->End();
}

int KernelIpmiDevice::Ioctl(int fd, unsigned long request, void* argument) {
    {
        const std::lock_guard lock(mutex_);
        Opening* opening = Find(fd);
        if (opening == nullptr) return Failed(EBADF);
        if (const int error = InjectedError(request)) return Failed(error);
        // A conversation belongs to the thread that opened the device for it.
        if (opening->opener != std::this_thread::get_id()) marker_->NoteOverlap();
    }
    if (argument == nullptr) return Failed(EFAULT);
    switch (request) {
        case kIpmiSendCommand:
            return Send(fd, argument);
        case kIpmiReceiveTrunc:
            return Receive(fd, argument, true);
        case kIpmiReceive:
            return Receive(fd, argument, false);
        case kIpmiSetGetsEvents:
            return SetGetsEvents(fd, argument);
        default:
            return Failed(ENOTTY);
    }
}

int KernelIpmiDevice::Send(int fd, void* argument) {
    ipmi_req request{};
    std::memcpy(&request, argument, sizeof(request));
    uint8_t slave = 0;
    Request message;
    if (const int error = CheckAddress(request, slave, message.lun)) return Failed(error);
    if (request.msg.data_len > kLongestMessage - 2) return Failed(EMSGSIZE);
    if (request.msg.data_len > 0 && request.msg.data == nullptr) return Failed(EFAULT);
    if (IsKeptByDriver(request.msg.netfn, request.msg.cmd)) return Failed(EINVAL);
    message.netFn = request.msg.netfn;
    message.command = request.msg.cmd;
    message.data.assign(request.msg.data, request.msg.data + request.msg.data_len);

    Controller* target = slave == 0 ? &bmc_ : bmc_.FindController(slave);
    const Response response = target == nullptr ? Response{cc::kNakOnWrite, {}} : target->Execute(message);
    KernelMessage answer{
        IPMI_RESPONSE_RECV_TYPE,   request.msgid, static_cast<uint8_t>(message.netFn | kResponseNetFn), message.command,
        {response.completionCode}, slave};
    answer.data.insert(answer.data.end(), response.data.begin(), response.data.end());

    const std::lock_guard lock(mutex_);
    for (KernelMessage& before : beforeNextAnswer_)
        Enqueue(fd, std::move(before), clock_.Now());
    beforeNextAnswer_.clear();
    const uint64_t doneAt = DoneAt(response.delay);
    if (!response.silent) Enqueue(fd, std::move(answer), doneAt);
    return 0;
}

int KernelIpmiDevice::Receive(int fd, void* argument, bool truncate) {
    ipmi_recv receive{};
    std::memcpy(&receive, argument, sizeof(receive));
    const uint64_t now = clock_.Now();
    const std::lock_guard lock(mutex_);
    Opening* opening = Find(fd);
    if (opening == nullptr) return Failed(EBADF);
    const auto earliest = Earliest(opening->queue);
    if (earliest == opening->queue.end() || earliest->readyAt > now) return Failed(EAGAIN);
    const KernelMessage& message = earliest->message;
    if (receive.addr_len < sizeof(ipmi_system_interface_addr)) return Failed(EINVAL);
    if (receive.addr == nullptr || (receive.msg.data == nullptr && receive.msg.data_len > 0)) return Failed(EFAULT);
    const bool tooLong = message.data.size() > receive.msg.data_len;
    if (tooLong && !truncate) return Failed(EMSGSIZE);

    PutAddress(receive, message);
    receive.recv_type = message.receiveType;
    receive.msgid = message.id;
    receive.msg.netfn = message.netFn;
    receive.msg.cmd = message.command;
    const size_t given = std::min<size_t>(message.data.size(), receive.msg.data_len);
    std::copy_n(message.data.begin(), given, receive.msg.data);
    receive.msg.data_len = static_cast<unsigned short>(given);
    std::memcpy(argument, &receive, sizeof(receive));
    opening->queue.erase(earliest);
    // What did not fit is gone, and the call says so although it delivered the message.
    return tooLong ? Failed(EMSGSIZE) : 0;
}

int KernelIpmiDevice::SetGetsEvents(int fd, void* argument) {
    int wanted = 0;
    std::memcpy(&wanted, argument, sizeof(wanted));
    const std::lock_guard lock(mutex_);
    Opening* opening = Find(fd);
    if (opening == nullptr) return Failed(EBADF);
    opening->getsEvents = wanted != 0;
    if (!opening->getsEvents) return 0;
    for (KernelMessage& event : pendingEvents_)
        Enqueue(fd, std::move(event), clock_.Now());
    pendingEvents_.clear();
    return 0;
}

int KernelIpmiDevice::WaitReadable(int fd, int timeoutMs) {
    const auto limit = static_cast<uint64_t>(timeoutMs < 0 ? kLongestWaitMs : timeoutMs) * 1000;
    const uint64_t deadline = clock_.Now() + limit;
    for (;;) {
        const uint64_t now = clock_.Now();
        uint64_t wakeAt = deadline;
        {
            const std::lock_guard lock(mutex_);
            Opening* opening = Find(fd);
            if (opening == nullptr) return Failed(EBADF);
            if (!pollSupported_) return Failed(EINVAL);
            const auto earliest = Earliest(opening->queue);
            if (earliest != opening->queue.end()) {
                if (earliest->readyAt <= now) return 1;
                wakeAt = std::min(wakeAt, earliest->readyAt);
            }
        }
        if (now >= deadline) return 0;
        clock_.SleepFor(wakeAt - now);
    }
}

void KernelIpmiDevice::PutBeforeNextAnswer(KernelMessage message) {
    const std::lock_guard lock(mutex_);
    beforeNextAnswer_.push_back(std::move(message));
}

void KernelIpmiDevice::DeliverEvent(const std::array<uint8_t, 16>& event) {
    const std::lock_guard lock(mutex_);
    bool delivered = false;
    for (auto& [fd, opening] : openings_) {
        if (!opening.getsEvents) continue;
        Enqueue(fd, EventMessage(event), clock_.Now());
        delivered = true;
    }
    if (!delivered) pendingEvents_.push_back(EventMessage(event));
}

void KernelIpmiDevice::FailIoctl(unsigned long request, int error, unsigned times, unsigned after) {
    const std::lock_guard lock(mutex_);
    faults_[request] = {error, times, after};
}

void KernelIpmiDevice::SetServiceTime(std::chrono::milliseconds each) {
    const std::lock_guard lock(mutex_);
    serviceTime_ = each;
}

void KernelIpmiDevice::SetPollSupported(bool supported) {
    const std::lock_guard lock(mutex_);
    pollSupported_ = supported;
}

void KernelIpmiDevice::SetMarker(ConversationMarker* marker) {
    const std::lock_guard lock(mutex_);
    marker_ = marker == nullptr ? &ownMarker_ : marker;
}

ConversationMarker& KernelIpmiDevice::Marker() {
    const std::lock_guard lock(mutex_);
    return *marker_;
}

size_t KernelIpmiDevice::Queued(int fd) {
    const std::lock_guard lock(mutex_);
    const Opening* opening = Find(fd);
    return opening == nullptr ? 0 : opening->queue.size();
}

int KernelIpmiDevice::InjectedError(unsigned long request) {
    const auto found = faults_.find(request);
    if (found == faults_.end() || found->second.times == 0) return 0;
    if (found->second.after > 0) {
        --found->second.after;
        return 0;
    }
    --found->second.times;
    return found->second.error;
}

KernelIpmiDevice::Opening* KernelIpmiDevice::Find(int fd) {
    const auto found = openings_.find(fd);
    return found == openings_.end() ? nullptr : &found->second;
}

std::deque<KernelIpmiDevice::Entry>::iterator KernelIpmiDevice::Earliest(std::deque<Entry>& queue) {
    return std::min_element(queue.begin(), queue.end(),
                            [](const Entry& a, const Entry& b) { return a.readyAt < b.readyAt; });
}

/// When the command sent now will have been carried out; with mutex_ held.
uint64_t KernelIpmiDevice::DoneAt(std::chrono::milliseconds delay) {
    const auto microseconds = static_cast<uint64_t>((serviceTime_ + delay).count()) * 1000;
    if (serviceTime_.count() == 0) return clock_.Now() + microseconds;
    return busyUntil_ = std::max(busyUntil_, clock_.Now()) + microseconds;
}

/// With mutex_ held. An opening that was closed meanwhile loses its answers.
void KernelIpmiDevice::Enqueue(int fd, KernelMessage message, uint64_t readyAt) {
    if (Opening* opening = Find(fd)) opening->queue.push_back({readyAt, std::move(message)});
}

}  // namespace sim
