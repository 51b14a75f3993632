// Security-context objects: a manager of one object type that keeps the objects of each security
// context in an object manager of its own.
//
// The context's object manager hangs on the context as an attribute that the host's attribute
// manager owns (scobject_attributes.cpp); the operations here get at an attribute, forward to the
// object manager behind it, and give the attribute back. There is no lock and no table of contexts.
//
// Every attribute that is referenced is dereferenced on every path, and never while the lock of an
// object inside it is held: see hand_over.
#include "osal/internal/scobject.h"

#include "host/lcm.h"
#include "osal/internal/instance.h"
#include "osal/internal/object.h"
#include "osal/internal/scobject_guess.h"

using namespace osal;

namespace {

// Where failures are reported to arise; fixed, since products recognise them.
enum Line : UINT32 {
    kQueryNull = 410,
    kQueryUnknown = 435,
    kInitialize = 548,
    kCreate = 646,
    kEnumerate = 994,
    kEnumerate2 = 1091,
    kGetContext = 1454,
    kAllocate = 1485,
    kDeallocate = 1514,
    kOpen = 1560,
    kGetStats = 1585,
};

constexpr UINT32 kNotSupported = 13;
constexpr UINT32 kNoStatistics = 16;

constexpr UINT32 kLevelMask = 0x0FFFFFFF;
constexpr UINT32 kMaxPerBlock = 255;

KCSTATUS fail(UINT32 code, Line line, const char* function = __builtin_FUNCTION()) {
    return kContextModule.fail(code, function, line);
}

pSCObjectInfo info_of(PVOID pThis) {
    return static_cast<pSCObjectInfo>(pThis);
}

bool is_every_context(SCHANDLE context) {
    const auto all_ones = reinterpret_cast<HANDLE>(~uintptr_t{0});
    return context.hTypeId == all_ones && context.hId == all_ones;
}

bool is_access(UINT32 access) {
    return access == KX_OBJECT_EXCLUSIVE || access == KX_OBJECT_SHARED;
}

// Whether a look-up with this access took the object's lock: creations take one for the two
// accesses that they know, look-ups in managers with mutexes for every access.
bool lookup_locks(pSCObjectInfo soi, UINT32 access) {
    if ((soi->accessLevel & kLevelMask) == KX_OBJECT_LEVEL_MUTEX) return access != 0;
    return is_access(access);
}

struct FoundObject {
    PVOID data;
    UINT32 access;
    bool locked;
};

// Gives the attribute back that an object was got through, and hands the object to the client. The
// object's lock is released meanwhile: it is never held while an attribute is given back. The
// reference keeps the object.
void hand_over(pSCObjectInfo soi, PAttribute attribute, UINT32 attribute_access,
               const FoundObject& object, PVOID* user_data) {
    IOM* manager = manager_of(attribute);
    if (object.locked) manager->lpVtbl->ReleaseObject(manager, object.data);
    _ReleaseSessionAttribute(soi, attribute, attribute_access);
    if (object.locked) manager->lpVtbl->AcquireObject(manager, object.data, object.access);
    *user_data = client_of(object.data);
}

// Ends a look-up in a context: gives the attribute back, and on success hands the object over.
KCSTATUS end_lookup(KCSTATUS status, pSCObjectInfo soi, PAttribute attribute, PVOID object,
                    UINT32 access, PVOID* user_data) {
    if (is_error(status))
        _ReleaseSessionAttribute(soi, attribute, kSharedAccess);
    else
        hand_over(soi, attribute, kSharedAccess, {object, access, lookup_locks(soi, access)},
                  user_data);
    return status;
}

// The context's attribute, made with a new object manager if this is the context's first object.
KCSTATUS attribute_for_creation(pSCObjectInfo soi, SCHANDLE context, PAttribute* attribute,
                                UINT32* access) {
    KCSTATUS status = _GetSessionAttribute(soi, context, attribute);
    *access = kSharedAccess;
    if (!is_error(status) || KC_CODE(status) != KC_CODE_INVALID_HANDLE) return status;
    void* made = nullptr;
    status =
        LcmCreateInstance(&CLSID_ObjectManagerDataStore, nullptr, &IID_IObjectManager_1, &made);
    if (is_error(status)) return status;
    IOM* manager = static_cast<IOM*>(made);
    status = _CreateSessionAttribute(soi, context, manager, attribute, access);
    if (is_error(status)) manager->lpVtbl->Release(manager);
    return status;
}

// One step of a scan through the object manager of an attribute that is held shared; gives the
// attribute back.
KCSTATUS enumerate_context(pSCObjectInfo soi, PAttribute attribute, PHANDLE scan,
                           _HandleCompareShim* shim, UINT32 access, PVOID* user_data) {
    IOM* manager = manager_of(attribute);
    PVOID object = nullptr;
    const KCSTATUS status = manager->lpVtbl->EnumerateObjects(
        manager, scan, shim, _CompareObjectDefaultAny, access, &object);
    return end_lookup(status, soi, attribute, object, access, user_data);
}

KCSTATUS next_context(pSCObjectInfo soi, PISCOM_SCAN_DATA scan, PAttribute* attribute) {
    return soi->pISA->lpVtbl->SAEnumerate(soi->pISA, nullptr, soi->hAttribute, &scan->hEnumSCType,
                                          &scan->hEnumSC, nullptr, nullptr, kSharedAccess,
                                          attribute);
}

KCSTATUS enumerate_every_context(pSCObjectInfo soi, PISCOM_SCAN_DATA scan, _HandleCompareShim* shim,
                                 UINT32 access, PVOID* user_data) {
    PAttribute attribute = nullptr;
    // Contract: a context that has ended since the last call is an error, not the end of its
    // objects. An instance that is not initialised is refused by the first of the two.
    KCSTATUS status = scan->hEnumObject != nullptr || soi->pISA == nullptr
                          ? _GetSessionAttribute(soi, scan->hLastSC, &attribute)
                          : next_context(soi, scan, &attribute);
    while (!is_error(status)) {
        scan->hLastSC = attribute->hSC;
        status = enumerate_context(soi, attribute, &scan->hEnumObject, shim, access, user_data);
        if (!is_error(status) || KC_CODE(status) != KC_CODE_NO_MORE_ENTRIES) return status;
        scan->hEnumObject = nullptr;
        status = next_context(soi, scan, &attribute);
    }
    return status;
}

bool acceptable(const GUID* component, UINT32 object_size, UINT32 per_block, UINT32 level) {
    const UINT32 locks = level & kLevelMask;
    return component != nullptr &&
           (locks == KX_OBJECT_LEVEL_LOCK || locks == KX_OBJECT_LEVEL_SPIN ||
            locks == KX_OBJECT_LEVEL_MUTEX) &&
           per_block <= kMaxPerBlock && object_size <= ~0u - sizeof(_SCHeader);
}

void zero(PUINT32 statistic) {
    if (statistic != nullptr) *statistic = 0;
}

// Operations on an object need no context: its manager is found from the object itself.
template <auto Slot, class... Arguments>
KCSTATUS forward(PVOID user_data, Arguments... arguments) {
    if (user_data == nullptr) return unlogged_object_error(KC_CODE_INVALID_ARGUMENT);
    _SCHeader* data = header_of(user_data);
    auto* manager = reinterpret_cast<IOM*>(object_of(data)->blockStart->oi);
    return (manager->lpVtbl->*Slot)(manager, data, arguments...);
}

}  // namespace

OSAL_BEGIN_DECLS

constinit ISCOMVtbl vtSCObject = {};
constinit ISCOM_2Vtbl vtSCObject_2 = {};

KCSTATUS SCObjectQueryInterface(PVOID pThis, const GUID* pIId, void** ppInterface) {
    if (pThis == nullptr || ppInterface == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT, kQueryNull);
    *ppInterface = nullptr;
    pSCObjectInfo soi = info_of(pThis);
    // Contract: an instance has one table, so another version switches it for every holder.
    if (*pIId == IID_ISCObjectManager_1)
        store(soi->lpVtbl, static_cast<const ISCOMVtbl*>(&vtSCObject));
    else if (*pIId == IID_ISCObjectManager_2)
        store(soi->lpVtbl, reinterpret_cast<const ISCOMVtbl*>(&vtSCObject_2));
    else if (*pIId != IID_IUnknown)
        return fail(KC_CODE_UNSUPPORTED, kQueryUnknown);
    *ppInterface = soi;
    SCObjectAddRef(soi);
    return KC_OK;
}

UINT32 SCObjectAddRef(PVOID pThis) {
    service<&IOsalVtbl::KxInterlockedIncrement>(pIOsal, &g_ulCount);
    return service<&IOsalVtbl::KxInterlockedIncrement>(pIOsal, &info_of(pThis)->cReference);
}

UINT32 SCObjectRelease(PVOID pThis) {
    pSCObjectInfo soi = info_of(pThis);
    service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, &g_ulCount);
    const UINT32 left = service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, &soi->cReference);
    // Not read again: another holder may by now have freed the instance.
    if (left != 0) return left;
    leave_attribute_manager(soi);
    service<&IOsalVtbl::KxFreeMemory>(pIOsal, soi);
    return 0;
}

KCSTATUS SCObjectInitialize(PVOID pThis, const GUID* pComponentId, UINT32 objectSize,
                            UINT16 objectsPerBlock, UINT32 accessLevel, UINT32 hashSize,
                            PKX_OBJECT_ROUTINE pDeleteRoutine, PKX_OBJECT_ROUTINE,
                            PISCOM_CLEANUP_ROUTINE pSCCleanupRoutine, UINT32 permBlocks) {
    if (!acceptable(pComponentId, objectSize, objectsPerBlock, accessLevel))
        return fail(KC_CODE_INVALID_ARGUMENT, kInitialize);
    pSCObjectInfo soi = info_of(pThis);
    // Contract: a second initialisation is not refused. It gives up what the first one took.
    leave_attribute_manager(soi);
    const KCSTATUS status =
        join_attribute_manager(soi, pComponentId, accessLevel, pSCCleanupRoutine);
    if (is_error(status)) return status;
    soi->objectsPerBlock = objectsPerBlock;
    soi->hashSize = hashSize;
    soi->pfDelete = pDeleteRoutine;
    soi->permBlocks = permBlocks;
    soi->accessLevel = accessLevel;
    soi->objectSize = objectSize + static_cast<UINT32>(sizeof(_SCHeader));
    return status;
}

KCSTATUS SCObjectCreate(PVOID pThis, SCHANDLE hSC, PVOID pInitData,
                        PKX_OBJECT_INIT_ROUTINE pInitRoutine, PVOID pCompareData,
                        PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                        UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData,
                        PUINT32 pOpenedMode) {
    if (ppUserData == nullptr) return fail(KC_CODE_INVALID_ARGUMENT, kCreate);
    pSCObjectInfo soi = info_of(pThis);
    PAttribute attribute = nullptr;
    UINT32 attribute_access = 0;
    Guess& guess = fetch_ahead(soi, hSC, CompareIndex);
    KCSTATUS status = attribute_for_creation(soi, hSC, &attribute, &attribute_access);
    if (is_error(status)) return status;

    _HandleInitShim init = {pInitData, pInitRoutine, hSC, soi};
    _HandleCompareShim shim = {pCompareData, pCompareRoutine};
    IOM* manager = manager_of(attribute);
    PVOID object = nullptr;
    UINT32 opened = 0;
    status = manager->lpVtbl->CreateObject(manager, &init, _InitializeObjectShim, &shim,
                                           _CompareObjectDefaultNone, CompareIndex, createAccess,
                                           openAccess, &object, &opened);
    if (is_error(status)) {
        if (opened == KX_OBJECT_OPENED && is_access(openAccess))
            manager->lpVtbl->ReleaseObject(manager, object);
        _ReleaseSessionAttribute(soi, attribute, attribute_access);
        return status;
    }
    note_place(guess, manager, object);
    const UINT32 access = opened == KX_OBJECT_OPENED ? openAccess : createAccess;
    hand_over(soi, attribute, attribute_access, {object, access, is_access(access)}, ppUserData);
    if (pOpenedMode != nullptr) *pOpenedMode = opened;
    return status;
}

KCSTATUS SCObjectReferenceByHandle(PVOID pThis, SCHANDLE hSC, HANDLE handle, UINT32 accessType,
                                   PVOID* ppUserData) {
    if (ppUserData == nullptr) return unlogged_object_error(KC_CODE_INVALID_ARGUMENT);
    pSCObjectInfo soi = info_of(pThis);
    PAttribute attribute = nullptr;
    Guess& guess = fetch_ahead(soi, hSC);
    KCSTATUS status = _GetSessionAttribute(soi, hSC, &attribute);
    if (is_error(status)) return status;
    IOM* manager = manager_of(attribute);
    PVOID object = nullptr;
    status = manager->lpVtbl->ReferenceObjectByHandle(manager, handle, accessType, &object);
    if (!is_error(status)) note_place(guess, manager, object);
    return end_lookup(status, soi, attribute, object, accessType, ppUserData);
}

KCSTATUS SCObjectEnumerate(PVOID pThis, SCHANDLE hSC, PHANDLE pscanHandle, PVOID pCompareData,
                           PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType,
                           PVOID* ppUserData) {
    if (ppUserData == nullptr) return unlogged_object_error(KC_CODE_INVALID_ARGUMENT);
    pSCObjectInfo soi = info_of(pThis);
    PAttribute attribute = nullptr;
    // Contract: whatever the look-up said, a context without objects is at its end.
    if (is_error(_GetSessionAttribute(soi, hSC, &attribute)))
        return fail(KC_CODE_NO_MORE_ENTRIES, kEnumerate);
    _HandleCompareShim shim = {pCompareData, pCompareRoutine};
    return enumerate_context(soi, attribute, pscanHandle, &shim, accessType, ppUserData);
}

KCSTATUS SCObjectEnumerate2(PVOID pThis, SCHANDLE hSC, PISCOM_SCAN_DATA pScanData,
                            PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                            UINT32 accessType, PVOID* ppUserData) {
    if (pScanData == nullptr || ppUserData == nullptr)
        return unlogged_object_error(KC_CODE_INVALID_ARGUMENT);
    pSCObjectInfo soi = info_of(pThis);
    _HandleCompareShim shim = {pCompareData, pCompareRoutine};
    if (is_every_context(hSC))
        return enumerate_every_context(soi, pScanData, &shim, accessType, ppUserData);
    PAttribute attribute = nullptr;
    if (is_error(_GetSessionAttribute(soi, hSC, &attribute)))
        return fail(KC_CODE_NO_MORE_ENTRIES, kEnumerate2);
    return enumerate_context(soi, attribute, &pScanData->hEnumObject, &shim, accessType,
                             ppUserData);
}

KCSTATUS SCObjectFind(PVOID pThis, SCHANDLE hSC, PVOID pCompareData,
                      PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,
                      UINT32 accessType, PVOID* ppUserData) {
    if (ppUserData == nullptr) return unlogged_object_error(KC_CODE_INVALID_ARGUMENT);
    pSCObjectInfo soi = info_of(pThis);
    PAttribute attribute = nullptr;
    Guess& guess = fetch_ahead(soi, hSC, CompareIndex);
    // Contract: not logged by this operation, unlike the enumerations.
    if (is_error(_GetSessionAttribute(soi, hSC, &attribute)))
        return unlogged_object_error(KC_CODE_NO_MORE_ENTRIES);
    _HandleCompareShim shim = {pCompareData, pCompareRoutine};
    IOM* manager = manager_of(attribute);
    PVOID object = nullptr;
    const KCSTATUS status = manager->lpVtbl->FindObject(manager, &shim, _CompareObjectDefaultAny,
                                                        CompareIndex, accessType, &object);
    if (!is_error(status)) note_place(guess, manager, object);
    return end_lookup(status, soi, attribute, object, accessType, ppUserData);
}

KCSTATUS SCObjectDelete(PVOID, PVOID pUserData, UINT32 accessType) {
    return forward<&IOMVtbl::DeleteObject>(pUserData, accessType);
}
KCSTATUS SCObjectDereference(PVOID, PVOID pUserData, UINT32 accessType) {
    return forward<&IOMVtbl::DereferenceObject>(pUserData, accessType);
}
KCSTATUS SCObjectGetHandle(PVOID, PVOID pUserData, PHANDLE phandle) {
    return forward<&IOMVtbl::GetObjectHandle>(pUserData, phandle);
}
KCSTATUS SCObjectAcquireAccess(PVOID, PVOID pUserData, UINT32 accessType) {
    return forward<&IOMVtbl::AcquireObject>(pUserData, accessType);
}
KCSTATUS SCObjectReleaseAccess(PVOID, PVOID pUserData) {
    return forward<&IOMVtbl::ReleaseObject>(pUserData);
}
KCSTATUS SCObjectIncrement(PVOID, PVOID pUserData) {
    return forward<&IOMVtbl::IncrementReference>(pUserData);
}
KCSTATUS SCObjectDecrement(PVOID, PVOID pUserData) {
    return forward<&IOMVtbl::DecrementReference>(pUserData);
}

KCSTATUS SCObjectGetSCHandle(PVOID, PVOID pUserData, PSCHANDLE phSC) {
    if (pUserData == nullptr || phSC == nullptr) return fail(KC_CODE_INVALID_ARGUMENT, kGetContext);
    *phSC = header_of(pUserData)->hSecurityContext;
    return KC_OK;
}

KCSTATUS SCObjectAllocate(PVOID, PVOID*) {
    return fail(kNotSupported, kAllocate);
}
KCSTATUS SCObjectDeallocate(PVOID, PVOID, UINT32) {
    return fail(kNotSupported, kDeallocate);
}
KCSTATUS SCObjectOpen(PVOID, SCHANDLE, PVOID, PKX_OBJECT_INIT_ROUTINE, PVOID,
                      PKX_OBJECT_COMPARE_ROUTINE, UINT32, UINT32, UINT32, PVOID*, PUINT32) {
    return fail(kNotSupported, kOpen);
}
KCSTATUS SCObjectGetStats(PVOID, PUINT32, PUINT32, PUINT32) {
    return fail(kNoStatistics, kGetStats);
}

KCSTATUS SCObjectGetStats2(PVOID pThis, SCHANDLE hSC, PUINT32 pObjectsAllocated,
                           PUINT32 pObjectsInUse, PUINT32 pObjectsPreallocated) {
    pSCObjectInfo soi = info_of(pThis);
    PAttribute attribute = nullptr;
    if (is_error(_GetSessionAttribute(soi, hSC, &attribute))) {
        zero(pObjectsAllocated);
        zero(pObjectsInUse);
        zero(pObjectsPreallocated);
        return KC_OK;
    }
    IOM* manager = manager_of(attribute);
    const KCSTATUS status = manager->lpVtbl->GetObjectStats(manager, pObjectsAllocated,
                                                            pObjectsInUse, pObjectsPreallocated);
    _ReleaseSessionAttribute(soi, attribute, kSharedAccess);
    return status;
}

OSAL_END_DECLS
