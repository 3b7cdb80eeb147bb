// A poll: what the logs hold that was not handed out yet. An entry counts as taken from the moment when the device's
// state reaches the disk; everything slow comes before that moment.

#include <algorithm>
#include <bitset>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "common/ByteReader.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kFunction = fn::kGetSelDeviceEntries;
constexpr int kPasses = 4;

constexpr uint32_t kEntriesOfFullLog = 500;
constexpr uint32_t kPercentOfFullLog = 80;

/// The entries to hand out; a block of malloc in the end.
class SelTable {
public:
    SelTable() = default;
    ~SelTable() { free(entries_); }
    SelTable(const SelTable&) = delete;
    SelTable& operator=(const SelTable&) = delete;

    /// @return room for n entries behind those that are kept, all zero; null without memory
    KVPS_SEL_ENTRY* Grow(uint32_t n) {
        void* const grown = realloc(entries_, (count_ + n) * sizeof *entries_);
        if (grown == nullptr) return nullptr;
        entries_ = static_cast<KVPS_SEL_ENTRY*>(grown);
        memset(entries_ + count_, 0, n * sizeof *entries_);
        return entries_ + count_;
    }
    /// Keeps n of those.
    void Keep(uint32_t n) { count_ += n; }
    /// From now on the thread is not cancelled before the table has been handed out: what is in it is not read again.
    void Hold() { held_.emplace(); }
    uint32_t Count() const { return count_; }
    KVPS_SEL_ENTRY* Release() { return count_ > 0 ? std::exchange(entries_, nullptr) : nullptr; }

private:
    std::optional<CancelBlock> held_;
    KVPS_SEL_ENTRY* entries_ = nullptr;
    uint32_t count_ = 0;
};

/// The time of an entry as the device's state keeps it, where 0 says that the device was never read.
uint32_t NonZeroTime(uint32_t time) {
    return std::max(time, uint32_t{1});
}

uint32_t TimeOf(const KVPS_SEL_ENTRY& entry) {
    return ByteReader(entry.timeStamp).U32();
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
uint32_t MeetDevice(const SelLog& log, const SelInfo& info, const KVPS_SEL_ENTRY& first) {
    DEVICE_INFO met = log.Device();
    met.nextSelId = 0;
    met.lastTimeStamp = NonZeroTime(info.lastAddition);
    // Of a log that was cleared under our eyes all that it holds has come since.
    met.selCount = log.State().cleared ? uint16_t{0} : info.entries;
    if (met.selCount > 0) {
        if (const uint32_t rc = FindLastEntry(log, met.nextSelId)) return rc;
        bool unchanged = false;
        if (const uint32_t rc = AskWhetherUnchanged(log, info, unchanged); rc != 0 || !unchanged) return rc;
    }
    Save(log, met, first, {});
    log.State().cleared = false;
    return 0;
}

/// Steps past the entry that was taken last.
/// @param next   out: nextSelId is where to go on
/// @param count  out: 0 when there is nothing behind it
uint32_t StepPastLastEntry(const SelLog& log, DEVICE_INFO& next, const SelInfo& info, uint32_t& count) {
    const uint16_t last = next.nextSelId;
    KVPS_SEL_ENTRY entry;
    const uint32_t rc = log.ReadEntry(kFunction, last, next.nextSelId, entry);
    if (IsRefusedWith(rc, kNotPresent)) {
        // Deleted meanwhile: from the beginning, the database tells what was handed out.
        next.nextSelId = 0;
        count = info.entries;
        return 0;
    }
    if (rc != 0) return rc;
    if (next.nextSelId == kLastRecord || next.nextSelId == last) count = 0;
    return 0;
}

/// Decides what of the log is new. The conditions overlap; the first that holds decides.
/// @param next   in: the device's state; out: with the number of entries, and the id to start at
/// @param count  out: entries to read
uint32_t FindNewEntries(const SelLog& log, DEVICE_INFO& next, const SelInfo& info, const KVPS_SEL_ENTRY& first,
                        uint32_t& count) {
    const uint32_t taken = next.selCount;
    const FirstEntry compared = CompareFirstEntry(log, first);
    // Where nothing tells what was taken but the number of entries, that has to do.
    const bool sameFirst =
        compared == FirstEntry::kSame || (compared == FirstEntry::kUnreadable && log.State().dbPartial);
    next.selCount = info.entries;
    count = 0;
    if (taken == info.entries && sameFirst) return 0;
    count = info.entries;
    if (taken > info.entries || !sameFirst || taken == 0) {  // cleared or rewritten, or nothing taken yet
        next.nextSelId = 0;
        return 0;
    }
    count -= taken;
    return StepPastLastEntry(log, next, info, count);
}

/// What GetSelByDeviceInfo has read.
struct SelReading {
    uint32_t result = 0;    ///< of the failure that ended the reading
    uint32_t read = 0;      ///< entries of the log, known ones included
    uint32_t found = 0;     ///< of these, new ones
    uint32_t withheld = 0;  ///< 1: the last of them is a stop marker
    DEVICE_INFO next{};     ///< the device's state behind the last entry read
};

/// Reads up to n entries of a log.
/// @param from     selCount is what the log holds, nextSelId where to start
/// @param entries  room for n; receives the new ones
SelReading GetSelByDeviceInfo(const SelLog& log, const DEVICE_INFO& from, uint32_t n, KVPS_SEL_ENTRY* entries) {
    SelReading reading{.next = from};
    WalkGuard guard;
    uint16_t nextId = kLastRecord;
    for (uint16_t id = from.nextSelId; reading.read < n && id != kLastRecord && guard.Enter(id); id = nextId) {
        if (IsStopMarkerMatched() || ShallEnd()) break;
        KVPS_SEL_ENTRY entry;
        reading.result = log.ReadEntry(kFunction, id, nextId, entry);
        if (reading.result != 0) break;
        ++reading.read;
        reading.next.nextSelId = entry.recordId;
        reading.next.lastTimeStamp = NonZeroTime(TimeOf(entry));
        if (CheckRedetection(log, kFunction, entry, log.State().readFlags) != 0) continue;
        reading.withheld = MatchStopMarkers(entry) ? 1 : 0;
        entries[reading.found++] = entry;
    }
    reading.next.selCount = static_cast<uint16_t>(from.selCount - (n - reading.read));
    return reading;
}

/// Reads the new entries, remembers them, and adds them to those to hand out.
/// @param next  what FindNewEntries gave
uint32_t TakeEntries(const SelLog& log, const DEVICE_INFO& next, uint32_t count, const KVPS_SEL_ENTRY& first,
                     SelTable& table) {
    KVPS_SEL_ENTRY* const room = table.Grow(count);
    if (room == nullptr) return PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    const SelReading reading = GetSelByDeviceInfo(log, next, count, room);
    if (reading.read == 0) return reading.result;
    table.Hold();
    Save(log, reading.next, first, {room, reading.found});
    table.Keep(reading.found - reading.withheld);
    return reading.result;
}

/// Clears a log that is nearly full, if all of it was taken.
uint32_t ClearWhenFull(const SelLog& log, const SelInfo& info, const KVPS_SEL_ENTRY& first) {
    const uint32_t used = info.entries * uint32_t{sizeof(KVPS_SEL_ENTRY)};
    if (used == 0 || log.Device().selCount != info.entries) return 0;
    if (CompareFirstEntry(log, first) != FirstEntry::kSame) return 0;
    if (used * 100 / (used + info.freeSpace) <= kPercentOfFullLog && info.entries < kEntriesOfFullLog) return 0;
    bool unchanged = false;  // what has been logged since would be erased unseen
    if (const uint32_t rc = AskWhetherUnchanged(log, info, unchanged); rc != 0 || !unchanged) return rc;
    return log.Clear(kFunction);
}

/// Takes the new entries of a log that is known.
uint32_t TakeNewEntries(const SelLog& log, const SelInfo& info, const KVPS_SEL_ENTRY& first, SelTable& table) {
    DEVICE_INFO next = log.Device();
    uint32_t count = 0;
    if (const uint32_t rc = FindNewEntries(log, next, info, first, count)) return rc;
    if (count > 0) return IsStopMarkerMatched() || ShallEnd() ? 0 : TakeEntries(log, next, count, first, table);
    Save(log, log.Device(), first, {});  // what could not be before
    return 0;
}

/// Adds the new entries of a log.
uint32_t kvPsGetSelDeviceEntries(const SelLog& log, SelTable& table) {
    SelInfo info = {};
    if (const uint32_t rc = log.ReserveAndGetInfo(kFunction, info)) return rc;
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_POLL, "SelCount:%d", info.entries);
    KVPS_SEL_ENTRY first = kNoFirstEntry;
    uint16_t nextId = kLastRecord;
    if (info.entries > 0) {
        if (const uint32_t rc = log.ReadEntry(kFunction, 0, nextId, first)) return rc;
    }
    uint32_t result = 0;
    if (log.Device().lastTimeStamp == 0) {
        result = MeetDevice(log, info, first);
    } else if (info.entries == 0) {
        DEVICE_INFO empty = log.Device();
        empty.selCount = 0;
        empty.nextSelId = 0;
        Save(log, empty, first, {});
    } else {
        result = TakeNewEntries(log, info, first, table);
    }
    return result != 0 ? result : ClearWhenFull(log, info, first);
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

uint32_t PollDevice(const SelLog& log, SelTable& table) {
    if (const uint32_t rc = LoadDeviceInfo(log)) return rc;
    if (const uint32_t rc = LoadSELDatabase(log)) return rc;
    return kvPsGetSelDeviceEntries(log, table);
}

/// @return 0 when every device was read, or failed for good; the first cancellation otherwise
uint32_t PollDevices(IpmiBracket& bracket, SelTable& table) {
    const uint32_t devices = std::min(g_dwSelDevCnt, kMaxDevices);
    std::bitset<kMaxDevices> pending;
    for (uint32_t i = 0; i < devices; ++i) {
        pending.set(i);
        SelLog(i).State().readFlags = KVPS_SEL_CHECK_DATABASE | KVPS_SEL_REPORT_REDETECTION;
    }
    uint32_t cancelled = 0;
    for (int pass = 0; pass < kPasses && pending.any(); ++pass) {
        for (uint32_t i = 0; i < devices; ++i) {
            if (!pending[i]) continue;
            const uint32_t rc = PollDevice(SelLog(i, &bracket), table);
            pending[i] = IsRefusedWith(rc, kReservationCancelled);
            if (pending[i] && cancelled == 0) cancelled = rc;
        }
    }
    return pending.any() ? cancelled : 0;
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
    SelTable table;
    const std::lock_guard lock(g_selMutex);
    IpmiBracket bracket;
    uint32_t result = bracket ? PollDevices(bracket, table) : 0;
    if (!bracket) result = ReportNotOpened(MakeResult(fn::kGetSelAllEntries, service_reason::kNotOpened));
    // Entries that were taken will not come again: they go out, whatever failed besides.
    if (table.Count() == 0) return result;
    *count = table.Count();
    *entries = table.Release();
    return 0;
}

void KvPsFreeDataArray(void* array) {
    free(array);
}
