// The plug-in's entry points.

#include "platform_IF/src/platform_if.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <span>
#include <utility>

#include "common/PXR_data_access_internal.h"
#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_texts.h"
#include "kvdatafactory/Alert/KvAfHooks.h"
#include "lib_driverIF/KvPltfSvcIpmiCall.h"
#include "lib_driverIF/KvPltfSvcSmbiosMain.h"
#include "libplatform/PXR_trace.h"
#include "platform_IF/src/ipmi_if.h"
#include "platform_IF/src/platform_if_Classes.h"
#include "platform_IF/src/watch_config.h"

char* g_pszUnknown = nullptr;
char* g_pszNormal = nullptr;

namespace {

constexpr uint32_t kIpmiEventInterval = 10000;  // ms; the host always polls the event log

constexpr size_t kClassesAtMost = 61;  // class ids are 0 to 60

constexpr KvPluginVersion g_PltIfVersion{"libplatform", 1};

KvAlertInterval PlatformAlertInterval[] = {
    {KV_ALERT_IPMI_EVENTS, 0}, {KV_ALERT_CPU_LOAD, 0}, {KV_ALERT_FILE_SYSTEM, 0},
    {KV_ALERT_MEMORY, 0},      {KV_ALERT_SYSLOG, 0},   {0, 0},
};

/// Runs an entry point between its entry and exit lines.
template <typename Body>
int Traced(const char* name, unsigned number, Body body) {
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL, "[IN ]%s() (%08X)", name, number);
    const uint32_t result = body();
    PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_CALL, "[OUT]%s() (%08X) =%08X", name, number, result);
    return static_cast<int>(result);
}

void FreeWords() {
    free(std::exchange(g_pszUnknown, nullptr));
    free(std::exchange(g_pszNormal, nullptr));
}

// A word that the catalogue lacks stays null: its failure has been traced, and the properties that show it stay empty.
void LoadWords() {
    FreeWords();
    g_pszUnknown = texts::Fetch(GetLocale(), texts::Id::WordUnknown).release();
    g_pszNormal = texts::Fetch(GetLocale(), texts::Id::WordNormal).release();
}

/// Starts what the classes read from, lowest first. Without the firmware's table the rest stays down; without a way to
/// the BMC the firmware's structures are there all the same.
uint32_t StartLayers() {
    if (!ktx_smbios::InitSmbiosLib()) return PXR_ReportError(MakeResult(fn::kNone, Reason::SmbiosStart));
    const bool reachesBmc = ktx_ipmi::InitIpmiLib();
    const uint32_t noWay = reachesBmc ? 0 : PXR_ReportError(MakeResult(fn::kNone, Reason::IpmiStart));
    const uint32_t result = InitIpmiIf();
    return noWay != 0 ? noWay : result;
}

template <typename Watch>
uint32_t IntervalOf(const Watch* watch) {
    if (watch == nullptr || watch->enabled != 1) return 0;
    const uint64_t milliseconds = uint64_t{watch->interval} * 1000;
    return milliseconds > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max()
                                                               : static_cast<uint32_t>(milliseconds);
}

// The host may read the table at any time: each word changes as one.
void SetInterval(KvAlertKind kind, uint32_t milliseconds) {
    for (KvAlertInterval& row : PlatformAlertInterval) {
        if (row.kind == static_cast<uint32_t>(kind)) std::atomic_ref(row.milliseconds).store(milliseconds);
    }
}

// False, and nothing changed, when the list of file systems cannot be copied.
bool TakeWatchConfiguration(const KvWatchConfiguration& watches) {
    if (!SetFSAlertConfig(watches.fileSystems)) return false;
    SetMemAlertConfig(watches.memory);
    SetCpuAlertConfig(watches.cpu);
    SetSyslogDogAlertConfig(watches.syslog);
    SetInterval(KV_ALERT_IPMI_EVENTS, kIpmiEventInterval);
    SetInterval(KV_ALERT_CPU_LOAD, IntervalOf(watches.cpu));
    SetInterval(KV_ALERT_FILE_SYSTEM, IntervalOf(watches.fileSystems));
    SetInterval(KV_ALERT_MEMORY, IntervalOf(watches.memory));
    SetInterval(KV_ALERT_SYSLOG, IntervalOf(watches.syslog));
    return true;
}

uint32_t HandleMessage(int message, void* param, void** out) {
    switch (message) {
        case KV_MESSAGE_WATCH_CONFIGURATION:
            if (param == nullptr) return PXR_ReportError(MakeResult(fn::kSendMessage, Reason::BadArgument));
            if (!TakeWatchConfiguration(*static_cast<const KvWatchConfiguration*>(param))) {
                return PXR_ReportError(MakeResult(fn::kSendMessage, Reason::OutOfMemory));
            }
            if (out != nullptr) *out = PlatformAlertInterval;
            return 0;
        case KV_MESSAGE_WATCHDOG_WRITER:
            pPXR_Write_ProcessAtErrorExecWDTTime = reinterpret_cast<WatchdogWriter>(param);
            return 0;
        case KV_MESSAGE_WATCHDOG_CLEANER:
            pPXR_Delete_ProcessAtErrorExecInfo = reinterpret_cast<WatchdogCleaner>(param);
            return 0;
        default:
            return 0;
    }
}

uint32_t ServeRequest(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* param, int mode) {
    const ClassRow* const row = FindClass(e->classId);
    const int expected = row != nullptr ? row->mode : KV_MODE_QUERY;
    if (mode != expected) return PXR_ReportError(MakeResult(fn::kExecCommand, Reason::BadArgument));
    return DispatchCommand(e, param);
}

}  // namespace

int InitLib() {
    return Traced("InitLib(libplatform)", 0, [] {
        LoadWords();
        const uint32_t result = StartLayers();
        if (result == 0) PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_EVENT, "libplatform initialized.\n");
        return result;
    });
}

int TerminateLib() {
    return Traced("TerminateLib(libplatform)", 0, [] {
        FreeWords();
        TerminateIpmiIf();
        ktx_ipmi::TerminateIpmiLib();
        PXR_trace(PXR_TRACE_MASK_PLUGIN, PXR_TRACE_LEVEL_EVENT, "libplatform terminated.\n");
        return 0u;
    });
}

const KvPluginVersion* GetVersion() {
    return &g_PltIfVersion;
}

int PXR_GetCommandList(_PXR_COMMAND_LIST** out) {
    return Traced("PXR_GetCommandList(libplatform)", 0, [out] {
        std::array<uint32_t, kClassesAtMost> ids{};
        const std::span<const ClassRow> classes = Classes();
        std::ranges::transform(classes, ids.begin(), &ClassRow::id);
        return static_cast<uint32_t>(AllocCommandList(ids.data(), static_cast<int>(classes.size()), out));
    });
}

int SendMessage(int message, void* param, void** out) {
    return Traced("SendMessage(libplatform)", 0x10000, [=] { return HandleMessage(message, param, out); });
}

int PXR_ExecCommand(_KVCIM_ENUM* e, const _PXR_COMMAND_PARAM* param, int mode) {
    static constexpr const char* kName = "PXR_ExecCommand(libplatform)";
    static constexpr unsigned kNumber = 0x20000;
    uint32_t result = 0;
    int level = PXR_TRACE_LEVEL_CALL;
    if (e == nullptr) {
        result = PXR_ReportError(MakeResult(fn::kExecCommand, Reason::NullArgument));
    } else {
        if (e->classId == KTX_CLS_ALERT_RECORD) level = PXR_TRACE_LEVEL_POLL;
        PXR_trace(PXR_TRACE_MASK_PLUGIN, level, "[IN ]%s() (%08X) Class=%s", kName, kNumber, ClassName(e->classId));
        TraceEnum(PXR_TRACE_MASK_PLUGIN, e);
        result = ServeRequest(e, param, mode);
    }
    PXR_trace(PXR_TRACE_MASK_PLUGIN, level, "[OUT]%s() (%08X) =%08X", kName, kNumber, result);
    if (e != nullptr) TraceEnum(PXR_TRACE_MASK_PLUGIN, e);
    return static_cast<int>(result);
}

const KvAlertInterval* PXR_GetAlertIntervalLevel() {
    return PlatformAlertInterval;
}
