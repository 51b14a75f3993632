// Turns of an object manager's instance lock: whose bias it is, when it is ended and comes back,
// and that no two turns overlap.
//
// OSAL_STRESS_ROUNDS multiplies the rounds.
#include <algorithm>
#include <barrier>
#include <cstdlib>

#include "osal/internal/valgrind.h"
#include "support/object_test.h"

namespace osal_test {
namespace {

class ObjectTurns : public ObjectTest {
  protected:
    void SetUp() override {
        if (osal::under_valgrind()) GTEST_SKIP() << "no lock gets a bias under valgrind";
    }
    void turn_twice() { end(make_one()); }
    // Creates without a routine, so that nothing keeps the turn from being brief.
    PVOID make_one() {
        PVOID data = nullptr;
        EXPECT_EQ(
            om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
            KC_OK);
        return data;
    }
    bool is_mine() const { return info->turns.bias.owner == osal::thread_token(); }
    bool is_ended() const { return info->turns.bias.owner == osal::Bias::kEnded; }
    // How many creations and deletions it takes this thread to have the bias.
    int pairs_until_mine(int most) {
        int pairs = 0;
        for (; !is_mine() && pairs < most; ++pairs)
            turn_twice();
        return pairs;
    }
};
INSTANTIATE_TEST_SUITE_P(Of, ObjectTurns, testing::Values(Face::kFirst),
                         [](const auto&) { return "First"; });

TEST_P(ObjectTurns, AreBiasedToTheFirstThread) {
    for (UINT32 level : {0u, 3u}) {
        start({.level = level});
        EXPECT_EQ(info->turns.bias.owner, osal::Bias::kNobody);
        turn_twice();
        EXPECT_TRUE(is_mine());
        EXPECT_EQ(info->turns.bias.busy, osal::Inside::kNot);
        release();
        make();
    }
}

TEST_P(ObjectTurns, LookingDoesNotBeginABias) {
    start();
    stats();
    EXPECT_EQ(find(1), nullptr);
    EXPECT_EQ(info->turns.bias.owner, osal::Bias::kNobody);
}

TEST_P(ObjectTurns, OfAnotherThreadEndTheBias) {
    start();
    for (auto& other : std::vector<std::function<void()>>{
             [&] { turn_twice(); }, [&] { stats(); }, [&] { find(1); },
             [&] { reference(osal::handle_from(0x01010001)); }}) {
        turn_twice();
        EXPECT_TRUE(is_mine());
        RawThread(other).join();
        EXPECT_TRUE(is_ended());
        release();
        make();
        start();
    }
}

TEST_P(ObjectTurns, GiveTheBiasBackAfterARunThatDoubles) {
    start();
    turn_twice();
    const auto interrupt = [&] { RawThread([&] { turn_twice(); }).join(); };
    interrupt();
    const int first = pairs_until_mine(10'000);
    EXPECT_GE(first, 100);
    interrupt();
    for (int i = 0; i < first; ++i)
        turn_twice();
    EXPECT_TRUE(is_ended());
    EXPECT_NEAR(pairs_until_mine(10'000), first, 1);
}

TEST_P(ObjectTurns, OfOthersInARunStartItAnew) {
    start();
    turn_twice();
    RawThread([&] { turn_twice(); }).join();
    for (int i = 0; i < 100; ++i) {
        for (int n = 0; n < 20; ++n)
            turn_twice();
        RawThread([&] { stats(); }).join();
    }
    EXPECT_TRUE(is_ended());
}

// Two that look at the same time meet in their compare routines.
std::atomic<int> meeting = 0;
BOOLEAN meet(PVOID, PVOID) {
    ++meeting;
    return eventually([] { return meeting == 2; }) ? TRUE : FALSE;
}

TEST_P(ObjectTurns, WithACompareRoutineAreSharedWhoeverHasTheBias) {
    start();
    PVOID data = make_one();
    turn_twice();
    EXPECT_TRUE(is_mine());
    meeting = 0;
    const auto look = [&] {
        PVOID found = nullptr;
        EXPECT_EQ(om.FindObject(info, nullptr, meet, 0, 0, &found), KC_OK);
        EXPECT_EQ(found, data);
        om.DereferenceObject(info, data, 0);
    };
    RawThread other(look);
    look();
    other.join();
    end(data);
}

TEST_P(ObjectTurns, WaitForAClientRoutineOfTheThreadWithTheBias) {
    start();
    turn_twice();
    EXPECT_TRUE(is_mine());
    std::atomic<bool> looked = false;
    std::optional<RawThread> other;
    static std::function<void()> inside;
    inside = [&] {
        other.emplace([&] {
            EXPECT_EQ(stats().in_use, 1u);
            looked = true;
        });
        nap(milliseconds(20));
        EXPECT_FALSE(looked);
    };
    PVOID data = nullptr;
    const auto init = [](PVOID, PVOID) -> KCSTATUS {
        inside();
        return KC_OK;
    };
    EXPECT_EQ(om.CreateObject(info, nullptr, init, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              KC_OK);
    other->join();
    EXPECT_TRUE(looked);
    end(data);
}

// Those of a mutex are not shared: the second look begins when the first one has ended.
TEST_P(ObjectTurns, WithACompareRoutineExcludeEachOtherUnderAMutex) {
    static std::atomic<int> inside, most;
    inside = most = 0;
    start({.level = 3});
    PVOID data = make_one();
    turn_twice();
    EXPECT_TRUE(is_mine());
    const auto look = [&] {
        PVOID found = nullptr;
        om.FindObject(
            info, nullptr,
            [](PVOID, PVOID) -> BOOLEAN {
                most = std::max(most.load(), ++inside);
                nap(milliseconds(20));
                --inside;
                return FALSE;
            },
            0, 0, &found);
    };
    RawThread other(look);
    look();
    other.join();
    EXPECT_EQ(most, 1);
    end(data);
}

// The owner looks by its bias; a second look passes it, a change waits for both.
TEST_P(ObjectTurns, ThatChangeSomethingWaitForSharedOnesOfTheThreadWithTheBias) {
    start();
    PVOID data = make_one();
    turn_twice();
    EXPECT_TRUE(is_mine());
    std::atomic<bool> changed = false;
    std::optional<RawThread> changer;
    static std::function<void()> inside;
    inside = [&] {
        RawThread([&] { EXPECT_EQ(stats().in_use, 1u); }).join();
        changer.emplace([&] {
            turn_twice();
            changed = true;
        });
        nap(milliseconds(20));
        EXPECT_FALSE(changed);
    };
    PVOID found = nullptr;
    om.FindObject(
        info, nullptr,
        [](PVOID, PVOID) -> BOOLEAN {
            inside();
            return FALSE;
        },
        0, 0, &found);
    changer->join();
    EXPECT_TRUE(changed);
    EXPECT_TRUE(is_ended());
    end(data);
}

// In each round others come at a different moment of the turns of the thread with the bias. What
// the lock guards are plain numbers, so turns that overlap lose counts, and ThreadSanitizer sees
// the race.
TEST_P(ObjectTurns, DoNotOverlapWhenTheBiasIsEndedAndComesBack) {
    const char* factor = std::getenv("OSAL_STRESS_ROUNDS");
    const int rounds = 100 * (factor != nullptr ? std::atoi(factor) : 1);
    constexpr int kOthers = 2, kTurns = 30;
    std::barrier round(1 + kOthers);
    const auto work = [&](int who) {
        std::vector<PVOID> kept;
        for (int i = 0; i < rounds; ++i) {
            if (who == 0) start(), turn_twice();
            round.arrive_and_wait();
            if (who != 0)
                for (int linger = i % 50 * (20 + who); linger != 0; --linger)
                    asm volatile("");
            // Others come once more when the bias may have come back.
            for (int run = 0; run < 2; ++run) {
                for (int n = 0; n < kTurns; ++n)
                    kept.push_back(make_one()), turn_twice();
                if (who == 0) pairs_until_mine(2000);
            }
            round.arrive_and_wait();
            if (who == 0) {
                EXPECT_EQ(stats().in_use, 2u * kTurns * (1 + kOthers));
            }
            round.arrive_and_wait();
            for (PVOID data : kept)
                end(data);
            kept.clear();
            round.arrive_and_wait();
            if (who == 0) {
                EXPECT_EQ(stats().in_use, 0u);
                release();
                make();
            }
            round.arrive_and_wait();
        }
    };
    RawThread first([&] { work(1); }), second([&] { work(2); });
    work(0);
}

}  // namespace
}  // namespace osal_test
