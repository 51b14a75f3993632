// Locks through the C++ face.
#include "osal/lock.hpp"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "support/face_test.h"
#include "support/faults.h"
#include "support/threads.h"

namespace osal_test {
namespace {

class Locks : public FaceTest {
  protected:
    // Runs a callable on another thread.
    template <class Call>
    static auto elsewhere(Call call) {
        decltype(call()) result{};
        std::thread([&] { result = call(); }).join();
        return result;
    }

    // Several threads that count under a lock, which ThreadSanitizer watches.
    template <class Guard, class Lock>
    static void count_under(Lock& lock) {
        int count = 0;
        std::vector<std::thread> threads;
        threads.reserve(4);
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (int round = 0; round < 1000; ++round) {
                    Guard guard(lock);
                    ++count;
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(count, 4000);
    }

    // With the heap exhausted nothing is made.
    template <class Lock>
    void expect_thrown_without_memory() {
        const HeapFault fault(1, true);
        EXPECT_EQ(code_of([&] { Lock lock(service); }), KC_CODE_FAILED);
        EXPECT_GT(fault.requests(), 0);
    }
};

int cancellation_type() {
    int type;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    pthread_setcanceltype(type, nullptr);
    return type;
}

TEST_F(Locks, AreCountedWhileTheyLive) {
    {
        kx::Mutex mutex(service);
        kx::SharedMutex shared(service);
        kx::SpinLock spin(service);
        EXPECT_NE(mutex.handle(), nullptr);
        EXPECT_NE(shared.handle(), nullptr);
        EXPECT_NE(spin.handle(), nullptr);
        EXPECT_EQ(counters().MutexInUse, 1u);
        EXPECT_EQ(counters().LockInUse, 1u);
        EXPECT_EQ(counters().SpinLockInUse, 1u);
    }
    EXPECT_EQ(counters().MutexInUse, 0u);
}

TEST_F(Locks, ThatCannotBeMadeAreThrown) {
    expect_thrown_without_memory<kx::Mutex>();
    expect_thrown_without_memory<kx::SharedMutex>();
    expect_thrown_without_memory<kx::SpinLock>();
}

TEST_F(Locks, ExcludeOtherThreads) {
    kx::Mutex mutex(service);
    kx::SharedMutex shared(service);
    kx::SpinLock spin(service);
    count_under<std::lock_guard<kx::Mutex>>(mutex);
    count_under<std::unique_lock<kx::Mutex>>(mutex);
    count_under<std::lock_guard<kx::SharedMutex>>(shared);
    count_under<std::scoped_lock<kx::SpinLock>>(spin);
}

TEST_F(Locks, AHeldLockSurvivesItsObject) {
    SKIP_UNDER_THREAD_SANITIZER();
    HANDLE handle;
    {
        kx::Mutex mutex(service);
        mutex.lock();
        handle = mutex.handle();
    }
    EXPECT_EQ(counters().MutexInUse, 1u);
    EXPECT_EQ(service.call<&IOsalVtbl::KxReleaseMutex>(handle), KC_OK);
    EXPECT_EQ(service.call<&IOsalVtbl::KxDestroyMutex>(handle), KC_OK);
}

TEST_F(Locks, TheMutexIsRecursive) {
    kx::Mutex mutex(service);
    {
        std::lock_guard once(mutex);
        std::lock_guard twice(mutex);
    }
    EXPECT_TRUE(elsewhere([&] {
        std::lock_guard lock(mutex);
        return true;
    })) << "free again";
}

TEST_F(Locks, AMutexServesAConditionVariable) {
    kx::Mutex mutex(service);
    std::condition_variable_any changed;
    bool ready = false;
    std::thread other([&] {
        std::lock_guard lock(mutex);
        ready = true;
        changed.notify_one();
    });
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return ready; });
    lock.unlock();
    other.join();
    EXPECT_TRUE(ready);
}

TEST_F(Locks, ReadersShareAndKeepWritersOut) {
    kx::SharedMutex shared(service);
    {
        std::shared_lock reader(shared);
        EXPECT_TRUE(
            elsewhere([&] { return std::shared_lock(shared, std::try_to_lock).owns_lock(); }));
        EXPECT_FALSE(elsewhere([&] { return shared.try_lock(); }));
    }
    EXPECT_TRUE(shared.try_lock());
    shared.unlock();
}

TEST_F(Locks, AWriterKeepsEverybodyOut) {
    kx::SharedMutex shared(service);
    std::unique_lock writer(shared);
    EXPECT_FALSE(elsewhere([&] { return shared.try_lock_shared(); }));
    EXPECT_FALSE(elsewhere([&] { return std::unique_lock(shared, std::try_to_lock).owns_lock(); }));
    EXPECT_EQ(code_of([&] { shared.lock(); }), KC_CODE_LOCK_NOT_ACQUIRED);
    EXPECT_EQ(code_of([&] { shared.lock_shared(); }), KC_CODE_LOCK_NOT_ACQUIRED);
    EXPECT_FALSE(shared.try_lock());
    writer.unlock();
    EXPECT_TRUE(elsewhere([&] { return std::shared_lock(shared).owns_lock(); }));
}

TEST_F(Locks, SharedMutexesAreTakenTogether) {
    kx::SharedMutex one(service), other(service);
    int count = 0;
    const auto add = [&](kx::SharedMutex& first, kx::SharedMutex& second) {
        for (int round = 0; round < 500; ++round) {
            std::scoped_lock both(first, second);
            ++count;
        }
    };
    std::thread there([&] { add(one, other); });
    add(other, one);
    there.join();
    EXPECT_EQ(count, 1000);
}

TEST_F(Locks, ASpinLockDefersCancellationForItsOwner) {
    kx::SpinLock spin(service);
    std::thread([&] {
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
        spin.lock();
        EXPECT_EQ(cancellation_type(), PTHREAD_CANCEL_DEFERRED);
        spin.unlock();
        EXPECT_EQ(cancellation_type(), PTHREAD_CANCEL_ASYNCHRONOUS);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    }).join();
}

// A waiter that came with another type must not change the one that the owner goes back to.
TEST_F(Locks, ASpinLockKeepsTheTypeOfItsOwner) {
    kx::SpinLock spin(service);
    std::atomic<bool> about_to_wait = false;
    spin.lock();
    std::thread waiter([&] {
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
        about_to_wait = true;
        spin.lock();
        spin.unlock();
        EXPECT_EQ(cancellation_type(), PTHREAD_CANCEL_ASYNCHRONOUS);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    });
    while (!about_to_wait)
        std::this_thread::yield();
    nap(milliseconds(20));
    spin.unlock();
    EXPECT_EQ(cancellation_type(), PTHREAD_CANCEL_DEFERRED);
    waiter.join();
}

}  // namespace
}  // namespace osal_test
