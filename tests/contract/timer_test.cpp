// Timers, by export and by slot: tick by tick, with the timer thread stopped.
#include "osal/timer.h"

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "osal/internal/atomics.h"
#include "osal/linux/internal/schedule.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/schedule.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

constexpr UINT64 kTick = 10'000;
constexpr UINT32 kArmed = 0x414C4143;
constexpr UINT32 kFired = 0x464C4143;
constexpr UINT32 kCancelled = 0x434C4143;

class Timer : public BothWays {
  protected:
    HANDLE new_timer(PKX_TIMER_ROUTINE routine, void* context) {
        HANDLE timer = nullptr;
        EXPECT_EQ(CALL(KxAllocTimer)(osal, routine, context, FALSE, &timer), KC_OK);
        timers.insert(timer);
        return timer;
    }
    void TearDown() override {
        for (HANDLE timer : timers) {
            KxCancelTimer(osal, timer);
            EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
        }
    }
    // A timer that notes its number when it fires.
    HANDLE noting(int number) {
        numbers.push_back(std::make_unique<Note>(Note{this, number}));
        return new_timer(
            [](HANDLE, void* context) -> void* {
                auto* note = static_cast<Note*>(context);
                note->test->fired.push_back(note->number);
                return nullptr;
            },
            numbers.back().get());
    }
    KCSTATUS arm(HANDLE timer, UINT64 timeout_us) {
        return CALL(KxScheduleTimer)(osal, timer, timeout_us);
    }
    BOOLEAN cancel(HANDLE timer) { return CALL(KxCancelTimer)(osal, timer); }
    KCSTATUS destroy(HANDLE timer) {
        const KCSTATUS status = CALL(KxDestroyTimer)(osal, timer);
        if (status == KC_OK) timers.erase(timer);
        return status;
    }

    // What fires in the next tick.
    std::vector<int> tick() {
        fired.clear();
        OsalServiceTimerQueues();
        return fired;
    }

    struct Note {
        Timer* test;
        int number;
    };
    StoppedTimerThread stopped;
    std::set<HANDLE> timers;  // not destroyed yet
    std::vector<int> fired;
    std::vector<std::unique_ptr<Note>> numbers;
};
OSAL_BOTH_WAYS(Timer);

using Numbers = std::vector<int>;

PKX_TIMER_HANDLE record_of_timer(HANDLE timer) {
    return static_cast<PKX_TIMER_HANDLE>(timer);
}

void* ignore(HANDLE, void*) {
    return nullptr;
}

std::vector<UINT32> deltas() {
    std::vector<UINT32> found;
    for (PKX_TIMER_HANDLE timer = first_timer(); timer != nullptr; timer = timer->pNextTimerStruct)
        found.push_back(timer->delta);
    return found;
}

TEST_P(Timer, AnAllocationFillsTheRecordAndCountsIt) {
    int context = 0;
    HANDLE timer = new_timer(ignore, &context);
    const PKX_TIMER_HANDLE fields = record_of_timer(timer);
    EXPECT_EQ(fields->Signature, 0x524D4954u);
    EXPECT_EQ(fields->pCallerTimerRoutine, ignore);
    EXPECT_EQ(fields->pCallerContext, &context);
    EXPECT_EQ(fields->pNextTimerStruct, nullptr);
    EXPECT_EQ(fields->pPrevTimerStruct, nullptr);
    EXPECT_EQ(fields->timeOutValue, 0u);
    EXPECT_EQ(fields->delta, 0u);
    EXPECT_EQ(fields->timerState, 0u);
    EXPECT_EQ(record->TimerInUse, 1u);
    EXPECT_EQ(g_OsalCurrentTimers, 0u);
    EXPECT_EQ(destroy(timer), KC_OK);
    EXPECT_EQ(record->TimerInUse, 0u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

TEST_P(Timer, TheDispatchLevelIsIgnored) {
    HANDLE timer = nullptr;
    EXPECT_EQ(CALL(KxAllocTimer)(osal, ignore, nullptr, TRUE, &timer), KC_OK);
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, AnAllocationWithABadInstanceIsAnInvalidArgument) {
    UINT32 garbage[64] = {};
    for (PIOsal bad : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(garbage)}) {
        HANDLE timer = &garbage;
        StatusRecorder statuses;
        EXPECT_EQ(CALL(KxAllocTimer)(bad, ignore, nullptr, FALSE, &timer), error(4));
        EXPECT_EQ(timer, &garbage);
        statuses.expect_one(4, "schedule", "KxAllocTimer");
    }
}

TEST_P(Timer, AnAllocationWithoutRoutineOrOutPointerIsAnInvalidArgument) {
    HANDLE timer = &timer;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAllocTimer)(osal, nullptr, nullptr, FALSE, &timer), error(4));
    EXPECT_EQ(timer, &timer);
    statuses.expect_one(4, "schedule", "KxAllocTimer");
    EXPECT_EQ(CALL(KxAllocTimer)(osal, ignore, nullptr, FALSE, nullptr), error(4));
    statuses.expect_one(4, "schedule", "KxAllocTimer");
    EXPECT_EQ(record->TimerInUse, 0u);
}

TEST_P(Timer, AnAllocationWithoutMemoryClearsTheOutPointer) {
    HANDLE timer = &timer;
    StatusRecorder statuses;
    HeapFault fault(1);
    EXPECT_EQ(CALL(KxAllocTimer)(osal, ignore, nullptr, FALSE, &timer), error(5));
    EXPECT_EQ(timer, nullptr);
    statuses.expect_one(5, "schedule", "KxAllocTimer");
    EXPECT_EQ(record->TimerInUse, 0u);
}

TEST_P(Timer, ATimeoutIsCountedInWholeTicksAndAtLeastOne) {
    const struct {
        UINT64 timeout;
        UINT32 ticks;
    } cases[] = {{0, 1},
                 {1, 1},
                 {9'999, 1},
                 {10'000, 1},
                 {19'999, 1},
                 {20'000, 2},
                 {25'000, 2},
                 {UINT64_C(7'200'000'000), 720'000},
                 {UINT64_C(42'949'672'950'000), 0xFFFFFFFF},
                 {UINT64_C(42'949'672'960'000), 1},  // 2^32 ticks are cut to none
                 {UINT64_C(42'949'672'980'000), 2}};
    for (const auto& [timeout, ticks] : cases) {
        HANDLE timer = new_timer(ignore, nullptr);
        EXPECT_EQ(arm(timer, timeout), KC_OK);
        EXPECT_EQ(record_of_timer(timer)->timeOutValue, ticks) << timeout;
        EXPECT_TRUE(cancel(timer));
        EXPECT_EQ(destroy(timer), KC_OK);
    }
}

TEST_P(Timer, LessThanATickFiresAtTheNextTick) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, 0), KC_OK);
    EXPECT_EQ(tick(), Numbers{1});
    EXPECT_EQ(tick(), Numbers{});
}

TEST_P(Timer, TwoAndAHalfTicksFireAtTheSecondTick) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, 25'000), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(tick(), Numbers{1});
}

TEST_P(Timer, AnArmedTimerIsTheFeedersHead) {
    HANDLE first = noting(1);
    HANDLE second = noting(2);
    EXPECT_EQ(arm(first, kTick), KC_OK);
    EXPECT_EQ(arm(second, kTick), KC_OK);
    EXPECT_EQ(record_of_timer(first)->timerState, kArmed);
    EXPECT_EQ(first_fed_timer(), second);
    EXPECT_EQ(record_of_timer(second)->pPrevTimerStruct, nullptr);
    EXPECT_EQ(record_of_timer(second)->pNextTimerStruct, first);
    EXPECT_EQ(record_of_timer(first)->pPrevTimerStruct, second);
    EXPECT_EQ(record_of_timer(first)->pNextTimerStruct, nullptr);
    EXPECT_EQ(first_timer(), nullptr);
    EXPECT_EQ(g_OsalCurrentTimers, 2u);
}

TEST_P(Timer, TimersOfOneTickArmedInDifferentTicksFireInTheOrderArmed) {
    HANDLE first = noting(1);
    HANDLE second = noting(2);
    EXPECT_EQ(arm(first, 3 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(arm(second, 2 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(tick(), (Numbers{1, 2}));
}

TEST_P(Timer, EqualTimeoutsArmedInDifferentTicksFireInTheOrderArmed) {
    HANDLE first = noting(1);
    HANDLE second = noting(2);
    EXPECT_EQ(arm(first, 2 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(arm(second, 2 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{1});
    EXPECT_EQ(tick(), Numbers{2});
}

TEST_P(Timer, EqualTimeoutsArmedInOneTickFireLatestFirst) {
    HANDLE timers[] = {noting(1), noting(2), noting(3)};
    for (HANDLE timer : timers)
        EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), (Numbers{3, 2, 1}));
}

TEST_P(Timer, TheQueueHoldsTheDifferencesBetweenItsTimers) {
    HANDLE a = noting(1), b = noting(2), c = noting(3), d = noting(4);
    EXPECT_EQ(arm(a, 10 * kTick), KC_OK);
    EXPECT_EQ(arm(b, 4 * kTick), KC_OK);
    EXPECT_EQ(arm(c, 10 * kTick), KC_OK);
    EXPECT_EQ(arm(d, 7 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});  // b d c a, one tick later
    EXPECT_EQ(deltas(), (std::vector<UINT32>{3, 3, 3, 0}));
    EXPECT_EQ(first_timer(), b);
    EXPECT_EQ(record_of_timer(b)->pNextTimerStruct, d);
    EXPECT_EQ(record_of_timer(d)->pNextTimerStruct, c);
    EXPECT_EQ(record_of_timer(c)->pNextTimerStruct, a);
    EXPECT_EQ(record_of_timer(a)->pPrevTimerStruct, c);
    EXPECT_EQ(record_of_timer(b)->pPrevTimerStruct, nullptr);
    EXPECT_TRUE(cancel(d));
    EXPECT_EQ(deltas(), (std::vector<UINT32>{3, 6, 0}));
    EXPECT_TRUE(cancel(b));
    EXPECT_EQ(deltas(), (std::vector<UINT32>{9, 0}));
    EXPECT_EQ(record_of_timer(c)->pPrevTimerStruct, nullptr);
    EXPECT_EQ(g_OsalCurrentTimers, 2u);
    EXPECT_TRUE(cancel(c));
    EXPECT_EQ(deltas(), (std::vector<UINT32>{9}));
    EXPECT_TRUE(cancel(a));
    EXPECT_EQ(deltas(), (std::vector<UINT32>{}));
    EXPECT_EQ(g_OsalCurrentTimers, 0u);
}

TEST_P(Timer, TheLongestTimeoutsKeepTheirPlace) {
    HANDLE longest = noting(1), shorter = noting(2), next = noting(3);
    EXPECT_EQ(arm(longest, UINT64_C(0xFFFFFFFF) * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(arm(shorter, UINT64_C(0xFFFFFFFE) * kTick), KC_OK);
    EXPECT_EQ(arm(next, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{3});
    EXPECT_EQ(first_timer(), longest);
    EXPECT_EQ(deltas(), (std::vector<UINT32>{0xFFFFFFFD, 0}));
}

TEST_P(Timer, ARemovedFedTimerLeavesItsDeltaToTheNextOne) {
    HANDLE older = noting(1), newer = noting(2);
    EXPECT_EQ(arm(older, kTick), KC_OK);
    EXPECT_EQ(arm(newer, kTick), KC_OK);
    record_of_timer(newer)->delta = 5;  // as a former life may have left it
    EXPECT_TRUE(cancel(newer));
    EXPECT_EQ(first_fed_timer(), older);
    EXPECT_EQ(record_of_timer(older)->delta, 5u);
    EXPECT_EQ(record_of_timer(older)->pPrevTimerStruct, nullptr);
    EXPECT_EQ(g_OsalCurrentTimers, 1u);
    EXPECT_EQ(tick(), Numbers{1});
}

TEST_P(Timer, AFedTimerInTheMiddleCanBeCancelled) {
    HANDLE timers[] = {noting(1), noting(2), noting(3)};
    for (HANDLE timer : timers)
        EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_TRUE(cancel(timers[1]));
    EXPECT_EQ(tick(), (Numbers{3, 1}));
}

TEST_P(Timer, ArmingAnArmedTimerIsRefusedAndChangesNothing) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, 2 * kTick), KC_OK);
    {
        StatusRecorder statuses;
        LogRecorder log;
        EXPECT_EQ(arm(timer, 5 * kTick), error(4099));
        statuses.expect_one(4099, "schedule", "KxScheduleTimer");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "KxScheduleTimer: Timer pending");
    }
    EXPECT_EQ(record_of_timer(timer)->timeOutValue, 2u);
    EXPECT_EQ(g_OsalCurrentTimers, 1u);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(tick(), Numbers{1});
}

TEST_P(Timer, ArmingWithoutAnInstanceOrTimerIsAnInvalidHandle) {
    UINT32 garbage[64] = {};
    HANDLE timer = noting(1);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxScheduleTimer)(nullptr, timer, kTick), error(3));
    statuses.expect_one(3, "schedule", "KxScheduleTimer");
    for (HANDLE bad : {HANDLE{nullptr}, HANDLE{garbage}}) {
        EXPECT_EQ(arm(bad, kTick), error(3));
        statuses.expect_one(3, "schedule", "KxScheduleTimer");
    }
    EXPECT_EQ(record_of_timer(timer)->timerState, 0u);
    EXPECT_EQ(g_OsalCurrentTimers, 0u);
}

TEST_P(Timer, ArmingDoesNotCheckTheInstance) {
    UINT32 garbage[64] = {};
    HANDLE timer = noting(1);
    EXPECT_EQ(CALL(KxScheduleTimer)(reinterpret_cast<PIOsal>(garbage), timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{1});
}

TEST_P(Timer, CancellingAFiredTimerAnswersFalse) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{1});
    EXPECT_EQ(record_of_timer(timer)->timerState, kFired);
    EXPECT_EQ(cancel(timer), FALSE);
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, CancellingAnArmedTimerAnswersTrueAndItCanBeDestroyed) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(cancel(timer), TRUE);
    EXPECT_EQ(record_of_timer(timer)->timerState, kCancelled);
    EXPECT_EQ(g_OsalCurrentTimers, 0u);
    EXPECT_EQ(cancel(timer), FALSE);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, CancellingANeverArmedTimerAnswersFalse) {
    HANDLE timer = noting(1);
    EXPECT_EQ(cancel(timer), FALSE);
    EXPECT_EQ(record_of_timer(timer)->timerState, 0u);
}

TEST_P(Timer, CancellingWithABadInstanceOrHandleAnswersFalseInSilence) {
    UINT32 garbage[64] = {};
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxCancelTimer)(nullptr, timer), FALSE);
    EXPECT_EQ(CALL(KxCancelTimer)(reinterpret_cast<PIOsal>(garbage), timer), FALSE);
    EXPECT_EQ(cancel(nullptr), FALSE);
    EXPECT_EQ(cancel(garbage), FALSE);
    statuses.expect_none();
    EXPECT_EQ(record_of_timer(timer)->timerState, kArmed);
}

TEST_P(Timer, ACancelledTimerCanBeArmedAgain) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_TRUE(cancel(timer));
    EXPECT_EQ(arm(timer, 2 * kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(tick(), Numbers{1});
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{1});
}

TEST_P(Timer, DestroyingAnArmedTimerIsRefused) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    {
        StatusRecorder statuses;
        LogRecorder log;
        EXPECT_EQ(destroy(timer), error(4099));
        statuses.expect_one(4099, "schedule", "KxDestroyTimer");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "KxDestroyTimer: Timer in use");
    }
    EXPECT_EQ(record->TimerInUse, 1u);
    EXPECT_EQ(tick(), Numbers{1});
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, DestroyingWithABadInstanceOrHandleIsAnInvalidHandle) {
    UINT32 garbage[64] = {};
    HANDLE timer = noting(1);
    StatusRecorder statuses;
    for (PIOsal bad : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(garbage)}) {
        EXPECT_EQ(CALL(KxDestroyTimer)(bad, timer), error(3));
        statuses.expect_one(3, "schedule", "KxDestroyTimer");
    }
    for (HANDLE bad : {HANDLE{nullptr}, HANDLE{garbage}}) {
        EXPECT_EQ(destroy(bad), error(3));
        statuses.expect_one(3, "schedule", "KxDestroyTimer");
    }
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, ADestroyedTimerIsWiped) {
    Quarantine kept;
    HANDLE timer = noting(1);
    EXPECT_EQ(destroy(timer), KC_OK);
    const std::string zeroes(sizeof(KX_TIMER_HANDLE), '\0');
    EXPECT_EQ(memcmp(timer, zeroes.data(), zeroes.size()), 0);
    EXPECT_EQ(destroy(timer), error(3));
    EXPECT_EQ(arm(timer, kTick), error(3));
    EXPECT_EQ(cancel(timer), FALSE);
}

struct Inside {
    PIOsal osal;
    const IOsalVtbl* slots;
    int runs = 0;
    HANDLE other = nullptr;
    PKX_TIMER_HANDLE executing = nullptr;
    UINT32 state = 0;
};

TEST_P(Timer, WhileARoutineRunsItsTimerIsTheExecutingOne) {
    Inside inside{osal, slots};
    HANDLE timer = new_timer(
        [](HANDLE self, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            inside->executing = g_OsalCurrentlyExecutingTimerPtr;
            inside->state = record_of_timer(self)->timerState;
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    OsalServiceTimerQueues();
    EXPECT_EQ(inside.executing, timer);
    EXPECT_EQ(inside.state, kFired);
    EXPECT_EQ(g_OsalCurrentlyExecutingTimerPtr, nullptr);
}

TEST_P(Timer, ARoutineMayRearmItsOwnTimerButNotCancelIt) {
    Inside inside{osal, slots};
    HANDLE timer = new_timer(
        [](HANDLE self, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            if (++inside->runs > 2) return nullptr;
            EXPECT_EQ(inside->slots->KxScheduleTimer(inside->osal, self, 2 * kTick), KC_OK);
            EXPECT_EQ(inside->slots->KxCancelTimer(inside->osal, self), FALSE);
            EXPECT_EQ(record_of_timer(self)->timerState, kArmed);
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    const Numbers runs_after_tick = {1, 1, 2, 2, 3, 3};
    for (int runs : runs_after_tick) {
        OsalServiceTimerQueues();
        EXPECT_EQ(inside.runs, runs);
    }
    EXPECT_EQ(destroy(timer), KC_OK);
}

TEST_P(Timer, ARoutineMayDestroyItsOwnTimer) {
    Inside inside{osal, slots};
    HANDLE timer = new_timer(
        [](HANDLE self, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            EXPECT_EQ(inside->slots->KxDestroyTimer(inside->osal, self), KC_OK);
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    timers.erase(timer);
    OsalServiceTimerQueues();
    EXPECT_EQ(record->TimerInUse, 0u);
    EXPECT_EQ(g_OsalCurrentlyExecutingTimerPtr, nullptr);
}

// It may get the address of the one that is gone.
TEST_P(Timer, ATimerMadeInARoutineThatDestroyedItsOwnCanBeCancelled) {
    Inside inside{osal, slots};
    HANDLE timer = new_timer(
        [](HANDLE self, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            const IOsalVtbl* slots = inside->slots;
            HANDLE heir = nullptr;
            EXPECT_EQ(slots->KxDestroyTimer(inside->osal, self), KC_OK);
            EXPECT_EQ(slots->KxAllocTimer(inside->osal, ignore, nullptr, FALSE, &heir), KC_OK);
            EXPECT_EQ(slots->KxScheduleTimer(inside->osal, heir, kTick), KC_OK);
            EXPECT_EQ(slots->KxCancelTimer(inside->osal, heir), TRUE);
            EXPECT_EQ(slots->KxDestroyTimer(inside->osal, heir), KC_OK);
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    timers.erase(timer);
    OsalServiceTimerQueues();
}

TEST_P(Timer, ARoutineMayCancelAnotherTimerOfTheSameTick) {
    Inside inside{osal, slots};
    inside.other = noting(7);
    HANDLE last = noting(8);
    HANDLE timer = new_timer(
        [](HANDLE, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            EXPECT_EQ(inside->slots->KxCancelTimer(inside->osal, inside->other), TRUE);
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(last, kTick), KC_OK);
    EXPECT_EQ(arm(inside.other, kTick), KC_OK);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{8});
}

TEST_P(Timer, ATimerArmedInARoutineWaitsForTheNextTick) {
    Inside inside{osal, slots};
    inside.other = noting(7);
    HANDLE timer = new_timer(
        [](HANDLE, void* context) -> void* {
            auto* inside = static_cast<Inside*>(context);
            EXPECT_EQ(inside->slots->KxScheduleTimer(inside->osal, inside->other, 0), KC_OK);
            return nullptr;
        },
        &inside);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(tick(), Numbers{7});
}

TEST_P(Timer, ATimerWithoutARoutineFiresInSilence) {
    HANDLE timer = noting(1);
    record_of_timer(timer)->pCallerTimerRoutine = nullptr;
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(record_of_timer(timer)->timerState, kFired);
    EXPECT_EQ(g_OsalCurrentlyExecutingTimerPtr, nullptr);
}

TEST_P(Timer, WithNothingArmedATickDoesNotTouchTheQueues) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    g_OsalCurrentTimers = 0;
    EXPECT_EQ(tick(), Numbers{});
    EXPECT_EQ(first_fed_timer(), timer);
    g_OsalCurrentTimers = 1;
    EXPECT_EQ(tick(), Numbers{1});
}

// A tick inside a routine finds the rest of the outer tick due, and so does not pass time.
TEST_P(Timer, ATickWithinATickFirstFiresWhatIsDue) {
    HANDLE later = noting(9);
    HANDLE due = noting(8);
    HANDLE timer = new_timer(
        [](HANDLE, void*) -> void* {
            OsalServiceTimerQueues();
            return nullptr;
        },
        nullptr);
    EXPECT_EQ(arm(later, 2 * kTick), KC_OK);
    EXPECT_EQ(arm(due, kTick), KC_OK);
    EXPECT_EQ(arm(timer, kTick), KC_OK);
    EXPECT_EQ(tick(), Numbers{8});
    EXPECT_EQ(deltas(), (std::vector<UINT32>{1}));
    EXPECT_EQ(tick(), Numbers{9});
}

TEST_P(Timer, ShutdownNeitherFiresNorFreesArmedTimers) {
    HANDLE timer = noting(1);
    EXPECT_EQ(arm(timer, 0), KC_OK);
    OsalUninitialize();
    EXPECT_EQ(fired, Numbers{});
    EXPECT_EQ(record_of_timer(timer)->timerState, kArmed);
    EXPECT_EQ(record->TimerInUse, 1u);
    EXPECT_TRUE(cancel(timer));
    EXPECT_EQ(destroy(timer), KC_OK);
}

}  // namespace
}  // namespace osal_test
