#include "support/faults.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace osal_test {
namespace {

HeapFault* current_fault = nullptr;

std::mutex held_mutex;
std::vector<void*> held;

}  // namespace

HeapFault::HeapFault(int nth, bool from_then_on) : nth_(nth), from_then_on_(from_then_on) {
    current_fault = this;
    malloc_.emplace("osal.so", "malloc", &HeapFault::malloc_hook);
    calloc_.emplace("osal.so", "calloc", &HeapFault::calloc_hook);
}

HeapFault::~HeapFault() {
    calloc_.reset();
    malloc_.reset();
    current_fault = nullptr;
}

bool HeapFault::fails() {
    const int request = ++requests_;
    return request == nth_ || (from_then_on_ && request > nth_);
}

void* HeapFault::malloc_hook(std::size_t size) {
    return current_fault->fails() ? nullptr : std::malloc(size);
}

void* HeapFault::calloc_hook(std::size_t count, std::size_t size) {
    return current_fault->fails() ? nullptr : std::calloc(count, size);
}

Quarantine::Quarantine() {
    free_.emplace("osal.so", "free", &Quarantine::free_hook);
}

Quarantine::~Quarantine() {
    free_.reset();
    for (void* memory : held)
        std::free(memory);
    held.clear();
}

void Quarantine::free_hook(void* memory) {
    std::lock_guard lock(held_mutex);
    held.push_back(memory);
}

}  // namespace osal_test
