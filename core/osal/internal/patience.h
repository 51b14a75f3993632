// Patience with a lock that others hold for short turns.
//
// A thread that finds such a lock taken pauses for longer and longer before it goes to sleep for
// it, some 20 microseconds in all. Whoever takes one turn after the other then keeps the lock, with
// the memory that it guards, in its core's cache, instead of handing both over after each turn.
#pragma once

namespace osal {

// True as soon as the attempt succeeds; false when patience is at its end.
template <class Attempt>
bool patiently(Attempt attempt) {
    for (int turns = 50; turns <= 400; turns *= 2) {
        if (attempt()) return true;
        for (int i = 0; i < turns; ++i)
            __builtin_ia32_pause();
    }
    return false;
}

}  // namespace osal
