// Guesses where contexts keep their objects.
//
// A look-up in a context ends a chain of memory that is cold when there are many contexts: records
// of the attribute manager, the context's object manager, its bucket, the object. So the library
// remembers where the manager and the buckets of a context were when an object was last found
// there, and the next look-up has them fetched while the attribute manager still searches.
//
// A guess is fetched, never followed: it may be of another context with the same place in the
// table, or of a manager that is gone. Whoever finds it wrong notes the right one.
//
// Threads: any at once, without a lock.
#pragma once

#include <atomic>

#include "osal/iom.h"
#include "osal/iscom.h"

namespace osal {

// Addresses, 0 for none. Some that do not belong together are as good as any wrong guess.
struct Guess {
    std::atomic<uintptr_t> manager;
    std::atomic<uintptr_t> buckets;
    std::atomic<uintptr_t> block;  // of the last object
};

// The guess of an owner for a context.
Guess& guess_of(const void* owner, SCHANDLE context);

// Fetches what a look-up will read of the manager and, of its buckets, the one of an index. Returns
// at once.
void fetch_ahead(const Guess& guess, UINT32 index = 0);

// Notes the manager that an object was found in. The object is referenced.
void note_place(Guess& guess, const IOM* manager, PVOID object_data);

}  // namespace osal
