// Random operations on an object manager beside a simple model of it, which walks its blocks in
// order and keeps no index. After each operation status, handle, opened mode, statistics and the
// calls of the client's routines must agree.
//
// The seed is printed; OSAL_TEST_SEED repeats a run, OSAL_TEST_OPERATIONS sets its length.
#include <cstdlib>
#include <deque>
#include <map>
#include <random>

#include "support/object_test.h"

namespace osal_test {
namespace {

struct Slot {
    bool free = true, deleted = false, deallocated = false, preallocated = false, ready = false;
    bool counted = false;
    UCHAR generation = 1;
    UINT32 count = 0, word = 0, bucket = 0;
    PVOID data = nullptr;
};

struct Place {
    UINT32 block, slot;  // slot from 1
    bool operator==(const Place&) const = default;
};

struct Block {
    std::vector<Slot> slots;
    std::deque<UINT32> free;
    bool permanent;
};

// The model. Every function does what the operation of the name does.
class Model {
  public:
    explicit Model(const Shape& shape) : shape_(shape), buckets(std::max(1u, shape.buckets)) {
        for (UINT32 id = 1; id <= shape.permanent; ++id)
            add_block(id, true);
    }

    Slot& at(Place place) { return blocks.at(place.block).slots[place.slot - 1]; }
    UINT32 handle(Place place) {
        return osal::make_handle(place.block, at(place).generation, place.slot);
    }
    std::optional<Place> find(UINT32 word, UINT32 bucket) {
        for (Place place : buckets[bucket])
            if (at(place).word == word) return place;
        return {};
    }
    std::optional<Place> resolve(UINT32 handle) {
        const Place place = {osal::handle_block(handle), osal::handle_slot(handle)};
        const auto block = blocks.find(place.block);
        if (block == blocks.end() || place.slot == 0 || place.slot > shape_.per_block) return {};
        const Slot& slot = at(place);
        if (slot.free || slot.deleted || this->handle(place) != handle) return {};
        return place;
    }
    // The slot at which a scan goes on, and the resume handle behind it.
    std::optional<Place> scan(UINT32* resume) {
        if (*resume == 0) *resume = 0x01010001;
        const UINT32 id = osal::handle_block(*resume);
        for (auto block = blocks.lower_bound(id); block != blocks.end(); ++block)
            for (UINT32 slot = block->first == id ? osal::handle_slot(*resume) : 1;
                 slot <= shape_.per_block; ++slot)
                if (const Slot& found = block->second.slots[slot - 1];
                    !found.free && !found.deleted) {
                    *resume = behind(block, slot);
                    return Place{block->first, slot};
                }
        return {};
    }

    void add_free_block(UINT32 id) { add_block(id, false); }
    Place choose() {
        UINT32 lowest = 1;
        for (auto& [id, block] : blocks) {
            if (!block.free.empty()) return {id, block.free.front()};
            if (id == lowest) ++lowest;
        }
        add_block(lowest, false);
        return {lowest, 1};
    }
    void take(Place place) {
        std::erase(blocks.at(place.block).free, place.slot);
        Slot& slot = at(place);
        slot.free = slot.deleted = slot.deallocated = slot.preallocated = false;
        slot.counted = false;
        slot.count = 1;
        slot.word = 0;
    }
    void enter(Place place, UINT32 word, UINT32 bucket) {
        Slot& slot = at(place);
        slot.word = word;
        slot.bucket = bucket;
        slot.counted = true;
        buckets[bucket].push_back(place);
        ++stats[1];
    }
    void allocate(Place place) {
        take(place);
        preallocate(place);
    }
    void open(Place place, UINT32 word, UINT32 bucket) {
        std::erase(allocated, place);
        --stats[2];
        at(place).preallocated = false;
        at(place).count = 1;
        enter(place, word, bucket);
    }
    void end(Place place, bool deallocates) {
        Slot& slot = at(place);
        if (!slot.deleted && !slot.deallocated) {
            if (slot.preallocated) {
                std::erase(allocated, place);
                --stats[2];
                if (!deallocates) slot.preallocated = false;
            } else {
                std::erase(buckets[slot.bucket], place);
            }
            (deallocates ? slot.deallocated : slot.deleted) = true;
        }
        drop(place);
    }
    void drop(Place place) {
        Slot& slot = at(place);
        if (slot.count != 0 && --slot.count != 0) return;
        if (slot.deleted)
            finish_deletion(place);
        else if (slot.deallocated)
            finish_deallocation(place);
    }

    std::map<UINT32, Block> blocks;
    std::vector<UINT32> deletions, deallocations;
    std::deque<Place> allocated;
    UINT32 stats[3] = {};

  private:
    void add_block(UINT32 id, bool permanent) {
        Block& block = blocks[id];
        block.slots.resize(shape_.per_block);
        block.permanent = permanent;
        for (UINT32 slot = 1; slot <= shape_.per_block; ++slot)
            block.free.push_back(slot);
        stats[0] += shape_.per_block;
    }
    UINT32 behind(std::map<UINT32, Block>::iterator block, UINT32 slot) {
        if (slot < shape_.per_block) return osal::make_handle(block->first, 0, slot + 1);
        const auto next = std::next(block);
        return osal::make_handle(next != blocks.end() ? next->first : block->first + 1, 0, 1);
    }
    void preallocate(Place place) {
        at(place).preallocated = true;
        at(place).counted = false;
        allocated.push_back(place);
        ++stats[2];
    }
    void finish_deletion(Place place) {
        Slot& slot = at(place);
        deletions.push_back(slot.word);
        if (slot.counted) --stats[1];
        ++slot.generation;
        slot.free = true;
        slot.deleted = false;
        Block& block = blocks.at(place.block);
        block.free.push_back(place.slot);
        if (block.free.size() < shape_.per_block || block.permanent) return;
        stats[0] -= shape_.per_block;
        blocks.erase(place.block);
    }
    void finish_deallocation(Place place) {
        Slot& slot = at(place);
        deallocations.push_back(slot.word);
        if (slot.counted) --stats[1];
        ++slot.generation;
        slot.deallocated = false;
        preallocate(place);
    }

    const Shape shape_;
    std::vector<std::vector<Place>> buckets;
};

struct Config {
    const char* name;
    Shape shape;
};
const Config kConfigs[] = {
    {"ReadWriteLocks", {.per_block = 3, .level = 0, .buckets = 5, .permanent = 2}},
    {"SpinLevel", {.per_block = 16, .level = 2, .buckets = 1}},
    {"Mutexes", {.per_block = 1, .level = 3, .buckets = 1}},
    {"ReadWriteLocksDeferred", {.per_block = 1, .level = 0x10000000, .buckets = 3}},
    {"SpinLevelDeferred", {.per_block = 4, .level = 0x20000002, .buckets = 1, .permanent = 1}},
    {"MutexesDeferred", {.per_block = 255, .level = 0x80000003, .buckets = 2}}};

constexpr UINT32 kMostObjects = 300;

class ObjectModel : public ServiceTest, public testing::WithParamInterface<Config> {
  protected:
    ObjectModel() : shape(GetParam().shape), model(shape) {
        calls = &recorded;
        before = holdings();
        const char* given = std::getenv("OSAL_TEST_SEED");
        const UINT32 seed = given != nullptr ? static_cast<UINT32>(std::strtoul(given, nullptr, 0))
                                             : std::random_device()();
        printf("seed %u\n", seed);
        random.seed(seed);
        make();
    }
    void make() {
        LCM_IClassFactory* factory = object_factory();
        void* made = nullptr;
        ASSERT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IObjectManager_1, &made),
                  KC_OK);
        om = static_cast<IOM*>(made);
        info = static_cast<pObjectInfo>(made);
        ASSERT_EQ(
            om->lpVtbl->Initialize(om, shape.size, shape.per_block, shape.level, shape.buckets,
                                   on_delete, on_deallocate, nullptr, shape.permanent),
            KC_OK);
    }

    UINT32 below(UINT32 limit) { return random() % limit; }
    // A slot of any block that is in use; mostly there is one.
    std::optional<Place> some_object() {
        if (model.blocks.empty()) return {};
        auto block = model.blocks.lower_bound(below(model.blocks.rbegin()->first + 1));
        const UINT32 first = below(shape.per_block);
        for (UINT32 i = 0; i < shape.per_block; ++i) {
            const UINT32 slot = (first + i) % shape.per_block + 1;
            if (!model.at({block->first, slot}).free) return Place{block->first, slot};
        }
        return {};
    }
    static KCSTATUS set_word(PVOID data, PVOID word) {
        word_of(data) = *static_cast<UINT32*>(word);
        return calls->init_result;
    }
    // Lets the deletion thread come to rest, so that model and instance can be compared.
    void settle() {
        while (osal::load(numScheduledDelObjects) != 0 || osal::load(info->objDeleteActive))
            sched_yield();
        std::lock_guard lock(recorded.mutex);
        EXPECT_EQ(recorded.deleted, model.deletions);
        EXPECT_EQ(recorded.deallocated, model.deallocations);
        recorded.deleted.clear();
        recorded.deallocated.clear();
        model.deletions.clear();
        model.deallocations.clear();
    }
    void release_access(PVOID data, UINT32 access) {
        if (access != 0) {
            EXPECT_EQ(om->lpVtbl->ReleaseObject(om, data), KC_OK);
        }
    }

    void note(Place place, PVOID data) {
        model.at(place).data = data;
        HANDLE handle = nullptr;
        EXPECT_EQ(om->lpVtbl->GetObjectHandle(om, data, &handle), KC_OK);
        EXPECT_EQ(osal::handle_word(handle), model.handle(place));
    }
    void expect_refused(KCSTATUS status, UINT32 code) { EXPECT_EQ(status, object_error(code)); }
    void create() {
        UINT32 word = 1 + below(400);
        const UINT32 bucket = word % shape.buckets, access = below(3), open_access = below(3);
        const bool fails = below(20) == 0, compares = below(3) != 0;
        recorded.init_result = fails ? 0xC0000055 : KC_OK;
        PVOID data = nullptr;
        UINT32 mode = 0;
        const KCSTATUS status =
            om->lpVtbl->CreateObject(om, &word, write_word, &word, compares ? same_word : nullptr,
                                     bucket, access, open_access, &data, &mode);
        const auto found = compares ? model.find(word, bucket) : std::nullopt;
        const Place place = found ? *found : model.choose();
        if (!found && fails) {
            EXPECT_EQ(status, 0xC0000055);
            put_back(place);
            return;
        }
        ASSERT_EQ(status, KC_OK);
        Slot& slot = model.at(place);
        EXPECT_EQ(mode, found && slot.ready ? 2u : 1u);
        if (found) {
            ++slot.count;
        } else {
            model.take(place);
            model.enter(place, word, bucket);
        }
        release_access(data, mode == 1 ? access : open_access);
        slot.ready = true;
        note(place, data);
    }
    void put_back(Place place) {
        auto& free = model.blocks.at(place.block).free;
        std::erase(free, place.slot);
        free.push_back(place.slot);
    }
    void create_by_handle() {
        const UINT32 slot_number = below(shape.per_block + 2), id = below(40);
        const UINT32 handle = osal::make_handle(id, static_cast<UCHAR>(random()), slot_number);
        UINT32 word = 1 + below(400), mode = 9;
        recorded.init_result = KC_OK;
        PVOID data = nullptr;
        const KCSTATUS status = om->lpVtbl->CreateObjectByHandle(
            om, osal::handle_from(handle), &word, write_word, 0, 0, &data, &mode);
        if (shape.buckets != 1) return expect_refused(status, 4);
        if (slot_number == 0 || slot_number > shape.per_block) return expect_refused(status, 3);
        if (id == 0) return expect_refused(status, 5);
        ASSERT_EQ(status, KC_OK);
        const Place place = {id, slot_number};
        if (!model.blocks.contains(id)) model.add_free_block(id);
        Slot& slot = model.at(place);
        EXPECT_EQ(mode, slot.free ? 1u : 2u);
        if (slot.free) {
            model.take(place);
            model.enter(place, word, 0);
        } else {
            ++slot.count;
        }
        slot.generation = osal::handle_generation(handle);
        note(place, data);
    }
    void allocate() {
        const Place place = model.choose();
        PVOID data = nullptr;
        ASSERT_EQ(om->lpVtbl->AllocateObject(om, &data), KC_OK);
        model.allocate(place);
        note(place, data);
    }
    void open() {
        UINT32 word = 1 + below(400);
        const UINT32 bucket = word % shape.buckets, access = below(3), open_access = below(3);
        recorded.init_result = KC_OK;
        PVOID data = nullptr;
        UINT32 mode = 0;
        const KCSTATUS status = om->lpVtbl->OpenObject(om, &word, set_word, &word, same_word,
                                                       bucket, access, open_access, &data, &mode);
        const auto found = model.find(word, bucket);
        if (!found && model.allocated.empty()) return expect_refused(status, 4099);
        ASSERT_EQ(status, KC_OK);
        const Place place = found ? *found : model.allocated.front();
        Slot& slot = model.at(place);
        EXPECT_EQ(mode, found && slot.ready ? 2u : 1u);
        if (found)
            ++slot.count;
        else
            model.open(place, word, bucket);
        release_access(data, mode == 1 ? access : open_access);
        slot.ready = true;
        note(place, data);
    }
    void reference() {
        const auto some = some_object();
        UINT32 handle = some && below(4) != 0 ? model.handle(*some) : random() & 0x1F03001F;
        const auto found = model.resolve(handle);
        const UINT32 access = found && !model.at(*found).deallocated ? below(3) : 0;
        PVOID data = nullptr;
        const KCSTATUS status =
            om->lpVtbl->ReferenceObjectByHandle(om, osal::handle_from(handle), access, &data);
        EXPECT_EQ(status, found ? KC_OK : object_error(3));
        if (!found) return;
        EXPECT_EQ(data, model.at(*found).data);
        ++model.at(*found).count;
        release_access(data, access);
    }
    void find() {
        UINT32 word = 1 + below(400);
        const UINT32 bucket = word % shape.buckets;
        const auto found = model.find(word, bucket);
        const UINT32 access = found && model.at(*found).ready ? below(3) : 0;
        PVOID data = nullptr;
        const KCSTATUS status = om->lpVtbl->FindObject(om, &word, same_word, bucket, access, &data);
        EXPECT_EQ(status, found ? KC_OK : object_error(11));
        if (!found) return;
        EXPECT_EQ(data, model.at(*found).data);
        ++model.at(*found).count;
        release_access(data, access);
    }
    void enumerate() {
        if (below(10) == 0) resume = 0;
        HANDLE scan = osal::handle_from(resume);
        const auto found = model.scan(&resume);
        const bool lockable = found && model.at(*found).ready && !model.at(*found).preallocated;
        const UINT32 access = lockable ? below(3) : 0;
        PVOID data = nullptr;
        const KCSTATUS status =
            om->lpVtbl->EnumerateObjects(om, &scan, nullptr, nullptr, access, &data);
        EXPECT_EQ(status, found ? KC_OK : object_error(9));
        EXPECT_EQ(osal::handle_word(scan), resume);
        if (!found) {
            resume = 0;
            return;
        }
        EXPECT_EQ(data, model.at(*found).data);
        ++model.at(*found).count;
        release_access(data, access);
    }
    // Gives references back, with and without the object's lock, ended or not.
    void give_back(bool ends) {
        const auto some = some_object();
        if (!some) return;
        const PVOID data = model.at(*some).data;
        const UINT32 access = below(3);
        const bool deallocates = below(4) == 0;
        if (access != 0) om->lpVtbl->AcquireObject(om, data, access);
        if (!ends) {
            EXPECT_EQ(om->lpVtbl->DereferenceObject(om, data, access), KC_OK);
            model.drop(*some);
        } else {
            const auto operation =
                deallocates ? om->lpVtbl->DeallocateObject : om->lpVtbl->DeleteObject;
            EXPECT_EQ(operation(om, data, access), KC_OK);
            model.end(*some, deallocates);
        }
    }
    void step() {
        // The model walks its blocks, so there must not be too many of them in a long run.
        if (model.stats[1] + model.stats[2] > kMostObjects) return give_back(true);
        switch (below(16)) {
            case 0:
            case 1:
            case 2:
                return create();
            case 3:
                return create_by_handle();
            case 4:
                return allocate();
            case 5:
                return open();
            case 6:
            case 7:
                return reference();
            case 8:
                return find();
            case 9:
                return enumerate();
            case 10:
            case 11:
            case 12:
                return give_back(false);
            default:
                return give_back(true);
        }
    }
    void compare_stats() {
        UINT32 stats[3];
        EXPECT_EQ(om->lpVtbl->GetObjectStats(om, &stats[0], &stats[1], &stats[2]), KC_OK);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(stats[i], model.stats[i]) << "figure " << i;
    }
    // Every block, every list of free slots in its order, every slot.
    void compare_all() {
        auto* link = info->blockList.Flink;
        for (auto& [id, block] : model.blocks) {
            ASSERT_NE(link, &info->blockList);
            pBlockHeader bh = osal::linked_block(link);
            ASSERT_EQ(bh->blockId, id);
            ASSERT_EQ(bh->freeObjectCount, block.free.size());
            auto* free = bh->freeList.Flink;
            for (UINT32 slot : block.free) {
                ASSERT_EQ(osal::linked_object(free)->handleIndex, slot);
                free = free->Flink;
            }
            ASSERT_EQ(free, &bh->freeList);
            for (UINT32 slot = 1; slot <= shape.per_block; ++slot) {
                pObject ob = osal::slot_of(info, bh, slot);
                ASSERT_EQ(osal::handle_of(ob), model.handle({id, slot}));
                if (!model.at({id, slot}).free) {
                    ASSERT_EQ(ob->instanceCount, model.at({id, slot}).count);
                }
            }
            link = link->Flink;
        }
        ASSERT_EQ(link, &info->blockList);
        ASSERT_EQ(length_of(info->allocatedList), model.allocated.size());
    }
    // Everything left is deleted, with its references.
    void end_all() {
        while (!model.blocks.empty()) {
            std::vector<Place> live;
            for (auto& [id, block] : model.blocks)
                for (UINT32 slot = 1; slot <= shape.per_block; ++slot)
                    if (!model.at({id, slot}).free) live.push_back({id, slot});
            if (live.empty()) break;
            for (Place place : live) {
                EXPECT_EQ(om->lpVtbl->DeleteObject(om, model.at(place).data, 0), KC_OK);
                model.end(place, false);
                settle();
            }
        }
    }

    const Shape shape;
    Model model;
    Calls recorded;
    Holdings before;
    StatusRecorder statuses;
    std::mt19937 random;
    IOM* om = nullptr;
    pObjectInfo info = nullptr;
    UINT32 resume = 0;
};

#ifndef OSAL_MODEL_OPERATIONS
#define OSAL_MODEL_OPERATIONS 50'000
#endif

void run(UINT32 operations, const std::function<void(UINT32)>& step) {
    if (const char* given = std::getenv("OSAL_TEST_OPERATIONS"))
        operations = static_cast<UINT32>(std::strtoul(given, nullptr, 0));
    for (UINT32 i = 0; i < operations && !testing::Test::HasFailure(); ++i)
        step(i);
}

TEST_P(ObjectModel, AgreesOverRandomOperations) {
    const bool deferred = (shape.level & 0xF0000000) != 0;  // a thread for each deletion
    run(deferred ? OSAL_MODEL_OPERATIONS / 5 : OSAL_MODEL_OPERATIONS, [&](UINT32 i) {
        step();
        settle();
        compare_stats();
        if (i % 2000 == 0) compare_all();
        statuses.take();
    });
    end_all();
    compare_stats();
    compare_all();
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    EXPECT_TRUE(eventually([&] { return holdings() == before; })) << "something was kept";
}

// Released in the middle of it all: every object's delete routine has run once when the last
// reference is given back, and nothing is kept.
TEST_P(ObjectModel, ATeardownInTheMiddleKeepsNothing) {
    run(3'000, [&](UINT32) {
        step();
        settle();
    });
    std::vector<Place> held;
    std::size_t objects = 0;
    for (auto& [id, block] : model.blocks)
        for (UINT32 slot = 1; slot <= shape.per_block; ++slot) {
            const Slot& found = model.at({id, slot});
            if (found.free) continue;
            ++objects;
            const bool listed = found.preallocated && !found.deallocated;
            if (found.count != 0 && !listed) held.push_back({id, slot});
        }
    statuses.take();
    EXPECT_EQ(om->lpVtbl->Release(om), 0u);
    for (Place place : held)
        for (UINT32 i = model.at(place).count; i > 0; --i)
            EXPECT_EQ(om->lpVtbl->DereferenceObject(om, model.at(place).data, 0), KC_OK);
    EXPECT_TRUE(eventually([&] { return holdings() == before; })) << "something was kept";
    EXPECT_EQ(recorded.deletions().size(), objects);
    EXPECT_EQ(recorded.deallocations().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(With, ObjectModel, testing::ValuesIn(kConfigs),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace osal_test
