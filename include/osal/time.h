/* System time, and sleeping. */
#ifndef OSAL_TIME_H
#define OSAL_TIME_H

#include "osal/iosal.h"

/* 1 January 1970 UTC, in 100-ns units since 1 January 1601 UTC. */
#define KX_UNIX_EPOCH UINT64_C(116444736000000000)

OSAL_BEGIN_DECLS

/* Stores the current time of the realtime clock, in 100-nanosecond units since 1 January 1601 UTC.
 * pThis is ignored; pCurrentTime is not checked for null. Thread safe. */
void KxGetSystemTime(PIOsal pThis, PUINT64 pCurrentTime);

/* Blocks the calling thread for Interval microseconds. A signal that interrupts the sleep does not
 * shorten it, but a second one does. pThis is ignored. A cancellation point. */
void KxSleep(PIOsal pThis, UINT64 Interval);

OSAL_END_DECLS

#endif
