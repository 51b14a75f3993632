// The attributes of security contexts that hold their object managers, and the routines that the
// attribute manager and the object managers are given.
//
// Locks: none here. The routines run under whatever their caller holds: an attribute's
// initialisation under the attribute manager's, the others as those of any client of the object
// manager.
#include "host/lcm.h"
#include "osal/internal/object.h"
#include "osal/internal/scobject.h"

using namespace osal;

namespace {

constexpr UINT32 kAttributeExisted = 2;     // opened mode: somebody else came first
constexpr UINT32 kExclusiveContextBit = 2;  // of an access level

// Calls the client's compare routine, or answers for a missing one.
BOOLEAN compare(PVOID object, PVOID compare_shim, BOOLEAN without_routine) {
    const auto* shim = static_cast<_HandleCompareShim*>(compare_shim);
    if (shim->pCompareRoutine == nullptr) return without_routine;
    return shim->pCompareRoutine(client_of(object), shim->pCompareData);
}

}  // namespace

namespace osal {

KCSTATUS join_attribute_manager(pSCObjectInfo soi, const GUID* component, UINT32 level,
                                PISCOM_CLEANUP_ROUTINE cleanup) {
    const GUID* iid = (level & kExclusiveContextBit) != 0 ? &IID_IContextAttribute_1
                                                          : &IID_IPassiveContextAttribute_1;
    void* made = nullptr;
    KCSTATUS status = LcmCreateInstance(&CLSID_SecurityAttributeManager, nullptr, iid, &made);
    if (is_error(status)) return status;
    soi->pISA = static_cast<PISA>(made);
    status =
        soi->pISA->lpVtbl->SARegisterAttribute(soi->pISA, component, sizeof(_SecurityAttribute),
                                               cleanup, _ReleaseAttribute, &soi->hAttribute);
    if (!is_error(status)) return status;
    soi->pISA->lpVtbl->Release(soi->pISA);
    soi->pISA = nullptr;
    return status;
}

void leave_attribute_manager(pSCObjectInfo soi) {
    PISA manager = soi->pISA;
    if (manager == nullptr) return;
    manager->lpVtbl->SADeregisterAttribute(manager, soi->hAttribute);
    manager->lpVtbl->Release(manager);
    soi->pISA = nullptr;
}

}  // namespace osal

OSAL_BEGIN_DECLS

KCSTATUS _GetSessionAttribute(pSCObjectInfo soi, SCHANDLE hSC, PAttribute* ppAttribute) {
    if (soi->pISA == nullptr)
        return kContextModule.fail(KC_CODE_INVALID_ARGUMENT, "_GetSessionAttribute", 353);
    return soi->pISA->lpVtbl->SAReference(soi->pISA, hSC, soi->hAttribute, kSharedAccess,
                                          ppAttribute);
}

KCSTATUS _CreateSessionAttribute(pSCObjectInfo soi, SCHANDLE hSC, IOM* pIOM,
                                 PAttribute* ppAttribute, PUINT32 pAccessMode) {
    if (soi->pISA == nullptr)
        return kContextModule.fail(KC_CODE_INVALID_ARGUMENT, "_CreateSessionAttribute", 311);
    _InitAttr init = {soi, pIOM};
    UINT32 opened = 0;
    const KCSTATUS status =
        soi->pISA->lpVtbl->SACreate(soi->pISA, hSC, soi->hAttribute, &init, _InitializeAttribute,
                                    kCreatedAccess, kSharedAccess, ppAttribute, &opened);
    if (is_error(status)) return status;
    const bool existed = opened == kAttributeExisted;  // another thread came first
    if (existed) pIOM->lpVtbl->Release(pIOM);
    *pAccessMode = existed ? kSharedAccess : kCreatedAccess;
    return status;
}

KCSTATUS _ReleaseSessionAttribute(pSCObjectInfo soi, PAttribute pAttribute, UINT32 accessMode) {
    return soi->pISA->lpVtbl->SADereference(soi->pISA, accessMode, pAttribute);
}

KCSTATUS _InitializeAttribute(PAttribute pAttribute, void* pInitData) {
    const auto* init = static_cast<_InitAttr*>(pInitData);
    pSCObjectInfo soi = init->pSCOInfo;
    static_cast<_SecurityAttribute*>(pAttribute->pData)->pSAOMI = init->pIOM;
    return init->pIOM->lpVtbl->Initialize(init->pIOM, soi->objectSize, soi->objectsPerBlock,
                                          soi->accessLevel, soi->hashSize, _DeleteObjectShim,
                                          nullptr, nullptr, soi->permBlocks);
}

void _ReleaseAttribute(PAttribute pAttribute) {
    if (IOM* manager = manager_of(pAttribute)) manager->lpVtbl->Release(manager);
}

KCSTATUS _InitializeObjectShim(PVOID pObjectData, PVOID pInitData) {
    const auto* shim = static_cast<_HandleInitShim*>(pInitData);
    KCSTATUS status = KC_OK;
    if (shim->pInitRoutine != nullptr)
        status = shim->pInitRoutine(client_of(pObjectData), shim->pInitData);
    if (is_error(status)) return status;
    *static_cast<_SCHeader*>(pObjectData) = {shim->hSC, shim->soi->pfDelete};
    return status;
}

KCSTATUS _DeleteObjectShim(PVOID pObjectData) {
    const auto* header = static_cast<_SCHeader*>(pObjectData);
    return header->pfDelete != nullptr ? header->pfDelete(client_of(pObjectData)) : KC_OK;
}

BOOLEAN _CompareObjectDefaultNone(PVOID pObjectData, PVOID pCompareData) {
    return compare(pObjectData, pCompareData, FALSE);
}

BOOLEAN _CompareObjectDefaultAny(PVOID pObjectData, PVOID pCompareData) {
    return compare(pObjectData, pCompareData, TRUE);
}

OSAL_END_DECLS
