// Records of events and of what waits for several of them.
#pragma once

#include "osal/internal/list.h"
#include "osal/linux/internal/gate.h"
#include "osal/linux/internal/sync.h"

// An event; from the C heap. Also the master of a wait for several events, on the waiter's stack.
//
// type: never changes. state: raised behind the gate (a master's: under its mutex), lowered by
// anybody at any time; always atomic. multiWaitList: the registrations of waits for several events,
// by their SingleEntry. Link is kept an empty list; Link2 and waitCount are part of the record
// only.
//
// gate: between a signal and those who are about to wait; one that finds no listener has nothing to
// do with the mutex. listeners: the threads that sleep on condition and the registrations of waits
// that may sleep; changed with the mutex held and behind the gate, so either is enough to read it.
// wakers: the signals that found listeners and may still touch the record, outside the mutex too:
// who destroys the event lets them out first.
struct _KX_EVENT_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("EVNT");
    static constexpr auto kInUse = &OsalObjInfo::EventInUse;

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    UINT32 type;
    UINT32 state;
    INT32 waitCount;
    osal::Mutex mutex;
    pthread_cond_t condition;
    LIST_ENTRY multiWaitList GUARDED_BY(mutex);

    // Behind the stated fields.
    osal::Gate gate;
    UINT32 listeners GUARDED_BY(gate);
    UINT32 wakers GUARDED_BY(gate);

    void init_platform();
    int destroy_platform();
};
static_assert(offsetof(_KX_EVENT_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_EVENT_HANDLE_, type) == 36);
static_assert(offsetof(_KX_EVENT_HANDLE_, state) == 40);
static_assert(offsetof(_KX_EVENT_HANDLE_, waitCount) == 44);
static_assert(offsetof(_KX_EVENT_HANDLE_, mutex) == 48);
static_assert(offsetof(_KX_EVENT_HANDLE_, condition) == 88);
static_assert(offsetof(_KX_EVENT_HANDLE_, multiWaitList) == 136);

typedef _KX_EVENT_HANDLE_ KX_EVENT_HANDLE;
typedef _KX_EVENT_HANDLE_* PKX_EVENT_HANDLE;

// The registration of a wait for several events on one of them: a paged pool block of the waiter's
// instance, made and freed by the waiter.
//
// MasterEntry: the waiter's own, on its list. SingleEntry: guarded by the watched event's mutex.
// pSingleEvent: the waiter's. pMasterEvent: guarded by the watched event's mutex while SingleEntry
// is linked; null once the waiter was cancelled.
struct _MY_EVENT_LIST_ENTRY {
    LIST_ENTRY MasterEntry;
    LIST_ENTRY SingleEntry;
    PKX_EVENT_HANDLE pMasterEvent;
    PKX_EVENT_HANDLE pSingleEvent;
};
static_assert(offsetof(_MY_EVENT_LIST_ENTRY, SingleEntry) == 16);
static_assert(offsetof(_MY_EVENT_LIST_ENTRY, pMasterEvent) == 32);
static_assert(offsetof(_MY_EVENT_LIST_ENTRY, pSingleEvent) == 40);

typedef _MY_EVENT_LIST_ENTRY MY_EVENT_LIST_ENTRY;

namespace osal {

using Event = _KX_EVENT_HANDLE_;
using Registration = _MY_EVENT_LIST_ENTRY;

inline bool is_signalled(const Event* event) {
    return load(event->state) != 0;
}

// What a satisfied wait does to an event: false if it was not signalled, or another was faster to
// take the signal. Needs no lock: whoever destroys the event lets its signallers out.
inline bool take(Event* event) {
    if (!is_signalled(event)) return false;
    if (event->type == KxSynchronizationEvent &&
        std::atomic_ref<UINT32>(event->state).exchange(0) == 0)
        return false;
    if (event->gate.watched) [[unlikely]]
        announce_acquire_apart(event->state);
    return true;
}

}  // namespace osal
