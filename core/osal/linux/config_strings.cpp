// Registry access: conversion of strings and of lists of strings.
//
// No lock, no state.
#include "osal/linux/internal/config.h"
#include "osal/osal.h"

using namespace osal::config;
using osal::is_error;

namespace {

// The string behind the one at text.
template <class Unit>
const Unit* next_string(const Unit* text) {
    while (*text != 0)
        ++text;
    return text + 1;
}

}  // namespace

KCSTATUS WideCharToMultiByteMultiple(PIOsal pThis, UINT32 CodePage, UINT32 Multiple,
                                     const WCHAR* WideStr, INT32, PCHAR Str, PUINT32 pStrLen) {
    char* const end = Str + *pStrLen;
    char* position = Str;
    while (*WideStr != 0) {
        auto count = static_cast<UINT32>(end - position);
        if (count == 0) return fail(kNarrowNoRoom);
        const KCSTATUS status =
            KxWideCharToMultiByte(pThis, CodePage, WideStr, -1, position, &count);
        if (is_error(status)) return status;
        position += count;
        // Contract: the terminator fits, but a byte behind it is asked for as well.
        if (position >= end - 1) return fail(kNarrowStringTooLong);
        *position++ = '\0';
        if (Multiple != 1) break;
        WideStr = next_string(WideStr);
    }
    if (Multiple == 1) {
        if (position >= end) return fail(kNarrowNoListEnd);
        *position++ = '\0';
    }
    *pStrLen = static_cast<UINT32>(position - Str);
    return KC_OK;
}

// Contract: the limit of the first conversion is in units, the end of the output the same number of
// bytes. So a string may be written whole and still be refused, and half of the room stays unused.
KCSTATUS KxMultiByteToWideCharMultiple(PIOsal pThis, UINT32 CodePage, UINT32 Multiple,
                                       const CHAR* pMultiByteStr, INT32, PWCHAR pWideCharStr,
                                       PUINT32 pWideCharStrLen) {
    const INT64 end = *pWideCharStrLen;  // this and position in bytes from the start
    INT64 position = 0;
    auto room = *pWideCharStrLen;
    while (*pMultiByteStr != 0) {
        if (room == 0) return fail(kWideNoRoom);
        PWCHAR output = pWideCharStr + position / 2;
        const KCSTATUS status =
            KxMultiByteToWideChar(pThis, CodePage, pMultiByteStr, -1, output, &room);
        if (is_error(status)) return status;
        position += INT64{room} * 2;
        if (position >= end - 2) return fail(kWideStringTooLong);
        output[room] = 0;
        position += 2;
        room = static_cast<UINT32>((end - position) / 2);
        if (Multiple != 1) break;
        pMultiByteStr = next_string(pMultiByteStr);
    }
    if (Multiple == 1) {
        if (position >= end) return fail(kWideNoListEnd);
        pWideCharStr[position / 2] = 0;
        position += 2;
    }
    *pWideCharStrLen = static_cast<UINT32>(position / 2);
    return KC_OK;
}
