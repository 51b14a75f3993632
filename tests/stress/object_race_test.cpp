// Races of the object manager's ways without a lock: look-ups by handle beside creation and
// deletion of objects, blocks and parts of the index, and deletion beside the first use of an
// object's lock.
//
// OSAL_STRESS_OPERATIONS sets the number of operations of each thread.
#include <cstdlib>

#include "support/object_test.h"

namespace osal_test {
namespace {

int operations(int usual) {
    const char* given = std::getenv("OSAL_STRESS_OPERATIONS");
    return given != nullptr ? std::atoi(given) : usual;
}

struct Data {
    UINT64 alive;  // the handle and a mark, from creation to deletion
};
constexpr UINT64 kAlive = UINT64{0xA11FE} << 32;

std::atomic<UINT32> ended = 0;
KCSTATUS end_life(PVOID data) {
    static_cast<Data*>(data)->alive = 0;
    ++ended;
    return KC_OK;
}

class ObjectRace : public ServiceTest, public testing::WithParamInterface<UINT16> {
  protected:
    ObjectRace() {
        before = holdings();
        LCM_IClassFactory* factory = object_factory();
        void* made = nullptr;
        factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_1, &made);
        factory->lpVtbl->Release(factory);
        om = static_cast<IOM*>(made);
        EXPECT_EQ(om->lpVtbl->Initialize(om, sizeof(Data), GetParam(), 0, 1, end_life, nullptr,
                                         nullptr, 0),
                  KC_OK);
        ended = 0;
    }
    ~ObjectRace() override {
        EXPECT_EQ(om->lpVtbl->Release(om), 0u);
        EXPECT_TRUE(eventually([&] { return holdings() == before; })) << "something was kept";
    }

    // Makes the object of a handle; null if the one before it in that slot is not gone yet.
    PVOID create_at(UINT32 handle) {
        PVOID data = nullptr;
        UINT32 mode = 0;
        om->lpVtbl->CreateObjectByHandle(om, osal::handle_from(handle), &handle, begin_life, 0, 0,
                                         &data, &mode);
        if (mode == KX_OBJECT_CREATED) return data;
        if (mode == KX_OBJECT_OPENED) om->lpVtbl->DereferenceObject(om, data, 0);
        return nullptr;
    }
    static KCSTATUS begin_life(PVOID data, PVOID handle) {
        static_cast<Data*>(data)->alive = kAlive | *static_cast<UINT32*>(handle);
        return KC_OK;
    }
    // Looks a handle up and says whether the object that it gave is the one named.
    bool names_its_object(UINT32 handle) {
        PVOID data = nullptr;
        if (om->lpVtbl->ReferenceObjectByHandle(om, osal::handle_from(handle), 0, &data) != KC_OK)
            return true;
        const bool named = static_cast<Data*>(data)->alive == (kAlive | handle);
        om->lpVtbl->DereferenceObject(om, data, 0);
        return named;
    }

    StatusRecorder quiet;  // refusals of slots that are being freed
    IOM* om;
    Holdings before;
};

// Blocks of one place in each of several parts of the index come and go, with every generation,
// while others look for them.
TEST_P(ObjectRace, AHandleNamesItsObjectOrNothing) {
    constexpr UINT32 kIds[] = {1, 2, 300, 700, 65535};
    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    std::atomic<UINT32> lives = 0;
    std::vector<std::unique_ptr<RawThread>> readers;
    for (UINT32 i = 0; i < 3; ++i)
        readers.push_back(std::make_unique<RawThread>([&, i] {
            for (UINT32 n = i; !done; ++n) {
                const UINT32 generation = lives / std::size(kIds);
                const UINT32 handle = kIds[n % std::size(kIds)] | (generation & 0xFF) << 16 |
                                      UINT32{GetParam()} << 24;
                if (!names_its_object(handle)) ++wrong;
            }
        }));
    UINT32 made = 0;
    const int count = operations(20'000);
    for (int n = 0; n < count; ++n, ++lives) {
        const UINT32 generation = lives / std::size(kIds);
        PVOID data = create_at(kIds[lives % std::size(kIds)] | (generation & 0xFF) << 16 |
                               UINT32{GetParam()} << 24);
        if (data == nullptr) continue;
        ++made;
        EXPECT_EQ(om->lpVtbl->DeleteObject(om, data, 0), KC_OK);
    }
    done = true;
    readers.clear();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(ended, made);
}

// A stale handle takes no reference, not even for a moment. Objects of two generations take turns
// in a slot; others look for the first one only, so the second ends when its maker deletes it.
TEST_P(ObjectRace, AStaleHandleHoldsNothing) {
    PVOID keeper = GetParam() > 1 ? create_at(0x02010001) : nullptr;
    std::atomic<bool> done = false;
    std::atomic<int> wrong = 0;
    std::vector<std::unique_ptr<RawThread>> readers;
    for (int i = 0; i < 3; ++i)
        readers.push_back(std::make_unique<RawThread>([&] {
            while (!done)
                if (!names_its_object(0x01010001)) ++wrong;
        }));
    UINT32 held = 0;
    const int count = operations(20'000);
    for (int n = 0; n < count; ++n) {
        PVOID first, second;
        while ((first = create_at(0x01010001)) == nullptr)
            sched_yield();
        om->lpVtbl->DeleteObject(om, first, 0);
        while ((second = create_at(0x01020001)) == nullptr)
            sched_yield();
        const UINT32 so_far = ended;
        om->lpVtbl->DeleteObject(om, second, 0);
        if (ended != so_far + 1) ++held;
    }
    done = true;
    readers.clear();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(held, 0u);
    if (keeper != nullptr) om->lpVtbl->DeleteObject(om, keeper, 0);
}

// Whoever has an object's lock and found the object live has it live until the lock is given up.
TEST_P(ObjectRace, AnObjectIsNotMarkedWhileItsLockIsHeld) {
    std::atomic<PVOID> shared = nullptr;
    std::atomic<int> turn = 0, wrong = 0;
    const int count = operations(20'000);
    RawThread holder([&] {
        for (int n = 1; n <= count; ++n) {
            while (turn < n)
                sched_yield();
            PVOID data = shared;
            pObject ob = osal::object_of(data);
            om->lpVtbl->AcquireObject(om, data, 1);
            if (!osal::has(ob, OBJ_FLAG_DELETED)) {
                for (int look = 0; look < 20; ++look)
                    if (osal::has(ob, OBJ_FLAG_DELETED)) ++wrong;
            }
            om->lpVtbl->DereferenceObject(om, data, 1);
            shared = nullptr;
        }
    });
    for (int n = 1; n <= count; ++n) {
        PVOID data = create_at(0x01010001);
        ASSERT_NE(data, nullptr);
        om->lpVtbl->IncrementReference(om, data);
        shared = data;
        turn = n;
        for (int i = 0; i < n % 64; ++i)
            (void)turn.load();
        om->lpVtbl->DeleteObject(om, data, 0);
        while (shared != nullptr)
            sched_yield();
    }
    holder.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(ended, static_cast<UINT32>(count));
}

INSTANTIATE_TEST_SUITE_P(SlotsABlock, ObjectRace, testing::Values(1, 3),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace osal_test
