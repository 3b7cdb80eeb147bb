#pragma once
/// @file
/// Signals of a process that belongs to the library alone, such as a command-line tool. The library itself never calls
/// InitSignal: inside an agent the signals are the host's.

#include <cstdint>

/// Cancels a pending alarm, blocks SIGTERM, SIGQUIT and SIGINT in the calling thread and ignores SIGUSR1, SIGUSR2 and
/// SIGPIPE. From then on IsTermWithSignal looks for pending signals. @return 1; 0 on failure
int InitSignal();

/// Takes one pending signal of any kind, without waiting. Short waits are not worth ending early: only time-outs of
/// 5000 ms and more look.
/// @param timeoutMs  time-out of the wait that wants to know
/// @return the signal's number; 0 none, or InitSignal was not called
int IsTermWithSignal(uint32_t timeoutMs);
