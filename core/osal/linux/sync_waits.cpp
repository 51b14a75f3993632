// Waits for one event, and for several.
//
// A wait for several events that has to sleep hangs a registration of its private master event on
// each event that is not signalled yet; whoever signals such an event signals the master too.
//
// Locks in their order: an event's mutex, then a master's; an event's mutex, then the paged pool's.
// A waiter holds one event's mutex at a time, and never its master's together with it. Behind an
// event's gate nothing is locked. A wait that finds its event signalled takes no lock at all.
#include <cerrno>

#include "osal/event.h"
#include "osal/linux/internal/event.h"
#include "osal/linux/internal/wait.h"
#include "osal/memory.h"

using namespace osal;

namespace {

constexpr const char* kMultiWait = "KxWaitForMultipleEvents";
constexpr KCSTATUS kTimedOut = unlogged_error(KC_CODE_TIMED_OUT);
constexpr KCSTATUS kWaitFailed = 1;

// Takes the signal, or else counts the caller among the listeners: a later signal wakes it, if it
// holds the event's mutex until it sleeps or has its registration on the list.
bool take_or_listen(Event* event) {
    Behind gate(event->gate);
    if (take(event)) return true;
    ++event->listeners;
    return false;
}

void stop_listening(Event* event) {
    Behind gate(event->gate);
    --event->listeners;
}

// A listener on its way out, also when it is cancelled.
class Listener {
  public:
    explicit Listener(Event* event) : event_(event) {}
    ~Listener() {
        if (event_ != nullptr) stop_listening(event_);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    void stay() { event_ = nullptr; }

  private:
    Event* event_;
};

// Contract: sleeps once; any wake-up counts as a signal, whoever consumed it meanwhile.
int sleep_on(Event* event, INT64 timeout_us) {
    Lock lock(event->mutex);
    if (take_or_listen(event)) return 0;
    Listener listener(event);
    const int result = wait_once(&event->condition, event->mutex, timeout_us);
    if (result == 0) take(event);
    return result;
}

// What is rare stays out of line: the registers that it needs would be saved by every wait.
[[gnu::noinline]] KCSTATUS wait_asleep(Event* event, INT64 timeout_us) {
    const int cancellation = defer_cancellation();
    const int result = sleep_on(event, timeout_us);
    restore_cancellation(cancellation);
    if (result == 0) return KC_OK;
    return result == ETIMEDOUT ? kTimedOut : kWaitFailed;
}

// The arguments of a wait for several events.
struct Request {
    PIOsal pThis;
    INT32 count;  // signed by contract
    HANDLE* handles;
    bool all;
    INT64 timeout_us;
};

// Contract: a poll reports neither an index nor that all events were signalled.
KCSTATUS poll(const Request& request, KCSTATUS undecided) {
    for (INT32 i = 0; i < request.count; ++i) {
        auto* event = as<Event>(request.handles[i]);
        if (event == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE, kMultiWait);
        if (take(event) && !request.all) return KC_OK;
    }
    return undecided;
}

constexpr INT32 kNone = -1;

// The lowest index of a signalled event, which is consumed, or kNone: then nothing was done. Spares
// a wait that is satisfied at entry its registrations. Without an instance they would have failed.
INT32 take_first(const Request& request) {
    if (live(request.pThis) == nullptr) return kNone;
    for (INT32 i = 0; i < request.count; ++i) {
        auto* event = as<Event>(request.handles[i]);
        if (event == nullptr) return kNone;
        if (take(event)) return i;
    }
    return kNone;
}

// One wait for several events that may have to sleep, on the waiter's stack.
class MultiWait {
  public:
    explicit MultiWait(const Request& request) : request_(request) {
        master_.Signature = Event::kSignature;
        master_.type = KxSynchronizationEvent;
        master_.init_platform();
        OsalInitializeListHead(&registrations_);
    }
    // Registrations are left only if the thread was cancelled.
    ~MultiWait() {
        abandon_all();
        master_.destroy_platform();
    }
    MultiWait(const MultiWait&) = delete;
    MultiWait& operator=(const MultiWait&) = delete;

    KCSTATUS run() {
        if (!enlist_all()) sleep_until_satisfied();
        withdraw_all();
        return result_;
    }

  private:
    enum class Step { kTaken, kEnlisted, kNoMemory };

    static Registration* at(PLIST_ENTRY entry) {
        return record_of<Registration>(entry, offsetof(Registration, MasterEntry));
    }

    bool decide(KCSTATUS result) {
        result_ = result;
        return true;
    }

    Step take_or_enlist(Event* event);
    bool enlist_all();
    int sleep();
    bool claim(Registration* registration);
    void note_winner(const Event* event);
    void discard(Registration* registration);
    void collect();
    void sleep_until_satisfied();
    void withdraw_all();
    void abandon_all();

    const Request& request_;
    Event master_;
    LIST_ENTRY registrations_;  // by MasterEntry; this thread's alone
    bool has_winner_ = false;
    KCSTATUS result_ = KC_OK;  // also the index 0
};

MultiWait::Step MultiWait::take_or_enlist(Event* event) {
    Lock lock(event->mutex);
    if (take_or_listen(event)) return Step::kTaken;
    Listener listener(event);
    auto* registration =
        static_cast<Registration*>(KxAllocPagedMemory(request_.pThis, sizeof(Registration)));
    if (registration == nullptr) return Step::kNoMemory;
    listener.stay();  // the registration stops listening when it is withdrawn
    registration->pSingleEvent = event;
    registration->pMasterEvent = &master_;
    OsalInsertTailList(&registrations_, &registration->MasterEntry);
    OsalInsertTailList(&event->multiWaitList, &registration->SingleEntry);
    return Step::kEnlisted;
}

// True if the wait is decided.
bool MultiWait::enlist_all() {
    for (INT32 i = 0; i < request_.count; ++i) {
        auto* event = as<Event>(request_.handles[i]);
        if (event == nullptr) return decide(kSync.fail(KC_CODE_INVALID_HANDLE, kMultiWait));
        const Step step = take_or_enlist(event);
        if (step == Step::kNoMemory) return decide(kSync.fail(KC_CODE_NO_RESOURCES, kMultiWait));
        if (step == Step::kTaken && !request_.all) return decide(static_cast<KCSTATUS>(i));
    }
    return false;
}

int MultiWait::sleep() {
    Lock lock(master_.mutex);
    int result = 0;
    if (!is_signalled(&master_))
        result = wait_once(&master_.condition, master_.mutex, request_.timeout_us);
    store(master_.state, UINT32{0});
    return result;
}

// Consumes and unlinks the watched event if it is signalled.
bool MultiWait::claim(Registration* registration) {
    Event* event = registration->pSingleEvent;
    if (!is_signalled(event)) return false;
    Lock lock(event->mutex);
    if (!take(event)) return false;
    OsalRemoveEntryList(&registration->SingleEntry);
    stop_listening(event);
    return true;
}

void MultiWait::note_winner(const Event* event) {
    if (request_.all || has_winner_) return;
    INT32 index = 0;
    while (index < request_.count && request_.handles[index] != event)
        ++index;
    result_ = static_cast<KCSTATUS>(index);
    has_winner_ = true;
}

// SingleEntry is unlinked already.
void MultiWait::discard(Registration* registration) {
    OsalRemoveEntryList(&registration->MasterEntry);
    registration->pMasterEvent = nullptr;
    registration->pSingleEvent = nullptr;
    KxFreeMemory(request_.pThis, registration);
}

// Contract: all events that are found signalled are consumed, for a wait for any as well.
void MultiWait::collect() {
    PLIST_ENTRY next;
    for (PLIST_ENTRY entry = registrations_.Flink; entry != &registrations_; entry = next) {
        next = entry->Flink;
        Registration* registration = at(entry);
        Event* event = registration->pSingleEvent;
        if (!claim(registration)) continue;
        note_winner(event);
        discard(registration);
    }
}

// Contract: each sleep gets the full time-out; a time-out is one even if events were collected
// after it; a wait for any ends with its first sleep, with the index 0 if nothing was collected.
void MultiWait::sleep_until_satisfied() {
    while (!OsalIsListEmpty(&registrations_)) {
        const int result = sleep();
        collect();
        if (result == ETIMEDOUT) result_ = kSync.fail(KC_CODE_TIMED_OUT, kMultiWait);
        if (result == ETIMEDOUT || !request_.all) return;
    }
}

void MultiWait::withdraw_all() {
    while (!OsalIsListEmpty(&registrations_)) {
        Registration* registration = at(registrations_.Blink);
        {
            Lock lock(registration->pSingleEvent->mutex);
            OsalRemoveEntryList(&registration->SingleEntry);
            stop_listening(registration->pSingleEvent);
        }
        discard(registration);
    }
}

// Contract: a cancelled wait leaves its registrations where they are. They lose their master, which
// goes with this frame.
void MultiWait::abandon_all() {
    for (PLIST_ENTRY entry = registrations_.Flink; entry != &registrations_; entry = entry->Flink) {
        Lock lock(at(entry)->pSingleEvent->mutex);
        at(entry)->pMasterEvent = nullptr;
        stop_listening(at(entry)->pSingleEvent);
    }
}

KCSTATUS wait_for_several(const Request& request, KCSTATUS undecided) {
    if (request.timeout_us == 0) return poll(request, undecided);
    if (!request.all)
        if (const INT32 index = take_first(request); index != kNone)
            return static_cast<KCSTATUS>(index);
    return MultiWait(request).run();
}

}  // namespace

KCSTATUS KxWaitForSingleEvent(PIOsal, HANDLE Handle, INT64 Timeout) {
    auto* event = as<Event>(Handle);
    if (event == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    if (take(event)) return KC_OK;  // nothing is held: a thread may be cancelled here
    return wait_asleep(event, Timeout);
}

KCSTATUS KxWaitForMultipleEvents(PIOsal pThis, UINT32 Count, HANDLE* Handles, BOOLEAN bWaitAll,
                                 INT64 Timeout) {
    if (Count == 0 || Handles == nullptr) return kSync.fail(KC_CODE_INVALID_ARGUMENT);
    if (Count == 1) return KxWaitForSingleEvent(pThis, Handles[0], Timeout);
    // Contract: built, and so logged, before anything is known.
    const KCSTATUS undecided = kSync.fail(KC_CODE_FAILED);
    const int cancellation = defer_cancellation();
    const KCSTATUS status = wait_for_several(
        {pThis, static_cast<INT32>(Count), Handles, bWaitAll != FALSE, Timeout}, undecided);
    restore_cancellation(cancellation);
    return status;
}
