// Threads of tests.
#pragma once

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>

namespace osal_test {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// Long enough that a loaded machine gets there; the tests wait for conditions, not for time.
constexpr auto kPatience = std::chrono::seconds(30);

inline void nap(std::chrono::nanoseconds time = milliseconds(1)) {
    std::this_thread::sleep_for(time);
}

// Waits until a condition holds; false if it never did.
inline bool eventually(const std::function<bool()>& condition) {
    const auto end = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() > end) return false;
        nap();
    }
    return true;
}

// ThreadSanitizer reports the misuse of a mutex as such, whatever becomes of it.
// Nor does it let a fork child of a process with threads start any.
#if defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_THREAD_SANITIZER() GTEST_SKIP() << "misuses a platform mutex on purpose"
#define SKIP_THREADS_OF_CHILDREN_UNDER_THREAD_SANITIZER() GTEST_SKIP() << "cannot be watched"
#else
#define SKIP_UNDER_THREAD_SANITIZER() ((void)0)
#define SKIP_THREADS_OF_CHILDREN_UNDER_THREAD_SANITIZER() ((void)0)
#endif

// helgrind reports more kinds of misuse than the platform minds.
bool under_helgrind();
#define SKIP_UNDER_HELGRIND() \
    if (under_helgrind()) GTEST_SKIP() << "misuses a platform lock on purpose"

// Cancellation unwinds frames that AddressSanitizer has not seen returning; this makes their stack
// usable again. Does nothing otherwise.
void forget_stack_of_this_thread();

// A raw thread that can be cancelled, which std::thread cannot; joined at the end.
class RawThread {
  public:
    explicit RawThread(std::function<void()> body) : body_(std::move(body)) {
        pthread_create(&id_, nullptr, &RawThread::run, this);
    }
    ~RawThread() { join(); }
    RawThread(const RawThread&) = delete;
    RawThread& operator=(const RawThread&) = delete;

    void cancel() { pthread_cancel(id_); }
    // True if the thread was cancelled.
    bool join() {
        if (!joined_) pthread_join(id_, &result_);
        joined_ = true;
        return result_ == PTHREAD_CANCELED;
    }
    bool done() const { return done_; }

  private:
    struct Unwound {
        ~Unwound() { forget_stack_of_this_thread(); }
    };
    static void* run(void* self) {
        Unwound unwound;
        static_cast<RawThread*>(self)->body_();
        static_cast<RawThread*>(self)->done_ = true;
        return nullptr;
    }

    std::function<void()> body_;
    pthread_t id_ = {};
    void* result_ = nullptr;
    bool joined_ = false;
    std::atomic<bool> done_ = false;
};

// The result of a call made on another thread.
template <class Function>
auto elsewhere(Function function) {
    std::optional<decltype(function())> result;
    RawThread([&] { result = function(); }).join();
    return *result;
}

}  // namespace osal_test
