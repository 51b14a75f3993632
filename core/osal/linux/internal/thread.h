// The record of a thread.
#pragma once

#include <pthread.h>

#include <cstddef>

#include "osal/internal/handle.h"
#include "osal/internal/mutex.h"
#include "osal/thread.h"

// A paged pool block of the instance that KxCreateThread was called with; freed by KxDestroyThread.
//
// Signature, pCallerThreadContext, attr: never change while the record lives. id: stored by the
// platform before the thread starts. status, ended: guarded by mutex. pCallerThreadRoutine: changed
// under mutex, read atomically without it; null tells that the thread has called KxExitThread.
struct _KX_THREAD_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("THRD");

    UINT32 Signature;
    pthread_t id;
    pthread_attr_t attr;
    osal::Mutex mutex;
    pthread_cond_t condition;
    KCSTATUS status GUARDED_BY(mutex);
    PKX_THREAD_ROUTINE pCallerThreadRoutine;
    PVOID pCallerThreadContext;

    // Behind the stated fields.
    BOOLEAN ended GUARDED_BY(mutex);  // the platform thread is about to be gone
};
static_assert(offsetof(_KX_THREAD_HANDLE_, id) == 8);
static_assert(offsetof(_KX_THREAD_HANDLE_, attr) == 16);
static_assert(offsetof(_KX_THREAD_HANDLE_, mutex) == 72);
static_assert(offsetof(_KX_THREAD_HANDLE_, condition) == 112);
static_assert(offsetof(_KX_THREAD_HANDLE_, status) == 160);
static_assert(offsetof(_KX_THREAD_HANDLE_, pCallerThreadRoutine) == 168);
static_assert(offsetof(_KX_THREAD_HANDLE_, pCallerThreadContext) == 176);

typedef _KX_THREAD_HANDLE_* PKX_THREAD_HANDLE;

OSAL_BEGIN_DECLS
void* OsalSystemThreadRtn(void* pThread);
OSAL_END_DECLS
