/* Threads.
 *
 * A thread is a handle to a record that outlives the thread's routine: others wait for the thread,
 * read its exit status, change its scheduling and at last destroy the record. A routine is expected
 * to end with KxExitThread. One that simply returns, or ends by cancellation or pthread_exit,
 * leaves a record that looks alive for ever: it cannot be destroyed, has no exit status, and later
 * waits for it run into their time-out.
 *
 * A handle is known by its signature alone. Code 3 stands for a null handle, a handle of another
 * kind, and the handle of a destroyed record whose memory was not used again. A record is not to be
 * destroyed while another thread uses its handle. All functions are safe on any thread.
 *
 * A thread needs the library's code until it is gone: for a moment still after the waits for it
 * have returned, and while destructors of its routine's frames run. DllStop does not wait for that.
 * The library is not to be unloaded before.
 */
#ifndef OSAL_THREAD_H
#define OSAL_THREAD_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Starts a thread, detached, that runs pThreadRoutine(its own handle, pContext); what the routine
 * returns is ignored. The record is a paged block of pThis. With a null pHandle only the routine
 * knows the handle. The routine may run, and even destroy the record, before *pHandle is stored.
 *
 * Priority: KX_PRIORITY_REALTIME asks for round-robin scheduling, which the platform grants no
 * thread that inherits the scheduling of its creator, as these do; so it has no effect.
 *
 * Looked at in this order: code 4, pThis is no service instance or pThreadRoutine is null (*pHandle
 * untouched; it is null after any other failure). Code 1, out of memory. Code 4, unknown priority.
 * Code 5, the process has as many of these threads as it may (98 % of its limit at start-up, less
 * the library's own), or the platform lacks resources. Code 1, the platform refuses otherwise. */
KCSTATUS KxCreateThread(PIOsal pThis, KX_PRIORITY Priority, PKX_THREAD_ROUTINE pThreadRoutine,
                        PVOID pContext, HANDLE* pHandle);

/* Ends the calling thread, which should be the one that Handle stands for: stores ExitStatus, wakes
 * all who wait, and leaves by pthread_exit, which runs the destructors and clean-up handlers of the
 * routine's frames. Returns only for a bad handle; nothing has happened then.
 *
 * bDestroyThread true destroys the record first, through pThis, as KxDestroyThread does; its result
 * is ignored. Do not combine it with waiters: they would use a record that is gone. */
void KxExitThread(PIOsal pThis, HANDLE Handle, KCSTATUS ExitStatus, BOOLEAN bDestroyThread);

/* Waits until a thread has ended; returns 0 at once if it has called KxExitThread. TimeOut is in
 * microseconds, on the realtime clock, -1 for no limit; what else is negative is as for events.
 * Waits once: a spurious wake-up counts as the end. A cancellation point; a thread cancelled here
 * leaves nothing locked.
 *
 * Code 3: bad handle. Code 10: time-out. Code 1: the wait failed otherwise. pThis is ignored. */
KCSTATUS KxWaitForThreadExit(PIOsal pThis, HANDLE Handle, INT64 TimeOut);

/* The status given to KxExitThread, as it is. Code 3: bad handle. Code 0x1003: the thread has not
 * called KxExitThread. A thread that exits with one of these values cannot be told from a failure.
 * pThis is ignored. */
KCSTATUS KxGetThreadExitStatus(PIOsal pThis, HANDLE Handle);

/* Asks the platform for another scheduling: the default one, or round-robin for
 * KX_PRIORITY_REALTIME; what the platform answers is ignored, and it refuses the latter. Does
 * nothing to a thread that has ended. Code 3: bad handle. Code 4: unknown priority. pThis is
 * ignored. Not checked: a thread whose routine was cancelled or left by pthread_exit. */
KCSTATUS KxSetThreadPriority(PIOsal pThis, HANDLE Handle, KX_PRIORITY priority);

/* Destroys the record of a thread that has called KxExitThread, through the instance that it was
 * created through. Code 3: pThis is no service instance, or a bad handle. Code 0x1003: the thread
 * has not called KxExitThread. */
KCSTATUS KxDestroyThread(PIOsal pThis, HANDLE Handle);

/* Does nothing; returns 0. Kept for callers that were built with it. */
KCSTATUS KxSystemRelThreadHandleObj(PVOID pThreadHandleObj);

OSAL_END_DECLS

#endif
