// Loading a device's database: from its file, or from the log itself.

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kFunction = fn::kGetSelAllEntries;
constexpr int kAttempts = 4;

/// Reads one entry of a walk. When the reservation was cancelled it reserves anew and goes on, unless the log was
/// cleared meanwhile: the state then says so, and nothing was read.
/// @param info  as it was last heard
uint32_t ReadEntry(const SelLog& log, uint16_t id, uint16_t& nextId, KVPS_SEL_ENTRY& entry, SelInfo& info) {
    for (int attempt = 1;; ++attempt) {
        const uint32_t rc = log.ReadEntry(kFunction, id, nextId, entry);
        if (!IsRefusedWith(rc, kReservationCancelled) || attempt == kAttempts) return rc;
        const uint16_t before = info.entries;
        if (const uint32_t failure = log.ReserveAndGetInfo(kFunction, info)) return failure;
        if (info.entries < before) {
            PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_ERROR, "[Info]KvPsLockAndGetSelInfo() Sel Clear(%d)\n",
                      __LINE__);
            log.State().cleared = true;
            return 0;
        }
    }
}

/// How many entries from the beginning of the log belong into the database. Those behind were logged while nobody
/// looked: as long as the database does not know them they will be handed out.
uint32_t KnownEntries(const SelLog& log, const SelInfo& info, const KVPS_SEL_ENTRY& first) {
    if (log.Device().lastTimeStamp == 0) return kSelDbRecords;  // what is there at first sight is old
    if (log.Device().selCount > info.entries) return 0;
    const FirstEntry compared = CompareFirstEntry(log, first);
    return compared == FirstEntry::kSame || compared == FirstEntry::kUnreadable ? log.Device().selCount : 0;
}

}  // namespace

FirstEntry CompareFirstEntry(const SelLog& log, const KVPS_SEL_ENTRY& first) {
    SelLogState& state = log.State();
    if (!state.first && !state.firstMissing) {
        const SelFile file = ReadFirstEntry(log.Device(), state.first);
        state.firstMissing = file == SelFile::kAbsent;
        state.firstWritten = file == SelFile::kGood;
    }
    if (state.first) return SameEntry(first, *state.first) ? FirstEntry::kSame : FirstEntry::kOther;
    return state.firstMissing ? FirstEntry::kMissing : FirstEntry::kUnreadable;
}

uint32_t GetSel(const SelLog& log) {
    log.State().cleared = false;
    SelInfo info = {};
    if (const uint32_t rc = log.ReserveAndGetInfo(kFunction, info)) return rc;
    if (info.entries == 0) return 0;
    WalkGuard guard;
    uint32_t known = kSelDbRecords;
    uint16_t nextId = kLastRecord;
    for (uint16_t id = 0; id != kLastRecord && guard.Enter(id); id = nextId) {
        if (ShallEnd()) return PXR_ReportError(MakeResult(kFunction, service_reason::kTerminating));
        KVPS_SEL_ENTRY entry;
        const uint32_t rc = ReadEntry(log, id, nextId, entry, info);
        if (IsBadEntry(rc)) return 0;  // it hides those behind it
        if (rc != 0) return rc;
        if (log.State().cleared) return 0;
        if (id == 0) known = KnownEntries(log, info, entry);
        if (known-- == 0) return 0;
        MatchStopMarkers(entry);
        log.Database()[entry.recordId] = entry;
    }
    return 0;
}

uint32_t LoadSELDatabase(const SelLog& log) {
    SelLogState& state = log.State();
    if (state.loaded) return 0;
    if (!log.MakeDatabase()) return PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    if (log.Device().lastTimeStamp != 0) {
        const SelFile file = ReadDatabase(log.Device(), log.Database());
        const bool unreadable = file == SelFile::kUnreadable;
        if (file == SelFile::kDamaged || (unreadable && !state.dbPartial)) {
            NoteDatabaseFailure(MakeResult(kFunction, Reason::FileRead));
        }
        if (file == SelFile::kDamaged) state.dbBehind = true;
        state.dbPartial = unreadable;
        state.loaded = file == SelFile::kGood || file == SelFile::kDamaged;
        if (state.loaded || unreadable) return 0;
    }
    if (const uint32_t rc = GetSel(log)) return rc;
    state.dbBehind = !CreateDatabase(log.Device(), log.Database());
    if (state.dbBehind) NoteDatabaseFailure(MakeResult(kFunction, Reason::FileWrite));
    state.loaded = true;
    return 0;
}

}  // namespace ktx_ipmi
