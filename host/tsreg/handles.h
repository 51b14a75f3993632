// Handles: numbers that name an open key and are known to be none without a look at freed memory.
//
// A handle is a place in a table and the count of its uses, so a closed handle stays unknown when
// its place is used again. Guarded by the library's lock; allocated from the C heap.
#pragma once

#include <cstddef>

#include "osal/types.h"

namespace tsreg {

constexpr std::size_t kNameSize = 256;  // a name of 255 bytes and its zero byte

// The last entry that an enumeration handed out, for as long as the store's version is the same;
// all zero is the place before the first entry and always valid.
struct Position {
    UINT64 version;
    UINT32 index;
    UINT32 length;
    CHAR name[kNameSize];
};

struct OpenKey {
    INT64 id;  // of the key's row; never used again for another key
    UINT32 access;
    Position sub_keys;
    Position values;
};

// Enters a new record and returns its handle, or null without memory.
HANDLE add_handle(INT64 id, UINT32 access);

// The record, or null if the handle is none.
OpenKey* find_handle(HANDLE handle);

// Ends a handle; false if it is none.
bool remove_handle(HANDLE handle);

// Makes the handles of all keys with this number or a higher one name no key.
void disown_keys_from(INT64 id);

// Frees everything. For unloading.
void free_handles();

}  // namespace tsreg
