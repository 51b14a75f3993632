// The locks of the two memory pools: a mutex that one thread may take without a locked instruction.
//
// Most instances are used by one thread, and two uncontended mutex pairs cost four times what
// malloc and free cost. So a pool's mutex is biased (bias.h) to the first thread that takes it,
// until another thread comes.
//
// Only list and counter updates are done under these locks: nothing blocks, calls out or can be
// cancelled inside.
#pragma once

#include "osal/internal/bias.h"
#include "osal/internal/mutex.h"

namespace osal {

// Takes the mutex, and ends another thread's bias or begins one for this thread.
void enter_locked(Mutex& mutex, Bias& bias) ACQUIRE(mutex);

template <class Section>
[[gnu::noinline]] auto run_locked(Mutex& mutex, Bias& bias, Section section) {
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
[[gnu::always_inline]] inline auto with_pool_lock(Mutex& mutex, Bias& bias, Section section) {
    if (!enter_biased(bias)) [[unlikely]]
        return run_locked(mutex, bias, section);
    auto result = section();
    leave_biased(bias);
    return result;
}

}  // namespace osal
