/* Memory and string primitives, and the string hash.
 *
 * Every function ignores pThis, which may be null, takes no lock and never blocks. Lengths are in
 * bytes unless a name says units.
 */
#ifndef OSAL_PRIMITIVES_H
#define OSAL_PRIMITIVES_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* The number of equal leading bytes: the index of the first difference, or Length if there is none.
 * It does not order. 0 if a pointer is null or Length is 0. */
UINT32 KxCompareMemory(PIOsal pThis, const void* pMemory1, const void* pMemory2, UINT32 Length);

/* Copies Length bytes; the areas must not overlap. Does nothing if a pointer is null. */
void KxCopyMemory(PIOsal pThis, PVOID pDest, const void* pSrc, UINT32 Length);

/* Copies Length bytes between areas that may overlap. Does nothing if a pointer is null. */
void KxMoveMemory(PIOsal pThis, PVOID pDest, const void* pSrc, UINT32 Length);

/* Sets Length bytes to Fill (to zero). Does nothing if pDest is null. */
void KxFillMemory(PIOsal pThis, PVOID pDest, UINT32 Length, UCHAR Fill);
void KxZeroMemory(PIOsal pThis, PVOID pDest, UINT32 Length);

/* Bytes (16-bit units) before the terminating zero, cut to 32 bits; 0 for null. */
UINT32 KxStrlen(PIOsal pThis, const CHAR* pString);
UINT32 KxStrlenW(PIOsal pThis, const WCHAR* pStringW);

/* Hashes a zero-terminated string into 0..HashTableSize-1: the ELF hash over bytes taken as signed,
 * so that bytes from 0x80 up hash differently from the published one. The wide form feeds both
 * bytes of each unit, the low one first. The empty string gives 0 for any table size.
 *
 * Not checked: a null string, and a HashTableSize of 0 with a string that is not empty (a division
 * by zero). */
UINT32 KxStrHash(PIOsal pThis, const CHAR* pString, UINT32 HashTableSize);
UINT32 KxStrHashW(PIOsal pThis, const WCHAR* pStringW, UINT32 HashTableSize);

OSAL_END_DECLS

#endif
