// What a library that nobody uses costs: its timer thread ticks, its workers sleep.
#include <thread>

#include <time.h>

#include "harness.h"
#include "library.h"

namespace {

bench::Ns processor_time() {
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<bench::Ns>(used.tv_sec) * 1e9 + static_cast<bench::Ns>(used.tv_nsec);
}

void idle(std::uint64_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"idle", "An idle library", "a millisecond in which nobody calls",
                          "The ratio is the part of one core that the process uses.", ""});
    bench::Library library;
    bench::Instance osal;
    report.race("Idle", "nothing armed or queued", 1,
                {{"wall clock", idle},
                 {"processor time",
                  [](std::uint64_t n) {
                      const bench::Ns begin = processor_time();
                      idle(n);
                      return processor_time() - begin;
                  }}},
                {.fixed_count = report.quick() ? 50u : 200u, .divide_rounds = 4});
    return report.finish();
}
