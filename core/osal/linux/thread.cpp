// Threads of callers.
//
// Locks: the record's mutex orders a thread's end against its waiters; nothing is locked under it.
// No lock is held and nothing has to be given back while a caller's routine runs: it may leave by
// pthread_exit or be cancelled.
#include "osal/thread.h"

#include <cerrno>

#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/status.h"
#include "osal/internal/valgrind.h"
#include "osal/linux/internal/init.h"
#include "osal/linux/internal/thread.h"
#include "osal/linux/internal/wait.h"
#include "osal/memory.h"

using namespace osal;

namespace {

using Thread = _KX_THREAD_HANDLE_;

constexpr Module kModule{KC_FACILITY_OSAL, "thread"};

bool has_exited(const Thread* thread) {
    return load(thread->pCallerThreadRoutine) == nullptr;
}

Thread* new_thread(PIOsal pThis) {
    auto* thread = static_cast<Thread*>(KxAllocPagedMemory(pThis, sizeof(Thread)));
    if (thread == nullptr) return nullptr;
    if (pthread_attr_init(&thread->attr) == 0) return thread;
    retire_to_pool(pThis, thread);
    return nullptr;
}

// Undoes new_thread and reports why.
KCSTATUS give_up(PIOsal pThis, Thread* thread, UINT32 code,
                 const char* function = __builtin_FUNCTION()) {
    pthread_attr_destroy(&thread->attr);
    retire_to_pool(pThis, thread);
    return kModule.fail(code, function);
}

// Contract: the attribute's inherit setting stays at its default, so the platform ignores the
// policy.
void ask_for_priority(Thread* thread, KX_PRIORITY priority) {
    if (priority == KX_PRIORITY_REALTIME) pthread_attr_setschedpolicy(&thread->attr, SCHED_RR);
}

void prepare(Thread* thread, PKX_THREAD_ROUTINE routine, PVOID context) NO_THREAD_SAFETY_ANALYSIS {
    thread->pCallerThreadRoutine = routine;
    thread->Signature = Thread::kSignature;
    thread->status = KC_OK;
    thread->pCallerThreadContext = context;
    thread->ended = FALSE;
    announce_atomics(thread->pCallerThreadRoutine, thread->mutex);
    thread->mutex.init();
    pthread_cond_init(&thread->condition, nullptr);
}

// Counts a thread that is about to start, unless there are too many.
bool count_in() {
    const INT64 threads = increment(g_OsalCurrentThreads);
    if (static_cast<UINT64>(threads) < g_OsalMaxThreads) return true;
    decrement(g_OsalCurrentThreads);
    return false;
}

// The thread may have destroyed its record before this returns, and the platform looks at the
// attribute once more after the start: it gets a copy.
int start(Thread* thread) {
    const pthread_attr_t attr = thread->attr;
    return pthread_create(&thread->id, &attr, OsalSystemThreadRtn, thread);
}

void announce_exit(Thread* thread, KCSTATUS status) {
    Lock lock(thread->mutex);
    thread->status = status;
    store(thread->pCallerThreadRoutine, PKX_THREAD_ROUTINE{nullptr});
    thread->ended = TRUE;
    pthread_cond_broadcast(&thread->condition);
}

// Contract: a routine that returns wakes those who wait at that moment, but the record goes on
// looking alive.
KCSTATUS announce_return(Thread* thread) {
    Lock lock(thread->mutex);
    thread->ended = TRUE;
    pthread_cond_broadcast(&thread->condition);
    return thread->status;
}

[[noreturn]] void leave(KCSTATUS status) {
    announce_release(g_OsalCurrentThreads);
    decrement(g_OsalCurrentThreads);
    pthread_exit(reinterpret_cast<void*>(uintptr_t{status}));
}

int wait_for_exit(Thread* thread, INT64 timeout_us) {
    Lock lock(thread->mutex);
    if (has_exited(thread)) return 0;
    return wait_once(&thread->condition, thread->mutex, timeout_us);
}

}  // namespace

void* OsalSystemThreadRtn(void* pThread) {
    auto* thread = static_cast<Thread*>(pThread);
    pthread_detach(pthread_self());
    thread->pCallerThreadRoutine(thread, thread->pCallerThreadContext);
    leave(announce_return(thread));
}

KCSTATUS KxCreateThread(PIOsal pThis, KX_PRIORITY Priority, PKX_THREAD_ROUTINE pThreadRoutine,
                        PVOID pContext, HANDLE* pHandle) {
    if (live(pThis) == nullptr || pThreadRoutine == nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    if (pHandle != nullptr) *pHandle = nullptr;
    Thread* thread = new_thread(pThis);
    if (thread == nullptr) return kModule.fail(KC_CODE_FAILED);
    if (Priority > KX_PRIORITY_REALTIME) return give_up(pThis, thread, KC_CODE_INVALID_ARGUMENT);
    ask_for_priority(thread, Priority);
    prepare(thread, pThreadRoutine, pContext);
    if (!count_in()) return give_up(pThis, thread, KC_CODE_NO_RESOURCES);
    if (const int refusal = start(thread); refusal != 0) {
        decrement(g_OsalCurrentThreads);
        return give_up(pThis, thread, refusal == EAGAIN ? KC_CODE_NO_RESOURCES : KC_CODE_FAILED);
    }
    if (pHandle != nullptr) *pHandle = thread;
    return KC_OK;
}

void KxExitThread(PIOsal pThis, HANDLE Handle, KCSTATUS ExitStatus, BOOLEAN bDestroyThread) {
    auto* thread = as<Thread>(Handle);
    if (thread == nullptr) return;
    announce_exit(thread, ExitStatus);
    if (bDestroyThread) KxDestroyThread(pThis, Handle);
    leave(ExitStatus);
}

// Contract: waits once; any wake-up counts as the end of the thread.
KCSTATUS KxWaitForThreadExit(PIOsal, HANDLE Handle, INT64 TimeOut) {
    auto* thread = as<Thread>(Handle);
    if (thread == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    const int cancellation = defer_cancellation();
    const int result = wait_for_exit(thread, TimeOut);
    restore_cancellation(cancellation);
    if (result == 0) return KC_OK;
    const bool timed_out = result == ETIMEDOUT || result == EINTR;
    return kModule.fail(timed_out ? KC_CODE_TIMED_OUT : KC_CODE_FAILED);
}

KCSTATUS KxGetThreadExitStatus(PIOsal, HANDLE Handle) {
    auto* thread = as<Thread>(Handle);
    if (thread == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (!has_exited(thread)) return kModule.fail(KC_CODE_BUSY);
    Lock lock(thread->mutex);
    return thread->status;
}

// Contract: the priority is 0 with either policy, which the platform refuses for round-robin; its
// result is ignored.
KCSTATUS KxSetThreadPriority(PIOsal, HANDLE Handle, KX_PRIORITY priority) {
    auto* thread = as<Thread>(Handle);
    if (thread == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (priority > KX_PRIORITY_REALTIME) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    const sched_param parameters = {};
    Lock lock(thread->mutex);
    if (!thread->ended)  // the id of a thread that is gone means nothing
        pthread_setschedparam(thread->id, priority == KX_PRIORITY_REALTIME ? SCHED_RR : SCHED_OTHER,
                              &parameters);
    return KC_OK;
}

KCSTATUS KxDestroyThread(PIOsal pThis, HANDLE Handle) {
    auto* thread = as<Thread>(Handle);
    if (live(pThis) == nullptr || thread == nullptr) return kModule.fail(KC_CODE_INVALID_HANDLE);
    if (!has_exited(thread)) return kModule.fail(KC_CODE_BUSY);
    // The exiting thread may still be inside, waking others.
    thread->mutex.lock();
    thread->mutex.unlock();
    pthread_attr_destroy(&thread->attr);
    pthread_cond_destroy(&thread->condition);
    thread->mutex.destroy();
    retire_to_pool(pThis, thread);
    return KC_OK;
}

KCSTATUS KxSystemRelThreadHandleObj(PVOID) {
    return KC_OK;
}
