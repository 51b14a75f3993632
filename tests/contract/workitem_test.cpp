// Work items and KxSleep, by export and by slot.
#include "osal/workitem.h"

#include <time.h>

#include <atomic>
#include <cstring>
#include <functional>
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

class WorkItem : public BothWays {
  protected:
    HANDLE new_item(PKX_WORK_ITEM_ROUTINE routine, void* context) {
        HANDLE item = nullptr;
        EXPECT_EQ(CALL(KxAllocWorkItem)(osal, routine, context, &item), KC_OK);
        items.insert(item);
        return item;
    }
    // Items may still be queued, but no longer for a worker.
    void TearDown() override {
        OsalUninitialize();
        for (HANDLE item : items) {
            static_cast<PKX_WORK_ITEM_HANDLE>(item)->pending = FALSE;
            EXPECT_EQ(KxDestroyWorkItem(osal, item), KC_OK);
        }
    }
    KCSTATUS schedule(HANDLE item) {
        return CALL(KxScheduleWorkItem)(osal, item, KX_PRIORITY_NORMAL);
    }
    KCSTATUS destroy(HANDLE item) {
        const UINT32 before = osal::load(record->WorkItemInUse);
        const KCSTATUS status = CALL(KxDestroyWorkItem)(osal, item);
        if (osal::load(record->WorkItemInUse) < before) items.erase(item);
        return status;
    }

    std::set<HANDLE> items;  // not destroyed yet
};
OSAL_BOTH_WAYS(WorkItem);

PKX_WORK_ITEM_HANDLE record_of_item(HANDLE item) {
    return static_cast<PKX_WORK_ITEM_HANDLE>(item);
}

void* count_run(HANDLE, void* context) {
    ++*static_cast<std::atomic<int>*>(context);
    return nullptr;
}

TEST_P(WorkItem, AnAllocationFillsTheRecordAndCountsIt) {
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(record_of_item(item)->Signature, 0x4B524F57u);
    EXPECT_EQ(record_of_item(item)->pCallerRoutine, count_run);
    EXPECT_EQ(record_of_item(item)->pCallerContext, &runs);
    EXPECT_EQ(record_of_item(item)->pending, FALSE);
    EXPECT_EQ(record->WorkItemInUse, 1u);
    EXPECT_EQ(destroy(item), KC_OK);
    EXPECT_EQ(record->WorkItemInUse, 0u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
    EXPECT_EQ(runs, 0);
}

TEST_P(WorkItem, AnAllocationWithABadInstanceIsAnInvalidArgument) {
    UINT32 garbage[64] = {};
    const HANDLE before = &garbage;
    for (PIOsal bad : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(garbage)}) {
        HANDLE item = before;
        StatusRecorder statuses;
        EXPECT_EQ(CALL(KxAllocWorkItem)(bad, count_run, nullptr, &item), error(4));
        EXPECT_EQ(item, before);
        statuses.expect_one(4, "schedule", "KxAllocWorkItem");
    }
}

TEST_P(WorkItem, AnAllocationWithoutARoutineIsAnInvalidArgument) {
    HANDLE item = &item;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAllocWorkItem)(osal, nullptr, nullptr, &item), error(4));
    EXPECT_EQ(item, &item);
    statuses.expect_one(4, "schedule", "KxAllocWorkItem");
    EXPECT_EQ(record->WorkItemInUse, 0u);
}

TEST_P(WorkItem, AnAllocationWithoutAnOutPointerIsAnInvalidArgument) {
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAllocWorkItem)(osal, count_run, nullptr, nullptr), error(4));
    statuses.expect_one(4, "schedule", "KxAllocWorkItem");
    EXPECT_EQ(record->WorkItemInUse, 0u);
}

TEST_P(WorkItem, AnAllocationWithoutMemoryClearsTheOutPointer) {
    HANDLE item = &item;
    StatusRecorder statuses;
    HeapFault fault(1);
    EXPECT_EQ(CALL(KxAllocWorkItem)(osal, count_run, nullptr, &item), error(5));
    EXPECT_EQ(item, nullptr);
    statuses.expect_one(5, "schedule", "KxAllocWorkItem");
    EXPECT_EQ(record->WorkItemInUse, 0u);
}

TEST_P(WorkItem, AQueuedItemRunsOnceWithItsHandleAndContext) {
    struct Seen {
        HANDLE item = nullptr;
        std::atomic<int> runs = 0;
    } seen;
    HANDLE item = new_item(
        [](HANDLE self, void* context) -> void* {
            static_cast<Seen*>(context)->item = self;
            ++static_cast<Seen*>(context)->runs;
            return nullptr;
        },
        &seen);
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_TRUE(eventually([&] { return seen.runs == 1; }));
    EXPECT_EQ(seen.item, item);
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, SchedulingANullInstanceIsAnInvalidHandle) {
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxScheduleWorkItem)(nullptr, item, 0), error(3));
    statuses.expect_one(3, "schedule", "KxScheduleWorkItem");
    EXPECT_EQ(record_of_item(item)->pending, FALSE);
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, SchedulingDoesNotCheckTheInstance) {
    std::atomic<int> runs = 0;
    UINT32 garbage[64] = {};
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(CALL(KxScheduleWorkItem)(reinterpret_cast<PIOsal>(garbage), item, 0), KC_OK);
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, SchedulingWhatIsNoItemIsAnInvalidHandle) {
    UINT32 garbage[64] = {};
    for (HANDLE bad : {HANDLE{nullptr}, HANDLE{garbage}}) {
        StatusRecorder statuses;
        EXPECT_EQ(schedule(bad), error(3));
        statuses.expect_one(3, "schedule", "KxScheduleWorkItem");
    }
}

TEST_P(WorkItem, APriorityAboveTwoIsAnInvalidArgument) {
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxScheduleWorkItem)(osal, item, 3), error(4));
    statuses.expect_one(4, "schedule", "KxScheduleWorkItem");
    EXPECT_EQ(record_of_item(item)->pending, FALSE);
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, TheHandleIsCheckedBeforeThePriorityAndThatBeforeTheQueue) {
    BusyWorkers busy(osal);
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxScheduleWorkItem)(osal, nullptr, 3), error(3));
    statuses.expect_one(3, "schedule", "KxScheduleWorkItem");
    EXPECT_EQ(CALL(KxScheduleWorkItem)(osal, item, 3), error(4));
    statuses.expect_one(4, "schedule", "KxScheduleWorkItem");
    EXPECT_EQ(osal::load(g_OsalCurrentWorkItems), 1);
    EXPECT_EQ(record_of_item(item)->pending, TRUE);
}

TEST_P(WorkItem, EveryPriorityIsAcceptedAndRuns) {
    for (KX_PRIORITY priority : {KX_PRIORITY_IDLE, KX_PRIORITY_NORMAL, KX_PRIORITY_REALTIME}) {
        std::atomic<int> runs = 0;
        HANDLE item = new_item(count_run, &runs);
        EXPECT_EQ(CALL(KxScheduleWorkItem)(osal, item, priority), KC_OK);
        EXPECT_TRUE(eventually([&] { return runs == 1; }));
        EXPECT_EQ(destroy(item), KC_OK);
    }
}

TEST_P(WorkItem, QueueingAQueuedItemIsRefusedAndItRunsOnce) {
    BusyWorkers busy(osal);
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    {
        StatusRecorder statuses;
        EXPECT_EQ(schedule(item), error(4099));
        statuses.expect_one(4099, "schedule", "KxScheduleWorkItem");
    }
    EXPECT_EQ(osal::load(g_OsalCurrentWorkItems), 1);
    busy.release();
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_TRUE(eventually(workers_idle));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, DestroyingAQueuedItemReturnsSuccessButKeepsIt) {
    BusyWorkers busy(osal);
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    {
        StatusRecorder statuses;
        LogRecorder log;
        EXPECT_EQ(destroy(item), KC_OK);
        statuses.expect_one(4099, "schedule", "KxDestroyWorkItem");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "KxDestroyWorkItem: Work Item pending");
    }
    EXPECT_EQ(record_of_item(item)->Signature, 0x4B524F57u);
    EXPECT_EQ(record->WorkItemInUse, 1u + BusyWorkers::kItems);
    busy.release();
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, DestroyingWithABadInstanceOrHandleIsAnInvalidHandle) {
    std::atomic<int> runs = 0;
    UINT32 garbage[64] = {};
    HANDLE item = new_item(count_run, &runs);
    const auto no_instance = reinterpret_cast<PIOsal>(garbage);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxDestroyWorkItem)(nullptr, item), error(3));
    statuses.expect_one(3, "schedule", "KxDestroyWorkItem");
    EXPECT_EQ(CALL(KxDestroyWorkItem)(no_instance, item), error(3));
    statuses.expect_one(3, "schedule", "KxDestroyWorkItem");
    EXPECT_EQ(destroy(nullptr), error(3));
    statuses.expect_one(3, "schedule", "KxDestroyWorkItem");
    EXPECT_EQ(destroy(garbage), error(3));
    statuses.expect_one(3, "schedule", "KxDestroyWorkItem");
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, ADestroyedItemIsWiped) {
    Quarantine kept;
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(destroy(item), KC_OK);
    const std::string zeroes(sizeof(KX_WORK_ITEM_HANDLE), '\0');
    EXPECT_EQ(memcmp(item, zeroes.data(), zeroes.size()), 0);
    EXPECT_EQ(destroy(item), error(3));
    EXPECT_EQ(schedule(item), error(3));
}

TEST_P(WorkItem, PendingIsSetWhileQueuedAndClearWhileRunning) {
    BusyWorkers busy(osal);
    std::atomic<int> seen = -1;
    HANDLE item = new_item(
        [](HANDLE self, void* context) -> void* {
            *static_cast<std::atomic<int>*>(context) = osal::load(record_of_item(self)->pending);
            return nullptr;
        },
        &seen);
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_EQ(osal::load(record_of_item(item)->pending), TRUE);
    busy.release();
    EXPECT_TRUE(eventually([&] { return seen == 0; }));
    busy.finish();
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, ATakenItemCarriesPoisonedLinks) {
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_EQ(record_of_item(item)->schedQueue.Flink, KX_LIST_POISON);
    EXPECT_EQ(record_of_item(item)->schedQueue.Blink, KX_LIST_POISON);
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, WithEightWorkersBusyItemsRunOldestFirstWhenOneFinishes) {
    BusyWorkers busy(osal);
    RunOrder order(osal);
    for (int i = 0; i < 5; ++i)
        order.schedule(i);
    EXPECT_EQ(osal::load(g_OsalCurrentWorkItems), 5);
    busy.release_one();
    EXPECT_TRUE(eventually([&] { return order.taken().size() == 5; }));
    EXPECT_EQ(order.taken(), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(osal::load(g_OsalCurrentWorkItems), 0);
}

TEST_P(WorkItem, ARoutineMayQueueItsOwnItemAgain) {
    struct Again {
        PIOsal osal;
        std::atomic<int> runs = 0;
    } again{osal, {}};
    HANDLE item = new_item(
        [](HANDLE self, void* context) -> void* {
            auto* again = static_cast<Again*>(context);
            if (++again->runs < 100) {
                EXPECT_EQ(KxScheduleWorkItem(again->osal, self, KX_PRIORITY_NORMAL), KC_OK);
            }
            return nullptr;
        },
        &again);
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_TRUE(eventually([&] { return again.runs == 100; }));
    EXPECT_TRUE(eventually([&] { return workers_idle(); }));
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, ARoutineMayDestroyItsOwnItem) {
    struct End {
        PIOsal osal;
        std::atomic<int> status = -1;
    } end{osal, -1};
    HANDLE item = new_item(
        [](HANDLE self, void* context) -> void* {
            auto* end = static_cast<End*>(context);
            end->status = static_cast<int>(KxDestroyWorkItem(end->osal, self));
            return nullptr;
        },
        &end);
    items.erase(item);
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_TRUE(eventually([&] { return end.status == 0; }));
    EXPECT_EQ(osal::load(record->WorkItemInUse), 0u);
}

TEST_P(WorkItem, AnItemWithoutARoutineStaysPendingForGood) {
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    record_of_item(item)->pCallerRoutine = nullptr;
    EXPECT_EQ(schedule(item), KC_OK);
    EXPECT_TRUE(eventually([&] { return osal::load(g_OsalCurrentWorkItems) == 0; }));
    EXPECT_TRUE(eventually([&] { return workers_idle(); }));
    EXPECT_EQ(osal::load(record_of_item(item)->pending), TRUE);
    EXPECT_EQ(schedule(item), error(4099));
    record_of_item(item)->pending = FALSE;
    EXPECT_EQ(destroy(item), KC_OK);
}

TEST_P(WorkItem, AScheduleCallWakesTheFirstInactiveSlotOnly) {
    StoppedWorkers stopped;
    for (int i = 0; i < osal::kWorkerSlots; ++i)
        g_OsalWorkItemThreads[i].inactive = i >= 2;
    g_OsalNumWorkItemThreads = osal::kWorkerSlots;
    std::atomic<int> runs = 0;
    HANDLE first = new_item(count_run, &runs);
    HANDLE second = new_item(count_run, &runs);
    const auto inactive = [] {
        std::vector<int> slots;
        for (int i = 0; i < osal::kWorkerSlots; ++i)
            if (g_OsalWorkItemThreads[i].inactive) slots.push_back(i);
        return slots;
    };
    EXPECT_EQ(schedule(first), KC_OK);
    EXPECT_EQ(inactive(), (std::vector<int>{3, 4, 5, 6, 7}));
    EXPECT_EQ(schedule(second), KC_OK);
    EXPECT_EQ(inactive(), (std::vector<int>{4, 5, 6, 7}));
    EXPECT_EQ(work_item_queue()->Flink, &record_of_item(first)->schedQueue);
    EXPECT_EQ(work_item_queue()->Blink, &record_of_item(second)->schedQueue);
    g_OsalNumWorkItemThreads = 0;
}

TEST_P(WorkItem, SlotsPastTheLiveWorkersAreNotWoken) {
    StoppedWorkers stopped;
    g_OsalNumWorkItemThreads = 3;
    g_OsalWorkItemThreads[3].inactive = TRUE;
    std::atomic<int> runs = 0;
    EXPECT_EQ(schedule(new_item(count_run, &runs)), KC_OK);
    EXPECT_EQ(g_OsalWorkItemThreads[3].inactive, TRUE);
    g_OsalNumWorkItemThreads = 0;
}

TEST_P(WorkItem, AfterShutdownQueuedItemsNeverRun) {
    BusyWorkers busy(osal);
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    UnInitWorkItemInfrastructure();
    busy.release();
    OsalUninitialize();
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(record_of_item(item)->pending, TRUE);
    EXPECT_EQ(work_item_queue()->Flink, &record_of_item(item)->schedQueue);
    EXPECT_EQ(g_OsalCurrentWorkItems, 1);
}

TEST_P(WorkItem, QueueingAfterShutdownIsAcceptedAndRunsNothing) {
    OsalUninitialize();
    std::atomic<int> runs = 0;
    EXPECT_EQ(schedule(new_item(count_run, &runs)), KC_OK);
    EXPECT_EQ(runs, 0);
}

TEST_P(WorkItem, ARestartedPoolRunsWhatWasLeftQueued) {
    UnInitWorkItemInfrastructure();
    EXPECT_TRUE(eventually([] { return osal::load(g_OsalNumWorkItemThreads) == 0; }));
    std::atomic<int> runs = 0;
    HANDLE item = new_item(count_run, &runs);
    EXPECT_EQ(schedule(item), KC_OK);
    StartWorkItemInfrastructure();
    EXPECT_TRUE(eventually([&] { return runs == 1; }));
    EXPECT_EQ(destroy(item), KC_OK);
}

// What nanosleep was asked for.
struct Slept {
    timespec request;
    const timespec* where;
    bool wants_remainder;
};
std::vector<Slept> slept;
int sleep_results[2];

int record_sleep(const timespec* request, timespec* remainder) {
    slept.push_back({*request, request, remainder != nullptr});
    if (remainder != nullptr) *remainder = {7, 8};
    return sleep_results[slept.size() - 1];
}

// KxSleep without the workers and without sleeping.
std::vector<Slept> sleeps_of(UINT64 interval, decltype(&KxSleep) sleep, int first_result) {
    slept.clear();
    sleep_results[0] = first_result;
    sleep_results[1] = -1;
    Interpose hook("osal.so", "nanosleep", record_sleep);
    sleep(nullptr, interval);
    return slept;
}

class Sleep : public BothWays {
    StoppedThreads stopped;
};
OSAL_BOTH_WAYS(Sleep);

TEST_P(Sleep, AnIntervalIsSplitIntoSecondsAndNanoseconds) {
    const auto calls = sleeps_of(1'500'000, CALL(KxSleep), 0);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].request.tv_sec, 1);
    EXPECT_EQ(calls[0].request.tv_nsec, 500'000'000);
    EXPECT_TRUE(calls[0].wants_remainder);
}

TEST_P(Sleep, AnInterruptedSleepSleepsTheRemainderOnce) {
    const auto calls = sleeps_of(10, CALL(KxSleep), -1);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].request.tv_nsec, 10'000);
    EXPECT_EQ(calls[1].request.tv_sec, 7);
    EXPECT_EQ(calls[1].request.tv_nsec, 8);
    EXPECT_FALSE(calls[1].wants_remainder);
}

TEST_P(Sleep, TheNanosecondsOfAHugeIntervalComeFromWrappingArithmetic) {
    const auto calls = sleeps_of(UINT64_MAX, CALL(KxSleep), 0);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].request.tv_sec, 18'446'744'073'709);
    EXPECT_EQ(calls[0].request.tv_nsec, 709'550'616);  // 2^64 - 1000, modulo 10^9
}

TEST_P(Sleep, AnIntervalOfZeroSleepsForNoTime) {
    const auto calls = sleeps_of(0, CALL(KxSleep), 0);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].request.tv_sec, 0);
    EXPECT_EQ(calls[0].request.tv_nsec, 0);
}

TEST_P(Sleep, ASleepLastsAtLeastItsInterval) {
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    CALL(KxSleep)(nullptr, 20'000);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1'000'000'000 + after.tv_nsec - before.tv_nsec,
              20'000'000);
}

}  // namespace
}  // namespace osal_test
