// The library's own threads, from start to their very end.
//
// Such a thread counts itself out before it ends, and shutdown polls that count. But a thread whose
// count is gone still runs code of the library, which may be unloaded as soon as shutdown returns.
// So a thread on its way out enters itself in a chain of one link: it takes over the thread that
// was there and joins it. Whoever joins the last one has then seen all of them end. Any number of
// threads needs one word.
#pragma once

#include <signal.h>

#include "osal/types.h"

namespace osal {

using ThreadRoutine = void* (*)(void*);

// Starts a thread with default attributes in which all signals but those of a fault are blocked.
// False if there is none.
bool start_library_thread(ThreadRoutine routine, void* argument);

// Blocks all signals but those of a fault for the calling thread; returns what was blocked before.
sigset_t block_signals_but_faults();

// First in a library thread: names it. 15 characters at most.
void enter_library_thread(const char* name);

// Last in a library thread: counts it out and ends it.
[[noreturn]] void leave_library_thread(INT32& live_count);

// Returns when every thread that left has ended. Caller has seen the counts at zero.
void join_library_threads();

// Whether this process is a fork child, at any remove, of the one that started library threads,
// which did not come along, and was not told yet. If so it owes them nothing from now on.
bool forget_threads_of_parent();

}  // namespace osal
