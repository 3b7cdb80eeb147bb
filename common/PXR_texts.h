#pragma once
/// @file
/// What the library asks the message catalogues for, besides the texts of result codes (PXR_reasons.inc): names, sets and
/// numbers have their one home here, and a test holds the catalogues against it.

#include <cstddef>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "cover/Heap.h"
#include "libplatform/PXR_catalogue.h"
#include "libplatform/PXR_message.h"

namespace texts {

inline constexpr char kAgent[] = "KvAgent.cat";        ///< of the agent itself
inline constexpr char kPlatform[] = "KvPlatform.cat";  ///< of the machine: alerts, and what SMBIOS reports
inline constexpr char kServiceProcessor[] = "KvSvp.cat";

/// Sets of messages; every catalogue has the first two.
enum Set : int { kReasons = 1, kAlerts = 2, kWords = 3, kSystemLog = 4, kHardwareLog = 6 };

enum class Id {
    CompanionNotStarted,
    CompanionRuns,
    AlertSelDatabase,
    WordUnknown,
    WordNormal,
    LogFileFails,
    IpmiLogNotOpened,
    RoutingTableChecksum,
    FruNotRead,
    EventsReadAgain,
    Count
};

struct Message {
    Id id;
    const char* catalogue;
    Set set;
    int number;
    std::string_view inserts;  ///< what the text asks for: "%1%2" of a system-log message, "%s" of one that is printed
};

inline constexpr Message kMessages[] = {
    {Id::CompanionNotStarted, kAgent, kReasons, 0x7B02, "%s"},      // path
    {Id::CompanionRuns, kAgent, kReasons, 0x10001, "%s"},           // path
    {Id::AlertSelDatabase, kAgent, kAlerts, 64016, ""},             //
    {Id::WordUnknown, kAgent, kWords, 1, ""},                       //
    {Id::WordNormal, kAgent, kWords, 22, ""},                       //
    {Id::LogFileFails, kAgent, kSystemLog, 534, "%1"},              // path
    {Id::IpmiLogNotOpened, kAgent, kSystemLog, 2049, "%1%2%3"},     // command, system call, errno
    {Id::RoutingTableChecksum, kAgent, kHardwareLog, 25857, "%1"},  // table
    {Id::FruNotRead, kAgent, kHardwareLog, 45342, "%1"},            // command
    {Id::EventsReadAgain, kAgent, kHardwareLog, 64021, ""},
};

constexpr const Message& Of(Id id) {
    return kMessages[static_cast<size_t>(id)];
}

static_assert(std::size(kMessages) == static_cast<size_t>(Id::Count));
static_assert([] {
    for (size_t i = 0; i < std::size(kMessages); ++i)
        if (kMessages[i].id != static_cast<Id>(i)) return false;
    return true;
}());

/// A message in a locale, null without one.
inline OwnedText Fetch(int locale, Id id) {
    char* out = nullptr;
    GetCatMessage(locale, Of(id).catalogue, Of(id).set, Of(id).number, &out);
    return OwnedText(out);
}

/// Writes a message to the system log, with as many inserts as its text asks for.
template <Id id, typename... Inserts>
void Log(int priority, const Inserts*... inserts) {
    constexpr const Message& kMessage = Of(id);
    static_assert(kMessage.inserts.size() == 2 * sizeof...(inserts));
    PXR_syslog_message(priority, kMessage.catalogue, kMessage.set, kMessage.number, sizeof...(inserts), inserts...);
}

/// Prints a message, with as many arguments as its text asks for.
template <Id id, typename... Arguments>
void Print(FILE* stream, const Arguments*... arguments) {
    constexpr const Message& kMessage = Of(id);
    static_assert(kMessage.inserts.size() == 2 * sizeof...(arguments));
    PXR_output_message(stream, kMessage.catalogue, kMessage.set, kMessage.number, arguments...);
}

}  // namespace texts
