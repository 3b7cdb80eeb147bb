// Entries that were handed out before and are seen again: they are withheld, and what may explain it is kept.

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "common/PXR_thread_internal.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kMessageRedetected = 64021;

}  // namespace

bool IsNotified(const KVPS_SEL_ENTRY& entry) {
    const std::span<const KVPS_SEL_ENTRY> database = CurrentSelDb();
    return !database.empty() && SameEntry(database[entry.recordId], entry);
}

void TraceRedetection(const KVPS_SEL_ENTRY& entry) {
    std::array<uint8_t, sizeof entry> bytes;
    memcpy(bytes.data(), &entry, sizeof entry);
    char text[3 * sizeof entry + 1] = "";
    for (size_t i = 0; i < bytes.size(); ++i)
        snprintf(text + 3 * i, sizeof text - 3 * i, "%02X ", bytes[i]);
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT,
              "The processed system event log was detected again. SEL=%s\n", text);
}

void ReportRedetection() {
    const CancelBlock block;
    PutSyslogMessage(kMessageRedetected, LOG_INFO);
    CopyFilesOfRedetection(CurrentSelDevice());
}

}  // namespace ktx_ipmi

bool IsNotifiedSEL(const KVPS_SEL_ENTRY* entry) {
    const std::lock_guard lock(g_selMutex);
    return entry != nullptr && ktx_ipmi::IsNotified(*entry);
}

void RemoveNotifiedSEL(unsigned long* count, KVPS_SEL_ENTRY* entries) {
    if (count == nullptr || entries == nullptr) return;
    const std::lock_guard lock(g_selMutex);
    const auto end = std::remove_if(entries, entries + *count, [](const KVPS_SEL_ENTRY& entry) {
        const bool notified = ktx_ipmi::IsNotified(entry);
        if (notified) ktx_ipmi::TraceRedetection(entry);
        return notified;
    });
    const auto left = static_cast<unsigned long>(end - entries);
    const bool removed = left != *count;
    *count = left;
    if (removed) ktx_ipmi::ReportRedetection();
}
