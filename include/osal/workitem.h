/* Work items: routines that run once, in the order queued, on the library's own workers.
 *
 * Eight workers are started with the library and live until it shuts down; the pool never grows or
 * shrinks, so a routine that blocks keeps a worker, and items may run beside each other. Routines
 * run with all signals blocked but those of a fault. A routine must return: it may neither end its
 * thread nor throw, and in a child that it forks it must exec or _exit.
 *
 * Shutdown leaves queued items queued: their routines do not run.
 *
 * None of the services blocks but for the moment that another thread changes the queue, and all are
 * safe on any thread, routines included. A handle is known by its signature alone: that it is no
 * stale pointer is not checked.
 */
#ifndef OSAL_WORKITEM_H
#define OSAL_WORKITEM_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Makes a work item, which the caller destroys with KxDestroyWorkItem through the same instance.
 *
 * Code 4: pThis is no service instance, or pWorkItemRoutine or pHandle is null; *pHandle is left as
 * it was. Code 5: no memory; *pHandle is null. */
KCSTATUS KxAllocWorkItem(PIOsal pThis, PKX_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext,
                         HANDLE* pHandle);

/* Queues an item behind all others. Priority (0 to 2) has no effect. An item that is running may be
 * queued again, by its own routine too, and may then run on a second worker beside itself.
 *
 * Code 3: pThis is null (nothing else of it is checked), or no work item. Code 4: Priority is above
 * 2. Code 0x1003: the item is queued already; it runs once. */
KCSTATUS KxScheduleWorkItem(PIOsal pThis, HANDLE hWorkItem, KX_PRIORITY Priority);

/* Destroys an item that is not queued; one whose routine is running may be destroyed, by the
 * routine too.
 *
 * An item that is queued is kept, runs, and has to be destroyed later; the call logs a failure
 * (code 0x1003) but returns 0 all the same. Code 3: pThis is no service instance, or no work item.
 * A log line makes it a cancellation point. */
KCSTATUS KxDestroyWorkItem(PIOsal pThis, HANDLE hWork);

OSAL_END_DECLS

#endif
