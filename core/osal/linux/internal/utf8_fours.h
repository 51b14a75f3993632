// UTF-8 of four units at a time, on processors that can shuffle bytes.
#pragma once

#include "osal/linux/internal/cursor.h"

namespace osal::fast {

// Finds out what the processor can do. For start-up.
void look_at_processor();

// Takes up to count units by fours, as many as have room for what is written of them, and stops
// before four of which one is a surrogate. Does nothing on a processor that cannot.
void pass_fours(FromWide& at, std::size_t count);

}  // namespace osal::fast
