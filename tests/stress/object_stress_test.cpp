// Eight threads that create, find, open, enumerate, reference, delete and deallocate the same
// objects. Every life of an object must end in exactly one call of a routine, and what is written
// under an object's lock must not race.
//
// OSAL_STRESS_OPERATIONS sets the number of operations of each thread.
#include <cstdlib>
#include <random>

#include "support/object_test.h"

namespace osal_test {
namespace {

constexpr int kThreads = 8;
constexpr UINT32 kKeys = 24;
constexpr UINT32 kBuckets = 4;
constexpr UINT32 kMagic = 0x600DDA7A;

struct Data {
    UINT32 key;      // 0: not one of a bucket
    UINT32 magic;    // while alive
    UINT64 entered;  // under the exclusive lock
};

std::atomic<UINT32> lives_ended = 0;

KCSTATUS begin_life(PVOID data, PVOID key) {
    auto* object = static_cast<Data*>(data);
    object->key = *static_cast<UINT32*>(key);
    object->magic = kMagic;
    object->entered = 0;
    return KC_OK;
}
KCSTATUS end_life(PVOID data) {
    auto* object = static_cast<Data*>(data);
    if (object->magic == kMagic) ++lives_ended;  // a preallocated one at teardown has none
    object->key = object->magic = 0;
    return KC_OK;
}
BOOLEAN same_key(PVOID data, PVOID key) {
    return static_cast<Data*>(data)->key == *static_cast<UINT32*>(key);
}
BOOLEAN any_key(PVOID data, PVOID) {
    return static_cast<Data*>(data)->key != 0;
}

// Handles start again with their block, so an old one may name a preallocated object, whose opening
// forgets the reference. A client that uses both must keep them apart; so do the kinds.
struct Kind {
    const char* name;
    UINT32 level;
    UINT16 per_block;
    bool preallocates;  // or references by handle
};
const Kind kKinds[] = {{"ReadWriteLocks", 0, 4, true},
                       {"ReadWriteLocksByHandle", 0, 1, false},
                       {"Mutexes", 3, 1, true},
                       {"MutexesByHandle", 3, 4, false},
                       {"ReadWriteLocksDeferred", 0x10000000, 3, true},
                       {"ReadWriteLocksDeferredByHandle", 0x10000000, 3, false},
                       {"MutexesDeferred", 0x10000003, 255, true},
                       {"MutexesDeferredByHandle", 0x10000003, 1, false}};

class ObjectStress : public ServiceTest, public testing::WithParamInterface<Kind> {
  protected:
    ObjectStress() {
        before = holdings();
        LCM_IClassFactory* factory = object_factory();
        void* made = nullptr;
        factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_1, &made);
        om = static_cast<IOM*>(made);
        EXPECT_EQ(om->lpVtbl->Initialize(om, sizeof(Data), GetParam().per_block, GetParam().level,
                                         kBuckets, end_life, end_life, nullptr, 1),
                  KC_OK);
    }

    // Uses an object that is held with an access, then gives it up in one of the ways there are.
    void use(PVOID data, UINT32 access, std::minstd_rand& random) {
        auto* object = static_cast<Data*>(data);
        if (access != 0 && object->magic != kMagic) ++broken;
        if (access == 1) ++object->entered;
        HANDLE handle = nullptr;
        om->lpVtbl->GetObjectHandle(om, data, &handle);
        handles[random() % std::size(handles)] = handle;
        const auto action = random() % 6;
        if (action == 0)
            om->lpVtbl->DeleteObject(om, data, access);
        else if (action == 1 && GetParam().preallocates)
            om->lpVtbl->DeallocateObject(om, data, access);
        else
            om->lpVtbl->DereferenceObject(om, data, access);
    }
    void find_or_make(bool opens, std::minstd_rand& random) {
        UINT32 key = 1 + static_cast<UINT32>(random() % kKeys), mode = 0;
        const UINT32 access = random() % 3;
        PVOID data = nullptr;
        const auto operation = opens ? om->lpVtbl->OpenObject : om->lpVtbl->CreateObject;
        const KCSTATUS status = operation(om, &key, begin_life, &key, same_key, key % kBuckets,
                                          access, access, &data, &mode);
        if (osal::is_error(status)) return;
        if (mode == 1) ++lives;
        use(data, access, random);
    }
    void scan(std::minstd_rand& random) {
        HANDLE resume = nullptr;
        for (int i = 0; i < 10; ++i) {
            const UINT32 access = random() % 3;
            PVOID data = nullptr;
            if (om->lpVtbl->EnumerateObjects(om, &resume, nullptr, any_key, access, &data) != KC_OK)
                return;
            // One that was deleted meanwhile is handed out as well: it is only given back.
            om->lpVtbl->DereferenceObject(om, data, access);
        }
    }
    void step(std::minstd_rand& random) {
        const UINT32 access = 1 + random() % 2;
        UINT32 key = 1 + static_cast<UINT32>(random() % kKeys);
        PVOID data = nullptr;
        switch (random() % 10) {
            case 0:
                if (GetParam().preallocates) allocate();
                return;
            case 1:
                return scan(random);
            case 2:
            case 3:
                if (om->lpVtbl->FindObject(om, &key, same_key, key % kBuckets, access, &data) ==
                    KC_OK)
                    use(data, access, random);
                return;
            case 4:
            case 5:
            case 6:
                if (GetParam().preallocates) return find_or_make(true, random);
                if (om->lpVtbl->ReferenceObjectByHandle(om, handles[random() % std::size(handles)],
                                                        access, &data) == KC_OK)
                    use(data, access, random);
                return;
            default:
                return find_or_make(false, random);
        }
    }
    void allocate() {
        UINT32 preallocated = 0;
        PVOID data = nullptr;
        om->lpVtbl->GetObjectStats(om, nullptr, nullptr, &preallocated);
        if (preallocated < 20) om->lpVtbl->AllocateObject(om, &data);
    }

    IOM* om;
    Holdings before;
    std::atomic<HANDLE> handles[32] = {};
    std::atomic<UINT32> lives = 0;
    std::atomic<int> broken = 0;
};

TEST_P(ObjectStress, EveryLifeEndsOnce) {
    int operations = 4'000;
    if (const char* given = std::getenv("OSAL_STRESS_OPERATIONS")) operations = std::atoi(given);
    lives_ended = 0;
    StatusRecorder quiet;
    {
        std::vector<std::unique_ptr<RawThread>> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.push_back(std::make_unique<RawThread>([&, i] {
                std::minstd_rand random(static_cast<UINT32>(i + 1));
                for (int n = 0; n < operations; ++n) {
                    step(random);
                    if (n % 1000 == 0) quiet.take();
                }
            }));
    }
    EXPECT_EQ(broken, 0);
    EXPECT_TRUE(eventually([&] {
        UINT32 in_use = 0;
        om->lpVtbl->GetObjectStats(om, nullptr, &in_use, nullptr);
        return lives == lives_ended + in_use;
    })) << lives
        << " lives, " << lives_ended << " ended";
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_TRUE(eventually([&] { return holdings() == before; })) << "something was kept";
    EXPECT_EQ(lives, lives_ended);
}

INSTANTIATE_TEST_SUITE_P(With, ObjectStress, testing::ValuesIn(kKinds),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace osal_test
