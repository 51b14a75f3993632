// Printing the result.
#pragma once

#include "count.h"
#include "options.h"

namespace wordindex {

// Prints totals and the most frequent words, equally frequent ones by name, to standard output, in
// the terminal's code page, which is the OEM page.
// False if that failed.
bool print_report(const Client& client, const Options& options, const Totals& totals,
                  const WordTable& table, UINT64 elapsed_100ns);

}  // namespace wordindex
