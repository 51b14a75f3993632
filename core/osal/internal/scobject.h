// Records and internal routines of the security-context object manager.
#pragma once

#include <cstddef>

#include "host/secattr.h"
#include "osal/internal/status.h"
#include "osal/iscom.h"

// One manager, the interface pointer of its clients. Made zeroed by the factory from non-paged pool
// of the library's own instance; freed by the SCObjectRelease that drops the last reference.
//
// cReference: changed atomically. lpVtbl: switched by SCObjectQueryInterface. Everything else is
// written by SCObjectInitialize before the instance is shared, and read-only from then on.
struct _SCObjectInfo {
    const ISCOMVtbl* lpVtbl;
    UINT32 cReference;
    PISA pISA;          // attribute manager; null unless initialised
    HANDLE hAttribute;  // this manager's attribute type
    UINT32 objectSize;  // the client's, and the header
    UINT16 objectsPerBlock;
    UINT32 accessLevel;  // with its flags
    UINT32 hashSize;
    UINT32 permBlocks;
    PKX_OBJECT_ROUTINE pfDelete;
};
static_assert(offsetof(_SCObjectInfo, pISA) == 16);
static_assert(offsetof(_SCObjectInfo, objectSize) == 32);
static_assert(offsetof(_SCObjectInfo, pfDelete) == 56);
using pSCObjectInfo = _SCObjectInfo*;

// Precedes the client's data in every object. Written once, when the object is initialised.
struct _SCHeader {
    SCHANDLE hSecurityContext;
    PKX_OBJECT_ROUTINE pfDelete;
};
static_assert(sizeof(_SCHeader) == 24);

// The attribute's data: the object manager of one context, owned by the attribute.
struct _SecurityAttribute {
    IOM* pSAOMI;
};
static_assert(sizeof(_SecurityAttribute) == 8);

// What the routines given to other managers find their way by; each lives on its caller's stack.
struct _InitAttr {
    pSCObjectInfo pSCOInfo;
    IOM* pIOM;
};
struct _HandleInitShim {
    PVOID pInitData;
    PKX_OBJECT_INIT_ROUTINE pInitRoutine;
    SCHANDLE hSC;
    pSCObjectInfo soi;
};
struct _HandleCompareShim {
    PVOID pCompareData;
    PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine;
};

OSAL_BEGIN_DECLS

extern ISCOMVtbl vtSCObject;      // zero until the factory's first use
extern ISCOM_2Vtbl vtSCObject_2;  // likewise

#define OSAL_DECLARE_SLOT(number, field, function, result, arguments) result function arguments;
KX_ISCOM_SLOTS(OSAL_DECLARE_SLOT)
KCSTATUS SCObjectEnumerate2(PVOID pThis, SCHANDLE hSC, PISCOM_SCAN_DATA pScanData,
                            PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,
                            UINT32 accessType, PVOID* ppUserData);
KCSTATUS SCObjectGetStats2(PVOID pThis, SCHANDLE hSC, PUINT32 pObjectsAllocated,
                           PUINT32 pObjectsInUse, PUINT32 pObjectsPreallocated);
#undef OSAL_DECLARE_SLOT

// Hands out the manager's attribute on a context with access 2.
KCSTATUS _GetSessionAttribute(pSCObjectInfo soi, SCHANDLE hSC, PAttribute* ppAttribute);
// Hangs an object manager on a context; *pAccessMode is what the attribute is then held with.
KCSTATUS _CreateSessionAttribute(pSCObjectInfo soi, SCHANDLE hSC, IOM* pIOM,
                                 PAttribute* ppAttribute, PUINT32 pAccessMode);
KCSTATUS _ReleaseSessionAttribute(pSCObjectInfo soi, PAttribute pAttribute, UINT32 accessMode);

// Routines for the attribute manager.
KCSTATUS _InitializeAttribute(PAttribute pAttribute, void* pInitData);
void _ReleaseAttribute(PAttribute pAttribute);

// Routines for the object managers.
KCSTATUS _InitializeObjectShim(PVOID pObjectData, PVOID pInitData);
KCSTATUS _DeleteObjectShim(PVOID pObjectData);
BOOLEAN _CompareObjectDefaultNone(PVOID pObjectData, PVOID pCompareData);
BOOLEAN _CompareObjectDefaultAny(PVOID pObjectData, PVOID pCompareData);

OSAL_END_DECLS

namespace osal {

inline constexpr Module kContextModule{KC_FACILITY_OBJECT, "../scobject"};

// Accesses of attributes, fixed numbers of the attribute manager: that of a new one for its
// creator, and that of every other reference.
inline constexpr UINT32 kCreatedAccess = 1;
inline constexpr UINT32 kSharedAccess = 2;

// An object's data begin with the header; clients see what follows.
inline PVOID client_of(PVOID object_data) {
    return static_cast<_SCHeader*>(object_data) + 1;
}
inline _SCHeader* header_of(PVOID user_data) {
    return static_cast<_SCHeader*>(user_data) - 1;
}

inline IOM* manager_of(PAttribute attribute) {
    return static_cast<_SecurityAttribute*>(attribute->pData)->pSAOMI;
}

// Gets the attribute manager and registers the manager's attribute type. After a failure the
// instance has neither.
KCSTATUS join_attribute_manager(pSCObjectInfo soi, const GUID* component, UINT32 level,
                                PISCOM_CLEANUP_ROUTINE cleanup);

// Gives up the attribute type and the attribute manager that an instance holds, if it holds any.
void leave_attribute_manager(pSCObjectInfo soi);

}  // namespace osal
