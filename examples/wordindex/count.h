// Counting the words of files.
#pragma once

#include <functional>
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

// Counts one file into an empty table. Reports each piece read to `go_on`, which may end the count
// by returning false. Returns 0, the errno value of what could not be opened or read, or ECANCELED;
// unless 0, table and totals hold what came before and should be dropped.
int count_file(const Client& client, const std::string& path, WordTable& table, Totals& totals,
               const std::function<bool(std::size_t bytes)>& go_on);

}  // namespace wordindex
