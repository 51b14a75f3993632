// Pool memory through the C++ face.
#include "osal/memory.hpp"

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/face_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

using Memory = FaceTest;

constexpr std::size_t kMost = std::numeric_limits<UINT32>::max();

TEST_F(Memory, EachKindIsCountedInItsPool) {
    kx::Pool paged(service);
    kx::Pool nonpaged(service, kx::PoolKind::nonpaged);
    void* one = paged.allocate(100, 8);
    void* other = nonpaged.allocate(30, 1);
    EXPECT_EQ(counters().MemoryPagedInUse, 100u);
    EXPECT_EQ(counters().MemoryNonPagedInUse, 30u);
    paged.deallocate(one, 100, 8);
    nonpaged.deallocate(other, 30, 1);
}

TEST_F(Memory, ContainersLiveInThePool) {
    kx::Pool pool(service);
    {
        std::pmr::map<int, std::pmr::string> words(&pool);
        for (int i = 0; i < 100; ++i)
            words.emplace(i, std::string(static_cast<std::size_t>(i), 'x'));
        EXPECT_GT(counters().MemoryPagedInUse, 100u * 100u / 2u);
        EXPECT_EQ(words.at(99).get_allocator().resource(), &pool);
        EXPECT_EQ(words.at(99).size(), 99u);
    }
    EXPECT_EQ(counters().MemoryPagedInUse, 0u);
}

TEST_F(Memory, ObjectsAreMadeAndDeleted) {
    kx::Pool pool(service);
    std::pmr::polymorphic_allocator<> allocator(&pool);
    auto* text = allocator.new_object<std::string>(50, 'x');
    EXPECT_EQ(counters().MemoryPagedInUse, sizeof(std::string));
    allocator.delete_object(text);
}

TEST_F(Memory, EveryAlignmentIsKept) {
    kx::Pool pool(service);
    for (std::size_t alignment = 1; alignment <= 8192; alignment *= 2)
        for (const std::size_t size : {0u, 1u, 7u, 8u, 9u, 100u, 4096u}) {
            void* memory = pool.allocate(size, alignment);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignment, 0u);
            memset(memory, 0xFF, size);
            pool.deallocate(memory, size, alignment);
            EXPECT_EQ(counters().MemoryPagedInUse, 0u) << alignment << " " << size;
        }
}

TEST_F(Memory, OnlyLargeAlignmentsCostMore) {
    kx::Pool pool(service);
    const auto cost = [&](std::size_t size, std::size_t alignment) {
        void* memory = pool.allocate(size, alignment);
        const UINT32 used = counters().MemoryPagedInUse;
        pool.deallocate(memory, size, alignment);
        return used;
    };
    EXPECT_EQ(cost(40, 8), 40u);
    EXPECT_EQ(cost(40, 16), 56u);
    EXPECT_EQ(cost(40, 64), 104u);
    EXPECT_EQ(cost(0, 1), 1u);
}

TEST_F(Memory, EmptyAllocationsAreDistinct) {
    kx::Pool pool(service);
    void* one = pool.allocate(0);
    void* other = pool.allocate(0);
    EXPECT_NE(one, other);
    pool.deallocate(one, 0);
    pool.deallocate(other, 0);
}

TEST_F(Memory, WhatExceeds32BitsIsThrown) {
    const volatile std::size_t all = SIZE_MAX;  // which the compiler is not to see through
    kx::Pool pool(service);
    const HeapLedger ledger;
    EXPECT_THROW((void)pool.allocate(kMost + 1, 8), std::bad_alloc);
    EXPECT_THROW((void)pool.allocate(kMost - 15, 16), std::bad_alloc);
    EXPECT_THROW((void)pool.allocate(all, 8), std::bad_alloc);
    EXPECT_THROW((void)pool.allocate(all, 16), std::bad_alloc);
    EXPECT_THROW((void)pool.allocate(all - 15, 16), std::bad_alloc);
    EXPECT_EQ(ledger.blocks(), 0u);
}

TEST_F(Memory, AnExhaustedHeapIsThrown) {
    kx::Pool pool(service);
    kx::Pool nonpaged(service, kx::PoolKind::nonpaged);
    const HeapFault fault(1, true);
    EXPECT_THROW((void)pool.allocate(1), std::bad_alloc);
    EXPECT_THROW((void)nonpaged.allocate(1), std::bad_alloc);
    EXPECT_EQ(fault.requests(), 2);
}

TEST_F(Memory, ResourcesAreEqualInTheSamePool) {
    kx::Pool pool(service);
    kx::Pool same(service);
    kx::Pool other_kind(service, kx::PoolKind::nonpaged);
    const kx::Service another("another");
    kx::Pool other_instance(another);
    EXPECT_TRUE(pool.is_equal(same));
    EXPECT_FALSE(pool.is_equal(other_kind));
    EXPECT_FALSE(pool.is_equal(other_instance));
    EXPECT_FALSE(pool.is_equal(*std::pmr::new_delete_resource()));
    same.deallocate(pool.allocate(10), 10);
    EXPECT_EQ(counters().MemoryPagedInUse, 0u);
}

TEST_F(Memory, ThePoolKeepsItsInstance) {
    kx::Service own("short-lived");
    kx::Pool pool(own);
    void* memory = pool.allocate(10);
    own = service;
    pool.deallocate(memory, 10);
    void* more = pool.allocate(10);
    EXPECT_EQ(counters().MemoryPagedInUse, 0u) << "allocated elsewhere";
    pool.deallocate(more, 10);
}

TEST_F(Memory, ABlockThatIsNotReleasedStaysCounted) {
    kx::Pool pool(service);
    kx::Pool other(kx::Service("another"));
    void* memory = pool.allocate(10);
    other.deallocate(memory, 10);  // refused
    EXPECT_EQ(counters().MemoryPagedInUse, 10u + 16u);
    pool.deallocate(memory, 10);
}

TEST_F(Memory, SeveralThreadsShareAPool) {
    kx::Pool pool(service);
    const auto fill = [&] {
        for (int round = 0; round < 50; ++round) {
            std::pmr::vector<int> numbers(&pool);
            for (int i = 0; i < 100; ++i)
                numbers.push_back(i);
            EXPECT_EQ(numbers.back(), 99);
        }
    };
    std::thread one(fill), other(fill);
    one.join();
    other.join();
}

}  // namespace
}  // namespace osal_test
