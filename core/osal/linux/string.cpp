// Counted strings. Both kinds share their code; the units of a wide string matter only where its
// terminator is written.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>

#include "osal/conversion.h"
#include "osal/counted_string.h"
#include "osal/internal/status.h"
#include "osal/linux/internal/counted_string.h"
#include "osal/primitives.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "string"};

// The longest number read, in bytes of the OEM page.
constexpr UINT32 kLongestNumber = 65;

template <class String>
void init(String* dest, decltype(String::Buffer) source, UINT32 size) {
    constexpr UINT32 kTerminator = sizeof *source;
    dest->Buffer = source;
    dest->Length = static_cast<UINT16>(size);
    dest->MaximumLength = static_cast<UINT16>(source == nullptr ? 0 : size + kTerminator);
}

template <class String>
void copy(PIOsal osal, String* dest, const String* source) {
    constexpr UINT32 kUnit = sizeof *dest->Buffer;
    if (dest == nullptr) return;
    if (source == nullptr) {
        dest->Length = 0;
        return;
    }
    const UINT16 size = std::min(dest->MaximumLength, source->Length);
    KxCopyMemory(osal, dest->Buffer, source->Buffer, size);
    dest->Length = size;
    // Contract: after half a unit the terminator takes the place of that half.
    if (dest->Buffer != nullptr && dest->MaximumLength >= size + kUnit)
        dest->Buffer[size / kUnit] = 0;
}

template <class String>
UINT16 smaller_length(const String* s1, const String* s2) {
    return std::min(s1->Length, s2->Length);
}

// Order of two strings of which one or both have no bytes to compare: a missing buffer comes
// first. False: both have some.
template <class String>
bool order_without_bytes(const String* s1, const String* s2, INT32& order) {
    if (s1->Buffer != nullptr && s2->Buffer != nullptr) return false;
    order = smaller_length(s1, s2) == 0 ? 0 : (s1->Buffer != nullptr) - (s2->Buffer != nullptr);
    return true;
}

INT32 order_narrow(const STRING* s1, const STRING* s2, BOOLEAN ignore_case) {
    INT32 order;
    if (order_without_bytes(s1, s2, order)) return order;
    const UINT16 size = smaller_length(s1, s2);
    return ignore_case ? strncasecmp(s1->Buffer, s2->Buffer, size)
                       : strncmp(s1->Buffer, s2->Buffer, size);
}

INT32 order_wide(PIOsal osal, const UNICODE_STRING* s1, const UNICODE_STRING* s2,
                 BOOLEAN ignore_case) {
    return ignore_case ? unincasecmp(osal, s1, s2) : unincmp(s1, s2);
}

// An upper-cased copy on the C heap; null when that is exhausted.
PWCHAR upper_copy(PIOsal osal, const UNICODE_STRING* string) {
    auto* text = static_cast<PWCHAR>(std::malloc(string->Length));
    if (text == nullptr) return nullptr;
    memcpy(text, string->Buffer, string->Length);
    // Contract: of a string without a whole unit this builds, and logs, an invalid argument.
    KxCharUpperBuff(osal, string->Length / sizeof(WCHAR), text);
    return text;
}

const char* format_of(UINT32 base) {
    // Contract: any base but 8 and 16 gives decimal digits.
    return base == 8 ? "%o" : base == 16 ? "%x" : "%u";
}

}  // namespace

OSAL_BEGIN_DECLS

// Contract: by bytes, so that U+0100 comes before U+0001.
INT32 unincmp(const UNICODE_STRING* s1, const UNICODE_STRING* s2) {
    INT32 order;
    if (order_without_bytes(s1, s2, order)) return order;
    return memcmp(s1->Buffer, s2->Buffer, smaller_length(s1, s2));
}

INT32 unincasecmp(PIOsal pThis, const UNICODE_STRING* s1, const UNICODE_STRING* s2) {
    INT32 order;
    if (order_without_bytes(s1, s2, order)) return order;
    PWCHAR upper1 = upper_copy(pThis, s1);
    PWCHAR upper2 = upper1 == nullptr ? nullptr : upper_copy(pThis, s2);
    order = upper2 == nullptr ? -1 : memcmp(upper1, upper2, smaller_length(s1, s2));
    std::free(upper2);
    std::free(upper1);
    return order;
}

void KxInitString(PIOsal pThis, STRING* pDest, const CHAR* pSrc) {
    if (pDest != nullptr) init(pDest, const_cast<PCHAR>(pSrc), KxStrlen(pThis, pSrc));
}

void KxInitUnicodeString(PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc) {
    if (pDest == nullptr) return;
    const UINT32 size = KxStrlenW(pThis, pSrc) * UINT32{sizeof(WCHAR)};
    init(pDest, const_cast<PWCHAR>(pSrc), size);
}

void KxCopyString(PIOsal pThis, STRING* pDest, const STRING* pSrc) {
    copy(pThis, pDest, pSrc);
}

void KxCopyUnicodeString(PIOsal pThis, UNICODE_STRING* pDest, const UNICODE_STRING* pSrc) {
    copy(pThis, pDest, pSrc);
}

INT32 KxCompareString(PIOsal, const STRING* pString1, const STRING* pString2,
                      BOOLEAN bCaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return -1;
    const INT32 order = order_narrow(pString1, pString2, bCaseInsensitive);
    return order != 0 ? order : pString1->Length - pString2->Length;
}

INT32 KxCompareUnicodeString(PIOsal pThis, const UNICODE_STRING* pString1,
                             const UNICODE_STRING* pString2, BOOLEAN bCaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return -1;
    const INT32 order = order_wide(pThis, pString1, pString2, bCaseInsensitive);
    return order != 0 ? order : pString1->Length - pString2->Length;
}

BOOLEAN KxEqualString(PIOsal, const STRING* pString1, const STRING* pString2,
                      BOOLEAN bCaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return FALSE;
    if (pString1->Length != pString2->Length) return FALSE;
    return order_narrow(pString1, pString2, bCaseInsensitive) == 0;
}

BOOLEAN KxEqualUnicodeString(PIOsal pThis, const UNICODE_STRING* pString1,
                             const UNICODE_STRING* pString2, BOOLEAN bCaseInsensitive) {
    if (pString1 == nullptr || pString2 == nullptr) return FALSE;
    if (pString1->Length != pString2->Length) return FALSE;
    return order_wide(pThis, pString1, pString2, bCaseInsensitive) == 0;
}

KCSTATUS KxAppendUnicodeStringToString(PIOsal pThis, UNICODE_STRING* pDest,
                                       const UNICODE_STRING* pSrc) {
    if (pDest == nullptr || pSrc == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    if (pSrc->Length == 0) return KC_OK;
    const UINT32 size = UINT32{pDest->Length} + pSrc->Length;
    if (size > pDest->MaximumLength) return kModule.fail(KC_CODE_BUFFER_TOO_SMALL);
    auto* bytes = reinterpret_cast<CHAR*>(pDest->Buffer);
    if (bytes != nullptr) {
        KxMoveMemory(pThis, bytes + pDest->Length, pSrc->Buffer, pSrc->Length);
        if (pDest->MaximumLength >= size + sizeof(WCHAR))
            KxZeroMemory(pThis, bytes + size, sizeof(WCHAR));
    }
    pDest->Length = static_cast<UINT16>(size);
    return KC_OK;
}

KCSTATUS KxAppendUnicodeToString(PIOsal pThis, UNICODE_STRING* pDest, const WCHAR* pSrc) {
    if (pDest == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    if (pSrc == nullptr) return KC_OK;
    UNICODE_STRING source;
    KxInitUnicodeString(pThis, &source, pSrc);
    return KxAppendUnicodeStringToString(pThis, pDest, &source);
}

KCSTATUS KxIntegerToUnicodeString(PIOsal pThis, UINT32 Value, UINT32 Base,
                                  UNICODE_STRING* pString) {
    if (pString == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    CHAR text[32];
    snprintf(text, sizeof text, format_of(Base), Value);
    UINT32 count = pString->MaximumLength / UINT32{sizeof(WCHAR)};
    const KCSTATUS status =
        KxMultiByteToWideChar(pThis, KX_CODE_PAGE_OEM, text, -1, pString->Buffer, &count);
    // Contract: a string without room gets the room needed as its length.
    if (!is_error(status)) pString->Length = static_cast<UINT16>(count * sizeof(WCHAR));
    return status;
}

KCSTATUS KxUnicodeStringToInteger(PIOsal pThis, const UNICODE_STRING* pString, UINT32 Base,
                                  PUINT32 pValue) {
    if (pString == nullptr || pValue == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    CHAR text[kLongestNumber + 1] = {};  // stays terminated when the number fills it
    UINT32 count = kLongestNumber;
    const INT32 length = pString->Length / INT32{sizeof(WCHAR)};
    const KCSTATUS status =
        KxWideCharToMultiByte(pThis, KX_CODE_PAGE_OEM, pString->Buffer, length, text, &count);
    if (!is_error(status))
        *pValue = static_cast<UINT32>(strtoul(text, nullptr, static_cast<int>(Base)));
    return status;
}

OSAL_END_DECLS
