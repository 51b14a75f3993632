// Start and end of deletion threads; see the header.
//
// A thread that leaves takes a robust mutex and keeps it: the kernel gives it to the next one when
// the thread has ended, and so has the thread that had it before.
#include "osal/internal/deletion_threads.h"

#include <cerrno>

#include <pthread.h>

#include "osal/internal/atomics.h"
#include "osal/internal/barrier.h"
#include "osal/linux/internal/init.h"
#include "osal/linux/internal/schedule_threads.h"

namespace osal {
namespace {

constinit INT32 expected = 0;  // threads that were started and have not left; atomic

constinit pthread_mutex_t last_to_leave = PTHREAD_MUTEX_INITIALIZER;

void take_over_from_last() {
    if (pthread_mutex_lock(&last_to_leave) == EOWNERDEAD) pthread_mutex_consistent(&last_to_leave);
}

}  // namespace

void expect_deletion_thread() {
    increment(expected);
}

void give_up_deletion_thread() {
    decrement(expected);
}

void enter_deletion_thread() {
    block_signals_but_faults();
    enter_library_thread("osal-deletion");
}

void leave_deletion_thread() {
    take_over_from_last();
    decrement(expected);
}

void reset_deletion_threads() {
    pthread_mutexattr_t robust;
    pthread_mutexattr_init(&robust);
    pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&last_to_leave, &robust);
    store(expected, 0);
}

void await_deletion_threads() {
    while (load(expected) > 0)
        pause_for_mark();
    take_over_from_last();
    pthread_mutex_unlock(&last_to_leave);
    (void)load(g_OsalCurrentThreads);  // changed last by each: what they wrote is visible from here
}

}  // namespace osal
