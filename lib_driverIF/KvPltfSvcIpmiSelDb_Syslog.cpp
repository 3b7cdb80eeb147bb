// Messages about events in the system log.

#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "common/PXR_message_internal.h"
#include "common/PXR_texts.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "libplatform/PXR_catalogue.h"

namespace {

struct Level {
    int priority;
    int number;
    char letter;
    const char* name;
};
constexpr std::array<Level, 4> kLevels{{
    {LOG_CRIT, 906, 'W', "Warning"},
    {LOG_ERR, 907, 'E', "Error"},
    {LOG_WARNING, 906, 'W', "Warning"},
    {LOG_INFO, 905, 'I', "Information"},
}};

/// No configuration file of the agent has switches for these messages: every level is on.
bool IsWanted(const Level& /*level*/) {
    return true;
}

using Text = std::unique_ptr<char, decltype(&free)>;

Text MessageText(uint32_t messageId) {
    char* text = nullptr;
    GetCatMessage(KV_LOCALE_NEUTRAL, texts::kAgent, texts::kHardwareLog, static_cast<int>(messageId), &text);
    return {text, free};
}

}  // namespace

void PutSyslogMessage(uint32_t messageId, int priority) {
    for (const Level& level : kLevels) {
        if (level.priority != priority || !IsWanted(level)) continue;
        char head[32];
        snprintf(head, sizeof head, "WXPLG%04dA-%c", level.number, level.letter);
        const Text message = MessageText(messageId);
        char line[1024];  // what a syslog daemon takes
        snprintf(line, sizeof line, "An alert occured at agent. (ID=0x%04x:LEVEL=%s:MSG=%s)", messageId, level.name,
                 message != nullptr ? message.get() : "");
        PXR_WriteSyslogLine(priority, head, line);
    }
}
