// Rules of code-page text that no converter knows of: separators, escapes, and the euro byte.
//
// A unit that a page cannot hold is written as an escape, "[20AB]", and read back as that unit. The
// separators of paths are the same in every page. The euro sign of a page without one is a byte.
#pragma once

#include <cctype>
#include <cstddef>

#include "osal/types.h"

namespace osal {

inline constexpr std::size_t kEscapeLength = 6;
inline constexpr WCHAR kEuro = 0x20AC;
inline constexpr UCHAR kEuroByte = 0xCC;

inline constexpr UCHAR kSeparators[] = {'/', ':', '\\'};

constexpr bool is_separator(UINT32 character) {
    return character == '/' || character == ':' || character == '\\';
}

// Contract: no digit is refused. A byte that is none counts as its lower-cased code less 87, like
// the letters, so "[zz!?]" reads as some unit.
inline WCHAR read_escape(const UCHAR* escape) {
    UINT32 unit = 0;
    for (int i = 1; i <= 4; ++i) {
        const UCHAR byte = escape[i];
        const int digit = byte >= '0' && byte <= '9' ? byte - '0' : std::tolower(byte) - 87;
        unit = unit * 16 + static_cast<UINT32>(digit);
    }
    return static_cast<WCHAR>(unit);
}

// What an opening bracket starts, an escape or just itself. Returns the bytes of it.
inline std::size_t read_bracket(const UCHAR* text, std::size_t left, WCHAR& unit) {
    const bool is_escape = left >= kEscapeLength && text[kEscapeLength - 1] == ']';
    unit = is_escape ? read_escape(text) : WCHAR{'['};
    return is_escape ? kEscapeLength : 1;
}

inline void write_escape(WCHAR unit, UCHAR* escape) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    escape[0] = '[';
    for (int i = 0; i < 4; ++i)
        escape[1 + i] = static_cast<UCHAR>(kDigits[unit >> (12 - 4 * i) & 0xF]);
    escape[5] = ']';
}

// What a unit becomes that its page does not hold: bytes has room for an escape. Returns the size.
inline std::size_t write_refused(WCHAR unit, UCHAR* bytes) {
    if (unit == kEuro) {
        *bytes = kEuroByte;
        return 1;
    }
    write_escape(unit, bytes);
    return kEscapeLength;
}

}  // namespace osal
