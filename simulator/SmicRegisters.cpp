// The BMC's side of a server management interface chip.

#include "simulator/SmicRegisters.h"

namespace sim {

uint8_t SmicRegisters::Read(unsigned index) {
    if (index == smic::kData) return data_;
    if (index == smic::kControl) return status_;
    const bool transmit = !transmitBlocked_ && !busy_ && (phase_ == Phase::kReady || phase_ == Phase::kWriting);
    const bool receive = !busy_ && (phase_ == Phase::kReading || phase_ == Phase::kReadLast ||
                                    (phase_ == Phase::kAnswering && AnswerReady()));
    const uint8_t flags =
        static_cast<uint8_t>((busy_ ? smic::kBusy : 0) | (transmit ? smic::kTxDataReady : 0) |
                             (receive ? smic::kRxDataReady : 0) | (bmc_.SmsAttention() ? smic::kSmsAttention : 0));
    if (busyReads_ > 0 && !hung_ && --busyReads_ == 0) Take();
    return flags;
}

void SmicRegisters::Write(unsigned index, uint8_t value) {
    if (index != smic::kFlags && busy_) {
        if (!hung_) ++violations_;  // the BMC has not taken the byte before: this one is lost
        return;
    }
    switch (index) {
        case smic::kData:
            data_ = value;
            break;
        case smic::kControl:
            NoteWriter(value == smic::kWriteStart || value == smic::kGetStatus);
            control_ = value;
            break;
        default:
            // Of the flags only BUSY can be written, and only be set: the BMC clears it.
            if ((value & smic::kBusy) == 0 || busy_) break;
            busy_ = true;
            busyReads_ = latency_;
            if (busyReads_ == 0 && !hung_) Take();
    }
}

void SmicRegisters::Reset() {
    phase_ = Phase::kReady;
    busy_ = false;
    busyReads_ = 0;
    status_ = smic::kStatusReady;
    errorCode_ = 0;
    EndTransfer();
}

/// The BMC acts on the control code.
void SmicRegisters::Take() {
    busy_ = false;
    if (failAt_ > 0 && --failAt_ == 0) {
        Fail(smic::kAborted);
        return;
    }
    switch (control_) {
        case smic::kGetStatus:
            status_ = smic::kStatusReady;
            data_ = errorCode_;
            break;
        case smic::kWriteStart:
        case smic::kWriteNext:
        case smic::kWriteEnd:
            TakeWrite();
            break;
        case smic::kReadStart:
            ReadStart();
            break;
        case smic::kReadNext:
            ReadNext();
            break;
        case smic::kReadEnd:
            ReadEnd();
            break;
        default:
            Fail(smic::kIllegalControl);
    }
}

void SmicRegisters::TakeWrite() {
    if (control_ == smic::kWriteStart) {
        BeginTransfer();
        request_.clear();
        errorCode_ = 0;
        phase_ = Phase::kWriting;
    } else if (phase_ != Phase::kWriting) {
        Fail(smic::kIllegalControl);
        return;
    }
    request_.push_back(data_);
    if (request_.size() > kLongestRequest) {
        Fail(smic::kBufferFull);
        return;
    }
    status_ = static_cast<uint8_t>(control_ + smic::kStatusOf);
    if (control_ != smic::kWriteEnd) return;
    data_ = 0;
    phase_ = Phase::kAnswering;
    Submit();
}

void SmicRegisters::ReadStart() {
    if (phase_ != Phase::kAnswering || !AnswerReady()) {
        Fail(smic::kNoResponse);
        return;
    }
    phase_ = Phase::kReading;
    readAt_ = 0;
    data_ = answer_->front();
    status_ = smic::kReadStart + smic::kStatusOf;
}

/// The status of a byte says whether it is the last one.
void SmicRegisters::ReadNext() {
    if (phase_ != Phase::kReading) {
        Fail(smic::kIllegalControl);
        return;
    }
    data_ = (*answer_)[++readAt_];
    const bool last = readAt_ + 1 == answer_->size();
    status_ = static_cast<uint8_t>((last ? smic::kReadEnd : smic::kReadNext) + smic::kStatusOf);
    if (last) phase_ = Phase::kReadLast;
}

void SmicRegisters::ReadEnd() {
    if (phase_ != Phase::kReadLast) {
        Fail(smic::kIllegalControl);
        return;
    }
    phase_ = Phase::kReady;
    status_ = smic::kStatusReady;
    data_ = 0;
    EndTransfer();
}

void SmicRegisters::Fail(uint8_t code) {
    phase_ = Phase::kReady;
    status_ = smic::kStatusReady;
    data_ = errorCode_ = code;
    EndTransfer();
}

}  // namespace sim
