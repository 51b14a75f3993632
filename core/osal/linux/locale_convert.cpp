// The conversion services: arguments, scratch, capacity and terminators around the character work.
//
// Nothing here is shared but the names of the code pages, which do not change while the library
// runs.
#include <string.h>

#include <cstddef>

#include "osal/internal/status.h"
#include "osal/linux/internal/locale.h"
#include "osal/linux/internal/locale_fast.h"
#include "osal/linux/internal/locale_literal.h"
#include "osal/linux/internal/locale_pages.h"
#include "osal/memory.h"
#include "osal/primitives.h"

using namespace osal;
using fast::Outcome;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "locale"};

constexpr std::size_t kLocalScratch = 512;
constexpr INT32 kZeroTerminated = -1;

// A call of either service, which takes In characters to Out characters.
template <class In, class Out>
struct Request {
    PIOsal osal;
    UINT32 code_page;
    const In* in;
    INT32 in_length;
    Out* out;
    UINT32* out_length;  // the capacity, until the request is settled

    bool is_valid() const {
        return (in_length > 0 || in_length == kZeroTerminated) && in != nullptr &&
               out_length != nullptr;
    }
    bool is_size_query() const { return out == nullptr || *out_length == 0; }
};
using ToWide = Request<CHAR, WCHAR>;
using FromWide = Request<WCHAR, CHAR>;

UINT32 measure(const ToWide& request) {
    return KxStrlen(request.osal, request.in);
}
UINT32 measure(const FromWide& request) {
    return KxStrlenW(request.osal, request.in);
}

// Characters to convert: without the terminator that a counted input may end with.
template <class In, class Out>
UINT32 input_length(const Request<In, Out>& request) {
    if (request.in_length == kZeroTerminated) return measure(request);
    const auto length = static_cast<UINT32>(request.in_length);
    return request.in[length - 1] == 0 ? length - 1 : length;
}

// Bytes that the result of any input of a length fits, with a terminator, or with what keeps an
// output of escapes below its capacity.
std::size_t scratch_size(const ToWide&, UINT32 length) {
    return 2 * std::size_t{length} + 2;
}
std::size_t scratch_size(const FromWide&, UINT32 length) {
    return 12 * std::size_t{length};
}

struct Page {
    const CHAR* name;
    BOOLEAN supports_euro;
};

// False: the selector is unknown.
bool find_page(UINT32 selector, Page& page) {
    switch (selector) {
        case KX_CODE_PAGE_ANSI:
        case 4:
            page = {g_pAnsiCodePage, g_ansiCodePageSupportsEuro};
            return true;
        case KX_CODE_PAGE_OEM:
        case 5:
            page = {g_pOemCodePage, g_oemCodePageSupportsEuro};
            return true;
        default:
            return false;
    }
}

int run_page(const ToWide& request, const Page& page, UINT32 length, WCHAR* out, UINT32& count) {
    return LocToUni(page.name, page.supports_euro, request.in, length, out, &count);
}
int run_page(const FromWide& request, const Page& page, UINT32 length, CHAR* out, UINT32& count) {
    return UniToLoc(page.name, request.in, length, out, &count);
}
int run_utf8(const ToWide& request, UINT32 length, WCHAR* out, UINT32& count) {
    return Utf8ToUni(request.in, length, out, &count);
}
int run_utf8(const FromWide& request, UINT32 length, CHAR* out, UINT32& count) {
    return UniToUtf8(request.in, length, out, &count);
}

// Gives the caller what was produced, and says how it fitted. area may be the caller's buffer.
template <class In, class Out>
UINT32 settle(const Request<In, Out>& request, const Out* area, UINT32 produced) {
    const UINT32 capacity = *request.out_length;
    // Contract: a size query with a capacity, of a null output, is held to that capacity too.
    const bool is_cut = capacity != 0 && produced > capacity;
    const UINT32 count = is_cut ? capacity : produced;
    if (request.is_size_query()) {
        *request.out_length = count + 1;
    } else {
        *request.out_length = count;
        if (area != request.out) memcpy(request.out, area, std::size_t{count} * sizeof(Out));
        if (count < capacity) request.out[count] = 0;
    }
    return is_cut ? KC_CODE_BUFFER_TOO_SMALL : 0;
}

template <class In, class Out>
UINT32 convert_through(const Request<In, Out>& request, UINT32 length, Out* area,
                       std::size_t area_size) {
    auto count = static_cast<UINT32>(area_size / sizeof(Out));
    Page page;
    int result;
    if (request.code_page == KX_CODE_PAGE_UTF8)
        result = run_utf8(request, length, area, count);
    else if (find_page(request.code_page, page))
        result = run_page(request, page, length, area, count);
    else
        return KC_CODE_INVALID_ARGUMENT;
    return result == 0 ? settle(request, area, count) : KC_CODE_FAILED;
}

template <class In, class Out>
UINT32 convert_through_pool(const Request<In, Out>& request, UINT32 length, std::size_t size) {
    void* area =
        size > UINT32_MAX ? nullptr : KxAllocPagedMemory(request.osal, static_cast<UINT32>(size));
    if (area == nullptr) return KC_CODE_NO_RESOURCES;
    const UINT32 code = convert_through(request, length, static_cast<Out*>(area), size);
    KxFreeMemory(request.osal, area);
    return code;
}

// The code of the service's status, 0 for success.
template <class In, class Out>
UINT32 convert(const Request<In, Out>& request) {
    if (!request.is_valid()) return KC_CODE_INVALID_ARGUMENT;
    const UINT32 length = input_length(request);
    const std::size_t size = scratch_size(request, length);
    if (!request.is_size_query() && std::size_t{*request.out_length} * sizeof(Out) >= size)
        return convert_through(request, length, request.out, size);
    if (size > kLocalScratch) return convert_through_pool(request, length, size);
    Out local[kLocalScratch / sizeof(Out)];
    return convert_through(request, length, local, size);
}

// Result of an internal routine.
int result_of(Outcome outcome, UINT32* count) {
    if (outcome == Outcome::kDone) return 0;
    *count = 0;
    return -1;
}

}  // namespace

OSAL_BEGIN_DECLS

int LocToUni(const CHAR* pCodePage, BOOLEAN codePageSupportsEuro, const CHAR* pInMulti,
             UINT32 inMultiChars, PWCHAR pOutWide, PUINT32 pOutWideChars) {
    if (const FastPage* page = fast_page(pCodePage)) {
        const bool euro = codePageSupportsEuro;
        const Outcome outcome =
            page->tables == nullptr
                ? fast::utf8_page_to_wide(euro, pInMulti, inMultiChars, pOutWide, *pOutWideChars)
                : fast::page_to_wide(*page->tables, euro, pInMulti, inMultiChars, pOutWide,
                                     *pOutWideChars);
        if (outcome != Outcome::kUndecided) return result_of(outcome, pOutWideChars);
    }
    return literal::loc_to_uni(pCodePage, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                               pOutWideChars);
}

int UniToLoc(const CHAR* pCodePage, const WCHAR* pInWide, UINT32 inWideChars, PCHAR pOutMulti,
             PUINT32 pOutMultiChars) {
    if (const FastPage* page = fast_page(pCodePage)) {
        const Outcome outcome =
            page->tables == nullptr
                ? fast::wide_to_utf8_page(pInWide, inWideChars, pOutMulti, *pOutMultiChars)
                : fast::wide_to_page(*page->tables, pInWide, inWideChars, pOutMulti,
                                     *pOutMultiChars);
        if (outcome != Outcome::kUndecided) return result_of(outcome, pOutMultiChars);
    }
    return literal::uni_to_loc(pCodePage, pInWide, inWideChars, pOutMulti, pOutMultiChars);
}

int Utf8ToUni(const CHAR* pInMulti, UINT32 inMultiChars, PWCHAR pOutWide, PUINT32 pOutWideChars) {
    if (!is_utf8_fast())
        return literal::utf8_to_uni(pInMulti, inMultiChars, pOutWide, pOutWideChars);
    return result_of(fast::utf8_to_wide(pInMulti, inMultiChars, pOutWide, *pOutWideChars),
                     pOutWideChars);
}

int UniToUtf8(const WCHAR* pInWide, UINT32 inWideChars, PCHAR pOutMulti, PUINT32 pOutMultiChars) {
    if (!is_utf8_fast())
        return literal::uni_to_utf8(pInWide, inWideChars, pOutMulti, pOutMultiChars);
    return result_of(fast::wide_to_utf8(pInWide, inWideChars, pOutMulti, *pOutMultiChars),
                     pOutMultiChars);
}

UINT32 Utf8SeqLen(UCHAR firstSeqByte) {
    return literal::utf8_sequence_length(firstSeqByte);
}

KCSTATUS KxMultiByteToWideChar(PIOsal pThis, UINT32 CodePage, const CHAR* pMultiByteStr,
                               INT32 MultiByteStrLen, PWCHAR pWideCharStr,
                               PUINT32 pWideCharStrLen) {
    const UINT32 code = convert(
        ToWide{pThis, CodePage, pMultiByteStr, MultiByteStrLen, pWideCharStr, pWideCharStrLen});
    return code == 0 ? KC_OK : kModule.fail(code);
}

KCSTATUS KxWideCharToMultiByte(PIOsal pThis, UINT32 CodePage, const WCHAR* pWideCharStr,
                               INT32 WideCharStrLen, PCHAR pMultiByteStr,
                               PUINT32 pMultiByteStrLen) {
    const UINT32 code = convert(
        FromWide{pThis, CodePage, pWideCharStr, WideCharStrLen, pMultiByteStr, pMultiByteStrLen});
    return code == 0 ? KC_OK : kModule.fail(code);
}

OSAL_END_DECLS
