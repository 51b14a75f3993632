// Index of an instance's blocks beside its sorted block list: finds a block by id, the lowest block
// with a free slot, the next block in order and the lowest unused id, all in constant time.
//
// The blocks with the lowest ids lie in the instance itself, so that one with few objects is small.
// For the others there are two levels of 256: a root, and one leaf for each 256 ids. Both come from
// the paged pool with the first block of their range and go with its last one, so the index is as
// empty as the instance. Guarded by the instance lock like the list it mirrors; the pointers alone
// are also read without it (object_readers.h), from root to block.
#pragma once

#include "osal/types.h"

typedef struct _BlockHeader* pBlockHeader;
typedef struct _ObjectInfo* pObjectInfo;

namespace osal {

// A set of the numbers 0..255. All zero: empty.
struct Set256 {
    static constexpr UINT32 kNone = 256;

    UINT64 words[4];

    void put(UINT32 number, bool member) {
        const UINT64 bit = UINT64{1} << (number % 64);
        UINT64& word = words[number / 64];
        word = member ? word | bit : word & ~bit;
    }
    bool empty() const { return (words[0] | words[1] | words[2] | words[3]) == 0; }
    // The lowest member (number that is no member) from a number of at most 256 up, or kNone.
    UINT32 first_member(UINT32 from) const { return first(from, 0); }
    UINT32 first_gap(UINT32 from) const { return first(from, ~UINT64{0}); }

  private:
    UINT32 first(UINT32 from, UINT64 inverted) const {
        UINT64 above = ~UINT64{0} << (from % 64);
        for (UINT32 i = from / 64; i < 4; ++i, above = ~UINT64{0}) {
            const UINT64 word = (words[i] ^ inverted) & above;
            if (word != 0) return i * 64 + static_cast<UINT32>(__builtin_ctzll(word));
        }
        return kNone;
    }
};

// Blocks by the upper and the lower half of their id.
struct IndexLeaf {
    pBlockHeader block[256];
    Set256 used;  // ids that have a block
    Set256 room;  // those of blocks with a free slot
};
struct IndexRoot {
    IndexLeaf* leaf[256];
    Set256 used;  // leaves with a block
    Set256 full;  // leaves without an unused id
    Set256 room;  // leaves with a block that has a free slot
};

// All zero: empty.
struct BlockIndex {
    static constexpr UINT32 kFew = 32;

    IndexRoot* root;  // of ids from kFew on; null: there are none
    UINT32 few_used;  // of those below: a bit an id, likewise
    UINT32 few_room;
    pBlockHeader few[kFew];
};

// All results are null where there is no such block.
pBlockHeader find_block(const BlockIndex& index, UINT32 id);
pBlockHeader first_block_from(const BlockIndex& index, UINT32 id);  // lowest id not below this one
pBlockHeader first_block_with_room(const BlockIndex& index);
UINT16 lowest_unused_id(const BlockIndex& index);  // 0: all 65,535 are in use

// Enters a block, whose slots are made, with its room; false if there is no memory.
bool index_block(pObjectInfo oi, pBlockHeader bh);

// Takes a block out; nobody has a pointer to it from the index afterwards.
void unindex_block(pObjectInfo oi, pBlockHeader bh);

// To be called when a block's first free slot came or its last one went.
void note_room(BlockIndex& index, UINT32 id, bool has_room);

}  // namespace osal
