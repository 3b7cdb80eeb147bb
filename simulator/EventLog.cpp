// The system event log of a controller.

#include "simulator/EventLog.h"

#include <algorithm>
#include <ctime>

namespace sim {
namespace {

constexpr size_t kEntrySize = 16;
constexpr uint8_t kSelVersion = 0x51;
constexpr uint8_t kDeleteSupported = 0x08;
constexpr uint8_t kReserveSupported = 0x02;

void PutTime(SelEntry& entry, uint32_t seconds) {
    for (size_t i = 0; i < 4; ++i)
        entry[3 + i] = static_cast<uint8_t>(seconds >> (8 * i));
}

bool HasTime(const SelEntry& entry) {
    return std::any_of(entry.begin() + 3, entry.begin() + 7, [](uint8_t byte) { return byte != 0; });
}

/// OEM records of types 0xE0 to 0xFF carry data where others have their time.
bool IsTimeless(const SelEntry& entry) {
    return entry[2] >= 0xE0;
}

}  // namespace

SelEntry SystemEvent(uint8_t sensorType, uint8_t sensorNumber, uint8_t eventType, std::array<uint8_t, 3> data,
                     uint32_t timestamp, uint16_t generator) {
    constexpr uint8_t kSystemEventRecord = 0x02, kEventRevision = 0x04;
    SelEntry entry{};
    entry[2] = kSystemEventRecord;
    PutTime(entry, timestamp);
    entry[7] = static_cast<uint8_t>(generator);
    entry[8] = static_cast<uint8_t>(generator >> 8);
    entry[9] = kEventRevision;
    entry[10] = sensorType;
    entry[11] = sensorNumber;
    entry[12] = eventType;
    std::copy(data.begin(), data.end(), entry.begin() + 13);
    return entry;
}

EventLog::EventLog(std::function<uint64_t()> clockNow) : now_(std::move(clockNow)) {
    SetTime(static_cast<uint32_t>(std::time(nullptr)));
}

uint32_t EventLog::Time() const {
    return timeBase_ + static_cast<uint32_t>((now_() - timeBaseAt_) / 1'000'000);
}

void EventLog::SetTime(uint32_t seconds) {
    timeBase_ = seconds;
    timeBaseAt_ = now_();
}

uint16_t EventLog::Add(SelEntry entry) {
    if (entries_.size() >= capacity_) return 0;
    if (IdOf(entry) == 0) {
        entry[0] = static_cast<uint8_t>(nextId_);
        entry[1] = static_cast<uint8_t>(nextId_ >> 8);
    }
    nextId_ = static_cast<uint16_t>(IdOf(entry) + 1);
    if (!IsTimeless(entry) && !HasTime(entry)) PutTime(entry, Time());
    lastAddition_ = Time();
    entries_.push_back(entry);
    return IdOf(entry);
}

void EventLog::Clear() {
    entries_.clear();
    nextId_ = 1;
    lastErase_ = Time();
    CancelReservation();
}

void EventLog::Rewrite(const std::vector<SelEntry>& entries) {
    Clear();
    for (const SelEntry& entry : entries)
        Add(entry);
}

void EventLog::Remove(uint16_t id) {
    std::erase_if(entries_, [&](const SelEntry& entry) { return IdOf(entry) == id; });
    lastErase_ = Time();
    CancelReservation();
}

void EventLog::Schedule(std::chrono::milliseconds after, std::function<void(EventLog&)> action) {
    scheduled_.emplace(now_() + static_cast<uint64_t>(after.count()) * 1000, std::move(action));
}

void EventLog::CatchUp() {
    while (!scheduled_.empty() && scheduled_.begin()->first <= now_()) {
        const auto due = scheduled_.extract(scheduled_.begin());
        due.mapped()(*this);
    }
}

Response EventLog::GetInfo() const {
    const size_t free = (capacity_ - std::min(capacity_, entries_.size())) * kEntrySize;
    Response response{cc::kOk, {kSelVersion}};
    PutWord(response.data, static_cast<unsigned>(entries_.size()));
    PutWord(response.data, static_cast<unsigned>(std::min<size_t>(free, 0xFFFF)));
    PutLong(response.data, lastAddition_);
    PutLong(response.data, lastErase_);
    response.data.push_back(static_cast<uint8_t>(kDeleteSupported | (reservable_ ? kReserveSupported : 0)));
    return response;
}

/// Count 0xFF: to the end.
Response EventLog::GetEntry(const Request& request) const {
    const Asked asked = ReadRequest(request);
    if (asked.refused != cc::kOk) return {asked.refused, {}};
    uint16_t next = 0;
    const SelEntry* entry = FindIn(entries_, asked.id, next);
    if (entry == nullptr) return {cc::kNotPresent, {}};
    const bool whole = asked.count == 0xFF;
    if (asked.offset >= kEntrySize || (!whole && asked.offset + asked.count > kEntrySize)) return {cc::kOutOfRange, {}};
    return Piece(next, *entry, asked.offset, whole ? kEntrySize - asked.offset : asked.count);
}

Response EventLog::AddEntry(const Request& request) {
    if (request.data.size() != kEntrySize) return {cc::kBadLength, {}};
    SelEntry entry;
    std::copy(request.data.begin(), request.data.end(), entry.begin());
    entry[0] = entry[1] = 0;  // the log gives its own ids
    const uint16_t id = Add(entry);
    if (id == 0) return {cc::kOutOfSpace, {}};
    Response response;
    PutWord(response.data, id);
    return response;
}

Response EventLog::Delete(const Request& request) {
    if (request.data.size() != 4) return {cc::kBadLength, {}};
    if (!Reserved(Word(request.data, 0))) return {cc::kReservationCancelled, {}};
    uint16_t next = 0;
    const SelEntry* entry = FindIn(entries_, Word(request.data, 2), next);
    if (entry == nullptr) return {cc::kNotPresent, {}};
    const uint16_t id = IdOf(*entry);
    Remove(id);
    Response response;
    PutWord(response.data, id);
    return response;
}

/// Data: reservation, "CLR", action.
Response EventLog::ClearCommand(const Request& request) {
    constexpr uint8_t kInitiate = 0xAA, kGetStatus = 0x00;
    constexpr uint8_t kInProgress = 0, kCompleted = 1;
    constexpr std::array<uint8_t, 3> kMagic{'C', 'L', 'R'};
    if (request.data.size() != 6) return {cc::kBadLength, {}};
    if (!std::equal(kMagic.begin(), kMagic.end(), request.data.begin() + 2)) return {cc::kInvalidData, {}};
    const uint8_t action = request.data[5];
    if (action != kInitiate && action != kGetStatus) return {cc::kInvalidData, {}};
    if (action == kInitiate) {
        const uint16_t reservation = Word(request.data, 0);
        if (!Reserved(reservation)) return {cc::kReservationCancelled, {}};
        Clear();
        reservation_ = reservation;  // who erases may go on to ask for the progress
        erasePollsLeft_ = erasePolls_;
    } else if (erasePollsLeft_ > 0) {
        --erasePollsLeft_;
    }
    return {cc::kOk, {erasePollsLeft_ > 0 ? kInProgress : kCompleted}};
}

}  // namespace sim
