// Events: allocation, destruction, signal and reset.
//
// Locks in their order: an event's mutex, then the mutex of a master that is registered on it, or
// the event's gate.
// Sleepers are woken after the event's mutex is free, since one that shares the processor would run
// into it at once. By then the event may be about to be destroyed, so a signal that wakes counts
// itself among the event's wakers.
#include "osal/event.h"

#include "osal/internal/barrier.h"
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

void signal_masters(Event* event) REQUIRES(event->mutex) {
    const LIST_ENTRY* head = &event->multiWaitList;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* registration = record_of<Registration>(entry, offsetof(Registration, SingleEntry));
        if (registration->pMasterEvent != nullptr) signal_master(registration->pMasterEvent);
    }
}

void wake_sleepers(Event* event) {
    if (event->type == KxNotificationEvent)
        pthread_cond_broadcast(&event->condition);
    else
        pthread_cond_signal(&event->condition);
}

// The former state. Behind the gate nobody else raises it. A state that is raised already is raised
// again by an atomic step: whoever takes the signal sees what this thread did before as well.
UINT32 raise(Event* event) REQUIRES(event->gate) {
    if (event->gate.watched) [[unlikely]]
        announce_release_apart(event->state);
    if (is_signalled(event)) return std::atomic_ref<UINT32>(event->state).exchange(1);
    store(event->state, UINT32{1});
    return 0;
}

// True if somebody has to be woken: the caller is then counted as a waker, and goes on to wake().
bool join_wakers(Event* event) REQUIRES(event->gate) {
    if (event->listeners == 0) return false;
    ++event->wakers;
    return true;
}

// Once the mutex could be had, every listener that the signal found sleeps or has its registration
// on the list. What is rare stays out of line: the registers that it needs would be saved by every
// signal. helgrind wants sleepers to be woken under the mutex and has it so.
[[gnu::noinline]] void wake(Event* event) {
    {
        Lock lock(event->mutex);
        signal_masters(event);
        if (event->gate.watched) wake_sleepers(event);
    }
    if (!event->gate.watched) wake_sleepers(event);
    Behind gate(event->gate);
    --event->wakers;
}

bool has_wakers(Event* event) {
    Behind gate(event->gate);
    return event->wakers != 0;
}

}  // namespace

[[gnu::noinline]] void Gate::enter_later() {
    constexpr int kSpins = 100;
    for (int turns = 0; !try_enter(); ++turns)
        if (turns < kSpins)
            __builtin_ia32_pause();
        else
            pause_for_mark();
}

void Event::init_platform() NO_THREAD_SAFETY_ANALYSIS {
    state = 0;
    gate.init();
    listeners = 0;
    wakers = 0;
    announce_atomics(state, mutex);
    OsalInitializeListHead(&Link);
    OsalInitializeListHead(&multiWaitList);
    pthread_cond_init(&condition, nullptr);
    mutex.init();
}

// A thread whose wait has succeeded may get here before the signal has left the event.
int Event::destroy_platform() {
    while (has_wakers(this))
        pause_for_mark();
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
    event->gate.enter();
    const UINT32 former = raise(event);
    const bool wakes = former == 0 && join_wakers(event);
    event->gate.leave();
    if (pPrevState != nullptr) *pPrevState = former != 0;
    if (wakes) wake(event);
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
