// What a library that nobody uses costs: its timer thread ticks, its workers sleep. Beside it, what
// a thread costs that does nothing but sleep as often: waking up is the kernel's work, not the
// library's.
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

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"idle", "An idle library", "a millisecond in which nobody calls",
                          "The ratio is the part of one core that is used. The last column is that "
                          "of one bare thread that sleeps ten milliseconds at a time.",
                          ""});
    bench::Library library;
    bench::Instance osal;
    report.race("Idle", "nothing armed or queued", 1,
                {{"wall clock", idle},
                 {"processor time", time_of_process},
                 {"a sleeping thread", time_of_sleeper}},
                {.fixed_count = report.quick() ? 100u : 1000u, .divide_rounds = 6});
    return report.finish();
}
