#pragma once
/// @file
/// The system event log of a controller.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "simulator/ReservedStore.h"

namespace sim {

using SelEntry = std::array<uint8_t, 16>;

/// An entry of type 0x02; id and time are set by EventLog::Add when 0.
SelEntry SystemEvent(uint8_t sensorType, uint8_t sensorNumber, uint8_t eventType, std::array<uint8_t, 3> data,
                     uint32_t timestamp = 0, uint16_t generator = 0x0020);

/// Record ids are given in ascending order from 1 and start again at 1 after a clear.
class EventLog : public ReservedStore {
public:
    /// @param clockNow  monotonic microseconds
    explicit EventLog(std::function<uint64_t()> clockNow);

    /// Appends. The id is given here unless the entry has one. @return the id, 0 when the log is full
    uint16_t Add(SelEntry entry);
    /// Erases everything, as a clear by somebody else does.
    void Clear();
    /// Replaces the whole content, as a clear followed by other entries does.
    void Rewrite(const std::vector<SelEntry>& entries);
    void Remove(uint16_t id);
    /// Lets something happen to the log when the time has passed; it is seen by the next command.
    void Schedule(std::chrono::milliseconds after, std::function<void(EventLog&)> action);
    /// Does what is due; before each command.
    void CatchUp();
    const std::vector<SelEntry>& Entries() const { return entries_; }

    void SetCapacity(size_t entries) { capacity_ = entries; }
    /// Whether Reserve SEL works (bit 1 of the operation support byte).
    void SetReservable(bool reservable) { reservable_ = reservable; }
    /// Get-status requests of Clear SEL that still find the erasure under way.
    void SetErasePolls(unsigned polls) { erasePolls_ = polls; }
    /// Wall-clock time of the controller, seconds since 1970.
    uint32_t Time() const;
    void SetTime(uint32_t seconds);

    Response GetInfo() const;
    Response GetEntry(const Request& request) const;
    Response AddEntry(const Request& request);
    Response Delete(const Request& request);
    Response ClearCommand(const Request& request);

private:
    std::function<uint64_t()> now_;
    std::vector<SelEntry> entries_;
    size_t capacity_ = 4096;
    uint16_t nextId_ = 1;
    unsigned erasePolls_ = 0;
    unsigned erasePollsLeft_ = 0;
    uint32_t lastAddition_ = 0xFFFFFFFF;  // never
    uint32_t lastErase_ = 0xFFFFFFFF;
    std::multimap<uint64_t, std::function<void(EventLog&)>> scheduled_;  // by clock time
    uint32_t timeBase_ = 0;  // wall-clock time when the monotonic clock stood at timeBaseAt_
    uint64_t timeBaseAt_ = 0;
};

}  // namespace sim
