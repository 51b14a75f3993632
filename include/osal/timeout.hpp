// Durations as the services take them.
//
//     service.call<&IOsalVtbl::KxWaitForThreadExit>(handle, kx::to_timeout(20ms));
#pragma once

#include <chrono>
#include <limits>
#include <ratio>

#include "osal/types.h"

namespace kx {

// Microseconds, rounded up. What is negative, or no number, is 0, never "without limit"; what is
// more than half of the range is its end, which no clock reaches.
template <class Rep, class Period>
constexpr INT64 to_timeout(std::chrono::duration<Rep, Period> duration) {
    constexpr double kMost = 0x1p62;
    const double estimate = std::chrono::duration<double, std::micro>(duration).count();
    if (!(estimate > 0)) return 0;
    if (estimate >= kMost) return std::numeric_limits<INT64>::max();
    return std::chrono::ceil<std::chrono::duration<INT64, std::micro>>(duration).count();
}

}  // namespace kx
