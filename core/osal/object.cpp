// The object manager's interface: references of an instance, and the operations that make and end
// objects. Those that find them are in object_lookup.cpp.
//
// Locks: see internal/object.h. Init and compare routines run with the instance lock held.
#include "osal/internal/object.h"

using namespace osal;

namespace {

constexpr UINT32 kLevelBits = 0x0FFFFFFF;

KCSTATUS fail(UINT32 code, const char* function, UINT32 line) {
    return kObjectModule.fail(code, function, line);
}

KCSTATUS run_init(pObject ob, PKX_OBJECT_INIT_ROUTINE init, PVOID data) {
    return init != nullptr ? init(data_of(ob), data) : KC_OK;
}

// Calls the init routine for an occupied slot; an error puts the slot back.
KCSTATUS init_or_return(pObjectInfo oi, pObject ob, PKX_OBJECT_INIT_ROUTINE init, PVOID data) {
    const KCSTATUS status = run_init(ob, init, data);
    if (!is_error(status)) return KC_OK;
    destroy_object_lock(oi, ob);
    return_slot(oi, ob);
    return status;
}

// Puts an occupied slot into a bucket, to be made a live object next.
void enter_bucket(pObjectInfo oi, pObject ob, PLIST_ENTRY bucket) {
    service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, bucket, &ob->objectLink);
    ++oi->statsInUse;
}

constexpr UINT8 cleared_by(UINT8 mark) {
    return mark == OBJ_FLAG_DELETED ? OBJ_FLAG_PREALLOCATED : 0;
}

// Marks an object as being ended, which is done under its lock; false if it was marked before.
// ours: by the caller itself, under the lock that it has given up.
bool mark_ended(pObjectInfo oi, pObject ob, UINT8 mark, bool ours) {
    lock_object(oi, ob, KX_OBJECT_EXCLUSIVE);
    const bool ends = ours || !has(ob, kEndingFlags);
    if (ends) change_flags(ob, cleared_by(mark), mark);
    unlock_object(oi, ob);
    return ends;
}

// Takes an object that was marked out of its list.
void take_out(pObjectInfo oi, pObject ob, UINT8 mark, bool preallocated) {
    if (!preallocated) return service<&IOsalVtbl::KxRemoveEntryList>(oi->pIOsal, &ob->objectLink);
    leave_allocated(oi, ob);
    if (mark == OBJ_FLAG_DELETED) set_mark(ob, kUncounted);
}

// Marks an object, takes it out of its list and drops the caller's reference. TRUE as in
// drop_locked.
//
// A lock that nobody asked for yet is not taken: whoever asks for it from here on finds the mark.
bool withdraw(pObjectInfo oi, pObject ob, UINT8 mark, bool ours) {
    if (marked(ob, kHandedOver)) return drop_locked(oi, ob);
    const bool preallocated = has(ob, OBJ_FLAG_PREALLOCATED);
    UINT32 left = 0;
    if (end_while_unlocked(ob, cleared_by(mark), mark, &left)) {
        take_out(oi, ob, mark, preallocated);
        return left == 0 && FreeObject(oi, ob, FALSE);
    }
    if (mark_ended(oi, ob, mark, ours)) take_out(oi, ob, mark, preallocated);
    return drop_locked(oi, ob);
}

// Deletes or deallocates. FALSE as in drop_locked, with the instance lock given up.
//
// A caller who holds the object exclusively marks it before giving it up: every lookup that takes
// the object's lock from then on refuses it.
bool end_object(pObjectInfo oi, pObject ob, UINT32 accessType, UINT8 mark) {
    const bool ours = accessType == KX_OBJECT_EXCLUSIVE && !has(ob, kEndingFlags);
    if (ours) change_flags(ob, 0, mark);
    if (accessType != KX_OBJECT_NO_ACCESS) unlock_object(oi, ob);
    // A lock that was asked for may have to be waited for.
    if (marked(ob, kLockUsed))
        lock(oi);
    else
        lock_briefly(oi);
    if (withdraw(oi, ob, mark, ours)) return true;
    unlock(oi);
    return false;
}

// A new object becomes ready, and is locked for its creator, before anybody can find it.
KCSTATUS create_locked(pObjectInfo oi, PLIST_ENTRY bucket, PKX_OBJECT_INIT_ROUTINE init,
                       PVOID init_data, UINT32 access, PVOID* ppUserData) {
    pObject ob = choose_slot(oi);
    if (ob == nullptr) return fail(KC_CODE_NO_RESOURCES, "ObjectCreate", 406);
    if (const UINT32 code = occupy_slot(oi, ob); code != 0) return fail(code, "ObjectCreate", 499);
    if (const KCSTATUS status = init_or_return(oi, ob, init, init_data); is_error(status))
        return status;
    enter_bucket(oi, ob, bucket);
    if (access == KX_OBJECT_EXCLUSIVE || access == KX_OBJECT_SHARED) lock_object(oi, ob, access);
    make_live(ob, OBJ_FLAG_READY);
    *ppUserData = data_of(ob);
    return KC_OK;
}

// The block of an id, made if it is not there.
KCSTATUS block_for_handle(pObjectInfo oi, UINT32 id, pBlockHeader* bh) {
    *bh = find_block(oi->index, id);
    if (*bh != nullptr) return KC_OK;
    pBlockHeader next = first_block_from(oi->index, id);
    *bh = AllocBlock(oi, static_cast<UINT16>(id), next != nullptr ? &next->blockLink : nullptr,
                     OBJ_FLAG_FREE);
    if (*bh != nullptr) return KC_OK;
    return fail(KC_CODE_NO_RESOURCES, "ObjectCreateByHandle", next != nullptr ? 689 : 843);
}

// Contract: the object does not become ready, so a lookup that asks for access waits for ever.
KCSTATUS create_in_slot(pObjectInfo oi, pObject ob, UCHAR generation, PKX_OBJECT_INIT_ROUTINE init,
                        PVOID init_data) {
    if (const UINT32 code = occupy_slot(oi, ob); code != 0)
        return fail(code, "ObjectCreateByHandle", 797);
    if (const KCSTATUS status = init_or_return(oi, ob, init, init_data); is_error(status))
        return status;
    set_generation(ob, generation);
    enter_bucket(oi, ob, oi->pHashListArray);
    make_live(ob, 0);
    return KC_OK;
}

// Contract: an object that is there takes on the generation asked for, so that the handle names it
// whatever handles of it were given out before.
KCSTATUS take_by_handle(pObjectInfo oi, UINT32 handle, PKX_OBJECT_INIT_ROUTINE init,
                        PVOID init_data, PVOID* ppUserData, PUINT32 mode) {
    pBlockHeader bh;
    KCSTATUS status = block_for_handle(oi, handle_block(handle), &bh);
    if (is_error(status)) return status;
    pObject ob = slot_of(oi, bh, handle_slot(handle));
    const bool is_free = has(ob, OBJ_FLAG_FREE);
    if (is_free) {
        status = create_in_slot(oi, ob, handle_generation(handle), init, init_data);
        if (is_error(status)) return status;
    } else {
        if (marked(ob, kHandedOver))
            return fail(KC_CODE_INVALID_HANDLE, "ObjectCreateByHandle", 666);
        add_reference(oi, ob);
        set_generation(ob, handle_generation(handle));
    }
    *ppUserData = data_of(ob);
    *mode = is_free ? KX_OBJECT_CREATED : KX_OBJECT_OPENED;
    return KC_OK;
}

KCSTATUS allocate_locked(pObjectInfo oi, PVOID* ppUserData) {
    pObject ob = choose_slot(oi);
    if (ob == nullptr) return fail(KC_CODE_NO_RESOURCES, "ObjectAllocate", 1927);
    if (const UINT32 code = occupy_slot(oi, ob); code != 0)
        return fail(code, "ObjectAllocate", code == KC_CODE_INVALID_ARGUMENT ? 1962 : 1991);
    service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, &oi->allocatedList, &ob->objectLink);
    ++oi->statsPreallocated;
    make_live(ob, OBJ_FLAG_PREALLOCATED);
    *ppUserData = data_of(ob);
    return KC_OK;
}

}  // namespace

// Contract: an instance has one table at a time. Asking for the other version switches it for every
// holder, and with it the form of the handles they see.
KCSTATUS ObjectQueryInterface(PVOID pThis, const GUID* pIId, void** ppInterface) {
    if (pThis == nullptr || ppInterface == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectQueryInterface", 82);
    *ppInterface = nullptr;
    auto* oi = static_cast<pObjectInfo>(pThis);
    if (*pIId == IID_IObjectManager_1)
        store(oi->lpVtbl, static_cast<const IOMVtbl*>(&vtObject));
    else if (*pIId == IID_IObjectManager_2)
        store(oi->lpVtbl, reinterpret_cast<const IOMVtbl*>(&vtObject_2));
    else if (*pIId != IID_IUnknown)
        return fail(KC_CODE_UNSUPPORTED, "ObjectQueryInterface", 110);
    *ppInterface = pThis;
    load(oi->lpVtbl)->AddRef(pThis);
    return KC_OK;
}

// The library's own instance counts: an instance that is not initialised has none yet.
UINT32 ObjectAddRef(PVOID pThis) {
    service<&IOsalVtbl::KxInterlockedIncrement>(pIOsal, &g_ulCount);
    return service<&IOsalVtbl::KxInterlockedIncrement>(
        pIOsal, &static_cast<pObjectInfo>(pThis)->cReference);
}

UINT32 ObjectRelease(PVOID pThis) {
    auto* oi = static_cast<pObjectInfo>(pThis);
    service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, &g_ulCount);
    const UINT32 left = service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, &oi->cReference);
    if (left == 0) InstanceRelease(oi);
    return left;
}

KCSTATUS ObjectInitialize(PVOID pThis, UINT32 objectSize, UINT16 objectsPerBlock,
                          UINT32 accessLevel, UINT32 hashSize, PKX_OBJECT_ROUTINE pDeleteRoutine,
                          PKX_OBJECT_ROUTINE pDeallocateRoutine, PKX_OBJECT_ROUTINE pDebugRoutine,
                          UINT32 permBlocks) {
    const bool spin = (accessLevel & kLevelBits) == KX_OBJECT_LEVEL_SPIN;
    return InternalInitialize(static_cast<pObjectInfo>(pThis), objectSize, objectsPerBlock,
                              spin ? NonPagedPool : PagedPool, accessLevel, hashSize,
                              pDeleteRoutine, pDeallocateRoutine, pDebugRoutine, permBlocks);
}

KCSTATUS ObjectCreate(PVOID pThis, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,
                      PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                      UINT32 CompareIndex, UINT32 createAccess, UINT32 openAccess,
                      PVOID* ppUserData, PUINT32 pOpenedMode) {
    pObjectInfo oi = usable(pThis);
    PLIST_ENTRY bucket = oi != nullptr ? bucket_of(oi, CompareIndex) : nullptr;
    if (bucket == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectCreate", 266);
    lock_for(oi, pCompareRoutine, pInitRoutine);
    pObject ob =
        pCompareRoutine != nullptr ? first_match(bucket, pCompareRoutine, pCompareData) : nullptr;
    if (ob != nullptr) {
        add_reference(oi, ob);
        *ppUserData = data_of(ob);
        const Kept kept = keep_object(oi, ob);
        if (kept == Kept::kTornDown) return torn_down();
        if (kept == Kept::kYes)
            return finish_opening(oi, ob, createAccess, openAccess, pOpenedMode);
    }
    const KCSTATUS status =
        create_locked(oi, bucket, pInitRoutine, pInitData, createAccess, ppUserData);
    unlock(oi);
    if (!is_error(status) && pOpenedMode != nullptr) *pOpenedMode = KX_OBJECT_CREATED;
    return status;
}

KCSTATUS ObjectDelete(PVOID pThis, PVOID pUserData, UINT32 accessType) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectDelete", 899);
    if (end_object(oi, object_of(pUserData), accessType, OBJ_FLAG_DELETED))
        return fail(KC_CODE_TORN_DOWN, "ObjectDelete", 987);
    return KC_OK;
}

KCSTATUS ObjectDeallocate(PVOID pThis, PVOID pUserData, UINT32 accessType) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectDeallocate", 2042);
    if (end_object(oi, object_of(pUserData), accessType, OBJ_FLAG_DEALLOCATED))
        return fail(KC_CODE_TORN_DOWN, "ObjectDeallocate", 2129);
    return KC_OK;
}

// Contract: success even when the instance went with this reference; that is only logged.
KCSTATUS ObjectDereference(PVOID pThis, PVOID pUserData, UINT32 accessType) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || pUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectDereference", 1226);
    pObject ob = object_of(pUserData);
    if (accessType != KX_OBJECT_NO_ACCESS) unlock_object(oi, ob);
    // A reference that is not the last one frees nothing and needs no lock. The object may be gone
    // right after.
    if (drop_unless_last(ob)) return KC_OK;
    lock_briefly(oi);
    if (drop_locked(oi, ob))
        torn_down();
    else
        unlock(oi);
    return KC_OK;
}

KCSTATUS ObjectDecrement(PVOID pThis, PVOID pUserData) {
    return ObjectDereference(pThis, pUserData, KX_OBJECT_NO_ACCESS);
}

KCSTATUS ObjectCreateByHandle(PVOID pThis, HANDLE handle, PVOID pInitData,
                              PKX_OBJECT_INIT_ROUTINE pInitRoutine, UINT32 createAccess,
                              UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || oi->pHashListArray == nullptr || oi->hashSize != 1 ||
        ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectCreateByHandle", 643);
    const UINT32 name = handle_word(handle);
    if (handle_slot(name) == 0 || handle_slot(name) > oi->objectsPerBlock)
        return fail(KC_CODE_INVALID_HANDLE, "ObjectCreateByHandle", 666);
    UINT32 mode = 0;
    lock_for(oi, pInitRoutine);
    const KCSTATUS status = take_by_handle(oi, name, pInitRoutine, pInitData, ppUserData, &mode);
    unlock(oi);
    const UINT32 access = mode == KX_OBJECT_CREATED ? createAccess : openAccess;
    if (!is_error(status) && access != KX_OBJECT_NO_ACCESS)
        lock_object(oi, object_of(*ppUserData), access);
    if (pOpenedMode != nullptr) *pOpenedMode = mode;
    return status;
}

KCSTATUS ObjectAllocate(PVOID pThis, PVOID* ppUserData) {
    pObjectInfo oi = usable(pThis);
    if (oi == nullptr || ppUserData == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, "ObjectAllocate", 1829);
    lock_briefly(oi);
    const KCSTATUS status = allocate_locked(oi, ppUserData);
    unlock(oi);
    return status;
}

namespace osal {

KCSTATUS torn_down() {
    return fail(KC_CODE_TORN_DOWN, "InternalObjectDereference", 1188);
}

Kept keep_object(pObjectInfo oi, pObject ob) {
    unlock(oi);
    lock_object(oi, ob, KX_OBJECT_EXCLUSIVE);
    if (!has(ob, kEndingFlags)) return Kept::kYes;
    unlock_object(oi, ob);
    lock(oi);
    return drop_locked(oi, ob) ? Kept::kTornDown : Kept::kNo;
}

KCSTATUS finish_opening(pObjectInfo oi, pObject ob, UINT32 firstAccess, UINT32 openAccess,
                        PUINT32 pOpenedMode) {
    const bool first = !has(ob, OBJ_FLAG_READY);
    if (first) change_flags(ob, 0, OBJ_FLAG_READY);
    if (pOpenedMode != nullptr) *pOpenedMode = first ? KX_OBJECT_CREATED : KX_OBJECT_OPENED;
    const UINT32 access = first ? firstAccess : openAccess;
    if (access == KX_OBJECT_EXCLUSIVE) return KC_OK;
    unlock_object(oi, ob);
    if (access == KX_OBJECT_SHARED) lock_object(oi, ob, KX_OBJECT_SHARED);
    return KC_OK;
}

void delete_all(pObjectInfo oi) {
    UINT32 resume = 0;
    while (pObject ob =
               scan_on(oi, &resume, OBJ_FLAG_DELETED | OBJ_FLAG_PREALLOCATED, nullptr, nullptr))
        ObjectDelete(oi, data_of(ob), KX_OBJECT_NO_ACCESS);
}

}  // namespace osal
