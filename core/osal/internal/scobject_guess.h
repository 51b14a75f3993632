// Guesses where contexts keep their objects.
//
// A look-up in a context ends a chain of memory that is cold when there are many contexts: records
// of the attribute manager, the context's object manager, its bucket, the object. So the library
// remembers where a context's manager, its buckets and the object's block were when one was last
// found there, and the next look-up has them fetched while the attribute manager still searches.
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

// The guess where an owner's objects of a context are. Has what a look-up will read of the manager
// fetched, and of its buckets the one of an index. Returns at once.
Guess& fetch_ahead(const void* owner, SCHANDLE context, UINT32 index = 0);

// Notes the manager that an object was found in. The object is referenced.
void note_place(Guess& guess, const IOM* manager, PVOID object_data);

}  // namespace osal
