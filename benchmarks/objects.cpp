// The object manager at 10^3 to 10^7 objects: references by handle, creation and deletion, lookups
// in a bucket, scans. Against a vector of slots and an unordered_map of shared_ptr, each under a
// shared mutex.
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <unordered_map>

#include "library.h"
#include "osal/iom.h"
#include "team.h"

namespace {

using bench::Contender;

constexpr UINT32 kSize = 64;  // bytes of data
struct Payload {
    unsigned char bytes[kSize];
};

class Manager {
  public:
    Manager(UINT16 per_block, UINT32 buckets) {
        void* factory = nullptr;
        DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IClassFactory, &factory);
        auto* classes = static_cast<LCM_IClassFactory*>(factory);
        void* made = nullptr;
        classes->lpVtbl->CreateInstance(classes, nullptr, &IID_IObjectManager_1, &made);
        classes->lpVtbl->Release(classes);
        om_ = static_cast<IOM*>(made);
        slots_ = om_->lpVtbl;
        slots_->Initialize(om_, kSize, per_block, KX_OBJECT_LEVEL_LOCK, buckets, nullptr, nullptr,
                           nullptr, 0);
    }
    ~Manager() {
        for (HANDLE handle : handles) {
            PVOID data;
            slots_->ReferenceObjectByHandle(om_, handle, 0, &data);
            slots_->DereferenceObject(om_, data, 0);
            slots_->DeleteObject(om_, data, 0);
        }
        slots_->Release(om_);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    PVOID create(UINT32 bucket) {
        PVOID data = nullptr;
        slots_->CreateObject(om_, nullptr, nullptr, nullptr, nullptr, bucket, 0, 0, &data, nullptr);
        return data;
    }
    void fill(std::size_t count) {
        handles.resize(count, nullptr);
        for (HANDLE& handle : handles)
            slots_->GetObjectHandle(om_, create(0), &handle);
    }
    IOM* operator*() const { return om_; }
    const IOMVtbl* operator->() const { return slots_; }

    std::vector<HANDLE> handles;

  private:
    IOM* om_;
    const IOMVtbl* slots_;
};

// Contender: slots in a vector, named by index, counted in place.
struct SlotMap {
    struct Slot {
        std::atomic<UINT32> count{0};
        Payload payload;
    };
    explicit SlotMap(std::size_t count) : slots(count) {}
    Slot* reference(std::size_t index) {
        std::shared_lock lock(mutex);
        Slot* slot = &slots[index];
        ++slot->count;
        return slot;
    }
    std::shared_mutex mutex;
    std::vector<Slot> slots;
};

struct HashMap {
    explicit HashMap(std::size_t count) {
        map.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            map.emplace(static_cast<UINT32>(i), std::make_shared<Payload>());
    }
    std::shared_ptr<Payload> reference(UINT32 index) {
        std::shared_lock lock(mutex);
        const auto found = map.find(index);
        return found != map.end() ? found->second : nullptr;
    }
    std::shared_mutex mutex;
    std::unordered_map<UINT32, std::shared_ptr<Payload>> map;
};

// A cheap sequence over all indexes that the caches cannot foresee.
struct Sequence {
    UINT64 state;
    std::size_t next(std::size_t count) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<std::size_t>((state >> 33) * count >> 31);
    }
};

// work(n, who) on as many threads as asked for; the time is that of one thread's operation.
template <class Work>
Contender on(unsigned threads, std::string name, Work work) {
    if (threads == 1) return {std::move(name), [=](std::uint64_t n) { work(n, 0u); }};
    auto team = std::make_shared<bench::Team>(threads);
    return {std::move(name), [=](std::uint64_t n) -> bench::Ns {
                return team->run([&](unsigned who) { work(n, who); });
            }};
}

void references(bench::Report& report, std::size_t count, unsigned threads) {
    Manager manager(255, 1);
    manager.fill(count);
    SlotMap slots(count);
    HashMap map(count);
    const auto seed = [](unsigned who) { return Sequence{who * 977u + 1u}; };
    report.race("Reference and dereference by handle, threads: " + std::to_string(threads),
                bench::count_name(count), static_cast<double>(count),
                {on(threads, "slot map, shared mutex",
                    [&, seed](std::uint64_t n, unsigned who) {
                        for (Sequence at = seed(who); n != 0; --n)
                            --slots.reference(at.next(count))->count;
                    }),
                 on(threads, "object manager",
                    [&, seed](std::uint64_t n, unsigned who) {
                        for (Sequence at = seed(who); n != 0; --n) {
                            PVOID data;
                            manager->ReferenceObjectByHandle(
                                *manager, manager.handles[at.next(count)], 0, &data);
                            manager->DereferenceObject(*manager, data, 0);
                        }
                    }),
                 on(threads, "unordered_map of shared_ptr, shared mutex",
                    [&, seed](std::uint64_t n, unsigned who) {
                        for (Sequence at = seed(who); n != 0; --n)
                            bench::keep(map.reference(static_cast<UINT32>(at.next(count))).get());
                    })});
}

void creations(bench::Report& report, PIOsal osal, std::size_t count) {
    Manager manager(255, 1);
    manager.fill(count);
    report.race("Create and delete", bench::count_name(count), static_cast<double>(count),
                {{"malloc, free, a lock made and destroyed",
                  [=](std::uint64_t n) {
                      for (; n != 0; --n) {
                          void* memory = std::malloc(kSize + 56);
                          bench::keep(memory);
                          HANDLE lock;
                          osal->lpVtbl->KxAllocReadWriteLock(osal, &lock);
                          osal->lpVtbl->KxDestroyReadWriteLock(osal, lock);
                          std::free(memory);
                      }
                  }},
                 {"object manager", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          manager->DeleteObject(*manager, manager.create(0), 0);
                  }}});
}

void scans(bench::Report& report, std::size_t count, UINT16 per_block) {
    Manager manager(per_block, 1);
    manager.fill(count);
    std::vector<std::shared_ptr<Payload>> pointers(count);
    for (auto& pointer : pointers)
        pointer = std::make_shared<Payload>();
    std::size_t position = 0;
    std::shared_mutex mutex;
    HANDLE scan = nullptr;
    report.race("A step of a scan, slots a block: " + std::to_string(per_block),
                bench::count_name(count), static_cast<double>(count),
                {{"vector of shared_ptr, shared mutex",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          std::shared_lock lock(mutex);
                          std::shared_ptr<Payload> found = pointers[position];
                          position = position + 1 < pointers.size() ? position + 1 : 0;
                          lock.unlock();
                          bench::keep(found.get());
                      }
                  }},
                 {"object manager", [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          PVOID data;
                          if (manager->EnumerateObjects(*manager, &scan, nullptr, nullptr, 0,
                                                        &data) == KC_OK)
                              manager->DereferenceObject(*manager, data, 0);
                          else
                              scan = nullptr;
                      }
                  }}});
}

BOOLEAN same_number(PVOID data, PVOID number) {
    return *static_cast<UINT64*>(data) == *static_cast<UINT64*>(number);
}

void finds(bench::Report& report, std::size_t count) {
    constexpr std::size_t kInBucket = 4;
    const auto buckets = static_cast<UINT32>(count / kInBucket);
    Manager manager(255, buckets);
    manager.handles.resize(count, nullptr);
    for (std::size_t i = 0; i < count; ++i) {
        PVOID data = manager.create(static_cast<UINT32>(i % buckets));
        *static_cast<UINT64*>(data) = i;
        manager->GetObjectHandle(*manager, data, &manager.handles[i]);
    }
    HashMap map(count);
    Sequence at = {1};
    report.race("Find in a bucket of four", bench::count_name(count), static_cast<double>(count),
                {{"unordered_map of shared_ptr, shared mutex",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          bench::keep(map.reference(static_cast<UINT32>(at.next(count))).get());
                  }},
                 {"object manager", [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          UINT64 number = at.next(count);
                          PVOID data;
                          manager->FindObject(*manager, &number, same_number,
                                              static_cast<UINT32>(number % buckets), 0, &data);
                          manager->DereferenceObject(*manager, data, 0);
                      }
                  }}});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"objects", "Object manager against size", "one pair of calls",
                          "Objects hold 64 bytes of data and a read/write lock of their own. Times "
                          "of two threads are those of one thread's operation while the other does "
                          "the same.",
                          "objects"});
    bench::Library library;
    bench::Instance osal;
    std::vector<std::size_t> counts = {1'000, 100'000, 1'000'000};
    if (!report.quick()) counts.push_back(10'000'000);
    for (unsigned threads : {1u, 2u})
        for (std::size_t count : counts)
            references(report, count, threads);
    for (std::size_t count : counts)
        creations(report, osal, count);
    for (std::size_t count : counts)
        finds(report, count);
    for (UINT16 per_block : {255, 16})
        for (std::size_t count : {1'000, 1'000'000})
            scans(report, count, per_block);
    return report.finish();
}
