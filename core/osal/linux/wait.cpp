// Deadlines, and the wait on a condition.
#include "osal/linux/internal/wait.h"

#include <limits>

#include "osal/internal/valgrind.h"

namespace osal {
namespace {

constexpr INT64 kMicrosecondsPerSecond = 1'000'000;
constexpr UINT64 kNanosecondsPerSecond = 1'000'000'000;

// Leaves room for the carry from the nanoseconds.
time_t clamped_sum(time_t now, INT64 seconds) {
    constexpr time_t kLast = std::numeric_limits<time_t>::max() - 1;
    time_t sum;
    if (__builtin_add_overflow(now, seconds, &sum) || sum > kLast) return seconds < 0 ? 0 : kLast;
    return sum < 0 ? 0 : sum;
}

}  // namespace

// Contract: the fraction is taken of the unsigned product. For a negative time-out that is no whole
// deadline back in time: up to a second is added, so that one of less than a second may wait.
timespec deadline_after(INT64 timeout_us) {
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    const UINT64 fraction = static_cast<UINT64>(timeout_us) * 1000 % kNanosecondsPerSecond;
    time.tv_sec = clamped_sum(time.tv_sec, timeout_us / kMicrosecondsPerSecond);
    time.tv_nsec += static_cast<long>(fraction);
    if (time.tv_nsec >= static_cast<long>(kNanosecondsPerSecond)) {
        time.tv_nsec -= static_cast<long>(kNanosecondsPerSecond);
        ++time.tv_sec;
    }
    return time;
}

namespace {

// A wait on its way; ended by ended() or by cancellation.
class Waiting {
  public:
    Waiting(pthread_cond_t* condition, pthread_mutex_t* mutex)
        : condition_(condition), mutex_(mutex) {}
    ~Waiting() {
        if (condition_ != nullptr) announce_cancelled_wait(condition_, mutex_);
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    int ended(int result) {
        condition_ = nullptr;
        return result;
    }

  private:
    pthread_cond_t* condition_;
    pthread_mutex_t* const mutex_;
};

}  // namespace

// A cancelled thread leaves this frame behind AddressSanitizer's back: it must not be marked.
NO_ADDRESS_CHECKS int wait_once(pthread_cond_t* condition, Mutex& mutex, INT64 timeout_us) {
    Waiting waiting(condition, &mutex.native);
    if (timeout_us == kWithoutLimit)
        return waiting.ended(pthread_cond_wait(condition, &mutex.native));
    const timespec deadline = deadline_after(timeout_us);
    return waiting.ended(pthread_cond_timedwait(condition, &mutex.native, &deadline));
}

}  // namespace osal
