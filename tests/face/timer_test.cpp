// Timers through the C++ face.
#include "osal/timer.hpp"

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "support/face_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

using namespace std::chrono_literals;
using kx::Timer;

constexpr std::chrono::milliseconds kTick = 10ms;
constexpr auto kNever = 24h;

template <class Condition>
void wait_until(Condition condition) {
    while (!condition())
        std::this_thread::sleep_for(1ms);
}

using FaceTimer = FaceTest;

TEST_F(FaceTimer, FiresOnceAndNotBeforeItsTime) {
    std::atomic<int> runs = 0;
    Timer timer(service, [&] { ++runs; });
    EXPECT_FALSE(timer.armed());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(timer.schedule(5 * kTick));
    EXPECT_TRUE(timer.armed());
    wait_until([&] { return runs == 1; });
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4 * kTick);
    EXPECT_FALSE(timer.armed());
    EXPECT_FALSE(timer.cancel());
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 1);
}

TEST_F(FaceTimer, IsArmedOnceOnly) {
    std::atomic<int> runs = 0;
    Timer timer(service, [&] { ++runs; });
    EXPECT_TRUE(timer.schedule(kTick));
    EXPECT_FALSE(timer.schedule(kNever));
    wait_until([&] { return runs == 1; });
    EXPECT_TRUE(timer.schedule(-1s));  // in the next tick
    wait_until([&] { return runs == 2; });
}

TEST_F(FaceTimer, DoesNotTakeALongDelayForAShortOne) {
    std::atomic<int> runs = 0;
    Timer timer(service, [&] { ++runs; });
    for (auto delay : {kTick * (INT64{1} << 32), std::chrono::milliseconds::max()}) {
        EXPECT_TRUE(timer.schedule(delay));
        std::this_thread::sleep_for(5 * kTick);
        EXPECT_EQ(runs, 0);
        EXPECT_TRUE(timer.cancel());
    }
}

TEST_F(FaceTimer, DoesNotFireOnceCancelled) {
    std::atomic<int> runs = 0;
    Timer timer(service, [&] { ++runs; });
    EXPECT_FALSE(timer.cancel());
    EXPECT_TRUE(timer.schedule(kTick));
    EXPECT_TRUE(timer.cancel());
    EXPECT_FALSE(timer.armed());
    EXPECT_FALSE(timer.cancel());
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 0);
    EXPECT_TRUE(timer.schedule(kTick));
    wait_until([&] { return runs == 1; });
}

TEST_F(FaceTimer, DoesNotFireOnceDestroyed) {
    std::atomic<int> runs = 0;
    {
        Timer timer(service, [&] { ++runs; });
        EXPECT_TRUE(timer.schedule(kTick));
        EXPECT_EQ(counters().TimerInUse, 1u);
    }
    EXPECT_EQ(counters().TimerInUse, 0u);
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 0);
}

TEST_F(FaceTimer, IsDestroyedAfterARunThatHasBegun) {
    std::atomic<bool> begun = false, ended = false;
    {
        Timer timer(service, [&] {
            begun = true;
            std::this_thread::sleep_for(50ms);
            ended = true;
        });
        timer.schedule(kTick);
        wait_until([&] { return begun.load(); });
    }
    EXPECT_TRUE(ended);
}

TEST_F(FaceTimer, RunsAgainWhenItsCallableSaysSo) {
    std::atomic<int> runs = 0;
    Timer* again = nullptr;
    Timer timer(service, [&] {
        EXPECT_FALSE(again->armed());
        if (runs < 4) {
            EXPECT_TRUE(again->schedule(kTick));
            EXPECT_TRUE(again->armed());
            EXPECT_FALSE(again->schedule(kTick));
        }
        ++runs;
    });
    again = &timer;
    timer.schedule(kTick);
    wait_until([&] { return runs == 5; });
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 5);
}

TEST_F(FaceTimer, MayBeCancelledInItsCallableAfterItWasArmedThere) {
    std::atomic<int> runs = 0;
    Timer* self = nullptr;
    Timer timer(service, [&] {
        EXPECT_FALSE(self->cancel());
        EXPECT_TRUE(self->schedule(kTick));
        EXPECT_TRUE(self->cancel());
        EXPECT_FALSE(self->armed());
        ++runs;
    });
    self = &timer;
    timer.schedule(kTick);
    wait_until([&] { return runs == 1; });
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 1);
}

TEST_F(FaceTimer, MayBeArmedAndCancelledByOthersWhileItsCallableRuns) {
    std::atomic<int> begun = 0;
    std::atomic<bool> go_on = false;
    Timer timer(service, [&] {
        ++begun;
        wait_until([&] { return go_on.load(); });
    });
    timer.schedule(kTick);
    wait_until([&] { return begun == 1; });
    EXPECT_FALSE(timer.cancel());
    EXPECT_TRUE(timer.schedule(kNever));
    EXPECT_TRUE(timer.cancel());
    EXPECT_TRUE(timer.schedule(kTick));
    EXPECT_FALSE(timer.schedule(kTick));
    go_on = true;
    wait_until([&] { return begun == 2; });
}

// The callable's own memory has to last until it returns.
TEST_F(FaceTimer, MayBeDestroyedInItsCallable) {
    auto kept = std::make_shared<int>(1);
    std::atomic<int> runs = 0;
    std::unique_ptr<Timer> timer;
    timer = std::make_unique<Timer>(service, [&timer, &runs, kept] {
        timer.reset();
        std::this_thread::sleep_for(kTick);
        runs += *kept;
    });
    timer->schedule(kTick);
    wait_until([&] { return runs == 1; });
    wait_until([&] { return kept.use_count() == 1; });
    wait_until([&] { return counters().TimerInUse == 0; });
}

TEST_F(FaceTimer, MayBeDestroyedInItsCallableAfterItWasArmedThere) {
    std::atomic<int> runs = 0;
    std::unique_ptr<Timer> timer;
    timer = std::make_unique<Timer>(service, [&] {
        timer->schedule(2 * kTick);
        timer.reset();
        ++runs;
    });
    timer->schedule(kTick);
    wait_until([&] { return runs == 1; });
    wait_until([&] { return counters().TimerInUse == 0; });
    std::this_thread::sleep_for(4 * kTick);
    EXPECT_EQ(runs, 1);
}

TEST_F(FaceTimer, MayBeDestroyedInTheCallableOfAnother) {
    std::atomic<int> runs = 0;
    auto other = std::make_unique<Timer>(service, [&] { ++runs; });
    Timer timer(service, [&] {
        other.reset();
        runs = 10;
    });
    other->schedule(kNever);
    timer.schedule(kTick);
    wait_until([&] { return runs == 10; });
    EXPECT_EQ(counters().TimerInUse, 1u);
}

// Right behind the run the library still takes the timer for the executing one, and does not cancel
// what was armed in it.
TEST_F(FaceTimer, IsCancelledAndDestroyedRightBehindARunThatArmedIt) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> runs = 0;
        Timer* self = nullptr;
        Timer timer(service, [&] {
            self->schedule(kNever);
            ++runs;
        });
        self = &timer;
        timer.schedule(0s);
        wait_until([&] { return runs == 1; });
        if (round % 2 == 0) {
            EXPECT_TRUE(timer.cancel());
        }
    }
    EXPECT_EQ(counters().TimerInUse, 0u);
}

TEST_F(FaceTimer, IsCancelledWhileTheRoutineOfOneThatLayAtItsAddressRuns) {
    struct Both {
        kx::Service& service;
        std::unique_ptr<Timer> heir = {};
        std::atomic<bool> armed = false;
        bool has_its_place = false;
    } both{service};
    const PKX_TIMER_ROUTINE make_way = [](HANDLE self, PVOID context) -> void* {
        auto* both = static_cast<Both*>(context);
        both->service.call<&IOsalVtbl::KxDestroyTimer>(self);
        both->heir = std::make_unique<Timer>(both->service, [] {});
        both->has_its_place = both->heir->handle() == self;
        both->heir->schedule(kNever);
        both->armed = true;
        std::this_thread::sleep_for(50ms);
        return nullptr;
    };
    HANDLE first = nullptr;
    kx::check(service.call<&IOsalVtbl::KxAllocTimer>(make_way, PVOID{&both}, FALSE, &first));
    kx::check(service.call<&IOsalVtbl::KxScheduleTimer>(first, UINT64{0}));
    wait_until([&] { return both.armed.load(); });
    EXPECT_TRUE(both.heir->cancel());
    EXPECT_FALSE(both.heir->armed());
    if (!both.has_its_place) GTEST_SKIP() << "the heap has put it elsewhere";
}

TEST_F(FaceTimer, WhatItArmedIsWithdrawnWhenItsOwnerGoesMeanwhile) {
    std::atomic<int> runs = 0;
    std::atomic<bool> begun = false;
    Timer* self = nullptr;
    auto timer = std::make_unique<Timer>(service, [&] {
        self->schedule(kTick);
        begun = true;
        std::this_thread::sleep_for(30ms);
        EXPECT_FALSE(self->schedule(kTick));  // its owner waits already
        ++runs;
    });
    self = timer.get();
    timer->schedule(kTick);
    wait_until([&] { return begun.load(); });
    timer.reset();
    EXPECT_EQ(runs, 1);
    std::this_thread::sleep_for(3 * kTick);
    EXPECT_EQ(runs, 1);
}

// Every arming ends in a run or in a cancellation that says so, never in both.
TEST_F(FaceTimer, RunsOrIsCancelled) {
    std::atomic<int> runs = 0;
    int armed = 0, cancelled = 0;
    {
        Timer timer(service, [&] { ++runs; });
        for (int round = 0; round < 40; ++round) {
            armed += timer.schedule(kTick);
            std::this_thread::sleep_for(std::chrono::microseconds(8000 + round * 137));
            cancelled += timer.cancel();
        }
        wait_until([&] { return !timer.armed(); });
    }
    EXPECT_EQ(runs + cancelled, armed);
}

// What the callables use is gone right after the timers, which a sanitizer would see.
TEST_F(FaceTimer, LeavesNobodyBehindUnderStress) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            for (int round = 0; round < 60; ++round) {
                auto used = std::make_unique<std::atomic<int>>(0);
                Timer* self = nullptr;
                auto timer = std::make_unique<Timer>(service, [used = used.get(), &self, round] {
                    ++*used;
                    if (round % 3 == 0) self->schedule(0s);
                    if (round % 5 == 0) std::this_thread::yield();
                    ++*used;
                });
                self = timer.get();
                timer->schedule(0s);
                std::this_thread::sleep_for(std::chrono::microseconds((round * 7 + i) % 13 * 900));
                if (round % 4 == 0) timer->cancel();
                timer.reset();
                EXPECT_EQ(*used % 2, 0);
                used.reset();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counters().TimerInUse, 0u);
}

TEST_F(FaceTimer, ThatCannotBeMadeIsAnError) {
    EXPECT_EQ(code_of([&] { Timer(service, nullptr); }), KC_CODE_INVALID_ARGUMENT);
    HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { Timer(service, [] {}); }), KC_CODE_NO_RESOURCES);
}

TEST_F(FaceTimer, KeepsTheInstance) {
    Timer timer(service, [] {});
    service.call<&IOsalVtbl::AddRef>();
    EXPECT_EQ(service.call<&IOsalVtbl::Release>(), 2u);
    EXPECT_NE(timer.handle(), nullptr);
}

TEST_F(FaceTimer, ACallableThatThrowsEndsTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            Timer timer(service, [] { throw 1; });
            timer.schedule(0s);
            std::this_thread::sleep_for(10s);
        },
        "");
}

// A cancelled thread is not torn out of the wait of a destructor, which could only end the process.
TEST_F(FaceTimer, AWaitForARunIsNoCancellationPoint) {
    std::atomic<bool> begun = false, go_on = false, destroyed = false;
    auto timer = std::make_unique<Timer>(service, [&] {
        begun = true;
        wait_until([&] { return go_on.load(); });
    });
    timer->schedule(kTick);
    wait_until([&] { return begun.load(); });
    std::thread other([&] {
        timer.reset();
        destroyed = true;
    });
    std::this_thread::sleep_for(20ms);
    pthread_cancel(other.native_handle());
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(destroyed);
    go_on = true;
    other.join();
    EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace osal_test
