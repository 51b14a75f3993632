// Slow side of the pool locks.
#include "osal/internal/pool_lock.h"

namespace osal {
namespace {

constexpr std::uintptr_t kNobody = 0;
constexpr std::uintptr_t kEnded = 1;

// Caller holds the pool's mutex, so one thread at a time gets here.
void end_bias(PoolBias& bias) {
    bias.owner.store(kEnded);
    process_barrier();
    // Either the owner saw the end, or its mark is visible here by now.
    while (bias.busy.load(std::memory_order_acquire) != 0)
        pause_for_mark();
}

}  // namespace

void enter_locked(Mutex& mutex, PoolBias& bias) {
    mutex.lock();
    const std::uintptr_t owner = bias.owner.load(std::memory_order_relaxed);
    if (owner == kEnded) return;
    if (owner != kNobody) return end_bias(bias);
    // The first section runs under the mutex; the next ones of this thread need it no more.
    if (barrier_granted()) bias.owner.store(thread_token(), std::memory_order_relaxed);
}

}  // namespace osal
