#include "simulator/Bmc.h"

#include <numeric>
#include <utility>

namespace sim {
namespace {

uint16_t Key(uint8_t netFn, uint8_t command) {
    return static_cast<uint16_t>(netFn << 8 | command);
}

/// Wraps a fault so that it strikes `times` times after `after` good answers.
template <class Fault>
Controller::CommandHook Limited(unsigned times, unsigned after, Fault fault) {
    return [times, after, fault](const Request&, const Controller::Answer& answer) mutable {
        if (after > 0) {
            --after;
            return answer();
        }
        if (times == 0) return answer();
        --times;
        return fault(answer);
    };
}

}  // namespace

uint8_t Checksum(const uint8_t* bytes, size_t count) {
    return static_cast<uint8_t>(-std::accumulate(bytes, bytes + count, 0));
}

uint8_t Checksum(const Bytes& bytes) {
    return Checksum(bytes.data(), bytes.size());
}

Controller::Controller(TimerClock& clock, uint8_t address)
    : clock_(clock), address_(address), sel_([&clock] { return clock.Now(); }) {}

Response Controller::Execute(const Request& request) {
    const std::lock_guard lock(mutex_);
    Note(request);
    const auto found = hooks_.find(Key(request.netFn, request.command));
    if (found == hooks_.end()) return Handle(request);
    const std::shared_ptr<CommandHook> hook = found->second;  // it may take itself away
    return (*hook)(request, [&] { return Handle(request); });
}

Response Controller::Handle(const Request& request) {
    switch (request.netFn) {
        case netfn::kSensorEvent:
            return HandleSensorEvent(request);
        case netfn::kApp:
            return HandleApp(request);
        case netfn::kStorage:
            return HandleStorage(request);
        case netfn::kTransport:
            return HandleTransport(request);
        case netfn::kOem:
        case netfn::kOemIntel:
            return HandleOem(request);
        default:
            return {cc::kInvalidCommand, {}};
    }
}

void Controller::Note(const Request& request) {
    ++counts_[Key(request.netFn, request.command)];
    log_.push_back(request);
    if (log_.size() > kLogLength) log_.pop_front();
}

void Controller::OnCommand(uint8_t netFn, uint8_t command, CommandHook hook) {
    const std::lock_guard lock(mutex_);
    if (hook)
        hooks_[Key(netFn, command)] = std::make_shared<CommandHook>(std::move(hook));
    else
        hooks_.erase(Key(netFn, command));
}

void Controller::Refuse(uint8_t netFn, uint8_t command, uint8_t completionCode, unsigned times, unsigned after) {
    OnCommand(netFn, command, Limited(times, after, [completionCode](const Answer&) {
                  return Response{completionCode, {}};
              }));
}

void Controller::Silence(uint8_t netFn, uint8_t command, unsigned times, unsigned after) {
    OnCommand(netFn, command, Limited(times, after, [](const Answer&) { return Response{0, {}, true}; }));
}

void Controller::Delay(uint8_t netFn, uint8_t command, std::chrono::milliseconds delay, unsigned times,
                       unsigned after) {
    OnCommand(netFn, command, Limited(times, after, [delay](const Answer& answer) {
                  Response late = answer();
                  late.delay = delay;
                  return late;
              }));
}

size_t Controller::Count(uint8_t netFn, uint8_t command) const {
    const std::lock_guard lock(mutex_);
    const auto found = counts_.find(Key(netFn, command));
    return found == counts_.end() ? 0 : found->second;
}

size_t Controller::Count() const {
    const std::lock_guard lock(mutex_);
    size_t sum = 0;
    for (const auto& [key, count] : counts_)
        sum += count;
    return sum;
}

std::vector<Request> Controller::Log() const {
    const std::lock_guard lock(mutex_);
    return {log_.begin(), log_.end()};
}

void Controller::ResetCounts() {
    const std::lock_guard lock(mutex_);
    counts_.clear();
    log_.clear();
}

}  // namespace sim
