// The threads of this process that want the IPMI lock.

#include "lib_driverIF/KvPltfSvcIpmiCall_Queue.h"

namespace ktx_ipmi {

void Queue::Join(Waiter& waiter) {
    const std::lock_guard lock(mutex_);
    waiter.behind_ = nullptr;
    *end_ = &waiter;
    end_ = &waiter.behind_;
}

void Queue::Leave(Waiter& waiter) {
    const std::lock_guard lock(mutex_);
    Waiter** link = &first_;
    while (*link != &waiter)
        link = &(*link)->behind_;
    *link = waiter.behind_;
    if (end_ == &waiter.behind_) end_ = link;
    moved_.notify_all();
}

bool Queue::AwaitTurn(const Waiter& waiter, const LockWait& wait) {
    std::unique_lock lock(mutex_);
    while (first_ != &waiter) {
        if (wait.Over()) return false;
        wait.Sleep(moved_, lock);
    }
    return true;
}

bool Queue::SomebodyWaits() {
    const std::lock_guard lock(mutex_);
    return first_ != nullptr && first_->behind_ != nullptr;
}

void Queue::Wake() {
    const std::lock_guard lock(mutex_);
    moved_.notify_all();
}

}  // namespace ktx_ipmi
