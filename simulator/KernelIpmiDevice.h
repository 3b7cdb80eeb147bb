#pragma once
/// @file
/// "/dev/ipmi0" as Linux's ipmi_devintf offers it: commands and answers by ioctl, a queue for each opening.

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "cover/TimerCover.h"
#include "simulator/Bmc.h"
#include "simulator/ConversationMarker.h"

namespace sim {

/// ioctl requests, as a 32-bit process sees them.
inline constexpr unsigned long kIpmiSendCommand = 0x8014690D;
inline constexpr unsigned long kIpmiReceiveTrunc = 0xC018690B;
inline constexpr unsigned long kIpmiReceive = 0xC018690C;
inline constexpr unsigned long kIpmiSetGetsEvents = 0x80046910;

/// A message in the queue of an opening.
struct KernelMessage {
    int receiveType = 1;  ///< 1 response, 2 asynchronous event, 3 command, 4 response to a sent response
    long id = 0;
    uint8_t netFn = 0;
    uint8_t command = 0;
    Bytes data;         ///< of a response: completion code first
    uint8_t slave = 0;  ///< 0: from the system interface, else from that address of the IPMB
};

/// Thread-safe. Failures are reported as by ioctl(2): -1 and errno.
class KernelIpmiDevice {
public:
    KernelIpmiDevice(TimerClock& clock, Bmc& bmc);

    /// @param fd  a number that nobody else has
    void Open(int fd);
    void Close(int fd);
    int Ioctl(int fd, unsigned long request, void* argument);
    /// 1 readable, 0 not within the time, -1 when waiting is not supported.
    int WaitReadable(int fd, int timeoutMs);

    /// Puts a message before the answer of the next command, whoever sends it: an event, a late answer.
    void PutBeforeNextAnswer(KernelMessage message);
    /// An event for every opening that asked for events; kept for the next one that does when there is none.
    void DeliverEvent(const std::array<uint8_t, 16>& event);
    /// The next calls of that request fail with errno. @param after so many are served first
    void FailIoctl(unsigned long request, int error, unsigned times = 1, unsigned after = 0);
    /// Commands take so long each, and wait for one another, whoever sent them and whether he still has the device
    /// open. From the start they take no time, and a delayed answer holds nobody up.
    void SetServiceTime(std::chrono::milliseconds each);
    /// Waiting for readability fails, as with a device without poll.
    void SetPollSupported(bool supported);
    /// The marker that sees conversations begin and end; null brings the device's own back.
    void SetMarker(ConversationMarker* marker);
    ConversationMarker& Marker();
    /// Messages in the queue of an opening, ready or not.
    size_t Queued(int fd);

private:
    struct Entry {
        uint64_t readyAt;
        KernelMessage message;
    };
    struct Opening {
        std::deque<Entry> queue;
        bool getsEvents = false;
        std::thread::id opener;
    };
    struct Fault {
        int error = 0;
        unsigned times = 0;
        unsigned after = 0;
    };

    int Send(int fd, void* argument);
    int Receive(int fd, void* argument, bool truncate);
    int SetGetsEvents(int fd, void* argument);
    int InjectedError(unsigned long request);
    Opening* Find(int fd);
    static std::deque<Entry>::iterator Earliest(std::deque<Entry>& queue);
    uint64_t DoneAt(std::chrono::milliseconds delay);
    void Enqueue(int fd, KernelMessage message, uint64_t readyAt);

    TimerClock& clock_;
    Bmc& bmc_;
    std::mutex mutex_;  // guards everything below; never held while the BMC works
    std::map<int, Opening> openings_;
    std::map<unsigned long, Fault> faults_;
    std::vector<KernelMessage> beforeNextAnswer_;
    std::vector<KernelMessage> pendingEvents_;
    std::chrono::milliseconds serviceTime_{0};
    uint64_t busyUntil_ = 0;
    bool pollSupported_ = true;
    ConversationMarker ownMarker_;
    ConversationMarker* marker_ = &ownMarker_;
};

}  // namespace sim
