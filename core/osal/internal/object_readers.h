// Look-ups by handle that take no lock.
//
// Most look-ups meet a plain live object, and two turns of the instance lock cost more than all the
// rest of one. Such a look-up adds its reference by one atomic step on the object's state word:
// flags, marks, generation and count together. The step succeeds only if all of them are what was
// looked at, so it takes effect at a moment at which the handle named the object, the object was
// live and somebody had a reference of it. Everything else is decided under the instance lock, all
// refusals among it: a handle that is not good now may become so while the lock is held.
//
// What makes that safe:
// - An object that becomes live gets its flags last, when count, generation and lock are in place.
// - One that is being ended is marked in its state word before its count may reach zero; a count
//   goes to zero under the instance lock only.
// - The memory: whoever looks marks itself as a reader for the time. A block (and its part of the
//   index) is freed after its entry was cleared and every reader was seen outside once.
//
// Threads: each has one cell of the library's, by a hash. The first thread of a cell owns it and
// marks itself with plain stores, which the freeing of a block makes up for with a process-wide
// barrier (barrier.h); others that fall on the cell count themselves in. So a look-up writes no
// word that another thread writes, but for the object's. An instance notes which thread looks into
// it: as long as that is the one that frees a block, there is nobody to wait for.
#pragma once

#include <atomic>

#include "osal/internal/barrier.h"
#include "osal/types.h"

typedef struct _Object* pObject;
typedef struct _ObjectInfo* pObjectInfo;

namespace osal {

// All zero: no reader, no owner. An owner stays, gone or not; the next thread with its control
// block goes on as the owner.
struct alignas(128) ReaderCell {
    std::atomic<std::uintptr_t> owner;  // thread_token(), or 0
    std::atomic<UINT32> busy;           // 1 while the owner looks
    std::atomic<UINT32> others;         // how many others look
};

// Who looks into an instance without its lock: nobody, one thread or many.
struct Lookers {
    static constexpr std::uintptr_t kNobody = 0;
    static constexpr std::uintptr_t kMany = 1;
    std::atomic<std::uintptr_t> thread;  // thread_token(), or one of the above
};

// The object that a handle names, with a reference added. Null: ask again under the instance lock.
pObject reference_unlocked(pObjectInfo oi, UINT32 handle);

// Waits until every look-up into an instance that was under way has ended. Caller holds the
// instance lock.
void await_readers(pObjectInfo oi);

}  // namespace osal
