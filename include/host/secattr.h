/* The security-attribute manager: a component of the host product that hangs attributes on security
 * contexts.
 *
 * A security context is whatever the product says it is, a user's session for one; an SCHANDLE
 * names it. Here it is a name only: nothing is opened behind it and no right is checked. The pair
 * that is all ones names every context and is never one itself.
 *
 * A component registers an attribute type under a GUID. Each context then has at most one attribute
 * of each type, with a data area of the type's size. osal.so keeps its security-context objects
 * (osal/iscom.h) this way: the attribute of an object type on a context is the object manager of
 * that context's objects.
 *
 * BRINGING ONE'S OWN. secattr.so (host/secattr) is a small, complete manager. A product may put
 * another in its place: a component (osal/component.h) that serves CLSID_SecurityAttributeManager
 * and gives an ISA for both IID_IContextAttribute_1 and IID_IPassiveContextAttribute_1. osal.so
 * asks for the first one for object types whose access level has the bit of value 2 set, for the
 * second one otherwise, so that a product may serve them differently; secattr.so does not. osal.so
 * calls Release, SARegisterAttribute, SADeregisterAttribute, SACreate, SAReference, SADereference
 * and SAEnumerate and no other slot; what it relies on is marked (!).
 *
 * STATUSES. Success is 0. Errors are of facility KC_FACILITY_SECATTR and logged through the status
 * library under the name of the operation, but for the three that are nothing out of the ordinary:
 * no attribute on a context, the end of an enumeration, and what others returned - an init routine,
 * the services (memory, locks), the object managers - which is passed on unchanged. Only the code,
 * the low 16 bits, counts to osal.so. An operation that fails leaves its results as they were
 * unless it says otherwise. Null pointers to results and null attributes give code 4.
 *
 * ACCESS. Wherever an argument is called access: 1 exclusive, 2 shared, any other value none. An
 * access is a read/write lock on one attribute, for its users to agree on; the manager itself takes
 * none. A call that hands an attribute out with an access returns when that access was got, however
 * long that takes, and SADereference with the same value, on the same thread, gives it back. A
 * thread that holds an attribute exclusively gets no further access of it: code 0x1002. One that
 * holds it shared may get it shared again unless another thread waits for it exclusively meanwhile,
 * when both would wait for ever.
 *
 * THREADS. (!) All operations may be called by any thread at any time, while the component lives;
 * they may block, for an access and while another thread begins or ends attributes. They are no
 * cancellation points, and not for signal handlers.
 *
 * ROUTINES. Clean-up and release routines are called with nothing of the manager held: they may
 * call it, for any context. Init and compare routines run with it locked and must not call it, nor
 * wait for a thread that does. A routine that ends its thread leaves the manager locked.
 *
 * NOT CHECKED. That pThis is the interface; that an attribute is one that was handed out and not
 * given back; that the access given back is held; that the component is not stopped while somebody
 * has an interface or an attribute of it.
 */
#ifndef HOST_SECATTR_H
#define HOST_SECATTR_H

#include "osal/identifiers.h"
#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* An attribute as its users see it. (!) The manager owns the record and the data; neither moves or
 * goes while the attribute is referenced, whatever becomes of its context. */
typedef struct _Attribute_ {
    SCHANDLE hSC; /* (!) the context it hangs on; does not change */
    PVOID pData;  /* (!) its data, of the registered size in bytes, aligned to 8 bytes */
} Attribute, *PAttribute;

/* Called once for each context that ends with an attribute of the type on it, by the thread that
 * ends it, before the release routine; the attribute is off the context by then. */
typedef void (*PSA_CLEANUP_ROUTINE)(SCHANDLE hSC);

/* (!) Called once for each attribute that came to be, when it is off its context and its last
 * reference is given back; the data go right after. On whatever thread does that, also while others
 * use other contexts. Not called for an attribute whose creation failed. That of osal.so ends all
 * objects of the context, and so calls the delete routines of its clients. */
typedef void (*PSA_RELEASE_ROUTINE)(PAttribute pAttribute);

/* Fills the zeroed data of a new attribute, of which nobody else knows yet. (!) An error status
 * cancels the creation. (!) After success it can no longer fail: what the routine stored belongs to
 * the attribute, and to its creator after every error. */
typedef KCSTATUS (*PSA_INIT_ROUTINE)(PAttribute pAttribute, void* pInitData);

/* Chooses attributes in an enumeration: only exactly 1 takes one. */
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

/* The operations.
 *
 * QueryInterface: the same manager under another identifier (IID_IUnknown is one), referenced. Code
 * 2: not one of them, *ppInterface is null. Code 4: null argument.
 *
 * AddRef, Release: (!) count references of the interface and return the new count. secattr.so gives
 * everybody the one static manager: nothing ends with the last reference.
 *
 * SARegisterAttribute: (!) makes a type whose attributes have dataSize bytes of data; (!)
 * *phAttribute names it until it is deregistered. Both routines may be null. The GUID is copied;
 * registering it again makes a further, independent type. Code 4: null pComponentId, or dataSize
 * close to 2^32; code 5: no memory. *phAttribute is null after an error.
 *
 * SADeregisterAttribute: (!) ends a type. Its handle is refused from then on; its attributes come
 * off their contexts and are released, without the clean-up routine, those still referenced by
 * whoever gives the last reference back. Code 3: no such type. osal.so does not look at the result.
 *
 * SACreate: hands out the type's attribute on a context, which begins with its first one. (!) New:
 * pInit, which may be null, was called, *pOpenedMode is 1 and the caller holds createAccess, which
 * it had before anybody else could see the attribute. (!) It existed already, also because another
 * thread came first: pInit is not called, *pOpenedMode is 2 and the caller holds openAccess. (!)
 * After an error there is neither an attribute nor a context that was not there before. pOpenedMode
 * may be null. Code 3: no such type; 4: hSC names every context; 5 and others: no memory, no lock.
 *
 * SADelete: takes an attribute off its context, without the clean-up routine, and gives up the
 * caller's reference and the access it holds. It is released with its last reference. One that is
 * off already only loses the reference.
 *
 * SAReference: (!) hands out an existing attribute. (!) Code 3: the context has none of the type,
 * or there is no such type.
 *
 * SADereference: (!) gives a reference and the access held back. The attribute must not be touched
 * any more. osal.so does not look at the result, and never calls it with an object's lock held.
 *
 * SAGetSCHandle: copies the attribute's context.
 *
 * SAEnumerate: (!) hands out the next context's attribute of the type, with the access. The caller
 * zeroes both cursors at the start and keeps them between the calls, by any threads in turn; what
 * is in them is the manager's. hAttribute names the type; if it is null, pComponentId names the
 * oldest type of that GUID. pCompare may be null and chooses. (!) The order is the manager's own,
 * in secattr.so that of its slots. An attribute that is there from the first call to the last comes
 * exactly once; ones that begin or end meanwhile may come or not, and disturb nothing. (!) Code 9
 * at the end, the cursors unchanged: calling again may bring what has begun since. Code 3: no such
 * type. Code 0x1002: the access was refused, and the cursors are unchanged too.
 *
 * SAAcquire, SARelease: take and give back an access of an attribute that the caller has a
 * reference of. Code 4: an access other than 1 and 2.
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
 * A context begins when it is opened or gets its first attribute, and ends by EndContext only. What
 * is said above of statuses, threads and routines holds here too. */
typedef struct ISecurityContext ISecurityContext, *PISecurityContext;

typedef struct ISecurityContextVtbl {
    KCSTATUS (*QueryInterface)(PISecurityContext pThis, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(PISecurityContext pThis);
    UINT32 (*Release)(PISecurityContext pThis);

    /* Opens the context of a user id and a session id: hTypeId is the first, hId the second, so the
     * same pair always gives the same context. Opening one that is there changes nothing; opens are
     * not counted. Code 4: null phSC, or both ids all ones, which names every context; 5: no
     * memory. */
    KCSTATUS(*OpenContext)
    (PISecurityContext pThis, UINT64 userId, UINT64 sessionId, PSCHANDLE phSC);

    /* Ends a context: takes all attributes off it at once, so that from then on none is found, and
     * calls for each the clean-up routine of its type and, once the last reference of the attribute
     * was given back, the release routine. It does not wait for that. The name may be used again at
     * once, then for a context that begins anew. Of several threads that end one context, one does.
     * Not to be called from an init or compare routine. Code 3: there is no such context. */
    KCSTATUS (*EndContext)(PISecurityContext pThis, SCHANDLE hSC);

    /* Lists contexts, one a call, in no order: *pScan is null for the first and kept by the caller.
     * One that is there from the first call to the last comes exactly once; ones that begin or end
     * meanwhile may come or not. Code 9 at the end, *pScan unchanged. */
    KCSTATUS (*EnumerateContexts)(PISecurityContext pThis, PHANDLE pScan, PSCHANDLE phSC);
} ISecurityContextVtbl;

struct ISecurityContext {
    const ISecurityContextVtbl* lpVtbl;
};

OSAL_END_DECLS

#endif
