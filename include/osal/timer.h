/* One-shot timers, run by one thread of the library that ticks every 10 milliseconds while a timer
 * is armed, and rests while none is.
 *
 * Routines run on that thread, one after the other: a slow one delays every later timer. They run
 * with all signals blocked but those of a fault. A routine must return: it may neither end its
 * thread nor throw, and in a child that it forks it must exec or _exit. It may arm, cancel and
 * destroy timers.
 *
 * Time-outs are counted in ticks of the realtime clock: the thread makes up for a forward step of
 * the clock at once, and takes a backward step for eleven seconds, so that timers due within them
 * fire early. Shutdown neither fires nor frees armed timers.
 *
 * None of the services blocks but for the moment that another thread changes the queue, and all are
 * safe on any thread, routines included. Arming and cancelling cost the same whatever is pending. A
 * handle is known by its signature alone: that it is no stale pointer is not checked.
 */
#ifndef OSAL_TIMER_H
#define OSAL_TIMER_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Makes a timer, which the caller destroys with KxDestroyTimer through the same instance.
 * bDispatchLevel is ignored.
 *
 * Code 4: pThis is no service instance, or pTimerRoutine or pHandle is null; *pHandle is left as it
 * was. Code 5: no memory; *pHandle is null. */
KCSTATUS KxAllocTimer(PIOsal pThis, PKX_TIMER_ROUTINE pTimerRoutine, PVOID pContext,
                      BOOLEAN bDispatchLevel, PHANDLE pHandle);

/* Arms a timer: its routine runs once, in the n-th tick from now, which may be up to a tick less
 * than Timeout microseconds away. n is Timeout in whole ticks: a remainder shorter than a tick is
 * dropped, less than a tick counts as one, and the number is cut to 32 bits. Of two timers due in
 * one tick the one armed first fires first, but the one armed later if both were armed within one
 * tick. A timer that fired or was cancelled may be armed again, from its own routine too.
 *
 * Code 3: pThis is null (nothing else of it is checked), or no timer. Code 0x1003: armed already;
 * nothing changes, and a line goes to the log, which makes the call a cancellation point. */
KCSTATUS KxScheduleTimer(PIOsal pThis, HANDLE hTimer, UINT64 Timeout);

/* Disarms a timer. True if it was armed and its routine will not run. False if it was not, if an
 * argument is bad, and for the timer whose routine is running, even if it has been armed again. */
BOOLEAN KxCancelTimer(PIOsal pThis, HANDLE hTimer);

/* Destroys a timer that is not armed; one whose routine is running may be destroyed, by the routine
 * too.
 *
 * Code 3: pThis is no service instance, or no timer. Code 0x1003: armed; it is kept, and a line
 * goes to the log, which makes the call a cancellation point. */
KCSTATUS KxDestroyTimer(PIOsal pThis, HANDLE hTimer);

OSAL_END_DECLS

#endif
