// Timers, work items and forks under load, each hand-off accounted for.
//
// OSAL_TEST_ITEMS: work items of the producers. OSAL_TEST_SECONDS: length of the timed tests.
#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "osal/internal/atomics.h"
#include "support/fork.h"
#include "support/schedule.h"
#include "support/service_test.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

std::chrono::milliseconds stress_time() {
    return milliseconds(1'000 * from_environment("OSAL_TEST_SECONDS", 1));
}

class ScheduleStress : public ServiceTest {};

void* count_run(HANDLE, void* context) {
    static_cast<std::atomic<int>*>(context)->fetch_add(1);
    return nullptr;
}

TEST_F(ScheduleStress, EachItemOfFourProducersRunsOnce) {
    const std::size_t count = from_environment("OSAL_TEST_ITEMS", kSanitized ? 100'000 : 1'000'000);
    std::vector<std::atomic<int>> runs(count);
    std::vector<HANDLE> items(count);
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_EQ(KxAllocWorkItem(osal, count_run, &runs[i], &items[i]), KC_OK);
    std::vector<std::thread> producers;
    for (std::size_t start = 0; start < 4; ++start)
        producers.emplace_back([&, start] {
            for (std::size_t i = start; i < count; i += 4)
                EXPECT_EQ(KxScheduleWorkItem(osal, items[i], KX_PRIORITY_NORMAL), KC_OK);
        });
    for (std::thread& producer : producers)
        producer.join();
    EXPECT_TRUE(eventually(workers_idle));
    EXPECT_EQ(osal::load(g_OsalCurrentWorkItems), 0);
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_EQ(runs[i], 1) << i;
        ASSERT_EQ(KxDestroyWorkItem(osal, items[i]), KC_OK);
    }
}

TEST_F(ScheduleStress, AllEightWorkersRunAtOnceAgainAndAgain) {
    for (int round = 0; round < 200; ++round)
        BusyWorkers busy(osal);  // returns once all eight are in their routines
    EXPECT_TRUE(eventually(workers_idle));
}

// Items queued by several threads and by their own routines at random: as many runs as calls that
// were accepted.
struct Churned {
    PIOsal osal;
    std::atomic<int> runs = 0, accepted = 0;
};

void schedule_churned(Churned* item, HANDLE handle) {
    if (osal::load(static_cast<PKX_WORK_ITEM_HANDLE>(handle)->pending)) return;
    // May be queued by another thread meanwhile; then it is refused, and logged.
    if (KxScheduleWorkItem(item->osal, handle, KX_PRIORITY_NORMAL) == KC_OK) ++item->accepted;
}

TEST_F(ScheduleStress, ItemsRunAsOftenAsTheyWereQueued) {
    constexpr int kItems = 64;
    std::array<Churned, kItems> items;
    std::array<HANDLE, kItems> handles;
    const auto routine = [](HANDLE self, void* context) -> void* {
        auto* item = static_cast<Churned*>(context);
        if (item->runs++ % 3 == 0) schedule_churned(item, self);
        return nullptr;
    };
    for (std::size_t i = 0; i < kItems; ++i) {
        items[i].osal = osal;
        ASSERT_EQ(KxAllocWorkItem(osal, routine, &items[i], &handles[i]), KC_OK);
    }
    const auto end = Clock::now() + stress_time();
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            std::mt19937 random(thread);
            while (Clock::now() < end) {
                const std::size_t i = random() % kItems;
                schedule_churned(&items[i], handles[i]);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(eventually(workers_idle));
    OsalUninitialize();
    for (std::size_t i = 0; i < kItems; ++i) {
        EXPECT_EQ(items[i].runs, items[i].accepted);
        EXPECT_EQ(KxDestroyWorkItem(osal, handles[i]), KC_OK);
    }
}

// Items that are made, queued and destroyed by their own routine, from many threads.
TEST_F(ScheduleStress, ItemsThatDestroyThemselvesLeaveNothingBehind) {
    static std::atomic<int> ended;
    constexpr int kThreads = 4, kItems = 5'000;
    const auto routine = [](HANDLE self, void* context) -> void* {
        EXPECT_EQ(KxDestroyWorkItem(static_cast<PIOsal>(context), self), KC_OK);
        ++ended;
        return nullptr;
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([&] {
            for (int i = 0; i < kItems; ++i) {
                HANDLE item = nullptr;
                EXPECT_EQ(KxAllocWorkItem(osal, routine, osal, &item), KC_OK);
                EXPECT_EQ(KxScheduleWorkItem(osal, item, KX_PRIORITY_IDLE), KC_OK);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(eventually([&] { return ended == kThreads * kItems; }));
    EXPECT_EQ(osal::load(record->WorkItemInUse), 0u);
}

// Timers that their routines and other threads arm and cancel at random, with the timer thread
// running: each arming ends in a firing or a cancellation.
struct Shared {
    PIOsal osal;
    std::atomic<long> armed = 0, fired = 0, cancelled = 0;

    void arm(HANDLE timer, UINT64 timeout_us) {
        if (osal::load(static_cast<PKX_TIMER_HANDLE>(timer)->timerState) == osal::kArmed) return;
        if (KxScheduleTimer(osal, timer, timeout_us) == KC_OK) ++armed;
    }
    void cancel(HANDLE timer) {
        if (KxCancelTimer(osal, timer)) ++cancelled;
    }
};

TEST_F(ScheduleStress, EachArmingEndsInAFiringOrACancellation) {
    constexpr std::size_t kTimers = 200;
    static Shared shared{osal};
    static std::array<HANDLE, kTimers> timers;
    const auto routine = [](HANDLE self, void*) -> void* {
        const long turn = ++shared.fired;
        if (turn % 2 == 0) shared.arm(self, 10'000);
        if (turn % 3 == 0) shared.cancel(timers[static_cast<std::size_t>(turn) % kTimers]);
        if (turn % 5 == 0) shared.arm(timers[static_cast<std::size_t>(turn) % kTimers], 20'000);
        return nullptr;
    };
    for (HANDLE& timer : timers)
        ASSERT_EQ(KxAllocTimer(osal, routine, nullptr, FALSE, &timer), KC_OK);
    const auto end = Clock::now() + stress_time();
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            std::mt19937 random(thread);
            while (Clock::now() < end) {
                HANDLE timer = timers[random() % kTimers];
                if (random() % 3 != 0)
                    shared.arm(timer, random() % 50'000);
                else
                    shared.cancel(timer);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    OsalUninitialize();
    for (HANDLE timer : timers)
        shared.cancel(timer);
    EXPECT_EQ(shared.armed, shared.fired + shared.cancelled);
    EXPECT_GT(shared.fired, 0);
    EXPECT_EQ(osal::load(g_OsalCurrentTimers), 0u);
    for (HANDLE timer : timers)
        EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

// Timers that are destroyed by whoever finds them fired: their routine, or another thread as soon
// as the state says so.
TEST_F(ScheduleStress, TimersMayBeDestroyedAsSoonAsTheyFired) {
    static std::atomic<int> fired;
    const auto routine = [](HANDLE self, void* context) -> void* {
        if (context != nullptr) {
            EXPECT_EQ(KxDestroyTimer(static_cast<PIOsal>(context), self), KC_OK);
        }
        ++fired;
        return nullptr;
    };
    int made = 0;
    for (const auto end = Clock::now() + stress_time(); Clock::now() < end;) {
        std::array<HANDLE, 100> watched;
        for (HANDLE& timer : watched) {
            HANDLE own = nullptr;
            ASSERT_EQ(KxAllocTimer(osal, routine, osal, FALSE, &own), KC_OK);
            ASSERT_EQ(KxScheduleTimer(osal, own, 0), KC_OK);
            ASSERT_EQ(KxAllocTimer(osal, routine, nullptr, FALSE, &timer), KC_OK);
            ASSERT_EQ(KxScheduleTimer(osal, timer, 0), KC_OK);
            made += 2;
        }
        for (HANDLE timer : watched) {
            while (osal::load(static_cast<PKX_TIMER_HANDLE>(timer)->timerState) == osal::kArmed)
                std::this_thread::yield();
            EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
        }
    }
    EXPECT_TRUE(eventually([&] { return fired == made; }));
    EXPECT_TRUE(eventually([&] { return osal::load(record->TimerInUse) == 0; }));
}

// What the threads of a busy parent do while it forks.
void load(PIOsal osal, const std::atomic<bool>& done) {
    static std::atomic<int> runs;
    HANDLE item = nullptr, timer = nullptr;
    EXPECT_EQ(KxAllocWorkItem(osal, count_run, &runs, &item), KC_OK);
    EXPECT_EQ(KxAllocTimer(osal, count_run, &runs, FALSE, &timer), KC_OK);
    while (!done) {
        OsalReleaseReference(new_instance());
        EXPECT_EQ(KxFreeMemory(osal, KxAllocPagedMemory(osal, 100)), KC_OK);
        if (!osal::load(static_cast<PKX_WORK_ITEM_HANDLE>(item)->pending))
            KxScheduleWorkItem(osal, item, KX_PRIORITY_NORMAL);
        if (!KxCancelTimer(osal, timer)) KxScheduleTimer(osal, timer, 10'000);
    }
    KxCancelTimer(osal, timer);
    EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
    EXPECT_TRUE(eventually(workers_idle));
    EXPECT_EQ(KxDestroyWorkItem(osal, item), KC_OK);
}

// With an instance of its own, as docs/fork.md says.
bool use_library_in_child(bool stop) {
    PIOsal osal = new_instance();
    void* block = KxAllocPagedMemory(osal, 100);
    HANDLE timer = nullptr;
    const bool used = block != nullptr && KxFreeMemory(osal, block) == KC_OK &&
                      KxAllocTimer(osal, count_run, nullptr, FALSE, &timer) == KC_OK &&
                      KxDestroyTimer(osal, timer) == KC_OK && OsalReleaseReference(osal) == 0;
    if (stop) OsalUninitialize();
    return used;
}

TEST_F(ScheduleStress, TwoHundredChildrenOfABusyParentUseTheLibrary) {
    std::atomic<bool> done = false;
    PIOsal other = new_instance();
    std::thread first([&] { load(osal, done); });
    std::thread second([&] { load(other, done); });
    for (int round = 0; round < 200; ++round)
        ASSERT_TRUE(holds_in_child([&] { return use_library_in_child(round % 2 == 0); })) << round;
    done = true;
    first.join();
    second.join();
    OsalReleaseReference(other);
}

}  // namespace
}  // namespace osal_test
