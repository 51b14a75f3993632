// Waits on conditions: deadlines, and how a waiting thread is cancelled.
//
// A thread may be cancelled while it waits. Its frames are then unwound, so scoped guards release
// what it holds; their destructors do nothing that could be cancelled in turn. Cancellation is kept
// deferred from before the first lock until after the last unlock: an asynchronous one could strike
// between two instructions of a guard. It is restored by a plain call and never by a destructor,
// since a pending request acts there.
#pragma once

#include <pthread.h>
#include <time.h>

#include "osal/internal/mutex.h"
#include "osal/types.h"

namespace osal {

constexpr INT64 kWithoutLimit = -1;

// Returns the former cancellation type.
inline int defer_cancellation() {
    int former;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &former);
    return former;
}
inline void restore_cancellation(int former) {
    if (former != PTHREAD_CANCEL_DEFERRED) pthread_setcanceltype(former, nullptr);
}

// The realtime clock's time in so many microseconds. A time before the clock's zero becomes zero,
// which has passed as well, and one past its end the end.
timespec deadline_after(INT64 timeout_us);

// Waits once, without limit for -1. The platform's result: 0 for any wake-up. A cancellation point.
int wait_once(pthread_cond_t* condition, Mutex& mutex, INT64 timeout_us) REQUIRES(mutex);

}  // namespace osal
