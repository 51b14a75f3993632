// Guesses where contexts keep their objects; see the header.
#include "osal/internal/scobject_guess.h"

#include "osal/internal/object.h"

namespace osal {
namespace {

// Takes no memory where nothing was noted yet.
constexpr unsigned kBits = 14;
constinit Guess guesses[1 << kBits] = {};

void fetch(uintptr_t from, uintptr_t size) {
    constexpr uintptr_t kLine = 64;
    for (uintptr_t line = from / kLine * kLine; line < from + size; line += kLine)
        __builtin_prefetch(reinterpret_cast<const void*>(line));
}

// Most often it is noted already.
void note(std::atomic<uintptr_t>& word, const void* address) {
    const auto found = reinterpret_cast<uintptr_t>(address);
    if (word.load(std::memory_order_relaxed) != found) word.store(found, std::memory_order_relaxed);
}

Guess& guess_of(const void* owner, SCHANDLE context) {
    constexpr UINT64 kSpread = 0x9E3779B97F4A7C15;
    UINT64 mixed = reinterpret_cast<uintptr_t>(owner) ^ reinterpret_cast<uintptr_t>(context.hId);
    mixed = (mixed * kSpread >> 32) ^ reinterpret_cast<uintptr_t>(context.hTypeId);
    return guesses[mixed * kSpread >> (64 - kBits)];
}

}  // namespace

Guess& fetch_ahead(const void* owner, SCHANDLE context, UINT32 index) {
    Guess& guess = guess_of(owner, context);
    const uintptr_t manager = guess.manager.load(std::memory_order_relaxed);
    if (manager == 0) return guess;
    fetch(manager, offsetof(ObjectInfo, index));
    fetch(guess.buckets.load(std::memory_order_relaxed) + index * sizeof(LIST_ENTRY), 1);
    fetch(guess.block.load(std::memory_order_relaxed) + offsetof(BlockHeader, oi), 1);
    return guess;
}

void note_place(Guess& guess, const IOM* manager, PVOID object_data) {
    const BlockHeader* block = object_of(object_data)->blockStart;
    note(guess.block, block);
    note(guess.manager, manager);
    // These may be others of a new manager at an old one's address.
    note(guess.buckets, block->oi->pHashListArray);
}

}  // namespace osal
