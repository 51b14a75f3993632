// Index of an instance's blocks; see the header.
#include "osal/internal/object.h"

namespace osal {
namespace {

constexpr UINT32 kMaxBlockId = 0xFFFF;

// Block id 0 is never used, so leaf 0 has one id less.
UINT32 first_id_in(UINT32 leaf_number) {
    return leaf_number == 0 ? 1 : 0;
}

IndexLeaf* make_leaf(pObjectInfo oi, UINT32 number) {
    if (number == 0) return &oi->index.first;
    PVOID leaf = service<&IOsalVtbl::KxAllocPagedMemory>(oi->pIOsal, UINT32{sizeof(IndexLeaf)});
    service<&IOsalVtbl::KxZeroMemory>(oi->pIOsal, leaf, UINT32{sizeof(IndexLeaf)});
    return static_cast<IndexLeaf*>(leaf);
}

void end_leaf(pObjectInfo oi, IndexLeaf* leaf) {
    if (leaf != &oi->index.first) service<&IOsalVtbl::KxFreeMemory>(oi->pIOsal, PVOID{leaf});
}

}  // namespace

pBlockHeader find_block(const BlockIndex& index, UINT32 id) {
    const IndexLeaf* leaf = load(index.leaf[id / 256], std::memory_order_seq_cst);
    return leaf != nullptr ? load(leaf->block[id % 256], std::memory_order_seq_cst) : nullptr;
}

pBlockHeader first_block_from(const BlockIndex& index, UINT32 id) {
    if (id > kMaxBlockId) return nullptr;
    UINT32 number = id / 256;
    if (const IndexLeaf* leaf = index.leaf[number]) {
        const UINT32 in_leaf = leaf->used.first_member(id % 256);
        if (in_leaf != Set256::kNone) return leaf->block[in_leaf];
    }
    number = index.used.first_member(number + 1);
    if (number == Set256::kNone) return nullptr;
    const IndexLeaf* leaf = index.leaf[number];
    return leaf->block[leaf->used.first_member(0)];
}

pBlockHeader first_block_with_room(const BlockIndex& index) {
    const UINT32 number = index.room.first_member(0);
    if (number == Set256::kNone) return nullptr;
    const IndexLeaf* leaf = index.leaf[number];
    return leaf->block[leaf->room.first_member(0)];
}

UINT16 lowest_unused_id(const BlockIndex& index) {
    const UINT32 number = index.full.first_gap(0);
    if (number == Set256::kNone) return 0;
    const IndexLeaf* leaf = index.leaf[number];
    UINT32 in_leaf = first_id_in(number);
    if (leaf != nullptr) in_leaf = leaf->used.first_gap(in_leaf);
    return static_cast<UINT16>(number * 256 + in_leaf);
}

bool index_block(pObjectInfo oi, pBlockHeader bh) {
    BlockIndex& index = oi->index;
    const UINT32 number = bh->blockId / 256u;
    const UINT32 in_leaf = bh->blockId % 256u;
    IndexLeaf* leaf = index.leaf[number];
    if (leaf == nullptr) leaf = make_leaf(oi, number);
    if (leaf == nullptr) return false;
    store(leaf->block[in_leaf], bh, std::memory_order_seq_cst);
    store(index.leaf[number], leaf, std::memory_order_seq_cst);
    leaf->used.put(in_leaf, true);
    index.used.put(number, true);
    index.full.put(number, leaf->used.first_gap(first_id_in(number)) == Set256::kNone);
    note_room(index, bh->blockId, true);
    return true;
}

void unindex_block(pObjectInfo oi, pBlockHeader bh) {
    BlockIndex& index = oi->index;
    const UINT32 number = bh->blockId / 256u;
    IndexLeaf* leaf = index.leaf[number];
    note_room(index, bh->blockId, false);
    store(leaf->block[bh->blockId % 256u], pBlockHeader{nullptr}, std::memory_order_seq_cst);
    leaf->used.put(bh->blockId % 256u, false);
    index.full.put(number, false);
    const bool last = leaf->used.empty();
    if (last) {
        index.used.put(number, false);
        store(index.leaf[number], static_cast<IndexLeaf*>(nullptr), std::memory_order_seq_cst);
    }
    await_readers(oi->readers);
    if (last) end_leaf(oi, leaf);
}

void note_room(BlockIndex& index, UINT32 id, bool has_room) {
    IndexLeaf* leaf = index.leaf[id / 256];
    leaf->room.put(id % 256, has_room);
    index.room.put(id / 256, !leaf->room.empty());
}

}  // namespace osal
