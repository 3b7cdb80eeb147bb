// What KCS and SMIC have in common on the BMC's side.

#include "simulator/RegisterInterface.h"

namespace sim {

void RegisterInterface::Submit() {
    ++messages_;
    answer_.reset();
    auto answer = bmc_.HandleSystemMessage(request_);
    if (!answer) return;
    answer_ = std::move(answer->message);
    answerAt_ = clock_.Now() + static_cast<uint64_t>(answer->delay.count()) * 1000;
}

bool RegisterInterface::AnswerReady() const {
    return answer_ && clock_.Now() >= answerAt_;
}

void RegisterInterface::NoteWriter(bool begins) {
    writer_ = std::this_thread::get_id();
    if (!begins && owner_ != std::thread::id() && owner_ != writer_) ++overlaps_;
}

}  // namespace sim
