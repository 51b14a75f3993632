// Guarded pool memory, by export and by slot and for both pools.
#include "osal/memory.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <thread>
#include <tuple>
#include <vector>

#include "osal/internal/annotations.h"
#include "osal/internal/pool_block.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

using osal::PoolBlock;

constexpr char kInvalidPointer[] = "OSAL -KxFreeMemory- Called with invalid memory pointer\n";
constexpr char kOverrun[] = "OSAL -KxFreeMemory- Buffer memory has been overrun\n";
constexpr char kUnowned[] = "OSAL -KxFreeMemory- Releasing unowned buffer\n";

// Writes where a faulty client would, past the guards that AddressSanitizer watches.
NO_ADDRESS_CHECKS void poke(void* memory, std::size_t offset, UCHAR value) {
    static_cast<volatile UCHAR*>(memory)[offset] = value;
}
NO_ADDRESS_CHECKS UCHAR peek(const void* memory, std::ptrdiff_t offset) {
    return static_cast<const volatile UCHAR*>(memory)[offset];
}

UINT64 peek_number(const void* memory, std::ptrdiff_t offset, int bytes) {
    UINT64 value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | peek(memory, offset + i);
    return value;
}

// What an instance says about one of its pools.
struct Account {
    std::size_t blocks;
    UINT32 in_use, total;
    bool operator==(const Account&) const = default;
};
void PrintTo(const Account& account, std::ostream* out) {
    *out << account.blocks << " blocks, " << account.in_use << " of " << account.total << " bytes";
}

using Parameter = std::tuple<Way, POOL_TYPE>;

class Memory : public ServiceTest, public testing::WithParamInterface<Parameter> {
  protected:
    Way way() const { return std::get<0>(GetParam()); }
    POOL_TYPE pool() const { return std::get<1>(GetParam()); }

    void* alloc(PIOsal instance, UINT32 size) {
        const bool by_export = way() == Way::kExport;
        if (pool() == PagedPool)
            return (by_export ? &KxAllocPagedMemory : slots->KxAllocPagedMemory)(instance, size);
        return (by_export ? &KxAllocNonPagedMemory : slots->KxAllocNonPagedMemory)(instance, size);
    }
    KCSTATUS free_memory(PIOsal instance, void* memory) {
        return (way() == Way::kExport ? &KxFreeMemory : slots->KxFreeMemory)(instance, memory);
    }

    static Account account(PIOsal instance, POOL_TYPE type) {
        const OsalObjInfo* info = osal::instance_of(instance);
        if (type == PagedPool)
            return {length_of(info->MemoryPagedList), info->MemoryPagedInUse,
                    info->MemoryPagedTotalAllocated};
        return {length_of(info->MemoryNonPagedList), info->MemoryNonPagedInUse,
                info->MemoryNonPagedTotalAllocated};
    }
    Account account() { return account(osal, pool()); }

    // A release that finds a fault: status, line and trace, and nothing changed.
    void expect_refused(PIOsal instance, void* memory, const char* line) {
        const Account before = account();
        LogRecorder log;
        StatusRecorder statuses;
        EXPECT_EQ(free_memory(instance, memory), 0xC7F11001u);
        statuses.expect_one(0x1001, "memory", "KxFreeMemory");
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_USER | LOG_DEBUG);
        EXPECT_EQ(lines[0].text, line);
        EXPECT_EQ(account(), before);
    }
};

std::string name_of(const testing::TestParamInfo<Parameter>& info) {
    return std::string(std::get<0>(info.param) == Way::kExport ? "Export" : "Slot") +
           (std::get<1>(info.param) == PagedPool ? "Paged" : "NonPaged");
}

INSTANTIATE_TEST_SUITE_P(By, Memory,
                         testing::Combine(testing::Values(Way::kExport, Way::kSlot),
                                          testing::Values(POOL_TYPE{NonPagedPool},
                                                          POOL_TYPE{PagedPool})),
                         name_of);

// What concerns the paged pool only.
class PagedMemory : public Memory {};
INSTANTIATE_TEST_SUITE_P(By, PagedMemory,
                         testing::Combine(testing::Values(Way::kExport, Way::kSlot),
                                          testing::Values(POOL_TYPE{PagedPool})),
                         name_of);

// --- allocation

TEST_P(Memory, ASizeOfZeroGivesNull) {
    EXPECT_EQ(alloc(osal, 0), nullptr);
    EXPECT_EQ(account(), (Account{0, 0, 0}));
}

TEST_P(Memory, ANullInstanceGivesNull) {
    EXPECT_EQ(alloc(nullptr, 8), nullptr);
}

TEST_P(Memory, AnInstanceOfAWrongSignatureGivesNull) {
    record->Signature ^= 1;
    EXPECT_EQ(alloc(osal, 8), nullptr);
    record->Signature ^= 1;
    EXPECT_EQ(account(), (Account{0, 0, 0}));
}

TEST_P(Memory, AFailedAllocationIsSilentAndCountsNothing) {
    LogRecorder log;
    StatusRecorder statuses;
    {
        HeapFault fault(1);
        EXPECT_EQ(alloc(osal, 8), nullptr);
        EXPECT_EQ(fault.requests(), 1);
    }
    EXPECT_EQ(alloc(osal, 0), nullptr);
    EXPECT_EQ(alloc(nullptr, 8), nullptr);
    EXPECT_TRUE(log.take().empty());
    statuses.expect_none();
    EXPECT_EQ(account(), (Account{0, 0, 0}));
}

std::vector<std::size_t> sizes_asked;
bool heap_answers;
void* stand_in_malloc(std::size_t size) {
    sizes_asked.push_back(size);
    return heap_answers ? malloc(size) : nullptr;
}

TEST_P(Memory, ABlockIsOneHeapRequestOfItsSizeAnd60Bytes) {
    Interpose hook("osal.so", "malloc", &stand_in_malloc);
    heap_answers = true;
    void* block = alloc(osal, 100);
    EXPECT_EQ(sizes_asked, std::vector<std::size_t>{160});
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, SizesNearTheMaximumDoNotWrap) {
    Interpose hook("osal.so", "malloc", &stand_in_malloc);
    heap_answers = false;
    for (UINT32 size : {0xFFFFFFFFu, 0xFFFFFFC4u, 0xFFFFFFC3u, 0x80000000u}) {
        sizes_asked.clear();
        EXPECT_EQ(alloc(osal, size), nullptr);
        EXPECT_EQ(sizes_asked, std::vector<std::size_t>{std::size_t{size} + 60});
    }
    EXPECT_EQ(account(), (Account{0, 0, 0}));
}

TEST_P(Memory, ABlockIsGuardedByHeaderAndTrailer) {
    for (UINT32 size : {1u, 2u, 3u, 4u, 5u, 8u, 100u, 4097u}) {
        void* block = alloc(osal, size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(peek_number(block, -24, 4), 0x204D454Du);
        EXPECT_EQ(peek_number(block, -20, 4), size);
        EXPECT_EQ(peek_number(block, -16, 4), pool());
        EXPECT_EQ(peek_number(block, -8, 8), reinterpret_cast<UINT64>(osal));
        EXPECT_EQ(peek_number(block, static_cast<std::ptrdiff_t>(size), 4), 0x454D454Du);
        memset(block, 0xFF, size);
        EXPECT_EQ(free_memory(osal, block), KC_OK);
    }
}

TEST_P(Memory, BlocksAreListedInTheOrderOfAllocation) {
    void* blocks[3];
    for (void*& block : blocks)
        block = alloc(osal, 8);
    const LIST_ENTRY& list =
        pool() == PagedPool ? record->MemoryPagedList : record->MemoryNonPagedList;
    UINT64 link = reinterpret_cast<UINT64>(list.Flink);
    for (void* block : blocks) {
        EXPECT_EQ(link, reinterpret_cast<UINT64>(block) - 56);
        link = peek_number(block, -56, 8);
    }
    EXPECT_EQ(link, reinterpret_cast<UINT64>(&list));
    for (void* block : blocks)
        EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, BlocksCountForTheirInstanceAndPoolOnly) {
    PIOsal other = new_instance();
    const POOL_TYPE other_pool = pool() == PagedPool ? NonPagedPool : PagedPool;
    void* block = alloc(osal, 8);
    EXPECT_EQ(account(), (Account{1, 8, 8}));
    EXPECT_EQ(account(osal, other_pool), (Account{0, 0, 0}));
    EXPECT_EQ(account(other, pool()), (Account{0, 0, 0}));
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    OsalReleaseReference(other);
}

// --- release

TEST_P(Memory, AReleaseLowersInUseAndKeepsTotal) {
    void* small = alloc(osal, 1);
    void* large = alloc(osal, 100);
    EXPECT_EQ(account(), (Account{2, 101, 101}));
    LogRecorder log;
    StatusRecorder statuses;
    EXPECT_EQ(free_memory(osal, large), KC_OK);
    EXPECT_EQ(account(), (Account{1, 1, 101}));
    EXPECT_EQ(free_memory(osal, small), KC_OK);
    EXPECT_EQ(account(), (Account{0, 0, 101}));
    EXPECT_TRUE(log.take().empty());
    statuses.expect_none();
}

TEST_P(Memory, BlocksAreReleasedInAnyOrder) {
    for (const auto& order : {std::vector{0, 1, 2}, {2, 1, 0}, {1, 0, 2}, {1, 2, 0}}) {
        void* blocks[3];
        for (void*& block : blocks)
            block = alloc(osal, 7);
        std::size_t left = 3;
        for (int i : order) {
            EXPECT_EQ(free_memory(osal, blocks[i]), KC_OK);
            EXPECT_EQ(account().blocks, --left);
        }
    }
}

TEST_P(Memory, AReleasedHeaderIsZero) {
    Quarantine keep;
    void* block = alloc(osal, 8);
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    for (std::ptrdiff_t at = -56; at < 0; ++at)
        EXPECT_EQ(peek(block, at), 0);
    EXPECT_EQ(peek_number(block, 8, 4), 0x454D454Du) << "the trailer stays";
}

TEST_P(Memory, ANullPointerIsAnInvalidArgument) {
    StatusRecorder statuses;
    LogRecorder log;
    EXPECT_EQ(free_memory(osal, nullptr), 0xC7F10004u);
    statuses.expect_one(4, "memory", "KxFreeMemory");
    EXPECT_TRUE(log.take().empty());
}

TEST_P(Memory, ReleaseWithoutAnInstanceIsAnInvalidArgument) {
    void* block = alloc(osal, 8);
    StatusRecorder statuses;
    EXPECT_EQ(free_memory(nullptr, block), 0xC7F10004u);
    statuses.expect_one(4, "memory", "KxFreeMemory");
    record->Signature ^= 1;
    EXPECT_EQ(free_memory(osal, block), 0xC7F10004u);
    statuses.expect_one(4, "memory", "KxFreeMemory");
    record->Signature ^= 1;
    EXPECT_EQ(account(), (Account{1, 8, 8}));
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, AForeignPointerIsAnInvalidMemoryPointer) {
    alignas(16) char foreign[128] = {};
    expect_refused(osal, foreign + 64, kInvalidPointer);
}

TEST_P(Memory, APointerThatIsNotAlignedIsAnInvalidMemoryPointer) {
    char* block = static_cast<char*>(alloc(osal, 16));
    for (int shift = 1; shift < 8; ++shift)
        expect_refused(osal, block + shift, kInvalidPointer);
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, APointerIntoABlockIsAnInvalidMemoryPointer) {
    char* block = static_cast<char*>(alloc(osal, 200));
    memset(block, 0, 200);
    expect_refused(osal, block + 64, kInvalidPointer);
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, ASecondReleaseIsAnInvalidMemoryPointer) {
    Quarantine keep;
    void* block = alloc(osal, 8);
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    expect_refused(osal, block, kInvalidPointer);
}

TEST_P(Memory, AnOverrunOfUpToFourBytesIsFoundAndKeepsTheBlock) {
    for (UINT32 size : {1u, 8u, 13u})
        for (UINT32 overrun = 1; overrun <= 4; ++overrun) {
            void* block = alloc(osal, size);
            for (UINT32 i = 0; i < overrun; ++i)
                poke(block, size + i, '!');
            expect_refused(osal, block, kOverrun);
            EXPECT_EQ(account().blocks, 1u);
            for (UINT32 i = 0; i < 4; ++i)
                poke(block, size + i, static_cast<UCHAR>("MEME"[i]));
            EXPECT_EQ(free_memory(osal, block), KC_OK);
        }
}

TEST_P(Memory, ADamagedHeaderIsAnInvalidMemoryPointer) {
    void* block = alloc(osal, 8);
    poke(static_cast<char*>(block) - 24, 0, 'X');
    expect_refused(osal, block, kInvalidPointer);
    poke(static_cast<char*>(block) - 24, 0, 'M');
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

TEST_P(Memory, ABlockOfAnotherInstanceIsUnowned) {
    PIOsal other = new_instance();
    void* block = alloc(osal, 8);
    expect_refused(other, block, kUnowned);
    EXPECT_EQ(account(other, pool()), (Account{0, 0, 0}));
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    OsalReleaseReference(other);
}

// Signature, trailer, owner: the first fault is the one that is named.
TEST_P(Memory, FaultsAreLookedForInOrder) {
    PIOsal other = new_instance();
    void* block = alloc(osal, 8);
    poke(block, 8, '!');
    expect_refused(other, block, kOverrun);
    poke(static_cast<char*>(block) - 24, 0, 'X');
    expect_refused(other, block, kInvalidPointer);
    poke(static_cast<char*>(block) - 24, 0, 'M');
    poke(block, 8, 'M');
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    OsalReleaseReference(other);
}

TEST_P(PagedMemory, AnyPoolTypeButZeroIsReleasedAsPaged) {
    void* block = alloc(osal, 8);
    poke(static_cast<char*>(block) - 16, 0, 7);
    EXPECT_EQ(free_memory(osal, block), KC_OK);
    EXPECT_EQ(account(), (Account{0, 0, 8}));
}

TEST_P(Memory, TheTotalOnlyGrowsAndWrapsAt32Bits) {
    UINT32& total = pool() == PagedPool ? record->MemoryPagedTotalAllocated
                                        : record->MemoryNonPagedTotalAllocated;
    total = 0xFFFFFFF0u;
    void* block = alloc(osal, 0x20);
    EXPECT_EQ(account(), (Account{1, 0x20, 0x10}));
    EXPECT_EQ(free_memory(osal, block), KC_OK);
}

// --- threads

// Allocates and releases in rounds, keeping a few blocks at a time, each filled with its own byte.
void churn(auto alloc, auto free_memory, unsigned seed) {
    constexpr int kRounds = 2000;
    unsigned char* kept[8] = {};
    UINT32 sizes[8] = {};
    for (int round = 0; round < kRounds; ++round) {
        seed = seed * 1103515245 + 12345;
        const unsigned at = (seed >> 16) % 8;
        if (kept[at] != nullptr) {
            EXPECT_EQ(kept[at][0], at);
            EXPECT_EQ(kept[at][sizes[at] - 1], at);
            EXPECT_EQ(free_memory(kept[at]), KC_OK);
            kept[at] = nullptr;
        } else {
            sizes[at] = 1 + (seed >> 20) % 200;
            kept[at] = static_cast<unsigned char*>(alloc(sizes[at]));
            memset(kept[at], static_cast<int>(at), sizes[at]);
        }
    }
    for (unsigned char* block : kept) {
        if (block == nullptr) continue;
        EXPECT_EQ(free_memory(block), KC_OK);
    }
}

TEST_P(Memory, OneInstanceServesManyThreads) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            churn([this](UINT32 size) { return alloc(osal, size); },
                  [this](void* block) { return free_memory(osal, block); }, i);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(account().blocks, 0u);
    EXPECT_EQ(account().in_use, 0u);
    EXPECT_NE(account().total, 0u);
}

TEST_P(Memory, ManyInstancesServeAThreadEach) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            PIOsal own = new_instance();
            churn([=, this](UINT32 size) { return alloc(own, size); },
                  [=, this](void* block) { return free_memory(own, block); }, i);
            EXPECT_EQ(account(own, pool()).blocks, 0u);
            EXPECT_EQ(account(own, pool()).in_use, 0u);
            OsalReleaseReference(own);
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST_P(Memory, BlocksMayBeReleasedByAnotherThread) {
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i)
        blocks.push_back(alloc(osal, 24));
    std::thread([&] {
        for (void* block : blocks)
            EXPECT_EQ(free_memory(osal, block), KC_OK);
    }).join();
    EXPECT_EQ(account(), (Account{0, 0, 2400}));
}

// --- under AddressSanitizer

#if defined(OSAL_ADDRESS_SANITIZER)
using MemoryDeathTest = Memory;
INSTANTIATE_TEST_SUITE_P(By, MemoryDeathTest,
                         testing::Combine(testing::Values(Way::kExport),
                                          testing::Values(POOL_TYPE{NonPagedPool},
                                                          POOL_TYPE{PagedPool})));

TEST_P(MemoryDeathTest, AnOverrunIsReportedWhereItHappens) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (UINT32 size = 1; size <= 17; ++size) {
        volatile char* block = static_cast<char*>(alloc(osal, size));
        block[size - 1] = 1;
        EXPECT_DEATH(block[size] = 1, "use-after-poison|heap-buffer-overflow") << size;
        EXPECT_EQ(free_memory(osal, const_cast<char*>(block)), KC_OK);
    }
}

TEST_P(MemoryDeathTest, AnUnderrunIsReportedWhereItHappens) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    volatile char* block = static_cast<char*>(alloc(osal, 8));
    EXPECT_DEATH(block[-1] = 1, "use-after-poison");
    // A neighbour that comes and goes leaves the guards closed.
    EXPECT_EQ(free_memory(osal, alloc(osal, 8)), KC_OK);
    EXPECT_DEATH(block[-56] = 1, "use-after-poison");
    EXPECT_EQ(free_memory(osal, const_cast<char*>(block)), KC_OK);
}
#endif

}  // namespace
}  // namespace osal_test
