// A poll: what the logs hold that was not handed out yet. All logs are read before the first entry counts as taken: from
// that moment, when a device's state reaches the disk, until the caller has the entries, nothing waits for a controller.

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <cstdlib>
#include <new>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "common/ByteReader.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"
#include "cover/Heap.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kFunction = fn::kGetSelDeviceEntries;
constexpr int kPasses = 4;

constexpr uint32_t kEntriesOfFullLog = 500;
constexpr uint32_t kPercentOfFullLog = 80;
constexpr uint32_t kBriefWait = 50;  // ms

constexpr unsigned kAttemptsAtBadEntry = 3;  // one in each poll
constexpr unsigned kNearIds = 64;
constexpr uint16_t kMostIds = 0xFFFE;  // 1 to 0xFFFE

/// The time of an entry as the device's state keeps it, where 0 says that the device was never read.
uint32_t NonZeroTime(uint32_t time) {
    return std::max(time, uint32_t{1});
}

uint32_t TimeOf(const KVPS_SEL_ENTRY& entry) {
    return ByteReader(entry.timeStamp).U32();
}

/// What a poll has learned about one log. Nothing of it counts as taken before it is saved.
struct LogReading {
    bool valid = false;                    ///< the log was read, as far as the following tells
    SelInfo info{};                        ///< as the controller told last
    DEVICE_INFO next{};                    ///< the device's state behind the last entry that was read
    KVPS_SEL_ENTRY first = kNoFirstEntry;  ///< of the log
    std::vector<KVPS_SEL_ENTRY> found;     ///< the new entries
    uint32_t withheld = 0;                 ///< 1: the last of them is a stop marker, which is not handed out

    std::span<const KVPS_SEL_ENTRY> ToHandOut() const { return std::span(found).first(found.size() - withheld); }
    /// Adds entries, except those that are there already: a log that was rewritten between two passes shows them again.
    void Add(std::span<const KVPS_SEL_ENTRY> more);
};

void LogReading::Add(std::span<const KVPS_SEL_ENTRY> more) {
    using Bytes = std::array<uint8_t, sizeof(KVPS_SEL_ENTRY)>;
    const auto bytesOf = [](const KVPS_SEL_ENTRY& entry) { return std::bit_cast<Bytes>(entry); };
    std::set<Bytes> known;
    for (const KVPS_SEL_ENTRY& entry : found)
        known.insert(bytesOf(entry));
    for (const KVPS_SEL_ENTRY& entry : more) {
        if (!known.contains(bytesOf(entry))) found.push_back(entry);
    }
}

// Deciding

/// @param id  out: of the last entry of the log
uint32_t FindLastEntry(const SelLog& log, uint16_t& id) {
    WalkGuard guard;
    uint16_t nextId = kLastRecord;
    do {
        KVPS_SEL_ENTRY entry;
        if (const uint32_t rc = log.ReadEntry(kFunction, nextId, nextId, entry)) return rc;
        id = entry.recordId;
    } while (nextId != kLastRecord && guard.Enter(nextId));
    return 0;
}

/// Asks whether the log is still as it was. The reservation does not tell on every controller.
/// @param info       as it was heard
/// @param unchanged  out: nothing has been logged or erased since
uint32_t AskWhetherUnchanged(const SelLog& log, const SelInfo& info, bool& unchanged) {
    SelInfo now = {};
    const uint32_t rc = log.GetInfo(kFunction, now);
    unchanged = rc == 0 && now.entries == info.entries && now.lastAddition == info.lastAddition;
    return rc;
}

/// Meets a device for the first time: what its log holds is old. A log that grows meanwhile is met by the next poll:
/// its number of entries and its last one must belong together.
uint32_t MeetDevice(const SelLog& log, LogReading& reading) {
    DEVICE_INFO met = log.Device();
    met.nextSelId = 0;
    met.lastTimeStamp = NonZeroTime(reading.info.lastAddition);
    // Of a log that was cleared under our eyes all that it holds has come since.
    met.selCount = log.State().cleared ? uint16_t{0} : reading.info.entries;
    if (met.selCount > 0) {
        if (const uint32_t rc = FindLastEntry(log, met.nextSelId)) return rc;
        bool unchanged = false;
        if (const uint32_t rc = AskWhetherUnchanged(log, reading.info, unchanged); rc != 0 || !unchanged) return rc;
    }
    reading.next = met;
    reading.valid = true;
    return 0;
}

// Entries that cannot be read

/// Reads an entry. One that is refused in several polls is given up, or it would hide all that come behind it.
/// @param givenUp  out: that is the case
uint32_t TryEntry(const SelLog& log, uint16_t id, uint16_t& nextId, KVPS_SEL_ENTRY& entry, bool& givenUp) {
    auto& refused = log.State().refused;
    const uint32_t rc = log.ReadEntry(kFunction, id, nextId, entry);
    if (rc == 0) refused.erase(id);
    givenUp = IsBadEntry(rc) && ++refused[id] >= kAttemptsAtBadEntry;
    return rc;
}

/// The n-th id behind another one. Ids mostly follow each other.
uint16_t IdBehind(uint16_t id, unsigned n) {
    return static_cast<uint16_t>((id + kMostIds - 1 + n) % kMostIds + 1);
}

/// Finds the entry behind one that was given up: one of the next ids, or else the last entry of the log.
/// @param next  out: its id; kLastRecord when there is none
uint32_t FindEntryBehind(const SelLog& log, uint16_t id, uint16_t& next) {
    KVPS_SEL_ENTRY entry;
    uint16_t behind = kLastRecord;
    uint32_t rc = log.ReadEntry(kFunction, kLastRecord, behind, entry);
    if (rc != 0 && !IsBadEntry(rc)) return rc;
    const uint16_t last = rc == 0 ? entry.recordId : kLastRecord;
    next = kLastRecord;
    for (unsigned n = 1; n <= kNearIds && last != id; ++n) {
        const uint16_t candidate = IdBehind(id, n);
        rc = log.ReadEntry(kFunction, candidate, behind, entry);
        if (rc != 0 && !IsBadEntry(rc)) return rc;
        if (rc == 0 || candidate == last) {
            next = candidate;
            return 0;
        }
    }
    if (last != id) next = last;
    return 0;
}

// Reading

/// What of a log is to be read.
struct Range {
    DEVICE_INFO from;    ///< selCount is what the log holds, nextSelId where to start
    uint32_t count = 0;  ///< entries
    bool gap = false;    ///< before the first of them entries were left out: up to the end then, whatever the count
};

/// Steps past the entry that was taken last. Nothing remains to be read when there is none behind it.
uint32_t StepPastLastEntry(const SelLog& log, const SelInfo& info, Range& range) {
    uint16_t& next = range.from.nextSelId;
    const uint16_t last = next;
    KVPS_SEL_ENTRY entry;
    uint32_t rc = TryEntry(log, last, next, entry, range.gap);
    if (IsRefusedWith(rc, kNotPresent)) {
        // Deleted meanwhile: from the beginning, the database tells what was handed out.
        next = 0;
        range = {range.from, info.entries};
        return 0;
    }
    if (range.gap) rc = FindEntryBehind(log, last, next);
    if (rc != 0) return rc;
    if (next == kLastRecord || next == last) range.count = 0;
    return 0;
}

/// Decides what of the log is new. The conditions overlap; the first that holds decides.
/// @param sameFirst  the log begins as it did
/// @param range      in: from is the state behind what was taken
uint32_t FindNewEntries(const SelLog& log, bool sameFirst, const SelInfo& info, Range& range) {
    const uint32_t taken = range.from.selCount;
    range.from.selCount = info.entries;
    range.count = 0;
    if (taken == info.entries && sameFirst) return 0;
    range.count = info.entries;
    if (taken > info.entries || !sameFirst || taken == 0) {  // cleared or rewritten, or nothing taken yet
        range.from.nextSelId = 0;
        return 0;
    }
    range.count -= taken;
    return StepPastLastEntry(log, info, range);
}

/// What GetSelByDeviceInfo has read.
struct SelReading {
    uint32_t result = 0;    ///< of the failure that ended the reading
    uint32_t read = 0;      ///< entries of the log, known ones included
    uint32_t withheld = 0;  ///< 1: the last new one is a stop marker
    DEVICE_INFO next{};     ///< the device's state behind the last entry read
    std::vector<KVPS_SEL_ENTRY> found{};
};

/// Reads entries of a log. One that was given up counts as read; the failure is told with the alerts.
SelReading GetSelByDeviceInfo(const SelLog& log, const Range& range) {
    SelReading reading{.next = range.from};
    bool gap = range.gap;
    WalkGuard guard;
    uint16_t id = range.from.nextSelId;
    while ((gap || reading.read < range.count) && id != kLastRecord && guard.Enter(id)) {
        if (IsStopMarkerMatched() || ShallEnd()) break;
        KVPS_SEL_ENTRY entry;
        bool givenUp = false;
        uint16_t nextId = kLastRecord;
        reading.result = TryEntry(log, id, nextId, entry, givenUp);
        if (givenUp) {
            NoteDatabaseFailure(reading.result);
            gap = true;
            reading.result = FindEntryBehind(log, id, nextId);
        }
        if (reading.result != 0) break;
        ++reading.read;
        id = nextId;
        if (givenUp) continue;
        reading.next.nextSelId = entry.recordId;
        reading.next.lastTimeStamp = NonZeroTime(TimeOf(entry));
        if (log.Knows(entry)) {
            CheckRedetection(log, kFunction, entry, log.State().readFlags);
            continue;
        }
        reading.withheld = MatchStopMarkers(entry) ? 1 : 0;
        reading.found.push_back(entry);
    }
    // How many entries lie in a gap nobody knows: at the end of the log all of it has been read, before it not.
    if (gap) reading.read = id == kLastRecord ? range.count : std::min(reading.read, range.count - 1);
    reading.next.selCount = static_cast<uint16_t>(range.from.selCount - (range.count - reading.read));
    return reading;
}

/// Reads the new entries of a log that is known.
/// @param known      the state behind what was taken
/// @param sameFirst  the log begins as it did
uint32_t ReadNewEntries(const SelLog& log, const DEVICE_INFO& known, bool sameFirst, LogReading& reading) {
    Range range{known};
    if (const uint32_t rc = FindNewEntries(log, sameFirst, reading.info, range)) return rc;
    if (range.count == 0) {
        reading.next = known;
        reading.valid = true;
        return 0;
    }
    const SelReading entries = GetSelByDeviceInfo(log, range);
    if (entries.read == 0) return entries.result;
    reading.Add(entries.found);
    reading.next = entries.next;
    reading.withheld = entries.withheld;
    reading.valid = true;
    return entries.result;
}

/// Whether a log begins as it did when it was read last. Where there is nothing to compare with, all of the log is read,
/// and that its entries are known is nothing to report.
bool BeginsAsBefore(const SelLog& log, const LogReading& before, const KVPS_SEL_ENTRY& first) {
    if (before.valid) return SameEntry(first, before.first);
    const FirstEntry compared = CompareFirstEntry(log, first);
    if (compared == FirstEntry::kMissing || compared == FirstEntry::kUnreadable) log.State().readFlags = 0;
    // Where nothing tells what was taken but the number of entries, that has to do.
    return compared == FirstEntry::kSame || (compared == FirstEntry::kUnreadable && log.State().dbPartial);
}

/// Reads what is new in a log.
/// @param reading  in: what earlier passes of this poll have read; out: with what was read now. After a failure as much
///                 of that as was read before it
uint32_t kvPsGetSelDeviceEntries(const SelLog& log, LogReading& reading) {
    LogReading now = reading;
    now.valid = false;
    if (const uint32_t rc = log.ReserveAndGetInfo(kFunction, now.info)) return rc;
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_POLL, "SelCount:%d", now.info.entries);
    now.first = kNoFirstEntry;
    if (now.info.entries > 0) {
        uint16_t nextId = kLastRecord;
        bool givenUp = false;
        const uint32_t rc = TryEntry(log, 0, nextId, now.first, givenUp);
        if (rc != 0 && !givenUp) return rc;
        if (givenUp) now.first = kNoFirstEntry;
    }
    const DEVICE_INFO known = reading.valid ? reading.next : log.Device();
    uint32_t result = 0;
    if (known.lastTimeStamp == 0) {
        result = MeetDevice(log, now);
    } else if (now.info.entries == 0) {
        now.next = known;
        now.next.selCount = 0;
        now.next.nextSelId = 0;
        now.valid = true;
    } else {
        result = ReadNewEntries(log, known, BeginsAsBefore(log, reading, now.first), now);
    }
    if (now.valid) reading = std::move(now);
    return result;
}

/// A state that could not be read at start is read now. Without it the device is neither met nor is its file touched.
uint32_t LoadDeviceInfo(const SelLog& log) {
    SelLogState& state = log.State();
    if (!state.infUnread) return 0;
    const uint32_t rc = ReadDeviceInfo(log.Device(), state.infWritten);
    state.infUnread = rc != 0;
    if (rc != 0 && !std::exchange(state.infNoted, true)) NoteDatabaseFailure(rc);
    return rc;
}

uint32_t ReadLog(const SelLog& log, LogReading& reading) {
    if (const uint32_t rc = LoadDeviceInfo(log)) return rc;
    if (const uint32_t rc = LoadSELDatabase(log)) return rc;
    return kvPsGetSelDeviceEntries(log, reading);
}

/// @return 0 when every log was read, or failed for good; the first cancellation otherwise
uint32_t ReadLogs(IpmiBracket& bracket, std::span<LogReading> readings) {
    std::bitset<kMaxDevices> pending;
    for (uint32_t i = 0; i < readings.size(); ++i) {
        pending.set(i);
        SelLog(i).State().readFlags = KVPS_SEL_CHECK_DATABASE | KVPS_SEL_REPORT_REDETECTION;
    }
    uint32_t cancelled = 0;
    for (int pass = 0; pass < kPasses && pending.any(); ++pass) {
        for (uint32_t i = 0; i < readings.size(); ++i) {
            if (!pending[i]) continue;
            if (ShallEnd()) return cancelled;
            const uint32_t rc = ReadLog(SelLog(i, &bracket), readings[i]);
            pending[i] = IsRefusedWith(rc, kReservationCancelled);
            if (pending[i] && cancelled == 0) cancelled = rc;
        }
    }
    return pending.any() ? cancelled : 0;
}

uint32_t ReadLogsInBracket(std::span<LogReading> readings) {
    IpmiBracket bracket;
    const uint32_t result = bracket ? ReadLogs(bracket, readings) : 0;
    if (bracket) return result;  // it may have been lost on the way
    return ReportNotOpened(MakeResult(fn::kGetSelAllEntries, service_reason::kNotOpened));
}

// Taking

/// Records what was read as taken, and hands it out.
uint32_t TakeAll(std::span<const LogReading> readings, unsigned long* count, KVPS_SEL_ENTRY** entries) {
    size_t total = 0;
    for (const LogReading& reading : readings)
        total += reading.ToHandOut().size();
    HeapOwned<KVPS_SEL_ENTRY> table(static_cast<KVPS_SEL_ENTRY*>(malloc(total * sizeof(KVPS_SEL_ENTRY))));
    if (table == nullptr && total > 0) return PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    KVPS_SEL_ENTRY* end = table.get();
    for (uint32_t i = 0; i < readings.size(); ++i) {
        if (!readings[i].valid) continue;
        const SelLog log(i);
        Save(log, readings[i].next, readings[i].first, readings[i].found);
        log.State().cleared = false;
        end = std::ranges::copy(readings[i].ToHandOut(), end).out;
    }
    *count = total;
    *entries = total > 0 ? table.release() : nullptr;
    return 0;
}

/// Whether a log is nearly full, and all of it was taken.
bool IsDone(const SelLog& log, const LogReading& reading) {
    const uint32_t used = reading.info.entries * uint32_t{sizeof(KVPS_SEL_ENTRY)};
    if (!reading.valid || used == 0 || log.Device().selCount != reading.info.entries) return false;
    return used * 100 / (used + reading.info.freeSpace) > kPercentOfFullLog ||
           reading.info.entries >= kEntriesOfFullLog;
}

/// Clears the logs that are nearly full.
/// @param entriesWait  for their way to the caller: who is busy or silent is asked by the next poll
void ClearFullLogs(std::span<const LogReading> readings, bool entriesWait) {
    std::vector<uint32_t> full;
    for (uint32_t i = 0; i < readings.size(); ++i) {
        if (IsDone(SelLog(i), readings[i])) full.push_back(i);
    }
    if (full.empty() || ShallEnd()) return;
    std::optional<SingleAttempt> once;
    if (entriesWait) once.emplace();
    IpmiBracket bracket(entriesWait ? kBriefWait : kInfinite);
    if (!bracket) return;
    for (const uint32_t i : full) {
        const SelLog log(i, &bracket);
        bool unchanged = false;  // what has been logged since would be erased unseen
        if (AskWhetherUnchanged(log, readings[i].info, unchanged) == 0 && unchanged) log.Clear(kFunction);
        if (entriesWait && CheckRecentCompCode() == kCompCodeNoResponse) return;
    }
}

}  // namespace

}  // namespace ktx_ipmi

uint32_t KvPsGetSelAllEntries(unsigned long* count, KVPS_SEL_ENTRY** entries) {
    using namespace ktx_ipmi;
    if (count == nullptr || entries == nullptr) {
        return PXR_ReportError(MakeResult(fn::kGetSelAllEntries, Reason::NullArgument));
    }
    *count = 0;
    *entries = nullptr;
    std::optional<CancelBlock> held;  // to the end, from the first entry on that is taken: it does not come again
    const std::lock_guard lock(g_selMutex);
    try {
        std::vector<LogReading> readings(std::min(g_dwSelDevCnt, kMaxDevices));
        const uint32_t result = ReadLogsInBracket(readings);
        held.emplace();
        const uint32_t failure = TakeAll(readings, count, entries);
        if (*count == 0) held.reset();
        ClearFullLogs(readings, *count > 0);
        // Entries that were taken go out, whatever failed besides.
        return *count > 0 ? 0 : failure != 0 ? failure : result;
    } catch (const std::bad_alloc&) {
        return *count > 0 ? 0 : PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    }
}

void KvPsFreeDataArray(void* array) {
    free(array);
}
