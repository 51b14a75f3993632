/* Scalar types, handles and small records that every other header of the library builds on.
 *
 * C11 and C++20. Sizes are those of Linux on x86-64 and are part of the binary interface.
 */
#ifndef OSAL_TYPES_H
#define OSAL_TYPES_H

#include <stddef.h>
#include <stdint.h>

/* Bracket declarations with C linkage that keep their names in the dynamic symbol table; of a
 * library, the linker map has the last word. */
#ifdef __cplusplus
#define OSAL_BEGIN_DECLS \
    extern "C" {         \
    _Pragma("GCC visibility push(default)")
#define OSAL_END_DECLS            \
    _Pragma("GCC visibility pop") \
    }
#else
#define OSAL_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define OSAL_END_DECLS _Pragma("GCC visibility pop")
#endif

OSAL_BEGIN_DECLS

typedef char CHAR;
typedef unsigned char UCHAR;
typedef uint8_t UINT8;
typedef uint16_t UINT16;
typedef int32_t INT32;
typedef uint32_t UINT32;
typedef int64_t INT64;
typedef uint64_t UINT64;

typedef CHAR* PCHAR;
typedef UINT32* PUINT32;
typedef UINT64* PUINT64;

/* A byte, never the language's bool: any non-zero value is true unless a function says otherwise.
 */
typedef UINT8 BOOLEAN;
#ifndef TRUE
#define TRUE ((BOOLEAN)1)
#endif
#ifndef FALSE
#define FALSE ((BOOLEAN)0)
#endif

/* One UTF-16 code unit. Not wchar_t, which has 32 bits on this platform. */
typedef uint16_t WCHAR;
typedef WCHAR* PWCHAR;
typedef WCHAR* PWSTR;

typedef void* PVOID;

/* An opaque handle. A null handle is never valid. */
typedef void* HANDLE;
typedef HANDLE* PHANDLE;

/* Status of every service: see osal/status.h. */
typedef UINT32 KCSTATUS;

/* Result of the component entry points. Signed, 64 bits wide, and always positive here: failures
 * are to be recognised by value, not by sign. */
typedef int64_t HRESULT;

/* A class or interface identifier. */
typedef struct GUID {
    UINT32 Data1;
    UINT16 Data2;
    UINT16 Data3;
    UINT8 Data4[8];
} GUID;
typedef GUID* PGUID;

/* A security context, passed by value. Both halves all ones name every context, where that is
 * allowed. */
typedef struct SCHANDLE {
    HANDLE hTypeId; /* type part */
    HANDLE hId;     /* identity part */
} SCHANDLE, *PSCHANDLE;

/* A link of a circular, intrusive, doubly linked list; see osal/list.h. */
typedef struct LIST_ENTRY {
    struct LIST_ENTRY* volatile Flink; /* next entry, or the head */
    struct LIST_ENTRY* volatile Blink; /* previous entry, or the head */
} LIST_ENTRY, *PLIST_ENTRY;

/* Pools that the memory services allocate from; they differ in lock, list and counters only. */
typedef UINT32 POOL_TYPE;
enum { NonPagedPool = 0, PagedPool = 1 };

/* Scheduling priorities of threads and work items. */
typedef UINT32 KX_PRIORITY;
enum { KX_PRIORITY_IDLE = 0, KX_PRIORITY_NORMAL = 1, KX_PRIORITY_REALTIME = 2 };

/* Event kinds: auto-reset, and manual-reset. */
typedef UINT32 KX_EVENT_TYPE;
enum { KxSynchronizationEvent = 0, KxNotificationEvent = 1 };

/* The cancellation type that a spin-lock acquisition saves for its release. */
typedef UINT32 KCSPIN_STATE;

/* An interrupt level. */
typedef UINT8 IRQ_LEVEL;

/* Counted strings. Lengths are in bytes and exclude any terminator; the buffer is not owned. */
typedef struct STRING {
    UINT16 Length;        /* bytes in use */
    UINT16 MaximumLength; /* bytes of room in Buffer */
    PCHAR Buffer;
} STRING, *PSTRING;

typedef struct UNICODE_STRING {
    UINT16 Length;        /* bytes in use: twice the number of units */
    UINT16 MaximumLength; /* bytes of room in Buffer */
    PWCHAR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;

/* Routines that the library calls. Their results are ignored unless a service says otherwise. */
typedef void* (*PKX_THREAD_ROUTINE)(HANDLE hThread, PVOID pContext);
typedef void* (*PKX_TIMER_ROUTINE)(HANDLE hTimer, PVOID pContext);
typedef void* (*PKX_WORK_ITEM_ROUTINE)(HANDLE hWorkItem, PVOID pContext);

/* Access asked for when a registry key is opened or created. */
typedef UINT32 KX_KEY_ACCESS;
enum { KX_KEY_READ = 0, KX_KEY_WRITE = 1, KX_KEY_ALL_ACCESS = 2 };

/* Types of registry values. */
typedef UINT32 KX_REG_TYPE;
enum {
    KX_REG_BINARY = 0,
    KX_REG_UINT32 = 1,
    KX_REG_SZ = 2,
    KX_REG_MULTI_SZ = 3,
    KX_REG_UINT64 = 4
};

OSAL_END_DECLS

#ifdef __cplusplus
constexpr bool operator==(const GUID& a, const GUID& b) {
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i)
        if (a.Data4[i] != b.Data4[i]) return false;
    return true;
}
#endif

#endif
