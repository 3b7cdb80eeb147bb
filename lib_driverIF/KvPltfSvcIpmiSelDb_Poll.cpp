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
constexpr uint32_t kNotWritten = MakeResult(kFunction, Reason::FileWrite);

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

/// Reads an entry whatever the database says.
uint32_t ReadPlain(const DEVICE_INFO& device, uint16_t id, uint16_t* nextId, KVPS_SEL_ENTRY* entry) {
    uint8_t flags = 0;
    LetOthersIn();
    const uint32_t rc =
        ReadSelEntry(kFunction, device.address, CurrentSelState().reservation, id, nextId, entry, flags);
    if (rc != 0) TraceSelFailure("KvPsLockAndGetSelEntry", rc);
    return rc;
}

// Saving

void SaveDeviceInfo(DEVICE_INFO& device, const DEVICE_INFO& now) {
    const CancelBlock block;  // memory and disk say the same
    SelDeviceState& state = CurrentSelState();
    if (memcmp(&device, &now, sizeof now) == 0 && state.infWritten) return;
    state.infWritten = WriteDeviceInfo(now);
    if (!state.infWritten) NoteDatabaseFailure(kNotWritten);
    device = now;
}

// A first entry belongs to a state: without the one on disk the other would make later entries look old.
void SaveFirstEntry(const DEVICE_INFO& device, const KVPS_SEL_ENTRY& first) {
    const CancelBlock block;
    SelDeviceState& state = CurrentSelState();
    if (SameEntry(first, state.first) && state.firstWritten) return;
    state.first = first;
    state.firstWritten = state.infWritten && WriteFirstEntry(device, first);
}

/// A file that fell behind, because the state or the entries could not be written, is written whole: entries that it
/// did not know would be taken for new ones when the log shows them again.
/// @param found  entries that are in memory since the last call
void SaveDatabase(const DEVICE_INFO& device, std::span<const KVPS_SEL_ENTRY> found) {
    SelDeviceState& state = CurrentSelState();
    if (found.empty() && !state.dbBehind) return;
    bool written = false;
    if (state.infWritten) {
        const bool whole = state.dbBehind && !state.dbPartial;
        written = whole ? CreateDatabase(device, CurrentSelDb()) : UpdateDatabase(device, found);
        if (!written) NoteDatabaseFailure(kNotWritten);
    }
    state.dbBehind = !written;
}

void Remember(DEVICE_INFO& device, const DEVICE_INFO& now, std::span<const KVPS_SEL_ENTRY> found,
              const KVPS_SEL_ENTRY& first) {
    SaveDeviceInfo(device, now);
    const std::span<KVPS_SEL_ENTRY> database = CurrentSelDb();
    for (const KVPS_SEL_ENTRY& entry : found)
        database[entry.recordId] = entry;
    SaveDatabase(device, found);
    SaveFirstEntry(device, first);
    if (!AppendSelLog(found)) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Ipmi_sel.log update failure.");
    }
}

// Deciding

/// @param id  out: of the last entry of the log
uint32_t FindLastEntry(const DEVICE_INFO& device, uint16_t* id) {
    WalkGuard guard;
    uint16_t nextId = kLastRecord;
    do {
        KVPS_SEL_ENTRY entry;
        if (const uint32_t rc = ReadPlain(device, nextId, &nextId, &entry)) return rc;
        *id = entry.recordId;
    } while (nextId != kLastRecord && guard.Enter(nextId));
    return 0;
}

/// Asks whether the log is still as it was. The reservation does not tell on every controller.
/// @param info       as it was heard
/// @param unchanged  out: nothing has been logged or erased since
uint32_t AskWhetherUnchanged(const DEVICE_INFO& device, const KVPS_SEL_INFO& info, bool& unchanged) {
    KVPS_SEL_INFO now = {};
    LetOthersIn();
    const uint32_t rc = KvPsLockAndGetSelInfo(kFunction, device.address, &now);
    unchanged = rc == 0 && now.entries == info.entries && now.lastAddition == info.lastAddition;
    return rc;
}

/// Meets a device for the first time: what its log holds is old. A log that grows meanwhile is met by the next poll:
/// its number of entries and its last one must belong together.
uint32_t MeetDevice(DEVICE_INFO& device, const KVPS_SEL_INFO& info, const KVPS_SEL_ENTRY& first) {
    DEVICE_INFO met = device;
    met.nextSelId = 0;
    met.lastTimeStamp = NonZeroTime(info.lastAddition);
    // Of a log that was cleared under our eyes all that it holds has come since.
    met.selCount = CurrentSelState().cleared ? uint16_t{0} : info.entries;
    if (met.selCount > 0) {
        if (const uint32_t rc = FindLastEntry(device, &met.nextSelId)) return rc;
        bool unchanged = false;
        if (const uint32_t rc = AskWhetherUnchanged(device, info, unchanged); rc != 0 || !unchanged) return rc;
    }
    SaveDeviceInfo(device, met);
    SaveFirstEntry(device, first);
    return 0;
}

/// Steps past the entry that was taken last.
/// @param next   out: nextSelId is where to go on
/// @param count  out: 0 when there is nothing behind it
uint32_t StepPastLastEntry(DEVICE_INFO& next, const KVPS_SEL_INFO& info, uint32_t& count) {
    const uint16_t last = next.nextSelId;
    KVPS_SEL_ENTRY entry;
    const uint32_t rc = ReadPlain(next, last, &next.nextSelId, &entry);
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
uint32_t FindNewEntries(DEVICE_INFO& next, const KVPS_SEL_INFO& info, const KVPS_SEL_ENTRY& first, uint32_t& count) {
    const uint32_t taken = next.selCount;
    const bool sameFirst = SameEntry(first, SavedFirstEntry(next));
    next.selCount = info.entries;
    count = 0;
    if (taken == info.entries && sameFirst) return 0;
    count = info.entries;
    if (taken > info.entries || !sameFirst || taken == 0) {  // cleared or rewritten, or nothing taken yet
        next.nextSelId = 0;
        return 0;
    }
    count -= taken;
    return StepPastLastEntry(next, info, count);
}

}  // namespace

uint32_t GetSelByDeviceInfo(DEVICE_INFO* device, uint32_t n, KVPS_SEL_ENTRY* entries) {
    SelDeviceState& state = CurrentSelState();
    state.read = state.found = state.withheld = 0;
    WalkGuard guard;
    uint32_t result = 0;
    uint16_t nextId = kLastRecord;
    for (uint16_t id = device->nextSelId; state.read < n && id != kLastRecord && guard.Enter(id); id = nextId) {
        if (IsStopMarkerMatched() || ShallEnd()) break;
        KVPS_SEL_ENTRY entry;
        LetOthersIn();
        const uint32_t rc =
            ReadSelEntry(kFunction, device->address, state.reservation, id, &nextId, &entry, state.readFlags);
        const bool known = rc == MakeResult(kFunction, kReasonRedetected);
        if (rc != 0 && !known) {
            TraceSelFailure("KvPsLockAndGetSelEntry", rc);
            result = rc;
            break;
        }
        ++state.read;
        device->nextSelId = entry.recordId;
        device->lastTimeStamp = NonZeroTime(TimeOf(entry));
        if (known) continue;
        if (MatchStopMarkers(entry)) state.withheld = 1;
        entries[state.found++] = entry;
    }
    device->selCount = static_cast<uint16_t>(device->selCount - (n - state.read));
    return result;
}

namespace {

/// Reads the new entries, remembers them, and adds them to those to hand out.
/// @param next  what FindNewEntries gave
uint32_t TakeEntries(DEVICE_INFO& device, DEVICE_INFO next, uint32_t count, const KVPS_SEL_ENTRY& first,
                     SelTable& table) {
    KVPS_SEL_ENTRY* const room = table.Grow(count);
    if (room == nullptr) return PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    const uint32_t result = GetSelByDeviceInfo(&next, count, room);
    const SelDeviceState& state = CurrentSelState();
    if (state.read == 0) return result;
    table.Hold();
    Remember(device, next, {room, state.found}, first);
    table.Keep(state.found - state.withheld);
    return result;
}

/// Clears a log that is nearly full, if all of it was taken.
uint32_t ClearWhenFull(const DEVICE_INFO& device, const KVPS_SEL_INFO& info, const KVPS_SEL_ENTRY& first) {
    const uint32_t used = info.entries * uint32_t{sizeof(KVPS_SEL_ENTRY)};
    if (used == 0 || device.selCount != info.entries || !SameEntry(first, CurrentSelState().first)) return 0;
    if (used * 100 / (used + info.freeSpace) <= kPercentOfFullLog && info.entries < kEntriesOfFullLog) return 0;
    bool unchanged = false;  // what has been logged since would be erased unseen
    if (const uint32_t rc = AskWhetherUnchanged(device, info, unchanged); rc != 0 || !unchanged) return rc;
    uint8_t progress = 0;
    const uint32_t rc =
        KvPsLockAndClearSel(kFunction, device.address, CurrentSelState().reservation, kEraseInitiate, &progress);
    if (rc != 0) TraceSelFailure("KvPsLockAndClearSel", rc);
    return rc;
}

/// Takes the new entries of a log that is known.
uint32_t TakeNewEntries(DEVICE_INFO& device, const KVPS_SEL_INFO& info, const KVPS_SEL_ENTRY& first, SelTable& table) {
    DEVICE_INFO next = device;
    uint32_t count = 0;
    if (const uint32_t rc = FindNewEntries(next, info, first, count)) return rc;
    if (count > 0) return IsStopMarkerMatched() || ShallEnd() ? 0 : TakeEntries(device, next, count, first, table);
    if (!CurrentSelState().infWritten) {  // it could not be before
        SaveDeviceInfo(device, device);
        SaveDatabase(device, {});
    }
    SaveFirstEntry(device, first);
    return 0;
}

/// Adds the new entries of the current device.
uint32_t kvPsGetSelDeviceEntries(DEVICE_INFO* device, SelTable& table) {
    KVPS_SEL_INFO info = {};
    if (const uint32_t rc = ReserveAndGetInfo(*device, kFunction, &info)) return rc;
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_POLL, "SelCount:%d", info.entries);
    SavedFirstEntry(*device);
    KVPS_SEL_ENTRY first = kNoFirstEntry;
    uint16_t nextId = kLastRecord;
    if (info.entries > 0) {
        if (const uint32_t rc = ReadPlain(*device, 0, &nextId, &first)) return rc;
    }
    uint32_t result = 0;
    if (device->lastTimeStamp == 0) {
        result = MeetDevice(*device, info, first);
    } else if (info.entries == 0) {
        DEVICE_INFO empty = *device;
        empty.selCount = 0;
        empty.nextSelId = 0;
        SaveDeviceInfo(*device, empty);
        SaveFirstEntry(*device, first);
    } else {
        result = TakeNewEntries(*device, info, first, table);
    }
    return result != 0 ? result : ClearWhenFull(*device, info, first);
}

uint32_t PollDevice(uint32_t index, SelTable& table) {
    ChooseSelDevice(index);
    CurrentSelState().cleared = false;
    if (const uint32_t rc = LoadSELDatabase(&g_stSelDev[index])) return rc;
    return kvPsGetSelDeviceEntries(&g_stSelDev[index], table);
}

/// @return 0 when every device was read, or failed for good; the first cancellation otherwise
uint32_t PollDevices(SelTable& table) {
    const uint32_t devices = std::min(g_dwSelDevCnt, kMaxDevices);
    std::bitset<kMaxDevices> pending;
    for (uint32_t i = 0; i < devices; ++i) {
        pending.set(i);
        ChooseSelDevice(i);
        CurrentSelState().readFlags = KVPS_SEL_CHECK_DATABASE | KVPS_SEL_REPORT_REDETECTION;
    }
    uint32_t cancelled = 0;
    for (int pass = 0; pass < kPasses && pending.any(); ++pass) {
        for (uint32_t i = 0; i < devices; ++i) {
            if (!pending[i]) continue;
            const uint32_t rc = PollDevice(i, table);
            pending[i] = IsRefusedWith(rc, kReservationCancelled);
            if (pending[i] && cancelled == 0) cancelled = rc;
        }
    }
    return pending.any() ? cancelled : 0;
}

/// Holds the bracket that the commands of a poll share.
class PollBracket {
public:
    PollBracket() { g_pollBracket = &bracket_; }
    ~PollBracket() { g_pollBracket = nullptr; }
    PollBracket(const PollBracket&) = delete;
    PollBracket& operator=(const PollBracket&) = delete;
    /// False also when it was lost on the way.
    explicit operator bool() const { return static_cast<bool>(bracket_); }

private:
    IpmiBracket bracket_;
};

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
    const PollBracket bracket;
    uint32_t result = bracket ? PollDevices(table) : 0;
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
