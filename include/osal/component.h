/* Component entry: what a component runtime calls, the class factory, and the identifiers.
 */
#ifndef OSAL_COMPONENT_H
#define OSAL_COMPONENT_H

#include "osal/identifiers.h"
#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* Results of OsalMapStatusToHresult. */
#define KC_S_OK ((HRESULT)0)
#define KC_E_NOINTERFACE ((HRESULT)0x80004002)
#define KC_E_CREATE_FAILED ((HRESULT)0x80080001)

typedef struct LCM_IClassFactory LCM_IClassFactory;

/* Table of a class factory. This is the whole of it: five slots, in this order. */
typedef struct LCM_IClassFactoryVtbl {
    /* IID_IUnknown gives This, IID_IClassFactory the factory; counts one reference.
     * Null ppInterface: code 4. Another identifier: *ppInterface null and code 2. */
    KCSTATUS (*QueryInterface)(LCM_IClassFactory* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(LCM_IClassFactory* This);
    /* Returns the count left. The library's factories are static: nothing is freed at zero. */
    UINT32 (*Release)(LCM_IClassFactory* This);
    /* Makes an instance. Null ppInterface or non-null pUnkOuter (there is no aggregation): code 4,
     * *ppInterface untouched. Unknown identifier: *ppInterface null and code 2. No memory: code 5.
     * The caller owns one reference of the new instance. */
    KCSTATUS(*CreateInstance)
    (LCM_IClassFactory* This, void* pUnkOuter, const GUID* pIId, void** ppInterface);
    /* Counts up when fLock is exactly 1, down for every other value. Returns 0. */
    KCSTATUS (*LockServer)(LCM_IClassFactory* This, BOOLEAN fLock);
} LCM_IClassFactoryVtbl;

struct LCM_IClassFactory {
    const LCM_IClassFactoryVtbl* lpVtbl;
};

/* A static class factory of the library. */
typedef struct CFInstance {
    const LCM_IClassFactoryVtbl* lpVtbl;
    UINT32 cReference; /* changed atomically */
    UINT32 cLock;      /* changed atomically */
} CFInstance;

/* Classes that a component serves, ended by a null pointer. Read by the component runtime. */
extern const GUID* const TSCOM_Table[];

/* To be called once after the library was loaded, before anything else, by one thread.
 *
 * Opens the system log under the identity "[OSAL]" and masks LOG_DEBUG, unless the environment
 * variable OSAL_DO_NOT_OVERWRITE_OPENLOG is set, and computes the thread and file limits. Always
 * returns 0. */
KCSTATUS DllStart(void);

/* To be called once before the library is unloaded. Shuts the library down (OsalUninitialize) and
 * closes the system log. The result carries no meaning. A second call is harmless. When it returns
 * every thread of the library has ended, so that the library may be unloaded at once, unless a
 * thread that a client started is still on its way out (osal/thread.h). Not to be called from a
 * timer, work-item or delete routine, which it would wait for. */
KCSTATUS DllStop(void);

/* Stops the library's own threads, waits for them without a time-out, also for the deferred
 * deletions of objects that are under way, and releases what start-up took. Always returns 0. There
 * is no way back: the library stays stopped until it is loaded anew. A second call is harmless; not
 * for use beside other calls into the library. */
KCSTATUS OsalUninitialize(void);

/* Maps a status to the result of a component entry point. Only the code counts: 0 gives 0, 2 gives
 * 0x80004002, any other 0x80080001. */
HRESULT OsalMapStatusToHresult(KCSTATUS status);

/* Hands out a class factory.
 *
 * pClassID: CLSID_OrvaneOsal (the service interface) or CLSID_ObjectManagerDataStore; pIID:
 * IID_IClassFactory or IID_IUnknown. The first call initialises the library; until one has
 * succeeded every call tries again. An unknown class gives 0x80004002 and leaves *ppInterface
 * untouched. pClassID and pIID must not be null; that is not checked.
 *
 * Safe on any thread. The first call may block while another thread initialises. */
HRESULT DllGetClassObject(const GUID* pClassID, const GUID* pIID, PVOID* ppInterface);

OSAL_END_DECLS

#endif
