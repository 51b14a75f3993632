/* Counted strings: a length and a capacity in bytes, and a buffer that somebody else owns.
 *
 * No function allocates or frees a buffer. A terminator is written after the data only when the
 * capacity leaves room for it. A string may lack its buffer: it then has a length but no bytes;
 * nothing is read from or written to it. Lengths of wide strings are not checked to be even, nor
 * that MaximumLength covers Length or the buffer has that size.
 *
 * Nothing is locked: a string must not change while another thread uses it. None blocks or is a
 * cancellation point. pThis is used only where said; elsewhere it may be null.
 */
#ifndef OSAL_COUNTED_STRING_H
#define OSAL_COUNTED_STRING_H

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

/* Makes a string of zero-terminated text, which it refers to. The lengths are cut to 16 bits. Null
 * text: null buffer, both lengths 0. Null pDest: nothing happens. */
void KxInitString(PIOsal pThis, STRING* pDest, const CHAR* pSrc);
void KxInitUnicodeString(PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc);

/* Copies as many bytes as fit the capacity; an odd capacity cuts a wide unit in half. Null pSrc:
 * the length becomes 0. Null pDest: nothing happens. The buffers must not overlap. */
void KxCopyString(PIOsal pThis, STRING* pDest, const STRING* pSrc);
void KxCopyUnicodeString(PIOsal pThis, UNICODE_STRING* pDest, const UNICODE_STRING* pSrc);

/* Compares over the smaller length; if that is equal, by length: the difference in bytes. Negative,
 * 0 or positive. -1 if a string is null. A missing buffer comes before one that is there.
 *
 * Narrow strings are compared as strncmp and strncasecmp do, which end at a zero byte. Wide strings
 * are ordered by their bytes, low byte first, not by their units. Case-insensitive comparison of
 * wide strings upper-cases copies on the C heap with KxCharUpperBuff, to which pThis goes; it gives
 * -1 when the heap is exhausted. */
INT32 KxCompareString(PIOsal pThis, const STRING* pString1, const STRING* pString2,
                      BOOLEAN bCaseInsensitive);
INT32 KxCompareUnicodeString(PIOsal pThis, const UNICODE_STRING* pString1,
                             const UNICODE_STRING* pString2, BOOLEAN bCaseInsensitive);

/* 1 if both have the same length and compare as equal, else 0; 0 if one is null. */
BOOLEAN KxEqualString(PIOsal pThis, const STRING* pString1, const STRING* pString2,
                      BOOLEAN bCaseInsensitive);
BOOLEAN KxEqualUnicodeString(PIOsal pThis, const UNICODE_STRING* pString1,
                             const UNICODE_STRING* pString2, BOOLEAN bCaseInsensitive);

/* Appends to a string. The source may overlap the destination, and may be the destination itself.
 * Code 4: pDest null, or a null UNICODE_STRING as source (null text appends nothing). Code 7: the
 * result does not fit, and nothing has changed. */
KCSTATUS KxAppendUnicodeStringToString(PIOsal pThis, UNICODE_STRING* pDest,
                                       const UNICODE_STRING* pSrc);
KCSTATUS KxAppendUnicodeToString(PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc);

/* Writes a value in base 8 or 16 (lower-case digits), or in base 10 for any other base. Code 4:
 * null string. Code 7: it does not fit; Length is as it was. With a capacity below one unit or a
 * null buffer nothing is written and Length becomes the room needed with a terminator. Goes through
 * the OEM code page, whose failures it passes on. */
KCSTATUS KxIntegerToUnicodeString(PIOsal pThis, UINT32 Value, UINT32 Base, UNICODE_STRING* pString);

/* Reads a number as strtoul does in that base, cut to 32 bits; text that is none gives 0. Code 4: a
 * null pointer, or an empty string. Code 7: more than 65 characters. *pValue is then as it was.
 * Goes through the OEM code page, whose failures it passes on. */
KCSTATUS KxUnicodeStringToInteger(PIOsal pThis, const UNICODE_STRING* pString, UINT32 Base,
                                  PUINT32 pValue);

OSAL_END_DECLS

#endif
