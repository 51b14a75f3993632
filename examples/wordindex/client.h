// The library as this program sees it: one instance of the service interface, which the component
// runtime makes.
#pragma once

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "osal/osal.h"

namespace wordindex {

// The library, or something it needs, failed.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
Failure failure(const std::string& what, KCSTATUS status);

// Starts the component runtime, and stops it at the end.
class Runtime {
  public:
    Runtime();
    ~Runtime();
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
};

class Client {
  public:
    explicit Client(const char* module_name);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Calls a service through the interface table: call<&IOsalVtbl::KxStrHash>(text, 1021).
    template <auto Slot, class... Arguments>
    auto call(Arguments... arguments) const {
        return (instance_->lpVtbl->*Slot)(instance_, arguments...);
    }

    // The usage counters of all instances, oldest first.
    std::vector<GEN_OSAL_STATS_INFO> statistics() const;

    // What was taken from the library and not given back, in words; empty if there is nothing.
    std::string leftovers() const;

  private:
    Runtime runtime_;
    PIOsal instance_ = nullptr;
    std::string name_;
};

// The time in the library's units of 100 ns.
UINT64 now_100ns(const Client& client);

// Pool memory as a standard allocator.
template <class T>
struct PoolAllocator {
    using value_type = T;

    explicit PoolAllocator(const Client& owner) : client(&owner) {}
    template <class U>
    explicit PoolAllocator(const PoolAllocator<U>& other) : client(other.client) {}

    T* allocate(std::size_t count) {
        static_assert(alignof(T) <= 8, "pool memory is aligned to 8 bytes");
        void* block = nullptr;
        if (count <= UINT32_MAX / sizeof(T))
            block = client->call<&IOsalVtbl::KxAllocPagedMemory>(UINT32(count * sizeof(T)));
        if (block == nullptr) throw std::bad_alloc();
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t) { client->call<&IOsalVtbl::KxFreeMemory>(block); }
    bool operator==(const PoolAllocator&) const = default;

    const Client* client;
};

}  // namespace wordindex
