// The BMC's side of a keyboard controller style interface.

#include "simulator/KcsRegisters.h"

namespace sim {

uint8_t KcsRegisters::Read(unsigned index) {
    if (index == kcs::kData) {
        obf_ = false;
        return dataOut_;
    }
    if (phase_ == Phase::kWaiting && !hung_ && AnswerReady()) ShowAnswer();
    const uint8_t status = static_cast<uint8_t>(
        state_ | (obf_ ? kcs::kObf : 0) | (ibf_ ? kcs::kIbf : 0) | (bmc_.SmsAttention() ? kcs::kSmsAttention : 0) |
        (commandLast_ ? kcs::kCommandLast : 0) | (notAvailable_ ? kcs::kNotAvailable : 0));
    if (busyReads_ > 0 && !hung_ && --busyReads_ == 0) Take();
    return status;
}

void KcsRegisters::Write(unsigned index, uint8_t value) {
    const bool command = index == kcs::kStatus;
    // Who starts a transfer or aborts one may find another thread's given up half-way; who goes on may not.
    NoteWriter(command && value != kcs::kWriteEnd);
    if (ibf_) {
        if (hung_ || phase_ == Phase::kWaiting) return;
        ++violations_;
        busyReads_ = 0;
        Fail(kcs::kUnspecified);
        return;
    }
    commandLast_ = command;
    dataIn_ = value;
    ibf_ = true;
    busyReads_ = latency_;
    if (busyReads_ == 0 && !hung_) Take();
}

void KcsRegisters::Reset() {
    state_ = kcs::kIdle;
    phase_ = Phase::kNone;
    obf_ = ibf_ = false;
    busyReads_ = 0;
    statusCode_ = kcs::kNoError;
    EndTransfer();
}

/// The BMC reads the byte that was written.
void KcsRegisters::Take() {
    ibf_ = false;
    if (InjectedFailure()) {
        Fail(kcs::kUnspecified);
        return;
    }
    if (commandLast_)
        TakeCommand(dataIn_);
    else
        TakeData(dataIn_);
    const bool writing = phase_ == Phase::kWriting || phase_ == Phase::kWriteLast;
    if (dummyBytes_ && writing) Show(0);
}

void KcsRegisters::TakeCommand(uint8_t code) {
    switch (code) {
        case kcs::kWriteStart:
            StartWrite();
            break;
        case kcs::kWriteEnd:
            if (phase_ == Phase::kWriting)
                phase_ = Phase::kWriteLast;
            else
                Fail(kcs::kIllegalControl);
            break;
        case kcs::kAbort:
            // An error keeps its code for the abort to fetch; a transfer that was going well ends as aborted.
            if (state_ != kcs::kError) statusCode_ = phase_ == Phase::kNone ? kcs::kNoError : kcs::kAborted;
            state_ = kcs::kWrite;
            phase_ = Phase::kAborting;
            break;
        default:
            Fail(kcs::kIllegalControl);
    }
}

void KcsRegisters::StartWrite() {
    BeginTransfer();
    request_.clear();
    statusCode_ = kcs::kNoError;
    state_ = kcs::kWrite;
    phase_ = Phase::kWriting;
}

void KcsRegisters::TakeData(uint8_t value) {
    switch (phase_) {
        case Phase::kWriting:
        case Phase::kWriteLast:
            request_.push_back(value);
            if (request_.size() > kLongestRequest || (phase_ == Phase::kWriteLast && request_.size() < 2)) {
                Fail(kcs::kLengthError);
            } else if (phase_ == Phase::kWriteLast) {
                EndRequest();
            }
            break;
        case Phase::kReading:
            NextReadByte(value);
            break;
        case Phase::kAborting:
            state_ = kcs::kRead;
            phase_ = Phase::kAbortCode;
            Show(statusCode_);
            break;
        case Phase::kAbortCode:
            if (value != kcs::kReadByte) {
                Fail(kcs::kIllegalControl);
                break;
            }
            state_ = kcs::kIdle;
            phase_ = Phase::kNone;
            statusCode_ = kcs::kNoError;
            EndTransfer();
            Show(0);
            break;
        default:
            if (state_ != kcs::kError) ++violations_;  // an error is seen with the next look at the state
            Fail(kcs::kIllegalControl);
    }
}

void KcsRegisters::EndRequest() {
    phase_ = Phase::kWaiting;
    if (takesAtOnce_)
        state_ = kcs::kRead;
    else
        ibf_ = true;  // a driver that sees it clear finds the answer there
    Submit();
}

void KcsRegisters::ShowAnswer() {
    ibf_ = false;
    phase_ = Phase::kReading;
    state_ = kcs::kRead;
    readAt_ = 1;
    Show(answer_->front());
}

void KcsRegisters::NextReadByte(uint8_t control) {
    if (control != kcs::kReadByte) {
        ++violations_;
        Fail(kcs::kIllegalControl);
        return;
    }
    if (readAt_ < answer_->size()) {
        Show((*answer_)[readAt_++]);
    } else if (endless_) {
        Show(0);
    } else {
        state_ = kcs::kIdle;
        phase_ = Phase::kNone;
        EndTransfer();
        Show(0);  // the dummy byte behind a transfer
    }
}

void KcsRegisters::Fail(uint8_t code) {
    ibf_ = false;
    state_ = kcs::kError;
    phase_ = Phase::kNone;
    statusCode_ = code;
    EndTransfer();
}

void KcsRegisters::Show(uint8_t value) {
    if (obf_) ++violations_;  // the byte before was not taken: it is lost
    dataOut_ = value;
    obf_ = true;
}

bool KcsRegisters::InjectedFailure() {
    if (failAt_ == 0 || --failAt_ > 0) return false;
    failAt_ = failEvery_;
    return true;
}

}  // namespace sim
