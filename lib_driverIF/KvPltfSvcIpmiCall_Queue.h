#pragma once
/// @file
/// The threads of this process that want the IPMI lock, in their order of arrival. The first one has it or waits for
/// it among the processes; it stays first until it has given the lock back.

#include <condition_variable>
#include <mutex>

#include "lib_driverIF/KvPltfSvcIpmiCall_Wait.h"

namespace ktx_ipmi {

class Queue {
public:
    /// A thread in the queue. It stays where it is in memory from Join to Leave; queueing takes no memory.
    class Waiter {
        friend Queue;
        Waiter* behind_ = nullptr;
    };

    void Join(Waiter& waiter);
    void Leave(Waiter& waiter);
    /// Waits until this one is the first; may be cancelled. @return false: the wait was over before
    bool AwaitTurn(const Waiter& waiter, const LockWait& wait);
    /// Whether anybody stands behind the first one.
    bool SomebodyWaits();
    /// Lets all that wait look whether their wait is over.
    void Wake();

private:
    std::mutex mutex_;
    std::condition_variable moved_;
    // Guarded by mutex_.
    Waiter* first_ = nullptr;
    Waiter** end_ = &first_;
};

}  // namespace ktx_ipmi
