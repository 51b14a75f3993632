/* Layout and codes of KCSTATUS.
 *
 *   bits 31..30  severity: 3 is an error, 0 success
 *   bits 29..16  facility: the part of the product that built the status
 *   bits 15..0   code: the condition
 *
 * Zero is success. Test for failure with KC_IS_ERROR, not with "non-zero": a few services return
 * plain values (an index, the value 1) whose top two bits are clear.
 */
#ifndef OSAL_STATUS_H
#define OSAL_STATUS_H

#include "osal/types.h"

#define KC_SEVERITY(status) ((UINT32)(status) >> 30)
#define KC_FACILITY(status) (((UINT32)(status) >> 16) & 0x3FFFu)
#define KC_CODE(status) ((UINT32)(status)&0xFFFFu)
#define KC_IS_ERROR(status) (KC_SEVERITY(status) == KC_SEVERITY_ERROR)

#define KC_MAKE_STATUS(severity, facility, code)                                         \
    ((KCSTATUS)((((UINT32)(severity)&3u) << 30) | (((UINT32)(facility)&0x3FFFu) << 16) | \
                ((UINT32)(code)&0xFFFFu)))

/* Severities. */
#define KC_SEVERITY_SUCCESS 0u
#define KC_SEVERITY_ERROR 3u

/* Facilities. */
#define KC_FACILITY_OSAL 2033u     /* services and registry access: 0xC7F1.... */
#define KC_FACILITY_RUNTIME 2036u  /* component runtime: 0xC7F4.... */
#define KC_FACILITY_REGISTRY 2037u /* registry library: 0xC7F5.... */
#define KC_FACILITY_SECATTR 2040u  /* security attributes and contexts: 0xC7F8.... */
#define KC_FACILITY_OBJECT 2042u   /* object managers and their factory: 0xC7FA.... */

/* Success. */
#define KC_OK ((KCSTATUS)0)

/* Codes. */
#define KC_CODE_FAILED 1u                 /* general failure, a start-up step failed */
#define KC_CODE_UNSUPPORTED 2u            /* unknown class or interface */
#define KC_CODE_INVALID_HANDLE 3u         /* invalid handle, or not found */
#define KC_CODE_INVALID_ARGUMENT 4u       /* invalid argument */
#define KC_CODE_NO_RESOURCES 5u           /* out of memory or another resource */
#define KC_CODE_ACCESS_DENIED 6u          /* a right is missing, or a file is protected */
#define KC_CODE_BUFFER_TOO_SMALL 7u       /* the caller's buffer is too small */
#define KC_CODE_NO_MORE_ENTRIES 9u        /* end of an enumeration */
#define KC_CODE_TIMED_OUT 10u             /* the time-out expired */
#define KC_CODE_NO_MATCH 11u              /* no object matches */
#define KC_CODE_DAMAGED 12u               /* stored data are damaged or of another kind */
#define KC_CODE_CORRUPT 0x1001u           /* corrupt memory block, or already initialised */
#define KC_CODE_LOCK_NOT_ACQUIRED 0x1002u /* lock busy or refused */
#define KC_CODE_BUSY 0x1003u              /* object in use */
#define KC_CODE_TORN_DOWN 0x1004u         /* instance torn down during the call */

#endif
