// System time.
#include <time.h>

#include "osal/time.h"

void KxGetSystemTime(PIOsal, PUINT64 pCurrentTime) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *pCurrentTime = static_cast<UINT64>(now.tv_sec) * 10'000'000 +
                    static_cast<UINT64>(now.tv_nsec) / 100 + KX_UNIX_EPOCH;
}
