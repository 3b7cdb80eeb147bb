#pragma once
/// @file
/// What the KCS and SMIC register machines have in common, seen from the BMC's side.

#include <cstdint>
#include <optional>
#include <thread>

#include "cover/TimerCover.h"
#include "simulator/Bmc.h"

namespace sim {

/// A group of byte-wide registers in front of the BMC. Not thread-safe: the server serialises accesses.
class RegisterInterface {
public:
    RegisterInterface(TimerClock& clock, Bmc& bmc, unsigned registers)
        : clock_(clock), bmc_(bmc), registers_(registers) {}
    virtual ~RegisterInterface() = default;
    RegisterInterface(const RegisterInterface&) = delete;
    RegisterInterface& operator=(const RegisterInterface&) = delete;

    unsigned RegisterCount() const { return registers_; }
    virtual uint8_t Read(unsigned index) = 0;
    virtual void Write(unsigned index, uint8_t value) = 0;

    /// The BMC takes a byte only after so many reads of the register that shows it busy (1 from the start), so that a
    /// driver which does not wait is found out: what it writes early is lost and the transfer fails.
    void SetLatency(unsigned statusReads) { latency_ = statusReads; }
    /// The BMC stops looking at the registers: it stays busy for ever.
    void SetHung(bool hung) { hung_ = hung; }
    /// Transfers broken off by the BMC because the driver did not keep to the protocol.
    unsigned Violations() const { return violations_; }
    /// Messages that were carried through to the BMC.
    unsigned Messages() const { return messages_; }
    /// Transfers in which a second thread wrote before the first one's transfer was over.
    unsigned Overlaps() const { return overlaps_; }

protected:
    static constexpr size_t kLongestRequest = 1028;

    /// Hands the collected request to the BMC; the answer, or none, is there from answerAt_ on.
    void Submit();
    /// Whether the answer can be read by now.
    bool AnswerReady() const;
    void BeginTransfer() { owner_ = writer_; }
    /// To be called for each byte written. The BMC takes it later, when some thread looks at the status.
    /// @param begins  the byte may begin a transfer in the middle of another thread's
    void NoteWriter(bool begins);
    void EndTransfer() { owner_ = {}; }

    TimerClock& clock_;
    Bmc& bmc_;
    unsigned latency_ = 1;
    unsigned busyReads_ = 0;  ///< until the BMC takes the byte that was written
    bool hung_ = false;
    unsigned violations_ = 0;
    unsigned messages_ = 0;
    unsigned overlaps_ = 0;
    Bytes request_;  ///< as far as it has come
    std::optional<Bytes> answer_;
    size_t readAt_ = 0;  ///< in the answer
    uint64_t answerAt_ = 0;

private:
    const unsigned registers_;
    std::thread::id owner_;
    std::thread::id writer_;
};

}  // namespace sim
