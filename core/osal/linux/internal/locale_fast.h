// The conversions by tables and by hand-written UTF-8. Equal to the plain steps in everything but
// time.
#pragma once

#include "osal/linux/internal/page_tables.h"

namespace osal::fast {

// kUndecided: the plain steps have to say, from the start; nothing was stored but in the output.
enum class Outcome { kDone, kFailed, kUndecided };

// count: the capacity on entry; what was produced, once done.
Outcome page_to_wide(const PageTables& tables, bool supports_euro, const CHAR* in, UINT32 length,
                     WCHAR* out, UINT32& count);
Outcome wide_to_page(const PageTables& tables, const WCHAR* in, UINT32 length, CHAR* out,
                     UINT32& count);

// UTF-8 as such, and as a code page with the rules of code-page text.
Outcome utf8_to_wide(const CHAR* in, UINT32 length, WCHAR* out, UINT32& count);
Outcome wide_to_utf8(const WCHAR* in, UINT32 length, CHAR* out, UINT32& count);
Outcome utf8_page_to_wide(bool supports_euro, const CHAR* in, UINT32 length, WCHAR* out,
                          UINT32& count);
Outcome wide_to_utf8_page(const WCHAR* in, UINT32 length, CHAR* out, UINT32& count);

}  // namespace osal::fast
