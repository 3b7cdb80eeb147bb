// The SEL database as others see it: start and end, the current device, single operations on a log.

#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"

#include <algorithm>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "lib_driverIF/KvPltfSvcLibPilot2.h"
#include "libplatform/PXR_trace.h"

using namespace ktx_ipmi;

namespace {

uint32_t g_selDeviceIdx = 0;  // guarded by g_selMutex

/// Runs one command in a bracket of its own.
template <typename Command>
uint32_t Locked(uint32_t function, Command command) {
    const IpmiBracket bracket;
    if (!bracket) return ReportNotOpened(MakeResult(function & kFunctionNumbers, service_reason::kNotOpened));
    return command(bracket.Handle());
}

}  // namespace

void InitializeSELDatabase() {
    const std::lock_guard lock(g_selMutex);
    ForgetLogs();
    g_selDeviceIdx = 0;
}

void TerminateSELDatabase() {
    const std::lock_guard lock(g_selMutex);
    for (uint32_t i = 0; i < kMaxDevices; ++i) {
        const SelLog log(i);
        if (SaveWhatIsBehind(log)) log.FreeDatabase();  // else it is all that knows what was handed out
    }
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
        const SelLog log(i);
        const uint32_t rc = ReadDeviceInfo(log.Device(), log.State().infWritten);
        log.State().infUnread = rc != 0;
        if (rc != 0) PXR_ReportError(rc);
        if (result == 0) result = rc;
    }
    return result;
}

void SetSelDeviceIdx(uint32_t index) {
    const std::lock_guard lock(g_selMutex);
    g_selDeviceIdx = index;
}

bool IsNotifiedSEL(const KVPS_SEL_ENTRY* entry) {
    const std::lock_guard lock(g_selMutex);
    return entry != nullptr && SelLog(g_selDeviceIdx).Knows(*entry);
}

void RemoveNotifiedSEL(unsigned long* count, KVPS_SEL_ENTRY* entries) {
    if (count == nullptr || entries == nullptr) return;
    const std::lock_guard lock(g_selMutex);
    const SelLog log(g_selDeviceIdx);
    const auto end = std::remove_if(entries, entries + *count, [&](const KVPS_SEL_ENTRY& entry) {
        const bool notified = log.Knows(entry);
        if (notified) TraceRedetection(entry);
        return notified;
    });
    const auto left = static_cast<unsigned long>(end - entries);
    const bool removed = left != *count;
    *count = left;
    if (removed) ReportRedetection(log);
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
    const uint32_t rc = Locked(
        function, [=](int handle) { return GetSelEntry(handle, address, reservation, recordId, nextId, entry); });
    return rc != 0 || flags == 0 ? rc : CheckRedetection(SelLog(g_selDeviceIdx), function, *entry, flags);
}

uint32_t KvPsLockAndClearSel(uint32_t function, uint8_t address, uint16_t reservation, uint8_t action,
                             uint8_t* progress) {
    return Locked(function, [=](int handle) { return ClearSel(handle, address, reservation, action, progress); });
}
