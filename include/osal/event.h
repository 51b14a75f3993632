/* Events, and waits for one or several of them.
 *
 * A synchronization event releases one waiter and is reset by that; a notification event releases
 * all and stays signalled until it is reset. An event is a handle to a small record. Whoever
 * allocates an event destroys it, through the instance that allocated it, once nobody uses it any
 * more; a thread whose wait has succeeded may do so at once, though the one that signalled may
 * still be on its way out of the call.
 *
 * A handle is known by its signature alone. Code 3 stands for a null handle, a handle of another
 * kind, and the handle of a destroyed event whose memory was not used again. All functions are safe
 * on any thread.
 *
 * Time-outs are signed microseconds from now, on the realtime clock: a step of that clock moves
 * them. -1 means without limit. Other negative values count their whole seconds back and their
 * fraction forward by up to a second, so those above -1000000 may wait for a fraction of a second.
 * A deadline before the clock's zero has passed; one past its end is never reached.
 */
#ifndef OSAL_EVENT_H
#define OSAL_EVENT_H

#include "osal/iosal.h"

/* A wait without limit. */
#define KX_WAIT_FOREVER ((INT64)-1)

OSAL_BEGIN_DECLS

/* Makes an event that is not signalled, counted to pThis, and stores its handle in *pHandle.
 *
 * Code 4: pThis is no service instance, pHandle is null or the type is unknown; nothing is stored.
 * Code 1: out of memory; *pHandle is null. */
KCSTATUS KxAllocEvent(PIOsal pThis, KX_EVENT_TYPE EventType, HANDLE* pHandle);

/* Destroys an event and frees its record.
 *
 * Code 3: pThis is no service instance, or a bad handle. Code 0x1003: another thread is about to
 * wait for the event or has just been woken by it; the event stays as it is.
 *
 * Blocks until every signal that wakes waiters has left the event, as far as its thread gets to
 * run. Not a cancellation point.
 *
 * Not for an event that a thread waits for: the call then blocks until that thread has left, which
 * uses a record that is no more; registrations of waits for several events are not looked at. */
KCSTATUS KxDestroyEvent(PIOsal pThis, HANDLE Handle);

/* Signals an event. An event that is signalled already stays so and nobody is woken: signals are
 * not counted. *pPrevState, unless pPrevState is null, becomes 1 if it was signalled before, else
 * 0. Code 3: bad handle. pThis is ignored. Not a cancellation point; takes locks for a moment. */
KCSTATUS KxSignalEvent(PIOsal pThis, HANDLE Handle, BOOLEAN* pPrevState);

/* Resets an event, without a lock. *pPrevState as above. A waiter that was woken already is not
 * held back. Code 3: bad handle. pThis is ignored. Not a cancellation point; never blocks. */
KCSTATUS KxResetEvent(PIOsal pThis, HANDLE Handle, BOOLEAN* pPrevState);

/* Waits until an event is signalled, and resets a synchronization event.
 *
 * 0: it was. 0xC7F1000A (code 10, not logged): the time-out expired. The plain value 1, which is no
 * error: the platform's wait failed. Code 3: bad handle. pThis is ignored.
 *
 * With several waiters a signal releases at least one of them, not exactly one: the wait sleeps
 * once and takes any wake-up for a signal, so that a waiter may return although another one, or a
 * reset, was faster. Callers that hand over work check for themselves that there is some.
 *
 * A cancellation point while it sleeps, and not one if the event is signalled at entry. A cancelled
 * thread leaves the event unlocked. Cancellation is deferred while anything is locked, whatever its
 * type was. */
KCSTATUS KxWaitForSingleEvent(PIOsal pThis, HANDLE Handle, INT64 Timeout);

/* Waits for any of Count events, or with bWaitAll for all of them. One event is waited for as by
 * KxWaitForSingleEvent, with that function's results, and pThis and bWaitAll are ignored.
 *
 * Any: returns the index of a signalled event, the lowest at entry, and resets it if it is a
 * synchronization event. If several are found signalled after a sleep, all of them are reset and
 * one index is returned. A wake-up that finds none signalled returns 0. An event that is signalled
 * as the time-out expires may be reset although the result is code 10.
 *
 * All: returns 0 once each event was found signalled. Synchronization events are reset as they are
 * found, one after the other, also if the wait fails or runs into its time-out. Each wake-up starts
 * the time-out anew.
 *
 * A time-out of 0 polls: for any event 0 is returned (not an index) and that event reset; in all
 * other cases code 1, also if all of the events were signalled, which are reset all the same.
 *
 * Code 4: Count is 0 or Handles is null. Code 3: a bad handle. Code 5: no memory for a
 * registration, of which there is one in the paged pool of pThis for each event that has to be
 * waited for; so also pThis is no service instance. Code 10: time-out. The events before a bad
 * handle are dealt with as above. Every call for two events or more logs a status of code 1,
 * whatever it returns. With a Count from 2^31 up no event is looked at: code 1 for a poll, else 0.
 *
 * A cancellation point while it sleeps. A cancelled thread leaves nothing locked, but its
 * registrations on the events' lists and in the pool of pThis; they wake nobody. Cancellation is
 * deferred during the call. */
KCSTATUS KxWaitForMultipleEvents(PIOsal pThis, UINT32 Count, HANDLE* Handles, BOOLEAN bWaitAll,
                                 INT64 Timeout);

OSAL_END_DECLS

#endif
