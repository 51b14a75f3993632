/* The object manager: typed client objects under 32-bit handles.
 *
 * An instance comes from the factory of CLSID_ObjectManagerDataStore (osal/component.h), made for
 * IID_IObjectManager_1 (IOM) or IID_IObjectManager_2 (IOM_2), and must be initialised before any
 * other operation. It keeps objects of one size for one client; the client sees of an object the
 * address of its data, which does not move, and a handle that goes stale when the object is freed.
 * Once all objects of its block were freed, the block goes, and a new one may give out that handle
 * again.
 * An object lives until it was deleted (or deallocated) and its last reference was given back.
 *
 * Locks. Each object has a lock that the client takes through the lookups or AcquireObject:
 * accessType 0 takes none, 1 takes it exclusively, 2 shared. Whoever holds an object lock must not
 * enter the same instance but through the calls that give that lock up: DeleteObject,
 * DeallocateObject, DereferenceObject (each with the accessType that is held), ReleaseObject, and
 * those that take no lock at all (GetObjectHandle, GetRawObjectHandle, IncrementReference).
 * Deleting waits for the object's lock while it holds that of the instance, so anything else can
 * deadlock.
 *
 * Routines. Compare and init routines run with the instance locked and must not call back into the
 * same instance. Delete and deallocate routines run with nothing locked and may.
 *
 * Every operation is safe on any thread, and each but those that take no lock may block for the
 * instance's lock and, where it says so, an object's. None is a cancellation point by itself, but
 * the routines it calls may be, and so is a wait for an object that is still being created.
 *
 * Statuses. Code 4 where the instance is null or not initialised or a required pointer is null; the
 * facility is KC_FACILITY_OBJECT. A pointer to data that is not of a live object of this instance
 * is not checked.
 */
#ifndef OSAL_IOM_H
#define OSAL_IOM_H

#include "osal/slots_iom.h"
#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* Called with the data of an object: when its deletion or its deallocation completes. The result is
 * not used. */
typedef KCSTATUS (*PKX_OBJECT_ROUTINE)(PVOID pUserData);

/* Fills the zeroed data of a new object. An error status takes the creation back and is returned to
 * the caller as it is. */
typedef KCSTATUS (*PKX_OBJECT_INIT_ROUTINE)(PVOID pUserData, PVOID pInitData);

/* Whether an object is the one looked for. Only a result of exactly 1 says yes. */
typedef BOOLEAN (*PKX_OBJECT_COMPARE_ROUTINE)(PVOID pUserData, PVOID pCompareData);

/* Access to an object. */
enum { KX_OBJECT_NO_ACCESS = 0, KX_OBJECT_EXCLUSIVE = 1, KX_OBJECT_SHARED = 2 };

/* Kinds of locks of an instance and its objects; or'ed with KX_OBJECT_DEFERRED, the delete and
 * deallocate routines run on a thread of the library's, in the order in which the objects ended and
 * with all signals blocked but those of a fault. They must return: they may neither end that thread
 * nor throw. Shutdown of the library waits for them. */
#define KX_OBJECT_LEVEL_LOCK 0u  /* read/write locks */
#define KX_OBJECT_LEVEL_SPIN 2u  /* the same as 0, in the paged pool */
#define KX_OBJECT_LEVEL_MUTEX 3u /* mutexes: shared access is exclusive too */
#define KX_OBJECT_DEFERRED 0x10000000u

/* How an object was come by: *pOpenedMode. */
enum { KX_OBJECT_CREATED = 1, KX_OBJECT_OPENED = 2 };

/* Both interfaces of an instance, one at a time: asking it for the other version switches the table
 * for every holder. They differ in the form of a handle only; that of the second is scrambled by a
 * number of the library's.
 *
 * QueryInterface: adds a reference. IID_IUnknown leaves the table as it is. Null pThis or
 * ppInterface: code 4. Another identifier: code 2, and *ppInterface is null.
 *
 * AddRef, Release: return the new count. The Release that ends at 0 deletes every object, and frees
 * the instance once the last reference of its objects was given back.
 *
 * Initialize: objectSize bytes of data an object; 1 to 255 objects to a block; accessLevel a level,
 * with KX_OBJECT_DEFERRED or without; hashSize buckets (0: one); permBlocks blocks that are made at
 * once and kept when empty. Any of the routines may be null; the debug routine is ignored. Code
 * 0x1001: done before. Code 4: null pThis, more than 255 objects, or a level that is none. Code 5:
 * no memory or no lock. After codes 4 and 5 the instance can only be released.
 *
 * CreateObject: finds an object in bucket CompareIndex by the compare routine (null: finds none),
 * or creates one in a free slot, with one reference for the caller. It is held with createAccess or
 * openAccess; *pOpenedMode, unless null, says which. Code 4: no such bucket as well. Code 5: no
 * block, no lock.
 *
 * CreateObjectByHandle: creates the object of a (raw) handle, or references the one in its slot,
 * whose handle it then becomes. Only with one bucket, else code 4. Code 3: no such slot, or its
 * object is being freed. Code 5: block 0, no block, no lock. *pOpenedMode is 0 after a failure of
 * the creation, and untouched after code 4 or a slot that no block has.
 *
 * AllocateObject: makes a preallocated object with one reference, which is found by handle and
 * enumeration only until OpenObject takes it. Code 5: no block, no lock.
 *
 * OpenObject: as CreateObject, but a new object is the oldest preallocated one. References that
 * others hold on that are forgotten. Code 0x1003: none is left.
 *
 * DeleteObject: takes an object out of every lookup and drops a reference of the caller's, after
 * giving up the lock that accessType says. Deleting again only drops a reference. Code 0x1004: the
 * instance went with its last object.
 *
 * DeallocateObject: the same, but the object ends as a preallocated one.
 *
 * ReferenceObjectByHandle: code 3 for a stale or unknown handle, or if the object is being deleted;
 * *ppUserData may have been written in the latter case.
 *
 * FindObject: the first object of the bucket that the compare routine accepts (null: any). Code 11:
 * there is none, or it is being deleted. With access, waits until the object's creation has ended;
 * one made by CreateObjectByHandle never gets there.
 *
 * EnumerateObjects: one object a call, in the order of their handles' blocks and slots.
 * *pscanHandle is 0 for the first and kept by the caller. Preallocated objects are met too; with
 * access, one is waited for until it is opened. Code 9: no more.
 *
 * GetObjectHandle, GetRawObjectHandle: write the low 32 bits of *phandle and leave the upper ones.
 *
 * AcquireObject, ReleaseObject: the object's lock. AcquireObject succeeds without taking it for an
 * accessType that is neither 1 nor 2 of an instance with read/write locks.
 *
 * IncrementReference: adds a reference to one that the caller holds already.
 *
 * DereferenceObject: drops a reference, after the lock that accessType says. Succeeds also if the
 * instance goes with it.
 *
 * DecrementReference: DereferenceObject with no lock held.
 *
 * GetObjectStats: the slots of all blocks; the objects in use that are not preallocated; the
 * preallocated ones. Each pointer may be null.
 */
#define OSAL_TABLE_FIELD(number, field, function, result, arguments) result(*field) arguments;
typedef struct IOMVtbl {
    KX_IOM_SLOTS(OSAL_TABLE_FIELD)
} IOMVtbl;
typedef struct IOM_2Vtbl {
    KX_IOM_2_SLOTS(OSAL_TABLE_FIELD)
} IOM_2Vtbl;
#undef OSAL_TABLE_FIELD

typedef struct IOM {
    const IOMVtbl* lpVtbl;
} IOM;
typedef struct IOM_2 {
    const IOM_2Vtbl* lpVtbl;
} IOM_2;

OSAL_END_DECLS

#endif
