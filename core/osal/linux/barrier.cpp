// The process-wide memory barrier; see the header.
#include "osal/internal/barrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "osal/internal/valgrind.h"

namespace osal {
namespace {

constexpr long kDrainNs = 10'000'000;
constexpr long kMarkPollNs = 10'000;

constinit std::atomic<bool> granted{false};

long membarrier(int command) {
    return syscall(SYS_membarrier, command, 0, 0);
}

// Not nanosleep(), which is a cancellation point, nor sched_yield(), with which a real-time thread
// would keep the processor from the thread that it waits for.
void pause_ns(long duration_ns) {
    const timespec duration = {0, duration_ns};
    syscall(SYS_nanosleep, &duration, nullptr);
}

}  // namespace

// valgrind takes no part in such barriers and could not follow what they order.
void request_barrier() {
    granted.store(!under_valgrind() && membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0);
}

bool barrier_granted() {
    return granted.load(std::memory_order_relaxed);
}

// Refused only where a sandbox was closed after start-up. A store reaches memory far sooner than
// the pause ends, since even an interrupted processor drains its stores.
void process_barrier() {
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0) pause_ns(kDrainNs);
}

void pause_for_mark() {
    pause_ns(kMarkPollNs);
}

}  // namespace osal
