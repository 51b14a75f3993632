// Runs of ASCII, sixteen characters at a time.
#pragma once

#include <emmintrin.h>

#include "osal/types.h"

namespace osal {

inline constexpr std::size_t kRun = 16;

// ASCII characters that end a run, because they are more than themselves.
class Stops {
  public:
    // A byte beyond ASCII ends a run anyway and so stands for none.
    explicit Stops(UCHAR first = 0xFF, UCHAR second = 0xFF)
        : first_(_mm_set1_epi8(static_cast<char>(first))),
          second_(_mm_set1_epi8(static_cast<char>(second))) {}

    bool none_in(__m128i bytes) const {
        const __m128i hits =
            _mm_or_si128(_mm_cmpeq_epi8(bytes, first_), _mm_cmpeq_epi8(bytes, second_));
        return _mm_movemask_epi8(_mm_or_si128(bytes, hits)) == 0;
    }

  private:
    __m128i first_;
    __m128i second_;
};

// Takes bytes to units as long as sixteen more are a run. Returns how many.
inline std::size_t widen_run(const UCHAR* in, std::size_t length, WCHAR* out, const Stops& stops) {
    const __m128i zero = _mm_setzero_si128();
    std::size_t done = 0;
    for (; length - done >= kRun; done += kRun) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done));
        if (!stops.none_in(bytes)) break;
        auto* target = reinterpret_cast<__m128i*>(out + done);
        _mm_storeu_si128(target, _mm_unpacklo_epi8(bytes, zero));
        _mm_storeu_si128(target + 1, _mm_unpackhi_epi8(bytes, zero));
    }
    return done;
}

// Takes units to bytes as long as sixteen more are a run. Returns how many.
inline std::size_t narrow_run(const WCHAR* in, std::size_t length, UCHAR* out, const Stops& stops) {
    std::size_t done = 0;
    for (; length - done >= kRun; done += kRun) {
        const auto* source = reinterpret_cast<const __m128i*>(in + done);
        const __m128i low = _mm_loadu_si128(source);
        const __m128i high = _mm_loadu_si128(source + 1);
        // A unit above 0xFF saturates to 0x00 or 0xFF: the former needs a look at the units.
        const __m128i beyond =
            _mm_and_si128(_mm_or_si128(low, high), _mm_set1_epi16(static_cast<short>(0xFF80)));
        const __m128i is_ascii = _mm_cmpeq_epi16(beyond, _mm_setzero_si128());
        if (_mm_movemask_epi8(is_ascii) != 0xFFFF) break;
        const __m128i bytes = _mm_packus_epi16(low, high);
        if (!stops.none_in(bytes)) break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + done), bytes);
    }
    return done;
}

}  // namespace osal
