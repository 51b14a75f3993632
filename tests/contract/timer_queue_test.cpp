// The timer queues beside a plain model that walks, over random operations and many ticks: order,
// links and deltas of both queues, states and answers must be the same all along.
//
// OSAL_TEST_OPERATIONS sets the number of operations, OSAL_TEST_SEED the seed.
#include <array>
#include <map>
#include <random>
#include <vector>

#include "osal/linux/internal/schedule.h"
#include "support/schedule.h"
#include "support/service_test.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

constexpr UINT32 kArmed = 0x414C4143;
constexpr UINT32 kFired = 0x464C4143;
constexpr UINT32 kCancelled = 0x434C4143;
constexpr int kNone = -1;

struct ModelTimer {
    int next = kNone, previous = kNone;
    UINT32 timeout = 0, delta = 0, state = 0;
};

// What the queues are meant to do, in the plainest form: two lists and a walk.
class Model {
  public:
    explicit Model(int timers) : timers_(static_cast<std::size_t>(timers)) {}

    const ModelTimer& operator[](int i) const { return timers_[static_cast<std::size_t>(i)]; }
    int head() const { return head_; }
    int feeder() const { return feeder_; }
    UINT32 count() const { return count_; }

    bool arm(int i, UINT32 ticks) {
        ModelTimer& timer = at(i);
        if (timer.state == kArmed) return false;
        timer.state = kArmed;
        timer.timeout = ticks;
        timer.previous = kNone;
        timer.next = feeder_;
        if (feeder_ != kNone) at(feeder_).previous = i;
        feeder_ = i;
        ++count_;
        return true;
    }

    bool cancel(int i) {
        if (i == running_ || at(i).state != kArmed) return false;
        remove(i);
        at(i).state = kCancelled;
        return true;
    }

    template <class Routine>
    void tick(Routine routine) {
        if (count_ == 0) return;
        while (feeder_ != kNone) {
            const int i = feeder_;
            feeder_ = at(i).next;
            insert(i);
        }
        if (head_ == kNone) return;
        if (at(head_).delta != 0 && --at(head_).delta != 0) return;
        do {
            running_ = head_;
            remove(running_);
            at(running_).state = kFired;
            routine(running_);
            running_ = kNone;
        } while (count_ != 0 && head_ != kNone && at(head_).delta == 0);
    }

  private:
    ModelTimer& at(int i) { return timers_[static_cast<std::size_t>(i)]; }

    void insert(int i) {
        ModelTimer& timer = at(i);
        UINT32 sum = 0;
        int before = kNone, after = head_;
        while (after != kNone && sum + at(after).delta <= timer.timeout) {
            sum += at(after).delta;
            before = after;
            after = at(after).next;
        }
        timer.previous = before;
        timer.next = after;
        timer.delta = timer.timeout - sum;
        if (after != kNone) {
            at(after).delta -= timer.delta;
            at(after).previous = i;
        }
        (before != kNone ? at(before).next : head_) = i;
    }

    void remove(int i) {
        ModelTimer& timer = at(i);
        if (i == head_)
            head_ = timer.next;
        else if (i == feeder_)
            feeder_ = timer.next;
        else
            at(timer.previous).next = timer.next;
        if (timer.next != kNone) {
            at(timer.next).previous = timer.previous;
            at(timer.next).delta += timer.delta;
        }
        timer.next = timer.previous = kNone;
        --count_;
    }

    std::vector<ModelTimer> timers_;
    int head_ = kNone, feeder_ = kNone, running_ = kNone;
    UINT32 count_ = 0;
};

// Both sides ask this what to do, each with a generator of its own in the same state.
class Script {
  public:
    Script(UINT64 seed, int timers) : random_(seed), timers_(timers) {}

    UINT64 below(UINT64 bound) { return random_() % bound; }
    int timer() { return static_cast<int>(below(static_cast<UINT64>(timers_))); }
    // Mostly short, so that ticks are shared; some of the longest there are.
    UINT32 ticks() {
        switch (below(16)) {
            case 0:
                return static_cast<UINT32>(0xFFFFFFFF - below(3));
            case 1:
                return static_cast<UINT32>(1 + below(0xFFFFFFFF));
            case 2:
                return static_cast<UINT32>(1 + below(100'000));
            default:
                return static_cast<UINT32>(1 + below(40));
        }
    }

  private:
    std::mt19937_64 random_;
    int timers_;
};

class TimerQueue : public ServiceTest {
  protected:
    static constexpr int kTimers = 300;

    TimerQueue()
        : seed(from_environment("OSAL_TEST_SEED", std::random_device()())),
          script(seed, kTimers),
          model_script(seed, kTimers),
          model(kTimers) {
        printf("OSAL_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
        for (int i = 0; i < kTimers; ++i) {
            named[static_cast<std::size_t>(i)] = {this, i};
            HANDLE timer = nullptr;
            EXPECT_EQ(KxAllocTimer(osal, &TimerQueue::fire, &named[static_cast<std::size_t>(i)],
                                   FALSE, &timer),
                      KC_OK);
            timers.push_back(static_cast<PKX_TIMER_HANDLE>(timer));
        }
    }
    ~TimerQueue() override {
        for (PKX_TIMER_HANDLE timer : timers) {
            KxCancelTimer(osal, timer);
            KxDestroyTimer(osal, timer);
        }
    }

    PKX_TIMER_HANDLE at(int i) { return timers[static_cast<std::size_t>(i)]; }

    bool arm(int i, UINT32 ticks) {
        if (at(i)->timerState == kArmed) return false;  // or it would be logged
        return KxScheduleTimer(osal, at(i), UINT64{ticks} * 10'000) == KC_OK;
    }
    bool cancel(int i) { return KxCancelTimer(osal, at(i)) == TRUE; }

    // What a routine does, on either side.
    template <class Side>
    void act(Side& side, Script& draws, std::vector<int>& log, int self) {
        log.push_back(self);
        const UINT64 action = draws.below(8);
        const int other = draws.timer();
        const UINT32 ticks = draws.ticks();
        if (action == 0) log.push_back(side.arm(self, ticks));
        if (action == 1) log.push_back(side.cancel(other));
        if (action == 2) log.push_back(side.arm(other, ticks));
        if (action == 3) log.push_back(side.arm(self, ticks) * 2 + side.cancel(self));
    }

    static void* fire(HANDLE, void* context) {
        auto* timer = static_cast<Named*>(context);
        timer->test->act(*timer->test, timer->test->script, timer->test->fired, timer->number);
        return nullptr;
    }

    void tick() {
        OsalServiceTimerQueues();
        model.tick([this](int i) { act(model, model_script, model_fired, i); });
        ASSERT_EQ(fired, model_fired);
        fired.clear();
        model_fired.clear();
    }

    int number_of(PKX_TIMER_HANDLE timer) {
        return timer == nullptr ? kNone : static_cast<Named*>(timer->pCallerContext)->number;
    }

    void compare() {
        ASSERT_EQ(g_OsalCurrentTimers, model.count());
        ASSERT_EQ(number_of(first_timer()), model.head());
        ASSERT_EQ(number_of(first_fed_timer()), model.feeder());
        for (int i = 0; i < kTimers; ++i) {
            ASSERT_EQ(number_of(at(i)->pNextTimerStruct), model[i].next) << i;
            ASSERT_EQ(number_of(at(i)->pPrevTimerStruct), model[i].previous) << i;
            ASSERT_EQ(at(i)->delta, model[i].delta) << i;
            ASSERT_EQ(at(i)->timeOutValue, model[i].timeout) << i;
            ASSERT_EQ(at(i)->timerState, model[i].state) << i;
        }
    }

    // One random operation on both sides.
    void step() {
        const UINT64 action = script.below(8);
        const int i = script.timer();
        const UINT32 ticks = script.ticks();
        model_script = script;
        if (action < 4)
            ASSERT_EQ(arm(i, ticks), model.arm(i, ticks));
        else if (action < 6)
            ASSERT_EQ(cancel(i), model.cancel(i));
        else
            tick();
    }

    struct Named {
        TimerQueue* test;
        int number;
    };
    StoppedTimerThread stopped;
    const UINT64 seed;
    Script script, model_script;
    Model model;
    std::array<Named, kTimers> named;
    std::vector<PKX_TIMER_HANDLE> timers;
    std::vector<int> fired, model_fired;
};

TEST_F(TimerQueue, BehavesAsAWalkThroughTheListOverAMillionRandomOperations) {
    const UINT64 operations = from_environment("OSAL_TEST_OPERATIONS", 1'000'000);
    for (UINT64 i = 0; i < operations && !HasFatalFailure(); ++i) {
        step();
        if (i % 64 == 0 && !HasFatalFailure()) compare();
    }
}

// A hundred thousand timers, cancelled and armed at random, fire in the order of a sorted map.
TEST_F(TimerQueue, FiresAHundredThousandTimersInTheOrderOfASortedMap) {
    constexpr UINT32 kMany = 100'000, kSpan = 3'000;
    static std::vector<UINT32> order;
    std::vector<HANDLE> many(kMany);
    for (UINT32 i = 0; i < kMany; ++i) {
        const auto note = [](HANDLE, void* context) -> void* {
            order.push_back(static_cast<UINT32>(reinterpret_cast<uintptr_t>(context)));
            return nullptr;
        };
        ASSERT_EQ(KxAllocTimer(osal, note, reinterpret_cast<void*>(uintptr_t{i}), FALSE, &many[i]),
                  KC_OK);
    }
    std::multimap<UINT32, UINT32> sorted;  // keeps the order of insertion among equals
    for (UINT32 start = 0; start < kMany; start += 1'000) {
        std::vector<std::pair<UINT32, UINT32>> fed;
        for (UINT32 i = start; i < start + 1'000; ++i) {
            const auto ticks = static_cast<UINT32>(200 + script.below(kSpan));
            ASSERT_EQ(KxScheduleTimer(osal, many[i], UINT64{ticks} * 10'000), KC_OK);
            if (script.below(10) == 0)
                ASSERT_EQ(KxCancelTimer(osal, many[i]), TRUE);
            else
                fed.emplace_back(start / 1'000 + ticks, i);
        }
        for (auto newest = fed.rbegin(); newest != fed.rend(); ++newest)
            sorted.insert(*newest);
        OsalServiceTimerQueues();
    }
    for (UINT32 tick = 0; tick < kSpan + 300; ++tick)
        OsalServiceTimerQueues();
    std::vector<UINT32> expected;
    for (const auto& [tick, number] : sorted)
        expected.push_back(number);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(g_OsalCurrentTimers, 0u);
    for (HANDLE timer : many)
        EXPECT_EQ(KxDestroyTimer(osal, timer), KC_OK);
}

}  // namespace
}  // namespace osal_test
