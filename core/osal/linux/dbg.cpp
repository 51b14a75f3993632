// Debug output to the system log.
#include <stdarg.h>
#include <syslog.h>

#include "osal/debug.h"

void KxDebugPrintf(PIOsal, const CHAR* pFormatStr, ...) {
    va_list arguments;
    va_start(arguments, pFormatStr);
    vsyslog(LOG_USER | LOG_INFO, pFormatStr, arguments);
    va_end(arguments);
}

void KxDebugBreakPoint(PIOsal) {}
