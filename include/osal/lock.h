/* Locks: recursive mutexes, read/write locks that prefer writers, and spin locks; interlocked
 * operations on 32-bit words.
 *
 * A lock is a handle to a small record. Whoever allocates a lock destroys it, through the instance
 * that allocated it, once nobody uses it any more: allocation and destruction are not synchronised
 * with other uses of the same handle. Nothing of a record is touched after the release has let the
 * next owner in, so an owner may destroy a lock as soon as it holds it last and has released it.
 *
 * A handle is known by its signature alone. Code 3 stands for a null handle, a handle of another
 * kind, and the handle of a destroyed lock whose memory was not used again. Acquire and release
 * ignore pThis, which may be null. None of the functions is a cancellation point, but for the log
 * line of a failure and for what KxReleaseSpinLock says. All are safe on any thread.
 */
#ifndef OSAL_LOCK_H
#define OSAL_LOCK_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Makes a lock that nobody holds, counted to pThis, and stores its handle in *pHandle. Level has no
 * effect.
 *
 * Code 4: pThis is no service instance, or pHandle is null; nothing is stored. Code 1: out of
 * memory; *pHandle is null. */
KCSTATUS KxAllocMutex(PIOsal pThis, UINT32 Level, HANDLE* pHandle);
KCSTATUS KxAllocReadWriteLock(PIOsal pThis, HANDLE* pHandle);
KCSTATUS KxAllocSpinLock(PIOsal pThis, HANDLE* pHandle);

/* Destroys a lock and frees its record.
 *
 * Code 3: pThis is no service instance, or a bad handle. Code 0x1003: somebody holds the lock,
 * which stays as it is and usable. */
KCSTATUS KxDestroyMutex(PIOsal pThis, HANDLE Handle);
KCSTATUS KxDestroyReadWriteLock(PIOsal pThis, HANDLE Handle);
KCSTATUS KxDestroySpinLock(PIOsal pThis, HANDLE Handle);

/* Takes a mutex; blocks without limit while another thread owns it. The owner may take it again and
 * has to release it as often. Code 3: bad handle. Nothing else is reported: not a mutex that was
 * taken too often for its count either. */
KCSTATUS KxAcquireMutex(PIOsal pThis, HANDLE Handle);

/* Gives one level of ownership back. Code 3: bad handle. A release by a thread that does not own
 * the mutex changes nothing and returns 0. */
KCSTATUS KxReleaseMutex(PIOsal pThis, HANDLE Handle);

/* Takes a read/write lock together with other readers, or alone.
 *
 * bWait true blocks without limit; false tries once. While a writer waits, new readers wait behind
 * it; so a reader that asks for read access again may wait for ever. Neither mode is recursive, and
 * a reader cannot become the writer.
 *
 * Code 3: bad handle. Code 0x1002: the lock was busy and bWait is false, the caller is the writer
 * already, or there are too many readers. */
KCSTATUS KxAcquireLockForReadAccess(PIOsal pThis, HANDLE Handle, BOOLEAN bWait);
KCSTATUS KxAcquireLockForWriteAccess(PIOsal pThis, HANDLE Handle, BOOLEAN bWait);

/* Gives back the access that the caller holds, of either mode.
 *
 * Code 3: bad handle. The plain value 1, which is no error: nobody holds the lock, and nothing was
 * done. Not checked: that it is the caller who holds it. */
KCSTATUS KxReleaseReadWriteLock(PIOsal pThis, HANDLE Handle);

/* Takes a spin lock. It blocks rather than spins, is not recursive (a second acquisition by its
 * owner blocks for ever), and makes the calling thread's cancellation deferred while it is held.
 * The former cancellation type is stored in *pPrevState before the lock is waited for.
 *
 * Code 3: bad handle. Code 4: null pPrevState; looked at after the handle, and the lock is not
 * taken. */
KCSTATUS KxAcquireSpinLock(PIOsal pThis, HANDLE Handle, KCSPIN_STATE* pPrevState);

/* Releases a spin lock, then restores the cancellation type that the acquisition stored: a thread
 * that goes back to asynchronous cancellation may be cancelled at that moment, with the lock
 * already free. Code 3: bad handle. Not checked: that the caller holds the lock, and prevState. */
KCSTATUS KxReleaseSpinLock(PIOsal pThis, HANDLE Handle, KCSPIN_STATE prevState);

/* Adds one to (takes one from) a word and returns the new value; it wraps round. Sequentially
 * consistent, as the exchange is. pThis is ignored, a null word is not checked. */
UINT32 KxInterlockedIncrement(PIOsal pThis, UINT32* pValue);
UINT32 KxInterlockedDecrement(PIOsal pThis, UINT32* pValue);

/* Stores Value in a word and returns what the word held before. */
UINT32 KxInterlockedExchange(PIOsal pThis, UINT32* pTarget, UINT32 Value);

/* Always 0, the lowest interrupt level. */
IRQ_LEVEL KxGetCurrentIrql(PIOsal pThis);

OSAL_END_DECLS

#endif
