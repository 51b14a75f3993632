// Memory and string primitives. The instance is ignored throughout.
#include <emmintrin.h>
#include <string.h>

#include "osal/internal/annotations.h"
#include "osal/internal/text.h"
#include "osal/primitives.h"

using osal::LooseUnit;

namespace {

constexpr UINT32 kVector = sizeof(__m128i);

__m128i load_unaligned(const UCHAR* bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// A bit for each of 16 bytes, set where the two sides are equal.
UINT32 equal_mask(const UCHAR* a, const UCHAR* b) {
    return static_cast<UINT32>(
        _mm_movemask_epi8(_mm_cmpeq_epi8(load_unaligned(a), load_unaligned(b))));
}

// Index of the first difference, or of the start of the last part shorter than a vector.
UINT32 equal_vectors(const UCHAR* a, const UCHAR* b, UINT32 length) {
    UINT32 index = 0;
    for (; length - index >= kVector; index += kVector) {
        const UINT32 mask = equal_mask(a + index, b + index);
        if (mask != 0xFFFFu) return index + static_cast<UINT32>(__builtin_ctz(~mask));
    }
    return index;
}

// A bit for each of the 16 bytes at an aligned address that belongs to a zero unit. Reads the whole
// vector: aligned vectors do not cross a page, so none reads what cannot be read.
NO_MEMORY_CHECKS UINT32 zero_units(const __m128i* units) {
    return static_cast<UINT32>(_mm_movemask_epi8(_mm_cmpeq_epi16(*units, _mm_setzero_si128())));
}

}  // namespace

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

UINT32 KxStrlenW(PIOsal, const WCHAR* pStringW) {
    if (pStringW == nullptr) return 0;
    const LooseUnit* end = pStringW;
    // Unit by unit up to a vector boundary; a string at an odd address never gets there.
    for (; reinterpret_cast<uintptr_t>(end) % kVector != 0; ++end)
        if (*end == 0) return static_cast<UINT32>(end - pStringW);
    const auto* vector = reinterpret_cast<const __m128i*>(end);
    while (zero_units(vector) == 0)
        ++vector;
    end = reinterpret_cast<const LooseUnit*>(vector);
    end += __builtin_ctz(zero_units(vector)) / sizeof(WCHAR);
    return static_cast<UINT32>(end - pStringW);
}
