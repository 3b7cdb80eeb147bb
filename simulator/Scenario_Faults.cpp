/// Faults of a scenario. One fault stands in front of a command; a later one takes its place.

#include "simulator/Scenario.h"
#include "simulator/SimulatedServer.h"

namespace sim::scenario {
namespace {

/// What most faults are told: where they strike, how often, and after how many good answers.
struct Target {
    uint8_t netFn = 0, command = 0, address = kBmcAddress;
    unsigned times = 1, after = 0;
};

Target ReadTarget(ScenarioNode& node) {
    Target target;
    node.Need("netFn", target.netFn);
    node.Need("command", target.command);
    node.Take("address", target.address);
    node.Take("times", target.times);
    node.Take("after", target.after);
    return target;
}

Controller& At(SimulatedServer& server, ScenarioNode& node, const Target& target) {
    Controller* controller = server.GetBmc().FindController(target.address);
    if (controller == nullptr) node.Fail("nobody has address " + std::to_string(target.address));
    return *controller;
}

void Busy(SimulatedServer& server, ScenarioNode& node) {
    const Target target = ReadTarget(node);
    At(server, node, target).Refuse(target.netFn, target.command, cc::kNodeBusy, target.times, target.after);
}

void Refuse(SimulatedServer& server, ScenarioNode& node) {
    const Target target = ReadTarget(node);
    uint8_t code = 0;
    node.Need("code", code);
    At(server, node, target).Refuse(target.netFn, target.command, code, target.times, target.after);
}

void Silent(SimulatedServer& server, ScenarioNode& node) {
    const Target target = ReadTarget(node);
    At(server, node, target).Silence(target.netFn, target.command, target.times, target.after);
}

void Late(SimulatedServer& server, ScenarioNode& node) {
    const Target target = ReadTarget(node);
    uint32_t ms = 0;
    node.Need("ms", ms);
    At(server, node, target)
        .Delay(target.netFn, target.command, std::chrono::milliseconds(ms), target.times, target.after);
}

/// An answer of another length than it should have, padded with 0xA5.
void Length(SimulatedServer& server, ScenarioNode& node) {
    const Target target = ReadTarget(node);
    size_t bytes = 0;
    node.Need("bytes", bytes);
    if (bytes > 0x10000) node.Fail("65,536 bytes are the most");
    At(server, node, target)
        .OnCommand(target.netFn, target.command,
                   [target, bytes, seen = 0U](const Request&, const Controller::Answer& answer) mutable {
                       Response response = answer();
                       const unsigned number = seen++;
                       if (number >= target.after && number - target.after < target.times)
                           response.data.resize(bytes, 0xA5);
                       return response;
                   });
}

void CancelReservation(SimulatedServer& server, ScenarioNode& node) {
    uint8_t netFn = netfn::kStorage, command = 0x23;
    unsigned at = 1;
    node.Take("netFn", netFn);
    node.Take("command", command);
    node.Take("at", at);
    server.CancelReservationAt(netFn, command, at);
}

template <class Damage>
void DamageBusAnswers(SimulatedServer& server, ScenarioNode& node, Damage damage) {
    unsigned times = 1;
    node.Take("times", times);
    server.GetBmc().OnBusAnswer([times, damage](Bytes& message) mutable {
        if (times == 0) return;
        --times;
        damage(message);
    });
}

void BadChecksum(SimulatedServer& server, ScenarioNode& node) {
    DamageBusAnswers(server, node, [](Bytes& message) { message[1] ^= 0x5A; });
}

/// The answer claims a sequence number that is not the asker's.
void UnknownSequence(SimulatedServer& server, ScenarioNode& node) {
    DamageBusAnswers(server, node, [](Bytes& message) { message[3] ^= 0x80; });
}

void OpenError(SimulatedServer& server, ScenarioNode& node) {
    std::string device = "/dev/ipmi0";
    uint16_t error = 0;
    unsigned times = 1;
    node.Take("device", device);
    node.Need("errno", error);
    node.Take("times", times);
    server.FailOpen(device, error, times);
}

void IoctlError(SimulatedServer& server, ScenarioNode& node) {
    constexpr std::pair<std::string_view, uint64_t> kRequests[] = {{"send", kIpmiSendCommand},
                                                                   {"receive", kIpmiReceiveTrunc}};
    unsigned long request = kIpmiSendCommand;
    uint16_t error = 0;
    unsigned times = 1, after = 0;
    node.TakeNamed("request", kRequests, request);
    node.Need("errno", error);
    node.Take("times", times);
    node.Take("after", after);
    server.Kernel().FailIoctl(request, error, times, after);
}

void NotAvailable(SimulatedServer& server, ScenarioNode&) {
    server.Kcs().SetNotAvailable(true);
}

void WrongState(SimulatedServer& server, ScenarioNode& node) {
    unsigned byte = 1;
    bool every = false;
    node.Take("byte", byte);
    node.Take("every", every);
    if (every)
        server.Kcs().FailEveryByte(byte);
    else
        server.Kcs().FailAtByte(byte);
    server.Smic().FailAtControl(byte);
}

void Hung(SimulatedServer& server, ScenarioNode&) {
    server.Kcs().SetHung(true);
    server.Smic().SetHung(true);
}

constexpr struct {
    std::string_view kind;
    void (*apply)(SimulatedServer& server, ScenarioNode& node);
} kFaults[] = {
    {"busy", Busy},
    {"refuse", Refuse},
    {"silent", Silent},
    {"late", Late},
    {"length", Length},
    {"cancelReservation", CancelReservation},
    {"badChecksum", BadChecksum},
    {"unknownSequence", UnknownSequence},
    {"openError", OpenError},
    {"ioctlError", IoctlError},
    {"notAvailable", NotAvailable},
    {"wrongState", WrongState},
    {"hung", Hung},
};

}  // namespace

void ApplyFault(SimulatedServer& server, ScenarioNode node) {
    std::string kind;
    node.Need("kind", kind);
    for (const auto& each : kFaults) {
        if (each.kind != kind) continue;
        each.apply(server, node);
        node.Done();
        return;
    }
    node.Fail("\"" + kind + "\" is no kind of fault");
}

}  // namespace sim::scenario
