#pragma once
/// @file
/// A system-log daemon that only listens at /dev/log of the machine root that the process has entered.

#include <mutex>
#include <string>
#include <thread>
#include <vector>

class SyslogListener {
public:
    SyslogListener();
    SyslogListener(const SyslogListener&) = delete;
    SyslogListener& operator=(const SyslogListener&) = delete;
    ~SyslogListener();

    /// The lines that were sent before this call, of each what follows the date ("pxragt: WXPLG...").
    std::vector<std::string> Lines();
    /// Priority and facility of each of them.
    std::vector<int> Priorities();

private:
    void TakeAll();

    int socket_ = -1;
    std::thread thread_;
    std::mutex mutex_;  // guards what is below
    std::vector<std::string> lines_;
    std::vector<int> priorities_;
};
