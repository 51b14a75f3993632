// Upper-casing of wide text by the rules of the process locale.
//
// The host may set another locale between any two calls, and in some the upper case of an ASCII
// letter is not ASCII. So nothing is kept from call to call: a call that is worth it asks about
// ASCII first, and then takes runs of it eight units at a time.
#include <ctype.h>
#include <emmintrin.h>
#include <wctype.h>

#include "osal/conversion.h"
#include "osal/internal/status.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "locale"};

constexpr UINT32 kVector = sizeof(__m128i) / sizeof(WCHAR);
// Shorter texts take no longer unit by unit than asking about ASCII does.
constexpr UINT32 kWorthAsking = 160;

// isalnum has an answer for bytes only; whatever lies above is a wide character's question.
bool is_alphanumeric(WCHAR unit) {
    return unit <= 0xFF ? isalnum(unit) != 0 : iswalnum(unit) != 0;
}

WCHAR upper(WCHAR unit) {
    if (!is_alphanumeric(unit)) return unit;
    const wint_t changed = towupper(unit);
    return changed <= 0xFFFF ? static_cast<WCHAR>(changed) : unit;
}

// Whether the locale changes ASCII as the C locale does: no letter of Turkish, say.
bool is_ascii_usual() {
    for (WCHAR unit = 0; unit < 0x80; ++unit) {
        const bool is_lower = unit >= 'a' && unit <= 'z';
        if (upper(unit) != (is_lower ? unit - 0x20 : unit)) return false;
    }
    return true;
}

bool is_ascii(__m128i units) {
    const __m128i beyond = _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xFF80)));
    return _mm_movemask_epi8(_mm_cmpeq_epi16(beyond, _mm_setzero_si128())) == 0xFFFF;
}

// Units are ASCII, so they compare as signed numbers.
__m128i upper_ascii(__m128i units) {
    const __m128i from_a = _mm_cmpgt_epi16(units, _mm_set1_epi16('a' - 1));
    const __m128i to_z = _mm_cmplt_epi16(units, _mm_set1_epi16('z' + 1));
    const __m128i is_lower = _mm_and_si128(from_a, to_z);
    return _mm_sub_epi16(units, _mm_and_si128(is_lower, _mm_set1_epi16(0x20)));
}

void upper_each(WCHAR* text, UINT32 length) {
    for (UINT32 i = length; i-- > 0;)
        text[i] = upper(text[i]);
}

void upper_by_vectors(WCHAR* text, UINT32 length) {
    for (; length >= kVector; length -= kVector, text += kVector) {
        auto* vector = reinterpret_cast<__m128i*>(text);
        const __m128i units = _mm_loadu_si128(vector);
        if (is_ascii(units))
            _mm_storeu_si128(vector, upper_ascii(units));
        else
            upper_each(text, kVector);
    }
    upper_each(text, length);
}

}  // namespace

KCSTATUS KxCharUpperBuff(PIOsal, UINT32 Length, PWCHAR pWideStr) {
    if (Length == 0 || pWideStr == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    if (Length >= kWorthAsking && is_ascii_usual())
        upper_by_vectors(pWideStr, Length);
    else
        upper_each(pWideStr, Length);
    return KC_OK;
}
