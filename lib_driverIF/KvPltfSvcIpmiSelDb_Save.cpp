// What was taken of a log, put on disk: the state, the entries, the first entry, in this order.

#include <algorithm>
#include <cstring>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_thread_internal.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb_Internal.h"
#include "libplatform/PXR_trace.h"

namespace ktx_ipmi {

namespace {

constexpr uint32_t kNotWritten = MakeResult(fn::kGetSelDeviceEntries, Reason::FileWrite);

void SaveDeviceInfo(const SelLog& log, const DEVICE_INFO& now) {
    DEVICE_INFO& device = log.Device();
    SelLogState& state = log.State();
    if (memcmp(&device, &now, sizeof now) == 0 && state.infWritten) return;
    state.infWritten = WriteDeviceInfo(now);
    if (!state.infWritten) NoteDatabaseFailure(kNotWritten);
    device = now;
}

/// A file that fell behind, because the state or the entries could not be written, is written whole: entries that it
/// did not know would be taken for new ones when the log shows them again.
/// @param found  entries that are in memory since the last call
void SaveDatabase(const SelLog& log, std::span<const KVPS_SEL_ENTRY> found) {
    SelLogState& state = log.State();
    if (found.empty() && !state.dbBehind) return;
    const bool whole = state.dbBehind && !state.dbPartial;
    bool written = false;
    if (state.infWritten) {
        written = whole ? CreateDatabase(log.Device(), log.Database()) : UpdateDatabase(log.Device(), found);
        if (!written) NoteDatabaseFailure(kNotWritten);
    }
    if (whole || !state.dbBehind) state.dbBehind = !written;
}

// A first entry belongs to a state: without the one on disk the other would make later entries look old.
void SaveFirstEntry(const SelLog& log, const KVPS_SEL_ENTRY& first) {
    SelLogState& state = log.State();
    if (state.first && SameEntry(first, *state.first) && state.firstWritten) return;
    state.first = first;
    state.firstWritten = state.infWritten && WriteFirstEntry(log.Device(), first);
}

}  // namespace

void Save(const SelLog& log, const DEVICE_INFO& now, const KVPS_SEL_ENTRY& first,
          std::span<const KVPS_SEL_ENTRY> found) {
    const CancelBlock block;  // memory and disk say the same
    SaveDeviceInfo(log, now);
    for (const KVPS_SEL_ENTRY& entry : found)
        log.Database()[entry.recordId] = entry;
    SaveDatabase(log, found);
    SaveFirstEntry(log, first);
    if (!AppendSelLog(found)) {
        PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_ERROR, "Ipmi_sel.log update failure.");
    }
}

bool SaveWhatIsBehind(const SelLog& log) {
    const SelLogState& state = log.State();
    if (log.Database().empty() || log.Device().lastTimeStamp == 0) return true;  // nothing was taken in this process
    const CancelBlock block;
    SaveDeviceInfo(log, log.Device());
    SaveDatabase(log, {});
    return state.infWritten && !state.dbBehind;
}

}  // namespace ktx_ipmi
