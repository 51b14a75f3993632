// The object store: initialisation of an instance, its locks, the end of an object and of the
// instance.
//
// Locks: see internal/object.h. Client routines run with neither lock held.
#include "osal/internal/object.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OBJECT, "../objint"};
constexpr UINT32 kDeferredBits = 0xF0000000;
constexpr UINT32 kMaxObjectsPerBlock = 255;
constexpr UINT32 kMutexLevel = 1;  // what KxAllocMutex is told; it means nothing to it

KCSTATUS fail_initialize(UINT32 code, UINT32 line) {
    return kModule.fail(code, "InternalInitialize", line);
}

// Without the work item there is no lock either, so that nothing is destroyed twice later.
bool make_deletion_item(pObjectInfo oi) {
    if ((oi->flags & OI_FLAG_DEFERRED_DELETE) == 0) return true;
    const KCSTATUS status = service<&IOsalVtbl::KxAllocWorkItem>(
        oi->pIOsal, &ObjDeleteWorker, PVOID{oi}, &oi->objDeleteWorkHandle);
    if (!is_error(status)) return true;
    service<&IOsalVtbl::KxDestroyReadWriteLock>(oi->pIOsal, oi->protect.handle);
    oi->protect.handle = nullptr;
    return false;
}

// Contract: an instance with mutexes gets no work item, deferred deletion or not.
bool make_instance_lock(pObjectInfo oi, UINT32 level) {
    if (level == KX_OBJECT_LEVEL_MUTEX)
        return !is_error(
            service<&IOsalVtbl::KxAllocMutex>(oi->pIOsal, kMutexLevel, &oi->protect.handle));
    return !is_error(service<&IOsalVtbl::KxAllocReadWriteLock>(oi->pIOsal, &oi->protect.handle)) &&
           make_deletion_item(oi);
}

bool make_buckets(pObjectInfo oi) {
    const UINT64 size = UINT64{oi->hashSize} * sizeof(LIST_ENTRY);
    if (size > UINT32{0} - UINT32{1}) return false;
    constexpr auto paged = &IOsalVtbl::KxAllocPagedMemory;
    constexpr auto non_paged = &IOsalVtbl::KxAllocNonPagedMemory;
    PVOID memory = oi->poolType == PagedPool
                       ? service<paged>(oi->pIOsal, static_cast<UINT32>(size))
                       : service<non_paged>(oi->pIOsal, static_cast<UINT32>(size));
    if (memory == nullptr) return false;
    oi->pHashListArray = static_cast<PLIST_ENTRY>(memory);
    for (UINT32 i = 0; i < oi->hashSize; ++i)
        service<&IOsalVtbl::KxInitializeListHead>(oi->pIOsal, &oi->pHashListArray[i]);
    return true;
}

// An id beyond the last one is cut to 0, which AllocBlock refuses.
bool make_permanent_blocks(pObjectInfo oi, UINT32 count) {
    for (UINT32 id = 1; id <= count && id != 0; ++id)
        if (AllocBlock(oi, static_cast<UINT16>(id), nullptr, OBJ_FLAG_PERMANENT | OBJ_FLAG_FREE) ==
            nullptr)
            return false;
    return true;
}

void start_record(pObjectInfo oi, bool deferred) {
    oi->pIOsal = ::pIOsal;
    service<&IOsalVtbl::KxInitializeListHead>(oi->pIOsal, &oi->blockList);
    service<&IOsalVtbl::KxInitializeListHead>(oi->pIOsal, &oi->allocatedList);
    service<&IOsalVtbl::KxInitializeListHead>(oi->pIOsal, &oi->objDeleteList);
    store(oi->flags, OI_FLAG_INITIALIZED | (deferred ? OI_FLAG_DEFERRED_DELETE : 0));
}

bool known_level(UINT32 level) {
    return level == KX_OBJECT_LEVEL_LOCK || level == KX_OBJECT_LEVEL_SPIN ||
           level == KX_OBJECT_LEVEL_MUTEX;
}

// How an object ends.
struct Ending {
    PKX_OBJECT_ROUTINE routine;  // to be called, or null
    bool deallocates;            // and becomes a preallocated one again
};

Ending ending_of(pObjectInfo oi, pObject ob) {
    if (has(ob, OBJ_FLAG_DELETED) && oi->pfDelete != nullptr) return {oi->pfDelete, false};
    if (has(ob, OBJ_FLAG_DEALLOCATED)) return {oi->pfDeallocate, true};
    return {nullptr, false};
}

// A preallocated object of an instance that is being torn down is deleted, whatever was to become
// of it. It was not counted as in use and will not be.
void turn_into_deleted(pObject ob) {
    if (has(ob, OBJ_FLAG_PREALLOCATED)) set_mark(ob, kUncounted);
    change_flags(ob, OBJ_FLAG_PREALLOCATED | OBJ_FLAG_DEALLOCATED, OBJ_FLAG_DELETED);
}

void run_unlocked(pObjectInfo oi, PKX_OBJECT_ROUTINE routine, pObject ob) {
    if (routine == nullptr) return;
    unlock(oi);
    routine(data_of(ob));
    lock_briefly(oi);
}

BOOLEAN acquire(pObjectInfo oi, UINT32 accessLevel, pProtectToken pProtect, UINT32 accessType) {
    const HANDLE handle = load(pProtect->handle);
    switch (accessLevel) {
        case KX_OBJECT_LEVEL_LOCK:
            if (accessType == KX_OBJECT_EXCLUSIVE)
                return service<&IOsalVtbl::KxAcquireLockForWriteAccess>(oi->pIOsal, handle, TRUE) ==
                       KC_OK;
            if (accessType == KX_OBJECT_SHARED)
                return service<&IOsalVtbl::KxAcquireLockForReadAccess>(oi->pIOsal, handle, TRUE) ==
                       KC_OK;
            return FALSE;
        case KX_OBJECT_LEVEL_SPIN: {
            KCSPIN_STATE state = 0;  // of this holder: not to be stored before the lock is held
            service<&IOsalVtbl::KxAcquireSpinLock>(oi->pIOsal, handle, &state);
            pProtect->spinState = state;
            return TRUE;
        }
        case KX_OBJECT_LEVEL_MUTEX:
            return service<&IOsalVtbl::KxAcquireMutex>(oi->pIOsal, handle) == KC_OK;
        default:
            return FALSE;
    }
}

BOOLEAN recycle(pObjectInfo oi, pObject ob) {
    set_generation(ob, static_cast<UCHAR>(ob->handleInstance + 1));
    change_flags(ob, kEndingFlags, 0);
    clear_marks(ob, kHandedOver | kUncounted);
    service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, &oi->allocatedList, &ob->objectLink);
    ++oi->statsPreallocated;
    return FALSE;
}

BOOLEAN free_slot(pObjectInfo oi, pObject ob) {
    pBlockHeader bh = ob->blockStart;
    const bool kept = has(ob, OBJ_FLAG_PERMANENT) && !running_down(oi);
    if (bh->freeObjectCount + 1u == oi->objectsPerBlock && !kept) return FreeBlock(oi, bh);
    make_free(ob);
    return_slot(oi, ob);
    return FALSE;
}

// Blocks that still hold objects are passed over: the last of those frees the instance.
BOOLEAN free_empty_blocks(pObjectInfo oi) {
    PLIST_ENTRY link = oi->blockList.Flink;
    while (link != &oi->blockList) {
        pBlockHeader bh = linked_block(link);
        link = link->Flink;
        if (bh->freeObjectCount == oi->objectsPerBlock && FreeBlock(oi, bh)) return TRUE;
    }
    return FALSE;
}

BOOLEAN free_allocated(pObjectInfo oi) {
    while (!service<&IOsalVtbl::KxIsListEmpty>(oi->pIOsal, &oi->allocatedList)) {
        pObject ob = linked_object(oi->allocatedList.Flink);
        leave_allocated(oi, ob);
        turn_into_deleted(ob);
        if (FreeObject(oi, ob, TRUE)) return TRUE;
    }
    return FALSE;
}

void end_instance_lock(pObjectInfo oi) {
    if (oi->protect.handle == nullptr) return;
    unlock(oi);
    destroy_lock(oi, oi->accessLevel, oi->protect.handle);
    const bool has_item =
        oi->accessLevel == KX_OBJECT_LEVEL_SPIN ||
        (oi->accessLevel == KX_OBJECT_LEVEL_LOCK && (oi->flags & OI_FLAG_DEFERRED_DELETE) != 0);
    if (has_item) service<&IOsalVtbl::KxDestroyWorkItem>(oi->pIOsal, oi->objDeleteWorkHandle);
}

}  // namespace

// Contract: a failure from here on leaves the instance marked as initialised, so that a second call
// fails with code 0x1001 whatever its arguments are.
KCSTATUS InternalInitialize(pObjectInfo pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                            POOL_TYPE poolType, UINT32 accessLevel, UINT32 hashSize,
                            PKX_OBJECT_ROUTINE pDeleteRoutine,
                            PKX_OBJECT_ROUTINE pDeallocateRoutine, PKX_OBJECT_ROUTINE,
                            UINT32 permBlocks) {
    if (pThis == nullptr) return fail_initialize(KC_CODE_INVALID_ARGUMENT, 132);
    if (usable(pThis) != nullptr) return fail_initialize(KC_CODE_CORRUPT, 88);
    start_record(pThis, (accessLevel & kDeferredBits) != 0);
    UINT32 level = accessLevel & ~kDeferredBits;
    if (!known_level(level) || poolType > PagedPool || objectsPerBlock > kMaxObjectsPerBlock)
        return fail_initialize(KC_CODE_INVALID_ARGUMENT, 132);
    // Contract: there are no instances with spin locks; one that is asked for works with read/write
    // locks in the paged pool.
    if (level == KX_OBJECT_LEVEL_SPIN) {
        level = KX_OBJECT_LEVEL_LOCK;
        poolType = PagedPool;
    }
    if (!make_instance_lock(pThis, level)) return fail_initialize(KC_CODE_NO_RESOURCES, 203);
    pThis->poolType = poolType;
    pThis->objectsPerBlock = objectsPerBlock;
    pThis->accessLevel = level;
    pThis->objectSize = static_cast<UINT32>(objectSize + sizeof(Object));
    pThis->stride = (UINT64{objectSize} + sizeof(Object) + 7) / 8 * 8;
    pThis->hashSize = hashSize != 0 ? hashSize : 1;
    pThis->pfDelete = pDeleteRoutine;
    pThis->pfDeallocate = pDeallocateRoutine;
    const bool buckets = make_buckets(pThis);
    if (!make_permanent_blocks(pThis, permBlocks) || !buckets)
        return fail_initialize(KC_CODE_NO_RESOURCES, 261);
    return KC_OK;
}

BOOLEAN InternalAcquire(pObjectInfo oi, UINT32 accessLevel, pProtectToken pProtect,
                        UINT32 accessType) {
    if (pProtect != &oi->protect) return acquire(oi, accessLevel, pProtect, accessType);
    const bool exclusive = accessType == KX_OBJECT_EXCLUSIVE;
    if (exclusive) let_others_out(oi->turns);
    const BOOLEAN taken = acquire(oi, accessLevel, pProtect, accessType);
    settle_bias(oi->turns, exclusive);
    if (exclusive) oi->turns.taken.store(true, std::memory_order_relaxed);
    return taken;
}

void InternalRelease(pObjectInfo oi, UINT32 accessLevel, pProtectToken pProtect) {
    const HANDLE handle = load(pProtect->handle);
    if (pProtect == &oi->protect) oi->turns.taken.store(false, std::memory_order_relaxed);
    switch (accessLevel) {
        case KX_OBJECT_LEVEL_LOCK:
            service<&IOsalVtbl::KxReleaseReadWriteLock>(oi->pIOsal, handle);
            break;
        case KX_OBJECT_LEVEL_SPIN:
            service<&IOsalVtbl::KxReleaseSpinLock>(oi->pIOsal, handle, pProtect->spinState);
            break;
        case KX_OBJECT_LEVEL_MUTEX:
            service<&IOsalVtbl::KxReleaseMutex>(oi->pIOsal, handle);
            break;
        default:
            break;
    }
}

BOOLEAN FreeObject(pObjectInfo oi, pObject ob, BOOLEAN ignoreAccessLevel) {
    if (running_down(oi) && has(ob, OBJ_FLAG_DEALLOCATED)) turn_into_deleted(ob);
    const bool counted = !has(ob, OBJ_FLAG_PREALLOCATED) && !marked(ob, kUncounted);
    const Ending ending = ending_of(oi, ob);
    // Only with a routine to run does anybody else get the instance lock before this ends.
    if (ending.routine != nullptr) set_mark(ob, kHandedOver);
    const bool deferred = (load(oi->flags) & OI_FLAG_DEFERRED_DELETE) != 0;
    if (ending.routine != nullptr && deferred && !ignoreAccessLevel) {
        ScheduleObjForDeletion(oi, ob);
        return FALSE;
    }
    run_unlocked(oi, ending.routine, ob);
    if (ending.deallocates) change_flags(ob, 0, OBJ_FLAG_PREALLOCATED);
    if (counted) --oi->statsInUse;
    if (ending.deallocates) {
        if (!running_down(oi)) return recycle(oi, ob);
        // Torn down meanwhile: nobody will come for it on the list of preallocated objects.
        turn_into_deleted(ob);
        return FreeObject(oi, ob, TRUE);
    }
    destroy_object_lock(oi, ob);
    return free_slot(oi, ob);
}

void InstanceRelease(pObjectInfo oi) {
    if (usable(oi) == nullptr) {
        service<&IOsalVtbl::KxFreeMemory>(::pIOsal, PVOID{oi});
        return;
    }
    if (oi->pHashListArray != nullptr) delete_all(oi);
    if (oi->protect.handle != nullptr) lock(oi);
    store(oi->flags, load(oi->flags) | OI_FLAG_RUNDOWN);
    if (free_allocated(oi) || free_empty_blocks(oi)) return;
    if (oi->statsAllocated != 0)
        unlock(oi);
    else
        InstanceDeallocate(oi);
}

void InstanceDeallocate(pObjectInfo oi) {
    if (oi->pHashListArray != nullptr)
        service<&IOsalVtbl::KxFreeMemory>(oi->pIOsal, PVOID{oi->pHashListArray});
    end_instance_lock(oi);
    service<&IOsalVtbl::KxFreeMemory>(::pIOsal, PVOID{oi});
}

namespace osal {

void destroy_lock(pObjectInfo oi, UINT32 level, HANDLE handle) {
    switch (level) {
        case KX_OBJECT_LEVEL_LOCK:
            service<&IOsalVtbl::KxDestroyReadWriteLock>(oi->pIOsal, handle);
            break;
        case KX_OBJECT_LEVEL_SPIN:
            service<&IOsalVtbl::KxDestroySpinLock>(oi->pIOsal, handle);
            break;
        case KX_OBJECT_LEVEL_MUTEX:
            service<&IOsalVtbl::KxDestroyMutex>(oi->pIOsal, handle);
            break;
        default:
            break;
    }
}

void leave_allocated(pObjectInfo oi, pObject ob) {
    service<&IOsalVtbl::KxRemoveEntryList>(oi->pIOsal, &ob->objectLink);
    --oi->statsPreallocated;
}

bool drop_locked(pObjectInfo oi, pObject ob) {
    if (load(ob->instanceCount) != 0 &&
        service<&IOsalVtbl::KxInterlockedDecrement>(oi->pIOsal, &ob->instanceCount) != 0)
        return false;
    if (!has(ob, kEndingFlags) || marked(ob, kHandedOver)) return false;
    return FreeObject(oi, ob, FALSE);
}

}  // namespace osal
