// The event logs as the process knows them, and the commands on one of them.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

KVPS_SEL_ENTRY* g_pstSelDb[kMaxDevices] = {};
std::atomic<SelDbFileState> g_eSelDbFileStat{kSelDbGood};
std::mutex g_selMutex;

// System event, generator 0x0001, revision 4, sensor type 0xF4, sensor 0xE0, event type 7, data A8 52.
SelMarker fs_stSeldef[2] = {
    {kSelMarkerRestart,
     {0, 0, 0xFF, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0},
     {0, 0, 0x02, 0, 0, 0, 0, 0x01, 0x00, 0x04, 0xF4, 0xE0, 0x07, 0xA8, 0x52, 0},
     0},
    {},
};

namespace ktx_ipmi {

namespace {

std::array<SelLogState, kMaxDevices> g_selState;  // guarded by g_selMutex

uint32_t Existing(uint32_t index) {
    return index < kMaxDevices ? index : 0;
}

bool Matches(const SelMarker& marker, const std::array<uint8_t, sizeof(KVPS_SEL_ENTRY)>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
        if ((bytes[i] & marker.mask[i]) != marker.value[i]) return false;
    }
    return true;
}

std::span<SelMarker> Markers() {
    return std::span(fs_stSeldef).first(std::size(fs_stSeldef) - 1);
}

}  // namespace

bool SameEntry(const KVPS_SEL_ENTRY& a, const KVPS_SEL_ENTRY& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

void ForgetLogs() {
    for (uint32_t i = 0; i < kMaxDevices; ++i)
        SelLog(i).FreeDatabase();
    g_selState = {};
    g_eSelDbFileStat = kSelDbGood;
}

bool IsBadEntry(uint32_t result) {
    const bool malformed = (result & 0xFFFF) == service_reason::kBadResponse;
    return malformed || (IsRefusal(result) && CheckRecentCompCode() == kCompCodeError);
}

// Stop markers, failures

bool MatchStopMarkers(const KVPS_SEL_ENTRY& entry) {
    std::array<uint8_t, sizeof entry> bytes;
    memcpy(bytes.data(), &entry, sizeof entry);
    for (SelMarker& marker : Markers()) {
        if (Matches(marker, bytes)) std::atomic_ref(marker.matched).store(1);
    }
    return IsStopMarkerMatched();
}

bool IsStopMarkerMatched() {
    return std::ranges::any_of(Markers(),
                               [](SelMarker& marker) { return std::atomic_ref(marker.matched).load() != 0; });
}

void NoteDatabaseFailure(uint32_t code, std::source_location where) {
    PXR_ReportError(code, where);
    SelDbFileState good = kSelDbGood;
    g_eSelDbFileStat.compare_exchange_strong(good, kSelDbFailed);
}

// A log

SelLog::SelLog(uint32_t index, IpmiBracket* bracket)
    : device_(g_stSelDev[Existing(index)]),
      database_(g_pstSelDb[Existing(index)]),
      state_(g_selState[Existing(index)]),
      bracket_(bracket) {}

std::span<KVPS_SEL_ENTRY> SelLog::Database() const {
    return {database_, database_ != nullptr ? kSelDbRecords : 0};
}

bool SelLog::MakeDatabase() const {
    if (database_ == nullptr) database_ = static_cast<KVPS_SEL_ENTRY*>(calloc(kSelDbRecords, sizeof *database_));
    return database_ != nullptr;
}

void SelLog::FreeDatabase() const {
    free(std::exchange(database_, nullptr));
    state_.loaded = false;
}

bool SelLog::Knows(const KVPS_SEL_ENTRY& entry) const {
    return database_ != nullptr && SameEntry(database_[entry.recordId], entry);
}

// Commands

template <typename Command>
uint32_t SelLog::Send(uint32_t function, const char* name, Command command) const {
    const uint32_t rc = bracket_->LetOthersIn() ? command(bracket_->Handle())
                                                : MakeResult(function & kFunctionNumbers, service_reason::kNotOpened);
    if (rc != 0) {
        PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_ERROR, "[Error]%s() failed. dwErrCode=0x%08x(%d)\n", name, rc,
                  __LINE__);
    }
    return rc;
}

uint32_t SelLog::ReserveAndGetInfo(uint32_t function, SelInfo& info) const {
    state_.reservation = 0;
    if (device_.reserve != 0) {
        const uint32_t rc = Send(function, "KvPsLockAndReserveSel", [this](int handle) {
            return ReserveSel(handle, device_.address, &state_.reservation);
        });
        if (rc != 0) return rc;
    }
    return GetInfo(function, info);
}

uint32_t SelLog::GetInfo(uint32_t function, SelInfo& info) const {
    return Send(function, "KvPsLockAndGetSelInfo",
                [&](int handle) { return GetSelInfo(handle, device_.address, &info); });
}

uint32_t SelLog::ReadEntry(uint32_t function, uint16_t id, uint16_t& nextId, KVPS_SEL_ENTRY& entry) const {
    return Send(function, "KvPsLockAndGetSelEntry", [&](int handle) {
        return GetSelEntry(handle, device_.address, state_.reservation, id, &nextId, &entry);
    });
}

uint32_t SelLog::Clear(uint32_t function) const {
    return Send(function, "KvPsLockAndClearSel", [this](int handle) {
        uint8_t progress = 0;
        return ClearSel(handle, device_.address, state_.reservation, kEraseInitiate, &progress);
    });
}

}  // namespace ktx_ipmi

bool IsDatabaseFailureUntold() {
    return g_eSelDbFileStat == kSelDbFailed;
}

bool TakeDatabaseFailure() {
    SelDbFileState failed = kSelDbFailed;
    return g_eSelDbFileStat.compare_exchange_strong(failed, kSelDbReported);
}

bool CheckSelMaskList(uint32_t kind) {
    return std::ranges::any_of(ktx_ipmi::Markers(), [kind](SelMarker& marker) {
        return marker.kind == kind && std::atomic_ref(marker.matched).load() != 0;
    });
}
