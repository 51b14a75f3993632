// Locks, interlocked operations and the interrupt level.
//
// A lock is the platform's and nothing round it: nothing of a record may be touched after the
// platform's unlock, since the next owner may destroy the lock at once.
#include "osal/lock.h"

#include <cerrno>

#include "osal/internal/valgrind.h"
#include "osal/linux/internal/sync.h"

using namespace osal;

namespace {

using RecursiveMutex = _KX_MUTEX_HANDLE_;
using ReadWriteLock = _KX_LOCK_HANDLE_;
using SpinLock = _KX_SPINLOCK_HANDLE_;

constexpr KCSTATUS kNobodyHolds = 1;

constexpr bool below_zero(UINT32 count) {
    return count >= static_cast<UINT32>(-4);
}

// Contract: a count found at -1 to -4 is taken for 0, as left behind by releases without an
// acquisition. The release itself lets no count fall below zero.
void repair(UINT32& count) {
    UINT32 found = load(count, std::memory_order_relaxed);
    if (below_zero(found)) std::atomic_ref<UINT32>(count).compare_exchange_strong(found, 0);
}

// The platform's pthread_self(), which is the address of the thread's control block, but in line.
void note_owner(ReadWriteLock* lock) {
    store(lock->threadId, pthread_t{thread_token()}, std::memory_order_relaxed);
}

// Takes one reader off, unless there is none: of two releases for one reader, one finds it gone.
// Looks at the new count itself: another load behind the locked step would cost as much as a call.
bool drop_reader(ReadWriteLock* lock) {
    std::atomic_ref<UINT32> readers(lock->readers);
    UINT32 count = readers.load(std::memory_order_relaxed);
    while (count != 0 && !readers.compare_exchange_weak(count, count - 1)) {
    }
    if (count == 0) return false;
    if (below_zero(count - 1)) [[unlikely]]
        repair(lock->readers);
    return true;
}

bool drop_writer(ReadWriteLock* lock) {
    if (load(lock->writers, std::memory_order_relaxed) == 0) return false;
    return std::atomic_ref<UINT32>(lock->writers).exchange(0) != 0;
}

}  // namespace

void RecursiveMutex::init_platform() {
    const pthread_mutexattr_t recursive = {.__align = PTHREAD_MUTEX_RECURSIVE_NP};
    announce_atomics(mutex);
    pthread_mutex_init(&mutex, &recursive);
}

int RecursiveMutex::destroy_platform() {
    return pthread_mutex_destroy(&mutex);
}

void ReadWriteLock::init_platform() {
    pthread_rwlockattr_t prefer_writers = {};
    pthread_rwlockattr_setkind_np(&prefer_writers, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&rwLock, &prefer_writers);
    readers = 0;
    writers = 0;
    announce_atomics(threadId, rwLock, readers, writers);
}

// The platform would destroy a lock that is held and leave its holder without one.
int ReadWriteLock::destroy_platform() {
    if (load(readers) != 0 || load(writers) != 0) return EBUSY;
    return pthread_rwlock_destroy(&rwLock);
}

void SpinLock::init_platform() {
    const pthread_mutexattr_t plain = {};
    announce_atomics(spinLock);
    pthread_mutex_init(&spinLock, &plain);
}

int SpinLock::destroy_platform() {
    return pthread_mutex_destroy(&spinLock);
}

KCSTATUS KxAllocMutex(PIOsal pThis, UINT32, HANDLE* pHandle) {
    return new_record<RecursiveMutex>(pThis, pHandle);
}

KCSTATUS KxDestroyMutex(PIOsal pThis, HANDLE Handle) {
    return end_record<RecursiveMutex>(pThis, Handle);
}

// Contract: the platform's result is ignored, here and in the release: a release by a thread that
// does not own the mutex returns 0.
KCSTATUS KxAcquireMutex(PIOsal, HANDLE Handle) {
    auto* mutex = as<RecursiveMutex>(Handle);
    if (mutex == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    pthread_mutex_lock(&mutex->mutex);
    return KC_OK;
}

KCSTATUS KxReleaseMutex(PIOsal, HANDLE Handle) {
    auto* mutex = as<RecursiveMutex>(Handle);
    if (mutex == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    pthread_mutex_unlock(&mutex->mutex);
    return KC_OK;
}

KCSTATUS KxAllocReadWriteLock(PIOsal pThis, HANDLE* pHandle) {
    return new_record<ReadWriteLock>(pThis, pHandle);
}

KCSTATUS KxDestroyReadWriteLock(PIOsal pThis, HANDLE Handle) {
    return end_record<ReadWriteLock>(pThis, Handle);
}

KCSTATUS KxAcquireLockForReadAccess(PIOsal, HANDLE Handle, BOOLEAN bWait) {
    auto* lock = as<ReadWriteLock>(Handle);
    if (lock == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    repair(lock->readers);
    const int result =
        bWait ? pthread_rwlock_rdlock(&lock->rwLock) : pthread_rwlock_tryrdlock(&lock->rwLock);
    if (result != 0) return kSync.fail(KC_CODE_LOCK_NOT_ACQUIRED);
    increment(lock->readers);
    note_owner(lock);
    return KC_OK;
}

KCSTATUS KxAcquireLockForWriteAccess(PIOsal, HANDLE Handle, BOOLEAN bWait) {
    auto* lock = as<ReadWriteLock>(Handle);
    if (lock == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    repair(lock->readers);
    const int result =
        bWait ? pthread_rwlock_wrlock(&lock->rwLock) : pthread_rwlock_trywrlock(&lock->rwLock);
    if (result != 0) return kSync.fail(KC_CODE_LOCK_NOT_ACQUIRED);
    store(lock->writers, UINT32{1}, std::memory_order_relaxed);  // nobody else holds the lock
    note_owner(lock);
    return KC_OK;
}

// Contract: the release of a lock that nobody holds returns the plain value 1, which is no error.
KCSTATUS KxReleaseReadWriteLock(PIOsal, HANDLE Handle) {
    auto* lock = as<ReadWriteLock>(Handle);
    if (lock == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    if (drop_writer(lock))
        repair(lock->readers);
    else if (!drop_reader(lock))
        return kNobodyHolds;
    pthread_rwlock_unlock(&lock->rwLock);
    return KC_OK;
}

KCSTATUS KxAllocSpinLock(PIOsal pThis, HANDLE* pHandle) {
    return new_record<SpinLock>(pThis, pHandle);
}

KCSTATUS KxDestroySpinLock(PIOsal pThis, HANDLE Handle) {
    return end_record<SpinLock>(pThis, Handle);
}

KCSTATUS KxAcquireSpinLock(PIOsal, HANDLE Handle, KCSPIN_STATE* pPrevState) {
    auto* lock = as<SpinLock>(Handle);
    if (lock == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    if (pPrevState == nullptr) return kSync.fail(KC_CODE_INVALID_ARGUMENT);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, reinterpret_cast<int*>(pPrevState));
    pthread_mutex_lock(&lock->spinLock);
    return KC_OK;
}

// Unlocked first: the restored type may end the thread at once.
KCSTATUS KxReleaseSpinLock(PIOsal, HANDLE Handle, KCSPIN_STATE prevState) {
    auto* lock = as<SpinLock>(Handle);
    if (lock == nullptr) return kSync.fail(KC_CODE_INVALID_HANDLE);
    pthread_mutex_unlock(&lock->spinLock);
    pthread_setcanceltype(static_cast<int>(prevState), nullptr);
    return KC_OK;
}

UINT32 KxInterlockedIncrement(PIOsal, UINT32* pValue) {
    return increment(*pValue);
}

UINT32 KxInterlockedDecrement(PIOsal, UINT32* pValue) {
    return decrement(*pValue);
}

UINT32 KxInterlockedExchange(PIOsal, UINT32* pTarget, UINT32 Value) {
    return std::atomic_ref<UINT32>(*pTarget).exchange(Value);
}

IRQ_LEVEL KxGetCurrentIrql(PIOsal) {
    return 0;
}
