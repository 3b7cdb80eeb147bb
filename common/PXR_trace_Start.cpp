// Start and end of tracing: with its settings, for the agent, for tools with a single trace file, and for the edit tool.
#include <limits.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "common/PXR_texts.h"
#include "common/PXR_trace_Connection.h"
#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_trace.h"

using trace::CallerGuard;

namespace {

constexpr const char* kVariantLink = "/opt/velmora/lantrel/lib/lib10platform.so";
constexpr std::string_view kVariantWithIpmiLog = "libplatform.so.1.0.0";

/// Whether this installation keeps an IPMI log: the one whose plug-in link leads to the first generation of the library.
bool KeepsIpmiLog() {
    char target[PATH_MAX];
    const ssize_t length = readlink(kVariantLink, target, sizeof target);
    return length > 0 &&
           std::string_view(target, static_cast<size_t>(length)).find(kVariantWithIpmiLog) != std::string_view::npos;
}

/// Opens the IPMI log, or the edit tool's in its place; a failure goes to the system log.
bool OpenIpmiLog(const PXR_trace_config& config) {
    const bool editTool = (trace::State() & trace::kEditTool) != 0;
    const int error =
        trace::g_ipmiLog.Open(editTool ? PXR_TRACE_IPMI_EDIT_LOG : PXR_TRACE_IPMI_LOG, config, trace::ReportFailingLog);
    if (error == 0) return true;
    trace::CommandName command;
    trace::CopyCommandName(command);
    char number[12];
    snprintf(number, sizeof number, "%d", error);
    texts::Log<texts::Id::IpmiLogNotOpened>(LOG_ERR, command, "open", number);
    return false;
}

}  // namespace

void trace::ReportFailingLog(const char* path) {
    texts::Log<texts::Id::LogFileFails>(LOG_ERR, path);
}

int PXR_trace_init() {
    const CallerGuard guard;
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    if (KeepsIpmiLog()) OpenIpmiLog(config);
    if (!trace::g_connection.Open()) return -1;
    trace::g_state.fetch_or(trace::kSwitchedOn, std::memory_order_relaxed);
    return 0;
}

int PXR_trace_term() {
    const CallerGuard guard;
    const std::lock_guard lock(trace::g_connection.Mutex());
    trace::g_state.fetch_and(~trace::kSwitchedOn, std::memory_order_relaxed);
    trace::g_ipmiLog.Close();
    trace::g_connection.CloseLocked();
    return 0;
}

int PXR_single_trace_init(const char* path) {
    const CallerGuard guard;
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    return trace::g_singleTrace.Open(path, config, trace::ReportFailingLog) == 0 ? 0 : -1;
}

void PXR_Single_trace_term() {
    const CallerGuard guard;
    trace::g_singleTrace.Close();
}

int PXR_trace_init_ipmi_pxraaedit_log() {
    const CallerGuard guard;
    trace::g_state.fetch_or(trace::kEditTool, std::memory_order_relaxed);
    PXR_trace_config config;
    PXR_trace_read_config(&config);
    return OpenIpmiLog(config) ? 0 : -1;
}

int PXR_trace_term_ipmi_pxraaedit_log() {
    const CallerGuard guard;
    trace::g_ipmiLog.Close();
    return 0;
}
