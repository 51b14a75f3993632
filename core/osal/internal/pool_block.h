// Layout of a pool block, and its guards.
//
//   header (56 bytes) | user area (Size bytes) | trailer (4 bytes, not aligned)
//
// Under AddressSanitizer header and trailer are poisoned while the client owns the block, so that
// an overrun is reported where it happens and not only at the release.
#pragma once

#include <cstddef>
#include <cstdint>

#include "osal/internal/handle.h"
#include "osal/memory.h"

#if defined(__SANITIZE_ADDRESS__)
#define OSAL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSAL_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(OSAL_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

// Header of a block. Link is guarded by the lock of the owner's pool; nothing else changes between
// allocation and release. Link2 is part of the record only.
struct _KX_MEM_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("MEM ");

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    UINT32 Size;
    UINT32 PoolType;
    PIOsal Owner;
};
static_assert(offsetof(_KX_MEM_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_MEM_HANDLE_, Size) == 36);
static_assert(offsetof(_KX_MEM_HANDLE_, PoolType) == 40);
static_assert(offsetof(_KX_MEM_HANDLE_, Owner) == 48);
static_assert(sizeof(_KX_MEM_HANDLE_) == 56);

namespace osal {

using PoolBlock = _KX_MEM_HANDLE_;

struct [[gnu::packed]] PoolTrailer {
    static constexpr UINT32 kSignature = four_cc("MEME");
    UINT32 Signature;
};

inline void* user_area(PoolBlock* block) {
    return block + 1;
}
inline PoolBlock* block_of(void* memory) {
    return static_cast<PoolBlock*>(memory) - 1;
}

// Memory that is not is no block, whatever its bytes look like.
inline bool is_aligned(const PoolBlock* block) {
    return reinterpret_cast<std::uintptr_t>(block) % alignof(PoolBlock) == 0;
}

// In 64 bits: a size near the 32-bit maximum does not wrap.
inline PoolTrailer* trailer_of(PoolBlock* block) {
    return reinterpret_cast<PoolTrailer*>(static_cast<char*>(user_area(block)) +
                                          std::size_t{block->Size});
}

// Opens the entry that a link leads to, which may be the list head instead, for the scope. Links
// are volatile: without AddressSanitizer even looking at one would be paid for.
class OpenLink {
  public:
#if defined(OSAL_ADDRESS_SANITIZER)
    OpenLink(LIST_ENTRY* volatile const& link, PLIST_ENTRY head)
        : entry_(link == head ? nullptr : link) {
        if (entry_ != nullptr) ASAN_UNPOISON_MEMORY_REGION(entry_, sizeof *entry_);
    }
    ~OpenLink() {
        if (entry_ != nullptr) ASAN_POISON_MEMORY_REGION(entry_, sizeof *entry_);
    }

  private:
    PLIST_ENTRY entry_;
#else
    OpenLink(LIST_ENTRY* volatile const&, PLIST_ENTRY) {}
    ~OpenLink() {}
#endif

  public:
    OpenLink(const OpenLink&) = delete;
    OpenLink& operator=(const OpenLink&) = delete;
};

inline void close_guards(PoolBlock* block) {
    ASAN_POISON_MEMORY_REGION(trailer_of(block), sizeof(PoolTrailer));
    ASAN_POISON_MEMORY_REGION(block, sizeof *block);
}

inline void open_guards(PoolBlock* block) {
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof *block);
    ASAN_UNPOISON_MEMORY_REGION(trailer_of(block), sizeof(PoolTrailer));
}

}  // namespace osal
