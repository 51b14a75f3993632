// Records of the synchronisation objects, and what their modules share: statuses, allocation and
// destruction.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdlib>

#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/mutex.h"
#include "osal/internal/status.h"

// The records come from the C heap: made by KxAlloc..., freed by KxDestroy... of the same kind.
// Link and Link2 are part of the records only. Signature never changes while a record lives. Each
// record has init_platform() and destroy_platform() for what it wraps, and kInUse, the counter of
// live records of its kind.

// A recursive mutex.
struct _KX_MUTEX_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("MUTX");
    static constexpr auto kInUse = &OsalObjInfo::MutexInUse;

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    pthread_mutex_t mutex;

    void init_platform();
    int destroy_platform();
};
static_assert(offsetof(_KX_MUTEX_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_MUTEX_HANDLE_, mutex) == 40);

// A read/write lock that prefers writers.
//
// threadId: the last thread that took the lock, in either mode; stored atomically, never cleared,
// read by nothing.
// readers, writers: how many threads hold the lock in each mode. Changed atomically, up after the
// platform lock was taken and down before it is released, so they never count a thread that does
// not hold it.
struct _KX_LOCK_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("LOCK");
    static constexpr auto kInUse = &OsalObjInfo::LockInUse;

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    pthread_t threadId;
    pthread_rwlock_t rwLock;

    // Behind the stated fields.
    UINT32 readers;
    UINT32 writers;

    void init_platform();
    int destroy_platform();
};
static_assert(offsetof(_KX_LOCK_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_LOCK_HANDLE_, threadId) == 40);
static_assert(offsetof(_KX_LOCK_HANDLE_, rwLock) == 48);

// A plain mutex whose owner cannot be cancelled asynchronously.
struct _KX_SPINLOCK_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("SPIN");
    static constexpr auto kInUse = &OsalObjInfo::SpinLockInUse;

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    pthread_mutex_t spinLock;

    void init_platform();
    int destroy_platform();
};
static_assert(offsetof(_KX_SPINLOCK_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_SPINLOCK_HANDLE_, spinLock) == 40);

typedef _KX_MUTEX_HANDLE_* PKX_MUTEX_HANDLE;
typedef _KX_LOCK_HANDLE_* PKX_LOCK_HANDLE;
typedef _KX_SPINLOCK_HANDLE_* PKX_SPINLOCK_HANDLE;

namespace osal {

inline constexpr Module kSync{KC_FACILITY_OSAL, "sync"};

// Allocation and destruction of a record on behalf of the calling service.
template <class Record>
KCSTATUS new_record(PIOsal pThis, HANDLE* pHandle, const char* service = __builtin_FUNCTION()) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pHandle == nullptr)
        return kSync.fail(KC_CODE_INVALID_ARGUMENT, service);
    *pHandle = nullptr;
    auto* record = static_cast<Record*>(std::malloc(sizeof(Record)));
    if (record == nullptr) return kSync.fail(KC_CODE_FAILED, service);
    record->Signature = Record::kSignature;
    record->init_platform();
    increment(instance->*Record::kInUse);
    *pHandle = record;
    return KC_OK;
}

template <class Record>
KCSTATUS end_record(PIOsal pThis, HANDLE handle, const char* service = __builtin_FUNCTION()) {
    OsalObjInfo* instance = live(pThis);
    auto* record = as<Record>(handle);
    if (instance == nullptr || record == nullptr)
        return kSync.fail(KC_CODE_INVALID_HANDLE, service);
    if (record->destroy_platform() != 0) return kSync.fail(KC_CODE_BUSY, service);
    decrement(instance->*Record::kInUse);
    retire_to_heap(record);
    return KC_OK;
}

}  // namespace osal
