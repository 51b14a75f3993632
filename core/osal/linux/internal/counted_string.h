// Order of wide counted strings: the internal routines of the module, findable by name.
#pragma once

#include "osal/iosal.h"

OSAL_BEGIN_DECLS

// By the bytes of the smaller length; the strings themselves are not null.
INT32 unincmp(const UNICODE_STRING* s1, const UNICODE_STRING* s2);
// The same of upper-cased copies; -1 when one cannot be had.
INT32 unincasecmp(PIOsal pThis, const UNICODE_STRING* s1, const UNICODE_STRING* s2);

OSAL_END_DECLS
