// A barrier that makes every running thread of the process order its memory accesses.
//
// It lets one side of a handshake get by with plain stores: whoever does something often marks it
// with a store and a compiler fence, and whoever must wait for that, seldom, pays for the barrier
// (the membarrier system call). Behind it either the mark is visible here or what this thread wrote
// before is visible there.
#pragma once

#include <cstdint>

namespace osal {

// The address of the thread's control block: unique among live threads. A later thread may get it
// again.
inline std::uintptr_t thread_token() {
    std::uintptr_t token;
    asm("mov %%fs:0, %0" : "=r"(token));
    return token;
}

// Asks the kernel for the barrier. Called at start-up.
void request_barrier();

// Whether it was granted. Until then nobody may rely on plain stores.
bool barrier_granted();

// The barrier. Where the kernel refuses it by now, a pause that is long enough to have its effect.
void process_barrier();

// Sleeps between two looks at a mark. No cancellation point.
void pause_for_mark();

}  // namespace osal
