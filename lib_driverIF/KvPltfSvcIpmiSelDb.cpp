// State of the SEL database, stop markers, and single operations on a log.

#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
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

IpmiBracket* g_pollBracket = nullptr;

namespace {

constexpr uint32_t kFunctionNumbers = 0x3FF;

// Guarded by g_selMutex.
uint32_t g_selDeviceIdx = 0;
std::array<SelDeviceState, kMaxDevices> g_selState;

void FreeDatabases() {
    for (uint32_t i = 0; i < kMaxDevices; ++i) {
        free(std::exchange(g_pstSelDb[i], nullptr));
        g_selState[i].loaded = false;
    }
}

/// Runs one command in a bracket of its own, which costs nothing inside the one of a poll.
template <typename Command>
uint32_t Locked(uint32_t function, Command command) {
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(function & kFunctionNumbers, service_reason::kNotOpened));
    return command(bracket.Handle());
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

DEVICE_INFO& CurrentSelDevice() {
    return g_stSelDev[g_selDeviceIdx];
}

SelDeviceState& CurrentSelState() {
    return g_selState[g_selDeviceIdx];
}

std::span<KVPS_SEL_ENTRY> CurrentSelDb() {
    KVPS_SEL_ENTRY* const database = g_pstSelDb[g_selDeviceIdx];
    return {database, database != nullptr ? kSelDbRecords : 0};
}

void ChooseSelDevice(uint32_t index) {
    g_selDeviceIdx = index < kMaxDevices ? index : 0;
}

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

void TraceSelFailure(const char* function, uint32_t code, std::source_location where) {
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_ERROR, "[Error]%s() failed. dwErrCode=0x%08x(%d)\n", function,
              code, static_cast<int>(where.line()));
}

uint32_t ReserveAndGetInfo(const DEVICE_INFO& device, uint32_t function, KVPS_SEL_INFO* info) {
    uint16_t& reservation = CurrentSelState().reservation;
    reservation = 0;
    if (device.reserve != 0) {
        LetOthersIn();
        if (const uint32_t rc = KvPsLockAndReserveSel(function, device.address, &reservation)) {
            TraceSelFailure("KvPsLockAndReserveSel", rc);
            return rc;
        }
    }
    LetOthersIn();
    const uint32_t rc = KvPsLockAndGetSelInfo(function, device.address, info);
    if (rc != 0) TraceSelFailure("KvPsLockAndGetSelInfo", rc);
    return rc;
}

uint32_t ReadSelEntry(uint32_t function, uint8_t address, uint16_t reservation, uint16_t recordId, uint16_t* nextId,
                      KVPS_SEL_ENTRY* entry, uint8_t& flags) {
    const uint32_t rc = Locked(
        function, [&](int handle) { return GetSelEntry(handle, address, reservation, recordId, nextId, entry); });
    if (rc != 0) return rc;
    if ((flags & KVPS_SEL_CHECK_DATABASE) == 0 || !IsNotified(*entry)) return 0;
    TraceRedetection(*entry);
    if ((flags & KVPS_SEL_REPORT_REDETECTION) != 0) ReportRedetection();
    flags = static_cast<uint8_t>(flags & ~KVPS_SEL_REPORT_REDETECTION);
    return PXR_ReportError(MakeResult(function & kFunctionNumbers, kReasonRedetected));
}

}  // namespace ktx_ipmi

using namespace ktx_ipmi;

void InitializeSELDatabase() {
    const std::lock_guard lock(g_selMutex);
    FreeDatabases();
    g_selState.fill({});
    g_eSelDbFileStat = kSelDbGood;
    ChooseSelDevice(0);
}

void TerminateSELDatabase() {
    const std::lock_guard lock(g_selMutex);
    FreeDatabases();
}

uint32_t LoadSelDeviceInfo() {
    if (g_dwSelDevCnt == 0) return 0;
    if (KvHardWareCheck() == kHardwareChanged) {  // it reads FRU fields: before the mutex
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
                  "The hardware was replaced. The saved state of the event logs is not used.");
        // In this order: whatever ends the process, no start takes the old board's state for that of the new one.
        const std::lock_guard lock(g_selMutex);
        if (RemoveSavedStates()) RememberHardware();
        return PXR_ReportError(MakeResult(fn::kLoadSelDeviceInfo, kReasonHardwareReplaced));
    }
    const std::lock_guard lock(g_selMutex);
    uint32_t result = 0;
    for (uint32_t i = 0; i < std::min(g_dwSelDevCnt, kMaxDevices); ++i) {
        const uint32_t rc = ReadDeviceInfo(g_stSelDev[i], g_selState[i].infWritten);
        if (result == 0) result = rc;
    }
    return result;
}

void SetSelDeviceIdx(uint32_t index) {
    const std::lock_guard lock(g_selMutex);
    ChooseSelDevice(index);
}

bool CheckSelMaskList(uint32_t kind) {
    return std::ranges::any_of(Markers(), [kind](SelMarker& marker) {
        return marker.kind == kind && std::atomic_ref(marker.matched).load() != 0;
    });
}

uint32_t IsSensorExist(uint8_t owner, uint8_t lun, uint8_t sensor, unsigned long* flag) {
    if (flag == nullptr) return PXR_ReportError(MakeResult(fn::kNone, Reason::NullArgument));
    *flag = 0;
    switch (FindSdr(owner, lun, sensor, nullptr)) {
        case SdrLookup::kFound:
            *flag = 1;
            return 0;
        case SdrLookup::kNoTable:
            return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoRecords));
        case SdrLookup::kNoNumber:
            return PXR_ReportError(MakeResult(fn::kNone, service_reason::kNoSuchSensor));
        case SdrLookup::kNoDevice:
        case SdrLookup::kEmpty:
            break;
    }
    return 0;
}

uint32_t KvPsLockAndReserveSel(uint32_t function, uint8_t address, uint16_t* reservation) {
    return Locked(function, [=](int handle) { return ReserveSel(handle, address, reservation); });
}

uint32_t KvPsLockAndGetSelInfo(uint32_t function, uint8_t address, KVPS_SEL_INFO* info) {
    SelInfo answer = {};
    SelInfo* const out = info != nullptr ? &answer : nullptr;
    const uint32_t rc = Locked(function, [=](int handle) { return GetSelInfo(handle, address, out); });
    if (info != nullptr) {
        *info = {answer.lastAddition, answer.lastErase, answer.entries,
                 answer.freeSpace,    answer.version,   answer.operationSupport};
    }
    return rc;
}

uint32_t KvPsLockAndGetSelEntry(uint32_t function, uint8_t address, uint16_t reservation, uint16_t recordId,
                                uint16_t* nextId, KVPS_SEL_ENTRY* entry, uint8_t flags) {
    std::unique_lock lock(g_selMutex, std::defer_lock);
    if (flags != 0) lock.lock();  // an entry as such needs nothing of what the mutex guards
    return ReadSelEntry(function, address, reservation, recordId, nextId, entry, flags);
}

uint32_t KvPsLockAndClearSel(uint32_t function, uint8_t address, uint16_t reservation, uint8_t action,
                             uint8_t* progress) {
    return Locked(function, [=](int handle) { return ClearSel(handle, address, reservation, action, progress); });
}
