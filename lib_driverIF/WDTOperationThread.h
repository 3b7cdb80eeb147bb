#pragma once
/// @file
/// The operating-system path to the management controller: the kernel's IPMI device /dev/ipmi0, through which the
/// command layer sends all its requests.

#include <cstddef>
#include <cstdint>
#include <optional>

/// The IPMI device, opened for the time of a bracket of the command layer, whose lock also serialises every use.
class CWDTOperationThread {
public:
    /// Whether the kernel has a device that can be opened.
    static bool IsDeviceThere();

    /// Opens the device unless it is open. @return 0; -1 when it cannot be opened
    int LOGG_IPMIInit();

    /// Closes the device if it is open.
    void LOGG_IPMIClose();

    /// The attempts at one request while the device stays open. A controller may need longer than an attempt lasts: a
    /// response to any of them is the request's own. One that has lately been late is not sent a request again before
    /// it can have answered, and then after twice that time: it would work through all of them, each command behind a
    /// longer line.
    struct Attempts {
        std::optional<uint32_t> firstId;
        uint32_t lastSentId = 0;
        uint64_t firstSent = 0;  ///< us
        uint64_t lastSent = 0;   ///< us
        uint64_t pause = 0;      ///< us until it may be sent again

        bool MayBeSent(uint64_t now) const { return now >= lastSent + pause; }
        void Sent(uint32_t id, uint64_t now);
        uint64_t SentAt(uint32_t id) const { return id == lastSentId ? lastSent : firstSent; }
    };

    /// Sends one request to the BMC (LUN 0) and waits up to half a second for its response. Messages that answer
    /// something else - late responses, events - are taken out of the device and dropped.
    ///
    /// Refused before the device is touched: no response buffer or length, no room for a response, request data without
    /// an address, more than 270 bytes of it (the kernel takes no more). Command 0 is a command.
    /// @param data            request data; may be null when dataLength is 0
    /// @param responseLength  in: bytes of room; out, on success: bytes received, never more than the room. What does
    ///                        not fit is lost
    /// @param response        on success: completion code and data; on failure its content is undefined
    /// @param attempts        a fresh one for each request, then handed in with each further attempt at it: whose
    ///                        response is there by now is not sent again
    /// @return 0; -1 refused, device closed, or no response
    int IPMI_ExecCommand(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data,
                         uint16_t* responseLength, uint8_t* response, Attempts& attempts);
    int IPMI_ExecCommand(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data,
                         uint16_t* responseLength, uint8_t* response) {
        Attempts theOnly;
        return IPMI_ExecCommand(command, netFn, dataLength, data, responseLength, response, theOnly);
    }

private:
    int Execute(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data, uint16_t* responseLength,
                uint8_t* response, Attempts& attempts);
    bool Send(uint8_t command, uint8_t netFn, uint16_t dataLength, const uint8_t* data) const;
    struct Awaited;
    bool Await(Awaited& awaited, uint64_t now) const;
    bool Try(Awaited& awaited, uint64_t now) const;
    bool ReceiveOwn(Awaited& awaited, int& foreignLeft) const;

    uint32_t messageId_ = 1;
    [[maybe_unused]] uint32_t counters_[2] = {1, 1};  ///< part of the object's layout, not used here
    int32_t device_ = -1;                             ///< -1: closed
};
static_assert(sizeof(CWDTOperationThread) == 16);

/// The one operation object of the process.
extern CWDTOperationThread objOprThread;
