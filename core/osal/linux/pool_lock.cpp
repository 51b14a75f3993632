// Slow side of the pool locks, and the memory barrier that makes their fast side possible.
#include "osal/internal/pool_lock.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace osal {
namespace {

constexpr std::uintptr_t kNobody = 0;
constexpr std::uintptr_t kEnded = 1;

constexpr long kDrainNs = 10'000'000;
constexpr long kBusyPollNs = 10'000;

constinit std::atomic<bool> barrier_granted{false};

long membarrier(int command) {
    return syscall(SYS_membarrier, command, 0, 0);
}

// Not nanosleep(), which is a cancellation point, nor sched_yield(), with which a real-time thread
// would keep the processor from the thread that it waits for.
void pause_ns(long duration_ns) {
    const timespec duration = {0, duration_ns};
    syscall(SYS_nanosleep, &duration, nullptr);
}

// Refused only where a sandbox was closed after start-up. A store reaches memory far sooner than
// the pause ends, since even an interrupted processor drains its stores.
void order_against_owner() {
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0) pause_ns(kDrainNs);
}

// Caller holds the pool's mutex, so one thread at a time gets here.
void end_bias(PoolBias& bias) {
    bias.owner.store(kEnded);
    order_against_owner();
    // Either the owner saw the end, or its mark is visible here by now.
    while (bias.busy.load(std::memory_order_acquire) != 0)
        pause_ns(kBusyPollNs);
}

}  // namespace

void enable_pool_bias() {
    barrier_granted.store(membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0);
}

void enter_locked(Mutex& mutex, PoolBias& bias) {
    mutex.lock();
    const std::uintptr_t owner = bias.owner.load(std::memory_order_relaxed);
    if (owner == kEnded) return;
    if (owner != kNobody) return end_bias(bias);
    // The first section runs under the mutex; the next ones of this thread need it no more.
    if (barrier_granted.load(std::memory_order_relaxed))
        bias.owner.store(thread_token(), std::memory_order_relaxed);
}

}  // namespace osal
