// The queue of work items beside a plain model, over random operations from outside and from inside
// the routines: order, links, flags, counts and answers must be the same all along.
//
// Seven workers are kept busy, so that one takes every item. While it is held too, the test queues
// and destroys at random; then the worker drains the queue, and the routines do the same.
//
// OSAL_TEST_OPERATIONS sets the number of operations, OSAL_TEST_SEED the seed.
#include <algorithm>
#include <array>
#include <deque>
#include <random>
#include <vector>

#include "osal/internal/atomics.h"
#include "osal/internal/list.h"
#include "osal/linux/internal/init.h"
#include "support/recorders.h"
#include "support/schedule.h"
#include "support/service_test.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

constexpr int kItems = 40;

enum class Action { kNothing, kQueue, kDestroy };

struct Step {
    Action action;
    int item;
};

// Both sides ask this what to do, each with a generator of its own in the same state.
class Script {
  public:
    explicit Script(UINT64 seed) : random_(seed) {}

    UINT64 below(UINT64 bound) { return random_() % bound; }
    Step step() {
        const Action action = below(3) == 0 ? Action::kDestroy : Action::kQueue;
        return {action, static_cast<int>(below(kItems))};
    }
    // Of a routine: its own item or any; seldom enough a queueing that the queue runs dry.
    Step step_inside(int self) {
        const UINT64 draw = below(8);
        const int other = static_cast<int>(below(kItems));
        const Action action = draw < 3   ? Action::kQueue
                              : draw < 5 ? Action::kDestroy
                                         : Action::kNothing;
        return {action, draw % 2 == 0 ? self : other};
    }

  private:
    std::mt19937_64 random_;
};

// What an operation answered: what it returned, or that there was no item.
constexpr KCSTATUS kGone = 0xFFFFFFFF;

class Model {
  public:
    bool gone(int item) const { return items_[at(item)].gone; }
    bool pending(int item) const { return items_[at(item)].pending; }
    const std::deque<int>& queue() const { return queue_; }

    void revive(int item) { items_[at(item)] = {}; }

    KCSTATUS act(Step step) {
        Item& item = items_[at(step.item)];
        if (item.gone) return kGone;
        if (step.action == Action::kQueue) {
            if (item.pending) return error(4099);
            item.pending = true;
            queue_.push_back(step.item);
        }
        if (step.action == Action::kDestroy) item.gone = !item.pending;
        return KC_OK;
    }

    template <class Routine>
    void drain(Routine routine) {
        while (!queue_.empty()) {
            const int item = queue_.front();
            queue_.pop_front();
            items_[at(item)].pending = false;
            routine(item);
        }
    }

  private:
    struct Item {
        bool gone = false, pending = false;
    };
    static std::size_t at(int item) { return static_cast<std::size_t>(item); }
    std::array<Item, kItems> items_;
    std::deque<int> queue_;
};

class WorkItemModel : public ServiceTest {
  protected:
    WorkItemModel()
        : seed_(from_environment("OSAL_TEST_SEED", std::random_device()())),
          script_(seed_),
          model_script_(seed_) {
        printf("OSAL_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed_));
        for (int i = 0; i < kItems; ++i) {
            named_[static_cast<std::size_t>(i)] = {this, i};
            make(i);
        }
    }
    // Whatever is still queued stays so: the workers are gone.
    ~WorkItemModel() override {
        for (int i = 0; i < kItems; ++i) {
            if (handle(i) == nullptr) continue;
            item(i)->pending = FALSE;
            EXPECT_EQ(KxDestroyWorkItem(osal, handle(i)), KC_OK);
        }
        EXPECT_EQ(record->WorkItemInUse, 0u);
    }

    HANDLE& handle(int i) { return handles_[static_cast<std::size_t>(i)]; }
    PKX_WORK_ITEM_HANDLE item(int i) { return static_cast<PKX_WORK_ITEM_HANDLE>(handle(i)); }

    void make(int i) {
        ASSERT_EQ(KxAllocWorkItem(osal, &WorkItemModel::run, &named_[static_cast<std::size_t>(i)],
                                  &handle(i)),
                  KC_OK);
    }

    KCSTATUS act(Step step) {
        if (handle(step.item) == nullptr) return kGone;
        if (step.action == Action::kQueue)
            return KxScheduleWorkItem(osal, handle(step.item), KX_PRIORITY_NORMAL);
        if (step.action == Action::kDestroy) {
            const bool kept = osal::load(item(step.item)->pending);
            EXPECT_EQ(KxDestroyWorkItem(osal, handle(step.item)), KC_OK);
            if (!kept) handle(step.item) = nullptr;
        }
        return KC_OK;
    }

    // What a routine does, on either side.
    template <class Side>
    static void act_inside(Side& side, Script& draws, std::vector<UINT32>& log, int self) {
        log.push_back(static_cast<UINT32>(self));
        const Step step = draws.step_inside(self);
        if (step.action != Action::kNothing) log.push_back(side.act(step));
    }

    static void* run(HANDLE, void* context) {
        auto* named = static_cast<Named*>(context);
        act_inside(*named->test, named->test->script_, named->test->log_, named->number);
        return nullptr;
    }

    // Random operations while no worker takes anything.
    void act_outside(int steps) {
        for (int i = 0; i < steps && !HasFatalFailure(); ++i) {
            const Step step = script_.step();
            ASSERT_EQ(act(step), model_.act(step));
        }
        compare();
    }

    void compare() {
        ASSERT_EQ(osal::load(g_OsalCurrentWorkItems), static_cast<INT32>(model_.queue().size()));
        std::deque<int> queued;
        const PLIST_ENTRY head = work_item_queue();
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink)
            queued.push_back(number_of(link));
        ASSERT_EQ(queued, model_.queue());
        UINT32 alive = 0;
        for (int i = 0; i < kItems; ++i) {
            ASSERT_EQ(handle(i) == nullptr, model_.gone(i)) << i;
            if (model_.gone(i)) continue;
            ++alive;
            ASSERT_EQ(osal::load(item(i)->pending) != FALSE, model_.pending(i)) << i;
        }
        ASSERT_EQ(osal::load(record->WorkItemInUse), alive + BusyWorkers::kItems);
    }

    static int number_of(PLIST_ENTRY link) {
        auto* item =
            osal::record_of<KX_WORK_ITEM_HANDLE>(link, offsetof(KX_WORK_ITEM_HANDLE, schedQueue));
        return static_cast<Named*>(item->pCallerContext)->number;
    }

    // One worker runs what is queued, and what that queues, to the end.
    void drain(BusyWorkers& busy) {
        model_script_ = script_;
        busy.release_one();
        ASSERT_TRUE(eventually(a_worker_sleeps));
        model_.drain([this](int i) { act_inside(model_, model_script_, model_log_, i); });
        ASSERT_EQ(log_, model_log_);
        compare();
        log_.clear();
        model_log_.clear();
    }

    static NO_THREAD_SAFETY_ANALYSIS bool a_worker_sleeps() {
        pthread_mutex_lock(&g_OsalWorkItemQueue.mutex.native);
        const bool sleeps =
            std::any_of(std::begin(g_OsalWorkItemThreads), std::end(g_OsalWorkItemThreads),
                        [](const WorkItemThreadObj& worker) { return worker.inactive; });
        pthread_mutex_unlock(&g_OsalWorkItemQueue.mutex.native);
        return sleeps;
    }

    void revive_all() {
        for (int i = 0; i < kItems; ++i) {
            if (handle(i) != nullptr) continue;
            make(i);
            model_.revive(i);
        }
    }

    struct Named {
        WorkItemModel* test;
        int number;
    };
    StatusRecorder statuses_;
    LogRecorder lines_;  // refusals are logged
    const UINT64 seed_;
    Script script_, model_script_;
    Model model_;
    std::array<Named, kItems> named_;
    std::array<HANDLE, kItems> handles_{};
    std::vector<UINT32> log_, model_log_;
};

TEST_F(WorkItemModel, IsAPlainQueueOverRandomOperationsAndTheExit) {
    constexpr int kSteps = 60;
    const UINT64 rounds =
        from_environment("OSAL_TEST_OPERATIONS", kSanitized ? 6'000 : 60'000) / kSteps;
    for (UINT64 round = 0; round < rounds && !HasFatalFailure(); ++round) {
        BusyWorkers busy(osal);
        act_outside(kSteps);
        drain(busy);
        statuses_.take();
        lines_.take();
        revive_all();
    }
    BusyWorkers busy(osal);
    act_outside(kSteps);
    EXPECT_FALSE(model_.queue().empty());
    UnInitWorkItemInfrastructure();
    for (const WorkItemThreadObj& worker : g_OsalWorkItemThreads)
        EXPECT_EQ(worker.exit, TRUE);
    busy.release();
    OsalUninitialize();
    EXPECT_TRUE(log_.empty());
    compare();
}

}  // namespace
}  // namespace osal_test
