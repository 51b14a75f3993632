// Events: allocation, destruction, signal and reset.
//
// Locks in their order: an event's mutex, then the mutex of a master that is registered on it.
// Waiters are woken under the event's mutex: one that has got its signal may destroy the event, and
// has to take that mutex first.
#include "osal/event.h"

#include "osal/internal/valgrind.h"
#include "osal/linux/internal/event.h"
#include "osal/linux/internal/wait.h"

using namespace osal;

namespace {

// Caller holds the mutex of an event that the master is registered on, so the master is there.
void signal_master(Event* master) {
    Lock lock(master->mutex);
    if (is_signalled(master)) return;
    store(master->state, UINT32{1});
    pthread_cond_signal(&master->condition);
}

// What is rare stays out of line: the registers that it needs would be saved by every signal.
[[gnu::noinline]] void signal_masters(Event* event) REQUIRES(event->mutex) {
    const LIST_ENTRY* head = &event->multiWaitList;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* registration = record_of<Registration>(entry, offsetof(Registration, SingleEntry));
        if (registration->pMasterEvent != nullptr) signal_master(registration->pMasterEvent);
    }
}

[[gnu::noinline]] void wake_sleepers(Event* event) {
    if (event->type == KxNotificationEvent)
        pthread_cond_broadcast(&event->condition);
    else
        pthread_cond_signal(&event->condition);
}

void raise(Event* event) REQUIRES(event->mutex) {
    store(event->state, UINT32{1});
    if (event->sleepers != 0) wake_sleepers(event);
    if (!OsalIsListEmpty(&event->multiWaitList)) signal_masters(event);
}

}  // namespace

void Event::init_platform() NO_THREAD_SAFETY_ANALYSIS {
    state = 0;
    sleepers = 0;
    announce_atomics(state, mutex);
    OsalInitializeListHead(&Link);
    OsalInitializeListHead(&multiWaitList);
    pthread_cond_init(&condition, nullptr);
    mutex.init();
}

int Event::destroy_platform() {
    if (const int refusal = mutex.destroy(); refusal != 0) return refusal;
    return pthread_cond_destroy(&condition);
}

KCSTATUS KxAllocEvent(PIOsal pThis, KX_EVENT_TYPE EventType, HANDLE* pHandle) {
    if (EventType > KxNotificationEvent) return kSync.fail(KC_CODE_INVALID_ARGUMENT);
    const KCSTATUS status = new_record<Event>(pThis, pHandle);
    if (!is_error(status)) static_cast<Event*>(*pHandle)->type = EventType;
    return status;
}

KCSTATUS KxDestroyEvent(PIOsal pThis, HANDLE Handle) {
    return end_record<Event>(pThis, Handle);
}

// Contract: an event that is signalled already wakes nobody.
KCSTATUS KxSignalEvent(PIOsal, HANDLE Handle, BOOLEAN* pPrevState) {
    auto* event = as<Event>(Handle);
    if (event == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    InlineLock lock(event->mutex);
    const UINT32 former = load(event->state);
    if (pPrevState != nullptr) *pPrevState = former != 0;
    if (former == 0) raise(event);
    return KC_OK;
}

// Contract: without the event's mutex, so a waiter that was woken already is not held back.
KCSTATUS KxResetEvent(PIOsal, HANDLE Handle, BOOLEAN* pPrevState) {
    auto* event = as<Event>(Handle);
    if (event == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    const UINT32 former = std::atomic_ref<UINT32>(event->state).exchange(0);
    if (pPrevState != nullptr) *pPrevState = former != 0;
    return KC_OK;
}
