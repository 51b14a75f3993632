// The locks of the two memory pools: a mutex that one thread may take without a locked instruction.
//
// Most instances are used by one thread, and two uncontended mutex pairs cost four times what
// malloc and free cost. So a pool's mutex is biased to the first thread that takes it: that thread
// marks itself busy with plain stores. Any other thread first takes the mutex, ends the bias for
// good and waits until its holder is out; from then on the mutex alone decides. A process-wide
// memory barrier, paid by the thread that ends the bias, orders the two sides.
//
// Only list and counter updates are done under these locks: nothing blocks, calls out or can be
// cancelled inside. After fork a bias of another thread is ended in the child like any other, as
// long as that thread was not inside; a child of a threaded process may not assume more of a mutex
// either.
#pragma once

#include <atomic>
#include <cstdint>

#include "osal/internal/barrier.h"
#include "osal/internal/mutex.h"
#include "osal/types.h"

namespace osal {

// Who a pool's mutex is biased to. All zero: nobody yet.
struct PoolBias {
    std::atomic<std::uintptr_t> owner;  // thread_token(), kNobody or kEnded
    std::atomic<UINT32> busy;           // 1 while the owner is inside
};

// True if the calling thread is inside by its bias; it then leaves with leave_biased.
inline bool enter_biased(PoolBias& bias) {
    const std::uintptr_t self = thread_token();
    if (bias.owner.load(std::memory_order_relaxed) != self) [[unlikely]]
        return false;
    // A thread that got the control block of one that is gone continues its bias; this orders its
    // section behind the last one of that thread.
    (void)bias.busy.load(std::memory_order_acquire);
    bias.busy.store(1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // made a real one by process_barrier
    if (bias.owner.load(std::memory_order_acquire) == self) [[likely]]
        return true;
    bias.busy.store(0, std::memory_order_release);
    return false;
}

inline void leave_biased(PoolBias& bias) {
    bias.busy.store(0, std::memory_order_release);
}

// Takes the mutex, and ends another thread's bias or begins one for this thread.
void enter_locked(Mutex& mutex, PoolBias& bias) ACQUIRE(mutex);

template <class Section>
[[gnu::noinline]] auto run_locked(Mutex& mutex, PoolBias& bias, Section section) {
    enter_locked(mutex, bias);
    auto result = section();
    // The section that began a bias is released here to a thread that gets its owner's control
    // block. Elsewhere the word is 0 already and read by nobody.
    leave_biased(bias);
    mutex.unlock();
    return result;
}

// Runs a section, which must not throw, under the mutex of a pool; returns its result. The biased
// way makes no call, so what is inlined of it saves no registers: half of its cost was stores.
template <class Section>
[[gnu::always_inline]] inline auto with_pool_lock(Mutex& mutex, PoolBias& bias, Section section) {
    if (!enter_biased(bias)) [[unlikely]]
        return run_locked(mutex, bias, section);
    auto result = section();
    leave_biased(bias);
    return result;
}

}  // namespace osal
