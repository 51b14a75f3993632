/* Registry keys and values, with 16-bit names and strings.
 *
 * Every key lies below "Software\Orvane\" of the machine-wide hive of the registry library
 * (host/tsreg.h), and is found there by its name in the OEM code page. That name may have up to
 * 239 bytes. Value names have up to 255 bytes; a null or empty value name means "default". Type
 * numbers, access rights and last write times are the registry library's business.
 *
 * All functions return KCSTATUS. Statuses of the registry library (facility 2037: 3 not found, 6
 * access denied, 7 buffer too small, 9 no more entries, ...) and of the conversions are passed on
 * as they are. Every function may return code 3 for a handle that is none and code 5 without
 * memory.
 *
 * No lock is taken here; all functions are safe on any thread, but a key must not be closed while
 * another call uses it. Reads and writes block as the registry library does: a write until the
 * disk has it. The conversions may be cancellation points.
 *
 * Records and data lie in a buffer of the caller of Length bytes, aligned as the record; a name or
 * a value that is too long for it gives code 7. Nothing is written behind Length.
 */
#ifndef OSAL_REGISTRY_H
#define OSAL_REGISTRY_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Of KxEnumerateKey. The name fills the rest of the buffer. */
typedef struct KX_KEY_INFORMATION {
    UINT64 LastWriteTime; /* in 100-ns units since 1601 */
    UINT32 Reserved;      /* never written */
    UINT32 KeyNameLength; /* bytes of KeyName with its terminator */
    WCHAR KeyName[1];
} KX_KEY_INFORMATION, *PKX_KEY_INFORMATION;

/* Of KxEnumerateValueKey and KxQueryValueKey. The data lie behind the name. */
typedef struct KX_KEY_VALUE_INFORMATION {
    UINT32 Reserved;           /* 0 by KxQueryValueKey, else not written */
    UINT32 ValueType;          /* KX_REG_TYPE */
    UINT32 ValueOffset;        /* bytes from the start of the record to the data */
    UINT32 ValueLength;        /* bytes of data; of a string, with its terminator */
    UINT32 KeyValueNameLength; /* bytes of KeyValueName with its terminator */
    WCHAR KeyValueName[1];
} KX_KEY_VALUE_INFORMATION, *PKX_KEY_VALUE_INFORMATION;

/* Opens a key that exists; *pHandle is the caller's to close. Code 4: pThis is no service instance,
 * pKeyNameW or pHandle is null (*pHandle untouched), or DesiredAccess is no KX_KEY_ACCESS (*pHandle
 * null, as after every later failure). An empty name is the key "Software\Orvane" itself. */
KCSTATUS KxOpenKey(PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess,
                   HANDLE* pHandle);

/* As KxOpenKey, but makes the key if it is missing. DesiredAccess is checked and not used: the
 * handle is for whatever the registry library grants to a maker. */
KCSTATUS KxCreateKey(PIOsal pThis, const WCHAR* pKeyNameW, KX_KEY_ACCESS DesiredAccess,
                     HANDLE* pHandle);

/* Ends a handle, whatever the registry library says to it; its status is the result. Code 3 also
 * for a pThis that is no service instance. */
KCSTATUS KxCloseKey(PIOsal pThis, HANDLE Handle);

/* Deletes the key of a handle by its path. The handle stays to be closed. */
KCSTATUS KxDeleteKey(PIOsal pThis, HANDLE Handle);

KCSTATUS KxDeleteValue(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW);

/* Sub-key number Index, from 0. Code 4: Length below 24 or a null pointer; code 7: Length below 27
 * or too small for the name. pResultLength must not be null and is not written. */
KCSTATUS KxEnumerateKey(PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyInformation,
                        UINT32 Length, PUINT32 pResultLength);

/* Value number Index, from 0. Arguments and codes as for KxEnumerateKey, and code 4 for a value of
 * a type above 4. A string needs about four times its length behind the name. Of a value shorter
 * than its 32-bit or 64-bit type the missing bytes are 0. */
KCSTATUS KxEnumerateValueKey(PIOsal pThis, HANDLE Handle, UINT32 Index, PVOID pKeyValueInformation,
                             UINT32 Length, PUINT32 pResultLength);

/* A value by its name. Code 4: a null pointer; code 7: Length too small for the name, which is
 * stored first, or for the data.
 *
 * *pResultLength of a string: the bytes of the record in use, or 0 if the string has no data. Of
 * every other type the number carries no meaning. A multi-string loses the terminator of its list;
 * one without strings gives code 4. */
KCSTATUS KxQueryValueKey(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, PVOID pKeyValueInfo,
                         UINT32 Length, PUINT32 pResultLength);

/* Sets a value. pData null or DataLength 0 store a value without data. Code 4: DataType above 4, or
 * a DataLength other than 4 or 8 for the types of that size.
 *
 * KX_REG_SZ and KX_REG_MULTI_SZ: pData is read up to its terminator (an empty string ends a list),
 * which is not checked; DataLength only gives the room that its conversion may take, 4 bytes for
 * each, and is twice the number of units. */
KCSTATUS KxSetValueKey(PIOsal pThis, HANDLE Handle, const WCHAR* pValueNameW, KX_REG_TYPE DataType,
                       const void* pData, UINT32 DataLength);

OSAL_END_DECLS

#endif
