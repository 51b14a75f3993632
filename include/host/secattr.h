/* The security-attribute manager: a component of the host product that hangs attributes on security
 * contexts.
 *
 * osal.so's security-context object manager obtains it from the component runtime by
 * CLSID_SecurityAttributeManager and keeps its per-context object managers in it. A product may
 * bring its own; secattr.so (host/secattr) is a small, complete one. What osal.so relies on is
 * marked (!).
 *
 * A component registers an attribute type under a GUID. Each context then has at most one attribute
 * of each type; its data area has the registered size and starts zeroed. References are counted: an
 * attribute that is handed out stays until it is dereferenced, even if its context ends meanwhile.
 *
 * Access values, wherever an argument is called access: 1 exclusive, 2 shared, 0 none. A call that
 * hands an attribute out with an access returns when that access was got, and SADereference with
 * the same value gives it back.
 */
#ifndef HOST_SECATTR_H
#define HOST_SECATTR_H

#include "osal/identifiers.h"
#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* An attribute as its users see it. The manager owns the record and the data. */
typedef struct _Attribute_ {
    SCHANDLE hSC; /* the context it hangs on */
    PVOID pData;  /* its data, of the registered size, aligned to 8 bytes */
} Attribute, *PAttribute;

/* Called once for each context of a registered type when the context ends. */
typedef void (*PSA_CLEANUP_ROUTINE)(SCHANDLE hSC);

/* Called once for each attribute before its data goes; on any thread, also while other contexts are
 * in use. It may call the manager, but for the attribute it was called for. */
typedef void (*PSA_RELEASE_ROUTINE)(PAttribute pAttribute);

/* Fills the data of a new attribute. An error status cancels the creation. */
typedef KCSTATUS (*PSA_INIT_ROUTINE)(PAttribute pAttribute, void* pInitData);

/* Chooses attributes in an enumeration: only 1 takes one. */
typedef BOOLEAN (*PSA_COMPARE_ROUTINE)(PAttribute pAttribute, void* pCompareData);

typedef struct ISA ISA, *PISA;

/* The table of the manager, under IID_IContextAttribute_1 and IID_IPassiveContextAttribute_1 alike.
 * X(number, slot, result, arguments) */
/* clang-format off */
#define SECATTR_ISA_SLOTS(X)                                                                      \
    X(0, QueryInterface, KCSTATUS, (PISA pThis, const GUID* pIId, void** ppInterface))            \
    X(1, AddRef, UINT32, (PISA pThis))                                                            \
    X(2, Release, UINT32, (PISA pThis))                                                           \
    X(3, SARegisterAttribute, KCSTATUS,                                                           \
      (PISA pThis, const GUID* pComponentId, UINT32 dataSize, PSA_CLEANUP_ROUTINE pCleanup,       \
       PSA_RELEASE_ROUTINE pRelease, PHANDLE phAttribute))                                        \
    X(4, SADeregisterAttribute, KCSTATUS, (PISA pThis, HANDLE hAttribute))                        \
    X(5, SACreate, KCSTATUS,                                                                      \
      (PISA pThis, SCHANDLE hSC, HANDLE hAttribute, void* pInitData, PSA_INIT_ROUTINE pInit,      \
       UINT32 createAccess, UINT32 openAccess, PAttribute* ppAttribute, PUINT32 pOpenedMode))     \
    X(6, SADelete, KCSTATUS, (PISA pThis, UINT32 access, PAttribute pAttribute))                  \
    X(7, SAReference, KCSTATUS,                                                                   \
      (PISA pThis, SCHANDLE hSC, HANDLE hAttribute, UINT32 access, PAttribute* ppAttribute))      \
    X(8, SADereference, KCSTATUS, (PISA pThis, UINT32 access, PAttribute pAttribute))             \
    X(9, SAGetSCHandle, KCSTATUS, (PISA pThis, PAttribute pAttribute, PSCHANDLE phSC))            \
    X(10, SAEnumerate, KCSTATUS,                                                                  \
      (PISA pThis, const GUID* pComponentId, HANDLE hAttribute, PSCHANDLE phEnumType,             \
       PSCHANDLE phEnum, void* pCompareData, PSA_COMPARE_ROUTINE pCompare, UINT32 access,         \
       PAttribute* ppAttribute))                                                                  \
    X(11, SAAcquire, KCSTATUS, (PISA pThis, UINT32 access, PAttribute pAttribute))                \
    X(12, SARelease, KCSTATUS, (PISA pThis, PAttribute pAttribute))
/* clang-format on */

#define SECATTR_ISA_SLOT_COUNT 13

/* The operations, all safe on any thread:
 *
 * SARegisterAttribute  makes an attribute type of the given data size; both routines may be null.
 *                      *phAttribute names it from then on. Registering a GUID again makes a
 * further, independent type. SADeregisterAttribute ends a type: its attributes go as if their
 * contexts ended, without the clean-up routine. SACreate             hands out the type's attribute
 * on a context, which begins with its first one. New: pInit is called on its zeroed data,
 * *pOpenedMode is 1 and the caller holds createAccess. (!) It existed already, also because another
 * thread came first: pInit is not called, *pOpenedMode is 2 and the caller holds openAccess. An
 * error status of pInit is returned unchanged and nothing stays. SADelete             takes the
 * attribute off its context; access is what the caller holds and gives up. It goes with its last
 * reference. SAReference          (!) hands out an existing attribute; code 3 if the context has
 * none. SADereference        (!) gives a reference and an access back. SAGetSCHandle        copies
 * the attribute's context. SAEnumerate          (!) hands out the next context's attribute of the
 * type. The caller zeroes both cursors at the start, and keeps them between calls. pComponentId may
 * name the type if hAttribute is null. Contexts are visited oldest first; ones that begin or end
 * meanwhile do not disturb a scan. Code 9 at the end, cursors unchanged. SAAcquire, SARelease take
 * and give an access of a referenced attribute.
 */
typedef struct ISAVtbl {
#define SECATTR_TABLE_FIELD(number, field, result, arguments) result(*field) arguments;
    SECATTR_ISA_SLOTS(SECATTR_TABLE_FIELD)
#undef SECATTR_TABLE_FIELD
} ISAVtbl;

struct ISA {
    const ISAVtbl* lpVtbl;
};

/* Security contexts: of the class CLSID_SecurityContextManager, identifier IID_ISecurityContext_1.
 * The natural partner of the attribute manager; osal.so does not use it.
 *
 * A context begins when it is opened or gets its first attribute, and ends by EndContext. All
 * operations are safe on any thread. */
typedef struct ISecurityContext ISecurityContext, *PISecurityContext;

typedef struct ISecurityContextVtbl {
    KCSTATUS (*QueryInterface)(PISecurityContext pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(PISecurityContext pThis);
    UINT32 (*Release)(PISecurityContext pThis);

    /* Opens the context of a user id and a session id: hTypeId is the first, hId the second, so the
     * same pair always gives the same context. Opening an open one changes nothing. Code 4: null
     * phSC, or both ids all ones, which names every context. */
    KCSTATUS(*OpenContext)
    (PISecurityContext pThis, UINT64 userId, UINT64 sessionId, PSCHANDLE phSC);

    /* Ends a context: takes its attributes off it, calls for each the clean-up routine of its type
     * and, once the last reference of the attribute was given back, the release routine. From
     * inside a routine of an attribute manager's client it may be called for other contexts only.
     * Code 3: there is no such context. */
    KCSTATUS (*EndContext)(PISecurityContext pThis, SCHANDLE hSC);

    /* Lists contexts, one a call: *pScan is 0 for the first and kept by the caller. Contexts that
     * begin or end meanwhile do not disturb it. Code 9 at the end, 4 for a null pointer. */
    KCSTATUS (*EnumerateContexts)(PISecurityContext pThis, PHANDLE pScan, PSCHANDLE phSC);
} ISecurityContextVtbl;

struct ISecurityContext {
    const ISecurityContextVtbl* lpVtbl;
};

OSAL_END_DECLS

#endif
