// Choice of the OEM and the ANSI code page at start-up.
//
// Runs once under g_hModuleMutex. What it sets does not change until shutdown and is read without
// a lock.
#include <langinfo.h>
#include <locale.h>
#include <stdarg.h>
#include <string.h>
#include <syslog.h>

#include <cstdlib>

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/escape.h"
#include "osal/linux/internal/locale.h"
#include "osal/linux/internal/locale_pages.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit CHAR* g_pOemCodePage = nullptr;
constinit CHAR* g_pAnsiCodePage = nullptr;
constinit BOOLEAN g_oemCodePageSupportsEuro = FALSE;
constinit BOOLEAN g_ansiCodePageSupportsEuro = FALSE;

OSAL_END_DECLS

namespace {

constexpr char kPageVariable[] = "TESSEL_CODE_PAGE";
constexpr char kTraceVariable[] = "TESSEL_LOG_CODE_PAGE";
constexpr char kDefaultPage[] = "437";
constexpr char kLastResortPage[] = "ANSI_X3.4-1968";

// Which ANSI page goes with an OEM page.
struct PagePair {
    const char* oem;
    const char* ansi;
};
constexpr PagePair kPagePairs[] = {
    {"437", "WINDOWS-1252"}, {"850", "WINDOWS-1252"}, {"866", "WINDOWS-1251"}};

// The log lines that only a traced choice writes.
class Trace {
  public:
    Trace() : on_(std::getenv(kTraceVariable) != nullptr) {}

    [[gnu::format(printf, 2, 3)]] void note(const char* format, ...) const {
        va_list arguments;
        va_start(arguments, format);
        if (on_) vsyslog(LOG_USER | LOG_INFO, format, arguments);
        va_end(arguments);
    }
    [[gnu::format(printf, 2, 3)]] void warn(const char* format, ...) const {
        va_list arguments;
        va_start(arguments, format);
        if (on_) vsyslog(LOG_USER | LOG_ERR, format, arguments);
        va_end(arguments);
    }

  private:
    const bool on_;
};

bool is_empty(const char* text) {
    return text == nullptr || *text == 0;
}

const char* page_of_locale(const Trace& trace) {
    trace.note("Obtaining OEM Code Page setting from locale settings (ie. locale charmap)\n");
    const char* page = nl_langinfo(CODESET);
    if (is_empty(page)) {
        trace.note("Unable to obtain OEM Code Page setting from locale settings, using default\n");
        return kDefaultPage;
    }
    trace.note("OEM Code Page setting obtained from locale settings = %s\n", page);
    return page;
}

const char* wanted_oem_page(const Trace& trace) {
    const char* page = std::getenv(kPageVariable);
    if (is_empty(page)) return page_of_locale(trace);
    trace.note("Obtaining OEM Code Page setting from %s environment variable\n", kPageVariable);
    trace.note("%s=%s\n", kPageVariable, page);
    return page;
}

const char* choose_oem_page(const Trace& trace) {
    const char* page = wanted_oem_page(trace);
    if (!CodePageValid(page)) {
        trace.warn(
            "Did not find support for %s in the system, setting OEM Code Page to "
            "ANSI_X3.4-1968\n",
            page);
        trace.warn(
            "Either add support for the code page or modify the configuration of the system\n");
        trace.warn("Note: You can set the OEM Code Page Setting via the %s variable\n",
                   kPageVariable);
        page = kLastResortPage;
    }
    trace.note("Setting OEM Code Page to %s\n", page);
    return page;
}

const char* choose_ansi_page(const char* oem_page, const Trace& trace) {
    const char* page = oem_page;
    for (const PagePair& pair : kPagePairs)
        if (strcmp(oem_page, pair.oem) == 0) page = pair.ansi;
    // Contract: a page that is not supported is kept, whatever the warning says, and the warning
    // names the OEM page.
    if (!CodePageValid(page))
        trace.warn(
            "Did not find support for %s in the system, setting ANSI Code Page to "
            "ANSI_X3.4-1968\n",
            oem_page);
    trace.note("Setting ANSI Code Page to %s\n", page);
    return page;
}

CHAR* copy_name(const char* name, const Trace& trace) {
    const std::size_t size = strlen(name) + 1;
    auto* copy = static_cast<CHAR*>(std::malloc(size));
    if (copy == nullptr)
        trace.warn("Unable to allocate buffer for code page string");
    else
        memcpy(copy, name, size);
    return copy;
}

bool opens(const char* to, const char* from) {
    return Converter(to, from).is_open();
}

void release(CHAR*& name) {
    std::free(name);
    name = nullptr;
}

}  // namespace

OSAL_BEGIN_DECLS

BOOLEAN CodePageValid(const CHAR* pCodePage) {
    const char* message = nullptr;
    if (!opens(pCodePage, kWideCharset))
        message = "CodePageValid: Unable to open conversion descriptor %s-UNICODE\n";
    else if (!opens(kWideCharset, pCodePage))
        message = "CodePageValid: Unable to open conversion descriptor UNICODE-%s\n";
    if (message != nullptr) syslog(LOG_USER | LOG_ERR, message, pCodePage);
    return message == nullptr;
}

BOOLEAN CheckCodePageEuroSupport(const CHAR* pCodePage) {
    Converter converter(pCodePage, kWideCharset);
    if (!converter.is_open()) {
        syslog(LOG_USER | LOG_ERR,
               "CheckCodePageEuroSupport: Unable to open conversion descriptor\n");
        return FALSE;
    }
    const WCHAR euro[2] = {kEuro, 0};
    CHAR bytes[4];
    std::size_t room = sizeof bytes;
    return converter.convert(euro, sizeof euro, bytes, room);
}

int InitCharConvInfrastructure() {
    const Trace trace;
    setlocale(LC_ALL, "");
    g_pOemCodePage = copy_name(choose_oem_page(trace), trace);
    if (g_pOemCodePage == nullptr) return -1;
    g_oemCodePageSupportsEuro = CheckCodePageEuroSupport(g_pOemCodePage);
    g_pAnsiCodePage = copy_name(choose_ansi_page(g_pOemCodePage, trace), trace);
    if (g_pAnsiCodePage == nullptr) {
        release(g_pOemCodePage);
        return -1;
    }
    g_ansiCodePageSupportsEuro = CheckCodePageEuroSupport(g_pAnsiCodePage);
    open_pages(g_pOemCodePage, g_pAnsiCodePage);
    return 0;
}

void UnInitCharConvInfrastructure() {
    close_pages();
    release(g_pAnsiCodePage);
    release(g_pOemCodePage);
}

OSAL_END_DECLS
