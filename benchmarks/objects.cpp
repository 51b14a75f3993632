// The object manager at 10^3 to 10^7 objects: references by handle, creation, deletion, lookups in
// a bucket, scans, on one thread and on two, and memory. Against a vector of slots that are named
// by index and counted in place, and an unordered_map of shared_ptr, each under a shared mutex.
#include <malloc.h>

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <unordered_map>

#include "library.h"
#include "osal/iom.h"
#include "team.h"

namespace {

using bench::Contender;

constexpr UINT32 kSize = 64;  // bytes of data
constexpr std::size_t kInBucket = 4;
struct Payload {
    UINT64 number;
    unsigned char rest[kSize - 8];
};

BOOLEAN same_number(PVOID data, PVOID number) {
    return static_cast<Payload*>(data)->number == *static_cast<UINT64*>(number);
}

// What a client names an object by.
using Name = UINT32;

class Manager {
  public:
    Manager(UINT16 per_block, std::size_t count)
        : names(count), buckets_(static_cast<UINT32>(count / kInBucket)) {
        void* factory = nullptr;
        DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IClassFactory, &factory);
        auto* classes = static_cast<LCM_IClassFactory*>(factory);
        void* made = nullptr;
        classes->lpVtbl->CreateInstance(classes, nullptr, &IID_IObjectManager_1, &made);
        classes->lpVtbl->Release(classes);
        om_ = static_cast<IOM*>(made);
        slots_ = om_->lpVtbl;
        slots_->Initialize(om_, kSize, per_block, KX_OBJECT_LEVEL_LOCK, buckets_, nullptr, nullptr,
                           nullptr, 0);
        for (std::size_t i = 0; i < count; ++i) {
            HANDLE handle = nullptr;
            slots_->GetObjectHandle(om_, create(i), &handle);
            names[i] = static_cast<Name>(reinterpret_cast<std::uintptr_t>(handle));
        }
    }
    ~Manager() {
        for (Name name : names) {
            PVOID data;
            slots_->ReferenceObjectByHandle(om_, handle_of(name), 0, &data);
            slots_->DereferenceObject(om_, data, 0);
            slots_->DeleteObject(om_, data, 0);
        }
        slots_->Release(om_);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    PVOID create(std::size_t number) {
        PVOID data = nullptr;
        slots_->CreateObject(om_, nullptr, nullptr, nullptr, nullptr,
                             static_cast<UINT32>(number % buckets_), 0, 0, &data, nullptr);
        static_cast<Payload*>(data)->number = number;
        return data;
    }
    void end(PVOID data) { slots_->DeleteObject(om_, data, 0); }
    void touch(Name name) {
        PVOID data;
        slots_->ReferenceObjectByHandle(om_, handle_of(name), 0, &data);
        slots_->DereferenceObject(om_, data, 0);
    }
    void find(UINT64 number) {
        PVOID data;
        slots_->FindObject(om_, &number, same_number, static_cast<UINT32>(number % buckets_), 0,
                           &data);
        slots_->DereferenceObject(om_, data, 0);
    }
    void step(HANDLE& scan) {
        PVOID data;
        if (slots_->EnumerateObjects(om_, &scan, nullptr, nullptr, 0, &data) == KC_OK)
            slots_->DereferenceObject(om_, data, 0);
        else
            scan = nullptr;
    }

    std::vector<Name> names;  // of each object

  private:
    static HANDLE handle_of(Name name) { return reinterpret_cast<HANDLE>(std::uintptr_t{name}); }

    UINT32 buckets_;
    IOM* om_;
    const IOMVtbl* slots_;
};

class SlotMap {
  public:
    using Place = std::size_t;

    explicit SlotMap(std::size_t count)
        : slots_(count + kSpare), heads_(count / kInBucket, kNone), count_(count) {
        for (std::size_t i = 0; i < count; ++i) {
            slots_[i].payload.number = i;
            slots_[i].next = heads_[i % heads_.size()];
            heads_[i % heads_.size()] = static_cast<UINT32>(i);
        }
        for (std::size_t i = count; i < slots_.size(); ++i)
            free_.push_back(static_cast<UINT32>(i));
    }
    Place create(std::size_t) {
        std::unique_lock lock(mutex_);
        const Place place = free_.back();
        free_.pop_back();
        slots_[place].payload = {};
        slots_[place].count = 1;
        return place;
    }
    void end(Place place) {
        if (--slots_[place].count != 0) return;
        std::unique_lock lock(mutex_);
        free_.push_back(static_cast<UINT32>(place));
    }
    void touch(Name place) { --reference(place)->count; }
    void find(UINT64 number) {
        std::shared_lock lock(mutex_);
        UINT32 place = heads_[number % heads_.size()];
        while (place != kNone && slots_[place].payload.number != number)
            place = slots_[place].next;
        ++slots_[place].count;
        lock.unlock();
        --slots_[place].count;
    }
    void step(std::size_t& position) {
        touch(static_cast<Name>(position));
        position = position + 1 < count_ ? position + 1 : 0;
    }

  private:
    static constexpr UINT32 kNone = ~0u;
    static constexpr std::size_t kSpare = 1024;
    struct Slot {
        std::atomic<UINT32> count{0};
        UINT32 next = kNone;
        Payload payload;
    };
    Slot* reference(Name place) {
        std::shared_lock lock(mutex_);
        ++slots_[place].count;
        return &slots_[place];
    }

    std::shared_mutex mutex_;
    std::vector<Slot> slots_;
    std::vector<UINT32> heads_;
    std::vector<UINT32> free_;
    std::size_t count_;
};

class HashMap {
  public:
    using Map = std::unordered_map<UINT32, std::shared_ptr<Payload>>;
    using Place = UINT32;

    explicit HashMap(std::size_t count) {
        map_.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            map_.emplace(static_cast<UINT32>(i), std::make_shared<Payload>());
    }
    Place create(std::size_t number) {
        const auto key = static_cast<UINT32>(number);
        auto payload = std::make_shared<Payload>();
        std::unique_lock lock(mutex_);
        map_.emplace(key, std::move(payload));
        return key;
    }
    void end(Place key) {
        std::unique_lock lock(mutex_);
        map_.erase(key);
    }
    void touch(Name key) { find(key); }
    void find(UINT64 number) {
        std::shared_lock lock(mutex_);
        const auto found = map_.find(static_cast<UINT32>(number));
        const std::shared_ptr<Payload> payload = found != map_.end() ? found->second : nullptr;
        lock.unlock();
        bench::keep(payload.get());
    }
    void step(std::optional<Map::iterator>& position) {
        std::shared_lock lock(mutex_);
        if (!position || *position == map_.end()) position = map_.begin();
        const std::shared_ptr<Payload> payload = (*position)->second;
        ++*position;
        lock.unlock();
        bench::keep(payload.get());
    }

  private:
    std::shared_mutex mutex_;
    Map map_;
};

// What an object costs without a manager: memory of a slot's size and a lock of its own.
struct ServiceLock {
    using Place = std::pair<void*, HANDLE>;
    Place create(std::size_t) {
        Place place{std::malloc(kSize + 56), nullptr};
        bench::keep(place.first);
        osal->lpVtbl->KxAllocReadWriteLock(osal, &place.second);
        return place;
    }
    void end(Place place) {
        osal->lpVtbl->KxDestroyReadWriteLock(osal, place.second);
        std::free(place.first);
    }
    PIOsal osal;
};
// The same where others must see the same places: each half is a turn of a mutex for all.
struct InTurns {
    using Place = ServiceLock::Place;
    Place create(std::size_t number) {
        std::lock_guard turn(mutex);
        return made.create(number);
    }
    void end(Place place) {
        std::lock_guard turn(mutex);
        made.end(place);
    }
    explicit InTurns(PIOsal osal) : made{osal} {}

  private:
    ServiceLock made;
    std::mutex mutex;
};
struct PlatformLock {
    using Place = std::pair<void*, pthread_rwlock_t*>;
    Place create(std::size_t) {
        Place place{std::malloc(kSize + 56), new pthread_rwlock_t};
        bench::keep(place.first);
        pthread_rwlock_init(place.second, nullptr);
        return place;
    }
    void end(Place place) {
        pthread_rwlock_destroy(place.second);
        delete place.second;
        std::free(place.first);
    }
};

// Bytes of the heap in use.
double heap() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

// Something made, with the bytes that it took for each of so many objects.
template <class Made>
struct Weighed {
    template <class... Arguments>
    explicit Weighed(std::size_t count, Arguments... arguments)
        : before(heap()),
          made(arguments...),
          bytes((heap() - before) / static_cast<double>(count)) {}
    double before;
    Made made;
    double bytes;
};

// A cheap sequence over all indexes that the caches cannot foresee.
struct Sequence {
    UINT64 state;
    std::size_t next(std::size_t count) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<std::size_t>((state >> 33) * count >> 31);
    }
};

// One of a kind for each thread, apart.
template <class Value>
struct alignas(128) Apart {
    Value value{};
};
template <class Value>
using ForEachThread = std::shared_ptr<std::array<Apart<Value>, 2>>;
template <class Value>
ForEachThread<Value> for_each_thread() {
    return std::make_shared<std::array<Apart<Value>, 2>>();
}

// work(n, who) on as many threads as asked for; the time is that of one thread's operation.
template <class Work>
Contender on(unsigned threads, std::string name, Work work) {
    if (threads == 1) return {std::move(name), [=](std::uint64_t n) { work(n, 0u); }};
    auto team = std::make_shared<bench::Team>(threads);
    return {std::move(name), [=](std::uint64_t n) -> bench::Ns {
                return team->run([&](unsigned who) { work(n, who); });
            }};
}

constexpr const char* kSlotMap = "slot map, shared mutex";
constexpr const char* kManager = "object manager";
constexpr const char* kHashMap = "unordered_map of shared_ptr, shared mutex";

// Names in an order that the caches cannot foresee, to be read from the first on: whoever looks an
// object up has its name at hand.
class Names {
  public:
    template <class NameOf>
    Names(std::size_t count, NameOf name_of) {
        Sequence at{1};
        for (Name& name : order_)
            name = name_of(at.next(count));
    }
    Name operator[](std::uint64_t position) const { return order_[position % kLength]; }

  private:
    static constexpr std::size_t kLength = std::size_t{1} << 20;
    std::vector<Name> order_ = std::vector<Name>(kLength);
};

struct Population {
    explicit Population(std::size_t size, UINT16 per_block)
        : count(size),
          manager(size, per_block, size),
          slots(size, size),
          map(size, size),
          handles(size, [this](std::size_t i) { return manager.made.names[i]; }),
          numbers(size, [](std::size_t i) { return static_cast<Name>(i); }) {}
    std::size_t count;
    Weighed<Manager> manager;
    Weighed<SlotMap> slots;
    Weighed<HashMap> map;
    Names handles;
    Names numbers;
};

class Subject {
    static constexpr const char* kBase = "malloc, free, a lock of the services made and destroyed";

    void race(const std::string& group, unsigned threads, std::vector<Contender> contenders) {
        report_.race(group + ", threads: " + std::to_string(threads), bench::count_name(all_.count),
                     static_cast<double>(all_.count), std::move(contenders));
    }
    template <class Store>
    auto touches(Store& subject, const Names& names) {
        return [&, at = for_each_thread<std::uint64_t>()](std::uint64_t n, unsigned who) {
            std::uint64_t& position = (*at)[who].value;
            for (; n != 0; --n)
                subject.touch(names[who * 500'000 + position++]);
        };
    }
    template <class Store>
    auto searches(Store& subject) {
        auto at = for_each_thread<Sequence>();
        (*at)[1].value.state = 977;
        return [&subject, at, count = all_.count](std::uint64_t n, unsigned who) {
            for (Sequence& sequence = (*at)[who].value; n != 0; --n)
                subject.find(sequence.next(count));
        };
    }
    template <class Store>
    auto pairs(Store& subject) {
        return [&subject, first = all_.count](std::uint64_t n, unsigned who) {
            for (; n != 0; --n)
                subject.end(subject.create(first + who));
        };
    }
    template <class Position, class Store>
    auto steps(Store& subject) {
        return [&subject, at = for_each_thread<Position>()](std::uint64_t n, unsigned who) {
            for (; n != 0; --n)
                subject.step((*at)[who].value);
        };
    }
    template <class Store>
    auto half(Store& subject, bool creates) {
        return [&subject, creates, first = all_.count](std::uint64_t n) -> bench::Ns {
            constexpr std::uint64_t kRun = 200;
            std::array<decltype(subject.create(0)), kRun> places;
            bench::Ns elapsed = 0;
            for (std::uint64_t left = n; left != 0;) {
                const std::uint64_t run = std::min(left, kRun);
                const bench::Ns begin = bench::now();
                for (std::uint64_t i = 0; i < run; ++i)
                    places[i] = subject.create(first + i);
                const bench::Ns middle = bench::now();
                for (std::uint64_t i = 0; i < run; ++i)
                    subject.end(places[i]);
                elapsed += creates ? middle - begin : bench::now() - middle;
                left -= run;
            }
            return elapsed;
        };
    }

  public:
    Subject(bench::Report& report, PIOsal osal, Population& all)
        : report_(report), osal_(osal), all_(all) {}

    void references(unsigned threads) {
        race("Reference and dereference by handle", threads,
             {on(threads, kSlotMap, touches(all_.slots.made, all_.numbers)),
              on(threads, kManager, touches(all_.manager.made, all_.handles)),
              on(threads, kHashMap, touches(all_.map.made, all_.numbers))});
    }
    void creations(unsigned threads) {
        auto service = std::make_shared<ServiceLock>(osal_);
        auto in_turns = std::make_shared<InTurns>(osal_);
        auto platform = std::make_shared<PlatformLock>();
        race("Create and delete", threads,
             {on(threads, kBase, pairs(*service)),
              on(threads, "the same, with a lock of the platform", pairs(*platform)),
              on(threads, "the first, in turns of a shared mutex", pairs(*in_turns)),
              on(threads, kManager, pairs(all_.manager.made)),
              on(threads, kSlotMap, pairs(all_.slots.made)),
              on(threads, kHashMap, pairs(all_.map.made))});
    }
    // Creation and deletion alone, each timed within runs of both.
    void halves() {
        auto service = std::make_shared<ServiceLock>(osal_);
        for (bool creates : {true, false})
            race(creates ? "Create" : "Delete", 1,
                 {{kBase, half(*service, creates)},
                  {kManager, half(all_.manager.made, creates)},
                  {kSlotMap, half(all_.slots.made, creates)},
                  {kHashMap, half(all_.map.made, creates)}});
    }
    void finds(unsigned threads) {
        race("Find in a bucket of four", threads,
             {on(threads, kSlotMap, searches(all_.slots.made)),
              on(threads, kManager, searches(all_.manager.made)),
              on(threads, kHashMap, searches(all_.map.made))});
    }
    void scans(unsigned threads, const std::string& shape = "") {
        using At = std::optional<HashMap::Map::iterator>;
        race("A step of a scan" + shape, threads,
             {on(threads, kSlotMap, steps<std::size_t>(all_.slots.made)),
              on(threads, kManager, steps<HANDLE>(all_.manager.made)),
              on(threads, kHashMap, steps<At>(all_.map.made))});
    }
    void memory() {
        report_.compare("Memory an object", bench::count_name(all_.count),
                        static_cast<double>(all_.count),
                        {{kSlotMap, all_.slots.bytes},
                         {kManager, all_.manager.bytes},
                         {kHashMap, all_.map.bytes}});
    }

  private:
    bench::Report& report_;
    PIOsal osal_;
    Population& all_;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(
        argc, argv,
        {"objects", "Object manager against size", "one pair of calls",
         "Objects hold 64 bytes of data and a read/write lock of their own, which the "
         "contenders' have not. Times of two threads are those of one thread's "
         "operation while the other does the same. To be judged against for "
         "creation and deletion: memory of the same size and the lock that every "
         "object has, which comes from the services here as it does in the object "
         "manager. On two threads that memory and that lock are made side by side, "
         "while objects that all threads are to find are made in turns: the column "
         "\"in turns\" is what that alone costs. Look-ups read the names of what they "
         "look up in order, in all contenders.",
         "objects"});
    bench::Library library;
    bench::Instance osal;
    std::vector<std::size_t> counts = {1'000, 100'000, 1'000'000};
    if (!report.quick()) counts.push_back(10'000'000);
    for (std::size_t count : counts) {
        Population all(count, 255);
        Subject subject(report, osal, all);
        for (unsigned threads : {1u, 2u}) {
            subject.references(threads);
            subject.creations(threads);
            subject.finds(threads);
            subject.scans(threads);
        }
        subject.halves();
        subject.memory();
    }
    for (std::size_t count : {1'000, 1'000'000}) {
        Population all(count, 16);
        Subject(report, osal, all).scans(1, ", 16 slots a block");
    }
    return report.finish();
}
