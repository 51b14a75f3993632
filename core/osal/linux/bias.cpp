// End of a lock's bias.
#include "osal/internal/bias.h"

namespace osal {
namespace {

// Most of an owner's sections are over before a sleep would begin.
constexpr int kLooks = 200;

// How the owner is inside when it is seen like that or not at all.
Inside await_owner(const Bias& bias, Inside harmless) {
    for (int look = 0;; ++look) {
        const Inside found = bias.busy.load(std::memory_order_acquire);
        if (found == Inside::kNot || found == harmless) return found;
        if (look < kLooks)
            __builtin_ia32_pause();
        else
            pause_for_mark();
    }
}

// Behind this either the owner saw the end, or its mark is visible here.
void announce_end(Bias& bias) {
    bias.owner.store(Bias::kEnding);
    process_barrier();
}

}  // namespace

void end_bias(Bias& bias) {
    announce_end(bias);
    await_owner(bias, Inside::kNot);
    bias.owner.store(Bias::kEnded);
}

void end_bias_shared(Bias& bias) {
    announce_end(bias);
    if (await_owner(bias, Inside::kShared) == Inside::kNot) bias.owner.store(Bias::kEnded);
}

}  // namespace osal
