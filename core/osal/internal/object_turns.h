// Turns of the instance lock.
//
// Two turns of a lock of the services cost more than all the rest of a creation and a deletion, and
// most instances are used by one thread at a time. So the instance lock is biased (bias.h) to the
// first thread that takes it exclusively: that thread's brief turns and its shared ones need no
// lock of the services. A brief turn runs no client routine and waits for nothing, so that whoever
// ends the bias hardly waits either; others who share the lock pass a shared one. Every other turn
// takes the lock of the services, also by the thread that has the bias, and ends another thread's.
// That thread gets the bias back when it has taken the lock many times in a row; how many doubles
// each time, so that threads which take turns stay with the lock, and are patient with each other.
#pragma once

#include "osal/internal/bias.h"
#include "osal/internal/patience.h"

namespace osal {

// All zero: nobody has taken the lock yet.
struct Turns {
    Bias bias;
    // Guarded by the lock, exclusively for a change.
    std::uintptr_t thread;    // whose the bias is, now or again
    UINT32 needed;            // turns in a row that it takes to get it back
    std::atomic<UINT32> run;  // its exclusive turns since another thread's last one
    // Whether somebody has the lock exclusively. Only a hint, which keeps two from running into
    // each other at the lock: who loses patience goes on to the lock all the same.
    std::atomic<bool> taken;
};

// Before the lock is taken exclusively.
inline void let_others_out(const Turns& turns) {
    patiently([&] { return !turns.taken.load(std::memory_order_relaxed); });
}

// To be called with the lock held, before anything that it guards is looked at.
void settle_bias(Turns& turns, bool exclusive);

}  // namespace osal
