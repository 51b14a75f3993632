// Deferred deletion: objects of an instance that asked for it end on a thread of their own, oldest
// first, so that client routines never run on a thread that holds locks of the client's.
//
// Locks: the instance lock guards the queue and objDeleteActive. Threads: one an instance at most,
// started with the first queued object; it ends when it finds the queue empty or has freed the
// instance with its last object, and shutdown waits for it (internal/deletion_threads.h).
#include "osal/internal/deletion_threads.h"
#include "osal/internal/object.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit UINT32 numScheduledDelObjects = 0;

OSAL_END_DECLS

namespace {

bool start_thread(pObjectInfo oi) {
    HANDLE thread = nullptr;
    expect_deletion_thread();
    const KCSTATUS status = service<&IOsalVtbl::KxCreateThread>(
        oi->pIOsal, KX_PRIORITY{KX_PRIORITY_NORMAL}, &ObjDeleteThread, PVOID{oi}, &thread);
    if (is_error(status)) give_up_deletion_thread();
    return !is_error(status);
}

// Frees what is queued. TRUE: the instance went with it. Caller holds the instance lock.
BOOLEAN drain(pObjectInfo oi) {
    PIOsal osal = oi->pIOsal;
    while (!service<&IOsalVtbl::KxIsListEmpty>(osal, &oi->objDeleteList)) {
        pObject ob = linked_object(oi->objDeleteList.Flink);
        service<&IOsalVtbl::KxRemoveEntryList>(osal, &ob->objectLink);
        service<&IOsalVtbl::KxInterlockedDecrement>(osal, &numScheduledDelObjects);
        if (FreeObject(oi, ob, TRUE)) return TRUE;
    }
    return FALSE;
}

}  // namespace

// Contract: when no thread can be started, nobody is told; the object waits for the next one that
// is queued in this instance.
void ScheduleObjForDeletion(pObjectInfo oi, pObject ob) {
    service<&IOsalVtbl::KxInterlockedIncrement>(oi->pIOsal, &numScheduledDelObjects);
    service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, &oi->objDeleteList, &ob->objectLink);
    if (load(oi->objDeleteActive)) return;
    store(oi->objDeleteActive, TRUE);
    if (!start_thread(oi)) store(oi->objDeleteActive, FALSE);
}

void* ObjDeleteThread(HANDLE threadHandle, PVOID context) {
    auto* oi = static_cast<pObjectInfo>(context);
    PIOsal osal = oi->pIOsal;
    enter_deletion_thread();
    lock(oi);
    if (!drain(oi)) {
        store(oi->objDeleteActive, FALSE);
        unlock(oi);
    }
    leave_deletion_thread();
    service<&IOsalVtbl::KxExitThread>(osal, threadHandle, KC_OK, TRUE);
    return nullptr;
}

// Contract: nothing schedules the work item that this is the routine of; a deletion thread is
// started directly.
void* ObjDeleteWorker(HANDLE, PVOID context) {
    auto* oi = static_cast<pObjectInfo>(context);
    if (!start_thread(oi)) store(oi->objDeleteActive, FALSE);
    return nullptr;
}
