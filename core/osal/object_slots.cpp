// Blocks and slots of the object store: where objects live, and the locks made for them.
//
// Locks: the caller of every function holds the instance lock exclusively.
#include "osal/internal/object.h"

using namespace osal;

namespace {

constexpr UINT32 kMutexLevel = 1;  // what KxAllocMutex is told; it means nothing to it

// Bytes of a block, or 0 if that is more than the pools take.
UINT32 block_size(pObjectInfo oi) {
    const UINT64 size = sizeof(BlockHeader) + oi->objectsPerBlock * oi->stride;
    return size <= UINT32{0} - UINT32{1} ? static_cast<UINT32>(size) : 0;
}

// A pool without a name has no memory. Nor has a block without slots any use.
PVOID block_memory(pObjectInfo oi) {
    const UINT32 size = block_size(oi);
    if (size == 0 || oi->objectsPerBlock == 0) return nullptr;
    switch (oi->poolType) {
        case NonPagedPool:
            return service<&IOsalVtbl::KxAllocNonPagedMemory>(oi->pIOsal, size);
        case PagedPool:
            return service<&IOsalVtbl::KxAllocPagedMemory>(oi->pIOsal, size);
        default:
            return nullptr;
    }
}

// A new slot's data is not cleared: that is up to whoever takes it.
void make_slot(pBlockHeader bh, pObject ob, UINT32 number, UINT8 flags) {
    service<&IOsalVtbl::KxInsertTailList>(bh->oi->pIOsal, &bh->freeList, &ob->objectLink);
    ob->handleId = bh->blockId;
    ob->handleInstance = 1;
    ob->handleIndex = static_cast<UCHAR>(number);
    ob->blockStart = bh;
    ob->protect = {};
    ob->flags = flags;
    ob->marks = 0;
    ob->generation = 1;
    ob->unused = 0;
    ob->instanceCount = 0;
}

void link_block(pObjectInfo oi, pBlockHeader bh, PLIST_ENTRY before) {
    if (before == nullptr)
        service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, &oi->blockList, &bh->blockLink);
    else
        service<&IOsalVtbl::KxInsertEntryBefore>(oi->pIOsal, &oi->blockList, &bh->blockLink,
                                                 before);
}

pBlockHeader new_block(pObjectInfo oi) {
    const UINT16 id = lowest_unused_id(oi->index);
    pBlockHeader next = first_block_from(oi->index, id);
    return AllocBlock(oi, id, next != nullptr ? &next->blockLink : nullptr, OBJ_FLAG_FREE);
}

}  // namespace

pBlockHeader AllocBlock(pObjectInfo oi, UINT16 blockId, PLIST_ENTRY bhBefore, UINT32 flags) {
    if (blockId == 0) return nullptr;
    auto* bh = static_cast<pBlockHeader>(block_memory(oi));
    if (bh == nullptr) return nullptr;
    service<&IOsalVtbl::KxInitializeListHead>(oi->pIOsal, &bh->freeList);
    bh->blockId = blockId;
    bh->freeObjectCount = static_cast<UINT16>(oi->objectsPerBlock);
    bh->oi = oi;
    for (UINT32 number = 1; number <= oi->objectsPerBlock; ++number)
        make_slot(bh, slot_of(oi, bh, number), number, static_cast<UINT8>(flags));
    if (!index_block(oi, bh)) {
        service<&IOsalVtbl::KxFreeMemory>(oi->pIOsal, PVOID{bh});
        return nullptr;
    }
    oi->statsAllocated += oi->objectsPerBlock;
    link_block(oi, bh, bhBefore);
    return bh;
}

BOOLEAN FreeBlock(pObjectInfo oi, pBlockHeader bh) {
    PIOsal osal = oi->pIOsal;
    oi->statsAllocated -= oi->objectsPerBlock;
    service<&IOsalVtbl::KxRemoveEntryList>(osal, &bh->blockLink);
    unindex_block(oi, bh);
    service<&IOsalVtbl::KxFreeMemory>(osal, PVOID{bh});
    if (!service<&IOsalVtbl::KxIsListEmpty>(osal, &oi->blockList) || !running_down(oi))
        return FALSE;
    InstanceDeallocate(oi);
    return TRUE;
}

namespace osal {

UINT32 make_object_lock(pObjectInfo oi, pObject ob) {
    HANDLE handle = nullptr;
    KCSTATUS status;
    switch (oi->accessLevel) {
        case KX_OBJECT_LEVEL_LOCK:
            status = service<&IOsalVtbl::KxAllocReadWriteLock>(oi->pIOsal, &handle);
            break;
        case KX_OBJECT_LEVEL_SPIN:
            status = service<&IOsalVtbl::KxAllocSpinLock>(oi->pIOsal, &handle);
            break;
        case KX_OBJECT_LEVEL_MUTEX:
            status = service<&IOsalVtbl::KxAllocMutex>(oi->pIOsal, kMutexLevel, &handle);
            break;
        default:
            return KC_CODE_INVALID_ARGUMENT;
    }
    if (is_error(status)) return KC_CODE_NO_RESOURCES;
    store(ob->protect.handle, handle);
    return 0;
}

void destroy_object_lock(pObjectInfo oi, pObject ob) {
    if (ob->protect.handle == nullptr) return;
    destroy_lock(oi, oi->accessLevel, ob->protect.handle);
    store(ob->protect.handle, HANDLE{nullptr});
}

pObject choose_slot(pObjectInfo oi) {
    pBlockHeader bh = first_block_with_room(oi->index);
    if (bh == nullptr) bh = new_block(oi);
    return bh != nullptr ? linked_object(bh->freeList.Flink) : nullptr;
}

void take_slot(pObjectInfo oi, pObject ob) {
    pBlockHeader bh = ob->blockStart;
    service<&IOsalVtbl::KxRemoveEntryList>(oi->pIOsal, &ob->objectLink);
    if (--bh->freeObjectCount == 0) note_room(oi->index, bh->blockId, false);
}

void return_slot(pObjectInfo oi, pObject ob) {
    pBlockHeader bh = ob->blockStart;
    service<&IOsalVtbl::KxInsertTailList>(oi->pIOsal, &bh->freeList, &ob->objectLink);
    if (bh->freeObjectCount++ == 0) note_room(oi->index, bh->blockId, true);
}

UINT32 occupy_slot(pObjectInfo oi, pObject ob) {
    take_slot(oi, ob);
    if (const UINT32 code = make_object_lock(oi, ob); code != 0) {
        return_slot(oi, ob);
        return code;
    }
    const auto size = static_cast<UINT32>(oi->objectSize - sizeof(Object));
    service<&IOsalVtbl::KxZeroMemory>(oi->pIOsal, data_of(ob), size);
    return 0;
}

}  // namespace osal
