/* The slots of the security-context object-manager interfaces, one row a slot, in slot order.
 *
 * X(number, slot, function, result, arguments). The lists yield the table types (osal/iscom.h), the
 * tables and the slot tests. The two interfaces share slots 0 to 15 but for slot 8.
 */
#ifndef OSAL_SLOTS_ISCOM_H
#define OSAL_SLOTS_ISCOM_H

#define KX_ISCOM_SLOT_COUNT 20
#define KX_ISCOM_2_SLOT_COUNT 17

/* clang-format off */
#define KX_ISCOM_SLOTS_0_TO_7(X)                                                                  \
    X(0, QueryInterface, SCObjectQueryInterface, KCSTATUS,                                        \
      (PVOID pThis, const GUID* pIId, void** ppInterface))                                        \
    X(1, AddRef, SCObjectAddRef, UINT32, (PVOID pThis))                                           \
    X(2, Release, SCObjectRelease, UINT32, (PVOID pThis))                                         \
    X(3, Initialize, SCObjectInitialize, KCSTATUS,                                                \
      (PVOID pThis, const GUID* pComponentId, UINT32 objectSize, UINT16 objectsPerBlock,          \
       UINT32 accessLevel, UINT32 hashSize, PKX_OBJECT_ROUTINE pDeleteRoutine,                    \
       PKX_OBJECT_ROUTINE pDeallocateRoutine, PISCOM_CLEANUP_ROUTINE pSCCleanupRoutine,           \
       UINT32 permBlocks))                                                                        \
    X(4, CreateObject, SCObjectCreate, KCSTATUS,                                                  \
      (PVOID pThis, SCHANDLE hSC, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,          \
       PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,       \
       UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode))           \
    X(5, DeleteObject, SCObjectDelete, KCSTATUS,                                                  \
      (PVOID pThis, PVOID pUserData, UINT32 accessType))                                          \
    X(6, ReferenceObjectByHandle, SCObjectReferenceByHandle, KCSTATUS,                            \
      (PVOID pThis, SCHANDLE hSC, HANDLE handle, UINT32 accessType, PVOID* ppUserData))           \
    X(7, DereferenceObject, SCObjectDereference, KCSTATUS,                                        \
      (PVOID pThis, PVOID pUserData, UINT32 accessType))

#define KX_ISCOM_SLOTS_9_TO_15(X)                                                                 \
    X(9, GetObjectHandle, SCObjectGetHandle, KCSTATUS,                                            \
      (PVOID pThis, PVOID pUserData, PHANDLE phandle))                                            \
    X(10, FindObject, SCObjectFind, KCSTATUS,                                                     \
      (PVOID pThis, SCHANDLE hSC, PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, \
       UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData))                                \
    X(11, AcquireObject, SCObjectAcquireAccess, KCSTATUS,                                         \
      (PVOID pThis, PVOID pUserData, UINT32 accessType))                                          \
    X(12, ReleaseObject, SCObjectReleaseAccess, KCSTATUS, (PVOID pThis, PVOID pUserData))         \
    X(13, IncrementReference, SCObjectIncrement, KCSTATUS, (PVOID pThis, PVOID pUserData))        \
    X(14, DecrementReference, SCObjectDecrement, KCSTATUS, (PVOID pThis, PVOID pUserData))        \
    X(15, GetObjectSecurityContext, SCObjectGetSCHandle, KCSTATUS,                                \
      (PVOID pThis, PVOID pUserData, PSCHANDLE phSC))

#define KX_ISCOM_SLOTS(X)                                                                         \
    KX_ISCOM_SLOTS_0_TO_7(X)                                                                      \
    X(8, EnumerateObjects, SCObjectEnumerate, KCSTATUS,                                           \
      (PVOID pThis, SCHANDLE hSC, PHANDLE pscanHandle, PVOID pCompareData,                        \
       PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType, PVOID* ppUserData))         \
    KX_ISCOM_SLOTS_9_TO_15(X)                                                                     \
    X(16, AllocateObject, SCObjectAllocate, KCSTATUS, (PVOID pThis, PVOID* ppUserData))           \
    X(17, DeallocateObject, SCObjectDeallocate, KCSTATUS,                                         \
      (PVOID pThis, PVOID pUserData, UINT32 accessType))                                          \
    X(18, OpenObject, SCObjectOpen, KCSTATUS,                                                     \
      (PVOID pThis, SCHANDLE hSC, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,          \
       PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,       \
       UINT32 allocAccess, UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode))            \
    X(19, GetObjectStats, SCObjectGetStats, KCSTATUS,                                             \
      (PVOID pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,                             \
       PUINT32 pObjectsPreallocated))

#define KX_ISCOM_2_SLOTS(X)                                                                       \
    KX_ISCOM_SLOTS_0_TO_7(X)                                                                      \
    X(8, EnumerateObjects, SCObjectEnumerate2, KCSTATUS,                                          \
      (PVOID pThis, SCHANDLE hSC, PISCOM_SCAN_DATA pScanData, PVOID pCompareData,                 \
       PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType, PVOID* ppUserData))         \
    KX_ISCOM_SLOTS_9_TO_15(X)                                                                     \
    X(16, GetObjectStats, SCObjectGetStats2, KCSTATUS,                                            \
      (PVOID pThis, SCHANDLE hSC, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,               \
       PUINT32 pObjectsPreallocated))
/* clang-format on */

#endif
