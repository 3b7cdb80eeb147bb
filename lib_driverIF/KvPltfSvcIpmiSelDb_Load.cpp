// Loading a device's database: from its file, or from the log itself.

#include <cstdlib>
#include <cstring>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kFunction = fn::kGetSelAllEntries;
constexpr int kAttempts = 4;

bool AllocateDatabase(KVPS_SEL_ENTRY*& database) {
    if (database == nullptr) database = static_cast<KVPS_SEL_ENTRY*>(calloc(kSelDbRecords, sizeof *database));
    return database != nullptr;
}

/// Reads one entry of a walk. When the reservation was cancelled it reserves anew and goes on, unless the log was
/// cleared meanwhile: the state then says so, and nothing was read.
/// @param info  as it was last heard
uint32_t ReadEntry(const DEVICE_INFO& device, uint16_t id, uint16_t* nextId, KVPS_SEL_ENTRY* entry,
                   KVPS_SEL_INFO& info) {
    SelDeviceState& state = CurrentSelState();
    for (int attempt = 1;; ++attempt) {
        uint8_t flags = 0;
        LetOthersIn();
        const uint32_t rc = ReadSelEntry(kFunction, device.address, state.reservation, id, nextId, entry, flags);
        if (rc != 0) TraceSelFailure("KvPsLockAndGetSelEntry", rc);
        if (!IsRefusedWith(rc, kReservationCancelled) || attempt == kAttempts) return rc;
        const uint16_t before = info.entries;
        if (const uint32_t failure = ReserveAndGetInfo(device, kFunction, &info)) return failure;
        if (info.entries < before) {
            PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_ERROR, "[Info]KvPsLockAndGetSelInfo() Sel Clear(%d)\n",
                      __LINE__);
            state.cleared = true;
            return 0;
        }
    }
}

/// How many entries from the beginning of the log belong into the database. Those behind were logged while nobody
/// looked: as long as the database does not know them they will be handed out.
uint32_t KnownEntries(const DEVICE_INFO& device, const KVPS_SEL_INFO& info, const KVPS_SEL_ENTRY& first) {
    if (device.lastTimeStamp == 0) return kSelDbRecords;  // what is there at first sight is old
    if (device.selCount > info.entries || !SameEntry(first, SavedFirstEntry(device))) return 0;
    return device.selCount;
}

}  // namespace

const KVPS_SEL_ENTRY& SavedFirstEntry(const DEVICE_INFO& device) {
    SelDeviceState& state = CurrentSelState();
    if (!state.firstLoaded) {
        const auto saved = ReadFirstEntry(device);
        state.first = saved.value_or(kNoFirstEntry);
        state.firstWritten = saved.has_value();
        state.firstLoaded = true;
    }
    return state.first;
}

uint32_t GetSel(const DEVICE_INFO& device) {
    SelDeviceState& state = CurrentSelState();
    const std::span<KVPS_SEL_ENTRY> database = CurrentSelDb();
    KVPS_SEL_INFO info = {};
    if (const uint32_t rc = ReserveAndGetInfo(device, kFunction, &info)) return rc;
    if (info.entries == 0) return 0;
    WalkGuard guard;
    uint32_t known = kSelDbRecords;
    uint16_t nextId = kLastRecord;
    for (uint16_t id = 0; id != kLastRecord && guard.Enter(id); id = nextId) {
        if (ShallEnd()) return PXR_ReportError(MakeResult(kFunction, service_reason::kTerminating));
        KVPS_SEL_ENTRY entry;
        const uint32_t rc = ReadEntry(device, id, &nextId, &entry, info);
        // An entry that the controller does not have hides those behind it, today and at every further attempt. One
        // that is busy has it later.
        if (IsRefusal(rc) && CheckRecentCompCode() == kCompCodeError) return 0;
        if (rc != 0) return rc;
        if (state.cleared) return 0;
        if (id == 0) known = KnownEntries(device, info, entry);
        if (known-- == 0) return 0;
        MatchStopMarkers(entry);
        database[entry.recordId] = entry;
    }
    return 0;
}

uint32_t LoadSELDatabase(DEVICE_INFO* device) {
    SelDeviceState& state = CurrentSelState();
    if (state.loaded) return 0;
    KVPS_SEL_ENTRY*& memory = g_pstSelDb[device - g_stSelDev];
    if (!AllocateDatabase(memory)) return PXR_ReportError(MakeResult(kFunction, Reason::OutOfMemory));
    const std::span<KVPS_SEL_ENTRY> database(memory, kSelDbRecords);
    if (device->lastTimeStamp != 0) {
        const DatabaseFile file = ReadDatabase(*device, database);
        state.dbBehind = file == DatabaseFile::kDamaged;
        state.dbPartial = file == DatabaseFile::kUnreadable;
        if (state.dbBehind || state.dbPartial) NoteDatabaseFailure(MakeResult(kFunction, Reason::FileRead));
        if (file != DatabaseFile::kAbsent) {
            state.loaded = true;
            return 0;
        }
    }
    if (const uint32_t rc = GetSel(*device)) {
        memset(database.data(), 0, database.size_bytes());
        return rc;
    }
    state.dbBehind = !CreateDatabase(*device, database);
    if (state.dbBehind) NoteDatabaseFailure(MakeResult(kFunction, Reason::FileWrite));
    state.loaded = true;
    return 0;
}

}  // namespace ktx_ipmi
