// A lock's bias: the right of one thread to take it without a locked instruction.
//
// The thread that a lock is biased to marks itself busy with plain stores. Any other thread first
// takes the lock itself, ends the bias and waits until its holder is out; from then on the lock
// alone decides. A process-wide memory barrier, paid by the thread that ends the bias, orders the
// two sides.
//
// After fork a bias of another thread is ended in the child like any other, as long as that thread
// was not inside; a child of a threaded process may not assume more of a mutex either.
#pragma once

#include <atomic>
#include <cstdint>

#include "osal/internal/barrier.h"
#include "osal/types.h"

namespace osal {

// How the owner is inside.
enum class Inside : UINT32 { kNot = 0, kExclusively, kShared };

// Who a lock is biased to. All zero: nobody yet.
struct Bias {
    static constexpr std::uintptr_t kNobody = 0;
    static constexpr std::uintptr_t kEnded = 1;
    static constexpr std::uintptr_t kEnding = 2;

    std::atomic<std::uintptr_t> owner;  // thread_token(), or one of the above
    std::atomic<Inside> busy;
};

// True if the calling thread is inside by its bias; it then leaves with leave_biased. False also if
// it is inside already.
inline bool enter_biased(Bias& bias, Inside how = Inside::kExclusively) {
    const std::uintptr_t self = thread_token();
    if (bias.owner.load(std::memory_order_relaxed) != self) [[unlikely]]
        return false;
    // A thread that got the control block of one that is gone continues its bias; this orders its
    // section behind the last one of that thread.
    if (bias.busy.load(std::memory_order_acquire) != Inside::kNot) [[unlikely]]
        return false;
    // A release for those who share: they are behind what the owner did before.
    bias.busy.store(how, std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // made a real one by process_barrier
    if (bias.owner.load(std::memory_order_acquire) == self) [[likely]]
        return true;
    bias.busy.store(Inside::kNot, std::memory_order_release);
    return false;
}

inline void leave_biased(Bias& bias) {
    bias.busy.store(Inside::kNot, std::memory_order_release);
}

// Ends another thread's bias and waits until that thread is out. Caller holds the lock, so that
// nobody begins a bias meanwhile.
void end_bias(Bias& bias);

// The same for a caller that holds the lock shared: the owner may be inside in the same way, and
// others may be ending the bias.
void end_bias_shared(Bias& bias);

}  // namespace osal
