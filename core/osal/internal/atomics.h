// Shared words that are read or changed without their lock.
//
// Such words stay plain integers in their records, whose layout is fixed, and are reached through
// these helpers only.
#pragma once

#include <atomic>

#include "osal/types.h"

namespace osal {

template <class Word>
Word load(const Word& word, std::memory_order order = std::memory_order_acquire) {
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load(order);
}

template <class Word>
void store(Word& word, Word value, std::memory_order order = std::memory_order_release) {
    std::atomic_ref<Word>(word).store(value, order);
}

// Sequentially consistent; both return the new value.
template <class Word>
Word increment(Word& word) {
    return std::atomic_ref<Word>(word).fetch_add(1) + 1;
}
template <class Word>
Word decrement(Word& word) {
    return std::atomic_ref<Word>(word).fetch_sub(1) - 1;
}

}  // namespace osal
