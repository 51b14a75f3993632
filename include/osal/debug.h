/* Debug output. Both functions ignore pThis, which may be null. */
#ifndef OSAL_DEBUG_H
#define OSAL_DEBUG_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Writes one line to the system log at LOG_USER | LOG_INFO. The format, printf's with syslog's %m,
 * is passed on as it is, with no prefix. May block as syslog does; a cancellation point. Thread
 * safe. A null format is not checked. */
void KxDebugPrintf(PIOsal pThis, const CHAR* pFormatStr, ...) __attribute__((format(printf, 2, 3)));

/* Does nothing; a place to set a breakpoint at. */
void KxDebugBreakPoint(PIOsal pThis);

OSAL_END_DECLS

#endif
