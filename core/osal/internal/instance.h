// The service-interface instance, and the module's list of instances.
#pragma once

#include <cstddef>

#include "osal/internal/handle.h"
#include "osal/internal/mutex.h"
#include "osal/internal/pool_lock.h"
#include "osal/iosal.h"
#include "osal/statistics.h"

// One client's view of the library. Made by OsalFactoryCreateInstance on the C heap with one
// reference; freed by the OsalReleaseReference that drops the last one, with whatever is still on
// its lists left as it is.
//
// lpVtbl, Signature: never change while the instance lives.
// cReference, the counters of locks, events, keys, timers and work items: changed atomically.
// ModuleName: written by KxRegisterModuleName without a lock.
// Link: guarded by InterfaceMutex.
// MemoryNonPaged...: guarded by ProtectionSpinLock. MemoryPaged...: guarded by ProtectionMutex. The
// statistics read these counters without their lock, so they are stored atomically.
// Link2, the lists but the two of memory, ThreadInUse: kept empty; part of the record only.
struct OsalObjInfo {
    static constexpr UINT32 kSignature = osal::four_cc("OSAL");
    static constexpr UINT32 kNameSize = 32;

    const IOsalVtbl* lpVtbl;
    UINT32 cReference;
    CHAR ModuleName[kNameSize];
    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    osal::Mutex ProtectionMutex;
    osal::Mutex ProtectionSpinLock;
    LIST_ENTRY EventList;
    LIST_ENTRY KeyList;
    LIST_ENTRY LockList;
    LIST_ENTRY MemoryNonPagedList;
    LIST_ENTRY MemoryPagedList;
    LIST_ENTRY MutexList;
    LIST_ENTRY SpinLockList;
    LIST_ENTRY TimerList;
    LIST_ENTRY WorkItemList;
#define OSAL_COUNTER_FIELD(name) UINT32 name;
    OSAL_COUNTERS(OSAL_COUNTER_FIELD)
#undef OSAL_COUNTER_FIELD

    // Behind the stated fields.
    osal::Bias non_paged_bias;  // ProtectionSpinLock's
    osal::Bias paged_bias;      // ProtectionMutex's

    // Keeps the next record on the heap, often another thread's instance, off the cache lines that
    // each allocation through this one writes.
    char apart[128];
};
static_assert(offsetof(OsalObjInfo, lpVtbl) == 0);
static_assert(offsetof(OsalObjInfo, cReference) == 8);
static_assert(offsetof(OsalObjInfo, ModuleName) == 12);
static_assert(offsetof(OsalObjInfo, Link) == 48);
static_assert(offsetof(OsalObjInfo, Signature) == 80);
static_assert(offsetof(OsalObjInfo, ProtectionMutex) == 88);
static_assert(offsetof(OsalObjInfo, ProtectionSpinLock) == 128);
static_assert(offsetof(OsalObjInfo, EventList) == 168);
static_assert(offsetof(OsalObjInfo, WorkItemList) == 296);
static_assert(offsetof(OsalObjInfo, EventInUse) == 312);
static_assert(offsetof(OsalObjInfo, WorkItemInUse) == 356);

OSAL_BEGIN_DECLS

// The library's own instance: made by start-up, used by portable modules, never released.
extern PIOsal pIOsal;

extern LIST_ENTRY InterfaceList;    // every live instance, oldest first
extern UINT32 InterfaceCount;       // its length
extern osal::Mutex InterfaceMutex;  // guards both

OSAL_END_DECLS

namespace osal {

// The record of an instance that may be trusted to be one.
inline OsalObjInfo* instance_of(PIOsal pThis) {
    return reinterpret_cast<OsalObjInfo*>(pThis);
}

// The instance check of every service that has one: null unless pThis is a service instance.
inline OsalObjInfo* live(PIOsal pThis) {
    return as<OsalObjInfo>(pThis);
}

}  // namespace osal
