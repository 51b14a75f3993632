// How the two code pages of the library, and UTF-8, are converted.
//
// No lock: set at start-up, constant until shutdown.
#include "osal/linux/internal/locale_pages.h"

#include <iconv.h>
#include <string.h>
#include <strings.h>

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/utf8_fours.h"

namespace osal {
namespace {

// Converters that stay open unused, so that to open a further one between the same charsets takes a
// microsecond and loads nothing.
struct HeldConverters {
    iconv_t to_wide;
    iconv_t from_wide;
    bool is_open;
};

constinit FastPage fast_pages[2] = {};
constinit HeldConverters held_converters[2] = {};
constinit bool utf8_is_fast = false;

bool opens_both_ways(const CHAR* page) {
    return Converter(kWideCharset, page).is_open() && Converter(page, kWideCharset).is_open();
}

bool is_utf8(const CHAR* page) {
    return strcasecmp(page, "UTF-8") == 0 || strcasecmp(page, "UTF8") == 0;
}

void hold(HeldConverters& held, const CHAR* page) {
    held = {iconv_open(kWideCharset, page), iconv_open(page, kWideCharset), true};
}

void let_go(HeldConverters& held) {
    const auto closed = reinterpret_cast<iconv_t>(-1);
    if (held.is_open && held.to_wide != closed) iconv_close(held.to_wide);
    if (held.is_open && held.from_wide != closed) iconv_close(held.from_wide);
    held = {};
}

void open_page(const CHAR* page, FastPage& fast, HeldConverters& held) {
    if (is_utf8(page)) {
        if (utf8_is_fast) fast = {page, nullptr};
        return;
    }
    hold(held, page);
    if (PageTables* tables = build_page_tables(page)) fast = {page, tables};
}

}  // namespace

void open_pages(const CHAR* oem_page, const CHAR* ansi_page) {
    fast::look_at_processor();
    utf8_is_fast = opens_both_ways("UTF-8");
    open_page(oem_page, fast_pages[0], held_converters[0]);
    if (strcmp(oem_page, ansi_page) != 0) open_page(ansi_page, fast_pages[1], held_converters[1]);
}

void close_pages() {
    for (FastPage& page : fast_pages) {
        free_page_tables(page.tables);
        page = {};
    }
    for (HeldConverters& held : held_converters)
        let_go(held);
    utf8_is_fast = false;
}

const FastPage* fast_page(const CHAR* name) {
    for (const FastPage& page : fast_pages) {
        if (page.name == nullptr || name == nullptr) continue;
        if (page.name == name || strcmp(page.name, name) == 0) return &page;
    }
    return nullptr;
}

bool is_utf8_fast() {
    return utf8_is_fast;
}

}  // namespace osal
