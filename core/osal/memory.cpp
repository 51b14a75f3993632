// Guarded pool memory: blocks from the C heap between a header and a trailer, each on the list and
// in the counters of the instance that allocated it.
//
// Locks: ProtectionSpinLock of the instance for its non-paged pool, ProtectionMutex for the paged
// one, each through its PoolLock. They guard the list and the counters only; a header is checked
// without them.
#include "osal/memory.h"

#include <syslog.h>

#include <cstdlib>

#include "osal/internal/annotations.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/pool_block.h"
#include "osal/internal/status.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "memory"};

// One of an instance's two pools.
struct Pool {
    Mutex& mutex;
    PoolBias& bias;
    LIST_ENTRY& list;
    UINT32& total;
    UINT32& in_use;
};

Pool pool_of(OsalObjInfo& instance, POOL_TYPE type) {
    if (type == NonPagedPool)
        return {instance.ProtectionSpinLock, instance.non_paged_bias, instance.MemoryNonPagedList,
                instance.MemoryNonPagedTotalAllocated, instance.MemoryNonPagedInUse};
    return {instance.ProtectionMutex, instance.paged_bias, instance.MemoryPagedList,
            instance.MemoryPagedTotalAllocated, instance.MemoryPagedInUse};
}

// The statistics read the counters without the pool's lock.
void add(UINT32& counter, UINT32 amount) {
    store(counter, counter + amount, std::memory_order_relaxed);
}

// Guards are opened and closed under the lock: neighbours on the list open each other's links.
void enlist(const Pool& pool, PoolBlock* block) {
    PoolLock lock(pool.mutex, pool.bias);
    OpenLink last(pool.list.Blink, &pool.list);
    OsalInsertTailList(&pool.list, &block->Link);
    add(pool.total, block->Size);
    add(pool.in_use, block->Size);
    close_guards(block);
}

void delist(const Pool& pool, PoolBlock* block) {
    PoolLock lock(pool.mutex, pool.bias);
    open_guards(block);
    OpenLink next(block->Link.Flink, &pool.list);
    OpenLink previous(block->Link.Blink, &pool.list);
    OsalRemoveEntryList(&block->Link);
    add(pool.in_use, 0u - block->Size);
}

PoolBlock* new_block(OsalObjInfo* instance, UINT32 size, POOL_TYPE pool) {
    if (instance == nullptr || size == 0) return nullptr;
    auto* block = static_cast<PoolBlock*>(
        std::malloc(std::size_t{size} + sizeof(PoolBlock) + sizeof(PoolTrailer)));
    if (block == nullptr) return nullptr;
    block->Signature = PoolBlock::kSignature;
    block->Size = size;
    block->PoolType = pool;
    block->Owner = reinterpret_cast<PIOsal>(instance);
    trailer_of(block)->Signature = PoolTrailer::kSignature;
    return block;
}

PVOID allocate(PIOsal pThis, UINT32 size, POOL_TYPE type) {
    OsalObjInfo* instance = live(pThis);
    PoolBlock* block = new_block(instance, size, type);
    if (block == nullptr) return nullptr;
    enlist(pool_of(*instance, type), block);
    return user_area(block);
}

// What is wrong with a block, or null. Reads guards that AddressSanitizer would report, of blocks
// that were released before as well.
NO_ADDRESS_CHECKS const char* fault_of(PIOsal pThis, PoolBlock* block) {
    if (!is_aligned(block) || block->Signature != PoolBlock::kSignature)
        return "OSAL -KxFreeMemory- Called with invalid memory pointer\n";
    auto* trailer = reinterpret_cast<PoolTrailer*>(reinterpret_cast<char*>(block) + sizeof *block +
                                                   std::size_t{block->Size});
    if (trailer->Signature != PoolTrailer::kSignature)
        return "OSAL -KxFreeMemory- Buffer memory has been overrun\n";
    if (block->Owner != pThis) return "OSAL -KxFreeMemory- Releasing unowned buffer\n";
    return nullptr;
}

NO_ADDRESS_CHECKS POOL_TYPE pool_type(const PoolBlock* block) {
    return block->PoolType;
}

}  // namespace

PVOID KxAllocNonPagedMemory(PIOsal pThis, UINT32 Size) {
    return allocate(pThis, Size, NonPagedPool);
}

PVOID KxAllocPagedMemory(PIOsal pThis, UINT32 Size) {
    return allocate(pThis, Size, PagedPool);
}

KCSTATUS KxFreeMemory(PIOsal pThis, PVOID pMemory) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pMemory == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    PoolBlock* block = block_of(pMemory);
    if (const char* fault = fault_of(pThis, block)) {
        syslog(LOG_USER | LOG_DEBUG, "%s", fault);
        return kModule.fail(KC_CODE_CORRUPT);
    }
    delist(pool_of(*instance, pool_type(block)), block);
    retire_to_heap(block);
    return KC_OK;
}
