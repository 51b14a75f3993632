#include "statistics.h"

#include <stdio.h>

namespace wordindex {
namespace {

struct Counter {
    const char* name;
    UINT32 GEN_OSAL_STATS_INFO::*value;
};
#define COUNTER(name) {#name, &GEN_OSAL_STATS_INFO::name},
constexpr Counter kCounters[] = {OSAL_COUNTERS(COUNTER)};
#undef COUNTER

}  // namespace

void print_statistics(const Client& client, const Vocabulary& words) {
    const std::vector<GEN_OSAL_STATS_INFO> instances = client.statistics();
    fprintf(stderr, "\n%-30s", "instance");
    for (const GEN_OSAL_STATS_INFO& instance : instances)  // the library's own one has no name
        fprintf(stderr, " %12s", instance.ModuleName[0] != 0 ? instance.ModuleName : "osal.so");
    for (const Counter& counter : kCounters) {
        fprintf(stderr, "\n%-30s", counter.name);
        for (const GEN_OSAL_STATS_INFO& instance : instances)
            fprintf(stderr, " %12u", instance.*counter.value);
    }
    fprintf(stderr, "\n\n%-30s %12s %12s %12s\n", "objects of user", "slots", "in use",
            "preallocated");
    for (const auto& [owner, objects] : words.object_counts())
        fprintf(stderr, "%-30u %12u %12u %12u\n", owner, objects.slots, objects.in_use,
                objects.preallocated);
}

}  // namespace wordindex
