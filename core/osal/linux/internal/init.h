// Start-up and shutdown: the module's globals, and what the component entry and the infrastructures
// call of each other.
#pragma once

#include "osal/component.h"
#include "osal/internal/mutex.h"

OSAL_BEGIN_DECLS

extern BOOLEAN g_bOsalInitialized;  // set under g_hModuleMutex, read without it; never cleared
extern BOOLEAN g_Unload;            // set by shutdown; nothing reads it
extern osal::Mutex g_hModuleMutex;  // serialises OsalInitialize
extern osal::Mutex g_dummy_mutex;   // never locked: the fork handler copies it
extern pthread_cond_t g_dummy_condition;  // kept beside it; unused

extern UINT32 g_ulCount;                // interface references held on object managers; atomic
extern UINT64 g_OsalMaxThreads;         // cap on threads made through KxCreateThread
extern INT32 g_OsalCurrentThreads;      // threads made through KxCreateThread and not ended; atomic
extern INT32 g_OsalMaxFiles;            // descriptor budget; computed, read by nothing
extern INT32 g_OsalMaxTimerThreads;     // threads set aside for timers
extern INT32 g_OsalMaxWorkItemThreads;  // threads set aside for work items
extern INT32 g_OsalNumTimerThreads;     // live timer threads; atomic
extern INT32 g_OsalNumWorkItemThreads;  // live worker threads; atomic

KCSTATUS OsalInitialize(void);
void OsalGetLimits(void);
void OsalForkChildHandler(void);

KCSTATUS OsalFactoryCreateInstance(LCM_IClassFactory* This, void* pUnkOuter, const GUID* pIId,
                                   void** ppInterface);

OSAL_END_DECLS

namespace osal {

// Initialises the library unless that has been done. An error status: it is not initialised, and
// the next call tries again.
KCSTATUS ensure_initialized();

}  // namespace osal
