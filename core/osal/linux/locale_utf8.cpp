// UTF-8, as such and as a code page with the rules of code-page text, decided as iconv decides:
// no overlong forms, no surrogates, nothing beyond 16 bits.
#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/cursor.h"
#include "osal/linux/internal/escape.h"
#include "osal/linux/internal/locale_fast.h"
#include "osal/linux/internal/utf8_fours.h"

namespace osal::fast {
namespace {

// Characters that go one by one before a run is tried again.
constexpr std::size_t kBatch = 32;
constexpr std::size_t kLongest = 3;

constexpr bool is_continuation(UCHAR byte) {
    return (byte & 0xC0) == 0x80;
}
constexpr bool is_surrogate(UINT32 unit) {
    return (unit & 0xF800) == 0xD800;
}

// Length of the character that text starts with, 0 if there is none.
std::size_t decode(const UCHAR* text, std::size_t left, WCHAR& unit) {
    const UINT32 first = text[0];
    if (first < 0x80) {
        unit = static_cast<WCHAR>(first);
        return 1;
    }
    if (first < 0xC2 || left < 2 || !is_continuation(text[1])) return 0;
    if (first < 0xE0) {
        unit = static_cast<WCHAR>((first & 0x1F) << 6 | (text[1] & 0x3F));
        return 2;
    }
    if (first >= 0xF0 || left < 3 || !is_continuation(text[2])) return 0;
    unit = static_cast<WCHAR>((first & 0xF) << 12 | (text[1] & 0x3F) << 6 | (text[2] & 0x3F));
    return unit < 0x800 || is_surrogate(unit) ? 0 : 3;
}

// Writes a unit that is no surrogate to out, which has room for three bytes. Returns how many.
std::size_t encode(WCHAR unit, UCHAR* out) {
    if (unit < 0x80) {
        out[0] = static_cast<UCHAR>(unit);
        return 1;
    }
    if (unit < 0x800) {
        const auto bytes = static_cast<UINT16>(0x80C0 | unit >> 6 | (unit & 0x3F) << 8);
        std::memcpy(out, &bytes, sizeof bytes);
        return 2;
    }
    out[0] = static_cast<UCHAR>(0xE0 | unit >> 12);
    out[1] = static_cast<UCHAR>(0x80 | (unit >> 6 & 0x3F));
    out[2] = static_cast<UCHAR>(0x80 | (unit & 0x3F));
    return 3;
}

constexpr bool is_special_in_page(UCHAR byte) {
    return byte == '[' || byte == kEuroByte;
}

// Takes up to count characters, which have room for their units and three bytes each left. Stops
// before one that is none, or that has a rule of its own in a page.
template <bool kPage>
void pass_units(ToWide& at, std::size_t count) {
    const UCHAR* in = at.in;
    WCHAR* out = at.out;
    for (; count > 0; --count) {
        if (kPage && is_special_in_page(*in)) break;
        const std::size_t length = decode(in, kLongest, *out);
        if (length == 0) break;
        in += length;
        ++out;
    }
    at.in = in;
    at.out = out;
}

template <bool kPage>
Step pass_unit(ToWide& at, bool supports_euro) {
    if (at.room() == 0) return Step::kFailed;
    std::size_t length = 1;
    if (kPage && *at.in == '[')
        length = read_bracket(at.in, at.left(), *at.out);
    else if (kPage && *at.in == kEuroByte && !supports_euro)
        *at.out = kEuro;
    else
        length = decode(at.in, at.left(), *at.out);
    if (length == 0) return Step::kFailed;
    at.in += length;
    ++at.out;
    return Step::kGoOn;
}

template <bool kPage>
Outcome to_wide(bool supports_euro, const CHAR* in, UINT32 length, WCHAR* out, UINT32& count) {
    ToWide at = start(in, length, out, count);
    const Stops stops(kPage ? '[' : 0xFF);
    while (at.in != at.in_end) {
        pass_run(at, stops);
        const UCHAR* const before = at.in;
        pass_units<kPage>(at, std::min({at.left() / kLongest, at.room(), kBatch}));
        if (at.in != before || at.in == at.in_end) continue;
        const Step step = pass_unit<kPage>(at, supports_euro);
        if (step != Step::kGoOn) return outcome_of(step);
    }
    count = static_cast<UINT32>(at.out - out);
    return Outcome::kDone;
}

// Takes up to count units, which have room for three bytes each. Stops before a surrogate.
void pass_bytes(FromWide& at, std::size_t count) {
    const WCHAR* in = at.in;
    UCHAR* out = at.out;
    for (; count > 0; --count, ++in) {
        const WCHAR unit = *in;
        if (is_surrogate(unit)) break;
        out += encode(unit, out);
    }
    at.in = in;
    at.out = out;
}

template <bool kPage>
Step pass_character(FromWide& at) {
    const WCHAR unit = *at.in;
    UCHAR bytes[kEscapeLength];
    if (!is_surrogate(unit)) return append(at, bytes, encode(unit, bytes));
    return kPage ? append(at, bytes, write_refused(unit, bytes)) : Step::kFailed;
}

// Takes what comes before the first unit that the converter would see, and that unit if it is a
// byte-order mark of either kind.
template <bool kPage>
Step pass_mark(FromWide& at) {
    UCHAR bytes[kEscapeLength] = {};
    if (kPage)
        for (; at.in != at.in_end && is_separator(*at.in);)
            if (const Step step = pass_character<kPage>(at); step != Step::kGoOn) return step;
    if (at.in == at.in_end) return Step::kGoOn;
    if (*at.in != kByteOrderMark && *at.in != kSwappedByteOrderMark) return Step::kGoOn;
    if (kPage) return append(at, bytes, write_refused(*at.in, bytes));
    if (*at.in == kSwappedByteOrderMark) return Step::kFailed;
    return append(at, bytes, 0);
}

template <bool kPage>
Outcome from_wide(const WCHAR* in, UINT32 length, CHAR* out, UINT32& count) {
    FromWide at = start(in, length, out, count);
    const Stops stops;
    Step step = pass_mark<kPage>(at);
    while (step == Step::kGoOn && at.in != at.in_end) {
        pass_run(at, stops);
        const WCHAR* const before = at.in;
        pass_fours(at, kBatch);
        if (at.in != before) continue;
        if (at.room() > 0)
            pass_bytes(at, std::min({at.left(), (at.room() - 1) / kLongest, kBatch}));
        if (at.in != before || at.in == at.in_end) continue;
        step = pass_character<kPage>(at);
    }
    if (step != Step::kGoOn) return outcome_of(step);
    count = static_cast<UINT32>(at.out - reinterpret_cast<UCHAR*>(out));
    return Outcome::kDone;
}

}  // namespace

Outcome utf8_to_wide(const CHAR* in, UINT32 length, WCHAR* out, UINT32& count) {
    return to_wide<false>(true, in, length, out, count);
}
Outcome wide_to_utf8(const WCHAR* in, UINT32 length, CHAR* out, UINT32& count) {
    return from_wide<false>(in, length, out, count);
}
Outcome utf8_page_to_wide(bool supports_euro, const CHAR* in, UINT32 length, WCHAR* out,
                          UINT32& count) {
    return to_wide<true>(supports_euro, in, length, out, count);
}
Outcome wide_to_utf8_page(const WCHAR* in, UINT32 length, CHAR* out, UINT32& count) {
    return from_wide<true>(in, length, out, count);
}

}  // namespace osal::fast
