// Timers and work items: their records, globals and infrastructure.
#pragma once

#include <cstddef>

#include <pthread.h>

#include "osal/internal/handle.h"
#include "osal/internal/mutex.h"
#include "osal/linux/internal/schedule_index.h"
#include "osal/types.h"

// A timer. Allocated by KxAllocTimer from the caller's paged pool, freed by KxDestroyTimer.
//
// Signature, pCallerTimerRoutine, pCallerContext: never change while the timer lives.
// The others: guarded by g_OsalTimerQueueMutex, but timerState is read without it by
// KxDestroyTimer, and has_fired by KxCancelTimer.
// Link, Link2: neither initialised nor used.
struct _KX_TIMER_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("TIMR");

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    _KX_TIMER_HANDLE_* pNextTimerStruct;  // next in whichever queue holds it
    _KX_TIMER_HANDLE_* pPrevTimerStruct;  // null at a queue's head
    UINT32 timeOutValue;                  // ticks, at least 1
    UINT32 delta;                         // ticks behind the previous timer in the timer queue
    UINT32 timerState;                    // one of TimerState
    PKX_TIMER_ROUTINE pCallerTimerRoutine;
    PVOID pCallerContext;

    // Behind the stated fields, for the timer queue only.
    UINT64 expiry;         // the tick it is due in
    BOOLEAN sorted;        // in the timer queue and its index, not in the feeder queue
    BOOLEAN has_fired;     // since it was allocated
    osal::IndexNode node;  // lent to the index
};
using KX_TIMER_HANDLE = _KX_TIMER_HANDLE_;
using PKX_TIMER_HANDLE = _KX_TIMER_HANDLE_*;
static_assert(offsetof(_KX_TIMER_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_TIMER_HANDLE_, pNextTimerStruct) == 40);
static_assert(offsetof(_KX_TIMER_HANDLE_, pPrevTimerStruct) == 48);
static_assert(offsetof(_KX_TIMER_HANDLE_, timeOutValue) == 56);
static_assert(offsetof(_KX_TIMER_HANDLE_, delta) == 60);
static_assert(offsetof(_KX_TIMER_HANDLE_, timerState) == 64);
static_assert(offsetof(_KX_TIMER_HANDLE_, pCallerTimerRoutine) == 72);
static_assert(offsetof(_KX_TIMER_HANDLE_, pCallerContext) == 80);

// A work item. Allocated by KxAllocWorkItem from the caller's paged pool, freed by
// KxDestroyWorkItem.
//
// Signature, pCallerRoutine, pCallerContext: never change while the item lives.
// schedQueue: guarded by the queue's mutex. pending: set under it, cleared without it by the worker
// that took the item, read without it by KxDestroyWorkItem.
// Link, Link2: neither initialised nor used.
struct _KX_WORK_ITEM_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("WORK");

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    LIST_ENTRY schedQueue;
    BOOLEAN pending;
    PKX_WORK_ITEM_ROUTINE pCallerRoutine;
    PVOID pCallerContext;
};
using KX_WORK_ITEM_HANDLE = _KX_WORK_ITEM_HANDLE_;
using PKX_WORK_ITEM_HANDLE = _KX_WORK_ITEM_HANDLE_*;
static_assert(offsetof(_KX_WORK_ITEM_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_WORK_ITEM_HANDLE_, schedQueue) == 40);
static_assert(offsetof(_KX_WORK_ITEM_HANDLE_, pending) == 56);
static_assert(offsetof(_KX_WORK_ITEM_HANDLE_, pCallerRoutine) == 64);
static_assert(offsetof(_KX_WORK_ITEM_HANDLE_, pCallerContext) == 72);
static_assert(sizeof(_KX_WORK_ITEM_HANDLE_) == 80);

// The queue of work items. mutex guards listHead, oldest first, the items' links and pending, and
// the flags of every worker slot. exit, condition: part of the record only.
struct _QUEUE_INFO {
    BOOLEAN exit;
    osal::Mutex mutex;
    pthread_cond_t condition;
    LIST_ENTRY listHead GUARDED_BY(mutex);
};
using QUEUE_INFO = _QUEUE_INFO;
static_assert(offsetof(_QUEUE_INFO, mutex) == 8);
static_assert(offsetof(_QUEUE_INFO, condition) == 48);
static_assert(offsetof(_QUEUE_INFO, listHead) == 96);

// One worker's slot; all of it guarded by the queue's mutex.
struct _WorkItemThreadObj {
    BOOLEAN exit;              // the worker is to end
    BOOLEAN inactive;          // set by the worker when it goes to sleep, cleared by who wakes it
    pthread_cond_t condition;  // the worker's own wake-up
};
using WorkItemThreadObj = _WorkItemThreadObj;
using PWorkItemThreadObj = _WorkItemThreadObj*;
static_assert(offsetof(_WorkItemThreadObj, inactive) == 1);
static_assert(offsetof(_WorkItemThreadObj, condition) == 8);

namespace osal {

constexpr INT32 kWorkerSlots = 8;

enum TimerState : UINT32 {
    kNeverArmed = 0,
    kArmed = four_cc("CALA"),
    kFired = four_cc("CALF"),
    kCancelled = four_cc("CALC"),
};

}  // namespace osal

OSAL_BEGIN_DECLS

extern osal::Mutex g_OsalTimerQueueMutex;
extern PKX_TIMER_HANDLE g_OsalTimerFeededQueHeadPtr GUARDED_BY(g_OsalTimerQueueMutex);
extern PKX_TIMER_HANDLE g_OsalTimerQueHeadPtr GUARDED_BY(g_OsalTimerQueueMutex);
extern UINT32 g_OsalCurrentTimers;  // in both queues; changed under the mutex, read without it
extern PKX_TIMER_HANDLE g_OsalCurrentlyExecutingTimerPtr;  // atomic
extern UINT64 g_OsalTimerTickValue;                        // microseconds; never changed
extern BOOLEAN g_OsalTimerThreadExit;                      // atomic

// Makes the queue's mutex. -1 if it could not be made, else 0.
int InitTimerInfrastructure(void);
// Starts the timer thread. A failure goes unnoticed.
void StartTimerInfrastructure(void);
// Tells the timer thread to end, which it does within a tick; does not wait. Harmless if it was
// never started.
void UnInitTimerInfrastructure(void);

// Caller holds the mutex. Push a timer on the feeder queue; insert one into the timer queue behind
// all that are due no later than its timeOutValue from now; unlink one from the queue it is in.
void OsalAddToTimerFeederQue(PKX_TIMER_HANDLE timer) REQUIRES(g_OsalTimerQueueMutex);
void OsalAddToTimerQue(PKX_TIMER_HANDLE timer) REQUIRES(g_OsalTimerQueueMutex);
void OsalRemoveFromTimerQue(PKX_TIMER_HANDLE timer) REQUIRES(g_OsalTimerQueueMutex);

// Passes one tick: sorts in what was armed since the last one and runs what is due.
void OsalServiceTimerQueues(void);

// The body of the timer thread; its argument is not used.
void* OsalTimerThread(void*);

extern QUEUE_INFO g_OsalWorkItemQueue;
extern WorkItemThreadObj g_OsalWorkItemThreads[osal::kWorkerSlots];
extern INT32 g_OsalCurrentWorkItems;  // items queued and not yet taken; atomic

// Makes the queue. -1 if its mutex could not be made, else 0.
int InitWorkItemInfrastructure(void);
// Starts the workers, slot by slot up to the first that cannot be started.
void StartWorkItemInfrastructure(void);
// Tells the workers to end; does not wait. Harmless if they were never started.
void UnInitWorkItemInfrastructure(void);

// The body of a worker; its argument is the slot.
void* OsalWorkItemThread(void* slot);

OSAL_END_DECLS
