// Start-up, shutdown, limits and the mapping of statuses to results of the component entry.
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "osal/linux/internal/locale.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

HRESULT get_factory(void** factory) {
    return DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, factory);
}

// --- DllStart: limits

rlimit stand_in_limits[RLIM_NLIMITS];
int stand_in_result;

int stand_in_getrlimit(int resource, rlimit* limit) {
    *limit = stand_in_limits[resource];
    return stand_in_result;
}

class Limits : public testing::Test {
  protected:
    static void start_with(rlim_t threads, rlim_t files, int result = 0) {
        // The hard limits must not count.
        stand_in_limits[RLIMIT_NPROC] = {threads, 7777};
        stand_in_limits[RLIMIT_NOFILE] = {files, 8888};
        stand_in_result = result;
        Interpose hook("osal.so", "getrlimit", &stand_in_getrlimit);
        EXPECT_EQ(DllStart(), KC_OK);
    }
};

TEST_F(Limits, AFailingGetrlimitGives242ThreadsAnd251Files) {
    start_with(5, 5, -1);
    EXPECT_EQ(g_OsalMaxThreads, 242u);
    EXPECT_EQ(g_OsalMaxFiles, 251);
}

TEST_F(Limits, ALimitOf1000ProcessesGives971Threads) {
    start_with(1000, 5);
    EXPECT_EQ(g_OsalMaxThreads, 971u);
}

TEST_F(Limits, ALimitOf1024DescriptorsGives1004Files) {
    start_with(1000, 1024);
    EXPECT_EQ(g_OsalMaxFiles, 1004);
}

TEST_F(Limits, UnlimitedDescriptorsGiveMinusOneFile) {
    start_with(1000, RLIM_INFINITY);
    EXPECT_EQ(g_OsalMaxFiles, -1);
}

TEST_F(Limits, UnlimitedProcessesAreComputedInUnsigned64Bits) {
    start_with(RLIM_INFINITY, 5);
    const UINT64 limit = ~UINT64{0};
    EXPECT_EQ(g_OsalMaxThreads, limit - limit / 50 - 9);
}

TEST_F(Limits, ADescriptorLimitIsCutTo32SignedBitsFirst) {
    start_with(1000, 0x1'0000'0000u + 100);
    EXPECT_EQ(g_OsalMaxFiles, 98);
    start_with(1000, 0xFFFF'FF9Cu);  // -100: the division rounds toward zero
    EXPECT_EQ(g_OsalMaxFiles, -98);
    start_with(1000, 0xFFFF'FFCFu);  // -49
    EXPECT_EQ(g_OsalMaxFiles, -49);
}

TEST_F(Limits, AThreadLimitBelowTheReserveWrapsAsUnsigned) {
    start_with(5, 5);
    EXPECT_EQ(g_OsalMaxThreads, UINT64{5} - 9);
}

TEST_F(Limits, TheThreadReserveFollowsTheThreadMaxima) {
    g_OsalMaxWorkItemThreads = 20;
    g_OsalMaxTimerThreads = 2;
    start_with(1000, 5);
    EXPECT_EQ(g_OsalMaxThreads, 958u);
}

TEST_F(Limits, OfTheProcessAreUsed) {
    DllStart();
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    const auto count = static_cast<INT32>(files.rlim_cur);
    EXPECT_EQ(g_OsalMaxFiles, count - count / 50);
}

// --- DllStart and DllStop: the system log

struct LogCalls {
    int opens = 0, masks = 0, closes = 0;
    std::string identity;
    int options = 0, facility = 0, mask = 0;
};
LogCalls log_calls;

void stand_in_openlog(const char* identity, int options, int facility) {
    ++log_calls.opens;
    log_calls.identity = identity;
    log_calls.options = options;
    log_calls.facility = facility;
}
int stand_in_setlogmask(int mask) {
    ++log_calls.masks;
    log_calls.mask = mask;
    EXPECT_EQ(log_calls.opens, 1) << "the mask is set after the log was opened";
    return 0;
}
void stand_in_closelog() {
    ++log_calls.closes;
}

class SystemLog : public testing::Test {
  protected:
    Interpose open_{"osal.so", "openlog", &stand_in_openlog};
    Interpose mask_{"osal.so", "setlogmask", &stand_in_setlogmask};
    Interpose close_{"osal.so", "closelog", &stand_in_closelog};
    LogRecorder lines_;

    void expect_one_line(int priority, const std::string& text) {
        const auto lines = lines_.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, priority);
        EXPECT_EQ(lines[0].text, text);
    }
};

TEST_F(SystemLog, IsOpenedAndMaskedByDllStart) {
    unsetenv("OSAL_DO_NOT_OVERWRITE_OPENLOG");
    DllStart();
    EXPECT_EQ(log_calls.opens, 1);
    EXPECT_EQ(log_calls.identity, "[OSAL]");
    EXPECT_EQ(log_calls.options, LOG_CONS | LOG_ODELAY | LOG_NOWAIT);
    EXPECT_EQ(log_calls.facility, LOG_USER);
    EXPECT_EQ(log_calls.masks, 1);
    EXPECT_EQ(log_calls.mask, 0x7F);
    EXPECT_EQ(log_calls.closes, 0);
}

TEST_F(SystemLog, IsLeftToTheHostWhenTheVariableIsSetToAnyValue) {
    for (const char* value : {"1", "0", ""}) {
        setenv("OSAL_DO_NOT_OVERWRITE_OPENLOG", value, 1);
        DllStart();
        EXPECT_EQ(log_calls.opens, 0);
        EXPECT_EQ(log_calls.masks, 0);
    }
    DllStop();
    EXPECT_EQ(log_calls.closes, 1) << "shutdown closes the log all the same";
}

TEST_F(SystemLog, GetsATraceLineFromDllStart) {
    DllStart();
    expect_one_line(LOG_USER | LOG_DEBUG, "_init returning 0");
}

TEST_F(SystemLog, GetsATraceLineFromDllStopAndIsClosed) {
    DllStart();
    lines_.take();
    DllStop();
    expect_one_line(LOG_USER | LOG_DEBUG, "_fini called");
    EXPECT_EQ(log_calls.closes, 1);
}

TEST_F(SystemLog, IsNotTouchedByOsalUninitialize) {
    DllStart();
    lines_.take();
    EXPECT_EQ(OsalUninitialize(), KC_OK);
    EXPECT_TRUE(lines_.take().empty());
    EXPECT_EQ(log_calls.closes, 0);
}

// --- shutdown

TEST(Shutdown, BeforeAnyClassObjectIsSafe) {
    DllStart();
    EXPECT_EQ(g_Unload, 0);
    DllStop();
    EXPECT_EQ(g_Unload, 1);
    EXPECT_EQ(g_bOsalInitialized, 0);
}

TEST(Shutdown, WithoutAnyStartIsSafe) {
    DllStop();
    EXPECT_EQ(OsalUninitialize(), KC_OK);
}

TEST(Shutdown, KeepsTheInitialisedFlagAndTheOwnInstance) {
    DllStart();
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    DllStop();
    EXPECT_EQ(g_bOsalInitialized, 1);
    ASSERT_NE(pIOsal, nullptr);
    EXPECT_EQ(osal::instance_of(pIOsal)->cReference, 1u);
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST(Shutdown, TwiceIsSafe) {
    DllStart();
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    DllStop();
    DllStop();
    EXPECT_EQ(OsalUninitialize(), KC_OK);
    EXPECT_EQ(OsalUninitialize(), KC_OK);
    EXPECT_EQ(g_OsalNumTimerThreads, 0);
    EXPECT_EQ(g_OsalNumWorkItemThreads, 0);
}

std::vector<long> pauses;
int pauses_until_workers_end, pauses_until_timers_end;

int stand_in_nanosleep(const timespec* duration, timespec*) {
    EXPECT_EQ(duration->tv_sec, 0);
    pauses.push_back(duration->tv_nsec);
    const int count = static_cast<int>(pauses.size());
    if (count == pauses_until_workers_end) g_OsalNumWorkItemThreads = 0;
    if (count == pauses_until_timers_end) g_OsalNumTimerThreads = 0;
    return 0;
}

TEST(Shutdown, PausesOnceWhenNoThreadLives) {
    DllStart();
    Interpose hook("osal.so", "nanosleep", &stand_in_nanosleep);
    OsalUninitialize();
    EXPECT_EQ(pauses, std::vector<long>{10'000});
}

TEST(Shutdown, PollsEveryTenMicrosecondsUntilNoWorkerAndNoTimerThreadLives) {
    DllStart();
    g_OsalNumWorkItemThreads = 8;
    g_OsalNumTimerThreads = 1;
    pauses_until_workers_end = 3;
    pauses_until_timers_end = 5;
    Interpose hook("osal.so", "nanosleep", &stand_in_nanosleep);
    OsalUninitialize();
    EXPECT_EQ(pauses, std::vector<long>(6, 10'000)) << "five polls and the pause after the loop";
}

TEST(Shutdown, WaitsForWorkersThatOutliveTheTimerThread) {
    DllStart();
    g_OsalNumWorkItemThreads = 1;
    pauses_until_workers_end = 4;
    Interpose hook("osal.so", "nanosleep", &stand_in_nanosleep);
    OsalUninitialize();
    EXPECT_EQ(pauses.size(), 5u);
}

// --- initialisation

TEST(Initialisation, IsLeftToTheFirstClassObject) {
    DllStart();
    EXPECT_EQ(g_bOsalInitialized, 0);
    EXPECT_EQ(pIOsal, nullptr);
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(g_bOsalInitialized, 1);
    ASSERT_NE(pIOsal, nullptr);
    EXPECT_EQ(InterfaceCount, 1u);
    EXPECT_EQ(InterfaceList.Flink, &osal::instance_of(pIOsal)->Link);
    DllStop();
}

TEST(Initialisation, RunsForAnUnknownClassToo) {
    DllStart();
    void* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(&IID_IUnknown, &IID_IClassFactory, &factory), KC_E_NOINTERFACE);
    EXPECT_EQ(g_bOsalInitialized, 1);
    DllStop();
}

TEST(Initialisation, HappensOnce) {
    DllStart();
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    const PIOsal first = pIOsal;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(pIOsal, first);
    EXPECT_EQ(InterfaceCount, 1u);
    DllStop();
}

int atfork_result;
void (*atfork_handlers[3])();

int stand_in_register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void*) {
    atfork_handlers[0] = prepare;
    atfork_handlers[1] = parent;
    atfork_handlers[2] = child;
    return atfork_result;
}

class ForkHandlerRegistration : public testing::Test {
  protected:
    std::vector<LoggedLine> lines_of_start(int result) {
        atfork_result = result;
        DllStart();
        Interpose hook("osal.so", "__register_atfork", &stand_in_register_atfork);
        LogRecorder log;
        void* factory = nullptr;
        EXPECT_EQ(get_factory(&factory), KC_S_OK) << "never fatal";
        return log.take();
    }
    ~ForkHandlerRegistration() override { DllStop(); }
};

TEST_F(ForkHandlerRegistration, NamesAChildHandlerOnly) {
    EXPECT_TRUE(lines_of_start(0).empty());
    EXPECT_EQ(atfork_handlers[0], nullptr);
    EXPECT_EQ(atfork_handlers[1], nullptr);
    EXPECT_EQ(atfork_handlers[2], &OsalForkChildHandler);
}

TEST_F(ForkHandlerRegistration, FailingWithANegativeResultIsLoggedAndCarriedOn) {
    const auto lines = lines_of_start(-1);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(lines[0].text, "pthread_atfork() failed ffffffff");
}

TEST_F(ForkHandlerRegistration, APositiveResultIsNoFailure) {
    EXPECT_TRUE(lines_of_start(12).empty());
}

void* stand_in_calloc(std::size_t count, std::size_t size) {
    return count * size == sizeof(OsalObjInfo) ? nullptr : std::calloc(count, size);
}

TEST(FailedStart, WithoutMemoryForTheOwnInstanceIsLoggedAndMapped) {
    DllStart();
    Interpose hook("osal.so", "calloc", &stand_in_calloc);
    LogRecorder log;
    StatusRecorder statuses;
    void* factory = &factory;
    EXPECT_EQ(get_factory(&factory), HRESULT{0x80080001});
    EXPECT_EQ(factory, &factory) << "the out-pointer stays untouched";
    statuses.expect_one(5, "osal", "OsalFactoryCreateInstance");
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(lines[0].text, "OsalFactoryCreateInstance failed c7f10005");
    EXPECT_EQ(g_bOsalInitialized, 0);
    EXPECT_EQ(pIOsal, nullptr);
    EXPECT_EQ(InterfaceCount, 0u);
}

KCSTATUS build_warning(UINT32, UINT32 facility, UINT32 code, const char*, UINT32, const char*) {
    return facility << 16 | code;
}

// A status library that takes the failure for no error: the start ends there all the same, and is
// not tried again.
TEST(FailedStart, WithAStatusThatIsNoErrorCountsAsInitialised) {
    DllStart();
    void* factory = nullptr;
    {
        Interpose memory("osal.so", "calloc", &stand_in_calloc);
        Interpose statuses("osal.so", "KcStatusBuild_log", &build_warning);
        LogRecorder log;
        EXPECT_EQ(get_factory(&factory), KC_S_OK);
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "OsalFactoryCreateInstance failed 7f10005");
    }
    EXPECT_EQ(g_bOsalInitialized, 1);
    EXPECT_EQ(pIOsal, nullptr);
    EXPECT_EQ(g_pOemCodePage, nullptr);
    EXPECT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(pIOsal, nullptr);
    EXPECT_EQ(g_OsalNumTimerThreads, 0);
    EXPECT_EQ(g_OsalNumWorkItemThreads, 0);
    DllStop();
}

// The first heap request of a start is that of the first code page.
std::vector<LoggedLine> lines_without_code_pages(int atfork) {
    atfork_result = atfork;
    DllStart();
    Interpose hook("osal.so", "__register_atfork", &stand_in_register_atfork);
    LogRecorder log;
    StatusRecorder statuses;
    HeapFault fault(1);
    void* factory = nullptr;
    EXPECT_EQ(get_factory(&factory), HRESULT{0x80080001});
    statuses.expect_one(1, "init", "OsalInitialize");
    EXPECT_EQ(g_bOsalInitialized, 0);
    EXPECT_EQ(pIOsal, nullptr);
    return log.take();
}

TEST(FailedStart, WithoutCodePagesIsLoggedAndMapped) {
    const auto lines = lines_without_code_pages(0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(lines[0].text, "CharConv init failed 0");
    DllStop();
}

TEST(FailedStart, WithoutCodePagesLogsTheResultOfTheForkHandler) {
    const auto lines = lines_without_code_pages(-1);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "pthread_atfork() failed ffffffff");
    EXPECT_EQ(lines[1].text, "CharConv init failed ffffffff");
}

TEST(FailedStart, IsTriedAgainByTheNextCall) {
    DllStart();
    void* factory = nullptr;
    {
        Interpose hook("osal.so", "calloc", &stand_in_calloc);
        EXPECT_EQ(get_factory(&factory), HRESULT{0x80080001});
        EXPECT_EQ(get_factory(&factory), HRESULT{0x80080001});
    }
    EXPECT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(g_bOsalInitialized, 1);
    EXPECT_EQ(InterfaceCount, 1u);
    EXPECT_EQ(length_of(InterfaceList), 1u);
    DllStop();
}

TEST(FailedStart, FollowedByShutdownIsSafe) {
    DllStart();
    void* factory = nullptr;
    {
        Interpose hook("osal.so", "calloc", &stand_in_calloc);
        EXPECT_EQ(get_factory(&factory), HRESULT{0x80080001});
    }
    DllStop();
    EXPECT_EQ(g_Unload, 1);
}

// A start that failed after the own instance was made leaves it counted; the next start lists anew.
TEST(FailedStart, LeavesNothingCountedForTheNextOne) {
    DllStart();
    InterfaceCount = 1;
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    EXPECT_EQ(InterfaceCount, 1u);
    EXPECT_EQ(length_of(InterfaceList), 1u);
    DllStop();
}

TEST(ConcurrentStart, OfManyThreadsInitialisesOnce) {
    constexpr int kThreads = 16;
    DllStart();
    std::atomic<int> ready = 0;
    std::vector<void*> factories(kThreads);
    std::vector<HRESULT> results(kThreads, -1);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < kThreads)
                std::this_thread::yield();
            results[i] = get_factory(&factories[i]);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(results, std::vector<HRESULT>(kThreads, KC_S_OK));
    EXPECT_EQ(factories, std::vector<void*>(kThreads, factories[0]));
    EXPECT_EQ(static_cast<CFInstance*>(factories[0])->cReference, UINT32{kThreads});
    EXPECT_EQ(InterfaceCount, 1u);
    DllStop();
}

// --- fork

TEST(Fork, GivesTheChildAFreeModuleMutexWhileAnotherThreadOfTheParentHoldsIt) {
    DllStart();
    void* factory = nullptr;
    ASSERT_EQ(get_factory(&factory), KC_S_OK);
    std::atomic<bool> held = false, forked = false;
    std::thread holder([&] {
        pthread_mutex_lock(&g_hModuleMutex.native);
        held = true;
        while (!forked)
            std::this_thread::yield();
        pthread_mutex_unlock(&g_hModuleMutex.native);
    });
    while (!held)
        std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        const bool pristine = memcmp(&g_hModuleMutex, &g_dummy_mutex, sizeof g_dummy_mutex) == 0;
        const bool free = pthread_mutex_trylock(&g_hModuleMutex.native) == 0;
        _exit(pristine && free ? 0 : 1);
    }
    EXPECT_EQ(pthread_mutex_trylock(&g_hModuleMutex.native), EBUSY) << "the parent's stays held";
    forked = true;
    holder.join();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    DllStop();
}

TEST(Fork, LetsTheChildUseItsInstance) {
    DllStart();
    PIOsal osal = new_instance();
    void* block = KxAllocPagedMemory(osal, 10);
    const pid_t child = fork();
    if (child == 0) {
        void* factory = nullptr;
        const bool entry = get_factory(&factory) == KC_S_OK;
        const bool memory = KxFreeMemory(osal, block) == KC_OK &&
                            KxAllocNonPagedMemory(osal, 20) != nullptr &&
                            OsalReleaseReference(osal) == 0;
        _exit(entry && memory ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(KxFreeMemory(osal, block), KC_OK);
    EXPECT_EQ(OsalReleaseReference(osal), 0u);
    DllStop();
}

// --- OsalMapStatusToHresult

TEST(MapStatusToHresult, OnlyTheCodeDecides) {
    EXPECT_EQ(OsalMapStatusToHresult(0), 0);
    EXPECT_EQ(OsalMapStatusToHresult(0xC7F10000), 0);
    EXPECT_EQ(OsalMapStatusToHresult(0x00000002), HRESULT{0x80004002});
    EXPECT_EQ(OsalMapStatusToHresult(0xC7FA0002), HRESULT{0x80004002});
    EXPECT_EQ(OsalMapStatusToHresult(0xC7F10001), HRESULT{0x80080001});
    EXPECT_EQ(OsalMapStatusToHresult(0x00000001), HRESULT{0x80080001});
}

TEST(MapStatusToHresult, EveryOtherCodeIsAFailedCreation) {
    for (UINT32 code = 0; code <= 0xFFFF; ++code) {
        const HRESULT expected = code == 0 ? 0 : code == 2 ? 0x80004002 : 0x80080001;
        ASSERT_EQ(OsalMapStatusToHresult(0xC7F10000 + code), expected) << code;
    }
}

TEST(MapStatusToHresult, FailuresArePositiveNumbers) {
    EXPECT_GT(OsalMapStatusToHresult(0xC7F10001), 0);
    EXPECT_GT(OsalMapStatusToHresult(0xC7F10002), 0);
}

}  // namespace
}  // namespace osal_test
