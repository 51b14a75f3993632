// Rules of code-page text that no converter knows of: separators, escapes, and the euro byte.
//
// A unit that a page cannot hold is written as an escape, "[20AB]", and read back as that unit. The
// separators of paths are the same in every page. The euro sign of a page without one is a byte.
#pragma once

#include <cctype>

#include "osal/types.h"

namespace osal {

inline constexpr UINT32 kEscapeLength = 6;
inline constexpr UCHAR kEuroByte = 0xCC;

constexpr bool is_separator(UINT32 character) {
    return character == '/' || character == ':' || character == '\\';
}

inline bool starts_escape(const CHAR* text, UINT32 left) {
    return text[0] == '[' && left >= kEscapeLength && text[kEscapeLength - 1] == ']';
}

// Contract: no digit is refused. A byte that is none counts as its lower-cased code less 87, like
// the letters, so "[zz!?]" reads as some unit.
inline WCHAR read_escape(const CHAR* escape) {
    UINT32 unit = 0;
    for (int i = 1; i <= 4; ++i) {
        const auto byte = static_cast<UCHAR>(escape[i]);
        const int digit = byte >= '0' && byte <= '9' ? byte - '0' : std::tolower(byte) - 87;
        unit = unit * 16 + static_cast<UINT32>(digit);
    }
    return static_cast<WCHAR>(unit);
}

inline void write_escape(WCHAR unit, CHAR* escape) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    escape[0] = '[';
    for (int i = 0; i < 4; ++i)
        escape[1 + i] = kDigits[unit >> (12 - 4 * i) & 0xF];
    escape[5] = ']';
}

}  // namespace osal
