#pragma once
/// @file
/// The system event logs: new events as they come, and what the plug-in remembers.

#include <signal.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

#include "host/kvhost_Library.h"
#include "host/kvhost_Table.h"

namespace kvhost {

/// Holds SIGINT and SIGTERM back, so that they end the program between two polls and not within one, which would lose
/// the events it has taken. To be made before the plug-in starts threads, which inherit it.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    /// Waits for one of them.
    bool ArriveWithin(std::chrono::seconds time) const;

private:
    sigset_t signals_;
    sigset_t before_;
};

inline constexpr std::chrono::seconds kSelPollInterval{10};

/// Takes the events that are new to the plug-in, and shows them. They will not be new to anybody after that.
/// @throws std::runtime_error with the code and its text
void ShowNewEvents(const Library& library, std::ostream& out, bool json, const Screen& screen);

/// The same every ten seconds until a signal comes. JSON is written as one line for each event.
/// @param complain  is told of polls that fail; the next may succeed
void FollowEvents(const Library& library, const StopSignals& stop, std::ostream& out, bool json, const Screen& screen,
                  const std::function<void(const std::string& text)>& complain);

/// Shows the events that the plug-in's database remembers, by device and record.
void ShowKnownEvents(const Library& library, std::ostream& out, bool json, const Screen& screen);

}  // namespace kvhost
