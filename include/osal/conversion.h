/* Conversion between multi-byte and 16-bit wide text, and upper-casing.
 *
 * The OEM and the ANSI code page are chosen once, when the library is initialised: the OEM page is
 * the character set that the environment variable TESSEL_CODE_PAGE names, or else that of the
 * process locale, which is set from the environment on that occasion; the ANSI page follows from it
 * (437 and 850 give WINDOWS-1252, 866 gives WINDOWS-1251, any other itself).
 *
 * Code-page text keeps characters that its page does not hold: each is written as a six-byte
 * escape, "[4E2D]", which is read back as that unit. Slash, colon and backslash are the same byte
 * in every page. The euro sign of a page without one is the byte 0xCC. UTF-8 text has none of these
 * rules; a character beyond 16 bits, or a surrogate, fails.
 *
 * All functions are safe on any thread and take no lock but for a moment in pool memory. None
 * blocks or is a cancellation point but for the log line of a converter that cannot be opened.
 */
#ifndef OSAL_CONVERSION_H
#define OSAL_CONVERSION_H

#include "osal/iosal.h"

/* Values of CodePage; any other gives code 4. */
#define KX_CODE_PAGE_ANSI 1u /* 4 means the same */
#define KX_CODE_PAGE_OEM 2u  /* 5 means the same */
#define KX_CODE_PAGE_UTF8 3u

OSAL_BEGIN_DECLS

/* Converts multi-byte text to units and units to multi-byte text.
 *
 * The input length counts bytes (units); -1 stands for an input that ends with a zero. A zero at
 * the end of a counted input is not converted. The last argument points at the capacity of the
 * output in units (bytes) and on return holds what was produced without a terminator, which follows
 * the text if there is room for it. A capacity that holds the text exactly holds no terminator.
 *
 * With a null output or a capacity of 0 nothing is written, and the count on return is the room
 * needed with the terminator.
 *
 * Code 1: the input has bytes (units) that do not convert, or the code page is not available to
 * iconv, which leaves a line in the log. Code 4: an input length of 0 or below -1, a null input or
 * count, an unknown code page. Code 5: no pool memory for a result of more than 512 bytes that may
 * not fit the output; pThis, which nothing else uses, has to be an instance for it. Of these the
 * count is left as it was. Code 7: the output is too small; it is filled, without a terminator, and
 * the count is its capacity (of a null output one more).
 *
 * The input and the output must not overlap. That both have the size given is not checked. */
KCSTATUS KxMultiByteToWideChar(PIOsal pThis, UINT32 CodePage, const CHAR* pMultiByteStr,
                               INT32 MultiByteStrLen, PWCHAR pWideCharStr, PUINT32 pWideCharStrLen);
KCSTATUS KxWideCharToMultiByte(PIOsal pThis, UINT32 CodePage, const WCHAR* pWideCharStr,
                               INT32 WideCharStrLen, PCHAR pMultiByteStr, PUINT32 pMultiByteStrLen);

/* Upper-cases Length units in place, as the process locale has it at the time of the call: a unit
 * up to 0xFF that isalnum, or a unit above that iswalnum accepts becomes its towupper if that has
 * 16 bits. Code 4: a Length of 0 or a null buffer. pThis is not used. */
KCSTATUS KxCharUpperBuff(PIOsal pThis, UINT32 Length, PWCHAR pWideStr);

OSAL_END_DECLS

#endif
