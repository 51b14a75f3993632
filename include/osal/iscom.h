/* The security-context object manager: typed objects, each in one security context.
 *
 * A client makes a manager for each object type (class CLSID_ObjectManagerDataStore, identifiers
 * IID_ISCObjectManager_1 and _2) and initialises it. Every context then has an object manager of
 * its own (osal/iom.h), made when its first object is created and ended by the security-attribute
 * manager of the host (host/secattr.h) with the context. Handles, scan handles, statistics and
 * bucket indexes are those of the context's manager: a handle means something only together with
 * its context.
 *
 * All operations are safe on any thread; they block as those of osal/iom.h and as the attribute
 * manager do. Statuses of the attribute manager, the object manager and the component runtime are
 * passed on unchanged. Before Initialize, operations that name a context fail with code 4 or as
 * said.
 *
 * One instance has one table at a time: QueryInterface for the other version switches it for every
 * holder of the instance.
 */
#ifndef OSAL_ISCOM_H
#define OSAL_ISCOM_H

#include "osal/iom.h"
#include "osal/slots_iscom.h"

OSAL_BEGIN_DECLS

typedef struct ISCOM ISCOM, *PISCOM;

/* Called when a context that has objects of the type ends. */
typedef void (*PISCOM_CLEANUP_ROUTINE)(SCHANDLE hSC);

/* Cursor of an ISCOM_2 enumeration: owned by the client, zeroed at the start, kept between calls.
 */
typedef struct _ScanData {
    SCHANDLE hEnumSCType; /* cursor over contexts, first half */
    SCHANDLE hEnumSC;     /* cursor over contexts, second half */
    HANDLE hEnumObject;   /* scan handle in the current context; 0: the next context is to start */
    SCHANDLE hLastSC;     /* the context whose objects are being scanned */
} ISCOM_SCAN_DATA, *PISCOM_SCAN_DATA;

/* The operations. Not checked: that pThis and pUserData are what they should be, but for null.
 *
 * Initialize: pComponentId names the object type to the attribute manager and is copied. objectSize
 * is the size of the client's data in bytes; near 2^32 it is refused with code 4. accessLevel
 * without its top four bits is 0, 2 or 3, and objectsPerBlock at most 255, else code 4. Any of the
 * top four bits asks for deferred deletion. hashSize and permBlocks are those of each context.
 * pDeleteRoutine may be null, pDeallocateRoutine is ignored. pSCCleanupRoutine may be null; it is
 * called once for each context with objects of the type that ends. Initialising again is not
 * refused: it first gives the old type up, and with it its objects, as the last Release does; when
 * it then fails, the instance is not initialised. Not beside other calls.
 *
 * CreateObject: finds by pCompareRoutine (none: finds nothing) in bucket CompareIndex, or creates.
 * *pOpenedMode (may be null) is 1 for a new object, held with createAccess, 2 for an existing one,
 * held with openAccess: 0 none, 1 exclusive, 2 shared. An error of pInitRoutine is returned
 * unchanged. The results are untouched after an error.
 *
 * ReferenceObjectByHandle: the attribute manager's status if the context has no objects yet.
 *
 * EnumerateObjects: one object a call, code 9 at the end. ISCOM_2 takes the wildcard context (both
 * halves (HANDLE)-1) and then walks every context. A walk whose present context ends between two
 * calls fails with the attribute manager's status, code 3; setting hEnumObject to 0 lets it go on
 * with the next context.
 *
 * FindObject: the first object of the bucket that matches (no routine: the first one). A context
 * without objects gives code 9, without a log line.
 *
 * An object that one of these hands out with an access is locked anew after it was found, so
 * another thread may have had it, and have deleted it, in between.
 *
 * GetObjectSecurityContext: the context an object was created in.
 *
 * GetObjectStats: ISCOM_2 only; three zeros for a context without objects. ISCOM: code 16.
 *
 * AllocateObject, DeallocateObject, OpenObject: not supported, code 13.
 *
 * The others are those of osal/iom.h. Their status is code 4100 when the object's context has ended
 * and the object was the last thing left of it. */
#define OSAL_TABLE_FIELD(number, field, function, result, arguments) result(*field) arguments;
typedef struct ISCOMVtbl {
    KX_ISCOM_SLOTS(OSAL_TABLE_FIELD)
} ISCOMVtbl;

typedef struct ISCOM_2Vtbl {
    KX_ISCOM_2_SLOTS(OSAL_TABLE_FIELD)
} ISCOM_2Vtbl;
#undef OSAL_TABLE_FIELD

struct ISCOM {
    const ISCOMVtbl* lpVtbl;
};

/* The same object seen through the second table. Its operations take the same first argument. */
typedef struct ISCOM_2 {
    const ISCOM_2Vtbl* lpVtbl;
} ISCOM_2, *PISCOM_2;

OSAL_END_DECLS

#endif
