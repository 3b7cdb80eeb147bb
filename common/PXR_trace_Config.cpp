#include <cstring>
#include <iterator>

#include "common/PXR_function_numbers.h"
#include "common/PXR_result.h"
#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_config.h"
#include "libplatform/PXR_trace.h"

namespace {

enum : uint32_t {
    kNetworkLogMode = 0x1F41,
    kTraceLevel = 0x1F42,
    kTraceSize = 0x1F44,
    kPacketTraceMode = 0x1F45,
    kPacketTraceFile = 0x1F46,
    kPacketTraceSize = 0x1F47,
};

constexpr int32_t kOne = 1;  // occurrences
constexpr int32_t kNoList = -1;
constexpr int32_t kMaxLevel = 100;
constexpr int32_t kMaxKiB = 1048576;
constexpr int32_t kMaxPath = sizeof(PXR_trace_config::packetTraceFile) - 1;
constexpr const char* kPacketTracePath = "/var/opt/velmora/lantrel/log/agt_pt_linux.log";
constexpr uint32_t kDefaultTraceSize = 5120;
constexpr uint32_t kDefaultPacketTraceSize = 1024;

const PXR_config_file<7> kTraceFile = {
    "/etc/opt/velmora/lantrel/trace.cfg",
    "[ServerAgent%s_TRACE]",
    "0330",
    "Trace Configuration File",
    {
        {kNetworkLogMode, "NetworkLogMode", kOne, kNoList, 0, 0, 1, PXR_CFG_SWITCH, {.number = 1}, 0, {}},
        {kTraceLevel, "TraceLevel", kOne, kNoList, 0, 0, kMaxLevel, PXR_CFG_NUMBER, {.number = 10}, 0, {}},
        {kTraceSize, "TraceSize", kOne, kNoList, 0, 0, kMaxKiB, PXR_CFG_NUMBER, {.number = kDefaultTraceSize}, 0, {}},
        {kPacketTraceMode, "PacketTraceMode", kOne, kNoList, 0, 0, 1, PXR_CFG_SWITCH, {.number = 1}, 0, {}},
        {kPacketTraceFile,
         "PacketTraceFile",
         kOne,
         kNoList,
         0,
         0,
         kMaxPath,
         PXR_CFG_TEXT,
         {.text = kPacketTracePath},
         0,
         {}},
        {kPacketTraceSize,
         "PacketTraceSize",
         kOne,
         kNoList,
         0,
         0,
         kMaxKiB,
         PXR_CFG_NUMBER,
         {.number = kDefaultPacketTraceSize},
         0,
         {}},
        {},
    }};

// In force when there is no readable file: more detail for the logs, and no packet trace that nobody asked for.
void SetCarefulDefaults(PXR_trace_config& config) {
    config = PXR_trace_config{.networkLogMode = 1,
                              .packetTraceMode = 0,
                              .traceLevel = 20,
                              .traceSize = kDefaultTraceSize,
                              .packetTraceSize = kDefaultPacketTraceSize,
                              .packetTraceFile = {}};
    trace::CopyName(config.packetTraceFile, kPacketTracePath);
}

}  // namespace

uint32_t PXR_trace_read_config(PXR_trace_config* config) {
    enum { NetworkLogMode, TraceLevel, TraceSize, PacketTraceMode, PacketTraceFile, PacketTraceSize, End };
    PXR_config_data values[] = {PXR_CFG_SLOT(kNetworkLogMode),
                                PXR_CFG_SLOT(kTraceLevel),
                                PXR_CFG_SLOT(kTraceSize),
                                PXR_CFG_SLOT(kPacketTraceMode),
                                PXR_CFG_SLOT(kPacketTraceFile),
                                PXR_CFG_SLOT(kPacketTraceSize),
                                PXR_CFG_SLOT(0)};
    static_assert(std::size(values) == End + 1);
    if (config == nullptr) return PXR_ReportError(MakeResult(fn::kReadCfgFile, Reason::NullArgument));
    SetCarefulDefaults(*config);
    PXR_init_cfgdata(kTraceFile.Table(), values);
    const uint32_t error = PXR_read_cfgfile(kTraceFile.Table(), values);
    if (error == 0) {
        config->networkLogMode = values[NetworkLogMode].value.on != 0;
        config->traceLevel = values[TraceLevel].value.unsignedNumber;
        config->traceSize = values[TraceSize].value.unsignedNumber;
        config->packetTraceMode = values[PacketTraceMode].value.on != 0;
        config->packetTraceSize = values[PacketTraceSize].value.unsignedNumber;
        trace::CopyName(config->packetTraceFile, values[PacketTraceFile].value.text);
    }
    PXR_clear_cfgdata(kTraceFile.Table(), values);
    return error;
}
