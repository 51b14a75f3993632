/* The tables of the object-manager interfaces, slot by slot.
 *
 * One list each yields the table type, the table, its layout assertions and the slot tests:
 * SLOT(number, field, function, result, arguments). The two versions share their slots but for the
 * two that differ and the one that the second inserts.
 */
#ifndef OSAL_SLOTS_IOM_H
#define OSAL_SLOTS_IOM_H

#define KX_IOM_SLOT_COUNT 20
#define KX_IOM_2_SLOT_COUNT 21

/* clang-format off */
#define KX_IOM_FIRST_SLOTS(SLOT)                                                                  \
    SLOT(0, QueryInterface, ObjectQueryInterface, KCSTATUS,                                       \
         (PVOID pThis, const GUID* pIId, void** ppInterface))                                     \
    SLOT(1, AddRef, ObjectAddRef, UINT32, (PVOID pThis))                                          \
    SLOT(2, Release, ObjectRelease, UINT32, (PVOID pThis))                                        \
    SLOT(3, Initialize, ObjectInitialize, KCSTATUS,                                               \
         (PVOID pThis, UINT32 objectSize, UINT16 objectsPerBlock, UINT32 accessLevel,             \
          UINT32 hashSize, PKX_OBJECT_ROUTINE pDeleteRoutine,                                     \
          PKX_OBJECT_ROUTINE pDeallocateRoutine, PKX_OBJECT_ROUTINE pDebugRoutine,                \
          UINT32 permBlocks))                                                                     \
    SLOT(4, CreateObject, ObjectCreate, KCSTATUS,                                                 \
         (PVOID pThis, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,                     \
          PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,    \
          UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode))        \
    SLOT(5, DeleteObject, ObjectDelete, KCSTATUS,                                                 \
         (PVOID pThis, PVOID pUserData, UINT32 accessType))

#define KX_IOM_REFERENCE_SLOT(SLOT, function)                                                     \
    SLOT(6, ReferenceObjectByHandle, function, KCSTATUS,                                          \
         (PVOID pThis, HANDLE handle, UINT32 accessType, PVOID* ppUserData))

#define KX_IOM_MIDDLE_SLOTS(SLOT)                                                                 \
    SLOT(7, DereferenceObject, ObjectDereference, KCSTATUS,                                       \
         (PVOID pThis, PVOID pUserData, UINT32 accessType))                                       \
    SLOT(8, EnumerateObjects, ObjectEnumerate, KCSTATUS,                                          \
         (PVOID pThis, PHANDLE pscanHandle, PVOID pCompareData,                                   \
          PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 accessType, PVOID* ppUserData))

#define KX_IOM_HANDLE_SLOT(SLOT, number, field, function)                                         \
    SLOT(number, field, function, KCSTATUS, (PVOID pThis, PVOID pUserData, PHANDLE phandle))

#define KX_IOM_LAST_SLOTS(SLOT, first)                                                            \
    SLOT(first + 0, FindObject, ObjectFind, KCSTATUS,                                             \
         (PVOID pThis, PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine,            \
          UINT32 CompareIndex, UINT32 accessType, PVOID* ppUserData))                             \
    SLOT(first + 1, AcquireObject, ObjectAcquireAccess, KCSTATUS,                                 \
         (PVOID pThis, PVOID pUserData, UINT32 accessType))                                       \
    SLOT(first + 2, ReleaseObject, ObjectReleaseAccess, KCSTATUS,                                 \
         (PVOID pThis, PVOID pUserData))                                                          \
    SLOT(first + 3, IncrementReference, ObjectIncrement, KCSTATUS,                                \
         (PVOID pThis, PVOID pUserData))                                                          \
    SLOT(first + 4, DecrementReference, ObjectDecrement, KCSTATUS,                                \
         (PVOID pThis, PVOID pUserData))                                                          \
    SLOT(first + 5, CreateObjectByHandle, ObjectCreateByHandle, KCSTATUS,                         \
         (PVOID pThis, HANDLE handle, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,      \
          UINT32 createAccess, UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode))        \
    SLOT(first + 6, AllocateObject, ObjectAllocate, KCSTATUS,                                     \
         (PVOID pThis, PVOID* ppUserData))                                                        \
    SLOT(first + 7, DeallocateObject, ObjectDeallocate, KCSTATUS,                                 \
         (PVOID pThis, PVOID pUserData, UINT32 accessType))                                       \
    SLOT(first + 8, OpenObject, ObjectOpen, KCSTATUS,                                             \
         (PVOID pThis, PVOID pInitData, PKX_OBJECT_INIT_ROUTINE pInitRoutine,                     \
          PVOID pCompareData, PKX_OBJECT_COMPARE_ROUTINE pCompareRoutine, UINT32 CompareIndex,    \
          UINT32 allocAccess, UINT32 openAccess, PVOID* ppUserData, PUINT32 pOpenedMode))         \
    SLOT(first + 9, GetObjectStats, ObjectGetStats, KCSTATUS,                                     \
         (PVOID pThis, PUINT32 pObjectsAllocated, PUINT32 pObjectsInUse,                          \
          PUINT32 pObjectsPreallocated))

#define KX_IOM_SLOTS(SLOT)                                                                        \
    KX_IOM_FIRST_SLOTS(SLOT)                                                                      \
    KX_IOM_REFERENCE_SLOT(SLOT, ObjectReferenceByHandle)                                          \
    KX_IOM_MIDDLE_SLOTS(SLOT)                                                                     \
    KX_IOM_HANDLE_SLOT(SLOT, 9, GetObjectHandle, ObjectGetHandle)                                 \
    KX_IOM_LAST_SLOTS(SLOT, 10)

#define KX_IOM_2_SLOTS(SLOT)                                                                      \
    KX_IOM_FIRST_SLOTS(SLOT)                                                                      \
    KX_IOM_REFERENCE_SLOT(SLOT, ObjectReferenceByHandle2)                                         \
    KX_IOM_MIDDLE_SLOTS(SLOT)                                                                     \
    KX_IOM_HANDLE_SLOT(SLOT, 9, GetObjectHandle, ObjectGetHandle2)                                \
    KX_IOM_HANDLE_SLOT(SLOT, 10, GetRawObjectHandle, ObjectGetHandle)                             \
    KX_IOM_LAST_SLOTS(SLOT, 11)
/* clang-format on */

#endif
