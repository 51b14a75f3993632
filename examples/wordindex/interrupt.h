// Ctrl-C: the first one asks the program to come to an end, the second one ends it.
#pragma once

namespace wordindex {

void catch_interrupt();
bool interrupted();

}  // namespace wordindex
