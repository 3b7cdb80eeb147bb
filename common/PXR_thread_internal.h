#pragma once
/// @file
/// Names of threads, the ring of actions and the guard against cancellation, as the rest of the library meets them.

#include "cover/CancelBlock.h"
#include "libplatform/PXR_thread.h"

/// Gives the calling thread a name, or takes it away (null). The name is copied; without memory the thread keeps the
/// name that it had. Kept under the host's key of thread names when it has one, else under a key of the library.
void PXR_SetThreadName(const char* name);

/// Appends an action to a worker's ring, enlarging a full one by PXR_THREAD_QUEUE_SLOTS. The lock is held.
/// @return false when there is no memory; the ring is unchanged then
bool PXR_AppendAction(PXR_thread& worker, uint32_t action);
