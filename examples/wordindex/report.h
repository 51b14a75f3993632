// Printing the result.
#pragma once

#include "options.h"
#include "summary.h"

namespace wordindex {

// Prints the figures of each owner and of all, and the most frequent words, equally frequent ones
// by name, to standard output, in the terminal's code page, which is the OEM page. False if that
// failed.
bool print_report(const Client& client, const Options& options, const Summary& summary);

}  // namespace wordindex
