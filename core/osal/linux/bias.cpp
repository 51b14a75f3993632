// End of a lock's bias.
#include "osal/internal/bias.h"

namespace osal {
namespace {

// Sections under a bias are short: most are over before a sleep would begin.
bool left_soon(const Bias& bias) {
    constexpr int kLooks = 200;
    for (int i = 0; i < kLooks; ++i) {
        if (bias.busy.load(std::memory_order_acquire) == 0) return true;
        __builtin_ia32_pause();
    }
    return false;
}

}  // namespace

void end_bias(Bias& bias) {
    bias.owner.store(Bias::kEnding);
    process_barrier();
    // Either the owner saw the end, or its mark is visible here by now.
    while (!left_soon(bias))
        pause_for_mark();
    bias.owner.store(Bias::kEnded);
}

}  // namespace osal
