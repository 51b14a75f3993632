/* General statistics: the name and the usage counters of every live service instance.
 */
#ifndef OSAL_STATISTICS_H
#define OSAL_STATISTICS_H

#include "osal/iosal.h"

/* The twelve usage counters, in record order: one list for the instance, the statistics record and
 * the tests. */
#define OSAL_COUNTERS(X)                                        \
    X(EventInUse)                   /* events */                \
    X(KeyInUse)                     /* open registry keys */    \
    X(LockInUse)                    /* read/write locks */      \
    X(MemoryNonPagedTotalAllocated) /* bytes, ever allocated */ \
    X(MemoryNonPagedInUse)          /* bytes, not released */   \
    X(MemoryPagedTotalAllocated)    /* bytes, ever allocated */ \
    X(MemoryPagedInUse)             /* bytes, not released */   \
    X(MutexInUse)                   /* mutexes */               \
    X(SpinLockInUse)                /* spin locks */            \
    X(ThreadInUse)                  /* always 0 */              \
    X(TimerInUse)                   /* timers */                \
    X(WorkItemInUse)                /* work items */

OSAL_BEGIN_DECLS

/* One instance. ModuleName is what KxRegisterModuleName stored, zero-terminated. */
#define OSAL_COUNTER_FIELD(name) UINT32 name;
typedef struct GEN_OSAL_STATS_INFO {
    CHAR ModuleName[32];
    OSAL_COUNTERS(OSAL_COUNTER_FIELD)
} GEN_OSAL_STATS_INFO;
#undef OSAL_COUNTER_FIELD

/* What KxGetGeneralOsalStatistics fills: a header, then InterfaceCount records, oldest instance
 * first. The library's own instance is the first of them. */
typedef struct GEN_OSAL_STATS_INFO_BUF {
    UINT32 InterfaceCount;
    UINT32 GenOsalStatsInfoSize; /* of one record: 80 */
    GEN_OSAL_STATS_INFO GenOsalStatsInfo[1];
} GEN_OSAL_STATS_INFO_BUF;

/* Fills the caller's buffer with a record for every live instance.
 *
 * *pSize is the size of pStatBuf in bytes on entry and the number of bytes written on return. Ask
 * for the size first, with *pSize 0 and a null buffer: the result is code 7, and *pSize the room
 * to offer, which is 500 bytes (six instances) more than is needed at that moment. pStatBuf needs
 * no alignment.
 *
 * Code 4: pThis or pSize null; a buffer without a size or a size without a buffer. Code 7: the
 * buffer is too small; *pSize is the room to offer. With no instance alive the result is 0 and
 * *pSize 0. pThis is not checked but for null.
 *
 * Safe on any thread; blocks while another thread makes or ends an instance. The counters are a
 * snapshot of each for itself. No cancellation point. */
KCSTATUS KxGetGeneralOsalStatistics(PIOsal pThis, PUINT32 pSize, PVOID pStatBuf);

OSAL_END_DECLS

#endif
