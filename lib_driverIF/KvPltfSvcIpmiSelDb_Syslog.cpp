// Messages about events in the system log.

#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "common/PXR_message_internal.h"
#include "lib_driverIF/KvPltfSvcIpmiSelDb.h"
#include "libplatform/PXR_catalogue.h"

namespace {

constexpr const char* kAgentCatalogue = "KvAgent.cat";
constexpr int kMessageSet = 6;

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

std::string MessageText(uint32_t messageId) {
    char* text = nullptr;
    GetCatMessage(kLocaleNeutral, kAgentCatalogue, kMessageSet, static_cast<int>(messageId), &text);
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    return text != nullptr ? text : "";
}

}  // namespace

void PutSyslogMessage(uint32_t messageId, int priority) {
    for (const Level& level : kLevels) {
        if (level.priority != priority || !IsWanted(level)) continue;
        char head[32];
        snprintf(head, sizeof head, "WXPLG%04dA-%c", level.number, level.letter);
        char id[48];
        snprintf(id, sizeof id, "(ID=0x%04x:LEVEL=%s:MSG=", messageId, level.name);
        const std::string text = std::string("An alert occured at agent. ") + id + MessageText(messageId) + ')';
        PXR_WriteSyslogLine(priority, head, text.c_str());
    }
}
