// Work items and their workers, and KxSleep.
//
// Lock: g_OsalWorkItemQueue.mutex guards the queue, the items' links and pending, and the flags of
// the worker slots. No routine runs under it, and no other lock is taken inside.
//
// Threads: eight workers, each asleep on the condition of its own slot while the queue is empty.
#include <stdio.h>
#include <time.h>

#include <bit>

#include "osal/debug.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/status.h"
#include "osal/internal/valgrind.h"
#include "osal/linux/internal/init.h"
#include "osal/linux/internal/schedule.h"
#include "osal/linux/internal/schedule_threads.h"
#include "osal/memory.h"
#include "osal/time.h"
#include "osal/workitem.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit QUEUE_INFO g_OsalWorkItemQueue = {
    FALSE, {PTHREAD_MUTEX_INITIALIZER}, PTHREAD_COND_INITIALIZER, {}};
constinit WorkItemThreadObj g_OsalWorkItemThreads[kWorkerSlots] = {};
constinit INT32 g_OsalCurrentWorkItems = 0;

OSAL_END_DECLS

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "schedule"};

using WorkItem = _KX_WORK_ITEM_HANDLE_;
using Worker = WorkItemThreadObj;
constinit QUEUE_INFO& queue = g_OsalWorkItemQueue;

// Workers that were claimed from their sleep and have not come yet. Waking one costs as much as
// running dozens of items, so only one is signalled at a time; when it comes it signals the next,
// unless the queue was emptied meanwhile and the others may sleep on. Nobody can tell but by the
// clock: a claimed worker is not marked inactive, whether it was signalled or not.
struct Claims {
    Worker* signalled;  // on its way; none waits unless there is one
    UINT32 waiting;     // a bit for each slot that is to be signalled after it
};
constinit Claims claims GUARDED_BY(queue.mutex) = {};

UINT32 bit_of(const Worker& worker) {
    return 1u << (&worker - g_OsalWorkItemThreads);
}

// The claimed worker that is to be signalled now, or null.
Worker* next_signal() REQUIRES(queue.mutex) {
    if (claims.signalled != nullptr || claims.waiting == 0) return nullptr;
    claims.signalled = &g_OsalWorkItemThreads[std::countr_zero(claims.waiting)];
    claims.waiting &= claims.waiting - 1;
    return claims.signalled;
}

// Claims the first worker that sleeps. Returns the one to be signalled.
Worker* claim_sleeper() REQUIRES(queue.mutex) {
    const INT32 live = load(g_OsalNumWorkItemThreads);
    for (INT32 i = 0; i < live; ++i) {
        Worker& worker = g_OsalWorkItemThreads[i];
        if (!worker.inactive) continue;
        worker.inactive = FALSE;
        claims.waiting |= bit_of(worker);
        return next_signal();
    }
    return nullptr;
}

void release_claims() REQUIRES(queue.mutex) {
    for (; claims.waiting != 0; claims.waiting &= claims.waiting - 1)
        g_OsalWorkItemThreads[std::countr_zero(claims.waiting)].inactive = TRUE;
}

// A worker is awake, claimed or not.
void arrive(Worker& worker) REQUIRES(queue.mutex) {
    worker.inactive = FALSE;
    claims.waiting &= ~bit_of(worker);
    if (claims.signalled == &worker) claims.signalled = nullptr;
}

// By a worker that came for an item. Returns the next one to be signalled.
Worker* pass_on() REQUIRES(queue.mutex) {
    if (!OsalIsListEmpty(&queue.listHead)) return next_signal();
    if (claims.signalled == nullptr) release_claims();
    return nullptr;
}

void signal(Worker* worker) {
    if (worker != nullptr) pthread_cond_signal(&worker->condition);
}

// Changed under the mutex only, so that no interlocked operation is needed.
void count_items(INT32 change) REQUIRES(queue.mutex) {
    store(g_OsalCurrentWorkItems, load(g_OsalCurrentWorkItems, std::memory_order_relaxed) + change);
}

void append(WorkItem* item) REQUIRES(queue.mutex) {
    store(item->pending, TRUE);
    OsalInsertTailList(&queue.listHead, &item->schedQueue);
    count_items(1);
}

// False if the item is queued already.
bool enqueue(WorkItem* item) {
    Worker* claimed;
    {
        Lock lock(queue.mutex);
        if (load(item->pending)) return false;
        append(item);
        claimed = claim_sleeper();
    }
    signal(claimed);
    return true;
}

// Sleeps until there is an item or the worker is to end; true for an item.
bool await_item(Worker& worker) REQUIRES(queue.mutex) {
    while (OsalIsListEmpty(&queue.listHead) && !worker.exit) {
        pass_on();
        worker.inactive = TRUE;
        pthread_cond_wait(&worker.condition, &queue.mutex.native);
        arrive(worker);
    }
    return !worker.exit;
}

WorkItem* pop_oldest() REQUIRES(queue.mutex) {
    count_items(-1);
    return record_of<WorkItem>(OsalRemoveHeadList(&queue.listHead), offsetof(WorkItem, schedQueue));
}

// The oldest item, once there is one; null if the worker is to end, with whatever is queued left
// there. Those who queue items come first.
WorkItem* take_item(Worker& worker) {
    Worker* next;
    WorkItem* item;
    {
        Lock lock(queue.mutex, kPatiently);
        if (!await_item(worker)) return nullptr;
        item = pop_oldest();
        next = pass_on();
    }
    signal(next);
    return item;
}

// An item may be gone or queued again as soon as pending is cleared.
void run(WorkItem* item) {
    const PKX_WORK_ITEM_ROUTINE routine = item->pCallerRoutine;
    const PVOID context = item->pCallerContext;
    // Contract: without a routine pending stays set, and the item can never be queued again.
    if (routine == nullptr) return;
    store(item->pending, FALSE);
    routine(item, context);
}

void enter_worker(const Worker& worker) {
    char name[16];
    snprintf(name, sizeof name, "osal-worker-%d",
             static_cast<int>(&worker - g_OsalWorkItemThreads));
    enter_library_thread(name);
}

void prepare(Worker& worker) {
    Lock lock(queue.mutex);
    worker.exit = FALSE;
    arrive(worker);
    pthread_cond_init(&worker.condition, nullptr);
}

}  // namespace

OSAL_BEGIN_DECLS

void* OsalWorkItemThread(void* slot) {
    auto& worker = *static_cast<Worker*>(slot);
    enter_worker(worker);
    while (WorkItem* item = take_item(worker))
        run(item);
    leave_library_thread(g_OsalNumWorkItemThreads);
}

// Contract: only a negative result counts as a failure, and the platform's error numbers are
// positive.
int InitWorkItemInfrastructure() {
    if (queue.mutex.init() < 0) return -1;
    Lock lock(queue.mutex);
    OsalInitializeListHead(&queue.listHead);
    return 0;
}

void StartWorkItemInfrastructure() {
    for (Worker& worker : g_OsalWorkItemThreads) {
        prepare(worker);
        if (!start_library_thread(OsalWorkItemThread, &worker)) return;
        increment(g_OsalNumWorkItemThreads);
    }
}

void UnInitWorkItemInfrastructure() {
    Lock lock(queue.mutex);
    const INT32 live = load(g_OsalNumWorkItemThreads);
    for (INT32 i = 0; i < live; ++i) {
        g_OsalWorkItemThreads[i].exit = TRUE;
        pthread_cond_broadcast(&g_OsalWorkItemThreads[i].condition);
    }
}

KCSTATUS KxAllocWorkItem(PIOsal pThis, PKX_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext,
                         HANDLE* pHandle) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pWorkItemRoutine == nullptr || pHandle == nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    auto* item = static_cast<WorkItem*>(KxAllocPagedMemory(pThis, sizeof(WorkItem)));
    *pHandle = item;
    if (item == nullptr) return kModule.fail(KC_CODE_NO_RESOURCES);
    item->pCallerRoutine = pWorkItemRoutine;
    item->pCallerContext = pContext;
    item->Signature = WorkItem::kSignature;
    item->pending = FALSE;
    announce_atomics(item->pending);
    increment(instance->WorkItemInUse);
    return KC_OK;
}

KCSTATUS KxScheduleWorkItem(PIOsal pThis, HANDLE hWorkItem, KX_PRIORITY Priority) {
    auto* item = as<WorkItem>(hWorkItem);
    if (pThis == nullptr || item == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (Priority > KX_PRIORITY_REALTIME) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    return enqueue(item) ? KC_OK : kModule.fail(KC_CODE_BUSY);
}

KCSTATUS KxDestroyWorkItem(PIOsal pThis, HANDLE hWork) {
    OsalObjInfo* instance = live(pThis);
    auto* item = as<WorkItem>(hWork);
    if (instance == nullptr || item == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (load(item->pending)) {
        KxDebugPrintf(pThis, "KxDestroyWorkItem: Work Item pending");
        // Contract: the failure is logged, but the caller is told success although the item stays.
        kModule.fail(KC_CODE_BUSY);
        return KC_OK;
    }
    decrement(instance->WorkItemInUse);
    wipe(item, sizeof *item);
    KxFreeMemory(pThis, item);
    return KC_OK;
}

void KxSleep(PIOsal, UINT64 Interval) {
    // Unsigned arithmetic that wraps for intervals above 584 years.
    const timespec request = {static_cast<time_t>(Interval / 1'000'000),
                              static_cast<long>(Interval * 1000 % 1'000'000'000)};
    timespec remainder = {};
    if (nanosleep(&request, &remainder) != 0) nanosleep(&remainder, nullptr);
}

OSAL_END_DECLS
