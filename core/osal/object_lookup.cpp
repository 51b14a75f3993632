// The object manager's lookups: by handle, by compare routine, by scan, and find-or-open; and the
// operations on what was found.
//
// Locks: see internal/object.h. A look-up takes the instance lock to find an object, references it,
// and takes the object's lock only after giving that one up.
#include "osal/internal/object.h"

using namespace osal;

namespace {

constexpr UINT32 kScanStart = 0x01010001;
constexpr UINT32 kMaxBlockId = 0xFFFF;

KCSTATUS fail(UINT32 code, const char* function, UINT32 line) {
    return kObjectModule.fail(code, function, line);
}

// Null: no such slot, or its object is not the one named. A deallocated object that is on its way
// back is none either: a reference taken now would outlive its generation.
pObject resolve(pObjectInfo oi, UINT32 handle) {
    pObject ob = named_slot(oi, handle);
    if (ob == nullptr || handle_of(ob) != handle) return nullptr;
    return has(ob, OBJ_FLAG_FREE | OBJ_FLAG_DELETED) || marked(ob, kHandedOver) ? nullptr : ob;
}

// The search changes nothing but the reference count, so the instance lock is taken shared.
pObject reference_locked(pObjectInfo oi, UINT32 handle) {
    lock_shared_for(oi, nullptr);
    pObject ob = resolve(oi, handle);
    if (ob != nullptr) add_reference(oi, ob);
    unlock(oi);
    return ob;
}

// An object that is being ended will never be ready.
//
// Contract: a preallocated object is waited for until somebody opens it.
void wait_until_ready(pObjectInfo oi, pObject ob) {
    while (!has(ob, OBJ_FLAG_READY | kEndingFlags))
        service<&IOsalVtbl::KxSleep>(oi->pIOsal, UINT64{0});
}

// Takes a referenced object's lock. False: it is being ended; lock and reference were given back.
bool lock_live(pObjectInfo oi, pObject ob, UINT32 access) {
    lock_object(oi, ob, access);
    if (!has(ob, kEndingFlags)) return true;
    ObjectDereference(oi, data_of(ob), access);
    return false;
}

bool qualifies(pObject ob, UINT8 excluded, PKX_OBJECT_COMPARE_ROUTINE compare, PVOID data) {
    return has(ob, OBJ_FLAG_IN_USE) && !has(ob, excluded) && !marked(ob, kHandedOver) &&
           (compare == nullptr || compare(data_of(ob), data) == TRUE);
}

// Where a scan goes on behind a slot. The slot behind the 255th of a block is written as 0, which
// no slot has; so a scan that ended in the last block there can be stays at its end.
UINT32 resume_behind(pObjectInfo oi, pObject ob) {
    const UINT32 id = ob->handleId;
    if (ob->handleIndex < oi->objectsPerBlock || id == kMaxBlockId)
        return make_handle(id, 0, (ob->handleIndex + 1u) & 0xFF);
    pBlockHeader next = first_block_from(oi->index, id + 1);
    return make_handle(next != nullptr ? next->blockId : id + 1, 0, 1);
}

pObject next_in_block(pObjectInfo oi, pBlockHeader bh, UINT32 number, UINT8 excluded,
                      PKX_OBJECT_COMPARE_ROUTINE compare, PVOID data) {
    if (bh->freeObjectCount == oi->objectsPerBlock) return nullptr;
    for (; number <= oi->objectsPerBlock; ++number)
        if (pObject ob = slot_of(oi, bh, number); qualifies(ob, excluded, compare, data)) return ob;
    return nullptr;
}

pObject next_object(pObjectInfo oi, UINT32 from, UINT8 excluded, PKX_OBJECT_COMPARE_ROUTINE compare,
                    PVOID data) {
    UINT32 id = handle_block(from);
    UINT32 number = handle_slot(from);
    if (number == 0) number = 256;
    while (pBlockHeader bh = first_block_from(oi->index, id)) {
        if (bh->blockId != id) number = 1;
        if (pObject ob = next_in_block(oi, bh, number, excluded, compare, data)) return ob;
        id = bh->blockId + 1u;
        number = 1;
    }
    return nullptr;
}

// Takes the oldest preallocated object and makes it one of the bucket's.
//
// Contract: the count starts again at one, so references that lookups took on the preallocated
// object are forgotten.
KCSTATUS open_locked(pObjectInfo oi, PLIST_ENTRY bucket, PKX_OBJECT_INIT_ROUTINE init,
                     PVOID init_data, pObject* opened) {
    PIOsal osal = oi->pIOsal;
    PLIST_ENTRY link = service<&IOsalVtbl::KxRemoveHeadList>(osal, &oi->allocatedList);
    if (link == nullptr) return fail(KC_CODE_BUSY, "ObjectOpen", 2263);
    pObject ob = linked_object(link);
    const KCSTATUS status = init != nullptr ? init(data_of(ob), init_data) : KC_OK;
    if (is_error(status)) {
        service<&IOsalVtbl::KxInsertTailList>(osal, &oi->allocatedList, link);
        return status;
    }
    service<&IOsalVtbl::KxInsertTailList>(osal, bucket, link);
    ++oi->statsInUse;
    --oi->statsPreallocated;
    service<&IOsalVtbl::KxInterlockedExchange>(osal, &ob->instanceCount, UINT32{1});
    change_flags(ob, OBJ_FLAG_FREE | OBJ_FLAG_PREALLOCATED | OBJ_FLAG_READY, OBJ_FLAG_IN_USE);
    *opened = ob;
    return KC_OK;
}

// Opens preallocated objects until one is not ended by somebody else at once. Caller holds the
// instance lock, which is given up; on success the object is held exclusively.
KCSTATUS open_live(pObjectInfo oi, PLIST_ENTRY bucket, PKX_OBJECT_INIT_ROUTINE init,
                   PVOID init_data, PVOID* ppUserData) {
    for (;;) {
        pObject ob = nullptr;
        const KCSTATUS status = open_locked(oi, bucket, init, init_data, &ob);
        if (is_error(status)) {
            unlock(oi);
            return status;
        }
        *ppUserData = data_of(ob);
        const Kept kept = keep_object(oi, ob);
        if (kept == Kept::kYes) return KC_OK;
        if (kept == Kept::kTornDown) return torn_down();
    }
}

}  // namespace

KCSTATUS ObjectReferenceByHandle(PVOID pThis, HANDLE handle, UINT32 accessType, PVOID* ppUserData) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectReferenceByHandle", 1033);
    pObject ob = reference_unlocked(oi, handle_word(handle));
    if (ob == nullptr) ob = reference_locked(oi, handle_word(handle));
    if (ob == nullptr) return unlogged_object_error(KC_CODE_INVALID_HANDLE);
    *ppUserData = data_of(ob);
    if (accessType == KX_OBJECT_NO_ACCESS || lock_live(oi, ob, accessType)) return KC_OK;
    return fail(KC_CODE_INVALID_HANDLE, "ObjectReferenceByHandle", 1114);
}

KCSTATUS ObjectReferenceByHandle2(PVOID pThis, HANDLE handle, UINT32 accessType,
                                  PVOID* ppUserData) {
    const UINT32 name = pThis != nullptr ? handle_word(handle) ^ scramble_of(pThis) : 0;
    return ObjectReferenceByHandle(pThis, handle_from(name), accessType, ppUserData);
}

KCSTATUS ObjectGetHandle(PVOID pThis, PVOID pUserData, PHANDLE phandle) {
    if (usable(pThis) == nullptr || pUserData == nullptr || phandle == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectGetHandle", 1488);
    write_low_half(phandle, handle_of(object_of(pUserData)));
    return KC_OK;
}

KCSTATUS ObjectGetHandle2(PVOID pThis, PVOID pUserData, PHANDLE phandle) {
    if (usable(pThis) == nullptr || pUserData == nullptr || phandle == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectGetHandle2", 1450);
    write_low_half(phandle, handle_of(object_of(pUserData)) ^ scramble_of(pThis));
    return KC_OK;
}

KCSTATUS ObjectFind(PVOID pThis, PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData) {
    pObjectInfo oi = usable(pThis);
    PLIST_ENTRY bucket = oi != nullptr ? bucket_of(oi, CompareIndex) : nullptr;
    if (bucket == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectFind", 1540);
    lock_shared_for(oi, pCompareRoutine);
    pObject ob = first_match(bucket, pCompareRoutine, pCompareData);
    if (ob != nullptr) {
        add_reference(oi, ob);
        *ppUserData = data_of(ob);
    }
    unlock(oi);
    if (ob == nullptr) return unlogged_object_error(KC_CODE_NO_MATCH);
    if (accessType == KX_OBJECT_NO_ACCESS) return KC_OK;
    wait_until_ready(oi, ob);
    if (lock_live(oi, ob, accessType)) return KC_OK;
    return fail(KC_CODE_NO_MATCH, "ObjectFind", 1625);
}

// Contract: an object that was deleted after the scan met it is handed out, locked, all the same.
KCSTATUS ObjectEnumerate(PVOID pThis, PHANDLE pscanHandle, PVOID pCompareData,
                         PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                         PVOID* ppUserData) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pscanHandle == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectEnumerate", 1304);
    UINT32 resume = handle_word(*pscanHandle);
    pObject ob = scan_on(oi, &resume, OBJ_FLAG_DELETED, pCompareRoutine, pCompareData);
    *pscanHandle = handle_from(resume);
    if (ob == nullptr) return unlogged_object_error(KC_CODE_NO_MORE_ENTRIES);
    *ppUserData = data_of(ob);
    if (accessType == KX_OBJECT_NO_ACCESS) return KC_OK;
    wait_until_ready(oi, ob);
    lock_object(oi, ob, accessType);
    return KC_OK;
}

KCSTATUS ObjectOpen(PVOID pThis, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,
                    PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                    UINT32 CompareIndex, UINT32 allocAccess, UINT32 openAccess, PVOID* ppUserData,
                    PUINT32 pOpenedMode) {
    pObjectInfo oi = usable(pThis);
    PLIST_ENTRY bucket = oi != nullptr ? bucket_of(oi, CompareIndex) : nullptr;
    if (bucket == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectOpen", 2192);
    lock(oi);
    Kept kept = Kept::kNo;
    if (pObject ob = pCompareRoutine != nullptr ? first_match(bucket, pCompareRoutine, pCompareData)
                                                : nullptr) {
        add_reference(oi, ob);
        *ppUserData = data_of(ob);
        kept = keep_object(oi, ob);
    }
    if (kept == Kept::kTornDown) return torn_down();
    if (kept == Kept::kNo) {
        const KCSTATUS status = open_live(oi, bucket, pInitRoutine, pInitData, ppUserData);
        if (is_error(status)) return status;
    }
    return finish_opening(oi, object_of(*ppUserData), allocAccess, openAccess, pOpenedMode);
}

KCSTATUS ObjectGetStats(PVOID pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,
                        PUINT32 pObjectsPreallocated) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr) return fail(KC_CODE_INVALID_ARGUMENT, "ObjectGetStats", 2407);
    lock_shared_for(oi, nullptr);
    if (pObjectsAllocated != nullptr) *pObjectsAllocated = oi->statsAllocated;
    if (pObjectsInUse != nullptr) *pObjectsInUse = oi->statsInUse;
    if (pObjectsPreallocated != nullptr) *pObjectsPreallocated = oi->statsPreallocated;
    unlock(oi);
    return KC_OK;
}

// Contract: success whatever the lock says. Of an instance with read/write locks, an accessType
// that is neither 1 nor 2 takes none.
KCSTATUS ObjectAcquireAccess(PVOID pThis, PVOID pUserData, UINT32 accessType) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectAcquireAccess", 1657);
    lock_object(oi, object_of(pUserData), accessType);
    return KC_OK;
}

KCSTATUS ObjectReleaseAccess(PVOID pThis, PVOID pUserData) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectReleaseAccess", 1703);
    unlock_object(oi, object_of(pUserData));
    return KC_OK;
}

KCSTATUS ObjectIncrement(PVOID pThis, PVOID pUserData) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectIncrement", 1749);
    add_reference(oi, object_of(pUserData));
    return KC_OK;
}

namespace osal {

pObject first_match(PLIST_ENTRY bucket, PKX_OBJECT_COMPARE_ROUTINE compare, PVOID data) {
    for (PLIST_ENTRY link = bucket->Flink; link != bucket; link = link->Flink) {
        pObject ob = linked_object(link);
        if (compare == nullptr || compare(data_of(ob), data) == TRUE) return ob;
    }
    return nullptr;
}

pObject scan_on(pObjectInfo oi, UINT32* resume, UINT8 excluded, PKX_OBJECT_COMPARE_ROUTINE compare,
                PVOID data) {
    if (*resume == 0) *resume = kScanStart;
    lock_shared_for(oi, compare);
    pObject ob = next_object(oi, *resume, excluded, compare, data);
    if (ob != nullptr) {
        *resume = resume_behind(oi, ob);
        add_reference(oi, ob);
    }
    unlock(oi);
    return ob;
}

}  // namespace osal
