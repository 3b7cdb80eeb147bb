#pragma once
/// @file
/// The BMC's side of a keyboard controller style interface.

#include "simulator/RegisterInterface.h"

namespace sim {

namespace kcs {
inline constexpr unsigned kData = 0;    ///< register index: data in, data out
inline constexpr unsigned kStatus = 1;  ///< register index: status when read, command when written

inline constexpr uint8_t kObf = 0x01;
inline constexpr uint8_t kIbf = 0x02;
inline constexpr uint8_t kSmsAttention = 0x04;
inline constexpr uint8_t kCommandLast = 0x08;  ///< the last write went to the command register
inline constexpr uint8_t kNotAvailable = 0x10;

enum State : uint8_t { kIdle = 0x00, kRead = 0x40, kWrite = 0x80, kError = 0xC0 };

inline constexpr uint8_t kAbort = 0x60;
inline constexpr uint8_t kWriteStart = 0x61;
inline constexpr uint8_t kWriteEnd = 0x62;
inline constexpr uint8_t kReadByte = 0x68;

/// Status codes that an abort fetches.
inline constexpr uint8_t kNoError = 0x00;
inline constexpr uint8_t kAborted = 0x01;
inline constexpr uint8_t kIllegalControl = 0x02;
inline constexpr uint8_t kLengthError = 0x06;
inline constexpr uint8_t kUnspecified = 0xFF;
}  // namespace kcs

class KcsRegisters : public RegisterInterface {
public:
    KcsRegisters(TimerClock& clock, Bmc& bmc) : RegisterInterface(clock, bmc, 2) {}
    uint8_t Read(unsigned index) override;
    void Write(unsigned index, uint8_t value) override;

    kcs::State State() const { return state_; }
    /// Sets the BMC-not-available bit, bit 4 of the status register.
    void SetNotAvailable(bool notAvailable) { notAvailable_ = notAvailable; }
    /// Goes to the error state on the n-th byte taken from now on (1: the next), control codes included.
    void FailAtByte(unsigned n) { failAt_ = n; }
    /// The same on every n-th byte.
    void FailEveryByte(unsigned n) { failAt_ = failEvery_ = n; }
    /// The answer never ends: READ goes on with zeros for ever.
    void SetEndless(bool endless) { endless_ = endless; }
    /// Back to idle, whatever was under way, as after a restart of the BMC.
    void Reset();
    /// As most firmware does: the last byte of a request is taken at once, and the state is READ with nothing to read
    /// while the answer is being made. From the start that byte stays unread until then.
    void SetTakesAtOnce(bool takesAtOnce) { takesAtOnce_ = takesAtOnce; }
    /// OBF is raised with a dummy byte behind every byte taken, as controllers do that raise an interrupt that way.
    void SetDummyBytes(bool dummyBytes) { dummyBytes_ = dummyBytes; }

private:
    void Take();
    void TakeCommand(uint8_t code);
    void TakeData(uint8_t value);
    void StartWrite();
    void EndRequest();
    void ShowAnswer();
    void NextReadByte(uint8_t control);
    void Fail(uint8_t code);
    void Show(uint8_t value);
    bool InjectedFailure();

    kcs::State state_ = kcs::kIdle;
    enum class Phase : uint8_t { kNone, kWriting, kWriteLast, kWaiting, kReading, kAborting, kAbortCode };
    Phase phase_ = Phase::kNone;
    bool obf_ = false;
    bool ibf_ = false;
    bool commandLast_ = false;
    bool notAvailable_ = false;
    bool endless_ = false;
    bool takesAtOnce_ = false;
    bool dummyBytes_ = false;
    unsigned failAt_ = 0;
    unsigned failEvery_ = 0;
    uint8_t dataIn_ = 0;
    uint8_t dataOut_ = 0;
    uint8_t statusCode_ = kcs::kNoError;
};

}  // namespace sim
