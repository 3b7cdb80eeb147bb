/// The BMC between the system interface and the IPMB: Send Message, Get Message, the queues behind SMS_ATN.

#include <algorithm>

#include "simulator/Bmc.h"

namespace sim {
namespace {

constexpr uint8_t kIpmbChannel = 0;
constexpr size_t kFrameOverhead = 7;  // both addresses, NetFn/LUN, sequence/LUN, command, two checksums
constexpr uint8_t kFlagMessage = 0x01;
constexpr uint8_t kFlagEvent = 0x02;

/// Answer frame on the bus without the requester's address in front.
Bytes AnswerFrame(uint8_t requester, const Bytes& frame, const Response& response) {
    const uint8_t netFnLun = static_cast<uint8_t>(((frame[1] & 0xFC) + 4) | (frame[4] & 0x03));
    Bytes head{requester, netFnLun};
    Bytes body{frame[0], static_cast<uint8_t>((frame[4] & 0xFC) | (frame[1] & 0x03)), frame[5],
               response.completionCode};
    body.insert(body.end(), response.data.begin(), response.data.end());
    Bytes answer{netFnLun, Checksum(head)};
    answer.insert(answer.end(), body.begin(), body.end());
    answer.push_back(Checksum(body));
    return answer;
}

}  // namespace

Bmc::Bmc(TimerClock& clock, uint8_t address) : Controller(clock, address) {}

Controller& Bmc::AddController(uint8_t address) {
    const std::lock_guard lock(mutex_);
    auto& controller = controllers_[address];
    if (!controller) controller = std::make_unique<Controller>(clock_, address);
    return *controller;
}

Controller* Bmc::FindController(uint8_t address) {
    if (address == Address()) return this;
    const std::lock_guard lock(mutex_);
    const auto found = controllers_.find(address);
    return found == controllers_.end() ? nullptr : found->second.get();
}

std::optional<Bmc::SystemAnswer> Bmc::HandleSystemMessage(const Bytes& message) {
    const Request request{static_cast<uint8_t>(message[0] >> 2), static_cast<uint8_t>(message[0] & 3), message[1],
                          Bytes(message.begin() + 2, message.end())};
    const Response response = Execute(request);
    if (response.silent) return std::nullopt;
    SystemAnswer answer{{static_cast<uint8_t>(message[0] + 4), message[1], response.completionCode}, response.delay};
    answer.message.insert(answer.message.end(), response.data.begin(), response.data.end());
    return answer;
}

Response Bmc::Handle(const Request& request) {
    if (request.netFn != netfn::kApp) return Controller::Handle(request);
    switch (request.command) {
        case 0x2E:  // Set BMC Global Enables
            if (request.data.size() != 1) return {cc::kBadLength, {}};
            globalEnables_ = request.data[0];
            return {};
        case 0x2F:  // Get BMC Global Enables
            return {cc::kOk, {globalEnables_}};
        case 0x30:
            return ClearMessageFlags(request);
        case 0x31:
            return GetMessageFlags();
        case 0x33:
            return GetMessage();
        case 0x34:
            return SendMessage(request);
        case 0x35:
            return ReadEventBuffer();
        default:
            return Controller::Handle(request);
    }
}

bool Bmc::SmsAttention() {
    const std::lock_guard lock(mutex_);
    const uint64_t now = clock_.Now();
    return event_.has_value() ||
           std::any_of(messages_.begin(), messages_.end(), [&](const Waiting& each) { return each.readyAt <= now; });
}

bool Bmc::QueueEvent(const std::array<uint8_t, 16>& event) {
    const std::lock_guard lock(mutex_);
    if (event_) return false;
    event_ = event;
    return true;
}

void Bmc::QueueMessage(Bytes message, std::chrono::milliseconds delay) {
    const std::lock_guard lock(mutex_);
    if (messages_.size() >= queueCapacity_) return;
    messages_.push_back({clock_.Now() + static_cast<uint64_t>(delay.count()) * 1000, std::move(message)});
}

void Bmc::OnBusAnswer(std::function<void(Bytes&)> hook) {
    const std::lock_guard lock(mutex_);
    busHook_ = std::move(hook);
}

void Bmc::SetQueueCapacity(size_t capacity) {
    const std::lock_guard lock(mutex_);
    queueCapacity_ = capacity;
}

/// Data: channel, then the frame: responder, NetFn/LUN, checksum, requester, sequence/LUN, command, data, checksum.
Response Bmc::SendMessage(const Request& request) {
    if (request.data.size() < 1 + kFrameOverhead) return {cc::kBadLength, {}};
    if ((request.data[0] & 0x0F) != kIpmbChannel) return {cc::kInvalidData, {}};
    const Bytes frame(request.data.begin() + 1, request.data.end());
    Controller* target = FindController(frame[0]);
    if (target == nullptr) return {cc::kNakOnWrite, {}};
    // A frame whose checksums do not hold is acknowledged byte by byte on the bus, then dropped by its target.
    const bool sound = Checksum(frame.data(), 3) == 0 && Checksum(frame.data() + 3, frame.size() - 3) == 0;
    if (sound) AnswerOverBus(frame, *target);
    return {};
}

/// Carries the frame's command out; the answer goes to the receive message queue when the requester asked for that
/// (its LUN 2, the system's software), else it is the BMC's own affair.
void Bmc::AnswerOverBus(const Bytes& frame, Controller& target) {
    constexpr uint8_t kSystemSoftwareLun = 2;
    const Request request{static_cast<uint8_t>(frame[1] >> 2), static_cast<uint8_t>(frame[1] & 3), frame[5],
                          Bytes(frame.begin() + 6, frame.end() - 1)};
    const Response response = target.Execute(request);
    if (response.silent || (frame[4] & 3) != kSystemSoftwareLun) return;
    Bytes answer = AnswerFrame(frame[3], frame, response);
    if (busHook_) busHook_(answer);
    if (!answer.empty()) QueueMessage(std::move(answer), response.delay);
}

Response Bmc::GetMessage() {
    const uint64_t now = clock_.Now();
    const auto ready =
        std::find_if(messages_.begin(), messages_.end(), [&](const Waiting& each) { return each.readyAt <= now; });
    if (ready == messages_.end()) return {cc::kQueueEmpty, {}};
    Response response{cc::kOk, {kIpmbChannel}};
    response.data.insert(response.data.end(), ready->message.begin(), ready->message.end());
    messages_.erase(ready);
    return response;
}

Response Bmc::ReadEventBuffer() {
    if (!event_) return {cc::kQueueEmpty, {}};
    Response response{cc::kOk, Bytes(event_->begin(), event_->end())};
    event_.reset();
    return response;
}

Response Bmc::GetMessageFlags() {
    const uint64_t now = clock_.Now();
    const bool message =
        std::any_of(messages_.begin(), messages_.end(), [&](const Waiting& each) { return each.readyAt <= now; });
    return {cc::kOk, {static_cast<uint8_t>((message ? kFlagMessage : 0) | (event_ ? kFlagEvent : 0))}};
}

Response Bmc::ClearMessageFlags(const Request& request) {
    if (request.data.size() != 1) return {cc::kBadLength, {}};
    if ((request.data[0] & kFlagMessage) != 0) messages_.clear();
    if ((request.data[0] & kFlagEvent) != 0) event_.reset();
    return {};
}

}  // namespace sim
