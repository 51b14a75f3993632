// Threads, by export and by slot.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "osal/internal/atomics.h"
#include "osal/internal/valgrind.h"
#include "osal/linux/internal/thread.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"
#include "support/threads.h"

namespace osal_test {
namespace {

// What a routine under test does, and what a test learns of it.
struct Script {
    std::function<void(HANDLE)> body;
    std::atomic<HANDLE> own = nullptr;
    std::atomic<int> stage = 0;

    void reach(int value) {
        osal::announce_release(stage);
        stage = value;
    }
    bool wait(int value) {
        const bool reached = eventually([&] { return stage >= value; });
        osal::announce_acquire(stage);
        return reached;
    }
};

void* run_script(HANDLE self, PVOID context) {
    auto* script = static_cast<Script*>(context);
    script->own = self;
    script->body(self);
    return script;  // ignored
}

// Waits until no thread counts any more.
bool all_ended() {
    const bool ended = eventually([] { return osal::load(g_OsalCurrentThreads) == 0; });
    osal::announce_acquire(g_OsalCurrentThreads);
    return ended;
}

class Threads : public BothWays {
  protected:
    ~Threads() override {
        EXPECT_TRUE(all_ended());
        for (HANDLE handle : to_destroy_)
            EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), KC_OK);
        EXPECT_EQ(record->MemoryPagedInUse, 0u) << "every record is freed";
        EXPECT_EQ(record->ThreadInUse, 0u) << "not maintained";
    }

    HANDLE create(Script& script, KX_PRIORITY priority = KX_PRIORITY_NORMAL) {
        HANDLE handle = nullptr;
        EXPECT_EQ(CALL(KxCreateThread)(osal, priority, run_script, &script, &handle), KC_OK);
        return handle;
    }
    // A thread that ends with a status; its record is destroyed after the test.
    HANDLE exited(KCSTATUS status) {
        Script& script = scripts_.emplace_back();
        script.body = [this, status](HANDLE self) {
            CALL(KxExitThread)(osal, self, status, FALSE);
        };
        HANDLE handle = create(script);
        EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
        return later(handle);
    }
    HANDLE later(HANDLE handle) {
        to_destroy_.push_back(handle);
        return handle;
    }
    // A thread that runs until stop() and then exits.
    HANDLE running() {
        Script& script = scripts_.emplace_back();
        script.body = [this, &script](HANDLE self) {
            script.reach(1);
            EXPECT_TRUE(eventually([this] { return stop_.load(); }));
            CALL(KxExitThread)(osal, self, 0, FALSE);
        };
        HANDLE handle = create(script);
        EXPECT_TRUE(script.wait(1));
        return later(handle);
    }
    void stop() { stop_ = true; }
    static _KX_THREAD_HANDLE_* behind(HANDLE handle) {
        return static_cast<_KX_THREAD_HANDLE_*>(handle);
    }

  private:
    std::deque<Script> scripts_;
    std::vector<HANDLE> to_destroy_;
    std::atomic<bool> stop_ = false;
};
OSAL_BOTH_WAYS(Threads);

struct Stranger {
    LIST_ENTRY links[2] = {};
    char rest[200] = {};
};

TEST_P(Threads, TheRoutineGetsItsOwnHandleAndItsContext) {
    Script script;
    std::atomic<int> detached = -1;
    script.body = [&](HANDLE self) {
        pthread_attr_t attr;
        int state = -1;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getdetachstate(&attr, &state);
        pthread_attr_destroy(&attr);
        detached = state;
        CALL(KxExitThread)(osal, self, 0, FALSE);
    };
    HANDLE handle = create(script);
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
    EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(script.own.load(), handle);
    EXPECT_EQ(memcmp(handle, "THRD", 4), 0);
    later(handle);
}

TEST_P(Threads, TheRecordIsAPagedBlockOfTheInstance) {
    exited(0);
    EXPECT_EQ(record->MemoryPagedInUse, sizeof(_KX_THREAD_HANDLE_));
}

TEST_P(Threads, ANullPlaceForTheHandleIsAllowed) {
    Script script;
    script.body = [&](HANDLE self) { CALL(KxExitThread)(osal, self, 0, TRUE); };
    EXPECT_EQ(CALL(KxCreateThread)(osal, KX_PRIORITY_IDLE, run_script, &script, nullptr), KC_OK);
    EXPECT_TRUE(eventually([&] { return osal::load(g_OsalCurrentThreads) == 0; }));
}

TEST_P(Threads, CreationWantsAnInstanceAndARoutine) {
    StatusRecorder statuses;
    OsalObjInfo stranger = {};
    HANDLE handle = &stranger;
    const auto create = CALL(KxCreateThread);
    EXPECT_EQ(create(nullptr, 1, run_script, nullptr, &handle), error(4));
    statuses.expect_one(4, "thread", "KxCreateThread");
    EXPECT_EQ(create(reinterpret_cast<PIOsal>(&stranger), 1, run_script, nullptr, &handle),
              error(4));
    statuses.expect_one(4, "thread", "KxCreateThread");
    EXPECT_EQ(create(osal, 1, nullptr, nullptr, &handle), error(4));
    statuses.expect_one(4, "thread", "KxCreateThread");
    EXPECT_EQ(handle, &stranger) << "untouched";
}

TEST_P(Threads, AnUnknownPriorityIsCodeFourAndFreesTheRecord) {
    StatusRecorder statuses;
    HANDLE handle = this;
    EXPECT_EQ(CALL(KxCreateThread)(osal, 3, run_script, nullptr, &handle), error(4));
    statuses.expect_one(4, "thread", "KxCreateThread");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, sizeof(_KX_THREAD_HANDLE_));
}

TEST_P(Threads, WithoutMemoryIsCodeOneAndComesBeforeThePriority) {
    StatusRecorder statuses;
    HeapFault fault(1);
    HANDLE handle = this;
    EXPECT_EQ(CALL(KxCreateThread)(osal, 3, run_script, nullptr, &handle), error(1));
    statuses.expect_one(1, "thread", "KxCreateThread");
    EXPECT_EQ(handle, nullptr);
}

TEST_P(Threads, AFailedAttributeIsCodeOneAndFreesTheRecord) {
    StatusRecorder statuses;
    Interpose fail(
        "osal.so", "pthread_attr_init", +[](pthread_attr_t*) { return ENOMEM; });
    HANDLE handle = this;
    EXPECT_EQ(CALL(KxCreateThread)(osal, 3, run_script, nullptr, &handle), error(1));
    statuses.expect_one(1, "thread", "KxCreateThread");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

TEST_P(Threads, ThePriorityIsLookedAtBeforeTheCap) {
    g_OsalMaxThreads = 0;
    EXPECT_EQ(CALL(KxCreateThread)(osal, 3, run_script, nullptr, nullptr), error(4));
    EXPECT_EQ(CALL(KxCreateThread)(osal, 2, run_script, nullptr, nullptr), error(5));
}

TEST_P(Threads, TheThreadThatReachesTheCapIsRefused) {
    g_OsalMaxThreads = 3;
    running();
    running();
    EXPECT_EQ(osal::load(g_OsalCurrentThreads), 2);
    StatusRecorder statuses;
    HANDLE handle = this;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(CALL(KxCreateThread)(osal, 1, run_script, nullptr, &handle), error(5));
        statuses.expect_one(5, "thread", "KxCreateThread");
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(osal::load(g_OsalCurrentThreads), 2);
    }
    EXPECT_EQ(record->MemoryPagedInUse, 2 * sizeof(_KX_THREAD_HANDLE_));
    stop();
}

TEST_P(Threads, TheCapComparesUnsigned) {
    StatusRecorder statuses;
    g_OsalMaxThreads = 1000;
    osal::store(g_OsalCurrentThreads, INT32{-5});  // far above the cap as a 64-bit number
    EXPECT_EQ(CALL(KxCreateThread)(osal, 1, run_script, nullptr, nullptr), error(5));
    EXPECT_EQ(osal::load(g_OsalCurrentThreads), -5);
    osal::store(g_OsalCurrentThreads, INT32{0});
}

TEST_P(Threads, APlatformWithoutResourcesIsCodeFive) {
    StatusRecorder statuses;
    static int refusal;
    Interpose create(
        "osal.so", "pthread_create",
        +[](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return refusal; });
    const struct {
        int refusal;
        UINT32 code;
    } rows[] = {{EAGAIN, 5}, {EPERM, 1}, {EINVAL, 1}, {ENOMEM, 1}};
    for (auto& row : rows) {
        refusal = row.refusal;
        HANDLE handle = this;
        EXPECT_EQ(CALL(KxCreateThread)(osal, 1, run_script, nullptr, &handle), error(row.code));
        statuses.expect_one(row.code, "thread", "KxCreateThread");
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(osal::load(g_OsalCurrentThreads), 0);
        EXPECT_EQ(record->MemoryPagedInUse, 0u);
    }
}

TEST_P(Threads, ThePriorityBecomesTheSchedulingPolicyOfTheAttributes) {
    static int policy, inherit;
    for (KX_PRIORITY priority : {KX_PRIORITY_IDLE, KX_PRIORITY_NORMAL, KX_PRIORITY_REALTIME}) {
        policy = -1;
        {
            Interpose create(
                "osal.so", "pthread_create",
                +[](pthread_t*, const pthread_attr_t* attr, void* (*)(void*), void*) {
                    pthread_attr_getschedpolicy(attr, &policy);
                    pthread_attr_getinheritsched(attr, &inherit);
                    return EAGAIN;
                });
            CALL(KxCreateThread)(osal, priority, run_script, nullptr, nullptr);
        }
        EXPECT_EQ(policy, priority == KX_PRIORITY_REALTIME ? SCHED_RR : SCHED_OTHER);
        EXPECT_EQ(inherit, PTHREAD_INHERIT_SCHED);
    }
}

TEST_P(Threads, ARealtimeThreadStartsAlthoughThePlatformGrantsNoPolicy) {
    Script script;
    script.body = [&](HANDLE self) {
        int policy = -1;
        sched_param parameters;
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        EXPECT_EQ(policy, SCHED_OTHER);
        CALL(KxExitThread)(osal, self, 0, FALSE);
    };
    HANDLE handle = later(create(script, KX_PRIORITY_REALTIME));
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
}

TEST_P(Threads, TheExitStatusIsReadAfterTheExit) {
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(nullptr, exited(0x1234)), 0x1234u);
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, exited(error(3))), error(3)) << "whatever it was";
    statuses.expect_none();
}

TEST_P(Threads, TheExitStatusOfARunningThreadIsBusy) {
    HANDLE handle = running();
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), error(0x1003));
    statuses.expect_one(0x1003, "thread", "KxGetThreadExitStatus");
    stop();
}

TEST_P(Threads, AWaitForAnExitedThreadReturnsAtOnce) {
    HANDLE handle = exited(0);
    for (INT64 timeout : {INT64{0}, INT64{-1}, INT64{1000000}, INT64{-77}})
        EXPECT_EQ(CALL(KxWaitForThreadExit)(nullptr, handle, timeout), KC_OK);
}

TEST_P(Threads, AWaitForARunningThreadTimesOut) {
    HANDLE handle = running();
    StatusRecorder statuses;
    for (INT64 timeout : {INT64{0}, INT64{20000}, INT64{-2000000}, INT64_MIN}) {
        const auto start = Clock::now();
        EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, timeout), error(10));
        EXPECT_GE(Clock::now() - start, microseconds(timeout > 0 ? timeout - 1000 : 0));
        statuses.expect_one(10, "thread", "KxWaitForThreadExit");
    }
    stop();
}

TEST_P(Threads, AnInterruptedWaitIsATimeOutAndAnyOtherFailureCodeOne) {
    HANDLE handle = running();
    StatusRecorder statuses;
    static int result;
    Interpose wait(
        "osal.so", "pthread_cond_wait", +[](pthread_cond_t* condition, pthread_mutex_t* mutex) {
            return Interpose::made_here() ? result : pthread_cond_wait(condition, mutex);
        });
    const struct {
        int result;
        UINT32 code;
    } rows[] = {{EINTR, 10}, {ETIMEDOUT, 10}, {EINVAL, 1}, {EPERM, 1}};
    for (auto& row : rows) {
        result = row.result;
        EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), error(row.code));
        statuses.expect_one(row.code, "thread", "KxWaitForThreadExit");
    }
    result = 0;
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK)
        << "any wake-up counts, though the thread runs";
    statuses.expect_none();
    stop();
}

TEST_P(Threads, EveryWaiterIsWokenByTheExit) {
    HANDLE handle = running();
    std::atomic<int> woken = 0;
    {
        std::deque<RawThread> waiters;
        for (INT64 timeout : {INT64{-1}, INT64{1} << 62, INT64{600'000'000}})
            waiters.emplace_back([&, timeout] {
                EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, timeout), KC_OK);
                ++woken;
            });
        nap(milliseconds(30));
        EXPECT_EQ(woken, 0);
        stop();
    }
    EXPECT_EQ(woken, 3);
}

TEST_P(Threads, ARoutineThatReturnsWakesItsWaitersButLooksAlive) {
    Script script;
    std::atomic<bool> end = false;
    script.body = [&](HANDLE) { eventually([&] { return end.load(); }); };
    HANDLE handle = create(script);
    RawThread waiter([&] { EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK); });
    nap(milliseconds(50));  // the waiter has to be waiting when the routine returns
    end = true;
    waiter.join();
    ASSERT_TRUE(eventually([] { return osal::load(g_OsalCurrentThreads) == 0; }));
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), error(0x1003));
    statuses.expect_one(0x1003, "thread", "KxDestroyThread");
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), error(0x1003));
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, 1000), error(10)) << "waits in vain";
    EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, KX_PRIORITY_NORMAL), KC_OK);
    osal::store(behind(handle)->pCallerThreadRoutine, PKX_THREAD_ROUTINE{nullptr});
    later(handle);
}

TEST_P(Threads, AnExitWithABadHandleReturns) {
    StatusRecorder statuses;
    Stranger stranger;
    CALL(KxExitThread)(osal, nullptr, 5, TRUE);
    CALL(KxExitThread)(osal, &stranger, 5, TRUE);
    statuses.expect_none();
    EXPECT_EQ(osal::load(g_OsalCurrentThreads), 0);
}

TEST_P(Threads, AThreadMayDestroyItsOwnRecord) {
    for (int i = 0; i < 50; ++i) {
        Script script;
        script.body = [&](HANDLE self) { CALL(KxExitThread)(osal, self, 1, TRUE); };
        create(script);
        ASSERT_TRUE(all_ended());
        EXPECT_EQ(osal::load(record->MemoryPagedInUse), 0u);
    }
}

TEST_P(Threads, AFailedSelfDestructionIsIgnored) {
    Script script;
    script.body = [&](HANDLE self) { CALL(KxExitThread)(nullptr, self, 7, TRUE); };
    HANDLE handle = later(create(script));
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), 7u);
}

TEST_P(Threads, TheExitUnwindsTheFramesOfTheRoutine) {
    std::atomic<int> unwound = 0;
    struct Guard {
        std::atomic<int>& count;
        ~Guard() { ++count; }
    };
    Script script;
    script.body = [&](HANDLE self) {
        Guard guard{unwound};
        CALL(KxExitThread)(osal, self, 0, FALSE);
        ADD_FAILURE() << "KxExitThread returned";
    };
    HANDLE handle = later(create(script));
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
    EXPECT_TRUE(eventually([&] { return unwound == 1; }));
}

TEST_P(Threads, ARoutineThatIsCancelledStaysCounted) {
    Script script;
    script.body = [&](HANDLE) {
        struct Unwound {
            Script& script;
            ~Unwound() {
                forget_stack_of_this_thread();
                script.reach(2);
            }
        } unwound{script};
        script.reach(1);
        for (;;)
            pause();
    };
    HANDLE handle = create(script);
    ASSERT_TRUE(script.wait(1));
    pthread_cancel(behind(handle)->id);
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, 50000), error(10));
    EXPECT_EQ(osal::load(g_OsalCurrentThreads), 1);
    osal::store(g_OsalCurrentThreads, INT32{0});
    osal::store(behind(handle)->pCallerThreadRoutine, PKX_THREAD_ROUTINE{nullptr});
    EXPECT_TRUE(script.wait(2));
    later(handle);
}

TEST_P(Threads, AThreadCancelledWhileItWaitsLeavesNothingLocked) {
    HANDLE handle = running();
    for (INT64 timeout : {INT64{-1}, INT64{600'000'000}}) {
        RawThread waiter([&] {
            pthread_setcanceltype(
                timeout == -1 ? PTHREAD_CANCEL_DEFERRED : PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
            CALL(KxWaitForThreadExit)(osal, handle, timeout);
        });
        nap(milliseconds(20));
        waiter.cancel();
        EXPECT_TRUE(waiter.join());
        EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, KX_PRIORITY_NORMAL), KC_OK)
            << "takes the mutex";
    }
    stop();
}

TEST_P(Threads, AWaitLeavesTheCancellationTypeAsItWas) {
    HANDLE handle = exited(0);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
    int type;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    EXPECT_EQ(type, PTHREAD_CANCEL_ASYNCHRONOUS);
}

TEST_P(Threads, APriorityThatThePlatformRefusesIsNoFailure) {
    HANDLE handle = running();
    StatusRecorder statuses;
    static int calls, policy, priority, result;
    calls = 0;
    {
        Interpose set(
            "osal.so", "pthread_setschedparam",
            +[](pthread_t thread, int asked, const sched_param* parameters) {
                ++calls;
                policy = asked;
                priority = parameters->sched_priority;
                return result = pthread_setschedparam(thread, asked, parameters);
            });
        EXPECT_EQ(CALL(KxSetThreadPriority)(nullptr, handle, KX_PRIORITY_REALTIME), KC_OK);
        EXPECT_EQ(policy, SCHED_RR);
        EXPECT_EQ(priority, 0);
        EXPECT_NE(result, 0) << "the platform refused";
        for (KX_PRIORITY other : {KX_PRIORITY_IDLE, KX_PRIORITY_NORMAL}) {
            EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, other), KC_OK);
            EXPECT_EQ(policy, SCHED_OTHER);
            EXPECT_EQ(priority, 0);
        }
        EXPECT_EQ(calls, 3);
        EXPECT_EQ(CALL(KxSetThreadPriority)(osal, exited(0), KX_PRIORITY_NORMAL), KC_OK);
        EXPECT_EQ(calls, 3) << "there is no platform thread any more";
    }
    statuses.expect_none();
    stop();
}

TEST_P(Threads, SettingAnUnknownPriorityIsCodeFour) {
    HANDLE handle = exited(0);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, 3), error(4));
    statuses.expect_one(4, "thread", "KxSetThreadPriority");
}

TEST_P(Threads, ABadHandleIsCodeThree) {
    StatusRecorder statuses;
    Stranger stranger;
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{&stranger}}) {
        EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, 0), error(3));
        statuses.expect_one(3, "thread", "KxWaitForThreadExit");
        EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), error(3));
        statuses.expect_one(3, "thread", "KxGetThreadExitStatus");
        EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, 3), error(3)) << "before the priority";
        statuses.expect_one(3, "thread", "KxSetThreadPriority");
        EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), error(3));
        statuses.expect_one(3, "thread", "KxDestroyThread");
    }
}

TEST_P(Threads, DestructionWantsAnInstanceAndAnExitedThread) {
    HANDLE handle = running();
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxDestroyThread)(nullptr, handle), error(3));
    statuses.expect_one(3, "thread", "KxDestroyThread");
    OsalObjInfo stranger = {};
    EXPECT_EQ(CALL(KxDestroyThread)(reinterpret_cast<PIOsal>(&stranger), handle), error(3));
    statuses.expect_one(3, "thread", "KxDestroyThread");
    EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), error(0x1003));
    statuses.expect_one(0x1003, "thread", "KxDestroyThread");
    stop();
}

TEST_P(Threads, ADestroyedRecordIsZeroedAndItsHandleStale) {
    Quarantine quarantine;
    Script script;
    script.body = [&](HANDLE self) { CALL(KxExitThread)(osal, self, 9, FALSE); };
    HANDLE handle = create(script);
    ASSERT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), KC_OK);
    EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), KC_OK);
    static const char zeroes[sizeof(_KX_THREAD_HANDLE_)] = {};
    EXPECT_EQ(memcmp(handle, zeroes, sizeof zeroes), 0);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxDestroyThread)(osal, handle), error(3));
    statuses.expect_one(3, "thread", "KxDestroyThread");
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), error(3));
    statuses.expect_one(3, "thread", "KxGetThreadExitStatus");
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, handle, -1), error(3));
    statuses.expect_one(3, "thread", "KxWaitForThreadExit");
    EXPECT_EQ(CALL(KxSetThreadPriority)(osal, handle, 1), error(3));
    statuses.expect_one(3, "thread", "KxSetThreadPriority");
    CALL(KxExitThread)(osal, handle, 9, TRUE);  // returns
    EXPECT_EQ(memcmp(handle, zeroes, sizeof zeroes), 0) << "untouched";
}

// The exiting thread wakes its waiters after others can see that it has exited.
TEST_P(Threads, ARecordMayBeDestroyedAsSoonAsItsThreadIsSeenToHaveExited) {
    for (int i = 0; i < 200; ++i) {
        Script script;
        script.body = [&](HANDLE self) { CALL(KxExitThread)(osal, self, 3, FALSE); };
        HANDLE handle = create(script);
        while (osal::load(behind(handle)->pCallerThreadRoutine) != nullptr) {
        }
        ASSERT_EQ(CALL(KxGetThreadExitStatus)(osal, handle), 3u);
        ASSERT_EQ(CALL(KxDestroyThread)(osal, handle), KC_OK);
        ASSERT_TRUE(all_ended());
    }
}

TEST(ThreadHandleObject, ItsReleaseReturnsZero) {
    EXPECT_EQ(KxSystemRelThreadHandleObj(nullptr), KC_OK);
    int object = 5;
    EXPECT_EQ(KxSystemRelThreadHandleObj(&object), KC_OK);
    EXPECT_EQ(object, 5);
}

}  // namespace
}  // namespace osal_test
