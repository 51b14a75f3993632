// The library's own threads: what they are, starts that fail half-way, the clock that the timer
// thread follows, and what a fork child finds.
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "osal/internal/atomics.h"
#include "osal/linux/internal/locale.h"
#include "support/fork.h"
#include "support/recorders.h"
#include "support/schedule.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

// --- what they are

struct Portrait {
    std::atomic<bool> done = false;
    std::string name;
    sigset_t blocked;
};

void* portray(HANDLE, void* context) {
    auto* portrait = static_cast<Portrait*>(context);
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    portrait->name = name;
    pthread_sigmask(SIG_BLOCK, nullptr, &portrait->blocked);
    portrait->done = true;
    return nullptr;
}

constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

void expect_all_but_faults(const sigset_t& blocked) {
    for (int fault : kFaults)
        EXPECT_EQ(sigismember(&blocked, fault), 0) << fault;
    for (int other : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE, SIGPROF})
        EXPECT_EQ(sigismember(&blocked, other), 1) << other;
}

class LibraryThread : public ServiceTest {};

TEST_F(LibraryThread, OfTimersHasItsNameAndLeavesSignalsAlone) {
    Portrait portrait;
    HANDLE timer = nullptr;
    ASSERT_EQ(KxAllocTimer(osal, portray, &portrait, FALSE, &timer), KC_OK);
    ASSERT_EQ(KxScheduleTimer(osal, timer, 0), KC_OK);
    ASSERT_TRUE(eventually([&] { return portrait.done.load(); }));
    EXPECT_EQ(portrait.name, "osal-timer");
    expect_all_but_faults(portrait.blocked);
    EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

TEST_F(LibraryThread, OfWorkItemsHasItsNameAndLeavesSignalsAlone) {
    Portrait portrait;
    HANDLE item = nullptr;
    ASSERT_EQ(KxAllocWorkItem(osal, portray, &portrait, &item), KC_OK);
    ASSERT_EQ(KxScheduleWorkItem(osal, item, KX_PRIORITY_NORMAL), KC_OK);
    ASSERT_TRUE(eventually([&] { return portrait.done.load(); }));
    EXPECT_EQ(portrait.name.substr(0, 12), "osal-worker-");
    EXPECT_EQ(portrait.name.size(), 13u);
    expect_all_but_faults(portrait.blocked);
    EXPECT_EQ(KxDestroyWorkItem(osal, item), KC_OK);
}

TEST_F(LibraryThread, StartsLeaveTheSignalMaskOfTheirCallerAlone) {
    DllStop();
    sigset_t before, after;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    StartTimerInfrastructure();
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal : {SIGUSR1, SIGUSR2, SIGTERM})
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
}

TEST_F(LibraryThread, CountsAreOneAndEight) {
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 1);
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 8);
}

// A timer thread that wakes late makes up the ticks that it missed, for a timer armed meanwhile as
// well. So on a busy machine a timer may fire early, but not each time.
TEST_F(LibraryThread, FiresNoEarlierThanItsTimeoutLessTheRunningTickUnlessTicksAreMadeUp) {
    static std::atomic<bool> fired;
    HANDLE timer = nullptr;
    const auto fire = [](HANDLE, void*) -> void* {
        fired = true;
        return nullptr;
    };
    ASSERT_EQ(KxAllocTimer(osal, fire, nullptr, FALSE, &timer), KC_OK);
    bool in_time = false;
    for (int attempt = 0; attempt < 20 && !in_time; ++attempt) {
        fired = false;
        const auto start = Clock::now();
        ASSERT_EQ(KxScheduleTimer(osal, timer, 50'000), KC_OK);
        ASSERT_TRUE(eventually([&] { return fired.load(); }));
        in_time = Clock::now() - start >= milliseconds(39);
    }
    EXPECT_TRUE(in_time);
    EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

// --- the timer thread's rest

std::atomic<int> sleeps;
decltype(&nanosleep) real_nanosleep;

int count_sleep(const timespec* request, timespec* remainder) {
    ++sleeps;
    return real_nanosleep(request, remainder);
}

class RestOfTheTimerThread : public LibraryThread {
  protected:
    RestOfTheTimerThread() : hook_("osal.so", "nanosleep", count_sleep) {
        real_nanosleep = hook_.original_as<decltype(nanosleep)>();
        EXPECT_EQ(KxAllocTimer(osal, count_up, &fired_, FALSE, &timer_), KC_OK);
    }
    ~RestOfTheTimerThread() override { EXPECT_EQ(KxDestroyTimer(osal, timer_), KC_OK); }

    static void* count_up(HANDLE, void* fired) {
        ++*static_cast<std::atomic<int>*>(fired);
        return nullptr;
    }
    static bool sleepless_for_ten_ticks() {
        const int before = sleeps;
        std::this_thread::sleep_for(milliseconds(100));
        return sleeps == before;
    }
    // The thread may be in its last sleep when this is called.
    static void expect_rest() { EXPECT_TRUE(eventually(sleepless_for_ten_ticks)); }

    Interpose hook_;
    HANDLE timer_ = nullptr;
    std::atomic<int> fired_ = 0;
};

TEST_F(RestOfTheTimerThread, LastsWhileNothingIsArmed) {
    expect_rest();
}

TEST_F(RestOfTheTimerThread, EndsWhenATimerIsArmedAndBeginsAgainWhenItHasFired) {
    for (int round = 1; round <= 3; ++round) {
        expect_rest();
        const int before = sleeps;
        EXPECT_EQ(KxScheduleTimer(osal, timer_, 30'000), KC_OK);
        EXPECT_TRUE(eventually([&] { return fired_ == round; }));
        EXPECT_GT(sleeps, before);
    }
    expect_rest();
}

TEST_F(RestOfTheTimerThread, BeginsAgainWhenTheTimerIsCancelled) {
    EXPECT_EQ(KxScheduleTimer(osal, timer_, 3'600'000'000), KC_OK);
    EXPECT_TRUE(eventually([before = sleeps.load()] { return sleeps > before + 2; }));
    EXPECT_TRUE(KxCancelTimer(osal, timer_));
    expect_rest();
}

TEST_F(RestOfTheTimerThread, DoesNotHoldUpItsEnd) {
    expect_rest();
    UnInitTimerInfrastructure();
    EXPECT_TRUE(eventually([] { return osal::load(g_OsalNumTimerThreads) == 0; }));
}

TEST_F(RestOfTheTimerThread, IsNeverMissedByWhoeverArms) {
    for (int round = 1; round <= 200; ++round) {
        EXPECT_EQ(KxScheduleTimer(osal, timer_, 0), KC_OK);
        ASSERT_TRUE(eventually([&] { return fired_ == round; }));
    }
}

// --- starts that fail half-way

pthread_mutex_t* refused_mutex;
int refusal;
decltype(&pthread_mutex_init) real_mutex_init;

int refuse_mutex(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return mutex == refused_mutex ? refusal : real_mutex_init(mutex, attributes);
}

int threads_left;
decltype(&pthread_create) real_create;

int refuse_threads(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) {
    if (threads_left-- == 0) return EAGAIN;
    return real_create(thread, attributes, routine, argument);
}

class HalfStart : public testing::Test {
  protected:
    HalfStart() { DllStart(); }
    ~HalfStart() override { DllStop(); }

    static HRESULT start() {
        void* factory = nullptr;
        return DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &factory);
    }
    static HRESULT start_refusing(pthread_mutex_t& mutex, int result) {
        refused_mutex = &mutex;
        refusal = result;
        Interpose hook("osal.so", "pthread_mutex_init", refuse_mutex);
        real_mutex_init = hook.original_as<decltype(pthread_mutex_init)>();
        return start();
    }
    // Starts while only so many threads can be had.
    static HRESULT start_with_threads(int threads) {
        threads_left = threads;
        Interpose hook("osal.so", "pthread_create", refuse_threads);
        real_create = hook.original_as<decltype(pthread_create)>();
        return start();
    }
    static void expect_not_started() {
        EXPECT_EQ(g_bOsalInitialized, FALSE);
        EXPECT_EQ(g_pOemCodePage, nullptr);
        EXPECT_EQ(g_pAnsiCodePage, nullptr);
        static PIOsal kept;  // and lost when the next start makes another
        kept = pIOsal;
        EXPECT_NE(kept, nullptr);
        EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 0);
        EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 0);
    }
};

TEST_F(HalfStart, WithoutTheTimerMutexIsLoggedAndUndone) {
    {
        StatusRecorder statuses;
        LogRecorder log;
        EXPECT_EQ(start_refusing(g_OsalTimerQueueMutex.native, -1), KC_E_CREATE_FAILED);
        statuses.expect_one(1, "init", "OsalInitialize");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "TimerMutex init failed 0");
        EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
        expect_not_started();
        EXPECT_EQ(g_OsalTimerThreadExit, FALSE);
    }
    EXPECT_EQ(start(), KC_S_OK);
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 1);
}

TEST_F(HalfStart, WithoutTheWorkItemMutexIsLoggedAndUndone) {
    {
        StatusRecorder statuses;
        LogRecorder log;
        EXPECT_EQ(start_refusing(g_OsalWorkItemQueue.mutex.native, -1), KC_E_CREATE_FAILED);
        statuses.expect_one(1, "init", "OsalInitialize");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "WorkItemMutex init failed 0");
        EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
        expect_not_started();
        EXPECT_EQ(g_OsalTimerThreadExit, TRUE) << "the timers were told to end";
    }
    EXPECT_EQ(start(), KC_S_OK);
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 8);
}

TEST_F(HalfStart, APositiveResultOfAMutexIsNoFailure) {
    EXPECT_EQ(start_refusing(g_OsalTimerQueueMutex.native, EAGAIN), KC_S_OK);
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 1);
}

TEST_F(HalfStart, WithoutTheTimerThreadSucceedsInSilence) {
    StatusRecorder statuses;
    LogRecorder log;
    EXPECT_EQ(start_with_threads(0), KC_S_OK);
    EXPECT_EQ(g_bOsalInitialized, TRUE);
    statuses.expect_none();
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 0);
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 8);
}

TEST_F(HalfStart, WorkersAreStartedUpToTheFirstThatCannotBe) {
    for (int workers = 0; workers < 8; ++workers) {
        SCOPED_TRACE(workers);
        StatusRecorder statuses;
        threads_left = workers;
        {
            Interpose hook("osal.so", "pthread_create", refuse_threads);
            real_create = hook.original_as<decltype(pthread_create)>();
            EXPECT_EQ(InitWorkItemInfrastructure(), 0);
            StartWorkItemInfrastructure();
        }
        EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), workers);
        EXPECT_EQ(threads_left, -1) << "nothing is tried after the first failure";
        statuses.expect_none();
        OsalUninitialize();
    }
}

TEST_F(HalfStart, ThreeWorkersRunItemsAndEnd) {
    EXPECT_EQ(start_with_threads(4), KC_S_OK);  // the timer thread and three workers
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 3);
    PIOsal osal = new_instance();
    {
        RunOrder order(osal);
        for (int i = 0; i < 20; ++i)
            order.schedule(i);
        EXPECT_TRUE(eventually([&] { return order.taken().size() == 20; }));
    }
    OsalReleaseReference(osal);
}

// --- the clock

constexpr UINT64 kLongTimeout_ticks = 0xFFFFFFFF;

// Readings of the realtime clock in microseconds, one after the other: before and after each sleep.
// After the last one the thread is told to end.
std::vector<INT64> readings_us;
std::size_t next_reading;

int scripted_clock(clockid_t, timespec* now) {
    const INT64 us = readings_us[next_reading++];
    *now = {us / 1'000'000, us % 1'000'000 * 1'000};
    if (next_reading == readings_us.size()) osal::store(g_OsalTimerThreadExit, TRUE);
    return 0;
}

int no_sleep(const timespec*, timespec*) {
    return 0;
}

class SteppedClock : public ServiceTest {
  protected:
    SteppedClock() {
        EXPECT_EQ(KxAllocTimer(
                      osal, [](HANDLE, void*) -> void* { return nullptr; }, nullptr, FALSE, &far_),
                  KC_OK);
        EXPECT_EQ(KxScheduleTimer(osal, far_, kLongTimeout_ticks * 10'000), KC_OK);
        OsalServiceTimerQueues();
    }
    ~SteppedClock() override {
        KxCancelTimer(osal, far_);
        KxDestroyTimer(osal, far_);
    }

    // Lets the timer thread live through sleeps of such lengths, from a moment on. What elapsed in
    // the last of them is never served: the thread ends first. So one more is added.
    static void live_through(const std::vector<INT64>& sleeps_us) {
        readings_us.clear();
        for (INT64 sleep : sleeps_us)
            readings_us.insert(readings_us.end(), {kEpoch_us, kEpoch_us + sleep});
        readings_us.insert(readings_us.end(), {kEpoch_us, kEpoch_us});
        next_reading = 0;
        Interpose clock("osal.so", "clock_gettime", scripted_clock);
        Interpose sleep("osal.so", "nanosleep", no_sleep);
        StartTimerInfrastructure();
        EXPECT_TRUE(eventually([] { return osal::load(g_OsalNumTimerThreads) == 0; }));
        OsalUninitialize();
    }

    // The ticks that pass in one sleep of the given length.
    UINT32 ticks_of(INT64 sleep_us) {
        const UINT32 before = first_timer()->delta;
        live_through({sleep_us});
        return before - first_timer()->delta;
    }

    static constexpr INT64 kEpoch_us = INT64_C(4'000'000'000'000'000);
    static constexpr INT64 kTick_us = 10'000;
    StoppedTimerThread stopped_;
    HANDLE far_ = nullptr;
};

// The ticks between two readings before they are cut to 32 bits.
UINT64 uncut_ticks(INT64 sleep_us) {
    return static_cast<UINT64>(sleep_us * 10) / 10 / 10'000;
}

TEST_F(SteppedClock, ASleepCountsInWholeTicks) {
    EXPECT_EQ(ticks_of(0), 0u);
    EXPECT_EQ(ticks_of(9'999), 0u);
    EXPECT_EQ(ticks_of(10'000), 1u);
    EXPECT_EQ(ticks_of(19'999), 1u);
    EXPECT_EQ(ticks_of(250'000), 25u);
}

TEST_F(SteppedClock, OnlySleepsCount) {
    const UINT32 before = first_timer()->delta;
    live_through({10'000, 10'000, 30'000});
    EXPECT_EQ(before - first_timer()->delta, 5u);
}

TEST_F(SteppedClock, AForwardStepOfAnHourIsMadeUp) {
    EXPECT_EQ(ticks_of(INT64_C(3'600'000'000)), 360'000u);
}

TEST_F(SteppedClock, AForwardStepOfMonthsIsMadeUpAtOnce) {
    EXPECT_EQ(ticks_of(INT64_C(0x7FFFFFFF) * kTick_us), 0x7FFFFFFFu);
}

TEST_F(SteppedClock, AForwardStepThat32BitsTakeForNegativeGives1100Ticks) {
    EXPECT_EQ(ticks_of(INT64_C(0x80000000) * kTick_us), 1'100u);
    EXPECT_EQ(ticks_of(INT64_C(0xFFFFFFFF) * kTick_us), 1'100u);
}

TEST_F(SteppedClock, AForwardStepBeyond32BitsIsCut) {
    EXPECT_EQ(ticks_of(INT64_C(0x1'0000'0007) * kTick_us), 7u);
}

TEST_F(SteppedClock, ABackwardStepGives1100Ticks) {
    const INT64 second = 1'000'000, day = 86'400 * second;
    for (INT64 step : {INT64_C(1), second, day, 100 * day, 300 * day}) {
        EXPECT_EQ(ticks_of(-step), 1'100u) << step;
    }
    // The cut arithmetic would be negative after the first, huge after the second.
    EXPECT_LT(static_cast<INT32>(uncut_ticks(-second)), 0);
    EXPECT_GT(static_cast<INT32>(uncut_ticks(-100 * day)), 1'000'000);
}

struct Log {
    PIOsal osal;
    std::vector<int> fired;
    int rearms = 0;
};

struct Named {
    Log* log;
    int number;
    UINT64 period_us;
};

void* note_and_rearm(HANDLE self, void* context) {
    auto* named = static_cast<Named*>(context);
    named->log->fired.push_back(named->number);
    if (named->period_us != 0) KxScheduleTimer(named->log->osal, self, named->period_us);
    return nullptr;
}

TEST_F(SteppedClock, ABackwardStepFiresTimersWithinElevenSecondsEarly) {
    Log log{osal, {}, 0};
    Named named[] = {{&log, 1, 0}, {&log, 2, 0}, {&log, 3, 0}};
    const UINT64 timeouts_us[] = {1'000'000, 11'000'000, 11'010'000};
    HANDLE timers[3];
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(KxAllocTimer(osal, note_and_rearm, &named[i], FALSE, &timers[i]), KC_OK);
        ASSERT_EQ(KxScheduleTimer(osal, timers[i], timeouts_us[i]), KC_OK);
    }
    live_through({-1});
    EXPECT_EQ(log.fired, (std::vector<int>{1, 2}));
    KxCancelTimer(osal, timers[2]);
    for (HANDLE timer : timers)
        EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

TEST_F(SteppedClock, AForwardStepFiresWhatIsDueInOrderAsOftenAsItIsRearmed) {
    Log log{osal, {}, 0};
    Named named[] = {{&log, 1, 30'000}, {&log, 2, 50'000}};
    HANDLE timers[2];
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(KxAllocTimer(osal, note_and_rearm, &named[i], FALSE, &timers[i]), KC_OK);
        ASSERT_EQ(KxScheduleTimer(osal, timers[i], named[i].period_us), KC_OK);
    }
    live_through({150'000});
    // 1 is due in ticks 3, 6, ... 15; 2 in ticks 5, 10, 15, where it was armed first.
    EXPECT_EQ(log.fired, (std::vector<int>{1, 2, 1, 1, 2, 1, 2, 1}));
    for (HANDLE timer : timers) {
        KxCancelTimer(osal, timer);
        EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
    }
}

TEST_F(SteppedClock, ATimerThatRearmsItselfEachTickFiresInEveryTickOfAForwardStep) {
    Log log{osal, {}, 0};
    Named named{&log, 1, 10'000};
    HANDLE timer;
    ASSERT_EQ(KxAllocTimer(osal, note_and_rearm, &named, FALSE, &timer), KC_OK);
    ASSERT_EQ(KxScheduleTimer(osal, timer, 10'000), KC_OK);
    live_through({INT64_C(600'000'000)});
    EXPECT_EQ(log.fired.size(), 60'000u);
    KxCancelTimer(osal, timer);
    EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

// --- fork

class ForkChild : public ServiceTest {};

TEST_F(ForkChild, CountsNoLibraryThread) {
    EXPECT_TRUE(
        holds_in_child([] { return g_OsalNumTimerThreads == 0 && g_OsalNumWorkItemThreads == 0; }));
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 1);
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 8);
}

TEST_F(ForkChild, MayShutDown) {
    EXPECT_TRUE(holds_in_child([] {
        DllStop();
        DllStop();
        return true;
    }));
}

TEST_F(ForkChild, MayShutDownAfterThreadsOfTheParentHaveEnded) {
    StoppedTimerThread stopped;  // and is not joined yet
    EXPECT_TRUE(holds_in_child([] {
        DllStop();
        return true;
    }));
}

TEST_F(ForkChild, MayShutDownWhileTheParentHeldTheQueues) {
    pthread_mutex_lock(&g_OsalTimerQueueMutex.native);
    pthread_mutex_lock(&g_OsalWorkItemQueue.mutex.native);
    pthread_mutex_lock(&InterfaceMutex.native);
    EXPECT_TRUE(holds_in_child([] {
        PIOsal osal = new_instance();
        OsalReleaseReference(osal);
        DllStop();
        return osal != nullptr;
    }));
    pthread_mutex_unlock(&InterfaceMutex.native);
    pthread_mutex_unlock(&g_OsalWorkItemQueue.mutex.native);
    pthread_mutex_unlock(&g_OsalTimerQueueMutex.native);
}

// A child has threads of its own, and they hold locks like others when one of them forks.
TEST_F(ForkChild, OfAForkChildFindsTheLocksFreeToo) {
    SKIP_THREADS_OF_CHILDREN_UNDER_THREAD_SANITIZER();
    // AddressSanitizer's own locks stay held in a child if a thread is starting when it forks.
    ASSERT_TRUE(eventually(workers_idle));
    EXPECT_TRUE(holds_in_child([] {
        std::atomic<bool> held = false;
        std::thread([&] {
            pthread_mutex_lock(&g_OsalTimerQueueMutex.native);
            pthread_mutex_lock(&g_OsalWorkItemQueue.mutex.native);
            pthread_mutex_lock(&InterfaceMutex.native);
            held = true;
            pause();
        }).detach();
        return eventually([&] { return held.load(); }) && holds_in_child([] {
                   PIOsal osal = new_instance();
                   OsalReleaseReference(osal);
                   DllStop();
                   return osal != nullptr;
               });
    }));
}

TEST_F(ForkChild, QueuesAreAcceptedButServedByNobody) {
    static std::atomic<int> runs;
    const auto run = [](HANDLE, void*) -> void* {
        ++runs;
        return nullptr;
    };
    HANDLE timer = nullptr, item = nullptr;
    ASSERT_EQ(KxAllocTimer(osal, run, nullptr, FALSE, &timer), KC_OK);
    ASSERT_EQ(KxAllocWorkItem(osal, run, nullptr, &item), KC_OK);
    EXPECT_TRUE(holds_in_child([&] {
        const bool accepted = KxScheduleTimer(osal, timer, 0) == KC_OK &&
                              KxScheduleWorkItem(osal, item, KX_PRIORITY_NORMAL) == KC_OK;
        KxSleep(osal, 100'000);
        return accepted && runs == 0 && KxCancelTimer(osal, timer) == TRUE;
    }));
    EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
    EXPECT_EQ(KxDestroyWorkItem(osal, item), KC_OK);
}

TEST_F(ForkChild, TheHandlerLeavesAProcessThatDidNotForkAlone) {
    OsalForkChildHandler();
    EXPECT_EQ(osal::load(g_OsalNumTimerThreads), 1);
    EXPECT_EQ(osal::load(g_OsalNumWorkItemThreads), 8);
}

}  // namespace
}  // namespace osal_test
