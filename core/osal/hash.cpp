// String hashes for hash tables.
#include "osal/internal/text.h"
#include "osal/primitives.h"

namespace {

// Contract: the byte is signed, so that text beyond ASCII hashes differently from the published ELF
// hash. Callers keep tables that were filled with these values.
UINT32 add_byte(UINT32 hash, UINT32 byte) {
    hash = (hash << 4) + static_cast<UINT32>(static_cast<signed char>(byte));
    const UINT32 top = hash & 0xF0000000u;
    return (hash ^ (top >> 24)) & ~top;
}

}  // namespace

UINT32 KxStrHash(PIOsal, const CHAR* pString, UINT32 HashTableSize) {
    if (*pString == 0) return 0;  // Contract: for a table of size 0 too
    UINT32 hash = 0;
    for (; *pString != 0; ++pString)
        hash = add_byte(hash, static_cast<UCHAR>(*pString));
    return hash % HashTableSize;
}

// Contract: both bytes of a unit count, so wide ASCII text hashes differently from its narrow form.
UINT32 KxStrHashW(PIOsal, const WCHAR* pStringW, UINT32 HashTableSize) {
    const osal::LooseUnit* unit = pStringW;
    if (*unit == 0) return 0;
    UINT32 hash = 0;
    for (; *unit != 0; ++unit)
        hash = add_byte(add_byte(hash, *unit & 0xFFu), *unit >> 8);
    return hash % HashTableSize;
}
