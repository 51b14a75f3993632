// Counting the words of files.
#pragma once

#include <string>

#include "word_table.h"

namespace wordindex {

struct Totals {
    UINT64 files = 0;
    UINT64 bytes = 0;
    UINT64 words = 0;

    Totals& operator+=(const Totals& other) {
        files += other.files;
        bytes += other.bytes;
        words += other.words;
        return *this;
    }
};

// Counts one file into an empty table. Returns 0, or the errno value of what could not be opened or
// read; table and totals then hold what came before and should be dropped.
int count_file(const Client& client, const std::string& path, WordTable& table, Totals& totals);

}  // namespace wordindex
