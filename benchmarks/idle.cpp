// What a library that nobody uses costs: its timer thread rests, its workers sleep. With a timer
// armed that is not due, the thread ticks; beside it, what a thread costs that does nothing but
// sleep as often: waking up is the kernel's work, not the library's.
#include <thread>

#include <time.h>

#include "harness.h"
#include "library.h"

namespace {

constexpr std::uint64_t kTickMs = 10;

bench::Ns read(clockid_t clock) {
    timespec used;
    clock_gettime(clock, &used);
    return static_cast<bench::Ns>(used.tv_sec) * 1e9 + static_cast<bench::Ns>(used.tv_nsec);
}

void idle(std::uint64_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

bench::Ns time_of_process(std::uint64_t milliseconds) {
    const bench::Ns begin = read(CLOCK_PROCESS_CPUTIME_ID);
    idle(milliseconds);
    return read(CLOCK_PROCESS_CPUTIME_ID) - begin;
}

bench::Ns time_of_sleeper(std::uint64_t milliseconds) {
    bench::Ns used = 0;
    std::thread([&] {
        const bench::Ns begin = read(CLOCK_THREAD_CPUTIME_ID);
        for (const bench::Ns end = bench::now() + static_cast<bench::Ns>(milliseconds) * 1e6;
             bench::now() < end;)
            idle(kTickMs);
        used = read(CLOCK_THREAD_CPUTIME_ID) - begin;
    }).join();
    return used;
}

// Armed and never due.
class DistantTimer {
  public:
    explicit DistantTimer(PIOsal osal) : osal_(osal) {
        osal_->lpVtbl->KxAllocTimer(osal_, routine, nullptr, FALSE, &timer_);
        osal_->lpVtbl->KxScheduleTimer(osal_, timer_, UINT64_C(3'600'000'000));
    }
    ~DistantTimer() {
        osal_->lpVtbl->KxCancelTimer(osal_, timer_);
        osal_->lpVtbl->KxDestroyTimer(osal_, timer_);
    }
    DistantTimer(const DistantTimer&) = delete;
    DistantTimer& operator=(const DistantTimer&) = delete;

  private:
    static void* routine(HANDLE, PVOID) { return nullptr; }
    PIOsal osal_;
    HANDLE timer_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"idle", "An idle library", "a millisecond in which nobody calls",
                          "The ratio is the part of one core that is used. The last column is that "
                          "of one bare thread that sleeps ten milliseconds at a time.",
                          ""});
    bench::Library library;
    bench::Instance osal;
    const std::vector<bench::Contender> contenders = {{"wall clock", idle},
                                                      {"processor time", time_of_process},
                                                      {"a sleeping thread", time_of_sleeper}};
    const bench::Effort effort{.fixed_count = report.quick() ? 100u : 1000u, .divide_rounds = 6};
    report.race("Idle", "nothing armed or queued", 1, contenders, effort);
    DistantTimer timer(osal);
    report.race("Idle", "a timer armed", 1, contenders, effort);
    return report.finish();
}
