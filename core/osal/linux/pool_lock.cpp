// Slow side of the pool locks.
#include "osal/internal/pool_lock.h"

namespace osal {

void enter_locked(Mutex& mutex, Bias& bias) {
    mutex.lock();
    const std::uintptr_t owner = bias.owner.load(std::memory_order_relaxed);
    if (owner == Bias::kEnded) return;
    if (owner != Bias::kNobody) return end_bias(bias);
    // The first section runs under the mutex; the next ones of this thread need it no more.
    if (barrier_granted()) bias.owner.store(thread_token(), std::memory_order_relaxed);
}

}  // namespace osal
