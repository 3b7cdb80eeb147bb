#pragma once
/// @file
/// Workers: a thread with its own lock, condition, state and queue of 32-bit actions.
///
/// The owner provides the PXR_thread object (zeroed before its first use) and starts the worker with a routine:
///
/// @code
///     static void* Poller(void* argument) {
///         PXR_thread* self = (PXR_thread*)argument;
///         pthread_mutex_lock(&self->lock);
///         self->state = PXR_THREAD_RUNNING;  // or PXR_THREAD_FAILED, and return
///         pthread_cond_signal(&self->wake);
///         while (PXR_thread_sleep(self) >= 0) {  // releases the lock while it waits
///             const uint32_t action = PXR_thread_get_action(self);
///             pthread_mutex_unlock(&self->lock);  // never work under the lock: stop and wake-up need it
///             Handle(action);
///             pthread_mutex_lock(&self->lock);
///         }
///         pthread_mutex_unlock(&self->lock);
///         return NULL;
///     }
/// @endcode
/// and elsewhere, with `static PXR_thread poller;`:
/// @code
///     PXR_thread_create(&poller, Poller);
///     PXR_thread_wakeup(&poller, 7);
///     PXR_thread_destroy(&poller);
/// @endcode

#include <pthread.h>

#include "libplatform/KvExport.h"

KV_EXTERN_C_BEGIN

/// PXR_thread::marker while the worker lives; it is 0 when the object is free, and the four bytes "THRD" in between.
#define PXR_THREAD_ALIVE 0x54485244u
#define PXR_THREAD_TEARDOWN 0x44524854u

/// Slots of a new queue, and by how many it grows when it is full.
#define PXR_THREAD_QUEUE_SLOTS 256u

enum PXR_thread_state {
    PXR_THREAD_STARTING = 1000,
    PXR_THREAD_STOPPING = 1001,  ///< a stop was requested; wake-ups are ignored from here on
    PXR_THREAD_RUNNING = 1002,
    PXR_THREAD_SLEEPING = 1003,
    PXR_THREAD_WOKEN = 1004,  ///< an action arrived and the worker has not yet left its sleep
    PXR_THREAD_FAILED = 1005  ///< set by a routine that cannot run
};

/// A worker. Everything but `marker` at creation is guarded by `lock`, which serves the object as long as it exists,
/// through all workers that it becomes: zero bytes are a lock that is free.
typedef struct PXR_thread {
    uint32_t marker;
    pthread_t thread;
    pthread_mutex_t lock;
    pthread_cond_t wake;  ///< signalled once at start-up, then by each wake-up of a sleeping worker
    uint32_t state;       ///< a PXR_thread_state
    uint32_t* queue;      ///< ring of actions, owned by the object
    uint32_t capacity;    ///< slots in the ring; one of them always stays empty
    uint32_t head;        ///< the oldest action
    uint32_t tail;        ///< where the next action goes; equal to head when the ring is empty
} PXR_thread;

/// A time or duration of two 32-bit words, whatever width the host's own `struct timeval` has. As a point in time the
/// seconds are read as unsigned (good to 2106).
typedef struct PXR_timeval {
    int32_t tv_sec;
    int32_t tv_usec;
} PXR_timeval;

KV_STATIC_ASSERT(sizeof(pthread_mutex_t) == 24 && sizeof(pthread_cond_t) == 48);
KV_STATIC_ASSERT(offsetof(PXR_thread, thread) == 4 && offsetof(PXR_thread, lock) == 8 &&
                 offsetof(PXR_thread, wake) == 32);
KV_STATIC_ASSERT(offsetof(PXR_thread, state) == 80 && offsetof(PXR_thread, queue) == 84);
KV_STATIC_ASSERT(offsetof(PXR_thread, capacity) == 88 && offsetof(PXR_thread, head) == 92);
KV_STATIC_ASSERT(offsetof(PXR_thread, tail) == 96 && sizeof(PXR_thread) == 100);
KV_STATIC_ASSERT(sizeof(PXR_timeval) == 8);

/// Starts a worker and waits until its routine has reported that it runs.
/// @param worker  a free object: zeroed before its first use, or given free by the functions below. Stays the caller's,
///                and must stay where it is while the worker lives and while anybody may still send it a wake-up
/// @param start   the routine; its argument is `worker`. It takes the lock, sets the state to PXR_THREAD_RUNNING or
///                PXR_THREAD_FAILED and signals `wake`
/// @return 0; 0x620A1501 the object is in use (it is left as it is); 0x620A1502 the routine reported that it cannot
///         run; 0x620A1202 no memory or no thread to be had; 0x620A4201 null argument. After a failure of the last
///         three the object is free again.
KV_EXPORT uint32_t PXR_thread_create(PXR_thread* worker, void* (*start)(void*));

/// Queues an action for a worker, and wakes it when it sleeps. Does nothing when the worker is being stopped or the
/// object is free; any thread may call it at any time of the object's life.
/// @return 0; 0x620B1202 no memory for a longer queue, the action is lost; 0x620B4201 null argument
KV_EXPORT uint32_t PXR_thread_wakeup(PXR_thread* worker, uint32_t action);

/// Sleeps until woken. Called by the worker itself, its lock held; the lock is released for the time of the wait, and
/// is held again on return. When the thread is cancelled in here it ends without the lock. The same holds for the
/// variants below.
/// @return -1 a stop is requested; 1 an action is queued; 0 neither (woken for no reason, or the time is over)
KV_EXPORT int PXR_thread_sleep(PXR_thread* worker);

/// Sleeps until a point in time has passed, in steps of one second: an action or a stop request is noticed at the end
/// of a step.
/// @param until  seconds since 1970, the microseconds are not looked at; null or past: does not wait
/// @return as PXR_thread_sleep
KV_EXPORT int PXR_thread_sleep_ontime(PXR_thread* worker, const PXR_timeval* until);

/// Sleeps for a duration, in steps of one second: as many as it takes to exceed `duration`'s seconds.
/// @param duration  in: how long (null: does not wait); out: the time really spent, 0 when there was no wait
/// @return as PXR_thread_sleep
KV_EXPORT int PXR_thread_sleep_time(PXR_thread* worker, PXR_timeval* duration);

/// Takes the oldest action off the queue. Called with the lock held.
/// @return the action; 0 when the queue is empty
KV_EXPORT uint32_t PXR_thread_get_action(PXR_thread* worker);

/// Ends a worker that cooperates: requests the stop, waits for the routine to return, frees what the object owns. The
/// object is free (zeroed) afterwards.
/// @return 0; -1 nothing done: no living worker, or called by the worker itself
KV_EXPORT int PXR_thread_destroy(PXR_thread* worker);

/// Ends a worker by cancelling its thread, also one that is blocked in a system call with its lock held: the lock is
/// given back for it, to whoever waits.
/// Waits half a second at most. A thread that is still there then (uninterruptible in the kernel, or with cancellation
/// disabled) is left behind: it ends whenever it can, what the object owns is given up, and the object stays marked
/// as in use, so it must never be freed or used again.
/// @return 0; -1 the thread was left behind (reported as 0x620C1503), or nothing was done as for PXR_thread_destroy
KV_EXPORT int PXR_thread_stop(PXR_thread* worker);

/// The name of the calling thread, or null when it has none. Valid until the thread ends or is renamed.
KV_EXPORT const char* PXR_THREAD_SELFNAME(void);

KV_EXTERN_C_END
