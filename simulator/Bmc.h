#pragma once
/// @file
/// Management controllers at message level: one request in, one answer out. The BMC is the controller that the server's
/// system interface leads to; others sit behind it on the IPMB.

#include <array>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "cover/TimerCover.h"
#include "simulator/BmcMessage.h"
#include "simulator/BmcStores.h"
#include "simulator/EventLog.h"
#include "simulator/FruStore.h"
#include "simulator/SdrRepository.h"

namespace sim {

/// Access to a part of a controller while its lock is held: bmc.Sel()->Add(entry).
template <class Part>
class Locked {
public:
    Locked(std::recursive_mutex& mutex, Part& part) : lock_(mutex), part_(part) {}
    Part* operator->() const { return &part_; }
    Part& operator*() const { return part_; }

private:
    std::unique_lock<std::recursive_mutex> lock_;
    Part& part_;
};

/// One management controller. Thread-safe: it carries out one request at a time.
class Controller {
public:
    /// Carries the command out as if nothing were wrong.
    using Answer = std::function<Response()>;
    /// Stands in front of a command: gives its own response, or answer(), or answer() changed. Called with the
    /// controller's lock held; it may reach into the controller.
    using CommandHook = std::function<Response(const Request& request, const Answer& answer)>;

    /// @param clock  must live as long as the controller
    explicit Controller(TimerClock& clock, uint8_t address = kBmcAddress);
    virtual ~Controller() = default;
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    uint8_t Address() const { return address_; }

    Response Execute(const Request& request);

    Locked<DeviceId> Identity() { return {mutex_, identity_}; }
    Locked<SdrRepository> Sdr() { return {mutex_, sdr_}; }
    Locked<EventLog> Sel() { return {mutex_, sel_}; }
    Locked<FruStore> Fru() { return {mutex_, fru_}; }
    Locked<SensorBank> Sensors() { return {mutex_, sensors_}; }
    Locked<WatchdogTimer> Watchdog() { return {mutex_, watchdog_}; }
    Locked<LanChannels> Lan() { return {mutex_, lan_}; }
    Locked<OemData> Oem() { return {mutex_, oem_}; }

    /// Puts a hook in front of one command, in place of an earlier one; an empty function takes it away.
    void OnCommand(uint8_t netFn, uint8_t command, CommandHook hook);
    /// Answers with the completion code instead of carrying the command out.
    /// @param times  how often; @param after  so many requests are carried out first
    void Refuse(uint8_t netFn, uint8_t command, uint8_t completionCode, unsigned times = 1, unsigned after = 0);
    /// Does not answer at all.
    void Silence(uint8_t netFn, uint8_t command, unsigned times = 1, unsigned after = 0);
    /// Carries the command out and lets the answer come late.
    void Delay(uint8_t netFn, uint8_t command, std::chrono::milliseconds delay, unsigned times = 1, unsigned after = 0);

    /// Requests seen so far, refused and silent ones included.
    size_t Count(uint8_t netFn, uint8_t command) const;
    size_t Count() const;
    /// The latest requests, at most kLogLength, oldest first.
    static constexpr size_t kLogLength = 1024;
    std::vector<Request> Log() const;
    void ResetCounts();

protected:
    /// A command of the controller, by network function; 0xC1 for what it does not know.
    virtual Response Handle(const Request& request);

    TimerClock& clock_;
    mutable std::recursive_mutex mutex_;  ///< guards everything below

private:
    Response HandleApp(const Request& request);
    Response HandleSensorEvent(const Request& request);
    Response HandleStorage(const Request& request);
    Response HandleTransport(const Request& request);
    Response HandleOem(const Request& request);
    void Note(const Request& request);

    const uint8_t address_;
    DeviceId identity_;
    SdrRepository sdr_;
    EventLog sel_;
    FruStore fru_;
    SensorBank sensors_;
    WatchdogTimer watchdog_;
    LanChannels lan_;
    OemData oem_;
    std::map<uint16_t, std::shared_ptr<CommandHook>> hooks_;  // by NetFn << 8 | command
    std::map<uint16_t, size_t> counts_;
    std::deque<Request> log_;
};

/// The controller at the system interface, with the IPMB behind it.
class Bmc : public Controller {
public:
    explicit Bmc(TimerClock& clock, uint8_t address = kBmcAddress);

    /// Adds a controller on the IPMB (channel 0). @return lives as long as the BMC
    Controller& AddController(uint8_t address);
    /// A controller of the IPMB, the BMC itself included; null when nobody has that address.
    Controller* FindController(uint8_t address);

    /// One message of the system interface: NetFn/LUN, command, data. The answer's bytes, completion code included;
    /// no value when none will come; at least 2 bytes must be given.
    struct SystemAnswer {
        Bytes message;
        std::chrono::milliseconds delay{0};
    };
    std::optional<SystemAnswer> HandleSystemMessage(const Bytes& message);

    /// Whether something waits for Get Message or Read Event Message Buffer: the SMS_ATN bit.
    bool SmsAttention();
    /// Puts an event into the event message buffer. False when it is full.
    bool QueueEvent(const std::array<uint8_t, 16>& event);
    /// Puts a message into the receive message queue as it is: NetFn/LUN, checksum, responder, sequence/LUN, command,
    /// completion code, data, checksum. A message that does not fit is lost.
    void QueueMessage(Bytes message, std::chrono::milliseconds delay = {});
    /// Sees each answer on its way over the IPMB, in the form of QueueMessage; may change it, or empty it to lose it.
    void OnBusAnswer(std::function<void(Bytes& message)> hook);
    /// Messages that the receive message queue holds (128 from the start).
    void SetQueueCapacity(size_t capacity);

protected:
    Response Handle(const Request& request) override;

private:
    struct Waiting {
        uint64_t readyAt;
        Bytes message;
    };
    Response SendMessage(const Request& request);
    Response GetMessage();
    Response ReadEventBuffer();
    Response GetMessageFlags();
    Response ClearMessageFlags(const Request& request);
    void AnswerOverBus(const Bytes& frame, Controller& target);

    std::map<uint8_t, std::unique_ptr<Controller>> controllers_;
    std::deque<Waiting> messages_;
    std::optional<std::array<uint8_t, 16>> event_;
    std::function<void(Bytes&)> busHook_;
    size_t queueCapacity_ = 128;
    uint8_t globalEnables_ = 0x0D;  // receive message queue interrupt, event buffer, event logging
};

}  // namespace sim
