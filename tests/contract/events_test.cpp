// Events and waits, by export and by slot.
#include <atomic>
#include <cerrno>
#include <cstring>

#include "osal/internal/valgrind.h"
#include "support/event_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

constexpr const char* kSeveral = "KxWaitForMultipleEvents";
constexpr INT64 kLong = 600'000'000;

// A handle of no event: long enough to look at, and of another kind.
struct Stranger {
    LIST_ENTRY links[2] = {};
    UINT32 signature = osal::four_cc("MUTX");
    char rest[200] = {};
};

class Events : public EventTest {
  protected:
    // Fails the test unless these statuses of the wait for several events were built, in order.
    void expect_built(std::initializer_list<UINT32> codes) {
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), codes.size());
        auto status = built.begin();
        for (UINT32 code : codes) {
            EXPECT_EQ(status->severity, KC_SEVERITY_ERROR);
            EXPECT_EQ(status->facility, KC_FACILITY_OSAL);
            EXPECT_EQ(status->code, code);
            EXPECT_EQ(status->file, "sync");
            EXPECT_EQ(status->function, kSeveral);
            ++status;
        }
    }

    StatusRecorder statuses;
};
OSAL_BOTH_WAYS(Events);

class EventLife : public Events {};
OSAL_BOTH_WAYS(EventLife);
class SingleWait : public Events {};
OSAL_BOTH_WAYS(SingleWait);
class MultiWait : public Events {};
OSAL_BOTH_WAYS(MultiWait);

TEST_P(EventLife, AllocationWantsAnInstanceAPlaceAndAKnownType) {
    OsalObjInfo stranger = {};
    HANDLE handle = &stranger;
    EXPECT_EQ(CALL(KxAllocEvent)(nullptr, 0, &handle), error(4));
    statuses.expect_one(4, "sync", "KxAllocEvent");
    EXPECT_EQ(CALL(KxAllocEvent)(reinterpret_cast<PIOsal>(&stranger), 0, &handle), error(4));
    statuses.expect_one(4, "sync", "KxAllocEvent");
    for (KX_EVENT_TYPE type : {2u, 3u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(CALL(KxAllocEvent)(osal, type, &handle), error(4));
        statuses.expect_one(4, "sync", "KxAllocEvent");
    }
    EXPECT_EQ(handle, &stranger) << "untouched";
    EXPECT_EQ(CALL(KxAllocEvent)(osal, 0, nullptr), error(4));
    statuses.expect_one(4, "sync", "KxAllocEvent");
    EXPECT_EQ(record->EventInUse, 0u);
}

TEST_P(EventLife, AllocationWithoutMemoryGivesNullAndCodeOne) {
    HeapFault fault(1);
    HANDLE handle = this;
    EXPECT_EQ(CALL(KxAllocEvent)(osal, KxNotificationEvent, &handle), error(1));
    statuses.expect_one(1, "sync", "KxAllocEvent");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(record->EventInUse, 0u);
}

TEST_P(EventLife, AnEventIsCountedAndSignedAndNotSignalled) {
    UINT32 count = 0;
    for (KX_EVENT_TYPE type : kBothTypes) {
        osal::Event* event = event_behind(make(type));
        EXPECT_EQ(record->EventInUse, ++count);
        EXPECT_EQ(memcmp(reinterpret_cast<char*>(event) + 32, "EVNT", 4), 0);
        EXPECT_EQ(event->type, type);
        EXPECT_EQ(event->state, 0u);
        EXPECT_EQ(event->Link.Flink, &event->Link);
        EXPECT_EQ(event->Link.Blink, &event->Link);
    }
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u) << "records come from the C heap";
    EXPECT_EQ(record->MemoryNonPagedTotalAllocated, 0u);
    statuses.expect_none();
}

TEST_P(EventLife, WhatIsReservedStaysAsTheHeapGaveIt) {
    Interpose heap("osal.so", "malloc", &patterned_malloc);
    osal::Event* event = event_behind(make(KxNotificationEvent));
    const std::string pattern(sizeof(LIST_ENTRY), static_cast<char>(kHeapByte));
    EXPECT_EQ(memcmp(&event->Link2, pattern.data(), sizeof event->Link2), 0);
    EXPECT_EQ(memcmp(&event->waitCount, pattern.data(), sizeof event->waitCount), 0);
}

TEST_P(EventLife, DestructionWantsAnInstanceAndAnEvent) {
    HANDLE handle = make(KxNotificationEvent);
    Stranger stranger;
    OsalObjInfo no_instance = {};
    const struct {
        PIOsal instance;
        HANDLE handle;
    } rows[] = {{nullptr, handle},
                {reinterpret_cast<PIOsal>(&no_instance), handle},
                {osal, nullptr},
                {osal, &stranger}};
    for (auto& row : rows) {
        EXPECT_EQ(CALL(KxDestroyEvent)(row.instance, row.handle), error(3));
        statuses.expect_one(3, "sync", "KxDestroyEvent");
    }
    EXPECT_EQ(record->EventInUse, 1u);
}

TEST_P(EventLife, ADestroyedRecordIsZeroedAndItsHandleStale) {
    Quarantine quarantine;
    HANDLE other = make(KxNotificationEvent);
    HANDLE handle = let_go(make(KxNotificationEvent, true));
    ASSERT_EQ(CALL(KxDestroyEvent)(osal, handle), KC_OK);
    EXPECT_EQ(record->EventInUse, 1u);
    static const char zeroes[sizeof(osal::Event)] = {};
    EXPECT_EQ(memcmp(handle, zeroes, sizeof zeroes), 0);
    statuses.expect_none();

    EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), error(3));
    statuses.expect_one(3, "sync", "KxDestroyEvent");
    EXPECT_EQ(record->EventInUse, 1u);
    EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, nullptr), error(3));
    statuses.expect_one(3, "sync", "KxSignalEvent");
    EXPECT_EQ(CALL(KxResetEvent)(osal, handle, nullptr), error(3));
    statuses.expect_one(3, "sync", "KxResetEvent");
    EXPECT_EQ(wait(handle, 0), error(3));
    statuses.expect_one(3, "sync", "KxWaitForSingleEvent");
    EXPECT_EQ(wait_any({other, handle}, kLong), error(3));
    expect_built({1, 3});
    EXPECT_EQ(memcmp(handle, zeroes, sizeof zeroes), 0) << "untouched";
}

TEST_P(EventLife, DestructionWhileItsMutexIsHeldIsBusyAndLeavesItUsable) {
    SKIP_UNDER_HELGRIND();
    SKIP_UNDER_THREAD_SANITIZER();
    HANDLE handle = make(KxSynchronizationEvent);
    pthread_mutex_t* mutex = &event_behind(handle)->mutex.native;
    pthread_mutex_lock(mutex);
    EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), error(0x1003));
    pthread_mutex_unlock(mutex);
    statuses.expect_one(0x1003, "sync", "KxDestroyEvent");
    EXPECT_EQ(record->EventInUse, 1u);
    signal(handle);
    EXPECT_EQ(wait(handle, 0), KC_OK);
}

TEST_P(EventLife, AFailedPlatformDestroyKeepsRecordAndCounter) {
    HANDLE handle = make(KxSynchronizationEvent, true);
    for (const char* destroy : {"pthread_mutex_destroy", "pthread_cond_destroy"}) {
        {
            Interpose busy(
                "osal.so", destroy, +[](void*) { return EBUSY; });
            EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), error(0x1003));
        }
        statuses.expect_one(0x1003, "sync", "KxDestroyEvent");
        EXPECT_EQ(record->EventInUse, 1u);
        EXPECT_EQ(memcmp(static_cast<char*>(handle) + 32, "EVNT", 4), 0);
        EXPECT_TRUE(is_signalled(handle));
    }
    // The mutex went before the condition was refused.
    pthread_mutex_init(&event_behind(handle)->mutex.native, nullptr);
}

std::atomic<bool> signaller_may_go;
int slow_signal(pthread_cond_t* condition) {
    const int result = pthread_cond_signal(condition);
    if (Interpose::made_here()) eventually([] { return signaller_may_go.load(); });
    return result;
}

TEST_P(EventLife, DestructionWaitsForASignalThatWakesToLeaveTheEvent) {
    if (osal::under_valgrind()) GTEST_SKIP() << "sleepers are woken with the mutex held";
    HANDLE handle = let_go(make(KxSynchronizationEvent));
    signaller_may_go = false;
    RawThread signaller([&] {
        Interpose slow("osal.so", "pthread_cond_signal", &slow_signal);
        EXPECT_TRUE(eventually([&] { return listeners(handle) == 1; }));
        signal(handle);
    });
    ASSERT_EQ(wait(handle, -1), KC_OK);
    RawThread destroyer([&] { EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), KC_OK); });
    nap(milliseconds(30));
    EXPECT_FALSE(destroyer.done());
    EXPECT_EQ(record->EventInUse, 1u);
    signaller_may_go = true;
    destroyer.join();
    EXPECT_EQ(record->EventInUse, 0u);
}

TEST_P(EventLife, DestructionDoesNotLookAtRegistrations) NO_THREAD_SAFETY_ANALYSIS {
    Quarantine quarantine;
    HANDLE handle = let_go(make(KxNotificationEvent));
    osal::Registration registration = {};
    OsalInsertTailList(&event_behind(handle)->multiWaitList, &registration.SingleEntry);
    const osal::Registration before = registration;
    EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), KC_OK);
    EXPECT_EQ(memcmp(&registration, &before, sizeof before), 0);
    statuses.expect_none();
}

TEST_P(Events, SignalAndResetTellTheFormerState) {
    for (KX_EVENT_TYPE type : kBothTypes) {
        HANDLE handle = make(type);
        BOOLEAN previous = 9;
        EXPECT_EQ(CALL(KxResetEvent)(osal, handle, &previous), KC_OK);
        EXPECT_EQ(previous, 0);
        previous = 9;
        EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, &previous), KC_OK);
        EXPECT_EQ(previous, 0);
        EXPECT_TRUE(is_signalled(handle));
        EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, &previous), KC_OK);
        EXPECT_EQ(previous, 1);
        previous = 9;
        EXPECT_EQ(CALL(KxResetEvent)(osal, handle, &previous), KC_OK);
        EXPECT_EQ(previous, 1);
        EXPECT_FALSE(is_signalled(handle));
    }
    statuses.expect_none();
}

TEST_P(Events, SignallingTwiceLeavesOneSignal) {
    HANDLE handle = make(KxSynchronizationEvent, true);
    BOOLEAN previous = 0;
    EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, &previous), KC_OK);
    EXPECT_TRUE(previous);
    EXPECT_EQ(wait(handle, 0), KC_OK);
    EXPECT_EQ(wait(handle, 0), kWaitTimedOut);
}

TEST_P(Events, SignalResetAndWaitIgnoreTheInstance) {
    HANDLE handle = make(KxSynchronizationEvent);
    EXPECT_EQ(CALL(KxSignalEvent)(nullptr, handle, nullptr), KC_OK);
    EXPECT_EQ(CALL(KxResetEvent)(nullptr, handle, nullptr), KC_OK);
    EXPECT_EQ(CALL(KxSignalEvent)(nullptr, handle, nullptr), KC_OK);
    EXPECT_EQ(CALL(KxWaitForSingleEvent)(nullptr, handle, -1), KC_OK);
    statuses.expect_none();
}

TEST_P(Events, ABadHandleIsCodeThreeAndLeavesTheFormerStateAlone) {
    Stranger stranger;
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{&stranger}}) {
        BOOLEAN previous = 9;
        EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, &previous), error(3));
        statuses.expect_one(3, "sync", "KxSignalEvent");
        EXPECT_EQ(CALL(KxResetEvent)(osal, handle, &previous), error(3));
        statuses.expect_one(3, "sync", "KxResetEvent");
        EXPECT_EQ(previous, 9);
        for (INT64 timeout : {INT64{0}, INT64{-1}}) {
            EXPECT_EQ(wait(handle, timeout), error(3));
            statuses.expect_one(3, "sync", "KxWaitForSingleEvent");
        }
    }
}

TEST_P(Events, AResetTakesNoMutex) {
    HANDLE handle = make(KxNotificationEvent, true);
    pthread_mutex_t* mutex = &event_behind(handle)->mutex.native;
    pthread_mutex_lock(mutex);
    BOOLEAN previous = 0;
    EXPECT_EQ(CALL(KxResetEvent)(osal, handle, &previous), KC_OK);
    pthread_mutex_unlock(mutex);
    EXPECT_EQ(previous, 1);
    EXPECT_FALSE(is_signalled(handle));
}

TEST_P(Events, OnlyTheFirstSignalWakes) {
    static pthread_cond_t* watched;
    static int one, all;
    Interpose signals(
        "osal.so", "pthread_cond_signal", +[](pthread_cond_t* condition) {
            if (Interpose::made_here()) one += condition == watched;
            return pthread_cond_signal(condition);
        });
    Interpose broadcasts(
        "osal.so", "pthread_cond_broadcast", +[](pthread_cond_t* condition) {
            if (Interpose::made_here()) all += condition == watched;
            return pthread_cond_broadcast(condition);
        });
    for (KX_EVENT_TYPE type : kBothTypes) {
        HANDLE handle = make(type);
        watched = &event_behind(handle)->condition;
        one = all = 0;
        ConditionWaits sleep([&](pthread_mutex_t* mutex, const timespec*) {
            unlocked(mutex, [&] {
                signal(handle);
                signal(handle);
            });
            return 0;
        });
        EXPECT_EQ(wait(handle, -1), KC_OK);
        EXPECT_EQ(one, type == KxSynchronizationEvent ? 1 : 0);
        EXPECT_EQ(all, type == KxNotificationEvent ? 1 : 0);
    }
}

TEST_P(Events, ASignalThatNobodyListensForAndAWaitThatFindsItCallNoPlatform) {
    static int calls;
    calls = 0;
    const auto count = +[](pthread_mutex_t*) {
        if (Interpose::made_here()) ++calls;
        return 0;
    };
    const auto count_types = +[](int type, int* former) {
        if (Interpose::made_here()) ++calls;
        return pthread_setcanceltype(type, former);
    };
    for (KX_EVENT_TYPE type : kBothTypes) {
        HANDLE handle = make(type);
        Interpose locks("osal.so", "pthread_mutex_lock", count);
        Interpose types("osal.so", "pthread_setcanceltype", count_types);
        EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, nullptr), KC_OK);
        EXPECT_EQ(wait(handle, -1), KC_OK);
        EXPECT_EQ(is_signalled(handle), type == KxNotificationEvent);
    }
    EXPECT_EQ(calls, 0);
}

// A registration by hand, as of a waiter on its way to sleep.
TEST_P(Events, ASignalRaisesTheMastersThatAreRegistered) NO_THREAD_SAFETY_ANALYSIS {
    HANDLE handle = make(KxSynchronizationEvent);
    HANDLE master = make(KxSynchronizationEvent);
    HANDLE other = make(KxSynchronizationEvent);
    osal::Registration list[3] = {};
    list[1].pMasterEvent = event_behind(master);  // list[0] has none
    list[2].pMasterEvent = event_behind(other);
    for (osal::Registration& registration : list)
        OsalInsertTailList(&event_behind(handle)->multiWaitList, &registration.SingleEntry);
    event_behind(handle)->listeners = 2;
    signal(handle);
    EXPECT_TRUE(is_signalled(master));
    EXPECT_TRUE(is_signalled(other));

    EXPECT_EQ(wait(master, 0), KC_OK);
    signal(handle);
    EXPECT_FALSE(is_signalled(master)) << "the event was signalled already";
    EXPECT_EQ(registrations(handle), 3u);
    for (osal::Registration& registration : list)
        OsalRemoveEntryList(&registration.SingleEntry);
    event_behind(handle)->listeners = 0;
}

TEST_P(SingleWait, AZeroTimeOutLooksOnce) {
    HANDLE handle = make(KxSynchronizationEvent, true);
    EXPECT_EQ(wait(handle, 0), KC_OK);
    EXPECT_FALSE(is_signalled(handle));
    LogRecorder log;
    EXPECT_EQ(wait(handle, 0), kWaitTimedOut);
    EXPECT_TRUE(log.take().empty());
    statuses.expect_none();
}

TEST_P(SingleWait, ANotificationEventReleasesAllAndStaysSignalled) {
    HANDLE handle = make(KxNotificationEvent);
    {
        std::deque<RawThread> waiters;
        std::atomic<int> woken = 0;
        for (INT64 timeout : {INT64{-1}, kLong, INT64{1} << 62, INT64_MAX})
            waiters.emplace_back([&, timeout] {
                EXPECT_EQ(wait(handle, timeout), KC_OK);
                ++woken;
            });
        nap(milliseconds(30));
        EXPECT_EQ(woken, 0);
        signal(handle);
    }
    EXPECT_TRUE(is_signalled(handle));
    for (INT64 timeout : {INT64{0}, INT64{-1}, INT64{-5'000'000}, kLong})
        EXPECT_EQ(wait(handle, timeout), KC_OK);
    EXPECT_TRUE(is_signalled(handle));
    statuses.expect_none();
}

TEST_P(SingleWait, ASynchronizationEventReleasesOneWaiterPerSignal) {
    HANDLE handle = make(KxSynchronizationEvent);
    RawThread waiter([&] { EXPECT_EQ(wait(handle, -1), KC_OK); });
    nap(milliseconds(20));
    EXPECT_FALSE(waiter.done());
    signal(handle);
    waiter.join();
    EXPECT_FALSE(is_signalled(handle));
    EXPECT_EQ(wait(handle, 0), kWaitTimedOut);
}

TEST_P(SingleWait, ATimeOutIsNotCutShortAndNotLogged) {
    for (KX_EVENT_TYPE type : kBothTypes) {
        HANDLE handle = make(type);
        const auto start = Clock::now();
        EXPECT_EQ(wait(handle, 30'000), kWaitTimedOut);
        EXPECT_GE(Clock::now() - start, milliseconds(29));  // two clocks
        EXPECT_LT(Clock::now() - start, kPatience);
        EXPECT_TRUE(mutex_is_free(handle));
    }
    statuses.expect_none();
}

TEST_P(SingleWait, AnyOtherPlatformErrorIsThePlainValueOne) {
    for (KX_EVENT_TYPE type : kBothTypes)
        for (int refusal : {EINVAL, EPERM, EINTR}) {
            HANDLE handle = make(type);
            ConditionWaits waits([&](pthread_mutex_t*, const timespec*) {
                osal::store(event_behind(handle)->state, UINT32{1});
                return refusal;
            });
            for (INT64 timeout : {INT64{-1}, kLong}) {
                EXPECT_EQ(CALL(KxResetEvent)(osal, handle, nullptr), KC_OK);
                EXPECT_EQ(wait(handle, timeout), 1u);
                EXPECT_TRUE(is_signalled(handle)) << "the state is left alone";
            }
            EXPECT_EQ(waits.count(), 2);
        }
    EXPECT_FALSE(osal::is_error(1));
    statuses.expect_none();
}

TEST_P(SingleWait, ATimeOutLeavesASignalThatCameTooLate) {
    HANDLE handle = make(KxSynchronizationEvent);
    ConditionWaits waits([&](pthread_mutex_t*, const timespec*) {
        osal::store(event_behind(handle)->state, UINT32{1});
        return ETIMEDOUT;
    });
    EXPECT_EQ(wait(handle, kLong), kWaitTimedOut);
    EXPECT_TRUE(is_signalled(handle));
    statuses.expect_none();
}

TEST_P(SingleWait, AnyWakeUpCountsAsASignal) {
    for (KX_EVENT_TYPE type : kBothTypes)
        for (UINT32 state : {0u, 1u}) {
            HANDLE handle = make(type);
            ConditionWaits waits([&](pthread_mutex_t*, const timespec*) {
                osal::store(event_behind(handle)->state, state);
                return 0;
            });
            EXPECT_EQ(wait(handle, -1), KC_OK);
            EXPECT_EQ(waits.count(), 1) << "no loop";
            EXPECT_EQ(is_signalled(handle), state == 1 && type == KxNotificationEvent);
        }
}

TEST_P(SingleWait, AResetDoesNotHoldBackAWaiterThatWasWoken) {
    HANDLE handle = make(KxNotificationEvent);
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        unlocked(mutex, [&] {
            signal(handle);
            EXPECT_EQ(CALL(KxResetEvent)(osal, handle, nullptr), KC_OK);
        });
        return 0;
    });
    EXPECT_EQ(wait(handle, -1), KC_OK);
    EXPECT_FALSE(is_signalled(handle));
}

timespec fixed_now;
int fixed_clock(clockid_t clock, timespec* time) {
    if (!Interpose::made_here()) return clock_gettime(clock, time);
    EXPECT_EQ(clock, CLOCK_REALTIME);
    *time = fixed_now;
    return 0;
}

TEST_P(SingleWait, DeadlinesAreTheStatedSums) {
    HANDLE handle = make(KxSynchronizationEvent);
    std::optional<timespec> deadline;
    ConditionWaits waits([&](pthread_mutex_t*, const timespec* given) {
        deadline = given == nullptr ? std::nullopt : std::optional(*given);
        return ETIMEDOUT;
    });
    Interpose clock("osal.so", "clock_gettime", &fixed_clock);
    const struct {
        timespec now;
        INT64 timeout;
        timespec expected;
    } rows[] = {
        {{100, 5}, 0, {100, 5}},
        {{100, 5}, 1, {100, 1005}},
        {{100, 999'999'999}, 1, {101, 999}},
        {{100, 999'999'000}, 1, {101, 0}},
        {{100, 5}, 999'999, {100, 999'999'005}},
        {{100, 5}, 1'500'000, {101, 500'000'005}},
        {{100, 5}, -2, {100, 709'549'621}},
        {{100, 5}, -999'999, {100, 709'552'621}},
        {{100, 5}, -2'000'000, {98, 709'551'621}},
        {{100, 999'999'999}, -2'000'000, {99, 709'551'615}},
        {{100, 5}, -1'000'000'000, {0, 709'551'621}},
        {{100, 5}, INT64_MIN, {0, 5}},
        {{100, 5}, INT64{1} << 62, {100 + 4'611'686'018'427, 5}},
        {{100, 5}, INT64_MAX, {100 + 9'223'372'036'854, 709'550'621}},
    };
    for (auto& row : rows) {
        fixed_now = row.now;
        EXPECT_EQ(wait(handle, row.timeout), kWaitTimedOut);
        ASSERT_TRUE(deadline) << row.timeout;
        EXPECT_EQ(deadline->tv_sec, row.expected.tv_sec) << row.timeout;
        EXPECT_EQ(deadline->tv_nsec, row.expected.tv_nsec) << row.timeout;
    }
    EXPECT_EQ(wait(handle, -1), kWaitTimedOut);
    EXPECT_FALSE(deadline) << "no limit";

    fixed_now = {INT64_MAX - 5, 999'999'999};
    EXPECT_EQ(wait(handle, 10'000'001), kWaitTimedOut);
    ASSERT_TRUE(deadline);
    EXPECT_GE(deadline->tv_sec, INT64_MAX - 1) << "a deadline past the end is never reached";
}

TEST_P(SingleWait, NegativeTimeOutsExpire) {
    HANDLE handle = make(KxSynchronizationEvent);
    for (INT64 timeout : {INT64{-2}, INT64{-999'999}, INT64{-3'000'000}, INT64_MIN, INT64_MIN + 1})
        EXPECT_EQ(wait(handle, timeout), kWaitTimedOut);
}

TEST_P(SingleWait, LeavesTheCancellationTypeAsItWas) {
    HANDLE handle = make(KxSynchronizationEvent, true);
    HANDLE other = make(KxSynchronizationEvent, true);
    int during = -1;
    ConditionWaits waits([&](pthread_mutex_t*, const timespec*) {
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &during);
        return ETIMEDOUT;
    });
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    const KCSTATUS results[] = {wait(handle, -1), wait(handle, -1), wait_any({handle, other}, -1),
                                wait_any({handle, other}, -1)};
    int type;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    EXPECT_EQ(type, PTHREAD_CANCEL_ASYNCHRONOUS);
    EXPECT_EQ(during, PTHREAD_CANCEL_DEFERRED);
    EXPECT_EQ(results[0], KC_OK);
    EXPECT_EQ(results[1], kWaitTimedOut);
    EXPECT_EQ(results[2], 1u);
    EXPECT_EQ(results[3], error(10));
}

TEST_P(SingleWait, ACancelledWaiterLeavesTheEventUsable) {
    for (int type : {PTHREAD_CANCEL_DEFERRED, PTHREAD_CANCEL_ASYNCHRONOUS})
        for (INT64 timeout : {INT64{-1}, kLong}) {
            HANDLE handle = make(KxSynchronizationEvent);
            RawThread waiter([&] {
                pthread_setcanceltype(type, nullptr);
                wait(handle, timeout);
            });
            EXPECT_TRUE(eventually([&] { return listeners(handle) == 1; }));
            waiter.cancel();
            EXPECT_TRUE(waiter.join());
            EXPECT_TRUE(mutex_is_free(handle));
            EXPECT_EQ(listeners(handle), 0u);
            EXPECT_FALSE(is_signalled(handle));
            signal(handle);
            EXPECT_EQ(wait(handle, 0), KC_OK);
        }
    statuses.expect_none();
}

TEST_P(MultiWait, WantsACountAndHandlesButNoInstance) {
    HANDLE handle = make(KxSynchronizationEvent, true);
    HANDLE handles[] = {handle, handle};
    for (PIOsal instance : {osal, PIOsal{nullptr}}) {
        EXPECT_EQ(CALL(KxWaitForMultipleEvents)(instance, 0, handles, FALSE, -1), error(4));
        expect_built({4});
        EXPECT_EQ(CALL(KxWaitForMultipleEvents)(instance, 2, nullptr, TRUE, 0), error(4));
        expect_built({4});
        EXPECT_EQ(CALL(KxWaitForMultipleEvents)(instance, 1, nullptr, TRUE, 0), error(4));
        expect_built({4});
    }
    EXPECT_TRUE(is_signalled(handle));
}

TEST_P(MultiWait, OneEventIsASingleWait) {
    for (BOOLEAN all : {FALSE, TRUE}) {
        HANDLE handle = make(KxSynchronizationEvent, true);
        const auto call = [&](INT64 timeout) {
            return CALL(KxWaitForMultipleEvents)(nullptr, 1, &handle, all, timeout);
        };
        EXPECT_EQ(call(0), KC_OK);
        EXPECT_FALSE(is_signalled(handle));
        EXPECT_EQ(call(0), kWaitTimedOut);
        EXPECT_EQ(call(1000), kWaitTimedOut);
        ConditionWaits waits([](pthread_mutex_t*, const timespec*) { return EINVAL; });
        EXPECT_EQ(call(-1), 1u);
        statuses.expect_none();
    }
    HANDLE none = nullptr;
    EXPECT_EQ(CALL(KxWaitForMultipleEvents)(osal, 1, &none, TRUE, -1), error(3));
    statuses.expect_one(3, "sync", "KxWaitForSingleEvent");
}

TEST_P(MultiWait, ACountFromTheSignBitUpLooksAtNoEvent) {
    HANDLE none = nullptr;
    for (UINT32 count : {0x80000000u, 0xFFFFFFFFu})
        for (BOOLEAN all : {FALSE, TRUE}) {
            EXPECT_EQ(CALL(KxWaitForMultipleEvents)(osal, count, &none, all, 0), error(1));
            expect_built({1});
            EXPECT_EQ(CALL(KxWaitForMultipleEvents)(osal, count, &none, all, -1), KC_OK);
            expect_built({1});
        }
}

TEST_P(MultiWait, AnyReturnsTheIndexButAPollDoesNot) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxSynchronizationEvent, KxSynchronizationEvent});
    for (INT64 timeout : {INT64{-1}, kLong, INT64{-5'000'000}, INT64{1}}) {
        signal(handles[1]);
        EXPECT_EQ(wait_any(handles, timeout), 1u);
        EXPECT_FALSE(is_signalled(handles[1]));
        expect_built({1});
    }
    signal(handles[1]);
    EXPECT_EQ(wait_any(handles, 0), KC_OK);
    EXPECT_FALSE(is_signalled(handles[1]));
    expect_built({1});
}

TEST_P(MultiWait, AnyTakesTheLowestAndLeavesTheOthers) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxNotificationEvent, KxSynchronizationEvent});
    for (INT64 timeout : {INT64{0}, INT64{-1}}) {
        signal(handles[1]);
        signal(handles[2]);
        EXPECT_EQ(wait_any(handles, timeout), timeout == 0 ? 0u : 1u);
        EXPECT_TRUE(is_signalled(handles[1]));
        EXPECT_TRUE(is_signalled(handles[2]));
    }
    signal(handles[0]);
    EXPECT_EQ(wait_any(handles, -1), 0u);
    EXPECT_FALSE(is_signalled(handles[0]));
    EXPECT_TRUE(is_signalled(handles[2]));
}

TEST_P(MultiWait, APollThatFindsNothingIsCodeOne) {
    const auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
    EXPECT_EQ(wait_any(handles, 0), error(1));
    expect_built({1});
    EXPECT_EQ(wait_all(handles, 0), error(1));
    expect_built({1});
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u) << "a poll registers nothing";
}

TEST_P(MultiWait, APolledAllIsCodeOneThoughItConsumes) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxNotificationEvent, KxSynchronizationEvent});
    for (bool complete : {true, false}) {
        for (HANDLE handle : handles)
            signal(handle);
        if (!complete) {
            EXPECT_EQ(CALL(KxResetEvent)(osal, handles[1], nullptr), KC_OK);
        }
        EXPECT_EQ(wait_all(handles, 0), error(1));
        expect_built({1});
        EXPECT_FALSE(is_signalled(handles[0]));
        EXPECT_EQ(is_signalled(handles[1]), complete);
        EXPECT_FALSE(is_signalled(handles[2]));
    }
}

TEST_P(MultiWait, ABadHandleAtAnyPositionIsCodeThree) {
    Stranger stranger;
    for (HANDLE bad : {HANDLE{nullptr}, HANDLE{&stranger}})
        for (std::size_t position = 0; position < 3; ++position)
            for (INT64 timeout : {INT64{0}, kLong, INT64{-1}})
                for (BOOLEAN all : {FALSE, TRUE}) {
                    auto handles = make_all(
                        {KxSynchronizationEvent, KxNotificationEvent, KxSynchronizationEvent});
                    handles[position] = bad;
                    EXPECT_EQ(wait_several(handles, all, timeout), error(3));
                    expect_built({1, 3});
                    EXPECT_EQ(record->MemoryPagedInUse, 0u);
                }
}

TEST_P(MultiWait, ABadHandleIsSeenOnlyWhenItsTurnComes) {
    HANDLE first = make(KxSynchronizationEvent);
    HANDLE last = make(KxSynchronizationEvent, true);
    for (INT64 timeout : {INT64{0}, INT64{-1}}) {
        signal(first);
        EXPECT_EQ(wait_any({first, nullptr, last}, timeout), 0u);
        EXPECT_FALSE(is_signalled(first));
        expect_built({1});
        signal(first);
        EXPECT_EQ(wait_all({first, nullptr, last}, timeout), error(3));
        EXPECT_FALSE(is_signalled(first)) << "consumed all the same";
        expect_built({1, 3});
        EXPECT_TRUE(is_signalled(last)) << "never reached";
    }
}

TEST_P(MultiWait, WithoutAnInstanceNothingCanBeRegistered) {
    auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent});
    OsalObjInfo stranger = {};
    for (PIOsal instance : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(&stranger)})
        for (BOOLEAN all : {FALSE, TRUE}) {
            const auto call = [&](INT64 timeout) {
                return CALL(KxWaitForMultipleEvents)(instance, 2, handles.data(), all, timeout);
            };
            EXPECT_EQ(call(-1), error(5));
            expect_built({1, 5});
            EXPECT_EQ(call(0), error(1));
            signal(handles[1]);
            EXPECT_EQ(call(-1), error(5)) << "the first event is looked at first";
            EXPECT_TRUE(is_signalled(handles[1]));
            signal(handles[0]);
            EXPECT_EQ(call(-1), KC_OK);
            EXPECT_FALSE(is_signalled(handles[0]));
            EXPECT_EQ(is_signalled(handles[1]), !all);
            EXPECT_EQ(CALL(KxResetEvent)(osal, handles[1], nullptr), KC_OK);
            statuses.take();
        }
}

TEST_P(MultiWait, AFailedRegistrationIsCodeFiveAndUndoesTheOthers) {
    auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent, KxNotificationEvent,
                             KxSynchronizationEvent});
    for (BOOLEAN all : {FALSE, TRUE})
        for (int nth = 1; nth <= 4; ++nth) {
            HeapFault fault(nth);
            EXPECT_EQ(wait_several(handles, all, kLong), error(5));
            expect_built({1, 5});
            EXPECT_EQ(fault.requests(), nth) << "the pass ends there";
            EXPECT_EQ(record->MemoryPagedInUse, 0u);
            for (HANDLE handle : handles) {
                EXPECT_EQ(registrations(handle), 0u);
                EXPECT_TRUE(mutex_is_free(handle));
            }
        }
    signal(handles[0]);
    HeapFault fault(1);
    EXPECT_EQ(wait_all(handles, -1), error(5));
    EXPECT_FALSE(is_signalled(handles[0])) << "consumed all the same";
}

TEST_P(MultiWait, ATimeOutIsCodeTenAndLeavesNoRegistration) {
    const auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
    for (int all = 0; all < 2; ++all) {
        const auto start = Clock::now();
        EXPECT_EQ(all ? wait_all(handles, 30'000) : wait_any(handles, 30'000), error(10));
        EXPECT_GE(Clock::now() - start, milliseconds(29));  // two clocks
        EXPECT_LT(Clock::now() - start, kPatience);
        expect_built({1, 10});
        for (HANDLE handle : handles)
            EXPECT_EQ(registrations(handle), 0u);
        EXPECT_EQ(record->MemoryPagedInUse, 0u);
    }
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 4 * sizeof(osal::Registration));
}

TEST_P(MultiWait, NegativeTimeOutsExpireAndLeaveNoRegistration) {
    auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
    for (INT64 timeout : {INT64{-2}, INT64{-3'000'000}, INT64_MIN, INT64_MIN + 1})
        for (BOOLEAN all : {FALSE, TRUE}) {
            EXPECT_EQ(wait_several(handles, all, timeout), error(10));
            expect_built({1, 10});
            for (HANDLE handle : handles)
                EXPECT_EQ(registrations(handle), 0u);
        }
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

// The last registration of an event.
osal::Registration* last_registration(HANDLE handle) NO_THREAD_SAFETY_ANALYSIS {
    return osal::record_of<osal::Registration>(event_behind(handle)->multiWaitList.Blink,
                                               offsetof(osal::Registration, SingleEntry));
}

TEST_P(MultiWait, ARegistrationIsUnlinkedAndClearedBeforeItIsFreed) {
    Quarantine quarantine;
    const auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent});
    osal::Registration* left[2] = {};
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        for (int i = 0; i < 2; ++i) {
            left[i] = last_registration(handles[i]);
            EXPECT_EQ(left[i]->pSingleEvent, handles[i]);
            EXPECT_NE(left[i]->pMasterEvent, nullptr);
        }
        unlocked(mutex, [&] { signal(handles[1]); });
        return 0;
    });
    EXPECT_EQ(wait_any(handles, -1), 1u);  // one is collected, one withdrawn
    const auto poison = reinterpret_cast<PLIST_ENTRY>(UINT64{0xBAADF00D});
    for (const osal::Registration* registration : left) {
        ASSERT_NE(registration, nullptr);
        for (const LIST_ENTRY& entry : {registration->MasterEntry, registration->SingleEntry}) {
            EXPECT_EQ(entry.Flink, poison);
            EXPECT_EQ(entry.Blink, poison);
        }
        EXPECT_EQ(registration->pMasterEvent, nullptr);
        EXPECT_EQ(registration->pSingleEvent, nullptr);
    }
}

std::vector<const void*> freed;
void noting_free(void* memory) {
    if (Interpose::made_here()) freed.push_back(memory);
    free(memory);
}

TEST_P(MultiWait, WhatIsLeftIsWithdrawnFromTheLastRegistrationOn) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxNotificationEvent, KxSynchronizationEvent});
    std::vector<const char*> made;
    ConditionWaits waits([&](pthread_mutex_t*, const timespec*) {
        for (HANDLE handle : handles)
            made.push_back(reinterpret_cast<const char*>(last_registration(handle)));
        freed.clear();
        return ETIMEDOUT;
    });
    Interpose hook("osal.so", "free", &noting_free);
    EXPECT_EQ(wait_any(handles, kLong), error(10));
    expect_built({1, 10});
    ASSERT_EQ(freed.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        const auto into_block = made[2 - i] - static_cast<const char*>(freed[i]);
        EXPECT_GE(into_block, 0) << i;
        EXPECT_LT(into_block, 256) << i;
    }
}

TEST_P(MultiWait, ATimeOutIsOneEvenIfEventsWereFoundAfterIt) {
    for (BOOLEAN all : {FALSE, TRUE}) {
        auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
        ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
            unlocked(mutex, [&] {
                for (HANDLE handle : handles)
                    signal(handle);
            });
            return ETIMEDOUT;
        });
        EXPECT_EQ(wait_several(handles, all, kLong), error(10));
        expect_built({1, 10});
        EXPECT_FALSE(is_signalled(handles[0])) << "consumed";
        EXPECT_TRUE(is_signalled(handles[1]));
        EXPECT_EQ(waits.count(), 1);
    }
}

TEST_P(MultiWait, AWaitThatSleepsIsWokenByAnyEvent) {
    std::vector<HANDLE> handles;
    for (int i = 0; i < 64; ++i)
        handles.push_back(make(kBothTypes[i % 2]));
    for (UINT32 index : {0u, 1u, 31u, 62u, 63u})
        for (INT64 timeout : {INT64{-1}, kLong, INT64{1} << 62}) {
            RawThread waiter([&] { EXPECT_EQ(wait_any(handles, timeout), index); });
            EXPECT_TRUE(eventually([&] { return registrations(handles[63]) == 1; }));
            EXPECT_EQ(osal::load(record->MemoryPagedInUse), 64 * sizeof(osal::Registration));
            signal(handles[index]);
            waiter.join();
            expect_built({1});
            EXPECT_EQ(is_signalled(handles[index]), index % 2 == 1);
            EXPECT_EQ(CALL(KxResetEvent)(osal, handles[index], nullptr), KC_OK);
            for (HANDLE handle : handles)
                EXPECT_EQ(registrations(handle), 0u);
        }
}

TEST_P(MultiWait, AllWaitsForTheLastOne) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxNotificationEvent, KxSynchronizationEvent});
    signal(handles[1]);
    RawThread waiter([&] { EXPECT_EQ(wait_all(handles, kLong), KC_OK); });
    EXPECT_TRUE(eventually([&] { return registrations(handles[2]) == 1; }));
    EXPECT_EQ(registrations(handles[1]), 0u) << "was signalled at entry";
    signal(handles[2]);
    EXPECT_TRUE(eventually([&] { return registrations(handles[2]) == 0; })) << "collected";
    EXPECT_FALSE(is_signalled(handles[2]));
    EXPECT_FALSE(waiter.done());
    signal(handles[0]);
    waiter.join();
    EXPECT_FALSE(is_signalled(handles[0]));
    EXPECT_TRUE(is_signalled(handles[1]));
    expect_built({1});
}

TEST_P(MultiWait, AllThatAreSignalledAtEntryAreTaken) {
    auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
    for (BOOLEAN all : {BOOLEAN{1}, BOOLEAN{2}, BOOLEAN{255}}) {
        for (HANDLE handle : handles)
            signal(handle);
        EXPECT_EQ(wait_several(handles, all, -1), KC_OK);
        EXPECT_FALSE(is_signalled(handles[0]));
        expect_built({1});
    }
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u) << "nothing to register";
}

TEST_P(MultiWait, EachWakeUpStartsTheTimeOutAnew) {
    const auto handles =
        make_all({KxSynchronizationEvent, KxSynchronizationEvent, KxSynchronizationEvent});
    fixed_now = {1000, 0};
    Interpose clock("osal.so", "clock_gettime", &fixed_clock);
    std::vector<time_t> deadlines;
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec* deadline) {
        const std::size_t sleep = deadlines.size();
        deadlines.push_back(deadline->tv_sec);
        fixed_now.tv_sec += 7;
        unlocked(mutex, [&] { signal(handles[sleep]); });
        return 0;
    });
    EXPECT_EQ(wait_all(handles, 10'000'000), KC_OK);
    EXPECT_EQ(deadlines, (std::vector<time_t>{1010, 1017, 1024}));
    expect_built({1});
}

TEST_P(MultiWait, AfterASleepTheLowestWinsAndAllThatAreSignalledAreConsumed) {
    const auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent,
                                   KxNotificationEvent, KxSynchronizationEvent});
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        unlocked(mutex, [&] {
            for (int index : {3, 2, 1})
                signal(handles[index]);
        });
        return 0;
    });
    EXPECT_EQ(wait_any(handles, -1), 1u);
    EXPECT_FALSE(is_signalled(handles[1]));
    EXPECT_TRUE(is_signalled(handles[2]));
    EXPECT_FALSE(is_signalled(handles[3])) << "consumed though it did not win";
    expect_built({1});
}

TEST_P(MultiWait, ASleepWithoutASignalReportsIndexZeroForAnyAndGoesOnForAll) {
    auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent});
    for (int result : {0, EINVAL}) {
        ConditionWaits waits([&](pthread_mutex_t*, const timespec*) { return result; });
        EXPECT_EQ(wait_any(handles, -1), 0u);
        EXPECT_EQ(waits.count(), 1);
        expect_built({1});
    }
    int sleeps = 0;
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        if (++sleeps == 3)
            unlocked(mutex, [&] {
                for (HANDLE handle : handles)
                    signal(handle);
            });
        return sleeps == 2 ? EINVAL : 0;
    });
    EXPECT_EQ(wait_all(handles, -1), KC_OK);
    EXPECT_EQ(waits.count(), 3);
    expect_built({1});
}

TEST_P(MultiWait, AnEventThatIsThereTwiceIsReportedAtItsFirstPlace) {
    HANDLE other = make(KxSynchronizationEvent);
    HANDLE twice = make(KxSynchronizationEvent);
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        unlocked(mutex, [&] {
            EXPECT_EQ(registrations(twice), 2u);
            signal(twice);
        });
        return 0;
    });
    EXPECT_EQ(wait_any({other, twice, twice}, -1), 1u);
    EXPECT_EQ(waits.count(), 1);
    signal(twice);
    EXPECT_EQ(wait_any({other, twice, twice}, -1), 1u);
}

TEST_P(MultiWait, AllWantsASignalForEachPlaceOfASynchronizationEvent) {
    HANDLE twice = make(KxSynchronizationEvent);
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        unlocked(mutex, [&] { signal(twice); });
        return 0;
    });
    EXPECT_EQ(wait_all({twice, twice}, -1), KC_OK);
    EXPECT_EQ(waits.count(), 2);
    signal(twice);
    EXPECT_EQ(wait_all({twice, twice}, -1), KC_OK);
    EXPECT_EQ(waits.count(), 3);
    HANDLE lasting = make(KxNotificationEvent, true);
    EXPECT_EQ(wait_all({lasting, lasting}, -1), KC_OK);
    EXPECT_EQ(waits.count(), 3);
}

TEST_P(MultiWait, TheIndexIsTheCountIfTheHandleIsGoneFromTheArray) {
    auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent});
    HANDLE winner = handles[1];
    ConditionWaits waits([&](pthread_mutex_t* mutex, const timespec*) {
        handles[1] = handles[0];
        unlocked(mutex, [&] { signal(winner); });
        return 0;
    });
    EXPECT_EQ(wait_several(handles, FALSE, -1), 2u);
    EXPECT_FALSE(is_signalled(winner));
}

std::function<void()> on_second_request;
int heap_requests;
void* watched_malloc(std::size_t size) {
    if (Interpose::made_here() && ++heap_requests == 2) on_second_request();
    return malloc(size);
}

TEST_P(MultiWait, ASignalBetweenRegistrationAndSleepIsNotLost) {
    const auto handles = make_all({KxSynchronizationEvent, KxSynchronizationEvent});
    heap_requests = 0;
    on_second_request = [&] {
        EXPECT_EQ(registrations(handles[0]), 1u);
        signal(handles[0]);
    };
    Interpose heap("osal.so", "malloc", &watched_malloc);
    ConditionWaits waits([](pthread_mutex_t*, const timespec*) { return 0; });
    EXPECT_EQ(wait_any(handles, -1), 0u);
    EXPECT_EQ(heap_requests, 2);
    EXPECT_EQ(waits.count(), 0) << "no sleep";
    EXPECT_FALSE(is_signalled(handles[0]));
}

TEST_P(MultiWait, SeveralWaitersShareANotificationEvent) {
    HANDLE lasting = make(KxNotificationEvent);
    HANDLE other = make(KxSynchronizationEvent);
    {
        std::deque<RawThread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] { EXPECT_EQ(wait_any({other, lasting}, -1), 1u); });
        waiters.emplace_back([&] { EXPECT_EQ(wait(lasting, -1), KC_OK); });
        EXPECT_TRUE(eventually([&] { return registrations(lasting) == 3; }));
        signal(lasting);
    }
    EXPECT_TRUE(is_signalled(lasting));
}

// Gives back what a cancelled wait left on an event. True if nobody would be woken.
bool clear_registrations(PIOsal osal, HANDLE handle) NO_THREAD_SAFETY_ANALYSIS {
    LIST_ENTRY* head = &event_behind(handle)->multiWaitList;
    bool silent = true;
    while (!OsalIsListEmpty(head)) {
        auto* registration = osal::record_of<osal::Registration>(
            OsalRemoveHeadList(head), offsetof(osal::Registration, SingleEntry));
        silent =
            silent && registration->pMasterEvent == nullptr && registration->pSingleEvent == handle;
        EXPECT_EQ(KxFreeMemory(osal, registration), KC_OK);
    }
    return silent;
}

TEST_P(MultiWait, ACancelledWaiterLeavesRegistrationsThatWakeNobody) {
    for (INT64 timeout : {INT64{-1}, kLong})
        for (BOOLEAN all : {FALSE, TRUE}) {
            auto handles = make_all({KxSynchronizationEvent, KxNotificationEvent});
            RawThread waiter([&] {
                pthread_setcanceltype(all ? PTHREAD_CANCEL_DEFERRED : PTHREAD_CANCEL_ASYNCHRONOUS,
                                      nullptr);
                wait_several(handles, all, timeout);
            });
            EXPECT_TRUE(eventually([&] { return registrations(handles[1]) == 1; }));
            waiter.cancel();
            EXPECT_TRUE(waiter.join());
            EXPECT_EQ(record->MemoryPagedInUse, 2 * sizeof(osal::Registration)) << "charged";
            for (HANDLE handle : handles) {
                EXPECT_TRUE(mutex_is_free(handle));
                EXPECT_EQ(registrations(handle), 1u);
                signal(handle);
            }
            EXPECT_EQ(wait_all(handles, -1), KC_OK);
            for (HANDLE handle : handles)
                EXPECT_TRUE(clear_registrations(osal, handle));
        }
}

}  // namespace
}  // namespace osal_test
