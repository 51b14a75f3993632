/* The status library, libkcstatus.so: builds statuses, logs where they arose, and names them.
 *
 * osal.so calls KcStatusBuild_log only. A host product may put a library of its own with that one
 * function in front of this one.
 */
#ifndef HOST_KCSTATUS_H
#define HOST_KCSTATUS_H

#include "osal/status.h"
#include "osal/types.h"

OSAL_BEGIN_DECLS

/* Packs a status and logs one line that names it and the place it arose at.
 *
 * severity 0..3, facility 0..16383 and code 0..65535; higher bits are dropped. file and function
 * are zero-terminated texts, used during the call only; a null one is logged as "?", a long one up
 * to its 200th byte.
 *
 * The line goes to syslog with facility LOG_USER. Its priority is LOG_DEBUG unless the environment
 * variable KCSTATUS_LOG says otherwise: "error", "warning", "notice", "info" or "debug" choose a
 * priority, "stderr" writes the line to standard error instead, "off" writes nothing. The variable
 * is read once, at the first call, and ignored in a set-user-id process.
 *
 * Returns the status. Never fails, never allocates, is safe on any thread, is no cancellation point
 * and leaves errno as it was. Not for signal handlers.
 */
KCSTATUS KcStatusBuild_log(UINT32 severity, UINT32 facility, UINT32 code, const char* file,
                           UINT32 line, const char* function);

/* What a status means, in words: "invalid handle or not found". A code that is not known gives
 * "unknown condition"; success gives "success". The text is constant and never null.
 */
const char* KcStatusName(KCSTATUS status);

/* Who built a status, in words: "osal", "object manager", "component runtime"; "facility" for one
 * that is not known. The text is constant and never null.
 */
const char* KcStatusFacilityName(KCSTATUS status);

OSAL_END_DECLS

#endif
