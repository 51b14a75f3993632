// Events through the C++ face.
#include "osal/event.hpp"

#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <limits>
#include <thread>

#include "support/face_test.h"
#include "support/faults.h"
#include "support/threads.h"

namespace osal_test {
namespace {

using namespace std::chrono_literals;
using kx::to_timeout;

constexpr INT64 kEnd = std::numeric_limits<INT64>::max();

TEST(FaceTimeout, IsInMicrosecondsRoundedUp) {
    EXPECT_EQ(to_timeout(1us), 1);
    EXPECT_EQ(to_timeout(1ms), 1000);
    EXPECT_EQ(to_timeout(2h), INT64{7'200'000'000});
    EXPECT_EQ(to_timeout(1ns), 1);
    EXPECT_EQ(to_timeout(1001ns), 2);
    EXPECT_EQ(to_timeout(std::chrono::duration<double>(0.5)), 500'000);
    EXPECT_EQ(to_timeout(std::chrono::duration<float, std::micro>(0.25f)), 1);
    EXPECT_EQ(to_timeout(std::chrono::nanoseconds::max()), kEnd / 1000 + 1);
}

TEST(FaceTimeout, IsNeverNegative) {
    EXPECT_EQ(to_timeout(0s), 0);
    EXPECT_EQ(to_timeout(-1us), 0);
    EXPECT_EQ(to_timeout(-1ns), 0);
    EXPECT_EQ(to_timeout(std::chrono::hours::min()), 0);
    EXPECT_EQ(to_timeout(std::chrono::nanoseconds::min()), 0);
    EXPECT_EQ(to_timeout(std::chrono::duration<double>(-1e300)), 0);
    EXPECT_EQ(to_timeout(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())),
              0);
}

TEST(FaceTimeout, SaturatesBeyondItsRange) {
    EXPECT_EQ(to_timeout(std::chrono::hours::max()), kEnd);
    EXPECT_EQ(to_timeout(std::chrono::years::max()), kEnd);
    EXPECT_EQ(to_timeout(std::chrono::microseconds::max()), kEnd);
    EXPECT_EQ(to_timeout(std::chrono::duration<UINT64, std::micro>::max()), kEnd);
    EXPECT_EQ(to_timeout(std::chrono::duration<double>(std::numeric_limits<double>::infinity())),
              kEnd);
    EXPECT_EQ(to_timeout(std::chrono::duration<double>(1e300)), kEnd);
}

class Events : public FaceTest {
  protected:
    // Takes the signal of an event; true if there was one.
    static bool took(kx::Event& event) { return event.wait_for(0s); }

    kx::Event& automatic() { return *automatic_; }
    kx::Event& manual() { return *manual_; }
    kx::EventSet both() { return {&automatic(), &manual()}; }

    void TearDown() override {
        automatic_.reset();
        manual_.reset();
        FaceTest::TearDown();
    }

  private:
    std::optional<kx::Event> automatic_{std::in_place, service};
    std::optional<kx::Event> manual_{std::in_place, service, kx::Reset::manual};
};

// Calls of pthread_cond_timedwait that the platform refuses.
int refuse(pthread_cond_t*, pthread_mutex_t*, const timespec*) {
    return EINVAL;
}

TEST_F(Events, AreCountedWhileTheyLive) {
    EXPECT_EQ(counters().EventInUse, 2u);
    EXPECT_NE(automatic().handle(), nullptr);
    EXPECT_EQ(automatic().service().get(), service.get());
}

TEST_F(Events, ThatCannotBeMadeAreThrown) {
    const HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { kx::Event event(service); }), KC_CODE_FAILED);
    EXPECT_EQ(code_of([&] { kx::Event event(service, kx::Reset{2}); }), KC_CODE_INVALID_ARGUMENT);
}

TEST_F(Events, TellTheirFormerState) {
    EXPECT_FALSE(automatic().signal());
    EXPECT_TRUE(automatic().signal());
    EXPECT_TRUE(automatic().reset());
    EXPECT_FALSE(automatic().reset());
}

TEST_F(Events, OnlyAnAutomaticOneIsResetByAWait) {
    automatic().signal();
    manual().signal();
    automatic().wait();
    manual().wait();
    EXPECT_FALSE(automatic().reset());
    EXPECT_TRUE(manual().reset());
}

TEST_F(Events, AWaitMayExpire) {
    const auto start = std::chrono::system_clock::now();
    EXPECT_FALSE(automatic().wait_for(20ms));
    EXPECT_GE(std::chrono::system_clock::now() - start, 20ms);
    EXPECT_FALSE(automatic().wait_for(0s));
    EXPECT_FALSE(automatic().wait_for(-1us)) << "not without limit";
    EXPECT_FALSE(automatic().wait_for(-1h));
    automatic().signal();
    EXPECT_TRUE(automatic().wait_for(-1us));
}

TEST_F(Events, ASleeperIsWoken) {
    for (const bool limited : {false, true}) {
        std::thread sleeper([&] {
            if (limited)
                EXPECT_TRUE(automatic().wait_for(std::chrono::hours::max()));
            else
                automatic().wait();
        });
        nap(milliseconds(10));
        automatic().signal();
        sleeper.join();
    }
}

TEST_F(Events, AManualOneReleasesAllWaiters) {
    std::thread one([&] { manual().wait(); }), other([&] { manual().wait(); });
    manual().signal();
    one.join();
    other.join();
}

TEST_F(Events, ARefusedWaitIsThrown) {
    const Interpose refusal("osal.so", "pthread_cond_timedwait", &refuse);
    EXPECT_EQ(code_of([&] { automatic().wait_for(1ms); }), KC_CODE_FAILED);
    kx::EventSet one{&automatic()};
    EXPECT_EQ(code_of([&] { (void)one.wait_any_for(1ms); }), KC_CODE_FAILED) << "no index";
    EXPECT_EQ(code_of([&] { one.wait_all_for(1ms); }), KC_CODE_FAILED);
}

TEST_F(Events, ACancelledWaiterLeavesAUsableEvent) {
    std::atomic<bool> gone = false;
    std::thread waiter([&] {
        struct Mark {
            ~Mark() { mark = true; }
            std::atomic<bool>& mark;
        } mark{gone};
        automatic().wait();
    });
    pthread_cancel(waiter.native_handle());
    waiter.join();
    EXPECT_TRUE(gone);
    automatic().signal();
    EXPECT_TRUE(took(automatic()));
}

TEST_F(Events, AWaitForAnyTellsWhich) {
    kx::EventSet set = both();
    EXPECT_EQ(set.size(), 2u);
    manual().signal();
    EXPECT_EQ(set.wait_any(), 1u);
    EXPECT_EQ(set.wait_any_for(1s), 1u);
    EXPECT_EQ(set.wait_any_for(0s), 1u) << "a poll tells as well";
    automatic().signal();
    EXPECT_EQ(set.wait_any_for(0s), 0u) << "the lowest";
    EXPECT_FALSE(took(automatic()));
    automatic().signal();
    EXPECT_EQ(set.wait_any_for(1s), 0u);
    EXPECT_FALSE(took(automatic()));
}

TEST_F(Events, AWaitForAnyResetsOnlyWhatItFindsAtEntry) {
    kx::Event second(service);
    kx::EventSet set{&automatic(), &second};
    for (const auto timeout : {0s, 1s}) {
        automatic().signal();
        second.signal();
        EXPECT_EQ(set.wait_any_for(timeout), 0u);
        EXPECT_TRUE(took(second));
    }
}

TEST_F(Events, AWaitForAnySleeps) {
    kx::EventSet set = both();
    std::thread signaller([&] {
        nap(milliseconds(10));
        manual().signal();
    });
    EXPECT_EQ(set.wait_any(), 1u);
    signaller.join();
}

TEST_F(Events, AWaitForAnyMayExpire) {
    kx::EventSet set = both();
    const auto start = std::chrono::system_clock::now();
    EXPECT_EQ(set.wait_any_for(20ms), std::nullopt);
    EXPECT_GE(std::chrono::system_clock::now() - start, 20ms);
    EXPECT_EQ(set.wait_any_for(0s), std::nullopt);
    EXPECT_EQ(set.wait_any_for(-1us), std::nullopt) << "not without limit";
    EXPECT_EQ(kx::EventSet{&automatic()}.wait_any_for(1us), std::nullopt);
}

TEST_F(Events, AWaitForAllTakesAll) {
    kx::EventSet set = both();
    for (const auto timeout : {-1h, 0h, 1h}) {
        automatic().signal();
        manual().signal();
        EXPECT_TRUE(set.wait_all_for(timeout));
        EXPECT_FALSE(took(automatic()));
    }
    automatic().signal();
    set.wait_all();
    EXPECT_FALSE(took(automatic()));
}

TEST_F(Events, AWaitForAllSleepsUntilTheLast) {
    kx::EventSet set = both();
    std::atomic<bool> last = false;
    std::thread signaller([&] {
        manual().signal();
        nap(milliseconds(10));
        last = true;
        automatic().signal();
    });
    set.wait_all();
    EXPECT_TRUE(last);
    signaller.join();
}

TEST_F(Events, AWaitForAllThatExpiresHasTakenWhatItFound) {
    kx::EventSet set = both();
    automatic().signal();
    EXPECT_FALSE(set.wait_all_for(1ms));
    EXPECT_FALSE(took(automatic()));
    EXPECT_FALSE(set.wait_all_for(0s));
    EXPECT_FALSE(set.wait_all_for(-1us)) << "not without limit";
}

TEST_F(Events, ASetIsMadeOfWhatIsContiguous) {
    const std::vector<kx::Event*> list = {&automatic(), &manual()};
    kx::EventSet set(list);
    manual().signal();
    EXPECT_EQ(set.wait_any(), 1u);
}

TEST_F(Events, AnEmptySetIsThrown) {
    EXPECT_EQ(code_of([] { kx::EventSet set(std::span<kx::Event* const>{}); }),
              KC_CODE_INVALID_ARGUMENT);
}

TEST_F(Events, AWaitWithoutMemoryIsThrown) {
    kx::EventSet set = both();
    const HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { set.wait_any(); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { set.wait_all(); }), KC_CODE_NO_RESOURCES);
}

}  // namespace
}  // namespace osal_test
