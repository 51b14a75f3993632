// Work items through the C++ face.
#include "osal/workitem.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/face_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

using namespace std::chrono_literals;
using kx::WorkItem;

constexpr int kWorkers = 8;

template <class Condition>
void wait_until(Condition condition) {
    while (!condition())
        std::this_thread::sleep_for(1ms);
}

using FaceWorkItem = FaceTest;

// Keeps workers busy until it goes.
class BusyWorkers {
  public:
    explicit BusyWorkers(const kx::Service& service, int count = kWorkers) {
        for (int i = 0; i < count; ++i) {
            items_.push_back(std::make_unique<WorkItem>(service, [this] {
                ++busy_;
                wait_until([this] { return released_.load(); });
            }));
            items_.back()->schedule();
        }
        wait_until([&] { return busy_ == count; });
    }
    ~BusyWorkers() { release(); }
    void release() { released_ = true; }

  private:
    std::atomic<int> busy_ = 0;
    std::atomic<bool> released_ = false;
    std::vector<std::unique_ptr<WorkItem>> items_;
};

TEST_F(FaceWorkItem, RunsOnceOnAThreadOfTheLibrary) {
    int runs = 0;
    std::thread::id thread;
    WorkItem item(service, [&] {
        ++runs;
        thread = std::this_thread::get_id();
    });
    item.wait();
    EXPECT_TRUE(item.schedule());
    item.wait();
    EXPECT_EQ(runs, 1);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_TRUE(item.schedule());
    item.wait();
    EXPECT_EQ(runs, 2);
}

TEST_F(FaceWorkItem, IsQueuedOnceOnly) {
    std::atomic<int> runs = 0;
    WorkItem item(service, [&] { ++runs; });
    BusyWorkers workers(service);
    EXPECT_FALSE(item.queued());
    EXPECT_TRUE(item.schedule());
    EXPECT_TRUE(item.queued());
    EXPECT_FALSE(item.schedule());
    workers.release();
    item.wait();
    EXPECT_FALSE(item.queued());
    EXPECT_EQ(runs, 1);
}

TEST_F(FaceWorkItem, DoesNotRunOnceDestroyed) {
    std::atomic<int> runs = 0;
    {
        auto item = std::make_unique<WorkItem>(service, [&] { ++runs; });
        BusyWorkers workers(service);
        item->schedule();
        std::atomic<bool> gone = false;
        std::thread destroyer([&] {
            item.reset();
            gone = true;
        });
        std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(gone);  // the library still has it in its queue
        workers.release();
        destroyer.join();
    }
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(counters().WorkItemInUse, 0u);
}

TEST_F(FaceWorkItem, IsDestroyedAfterARunThatHasBegun) {
    std::atomic<bool> begun = false, ended = false;
    {
        WorkItem item(service, [&] {
            begun = true;
            std::this_thread::sleep_for(50ms);
            ended = true;
        });
        item.schedule();
        wait_until([&] { return begun.load(); });
    }
    EXPECT_TRUE(ended);
}

TEST_F(FaceWorkItem, MayQueueItselfAgain) {
    std::atomic<int> runs = 0;
    WorkItem* self = nullptr;
    WorkItem item(service, [&] {
        if (++runs < 100) {
            EXPECT_TRUE(self->schedule());
        }
    });
    self = &item;
    item.schedule();
    item.wait();
    EXPECT_EQ(runs, 100);
}

TEST_F(FaceWorkItem, RunsBesideItselfAndIsDestroyedAfterAllRuns) {
    std::atomic<int> begun = 0, ended = 0;
    auto item = std::make_unique<WorkItem>(service, [&] {
        ++begun;
        wait_until([&] { return begun == 2; });
        std::this_thread::sleep_for(20ms);
        ++ended;
    });
    EXPECT_TRUE(item->schedule());
    wait_until([&] { return begun == 1; });
    EXPECT_TRUE(item->schedule());
    wait_until([&] { return begun == 2; });
    item.reset();
    EXPECT_EQ(ended, 2);
}

// The callable's own memory has to last until it returns.
TEST_F(FaceWorkItem, MayBeDestroyedInItsCallable) {
    auto kept = std::make_shared<int>(1);
    std::atomic<int> runs = 0;
    std::unique_ptr<WorkItem> item;
    item = std::make_unique<WorkItem>(service, [&item, &runs, kept] {
        item.reset();
        std::this_thread::sleep_for(10ms);
        runs += *kept;
    });
    item->schedule();
    wait_until([&] { return kept.use_count() == 1; });
    EXPECT_EQ(runs, 1);
    wait_until([&] { return counters().WorkItemInUse == 0; });
}

TEST_F(FaceWorkItem, MayBeDestroyedInItsCallableAfterItWasQueuedThere) {
    std::atomic<int> runs = 0;
    std::unique_ptr<WorkItem> item;
    item = std::make_unique<WorkItem>(service, [&] {
        EXPECT_TRUE(item->schedule());
        item.reset();
        ++runs;
    });
    BusyWorkers workers(service, kWorkers - 1);  // so that the second run would be behind this one
    item->schedule();
    wait_until([&] { return counters().WorkItemInUse == kWorkers - 1; });
    EXPECT_EQ(runs, 1);
}

TEST_F(FaceWorkItem, MayBeDestroyedInTheCallableOfAnother) {
    std::atomic<int> runs = 0;
    auto other = std::make_unique<WorkItem>(service, [&] { ++runs; });
    WorkItem item(service, [&] { other.reset(); });
    other->schedule();
    item.schedule();
    item.wait();
    EXPECT_FALSE(other);
    EXPECT_EQ(counters().WorkItemInUse, 1u);
}

// What the callables use is gone right after the items, which a sanitizer would see.
TEST_F(FaceWorkItem, LeavesNobodyBehindUnderStress) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this] {
            for (int round = 0; round < 500; ++round) {
                auto used = std::make_unique<std::atomic<int>>(0);
                WorkItem* self = nullptr;
                auto item = std::make_unique<WorkItem>(service, [used = used.get(), &self, round] {
                    ++*used;
                    if (round % 3 == 0) self->schedule();
                    if (round % 5 == 0) std::this_thread::yield();
                    ++*used;
                });
                self = item.get();
                item->schedule();
                if (round % 2 == 0) item->schedule();
                for (int spin = 0; spin < round % 7; ++spin)
                    std::this_thread::yield();
                item.reset();
                EXPECT_EQ(*used % 2, 0);
                used.reset();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counters().WorkItemInUse, 0u);
}

TEST_F(FaceWorkItem, DestroysItselfUnderStress) {
    constexpr int kItems = 2000;
    std::atomic<int> runs = 0;
    for (int i = 0; i < kItems; ++i) {
        auto* item = new std::unique_ptr<WorkItem>;
        *item = std::make_unique<WorkItem>(service, [item, &runs] {
            delete item;
            ++runs;
        });
        (*item)->schedule();
    }
    wait_until([&] { return runs == kItems; });
    wait_until([&] { return counters().WorkItemInUse == 0; });
}

TEST_F(FaceWorkItem, ThatCannotBeMadeIsAnError) {
    EXPECT_EQ(code_of([&] { WorkItem(service, nullptr); }), KC_CODE_INVALID_ARGUMENT);
    HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { WorkItem(service, [] {}); }), KC_CODE_NO_RESOURCES);
}

TEST_F(FaceWorkItem, KeepsTheInstance) {
    WorkItem item(service, [] {});
    service.call<&IOsalVtbl::AddRef>();
    EXPECT_EQ(service.call<&IOsalVtbl::Release>(), 2u);
    EXPECT_NE(item.handle(), nullptr);
}

TEST_F(FaceWorkItem, ACallableThatThrowsEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            WorkItem item(service, [] { throw 1; });
            item.schedule();
            item.wait();
        },
        "");
}

}  // namespace
}  // namespace osal_test
