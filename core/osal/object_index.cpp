// Index of an instance's blocks; see the header.
#include "osal/internal/object.h"

namespace osal {
namespace {

constexpr UINT32 kFew = BlockIndex::kFew;
constexpr UINT32 kMaxBlockId = 0xFFFF;
constexpr UINT32 kNoId = 0x01;  // in a set of low ids: 0, which no block has

// The lowest ids lie elsewhere, so leaf 0 has so many fewer.
UINT32 first_id_in(UINT32 leaf_number) {
    return leaf_number == 0 ? kFew : 0;
}

void put(UINT32& set, UINT32 number, bool member) {
    const UINT32 bit = 1u << number;
    set = member ? set | bit : set & ~bit;
}

// The lowest member of a set of low ids, or kFew.
UINT32 lowest_of_few(UINT32 set) {
    static_assert(kFew == 32);
    return set != 0 ? static_cast<UINT32>(__builtin_ctz(set)) : kFew;
}

template <class Part>
Part* make_part(pObjectInfo oi) {
    PVOID part = service<&IOsalVtbl::KxAllocPagedMemory>(oi->pIOsal, UINT32{sizeof(Part)});
    service<&IOsalVtbl::KxZeroMemory>(oi->pIOsal, part, UINT32{sizeof(Part)});
    return static_cast<Part*>(part);
}

void free_part(pObjectInfo oi, PVOID part) {
    if (part != nullptr) service<&IOsalVtbl::KxFreeMemory>(oi->pIOsal, part);
}

bool index_far_block(pObjectInfo oi, pBlockHeader bh) {
    IndexRoot* const had_root = oi->index.root;
    IndexRoot* root = had_root != nullptr ? had_root : make_part<IndexRoot>(oi);
    if (root == nullptr) return false;
    const UINT32 number = bh->blockId / 256u;
    const UINT32 in_leaf = bh->blockId % 256u;
    IndexLeaf* leaf = root->leaf[number];
    if (leaf == nullptr) leaf = make_part<IndexLeaf>(oi);
    if (leaf == nullptr) {
        if (had_root == nullptr) free_part(oi, root);
        return false;
    }
    store(leaf->block[in_leaf], bh, std::memory_order_seq_cst);
    store(root->leaf[number], leaf, std::memory_order_seq_cst);
    store(oi->index.root, root, std::memory_order_seq_cst);
    leaf->used.put(in_leaf, true);
    root->used.put(number, true);
    root->full.put(number, leaf->used.first_gap(first_id_in(number)) == Set256::kNone);
    return true;
}

void unindex_far_block(pObjectInfo oi, UINT32 id) {
    IndexRoot* root = oi->index.root;
    IndexLeaf* leaf = root->leaf[id / 256];
    store(leaf->block[id % 256], pBlockHeader{nullptr}, std::memory_order_seq_cst);
    leaf->used.put(id % 256, false);
    root->full.put(id / 256, false);
    const bool last = leaf->used.empty();
    if (last) {
        root->used.put(id / 256, false);
        store(root->leaf[id / 256], static_cast<IndexLeaf*>(nullptr), std::memory_order_seq_cst);
    }
    const bool last_of_all = root->used.empty();
    if (last_of_all)
        store(oi->index.root, static_cast<IndexRoot*>(nullptr), std::memory_order_seq_cst);
    await_readers(oi);
    if (last) free_part(oi, leaf);
    if (last_of_all) free_part(oi, root);
}

}  // namespace

pBlockHeader find_block(const BlockIndex& index, UINT32 id) {
    if (id < kFew) return load(index.few[id], std::memory_order_seq_cst);
    const IndexRoot* root = load(index.root, std::memory_order_seq_cst);
    if (root == nullptr) return nullptr;
    const IndexLeaf* leaf = load(root->leaf[id / 256], std::memory_order_seq_cst);
    return leaf != nullptr ? load(leaf->block[id % 256], std::memory_order_seq_cst) : nullptr;
}

pBlockHeader first_block_from(const BlockIndex& index, UINT32 id) {
    if (id > kMaxBlockId) return nullptr;
    if (id < kFew) {
        const UINT32 near = lowest_of_few(index.few_used & ~0u << id);
        if (near < kFew) return index.few[near];
        id = kFew;
    }
    const IndexRoot* root = index.root;
    if (root == nullptr) return nullptr;
    UINT32 number = id / 256;
    if (const IndexLeaf* leaf = root->leaf[number]) {
        const UINT32 in_leaf = leaf->used.first_member(id % 256);
        if (in_leaf != Set256::kNone) return leaf->block[in_leaf];
    }
    number = root->used.first_member(number + 1);
    if (number == Set256::kNone) return nullptr;
    const IndexLeaf* leaf = root->leaf[number];
    return leaf->block[leaf->used.first_member(0)];
}

pBlockHeader first_block_with_room(const BlockIndex& index) {
    if (index.few_room != 0) return index.few[lowest_of_few(index.few_room)];
    const IndexRoot* root = index.root;
    if (root == nullptr) return nullptr;
    const UINT32 number = root->room.first_member(0);
    if (number == Set256::kNone) return nullptr;
    const IndexLeaf* leaf = root->leaf[number];
    return leaf->block[leaf->room.first_member(0)];
}

UINT16 lowest_unused_id(const BlockIndex& index) {
    const UINT32 near = lowest_of_few(~(index.few_used | kNoId));
    const IndexRoot* root = index.root;
    if (near < kFew || root == nullptr) return static_cast<UINT16>(near);
    const UINT32 number = root->full.first_gap(0);
    if (number == Set256::kNone) return 0;
    const IndexLeaf* leaf = root->leaf[number];
    UINT32 in_leaf = first_id_in(number);
    if (leaf != nullptr) in_leaf = leaf->used.first_gap(in_leaf);
    return static_cast<UINT16>(number * 256 + in_leaf);
}

bool index_block(pObjectInfo oi, pBlockHeader bh) {
    if (bh->blockId < kFew) {
        store(oi->index.few[bh->blockId], bh, std::memory_order_seq_cst);
        put(oi->index.few_used, bh->blockId, true);
    } else if (!index_far_block(oi, bh)) {
        return false;
    }
    note_room(oi->index, bh->blockId, true);
    return true;
}

void unindex_block(pObjectInfo oi, pBlockHeader bh) {
    const UINT32 id = bh->blockId;
    note_room(oi->index, id, false);
    if (id >= kFew) return unindex_far_block(oi, id);
    store(oi->index.few[id], pBlockHeader{nullptr}, std::memory_order_seq_cst);
    put(oi->index.few_used, id, false);
    await_readers(oi);
}

void note_room(BlockIndex& index, UINT32 id, bool has_room) {
    if (id < kFew) return put(index.few_room, id, has_room);
    IndexLeaf* leaf = index.root->leaf[id / 256];
    leaf->room.put(id % 256, has_room);
    index.root->room.put(id / 256, !leaf->room.empty());
}

}  // namespace osal
