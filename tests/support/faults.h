// Makes calls that osal.so makes fail on purpose, and keeps memory that it frees readable.
#pragma once

#include <atomic>
#include <optional>

#include "support/interpose.h"

namespace osal_test {

// Fails the library's nth heap request (malloc and calloc counted together, the first is 1), and
// with from_then_on every later one. One object at a time.
class HeapFault {
  public:
    explicit HeapFault(int nth, bool from_then_on = false);
    ~HeapFault();
    int requests() const { return requests_; }  // seen so far

  private:
    static void* malloc_hook(std::size_t size);
    static void* calloc_hook(std::size_t count, std::size_t size);
    bool fails();

    const int nth_;
    const bool from_then_on_;
    std::atomic<int> requests_ = 0;
    std::optional<Interpose> malloc_;
    std::optional<Interpose> calloc_;
};

// Counts the blocks that the library has on the heap and that it got since the object was made.
// Goes in front of a HeapFault. One object at a time.
class HeapLedger {
  public:
    HeapLedger();
    ~HeapLedger();
    std::size_t blocks() const;

  private:
    static void* malloc_hook(std::size_t size);
    static void* calloc_hook(std::size_t count, std::size_t size);
    static void free_hook(void* memory);
    std::optional<Interpose> malloc_;
    std::optional<Interpose> calloc_;
    std::optional<Interpose> free_;
};

// For Interpose: the heap, with every byte that it hands out set.
constexpr int kHeapByte = 0xA5;
void* patterned_malloc(std::size_t size);

// Holds back what the library frees until the object goes, so that a test may look at a stale
// record without touching freed memory. One object at a time.
class Quarantine {
  public:
    Quarantine();
    ~Quarantine();

  private:
    static void free_hook(void* memory);
    std::optional<Interpose> free_;
};

}  // namespace osal_test
