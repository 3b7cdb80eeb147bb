#pragma once
/// @file
/// The way to the BMC: start and stop of the IPMI layer, the machine-wide bracket around every conversation, and the
/// gate that each command goes through.

#include <atomic>
#include <cstdint>

#include "cover/TimerCover.h"

namespace ktx_ipmi {

/// Reasons of this layer's result codes.
namespace reason {
inline constexpr uint32_t kBadArguments = 0x6000B100;      ///< or a response of the wrong length
inline constexpr uint32_t kCallFailed = 0x6000B101;        ///< the driver did not carry the command out
inline constexpr uint32_t kCallFailedClass2 = 0x6000B102;  ///< the same, transport error of class 2
inline constexpr uint32_t kNotOpened = 0x6000B104;
inline constexpr uint32_t kOemRefused = 0x6000B107;
inline constexpr uint32_t kSoftwareId = 0x6000B109;  ///< the address names software, not a controller
inline constexpr uint32_t kNullOutput = 0x6000B116;
inline constexpr uint32_t kTerminating = 0x6000B120;
inline constexpr uint32_t kCompletionCode = 0x6000B200;  ///< plus the completion code
inline constexpr uint32_t kFirmwareUpdate = 0x6000B600;
}  // namespace reason

// Completion codes that callers act upon.
inline constexpr uint8_t kReservationCancelled = 0xC5;  ///< what was reserved has changed, or another one reserved it
inline constexpr uint8_t kNotPresent = 0xCB;            ///< there is no record of that id

/// Whether a command function's result says that the BMC answered with a nonzero completion code.
constexpr bool IsRefusal(uint32_t result) {
    return (result & 0xFC00FF00) == reason::kCompletionCode;
}
/// Whether it was this one.
constexpr bool IsRefusedWith(uint32_t result, uint8_t completionCode) {
    return (result & 0xFC00FFFF) == (reason::kCompletionCode | completionCode);
}

inline constexpr int kInvalidHandle = -1;
/// Longest message in either direction.
inline constexpr uint32_t kMaxMessage = 1028;

/// Seconds to subtract from SEL time stamps; 0 unless someone learns better, and again after KvPsTerminateIpmi.
extern std::atomic<uint32_t> g_dwBmcTimezone;

/// Opens the lock file and starts the register path. Once per process; later calls change nothing. A machine whose
/// registers are not served (a BT interface) starts without them if the kernel has a device for it. A forked child has
/// the lock file as well, holds nothing of what its parent holds, and starts the register path itself.
/// @return false when there is no way to the BMC at all, or no lock file
bool InitIpmiLib();
/// At any moment, beside any other calls: lets nobody into a bracket any more, ends all waits for one, and gives the
/// threads inside a second to leave. Their commands end after the current attempt. Who stays longer closes the lock file
/// when he leaves.
void TerminateIpmiLib();
bool IsIpmiLibStarted();

/// Takes the machine-wide IPMI lock and opens the IPMI device. Nests per thread: only the outermost level locks and
/// opens. Threads are served in their order of arrival, whatever process they belong to. Only who leaves the lock
/// untouched for a second although it is free and his turn, because he was stopped, say, is passed over.
/// @param handle     the handle for the commands; kInvalidHandle after a failure
/// @param timeoutMs  kInfinite waits for ever
/// @return false when the lock was not to be had or the device could not be opened three times; then nothing is held
///         and CloseIpmiDriver must not be called
bool OpenIpmiDriver(int* handle, uint32_t timeoutMs);
void CloseIpmiDriver(int handle);

/// Takes and releases the lock alone, with the priority flag set while it is being taken.
bool OpenIpmiDriverPriority(int* handle, uint32_t timeoutMs);
void CloseIpmiDriverPriority(int handle);
void IPMIPriorityCtrl(int on);
int IsIPMIPriorityCtrl();

/// Opens the device inside a priority bracket, for its own scope; does nothing where the device is open already.
class DeviceInBracket {
public:
    DeviceInBracket();
    ~DeviceInBracket();
    DeviceInBracket(const DeviceInBracket&) = delete;
    DeviceInBracket& operator=(const DeviceInBracket&) = delete;
    explicit operator bool() const { return open_; }

private:
    bool open_;
};

/// The bracket as an object: held from construction to the end of the scope.
///
///   IpmiBracket bracket;
///   if (!bracket) return PXR_ReportError(...);          // reason 0xB104
///   for (...) {
///       GetSdr(bracket.Handle(), ...);
///       if (!bracket.LetOthersIn()) return ...;         // between two records
///   }
class IpmiBracket {
public:
    explicit IpmiBracket(uint32_t timeoutMs = kInfinite);
    ~IpmiBracket();
    IpmiBracket(const IpmiBracket&) = delete;
    IpmiBracket& operator=(const IpmiBracket&) = delete;

    explicit operator bool() const { return open_; }
    int Handle() const { return handle_; }

    /// Where somebody waits for the lock, and this is the thread's outermost bracket: gives the lock up, queues behind
    /// the waiters and opens again. Otherwise free of cost.
    /// @return false when the bracket could not be opened again; it is closed then
    bool LetOthersIn();

private:
    int handle_ = kInvalidHandle;
    bool open_ = false;
};

/// Executes one command under the caller's bracket: up to 51 attempts, 100 ms apart; waits while the BMC's firmware is
/// updated as long as the host wants it to.
/// @param handle          of the bracket
/// @param address         slave address of the owner; even. Every command goes to the BMC itself
/// @param request         NetFn/LUN, command, data
/// @param response        the caller's; filled with NetFn/LUN + 4, command, completion code, data; the rest is zero
/// @param responseLength  in: capacity, above 2; out: length of the whole response, which may exceed the capacity
/// @return 0: the completion code is the caller's to judge; 0x6000B100 bad arguments; 0x6000B120 the process is
///         terminating; 0x6000B600 firmware update (watchdog reset and SVP command); 0x1nnnnnnn the driver failed
uint32_t CallIpmiDriver(int handle, uint8_t address, uint8_t* request, uint32_t requestLength, uint8_t* response,
                        uint32_t* responseLength);

/// For its scope, this thread's commands are sent once, whatever becomes of them: for somebody who has something to do
/// that must not wait for a controller.
class SingleAttempt {
public:
    SingleAttempt();
    ~SingleAttempt();
    SingleAttempt(const SingleAttempt&) = delete;
    SingleAttempt& operator=(const SingleAttempt&) = delete;
};

/// Turns a driver failure of CallIpmiDriver into a reason: 0x6000B101, 0x6000B102, or 0 for anything else.
uint32_t ModifyErrorCode(uint32_t result);

// The completion code of the last valid response. Ask inside the bracket.
inline constexpr uint32_t kCompCodeNone = 256;            ///< no response yet to the current attempt
inline constexpr uint32_t kCompCodeFirmwareUpdate = 512;  ///< the last attempt waited for a firmware update
void SetRecentCompCode(uint8_t code);
void SetFreeRecentCompCode(uint32_t marker);
uint32_t GetRecentCompCode();

enum CompCodeClass {
    kCompCodeGood = 0,
    kCompCodeBusy = 1,       ///< node busy, BMC starting, firmware update
    kCompCodeReReserve = 2,  ///< time-out or reservation cancelled: reserve again, then retry
    kCompCodeError = 3,
    kCompCodeNoResponse = 4,
};
int CheckRecentCompCode();

}  // namespace ktx_ipmi
