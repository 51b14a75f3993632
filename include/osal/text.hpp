// Conversion between narrow and 16-bit wide text as strings of the standard library.
//
//     const std::u16string wide = kx::to_wide(service, "gr\xC3\xBC\xC3\x9F");
//     const std::string narrow = kx::to_narrow(service, wide, kx::CodePage::oem);
//
// What converts to what, and the escapes of the code pages, are those of osal/conversion.h. What
// the services make special is not: an empty text gives an empty text, zeros are characters like
// any other wherever they stand, and the result has whatever size it takes.
//
// All functions are safe on any thread. They throw kx::Error (code 1 of a text that does not
// convert), std::length_error for a text of more than 2^31 - 1 characters, and std::bad_alloc.
#pragma once

#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "osal/conversion.h"
#include "osal/interface.hpp"

namespace kx {

enum class CodePage : UINT32 {
    ansi = KX_CODE_PAGE_ANSI,
    oem = KX_CODE_PAGE_OEM,
    utf8 = KX_CODE_PAGE_UTF8,
};

namespace detail {

// char16_t and WCHAR are two types of one representation. The units of a string are touched as
// WCHAR by the library alone, which is compiled apart from its clients; no header of this face
// reads or writes through these pointers, so that no access of a client's is of another type than
// its object.
static_assert(sizeof(char16_t) == sizeof(WCHAR));
static_assert(alignof(char16_t) == alignof(WCHAR));
inline char* units(char* text) {
    return text;
}
inline const char* units(const char* text) {
    return text;
}
inline WCHAR* units(char16_t* text) {
    return reinterpret_cast<WCHAR*>(text);
}
inline const WCHAR* units(const char16_t* text) {
    return reinterpret_cast<const WCHAR*>(text);
}

template <class Char>
INT32 checked_length(std::basic_string_view<Char> text) {
    if (text.size() > std::size_t{std::numeric_limits<INT32>::max()})
        throw std::length_error("kx: text too long to convert");
    return static_cast<INT32>(text.size());
}

// Converts text that is not empty and does not end with a zero, into room for so many characters
// at first and more if it takes more.
template <auto slot, class Out, class In>
std::basic_string<Out> convert(const Service& service, std::basic_string_view<In> text,
                               CodePage page, std::size_t room) {
    constexpr std::size_t kMost = std::numeric_limits<UINT32>::max();
    std::basic_string<Out> result;
    for (;; room *= 2) {
        auto count = static_cast<UINT32>(room < kMost ? room : kMost);
        result.resize(count);
        const KCSTATUS status =
            service.call<slot>(static_cast<UINT32>(page), units(text.data()),
                               static_cast<INT32>(text.size()), units(result.data()), &count);
        if (KC_CODE(status) == KC_CODE_BUFFER_TOO_SMALL && room < kMost) continue;
        check(status);
        result.resize(count);
        return result;
    }
}

// The services drop a zero at the end of a counted text, so those are added afterwards.
template <auto slot, class Out, class In>
std::basic_string<Out> convert_any(const Service& service, std::basic_string_view<In> text,
                                   CodePage page, std::size_t growth) {
    checked_length(text);
    const std::size_t length = text.find_last_not_of(In{}) + 1;
    std::basic_string<Out> result;
    if (length != 0)
        result = convert<slot, Out>(service, text.substr(0, length), page, length * growth + 1);
    return result.append(text.size() - length, Out{});
}

}  // namespace detail

// Narrow text to units. A character never takes more units than bytes.
inline std::u16string to_wide(const Service& service, std::string_view text,
                              CodePage page = CodePage::utf8) {
    return detail::convert_any<&IOsalVtbl::KxMultiByteToWideChar, char16_t>(service, text, page, 1);
}

// Units to narrow text.
inline std::string to_narrow(const Service& service, std::u16string_view text,
                             CodePage page = CodePage::utf8) {
    return detail::convert_any<&IOsalVtbl::KxWideCharToMultiByte, char>(service, text, page, 2);
}

// The text in upper case, as the process locale has it at the time of the call (KxCharUpperBuff).
inline std::u16string to_upper(const Service& service, std::u16string text) {
    const auto length = static_cast<UINT32>(detail::checked_length(std::u16string_view(text)));
    if (length != 0)
        check(service.call<&IOsalVtbl::KxCharUpperBuff>(length, detail::units(text.data())));
    return text;
}

}  // namespace kx
