#include "support/schedule.h"

#include <gtest/gtest.h>

#include <condition_variable>

#include "osal/internal/annotations.h"
#include "osal/internal/atomics.h"
#include "osal/internal/list.h"
#include "osal/linux/internal/init.h"

namespace osal_test {

NO_THREAD_SAFETY_ANALYSIS bool workers_idle() {
    pthread_mutex_lock(&g_OsalWorkItemQueue.mutex.native);
    bool idle = OsalIsListEmpty(&g_OsalWorkItemQueue.listHead);
    for (int i = 0; i < osal::load(g_OsalNumWorkItemThreads); ++i)
        idle = idle && g_OsalWorkItemThreads[i].inactive;
    pthread_mutex_unlock(&g_OsalWorkItemQueue.mutex.native);
    return idle;
}

NO_THREAD_SAFETY_ANALYSIS PKX_TIMER_HANDLE first_timer() {
    return g_OsalTimerQueHeadPtr;
}

NO_THREAD_SAFETY_ANALYSIS PKX_TIMER_HANDLE first_fed_timer() {
    return g_OsalTimerFeededQueHeadPtr;
}

NO_THREAD_SAFETY_ANALYSIS PLIST_ENTRY work_item_queue() {
    return &g_OsalWorkItemQueue.listHead;
}

StoppedTimerThread::StoppedTimerThread() {
    UnInitTimerInfrastructure();
    EXPECT_TRUE(eventually([] { return osal::load(g_OsalNumTimerThreads) == 0; }));
}

StoppedWorkers::StoppedWorkers() {
    UnInitWorkItemInfrastructure();
    EXPECT_TRUE(eventually([] { return osal::load(g_OsalNumWorkItemThreads) == 0; }));
}

StoppedThreads::StoppedThreads() {
    OsalUninitialize();
}

struct BusyWorkers::Gate {
    std::mutex mutex;
    std::condition_variable changed;
    int inside = 0;
    int released = 0;

    static void* wait(HANDLE, void* context) {
        auto* gate = static_cast<Gate*>(context);
        std::unique_lock lock(gate->mutex);
        ++gate->inside;
        gate->changed.notify_all();
        gate->changed.wait(lock, [&] { return gate->released > 0; });
        --gate->released;
        --gate->inside;
        return nullptr;
    }
};

BusyWorkers::BusyWorkers(PIOsal osal) : osal_(osal), gate_(std::make_shared<Gate>()) {
    for (int i = 0; i < kItems; ++i) {
        HANDLE item = nullptr;
        EXPECT_EQ(KxAllocWorkItem(osal_, Gate::wait, gate_.get(), &item), KC_OK);
        EXPECT_EQ(KxScheduleWorkItem(osal_, item, KX_PRIORITY_NORMAL), KC_OK);
        items_.push_back(item);
    }
    std::unique_lock lock(gate_->mutex);
    gate_->changed.wait(lock, [&] { return gate_->inside == kItems; });
}

BusyWorkers::~BusyWorkers() {
    finish();
    for (HANDLE item : items_)
        EXPECT_EQ(KxDestroyWorkItem(osal_, item), KC_OK);
}

void BusyWorkers::release_one() {
    std::lock_guard lock(gate_->mutex);
    ++gate_->released;
    gate_->changed.notify_all();
}

void BusyWorkers::release() {
    std::lock_guard lock(gate_->mutex);
    gate_->released = kItems;
    gate_->changed.notify_all();
}

void BusyWorkers::finish() {
    release();
    EXPECT_TRUE(eventually([&] {
        std::lock_guard lock(gate_->mutex);
        return gate_->inside == 0;
    }));
}

void* RunOrder::note(HANDLE, void* context) {
    auto* numbered = static_cast<Numbered*>(context);
    std::lock_guard lock(numbered->order->mutex_);
    numbered->order->taken_.push_back(numbered->number);
    return nullptr;
}

void RunOrder::schedule(int number) {
    numbered_.push_back(std::make_unique<Numbered>(Numbered{this, number}));
    HANDLE item = nullptr;
    EXPECT_EQ(KxAllocWorkItem(osal_, note, numbered_.back().get(), &item), KC_OK);
    EXPECT_EQ(KxScheduleWorkItem(osal_, item, KX_PRIORITY_NORMAL), KC_OK);
    items_.push_back(item);
}

std::vector<int> RunOrder::taken() {
    std::lock_guard lock(mutex_);
    return taken_;
}

RunOrder::~RunOrder() {
    for (HANDLE item : items_)
        EXPECT_EQ(KxDestroyWorkItem(osal_, item), KC_OK);
}

}  // namespace osal_test
