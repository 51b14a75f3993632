// Printing what the library says of its use.
#pragma once

#include "vocabulary.h"

namespace wordindex {

// Prints the usage counters of every instance and the objects of every context to standard error.
void print_statistics(const Client& client, const Vocabulary& words);

}  // namespace wordindex
