// Pool memory as a resource for the containers of std::pmr. See osal/memory.h for the pools.
//
//     kx::Pool pool(service);
//     std::pmr::vector<Entry> entries(&pool);
//     std::pmr::polymorphic_allocator<> allocator(&pool);
//     Node* node = allocator.new_object<Node>();  // and delete_object
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory_resource>
#include <new>

#include "osal/interface.hpp"
#include "osal/memory.h"

namespace kx {

enum class PoolKind : POOL_TYPE { nonpaged = NonPagedPool, paged = PagedPool };

// Allocates guarded blocks from a pool of an instance. The pools belong to the instance, not to
// this: resources of one instance and kind are equal, and one gives back what another allocated.
// Everything has to be given back before the last of them goes. Safe on any thread.
//
// An allocation of size 0 takes one byte. Alignments above 8 bytes cost as many more bytes; such a
// block's overrun is noticed only past what the alignment left over, its underrun never. Throws
// std::bad_alloc if memory is exhausted, or if block and alignment exceed 32 bits.
//
// A block that the library refuses to release, since it was overrun or is none of its own, is left
// as it is: it stays counted as in use, and the library's log says why. That is not thrown:
// deallocations happen in destructors.
class Pool final : public std::pmr::memory_resource {
  public:
    explicit Pool(const Service& service, PoolKind kind = PoolKind::paged)
        : service_(service), kind_(kind) {}
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

  private:
    static constexpr std::size_t kAlignment = 8;  // of every block

    void* take(std::size_t bytes) {
        if (bytes > std::numeric_limits<UINT32>::max()) throw std::bad_alloc();
        const auto size = static_cast<UINT32>(bytes);
        void* block = kind_ == PoolKind::paged
                          ? service_.call<&IOsalVtbl::KxAllocPagedMemory>(size)
                          : service_.call<&IOsalVtbl::KxAllocNonPagedMemory>(size);
        if (block == nullptr) throw std::bad_alloc();
        return block;
    }

    // A block that has to be aligned more than it is bears its own address before what is handed
    // out.
    static void*& block_before(void* memory) { return static_cast<void**>(memory)[-1]; }

    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        if (bytes == 0) bytes = 1;
        if (alignment <= kAlignment) return take(bytes);
        if (bytes > std::numeric_limits<std::size_t>::max() - alignment) throw std::bad_alloc();
        void* block = take(bytes + alignment);
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        void* memory = static_cast<std::byte*>(block) + (alignment - address % alignment);
        block_before(memory) = block;
        return memory;
    }

    void do_deallocate(void* memory, std::size_t, std::size_t alignment) override {
        service_.call<&IOsalVtbl::KxFreeMemory>(alignment <= kAlignment ? memory
                                                                        : block_before(memory));
    }

    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        const auto* pool = dynamic_cast<const Pool*>(&other);
        return pool != nullptr && pool->service_.get() == service_.get() && pool->kind_ == kind_;
    }

    const Service service_;
    const PoolKind kind_;
};

}  // namespace kx
