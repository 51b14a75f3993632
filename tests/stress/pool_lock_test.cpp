// The biased lock of the memory pools, on its own: what it guards here are plain numbers, so a
// section that overlaps another loses a count, and ThreadSanitizer sees the race.
//
// OSAL_STRESS_ROUNDS multiplies the rounds.
#include "osal/internal/pool_lock.h"

#include <gtest/gtest.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "osal/internal/valgrind.h"

namespace osal_test {
namespace {

using osal::Bias;
using osal::Mutex;
using osal::with_pool_lock;

int rounds(int base) {
    const char* factor = std::getenv("OSAL_STRESS_ROUNDS");
    return factor != nullptr ? base * std::atoi(factor) : base;
}

void linger(std::size_t turns) {
    for (; turns > 0; --turns)
        asm volatile("");
}

struct Guarded {
    Mutex mutex = {PTHREAD_MUTEX_INITIALIZER};
    Bias bias = {};
    long first = 0, second = 0;  // always equal outside a section

    void add() {
        const bool equal = with_pool_lock(mutex, bias, [this] {
            const bool was_equal = first == second;
            ++first;
            linger(100);  // so that who comes finds the owner inside
            ++second;
            return was_equal;
        });
        if (!equal) ADD_FAILURE() << "inside another section";
    }
    bool biased_to(std::uintptr_t thread) const { return bias.owner == thread; }
    bool bias_ended() const { return bias.owner == Bias::kEnding || bias.owner == Bias::kEnded; }
};

class PoolLock : public testing::Test {
  protected:
    void SetUp() override {
        if (osal::under_valgrind()) GTEST_SKIP() << "no mutex gets a bias under valgrind";
        osal::request_barrier();
    }
};

TEST(PoolLockWithoutBarrier, StaysAPlainMutex) {
    Guarded guarded;
    guarded.add();
    guarded.add();
    EXPECT_TRUE(guarded.biased_to(0));
    EXPECT_EQ(guarded.first, 2);
}

TEST(PoolLockWithoutBarrier, ExcludesThreadsFromEachOther) {
    constexpr int kThreads = 3, kTurns = 2000;
    Guarded guarded;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (int turn = 0; turn < kTurns; ++turn)
                guarded.add();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(guarded.first, kThreads * kTurns);
    EXPECT_TRUE(guarded.biased_to(0));
}

TEST_F(PoolLock, IsBiasedToItsFirstThread) {
    Guarded guarded;
    guarded.add();
    guarded.add();
    EXPECT_TRUE(guarded.biased_to(osal::thread_token()));
    EXPECT_EQ(guarded.bias.busy, osal::Inside::kNot);
}

TEST_F(PoolLock, LosesItsBiasForGoodToASecondThread) {
    Guarded guarded;
    guarded.add();
    std::thread([&] { guarded.add(); }).join();
    EXPECT_TRUE(guarded.bias_ended());
    guarded.add();
    EXPECT_TRUE(guarded.bias_ended());
    EXPECT_EQ(guarded.first, 3);
}

TEST_F(PoolLock, IsNotEnteredWhileItsOwnerIsInside) {
    Guarded guarded;
    std::atomic<bool> inside = false, leave = false, entered = false;
    std::thread owner([&] {
        guarded.add();
        with_pool_lock(guarded.mutex, guarded.bias, [&] {
            inside = true;
            while (!leave)
                std::this_thread::yield();
            return 0;
        });
    });
    while (!inside)
        std::this_thread::yield();
    std::thread other([&] {
        guarded.add();
        entered = true;
    });
    while (!guarded.bias_ended())
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered);
    leave = true;
    owner.join();
    other.join();
    EXPECT_TRUE(entered);
}

// The owner is inside for most of its time when the others come; each round has a bias to end.
TEST_F(PoolLock, ExcludesTheOwnerFromThoseWhoEndItsBias) {
    constexpr int kOthers = 2, kTurns = 30;
    const int count = rounds(200);
    std::vector<Guarded> all(static_cast<std::size_t>(count));
    std::barrier start(1 + kOthers);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (Guarded& guarded : all) {
            guarded.add();
            start.arrive_and_wait();
            for (int turn = 0; turn < kTurns; ++turn)
                guarded.add();
        }
    });
    for (int other = 0; other < kOthers; ++other)
        threads.emplace_back([&, other] {
            for (std::size_t i = 0; i < all.size(); ++i) {
                start.arrive_and_wait();
                // From at once to when the owner is nearly through.
                linger(i % 50 * static_cast<unsigned>(20 + other));
                for (int turn = 0; turn < kTurns; ++turn)
                    all[i].add();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Guarded& guarded : all) {
        EXPECT_EQ(guarded.first, 1 + kTurns * (1 + kOthers));
        EXPECT_EQ(guarded.second, guarded.first);
        EXPECT_TRUE(guarded.bias_ended());
    }
}

TEST_F(PoolLock, IsBegunByOneOfManyThreadsThatComeAtOnce) {
    constexpr int kThreads = 3;
    std::vector<Guarded> all(static_cast<std::size_t>(rounds(200)));
    std::barrier start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (Guarded& guarded : all) {
                start.arrive_and_wait();
                for (int turn = 0; turn < 5; ++turn)
                    guarded.add();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Guarded& guarded : all)
        EXPECT_EQ(guarded.first, kThreads * 5);
}

TEST_F(PoolLock, OfItsOwnKeepsEachOfTwoThreadsBiased) {
    Guarded mine, other;
    std::uintptr_t other_token = 0;
    std::thread thread([&] {
        other_token = osal::thread_token();
        for (int turn = 0; turn < 20000; ++turn)
            other.add();
    });
    for (int turn = 0; turn < 20000; ++turn)
        mine.add();
    thread.join();
    EXPECT_TRUE(mine.biased_to(osal::thread_token()));
    EXPECT_TRUE(other.biased_to(other_token));
    EXPECT_EQ(mine.first, 20000);
    EXPECT_EQ(other.first, 20000);
}

// Threads one after the other: those that get the control block of the first continue its bias,
// any other ends it; every one sees what those before it did.
TEST_F(PoolLock, IsHandedOnWhenItsOwnerHasEnded) {
    Guarded guarded;
    for (int i = 0; i < 50; ++i)
        std::thread([&] {
            guarded.add();
            guarded.add();
        }).join();
    EXPECT_EQ(guarded.first, 100);
    guarded.add();
    EXPECT_TRUE(guarded.bias_ended());
}

TEST_F(PoolLock, OfAThreadThatIsNotThereAfterForkIsTakenOver) {
    Guarded guarded;
    std::atomic<bool> biased = false, done = false;
    std::thread owner([&] {
        guarded.add();
        guarded.add();
        biased = true;
        while (!done)
            std::this_thread::yield();
    });
    while (!biased)
        std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        guarded.add();
        _exit(guarded.first == 3 && guarded.bias_ended() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(guarded.bias_ended()) << "the parent's bias stays";
    done = true;
    owner.join();
}

TEST_F(PoolLock, StaysWithTheThreadThatForks) {
    Guarded guarded;
    guarded.add();
    const pid_t child = fork();
    if (child == 0) {
        guarded.add();
        _exit(guarded.biased_to(osal::thread_token()) && guarded.first == 2 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// A child inherits the permission to call for the barrier, without which it could not end a bias.
TEST_F(PoolLock, MayEndABiasInAChild) {
    const pid_t child = fork();
    if (child == 0) {
        const long result = syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
        _exit(result == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace osal_test
