// Timers: two queues, and the thread that serves them.
//
// An armed timer waits in the feeder queue, newest first, until the next tick sorts it into the
// timer queue: a delta list, soonest first, in which each timer says how many ticks it is due
// behind the one before. The sum of the deltas up to a timer is the number of ticks it still has to
// wait, which never exceeds the 32 bits of its time-out. So ticks can be counted in 64 bits beside
// the list: now is the number of the current one, a timer's expiry is the one in which it is due,
// and the index over the expiries finds the place where the list has to be changed.
//
// Lock: g_OsalTimerQueueMutex guards both queues, the index, now, and the timers' fields. No
// routine runs under it, and no other lock is taken inside.
//
// Threads: the timer thread, which runs every routine. It ticks while a timer is armed and rests
// while none is: nobody can tell whether ticks without timers pass, and a hundred wake-ups a second
// are what an idle library would cost.
#include "osal/timer.h"

#include <semaphore.h>

#include <utility>

#include "osal/debug.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/status.h"
#include "osal/internal/valgrind.h"
#include "osal/linux/internal/init.h"
#include "osal/linux/internal/schedule.h"
#include "osal/linux/internal/schedule_threads.h"
#include "osal/memory.h"
#include "osal/time.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit Mutex g_OsalTimerQueueMutex = {PTHREAD_MUTEX_INITIALIZER};
constinit PKX_TIMER_HANDLE g_OsalTimerFeededQueHeadPtr = nullptr;
constinit PKX_TIMER_HANDLE g_OsalTimerQueHeadPtr = nullptr;
constinit UINT32 g_OsalCurrentTimers = 0;
constinit PKX_TIMER_HANDLE g_OsalCurrentlyExecutingTimerPtr = nullptr;
constinit UINT64 g_OsalTimerTickValue = 10'000;
constinit BOOLEAN g_OsalTimerThreadExit = FALSE;

OSAL_END_DECLS

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "schedule"};

// Advances with the delta of the queue's head only: while the queue is empty it stands still.
constinit UINT64 now GUARDED_BY(g_OsalTimerQueueMutex) = 0;

// The thread rests, or is about to, until rest_over is posted. A post too many costs it a turn.
constinit bool resting GUARDED_BY(g_OsalTimerQueueMutex) = false;
constinit sem_t rest_over = {};

// A timer that is due, with what is needed of it: its record may be gone once its routine runs.
struct Due {
    Timer* timer = nullptr;
    PKX_TIMER_ROUTINE routine = nullptr;
    PVOID context = nullptr;
};

void pass_ticks_locked(UINT32 ticks) REQUIRES(g_OsalTimerQueueMutex) {
    g_OsalTimerQueHeadPtr->delta -= ticks;
    now += ticks;
}

void prefetch_feeder() REQUIRES(g_OsalTimerQueueMutex) {
    UINT64 ticks[kScouts];
    unsigned count = 0;
    const Timer* timer = g_OsalTimerFeededQueHeadPtr;
    for (; timer != nullptr && count < kScouts; timer = timer->pNextTimerStruct)
        ticks[count++] = now + timer->timeOutValue;
    if (count > 1 && g_OsalTimerQueHeadPtr != nullptr) index_prefetch(ticks, count);
}

// Newest first, so that of two timers of one tick the one armed later comes first.
void sort_in_feeder() REQUIRES(g_OsalTimerQueueMutex) {
    for (unsigned i = 0; g_OsalTimerFeededQueHeadPtr != nullptr; ++i) {
        if (i % kScouts == 0) prefetch_feeder();
        Timer* timer = g_OsalTimerFeededQueHeadPtr;
        g_OsalTimerFeededQueHeadPtr = timer->pNextTimerStruct;
        OsalAddToTimerQue(timer);
    }
}

// From the moment that the timer is marked as fired another thread may destroy it.
Due take_head() REQUIRES(g_OsalTimerQueueMutex) {
    Timer* timer = g_OsalTimerQueHeadPtr;
    const Due due = {timer, timer->pCallerTimerRoutine, timer->pCallerContext};
    OsalRemoveFromTimerQue(timer);
    store(timer->has_fired, TRUE);
    store(g_OsalCurrentlyExecutingTimerPtr, timer);
    store<UINT32>(timer->timerState, kFired);
    return due;
}

Due begin_tick() {
    Lock lock(g_OsalTimerQueueMutex);
    sort_in_feeder();
    Timer* head = g_OsalTimerQueHeadPtr;
    if (head == nullptr) return {};
    if (head->delta != 0) pass_ticks_locked(1);
    return head->delta == 0 ? take_head() : Due{};
}

Due next_due() {
    if (load(g_OsalCurrentTimers) == 0) return {};
    Lock lock(g_OsalTimerQueueMutex);
    Timer* head = g_OsalTimerQueHeadPtr;
    return head != nullptr && head->delta == 0 ? take_head() : Due{};
}

void run(const Due& due) {
    if (due.routine != nullptr) due.routine(due.timer, due.context);
    store<Timer*>(g_OsalCurrentlyExecutingTimerPtr, nullptr);
}

// Passes up to so many ticks in which nothing is due and nothing is sorted in; returns how many.
UINT32 skip_idle_ticks(UINT32 most) {
    if (load(g_OsalCurrentTimers) == 0) return most;
    Lock lock(g_OsalTimerQueueMutex);
    const Timer* head = g_OsalTimerQueHeadPtr;
    if (g_OsalTimerFeededQueHeadPtr != nullptr || head == nullptr || head->delta == 0) return 0;
    const UINT32 ticks = head->delta - 1 < most ? head->delta - 1 : most;
    pass_ticks_locked(ticks);
    return ticks;
}

void service_ticks(UINT32 ticks) {
    while (ticks > 0) {
        OsalServiceTimerQueues();
        --ticks;
        if (ticks > 0) ticks -= skip_idle_ticks(ticks);
    }
}

// Contract: a backward step of the clock counts as eleven seconds, and so does a forward step that
// 32 bits take for a negative one; timers due within them fire early.
UINT32 ticks_between(UINT64 start_100ns, UINT64 stop_100ns) {
    const auto ticks = static_cast<INT32>((stop_100ns - start_100ns) / 10 / g_OsalTimerTickValue);
    if (stop_100ns < start_100ns || ticks < 0)
        return static_cast<UINT32>(g_OsalTimerTickValue / 10 + 100);
    return static_cast<UINT32>(ticks);
}

UINT32 sleep_a_tick() {
    UINT64 start_100ns, stop_100ns;
    KxGetSystemTime(pIOsal, &start_100ns);
    KxSleep(pIOsal, g_OsalTimerTickValue);
    KxGetSystemTime(pIOsal, &stop_100ns);
    return ticks_between(start_100ns, stop_100ns);
}

bool begin_rest() {
    Lock lock(g_OsalTimerQueueMutex);
    return resting = g_OsalCurrentTimers == 0;
}

// Returns the ticks that passed.
UINT32 rest_or_sleep() {
    if (!begin_rest()) return sleep_a_tick();
    sem_wait(&rest_over);
    return 0;
}

void feed(Timer* timer, UINT64 timeout_us) REQUIRES(g_OsalTimerQueueMutex) {
    store<UINT32>(timer->timerState, kArmed);
    timer->timeOutValue = static_cast<UINT32>(timeout_us / g_OsalTimerTickValue);
    if (timer->timeOutValue == 0) timer->timeOutValue = 1;
    OsalAddToTimerFeederQue(timer);
}

// False if the timer is armed already.
bool arm(Timer* timer, UINT64 timeout_us) {
    bool rested;
    {
        Lock lock(g_OsalTimerQueueMutex);
        if (load(timer->timerState) == kArmed) return false;
        feed(timer, timeout_us);
        rested = std::exchange(resting, false);
    }
    if (rested) sem_post(&rest_over);
    return true;
}

bool disarm(Timer* timer) {
    Lock lock(g_OsalTimerQueueMutex);
    if (load(timer->timerState) != kArmed) return false;
    OsalRemoveFromTimerQue(timer);
    store<UINT32>(timer->timerState, kCancelled);
    return true;
}

// The timer whose routine runs may be gone, destroyed by the routine, and a new one have its
// address.
bool is_executing(Timer* timer) {
    return timer == load(g_OsalCurrentlyExecutingTimerPtr) && load(timer->has_fired);
}

void make_timer(Timer* timer, PKX_TIMER_ROUTINE routine, PVOID context) {
    timer->pCallerTimerRoutine = routine;
    timer->pCallerContext = context;
    timer->Signature = Timer::kSignature;
    timer->pNextTimerStruct = nullptr;
    timer->pPrevTimerStruct = nullptr;
    timer->timeOutValue = 0;
    timer->delta = 0;
    timer->timerState = kNeverArmed;
    timer->sorted = FALSE;
    timer->has_fired = FALSE;
    announce_atomics(timer->timerState, timer->has_fired);
}

}  // namespace

OSAL_BEGIN_DECLS

void OsalAddToTimerFeederQue(PKX_TIMER_HANDLE timer) {
    Timer* after = g_OsalTimerFeededQueHeadPtr;
    timer->pPrevTimerStruct = nullptr;
    timer->pNextTimerStruct = after;
    if (after != nullptr) after->pPrevTimerStruct = timer;
    g_OsalTimerFeededQueHeadPtr = timer;
    store(g_OsalCurrentTimers, g_OsalCurrentTimers + 1);
}

void OsalAddToTimerQue(PKX_TIMER_HANDLE timer) {
    if (g_OsalTimerQueHeadPtr == nullptr) index_clear();
    timer->expiry = now + timer->timeOutValue;
    timer->sorted = TRUE;
    Timer* before = index_insert(timer);
    Timer*& link = before != nullptr ? before->pNextTimerStruct : g_OsalTimerQueHeadPtr;
    Timer* after = link;
    timer->pPrevTimerStruct = before;
    timer->pNextTimerStruct = after;
    timer->delta = static_cast<UINT32>(timer->expiry - (before != nullptr ? before->expiry : now));
    link = timer;
    if (after == nullptr) return;
    after->pPrevTimerStruct = timer;
    after->delta -= timer->delta;
}

void OsalRemoveFromTimerQue(PKX_TIMER_HANDLE timer) {
    if (timer->sorted) index_erase(timer);
    timer->sorted = FALSE;
    Timer* before = timer->pPrevTimerStruct;
    Timer* after = timer->pNextTimerStruct;
    if (timer == g_OsalTimerQueHeadPtr)
        g_OsalTimerQueHeadPtr = after;
    else if (timer == g_OsalTimerFeededQueHeadPtr)
        g_OsalTimerFeededQueHeadPtr = after;
    else
        before->pNextTimerStruct = after;
    if (after != nullptr) {
        after->pPrevTimerStruct = before;
        after->delta += timer->delta;
    }
    timer->pNextTimerStruct = nullptr;
    timer->pPrevTimerStruct = nullptr;
    store(g_OsalCurrentTimers, g_OsalCurrentTimers - 1);
}

void OsalServiceTimerQueues() {
    if (load(g_OsalCurrentTimers) == 0) return;
    for (Due due = begin_tick(); due.timer != nullptr; due = next_due())
        run(due);
}

void* OsalTimerThread(void*) {
    enter_library_thread("osal-timer");
    UINT32 elapsed = 0;
    while (!load(g_OsalTimerThreadExit)) {
        service_ticks(elapsed);
        elapsed = rest_or_sleep();
    }
    leave_library_thread(g_OsalNumTimerThreads);
}

// Contract: only a negative result counts as a failure, and the platform's error numbers are
// positive.
int InitTimerInfrastructure() {
    sem_init(&rest_over, 0, 0);
    return g_OsalTimerQueueMutex.init() < 0 ? -1 : 0;
}

void StartTimerInfrastructure() {
    announce_atomics(g_OsalTimerThreadExit, g_OsalCurrentTimers, g_OsalCurrentlyExecutingTimerPtr);
    store(g_OsalTimerThreadExit, FALSE);
    if (start_library_thread(OsalTimerThread, nullptr)) increment(g_OsalNumTimerThreads);
}

void UnInitTimerInfrastructure() {
    store(g_OsalTimerThreadExit, TRUE);
    sem_post(&rest_over);
}

KCSTATUS KxAllocTimer(PIOsal pThis, PKX_TIMER_ROUTINE pTimerRoutine, PVOID pContext, BOOLEAN,
                      PHANDLE pHandle) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pTimerRoutine == nullptr || pHandle == nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    auto* timer = static_cast<Timer*>(KxAllocPagedMemory(pThis, sizeof(Timer)));
    *pHandle = timer;
    if (timer == nullptr) return kModule.fail(KC_CODE_NO_RESOURCES);
    make_timer(timer, pTimerRoutine, pContext);
    increment(instance->TimerInUse);
    return KC_OK;
}

KCSTATUS KxScheduleTimer(PIOsal pThis, HANDLE hTimer, UINT64 Timeout) {
    auto* timer = as<Timer>(hTimer);
    if (pThis == nullptr || timer == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (arm(timer, Timeout)) return KC_OK;
    KxDebugPrintf(pThis, "KxScheduleTimer: Timer pending");
    return kModule.fail(KC_CODE_BUSY);
}

// Contract: the timer whose routine runs cannot be cancelled, even after it was armed again.
BOOLEAN KxCancelTimer(PIOsal pThis, HANDLE hTimer) {
    auto* timer = as<Timer>(hTimer);
    if (live(pThis) == nullptr || timer == nullptr) return FALSE;
    if (is_executing(timer)) return FALSE;
    return disarm(timer);
}

KCSTATUS KxDestroyTimer(PIOsal pThis, HANDLE hTimer) {
    OsalObjInfo* instance = live(pThis);
    auto* timer = as<Timer>(hTimer);
    if (instance == nullptr || timer == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (load(timer->timerState) == kArmed) {
        KxDebugPrintf(pThis, "KxDestroyTimer: Timer in use");
        return kModule.fail(KC_CODE_BUSY);
    }
    decrement(instance->TimerInUse);
    wipe(timer, sizeof *timer);
    KxFreeMemory(pThis, timer);
    return KC_OK;
}

OSAL_END_DECLS
