#include "support/faults.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

namespace osal_test {
namespace {

HeapFault* current_fault = nullptr;

std::mutex held_mutex;
std::vector<void*> held;

std::mutex ledger_mutex;
std::set<void*> ledger;

void* enter_in_ledger(void* memory) {
    std::lock_guard lock(ledger_mutex);
    if (memory != nullptr) ledger.insert(memory);
    return memory;
}

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
    if (current_fault->fails()) return nullptr;
    return current_fault->malloc_->original_as<decltype(std::malloc)>()(size);
}

void* HeapFault::calloc_hook(std::size_t count, std::size_t size) {
    if (current_fault->fails()) return nullptr;
    return current_fault->calloc_->original_as<decltype(std::calloc)>()(count, size);
}

HeapLedger::HeapLedger() {
    ledger.clear();
    malloc_.emplace("osal.so", "malloc", &HeapLedger::malloc_hook);
    calloc_.emplace("osal.so", "calloc", &HeapLedger::calloc_hook);
    free_.emplace("osal.so", "free", &HeapLedger::free_hook);
}

HeapLedger::~HeapLedger() = default;

std::size_t HeapLedger::blocks() const {
    std::lock_guard lock(ledger_mutex);
    return ledger.size();
}

void* HeapLedger::malloc_hook(std::size_t size) {
    return enter_in_ledger(std::malloc(size));
}

void* HeapLedger::calloc_hook(std::size_t count, std::size_t size) {
    return enter_in_ledger(std::calloc(count, size));
}

void HeapLedger::free_hook(void* memory) {
    {
        std::lock_guard lock(ledger_mutex);
        ledger.erase(memory);
    }
    std::free(memory);
}

void* patterned_malloc(std::size_t size) {
    void* memory = std::malloc(size);
    return memory == nullptr ? nullptr : std::memset(memory, kHeapByte, size);
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
