// How the two code pages of the library, and UTF-8, are converted.
#pragma once

#include "osal/linux/internal/page_tables.h"

namespace osal {

// A code page with a way of its own; all others go by the plain steps.
struct FastPage {
    const CHAR* name;    // null: none
    PageTables* tables;  // null: the page is UTF-8
};

// Prepares the ways. Fails for nothing: a page that gets no way of its own goes by the plain steps.
// Names are not copied. Called at start-up, and the other one at shutdown, beside no other call.
void open_pages(const CHAR* oem_page, const CHAR* ansi_page);
void close_pages();

// Null: the page goes by the plain steps.
const FastPage* fast_page(const CHAR* name);

// Whether UTF-8 text is converted without iconv, which is so if iconv could.
bool is_utf8_fast();

}  // namespace osal
