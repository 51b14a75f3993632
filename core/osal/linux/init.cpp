// Start-up and shutdown of the library, and its process-wide limits.
//
// Loading runs none of this: the component runtime calls DllStart, the first DllGetClassObject runs
// OsalInitialize under g_hModuleMutex, and DllStop shuts down. There is no way back from shutdown.
#include "osal/linux/internal/init.h"

#include <cstdlib>
#include <cstring>

#include <pthread.h>
#include <sys/resource.h>
#include <syslog.h>
#include <time.h>

#include "osal/internal/atomics.h"
#include "osal/internal/deletion_threads.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/status.h"
#include "osal/linux/internal/locale.h"
#include "osal/linux/internal/schedule.h"
#include "osal/linux/internal/schedule_threads.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit BOOLEAN g_bOsalInitialized = FALSE;
constinit BOOLEAN g_Unload = FALSE;
constinit Mutex g_hModuleMutex = {PTHREAD_MUTEX_INITIALIZER};
constinit Mutex g_dummy_mutex = {PTHREAD_MUTEX_INITIALIZER};
constinit pthread_cond_t g_dummy_condition = PTHREAD_COND_INITIALIZER;
constinit UINT32 g_ulCount = 0;
constinit UINT64 g_OsalMaxThreads = 0;
constinit INT32 g_OsalCurrentThreads = 0;
constinit INT32 g_OsalMaxFiles = 0;
constinit INT32 g_OsalMaxTimerThreads = 1;
constinit INT32 g_OsalMaxWorkItemThreads = 8;
constinit INT32 g_OsalNumTimerThreads = 0;
constinit INT32 g_OsalNumWorkItemThreads = 0;

OSAL_END_DECLS

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "init"};

constexpr UINT64 kThreadsWhenUnknown = 251;
constexpr INT32 kFilesWhenUnknown = 251;
constexpr long kDrainPollNs = 10'000;

// 98 % of the soft limit in unsigned 64-bit arithmetic.
UINT64 thread_budget() {
    rlimit limit;
    if (getrlimit(RLIMIT_NPROC, &limit) < 0) return kThreadsWhenUnknown;
    return limit.rlim_cur - limit.rlim_cur / 50;
}

// Contract: 98 % of the soft limit as well, but cut to a signed 32-bit number first, so an
// unlimited one gives -1.
INT32 file_budget() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) return kFilesWhenUnknown;
    const auto files = static_cast<INT32>(limit.rlim_cur);
    return files - files / 50;
}

void drain_pause() {
    const timespec pause = {0, kDrainPollNs};
    nanosleep(&pause, nullptr);
}

bool library_threads_live() {
    return load(g_OsalNumWorkItemThreads) != 0 || load(g_OsalNumTimerThreads) != 0;
}

// The platform's result.
int register_fork_handler() {
    const int result = pthread_atfork(nullptr, nullptr, OsalForkChildHandler);
    if (result < 0) syslog(LOG_USER | LOG_ERR, "pthread_atfork() failed %x", result);
    return result;
}

void make_pristine(Mutex& mutex) {
    std::memcpy(&mutex, &g_dummy_mutex, sizeof mutex);
}

// A fork child has no library thread to count, and shutdown must not wait for one. What these
// threads, or others of the parent, held at the moment of fork is free here, so that class objects,
// instances and shutdown can be had; the queues themselves may be in the middle of a change.
void start_over_without_threads() {
    store(g_OsalNumTimerThreads, 0);
    store(g_OsalNumWorkItemThreads, 0);
    reset_deletion_threads();
    make_pristine(g_OsalTimerQueueMutex);
    make_pristine(g_OsalWorkItemQueue.mutex);
    make_pristine(InterfaceMutex);
}

KCSTATUS create_own_instance() {
    OsalInitializeListHead(&InterfaceList);
    InterfaceCount = 0;  // a start that failed later may have left an instance counted
    void* instance = nullptr;
    const KCSTATUS status =
        OsalFactoryCreateInstance(nullptr, nullptr, &IID_IOrvaneOsal_1, &instance);
    pIOsal = static_cast<PIOsal>(instance);
    if (status != KC_OK) syslog(LOG_USER | LOG_ERR, "OsalFactoryCreateInstance failed %x", status);
    return status;
}

}  // namespace

OSAL_BEGIN_DECLS

void OsalGetLimits() {
    const INT32 reserved = g_OsalMaxWorkItemThreads + g_OsalMaxTimerThreads;
    g_OsalMaxThreads = thread_budget() - static_cast<UINT64>(reserved);
    g_OsalMaxFiles = file_budget();
}

// Some other thread of the parent may have held the mutex; that thread does not exist here.
void OsalForkChildHandler() {
    make_pristine(g_hModuleMutex);
    if (forget_threads_of_parent()) start_over_without_threads();
}

KCSTATUS OsalInitialize() {
    const int registered = register_fork_handler();
    if (InitCharConvInfrastructure() != 0) {
        // Contract: the value logged is that of the fork handler's registration.
        syslog(LOG_USER | LOG_ERR, "CharConv init failed %x", registered);
        return kModule.fail(KC_CODE_FAILED);
    }
    if (const KCSTATUS status = create_own_instance(); status != KC_OK) {
        UnInitCharConvInfrastructure();
        return status;
    }
    if (InitTimerInfrastructure() != 0) {
        syslog(LOG_USER | LOG_ERR, "TimerMutex init failed %x", 0);
        UnInitCharConvInfrastructure();
        return kModule.fail(KC_CODE_FAILED);
    }
    if (InitWorkItemInfrastructure() != 0) {
        syslog(LOG_USER | LOG_ERR, "WorkItemMutex init failed %x", 0);
        UnInitTimerInfrastructure();
        UnInitCharConvInfrastructure();
        return kModule.fail(KC_CODE_FAILED);
    }
    reset_deletion_threads();
    StartTimerInfrastructure();
    StartWorkItemInfrastructure();
    return KC_OK;
}

KCSTATUS DllStart() {
    if (std::getenv("OSAL_DO_NOT_OVERWRITE_OPENLOG") == nullptr) {
        openlog("[OSAL]", LOG_CONS | LOG_ODELAY | LOG_NOWAIT, LOG_USER);
        setlogmask(LOG_UPTO(LOG_INFO));
    }
    OsalGetLimits();
    request_barrier();
    syslog(LOG_USER | LOG_DEBUG, "_init returning %x", 0);
    return KC_OK;
}

// Contract: there is no way back. The library stays marked as initialised and keeps its own
// instance, so a later DllGetClassObject hands out factories of a library without timers and
// workers.
KCSTATUS OsalUninitialize() {
    g_Unload = TRUE;
    UnInitTimerInfrastructure();
    UnInitWorkItemInfrastructure();
    while (library_threads_live())
        drain_pause();
    drain_pause();
    join_library_threads();
    await_deletion_threads();
    UnInitCharConvInfrastructure();
    return KC_OK;
}

KCSTATUS DllStop() {
    syslog(LOG_USER | LOG_DEBUG, "_fini called");
    OsalUninitialize();
    closelog();
    return KC_OK;
}

// Contract: severity does not count, so an error of code 0 maps to success; and failures are
// positive numbers, since the values are not extended by their sign.
HRESULT OsalMapStatusToHresult(KCSTATUS status) {
    switch (KC_CODE(status)) {
        case 0:
            return KC_S_OK;
        case KC_CODE_UNSUPPORTED:
            return KC_E_NOINTERFACE;
        default:
            return KC_E_CREATE_FAILED;
    }
}

OSAL_END_DECLS

namespace osal {

KCSTATUS ensure_initialized() {
    if (load(g_bOsalInitialized)) return KC_OK;
    Lock lock(g_hModuleMutex);
    if (load(g_bOsalInitialized)) return KC_OK;
    const KCSTATUS status = OsalInitialize();
    if (!is_error(status)) store(g_bOsalInitialized, TRUE);
    return is_error(status) ? status : KC_OK;
}

}  // namespace osal
