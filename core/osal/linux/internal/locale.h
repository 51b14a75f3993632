// Code pages and conversion: the module's globals and internal routines, which tests and debuggers
// find by name.
#pragma once

#include "osal/conversion.h"

OSAL_BEGIN_DECLS

// Names of the two code pages, as iconv knows them: heap copies, made by InitCharConvInfrastructure
// and freed by UnInitCharConvInfrastructure. Constant in between, read without a lock. Null before
// and after.
extern CHAR* g_pOemCodePage;
extern CHAR* g_pAnsiCodePage;
// Whether U+20AC converts into the page. Same life as the names.
extern BOOLEAN g_oemCodePageSupportsEuro;
extern BOOLEAN g_ansiCodePageSupportsEuro;

// Chooses the two pages from the environment and the process locale, which it sets from the
// environment. 0, or -1 when a name could not be copied to the heap; then nothing is held.
int InitCharConvInfrastructure(void);
// Releases what the other took. Harmless when that never ran, and a second time.
void UnInitCharConvInfrastructure(void);

// Whether iconv converts both ways between a page and the wide side; logs the way that it does not.
BOOLEAN CodePageValid(const CHAR* pCodePage);
BOOLEAN CheckCodePageEuroSupport(const CHAR* pCodePage);

// The character work. Each returns 0, or -1 with a count of 0; the count that the last argument
// points at holds the capacity on entry and what was produced on return. Out of an input that fails
// the output buffer keeps something unspecified. No pointer is checked.
int LocToUni(const CHAR* pCodePage, BOOLEAN codePageSupportsEuro, const CHAR* pInMulti,
             UINT32 inMultiChars, PWCHAR pOutWide, PUINT32 pOutWideChars);
int UniToLoc(const CHAR* pCodePage, const WCHAR* pInWide, UINT32 inWideChars, PCHAR pOutMulti,
             PUINT32 pOutMultiChars);
int Utf8ToUni(const CHAR* pInMulti, UINT32 inMultiChars, PWCHAR pOutWide, PUINT32 pOutWideChars);
int UniToUtf8(const WCHAR* pInWide, UINT32 inWideChars, PCHAR pOutMulti, PUINT32 pOutMultiChars);

// Length of a UTF-8 sequence by its first byte: 1 for ASCII, else the leading one-bits, at most 7.
UINT32 Utf8SeqLen(UCHAR firstSeqByte);

OSAL_END_DECLS
