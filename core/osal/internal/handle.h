// Signatures, and the one check from an untyped handle to a record.
#pragma once

#include <string.h>

#include <cstdlib>

#include "osal/memory.h"
#include "osal/types.h"

namespace osal {

// Four ASCII bytes in memory order as a 32-bit number: four_cc("EVNT") == 0x544E5645.
consteval UINT32 four_cc(const char (&text)[5]) {
    UINT32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(text[i]);
    return value;
}

// The record behind a handle, or null if the handle is null or of another kind. A handle is known
// by its signature alone, which a destroyed record no longer carries.
template <class Record>
Record* as(HANDLE handle) {
    auto* record = static_cast<Record*>(handle);
    return record != nullptr && record->Signature == Record::kSignature ? record : nullptr;
}

// Clears memory that is freed next. As explicit_bzero, which the compiler cannot drop either, but
// inline: a call would cost as much as the rest of a release. The barrier makes the compiler
// believe that the zeroes are read.
inline void wipe(void* memory, std::size_t size) {
    memset(memory, 0, size);
    asm volatile("" : : "r"(memory) : "memory");
}

// Ends a record that came from the C heap: wiped, so that a stale handle is known, then freed.
template <class Record>
void retire_to_heap(Record* record) {
    wipe(record, sizeof *record);
    std::free(record);
}

// The same for a record that is a pool block of the instance.
template <class Record>
void retire_to_pool(PIOsal pThis, Record* record) {
    wipe(record, sizeof *record);
    KxFreeMemory(pThis, record);
}

}  // namespace osal
