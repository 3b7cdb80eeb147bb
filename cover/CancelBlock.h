#pragma once
/// @file
/// The guard against cancellation.

#include <pthread.h>

/// Keeps the calling thread from being cancelled in what must be done as a whole, and in clean-up code: close and the
/// like are cancellation points, and a thread that is cancelled inside a destructor brings the process down.
class CancelBlock {
public:
    CancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelBlock() { pthread_setcancelstate(before_, nullptr); }
    CancelBlock(const CancelBlock&) = delete;
    CancelBlock& operator=(const CancelBlock&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};
