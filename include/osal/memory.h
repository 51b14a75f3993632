/* Guarded pool memory.
 *
 * Each block lies between a header and a trailer that let a release detect a foreign pointer, an
 * overrun and a release through the wrong instance, and is counted to the instance that allocated
 * it. The two pools differ in their lock, list and counters only. A block costs Size + 60 bytes.
 * All functions are safe on any thread and block at most for the moment that another thread
 * changes the same pool of the same instance. None is a cancellation point but for the log lines
 * of a failed release.
 */
#ifndef OSAL_MEMORY_H
#define OSAL_MEMORY_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Allocates Size bytes, not cleared, aligned to 8 bytes. The caller owns the block and gives it
 * back with KxFreeMemory through the same instance, before that instance goes.
 *
 * Returns null if pThis is no service instance, Size is 0 or the heap is exhausted; nothing is
 * logged. */
PVOID KxAllocNonPagedMemory(PIOsal pThis, UINT32 Size);
PVOID KxAllocPagedMemory(PIOsal pThis, UINT32 Size);

/* Gives a block back. The header is cleared first, so that a second release of the same block fails
 * as long as its memory was not used again.
 *
 * Code 4: pThis is no service instance, or pMemory is null. Code 0x1001: not a block of this
 * library, overrun, or allocated through another instance; one line at LOG_DEBUG says which, and
 * the block stays as it is. Not checked: that the 56 bytes before pMemory can be read. */
KCSTATUS KxFreeMemory(PIOsal pThis, PVOID pMemory);

OSAL_END_DECLS

#endif
