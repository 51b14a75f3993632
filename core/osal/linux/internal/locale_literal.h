// The conversions by their plain steps, one iconv call a character: what every faster way must
// equal, and the way of the code pages that have no other. Arguments and results are those of
// LocToUni, UniToLoc, Utf8ToUni and UniToUtf8.
#pragma once

#include "osal/types.h"

namespace osal::literal {

int loc_to_uni(const CHAR* page, BOOLEAN supports_euro, const CHAR* in, UINT32 length, WCHAR* out,
               UINT32* count);
int uni_to_loc(const CHAR* page, const WCHAR* in, UINT32 length, CHAR* out, UINT32* count);
int utf8_to_uni(const CHAR* in, UINT32 length, WCHAR* out, UINT32* count);
int uni_to_utf8(const WCHAR* in, UINT32 length, CHAR* out, UINT32* count);

UINT32 utf8_sequence_length(UCHAR first);

}  // namespace osal::literal
