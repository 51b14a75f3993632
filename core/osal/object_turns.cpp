// Turns of the instance lock; see the header.
#include "osal/internal/object_turns.h"

#include <algorithm>

namespace osal {
namespace {

constexpr UINT32 kFirstRun = 1'000;  // as many turns as pay for the end of a bias
constexpr UINT32 kLongestRun = UINT32{1} << 30;

// Of the thread whose the bias is, which has the lock exclusively: the bias begins with its first
// turn, and again after enough of them.
void run_on(Turns& turns, std::uintptr_t owner) {
    if (!barrier_granted()) return;
    const UINT32 run = turns.run.load(std::memory_order_relaxed) + 1;
    turns.run.store(run, std::memory_order_relaxed);
    if (owner != Bias::kNobody && run < turns.needed) return;
    turns.needed = turns.needed == 0 ? kFirstRun : std::min(turns.needed * 2, kLongestRun);
    turns.bias.owner.store(turns.thread, std::memory_order_relaxed);
}

}  // namespace

void settle_bias(Turns& turns, bool exclusive) {
    const std::uintptr_t self = thread_token();
    const std::uintptr_t owner = turns.bias.owner.load(std::memory_order_acquire);
    if (owner == self) return;
    if (owner != Bias::kNobody && owner != Bias::kEnded)
        exclusive ? end_bias(turns.bias) : end_bias_shared(turns.bias);
    if (exclusive && turns.thread == 0) turns.thread = self;
    if (turns.thread != self) {
        if (turns.run.load(std::memory_order_relaxed) != 0)
            turns.run.store(0, std::memory_order_relaxed);
    } else if (exclusive) {
        run_on(turns, owner);
    }
}

}  // namespace osal
