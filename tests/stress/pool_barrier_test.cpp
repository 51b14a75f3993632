// Ending a bias when the kernel refuses the barrier after start-up, as in a closed sandbox.
#include <errno.h>
#include <sys/syscall.h>
#include <time.h>

#include <thread>

#include "osal/internal/valgrind.h"
#include "support/interpose.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

int barriers_refused;
long pause_ns;

long stand_in_syscall(long number, const timespec* duration, ...) {
    if (number == SYS_membarrier) {
        ++barriers_refused;
        return -1;
    }
    EXPECT_EQ(number, SYS_nanosleep);
    pause_ns += duration->tv_nsec;
    return 0;
}

class RefusedBarrier : public ServiceTest {};

TEST_F(RefusedBarrier, IsMadeUpForByAPause) {
    if (osal::under_valgrind()) GTEST_SKIP() << "no mutex gets a bias under valgrind";
    EXPECT_EQ(KxFreeMemory(osal, KxAllocPagedMemory(osal, 8)), KC_OK);
    Interpose hook("osal.so", "syscall", &stand_in_syscall);
    std::thread([this] {
        EXPECT_EQ(KxFreeMemory(osal, KxAllocPagedMemory(osal, 8)), KC_OK);
    }).join();
    EXPECT_EQ(barriers_refused, 1);
    EXPECT_EQ(pause_ns, 10'000'000);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 16u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

}  // namespace
}  // namespace osal_test
