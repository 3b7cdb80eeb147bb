#pragma once
/// @file
/// Workers are stopped by cancelling them, wherever they are: a call that must be done as a whole is tried in a thread
/// that has been cancelled already.

#include <pthread.h>

#include <functional>
#include <thread>

/// @return true when the call came to its end, false when the thread was cancelled within it
inline bool FinishesWhenCancelled(const std::function<void()>& call) {
    bool finished = false;
    std::thread([&] {
        pthread_cancel(pthread_self());
        call();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        finished = true;
    }).join();
    return finished;
}
