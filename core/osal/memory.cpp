// Guarded pool memory: blocks from the C heap between a header and a trailer, each on the list and
// in the counters of the instance that allocated it.
//
// Locks: ProtectionSpinLock of the instance for its non-paged pool, ProtectionMutex for the paged
// one, each with its bias. They guard the list and the counters only; a header is checked
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

// One of an instance's two pools. Which one is a template argument all through: handing its fields
// over in memory would double the cost of an allocation.
struct Pool {
    Mutex& mutex;
    Bias& bias;
    LIST_ENTRY& list;
    UINT32& total;
    UINT32& in_use;
};

template <POOL_TYPE type>
Pool pool_of(OsalObjInfo* instance) {
    if constexpr (type == NonPagedPool)
        return {instance->ProtectionSpinLock, instance->non_paged_bias,
                instance->MemoryNonPagedList, instance->MemoryNonPagedTotalAllocated,
                instance->MemoryNonPagedInUse};
    else
        return {instance->ProtectionMutex, instance->paged_bias, instance->MemoryPagedList,
                instance->MemoryPagedTotalAllocated, instance->MemoryPagedInUse};
}

// The statistics read the counters without the pool's lock. Contract: the total only grows, and
// wraps at 32 bits.
void add(UINT32& counter, UINT32 amount) {
    store(counter, counter + amount, std::memory_order_relaxed);
}

// Guards are opened and closed under the lock: neighbours on the list open each other's links.
void enlist(const Pool& pool, PoolBlock* block) {
    OpenLink last(pool.list.Blink, &pool.list);
    OsalInsertTailList(&pool.list, &block->Link);
    add(pool.total, block->Size);
    add(pool.in_use, block->Size);
    close_guards(block);
}

void delist(const Pool& pool, PoolBlock* block) {
    open_guards(block);
    OpenLink next(block->Link.Flink, &pool.list);
    OpenLink previous(block->Link.Blink, &pool.list);
    OsalUnlinkEntry(&block->Link);
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

template <POOL_TYPE type>
PVOID allocate(PIOsal pThis, UINT32 size) {
    OsalObjInfo* instance = live(pThis);
    PoolBlock* block = new_block(instance, size, type);
    if (block == nullptr) return nullptr;
    const Pool pool = pool_of<type>(instance);
    return with_pool_lock(pool.mutex, pool.bias, [=] {
        enlist(pool_of<type>(instance), block);
        return user_area(block);
    });
}

template <POOL_TYPE type>
KCSTATUS release(OsalObjInfo* instance, PoolBlock* block) {
    const Pool pool = pool_of<type>(instance);
    with_pool_lock(pool.mutex, pool.bias, [=] {
        delist(pool_of<type>(instance), block);
        return KC_OK;
    });
    retire_to_heap(block);
    return KC_OK;
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
    return allocate<NonPagedPool>(pThis, Size);
}

PVOID KxAllocPagedMemory(PIOsal pThis, UINT32 Size) {
    return allocate<PagedPool>(pThis, Size);
}

KCSTATUS KxFreeMemory(PIOsal pThis, PVOID pMemory) {
    OsalObjInfo* instance = live(pThis);
    if (instance == nullptr || pMemory == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    PoolBlock* block = block_of(pMemory);
    if (const char* fault = fault_of(pThis, block)) {
        syslog(LOG_USER | LOG_DEBUG, "%s", fault);
        return kModule.fail(KC_CODE_CORRUPT);
    }
    // Contract: any type but 0 is released as paged.
    return pool_type(block) == NonPagedPool ? release<NonPagedPool>(instance, block)
                                            : release<PagedPool>(instance, block);
}
