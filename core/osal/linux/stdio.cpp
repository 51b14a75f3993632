// Memory and string primitives. The instance is ignored throughout.
#include <emmintrin.h>
#include <string.h>

#include "osal/internal/annotations.h"
#include "osal/internal/text.h"
#include "osal/primitives.h"

using osal::LooseUnit;

namespace {

constexpr UINT32 kVector = sizeof(__m128i);
constexpr UINT32 kBlock = 4 * kVector;  // what one turn of a fast loop takes

__m128i load_unaligned(const UCHAR* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// All ones in each of 16 bytes where the two sides are equal.
__m128i equal_bytes(const UCHAR* a, const UCHAR* b) {
    return _mm_cmpeq_epi8(load_unaligned(a), load_unaligned(b));
}

bool equal_blocks(const UCHAR* a, const UCHAR* b) {
    const __m128i first = _mm_and_si128(equal_bytes(a, b), equal_bytes(a + kVector, b + kVector));
    const __m128i second = _mm_and_si128(equal_bytes(a + 2 * kVector, b + 2 * kVector),
                                         equal_bytes(a + 3 * kVector, b + 3 * kVector));
    return _mm_movemask_epi8(_mm_and_si128(first, second)) == 0xFFFF;
}

// Index of the first difference, or of the start of the last part shorter than a vector.
UINT32 equal_vectors(const UCHAR* a, const UCHAR* b, UINT32 length) {
    UINT32 index = 0;
    while (length - index >= kBlock && equal_blocks(a + index, b + index))
        index += kBlock;
    for (; length - index >= kVector; index += kVector) {
        const auto equal =
            static_cast<UINT32>(_mm_movemask_epi8(equal_bytes(a + index, b + index)));
        if (equal != 0xFFFFu) return index + static_cast<UINT32>(__builtin_ctz(~equal));
    }
    return index;
}

// All ones in each zero unit of the 16 bytes at an aligned address. Reads the whole vector: aligned
// vectors and blocks do not cross a page, so none reads what cannot be read.
NO_MEMORY_CHECKS __m128i zero_units(const __m128i* units) {
    return _mm_cmpeq_epi16(*units, _mm_setzero_si128());
}

NO_MEMORY_CHECKS UINT32 zero_mask(const __m128i* units) {
    return static_cast<UINT32>(_mm_movemask_epi8(zero_units(units)));
}

NO_MEMORY_CHECKS bool block_has_zero(const __m128i* units) {
    const __m128i first = _mm_or_si128(zero_units(units), zero_units(units + 1));
    const __m128i second = _mm_or_si128(zero_units(units + 2), zero_units(units + 3));
    return _mm_movemask_epi8(_mm_or_si128(first, second)) != 0;
}

// The first vector with a zero unit, at or behind an aligned address. Exempt like those it calls,
// which GCC may inline here and would then check after all.
NO_MEMORY_CHECKS const __m128i* find_zero(const __m128i* units) {
    for (; reinterpret_cast<uintptr_t>(units) % kBlock != 0; ++units)
        if (zero_mask(units) != 0) return units;
    while (!block_has_zero(units))
        units += kBlock / kVector;
    while (zero_mask(units) == 0)
        ++units;
    return units;
}

}  // namespace

// Contract: counts what is equal and does not order; nothing compared counts as nothing equal.
UINT32 KxCompareMemory(PIOsal, const void* pMemory1, const void* pMemory2, UINT32 Length) {
    if (pMemory1 == nullptr || pMemory2 == nullptr) return 0;
    const auto* a = static_cast<const UCHAR*>(pMemory1);
    const auto* b = static_cast<const UCHAR*>(pMemory2);
    UINT32 index = equal_vectors(a, b, Length);
    while (index < Length && a[index] == b[index])
        ++index;
    return index;
}

void KxCopyMemory(PIOsal, PVOID pDest, const void* pSrc, UINT32 Length) {
    if (pDest != nullptr && pSrc != nullptr) memcpy(pDest, pSrc, Length);
}

void KxMoveMemory(PIOsal, PVOID pDest, const void* pSrc, UINT32 Length) {
    if (pDest != nullptr && pSrc != nullptr) memmove(pDest, pSrc, Length);
}

void KxFillMemory(PIOsal, PVOID pDest, UINT32 Length, UCHAR Fill) {
    if (pDest != nullptr) memset(pDest, Fill, Length);
}

void KxZeroMemory(PIOsal, PVOID pDest, UINT32 Length) {
    if (pDest != nullptr) memset(pDest, 0, Length);
}

UINT32 KxStrlen(PIOsal, const CHAR* pString) {
    return pString == nullptr ? 0 : static_cast<UINT32>(strlen(pString));
}

// Exempt for the same reason.
NO_MEMORY_CHECKS UINT32 KxStrlenW(PIOsal, const WCHAR* pStringW) {
    if (pStringW == nullptr) return 0;
    const LooseUnit* end = pStringW;
    // Unit by unit up to a vector boundary; a string at an odd address never gets there.
    for (; reinterpret_cast<uintptr_t>(end) % kVector != 0; ++end)
        if (*end == 0) return static_cast<UINT32>(end - pStringW);
    const __m128i* last = find_zero(reinterpret_cast<const __m128i*>(end));
    end = reinterpret_cast<const LooseUnit*>(last);
    end += __builtin_ctz(zero_mask(last)) / sizeof(WCHAR);
    return static_cast<UINT32>(end - pStringW);
}
