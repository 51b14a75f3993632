// What is reported: the figures and words of each owner, and those of all of them together.
#pragma once

#include <map>
#include <string>

#include "job.h"

namespace wordindex {

struct OwnerSummary {
    Totals totals;
    UINT64 distinct = 0;
    UINT64 top_count = 0;
    std::basic_string<WCHAR> top_word;  // the most frequent one; of equals the first by name
};

struct Summary {
    Summary(const Client& client, UINT32 buckets) : words(client, buckets) {}

    Totals totals;
    WordTable words;
    std::map<uid_t, OwnerSummary> owners;  // those of whom a file was counted
    UINT64 elapsed_100ns = 0;
};

// Sums up a job that has run.
void summarize(const Job& job, Summary& summary);

}  // namespace wordindex
