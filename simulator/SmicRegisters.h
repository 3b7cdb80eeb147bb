#pragma once
/// @file
/// The BMC's side of a server management interface chip.

#include "simulator/RegisterInterface.h"

namespace sim {

namespace smic {
inline constexpr unsigned kData = 0;     ///< register index
inline constexpr unsigned kControl = 1;  ///< register index: control code when written, status code when read
inline constexpr unsigned kFlags = 2;    ///< register index

inline constexpr uint8_t kBusy = 0x01;
inline constexpr uint8_t kSmsAttention = 0x04;
inline constexpr uint8_t kTxDataReady = 0x40;
inline constexpr uint8_t kRxDataReady = 0x80;

inline constexpr uint8_t kGetStatus = 0x40;
inline constexpr uint8_t kWriteStart = 0x41;
inline constexpr uint8_t kWriteNext = 0x42;
inline constexpr uint8_t kWriteEnd = 0x43;
inline constexpr uint8_t kReadStart = 0x44;
inline constexpr uint8_t kReadNext = 0x45;
inline constexpr uint8_t kReadEnd = 0x46;

inline constexpr uint8_t kStatusReady = 0xC0;  ///< a control code answered by itself plus 0x80; this one: GET_STATUS
inline constexpr uint8_t kStatusOf = 0x80;     ///< status code = control code + this

/// Error codes in the data register.
inline constexpr uint8_t kAborted = 0x01;
inline constexpr uint8_t kIllegalControl = 0x02;
inline constexpr uint8_t kNoResponse = 0x03;
inline constexpr uint8_t kBufferFull = 0x05;
}  // namespace smic

class SmicRegisters : public RegisterInterface {
public:
    SmicRegisters(TimerClock& clock, Bmc& bmc) : RegisterInterface(clock, bmc, 3) {}
    uint8_t Read(unsigned index) override;
    void Write(unsigned index, uint8_t value) override;

    /// Breaks the transfer off at the n-th control code taken from now on (1: the next).
    void FailAtControl(unsigned n) { failAt_ = n; }
    /// Back to ready, whatever was under way, as after a restart of the BMC.
    void Reset();
    /// TX_DATA_RDY never comes.
    void SetTransmitBlocked(bool blocked) { transmitBlocked_ = blocked; }

private:
    void Take();
    void TakeWrite();
    void ReadStart();
    void ReadNext();
    void ReadEnd();
    void Fail(uint8_t code);

    enum class Phase : uint8_t { kReady, kWriting, kAnswering, kReading, kReadLast };
    Phase phase_ = Phase::kReady;
    uint8_t data_ = 0;
    uint8_t control_ = 0;
    uint8_t status_ = smic::kStatusReady;
    uint8_t errorCode_ = 0;
    bool busy_ = false;
    bool transmitBlocked_ = false;
    unsigned failAt_ = 0;
};

}  // namespace sim
