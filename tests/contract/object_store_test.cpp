// The object store: initialisation, blocks, handles, and the teardown of an instance.
#include <set>

#include "support/faults.h"
#include "support/object_test.h"

namespace osal_test {
namespace {

using Numbers = std::vector<UINT32>;

class ObjectStore : public ObjectTest {};
OSAL_ALL_FACES(ObjectStore);

// --- Initialisation ---

TEST_P(ObjectStore, InitialisationKeepsWhatItIsTold) {
    start({.size = 20, .per_block = 7, .level = 3, .buckets = 5});
    EXPECT_EQ(info->flags, OI_FLAG_INITIALIZED);
    EXPECT_EQ(info->pIOsal, pIOsal);
    EXPECT_EQ(info->objectSize, 76u);
    EXPECT_EQ(info->stride, 80u);
    EXPECT_EQ(info->objectsPerBlock, 7u);
    EXPECT_EQ(info->poolType, PagedPool);
    EXPECT_EQ(info->accessLevel, 3u);
    EXPECT_EQ(info->hashSize, 5u);
    EXPECT_EQ(info->pfDelete, &on_delete);
    EXPECT_EQ(info->pfDeallocate, &on_deallocate);
    EXPECT_EQ(info->objDeleteWorkHandle, nullptr);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
    EXPECT_EQ(holdings().values[3], before.values[3] + 1) << "mutexes";
}

TEST_P(ObjectStore, TheDebugRoutineIsNotKept) {
    ASSERT_EQ(om.Initialize(info, 8, 1, 0, 1, nullptr, nullptr, &on_delete, 0), KC_OK);
    EXPECT_EQ(info->pfDebug, nullptr);
}

TEST_P(ObjectStore, ASecondInitialisationIsRefused) {
    start();
    EXPECT_EQ(initialize({}), object_error(0x1001));
    expect_built(0x1001, "../objint", "InternalInitialize", 88);
}

TEST_P(ObjectStore, InitialisingNoInstanceIsAnInvalidArgument) {
    EXPECT_EQ(om.Initialize(nullptr, 8, 1, 0, 1, nullptr, nullptr, nullptr, 0), object_error(4));
    expect_built(4, "../objint", "InternalInitialize", 132);
}

TEST_P(ObjectStore, AFailedInitialisationCannotBeRepeated) {
    EXPECT_EQ(initialize({.level = 1}), object_error(4));
    expect_built(4, "../objint", "InternalInitialize", 132);
    EXPECT_EQ(info->flags, OI_FLAG_INITIALIZED);
    EXPECT_EQ(initialize({}), object_error(0x1001));
    expect_built(0x1001, "../objint", "InternalInitialize", 88);
}

TEST_P(ObjectStore, UnknownLevelsAreRefused) {
    for (UINT32 level : {1u, 4u, 0x0FFFFFFFu, 0x10000001u}) {
        EXPECT_EQ(initialize({.level = level}), object_error(4)) << level;
        expect_built(4, "../objint", "InternalInitialize", 132);
        EXPECT_EQ(release(), 0u);
        make();
    }
}

TEST_P(ObjectStore, AtMost255ObjectsFitIntoABlock) {
    EXPECT_EQ(initialize({.per_block = 256}), object_error(4));
    expect_built(4, "../objint", "InternalInitialize", 132);
    release();
    make();
    EXPECT_EQ(initialize({.per_block = 256, .level = 3}), object_error(4));
    expect_built(4, "../objint", "InternalInitialize", 132);
    release();
    make();
    EXPECT_EQ(initialize({.per_block = 255}), KC_OK);
    PVOID data = create(1);
    EXPECT_EQ(stats(), (Stats{255, 1, 0}));
    end(data);
}

TEST_P(ObjectStore, ABlockOfNoObjectsCannotBeMade) {
    start({.per_block = 0});
    PVOID data = nullptr;
    EXPECT_EQ(om.AllocateObject(info, &data), object_error(5));
    expect_built(5, "ObjectAllocate", 1927);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectStore, ObjectsTooLargeForABlockCannotBeMade) {
    start({.size = 0xFFFFFFF8, .per_block = 3});
    PVOID data = nullptr;
    UINT32 word = 1;
    EXPECT_EQ(om.CreateObject(info, &word, write_word, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(5));
    expect_built(5, "ObjectCreate", 406);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectStore, TooManyBucketsAreNotAllocated) {
    EXPECT_EQ(initialize({.buckets = 0xFFFFFFFF, .permanent = 2}), object_error(5));
    expect_built(5, "../objint", "InternalInitialize", 261);
    EXPECT_EQ(block_ids(), (Numbers{1, 2})) << "the blocks are made before the failure is told";
}

TEST_P(ObjectStore, NoBucketsMeansOne) {
    start({.buckets = 0});
    EXPECT_EQ(info->hashSize, 1u);
    PVOID data = create(1, 0);
    EXPECT_EQ(find(1, 0), data);
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectStore, TheTopBitsOfTheLevelAskForDeferredDeletion) {
    start({.level = 0x10000000});
    EXPECT_EQ(info->flags, OI_FLAG_INITIALIZED | OI_FLAG_DEFERRED_DELETE);
    EXPECT_EQ(info->accessLevel, 0u);
    EXPECT_NE(info->objDeleteWorkHandle, nullptr);
    EXPECT_EQ(holdings().values[2], before.values[2] + 1) << "read/write locks";
    EXPECT_EQ(holdings().values[5], before.values[5] + 1) << "work items";
}

TEST_P(ObjectStore, AnyOfTheTopBitsWillDo) {
    for (UINT32 level : {0x20000000u, 0x40000000u, 0x80000000u, 0xF0000000u}) {
        start({.level = level});
        EXPECT_EQ(info->flags, OI_FLAG_INITIALIZED | OI_FLAG_DEFERRED_DELETE);
        release();
        make();
    }
}

TEST_P(ObjectStore, AnInstanceWithMutexesGetsNoWorkItem) {
    start({.level = 0x10000003});
    EXPECT_EQ(info->flags, OI_FLAG_INITIALIZED | OI_FLAG_DEFERRED_DELETE);
    EXPECT_EQ(info->objDeleteWorkHandle, nullptr);
    EXPECT_EQ(holdings().values[5], before.values[5]);
}

TEST_P(ObjectStore, TheSpinLevelWorksWithReadWriteLocksInThePagedPool) {
    start({.level = 2});
    EXPECT_EQ(info->accessLevel, 0u);
    EXPECT_EQ(info->poolType, PagedPool);
    PVOID data = create(1);
    EXPECT_EQ(holdings().values[2], before.values[2] + 2) << "read/write locks";
    EXPECT_EQ(holdings().values[4], before.values[4]) << "spin locks";
    end(data);
}

TEST_P(ObjectStore, AnUnknownPoolIsRefused) {
    EXPECT_EQ(InternalInitialize(info, 8, 1, 2, 0, 1, nullptr, nullptr, nullptr, 0),
              object_error(4));
    expect_built(4, "../objint", "InternalInitialize", 132);
}

TEST_P(ObjectStore, BlocksAndBucketsComeFromThePoolAskedFor) {
    ASSERT_EQ(InternalInitialize(info, 8, 2, NonPagedPool, 0, 3, nullptr, nullptr, nullptr, 1),
              KC_OK);
    EXPECT_EQ(holdings().values[1], before.values[1]) << "paged";
    EXPECT_EQ(holdings().values[0],
              before.values[0] + sizeof(ObjectInfo) + 3 * sizeof(LIST_ENTRY) + 48 + 2 * 64);
}

TEST_P(ObjectStore, PermanentBlocksAreMadeAtOnceAndStay) {
    start({.per_block = 2, .permanent = 3});
    EXPECT_EQ(block_ids(), (Numbers{1, 2, 3}));
    EXPECT_EQ(stats(), (Stats{6, 0, 0}));
    PVOID data = create(1);
    EXPECT_EQ(flags(data), OBJ_FLAG_PERMANENT | OBJ_FLAG_IN_USE | OBJ_FLAG_READY);
    end(data);
    EXPECT_EQ(block_ids(), (Numbers{1, 2, 3}));
    EXPECT_EQ(block(1)->freeObjectCount, 2u);
    EXPECT_EQ(stats(), (Stats{6, 0, 0}));
}

TEST_P(ObjectStore, MorePermanentBlocksThanIdsFailAfterWhatFits) {
    EXPECT_EQ(initialize({.size = 0, .per_block = 1, .permanent = 65536}), object_error(5));
    expect_built(5, "../objint", "InternalInitialize", 261);
    const Numbers ids = block_ids();
    EXPECT_EQ(ids.size(), 65535u);
    EXPECT_EQ(ids.back(), 65535u);
}

// Heap requests of an initialisation: the lock, (the work item,) the buckets, the blocks.
TEST_P(ObjectStore, AnInitialisationWithoutMemoryFailsAndLeaksNothing) {
    struct Case {
        UINT32 level;
        int request;
        UINT32 line;
        UINT32 blocks;
    };
    for (const Case& failure : {Case{0, 1, 203, 0}, Case{3, 1, 203, 0}, Case{0x10000000, 1, 203, 0},
                                Case{0x10000000, 2, 203, 0}, Case{0, 2, 261, 2}, Case{0, 3, 261, 0},
                                Case{0, 4, 261, 1}}) {
        {
            HeapFault no_memory(failure.request);
            EXPECT_EQ(initialize({.level = failure.level, .permanent = 2}), object_error(5));
        }
        const auto built = statuses.take();
        ASSERT_FALSE(built.empty());
        EXPECT_EQ(built.back().file, "../objint");
        EXPECT_EQ(built.back().function, "InternalInitialize");
        EXPECT_EQ(built.back().line, failure.line) << failure.level << " " << failure.request;
        EXPECT_EQ(block_ids().size(), failure.blocks) << failure.level << " " << failure.request;
        EXPECT_EQ(info->flags & OI_FLAG_INITIALIZED, OI_FLAG_INITIALIZED);
        if (failure.line == 203) {
            EXPECT_EQ(info->protect.handle, nullptr);
        }
        EXPECT_EQ(release(), 0u);
        EXPECT_EQ(holdings(), before);
        make();
    }
}

TEST_P(ObjectStore, AnInstanceThatFailedToInitialiseRefusesWithoutHarm) {
    EXPECT_EQ(initialize({.level = 1}), object_error(4));
    PVOID data = nullptr;
    HANDLE scan = nullptr;
    EXPECT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 0, &data), object_error(4));
    EXPECT_EQ(om.OpenObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x01010001), nullptr, nullptr, 0, 0,
                                      &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.AllocateObject(info, &data), object_error(5));
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle_from(0x01010001), 0, &data), object_error(3));
    EXPECT_EQ(om.EnumerateObjects(info, &scan, nullptr, nullptr, 0, &data), object_error(9));
    EXPECT_EQ(data, nullptr);
}

// --- Blocks and slots ---

TEST_P(ObjectStore, ANewBlockHoldsFreeSlotsInAddressOrder) {
    start({.size = 12, .per_block = 3});
    PVOID data = create(1);
    pBlockHeader bh = block(1);
    ASSERT_NE(bh, nullptr);
    EXPECT_EQ(bh->oi, info);
    EXPECT_EQ(bh->freeObjectCount, 2u);
    EXPECT_EQ(length_of(bh->freeList), 2u);
    EXPECT_EQ(static_cast<void*>(osal::object_of(data)), bh + 1);
    for (UINT32 number = 1; number <= 3; ++number) {
        pObject ob = osal::slot_of(info, bh, number);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(ob) % 8, 0u);
        EXPECT_EQ(ob->handleId, 1u);
        EXPECT_EQ(ob->handleInstance, 1u);
        EXPECT_EQ(ob->handleIndex, number);
        EXPECT_EQ(ob->blockStart, bh);
        if (number > 1) {
            EXPECT_EQ(ob->flags, OBJ_FLAG_FREE);
            EXPECT_EQ(ob->protect.handle, nullptr);
            EXPECT_EQ(ob->instanceCount, 0u);
        }
    }
    end(data);
}

TEST_P(ObjectStore, SlotsAreAlignedWhateverTheSizeOfTheData) {
    for (UINT32 size : {1u, 7u, 8u, 9u, 65u}) {
        start({.size = size, .per_block = 3, .routines = false});
        PVOID data[3] = {};
        for (PVOID& item : data) {
            ASSERT_EQ(
                om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &item, nullptr),
                KC_OK);
            memset(item, 0xEE, size);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(item) % 8, 0u);
        }
        EXPECT_EQ(info->objectSize, size + 56);
        for (PVOID item : data)
            end(item);
        release();
        make();
    }
}

TEST_P(ObjectStore, TheLowestFreeBlockIdIsUsedAgainAndTheListStaysSorted) {
    start({.per_block = 1});
    PVOID one = create(1), two = create(2), three = create(3);
    EXPECT_EQ(block_ids(), (Numbers{1, 2, 3}));
    end(two);
    EXPECT_EQ(block_ids(), (Numbers{1, 3}));
    two = create(4);
    EXPECT_EQ(block_ids(), (Numbers{1, 2, 3}));
    EXPECT_EQ(osal::object_of(two)->handleId, 2u);
    end(one);
    one = create(5);
    EXPECT_EQ(osal::object_of(one)->handleId, 1u);
    for (PVOID data : {one, two, three})
        end(data);
    EXPECT_EQ(block_ids(), Numbers{});
}

TEST_P(ObjectStore, TheLowestBlockWithRoomSuppliesTheSlotAndItsOldestFreeSlotComesFirst) {
    start({.per_block = 2});
    PVOID data[6];
    for (UINT32 i = 0; i < 6; ++i)
        data[i] = create(i + 1);
    end(data[5]);
    end(data[3]);
    end(data[1]);
    PVOID again = create(9);
    EXPECT_EQ(again, data[1]);
    end(data[0]);
    end(again);  // the whole of block 1
    EXPECT_EQ(block_ids(), (Numbers{2, 3}));
    EXPECT_EQ(create(10), data[3]) << "block 2 has room, so block 1 is not made anew";
    for (int i : {2, 3, 4})
        end(data[i]);
}

TEST_P(ObjectStore, ABlockGoesWhenItIsWhollyFree) {
    start({.per_block = 2});
    PVOID one = create(1), two = create(2);
    end(one);
    EXPECT_EQ(stats(), (Stats{2, 1, 0}));
    end(two);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
    EXPECT_EQ(block_ids(), Numbers{});
}

TEST_P(ObjectStore, AllIdsCanBeInUseAndNoMore) {
    start({.size = 0, .per_block = 1, .routines = false});
    std::vector<PVOID> data(65535);
    for (PVOID& item : data)
        ASSERT_EQ(
            om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &item, nullptr),
            KC_OK);
    EXPECT_EQ(osal::object_of(data.back())->handleId, 65535u);
    PVOID more = nullptr;
    expect_nothing_built();
    EXPECT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &more, nullptr),
              object_error(5));
    expect_built(5, "ObjectCreate", 406);
    EXPECT_EQ(om.AllocateObject(info, &more), object_error(5));
    expect_built(5, "ObjectAllocate", 1927);
    for (UINT32 gap : {65535u, 40000u, 256u, 255u, 1u}) {
        end(data[gap - 1]);
        EXPECT_EQ(om.AllocateObject(info, &data[gap - 1]), KC_OK);
        EXPECT_EQ(osal::object_of(data[gap - 1])->handleId, gap);
    }
    for (PVOID item : data)
        end(item);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

// --- Handles ---

TEST_P(ObjectStore, AHandleIsMadeOfBlockGenerationAndSlot) {
    start({.per_block = 2});
    PVOID data[3] = {create(1), create(2), create(3)};
    EXPECT_EQ(raw(data[0]), 0x01010001u);
    EXPECT_EQ(raw(data[1]), 0x02010001u);
    EXPECT_EQ(raw(data[2]), 0x01010002u);
    end(data[1]);
    PVOID again = create(4);
    EXPECT_EQ(raw(again), 0x02020001u);
    for (PVOID item : {data[0], again, data[2]})
        end(item);
}

TEST_P(ObjectStore, AStaleHandleIsRefusedUntilTheGenerationWraps) {
    start({.per_block = 2});
    PVOID keeper = create(1);
    PVOID data = create(2);
    const HANDLE stale = handle_of(data);
    for (int reuse = 1; reuse <= 300; ++reuse) {
        end(data);
        EXPECT_EQ(reference(stale), nullptr) << "of a free slot";
        data = create(3);
        PVOID found = reference(stale);
        EXPECT_EQ(found, reuse == 256 ? data : nullptr) << reuse;
        if (found != nullptr) om.DereferenceObject(info, found, 0);
    }
    expect_nothing_built();
    end(data);
    end(keeper);
}

TEST_P(ObjectStore, HandlesOfFreedBlocksAreRefused) {
    start({.per_block = 1});
    PVOID data = create(1);
    const HANDLE handle = handle_of(data);
    end(data);
    EXPECT_EQ(reference(handle), nullptr);
    EXPECT_EQ(reference(handle_from(0x01010009)), nullptr);
    EXPECT_EQ(reference(handle_from(0x0101FFFF)), nullptr);
    EXPECT_EQ(reference(handle_from(0x01010000)), nullptr);
    expect_nothing_built();
}

TEST_P(ObjectStore, OnlySlotsThatExistAreLookedAt) {
    for (UINT16 per_block : {1, 3, 128, 254, 255}) {
        start({.per_block = per_block});
        PVOID data = create(1);
        for (UINT32 slot = 0; slot < 256; ++slot) {
            PVOID found = reference(handle_from(0x00010001 | slot << 24));
            EXPECT_EQ(found, slot == 1 ? data : nullptr) << slot << " of " << per_block;
            if (found != nullptr) om.DereferenceObject(info, found, 0);
        }
        expect_nothing_built();
        end(data);
        release();
        make();
    }
}

TEST_P(ObjectStore, RandomHandlesNeverNameAnythingElse) {
    start({.per_block = 37, .routines = false});
    std::set<UINT32> live;
    for (UINT32 i = 0; i < 1000; ++i)
        live.insert(raw(create(i)));
    UINT64 random = 88172645463325252;
    for (int i = 0; i < 1'000'000; ++i) {
        random ^= random << 13;
        random ^= random >> 7;
        random ^= random << 17;
        // Half of them near the truth: few blocks, first generations.
        const auto handle = static_cast<UINT32>(i % 2 != 0 ? random : random & 0xFF03001F);
        PVOID found = reference(handle_from(handle));
        ASSERT_EQ(found != nullptr, live.contains(handle)) << std::hex << handle;
        if (found != nullptr) om.DereferenceObject(info, found, 0);
    }
    HANDLE scan = nullptr;
    PVOID data = nullptr;
    while (om.EnumerateObjects(info, &scan, nullptr, nullptr, 0, &data) == KC_OK) {
        om.DereferenceObject(info, data, 0);
        end(data);
    }
}

// --- Teardown ---

TEST_P(ObjectStore, ReleasingAnInstanceDeletesWhatNobodyReferences) {
    start({.per_block = 2});
    for (UINT32 word : {1, 2, 3})
        om.DereferenceObject(info, create(word), 0);
    EXPECT_EQ(stats().in_use, 3u) << "a count of zero alone frees nothing";
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2, 3}));
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, TearingDownPreallocatedObjectsLeavesTheCountOfThoseInUse) {
    start();
    pObjectInfo kept = info;
    PVOID data = create(1);
    allocate(2);
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(recorded.deletions(), (std::vector<UINT32>{2}));
    UINT32 in_use = 99, preallocated = 99;
    EXPECT_EQ(om.GetObjectStats(kept, nullptr, &in_use, &preallocated), KC_OK);
    EXPECT_EQ(in_use, 1u);
    EXPECT_EQ(preallocated, 0u);
    EXPECT_EQ(om.DereferenceObject(kept, data, 0), KC_OK);
    expect_built(0x1004, "../object", "InternalObjectDereference", 1188);
}

TEST_P(ObjectStore, AnInstanceLivesOnWhileAnObjectIsReferenced) {
    start();
    pObjectInfo kept = info;
    PVOID data = create(7);
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(recorded.deletions(), Numbers{});
    EXPECT_EQ(word_of(data), 7u);
    EXPECT_TRUE(osal::has(osal::object_of(data), OBJ_FLAG_DELETED));
    EXPECT_NE(holdings(), before);
    expect_nothing_built();
    EXPECT_EQ(om.DereferenceObject(kept, data, 0), KC_OK);
    expect_built(0x1004, "InternalObjectDereference", 1188);
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, TheDeletionThatEndsTheInstanceSaysSo) {
    start();
    pObjectInfo kept = info;
    PVOID data = create(7);
    release();
    EXPECT_EQ(om.DeleteObject(kept, data, 0), object_error(0x1004));
    expect_built(0x1004, "ObjectDelete", 987);
    EXPECT_EQ(recorded.deletions(), Numbers{7});
}

TEST_P(ObjectStore, TheDeallocationThatEndsTheInstanceSaysSo) {
    start();
    pObjectInfo kept = info;
    PVOID data = create(7);
    release();
    EXPECT_EQ(om.DeallocateObject(kept, data, 0), object_error(0x1004));
    expect_built(0x1004, "ObjectDeallocate", 2129);
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    EXPECT_EQ(recorded.deallocations(), Numbers{});
}

TEST_P(ObjectStore, OnlyTheLastOfSeveralReferencedObjectsEndsTheInstance) {
    start({.per_block = 2});
    pObjectInfo kept = info;
    PVOID one = create(1), two = create(2), three = create(3);
    release();
    EXPECT_EQ(om.DereferenceObject(kept, two, 0), KC_OK);
    EXPECT_EQ(om.DereferenceObject(kept, one, 0), KC_OK);
    expect_nothing_built();
    EXPECT_EQ(om.DereferenceObject(kept, three, 0), KC_OK);
    expect_built(0x1004, "InternalObjectDereference", 1188);
    EXPECT_EQ(recorded.deletions(), (Numbers{2, 1, 3}));
}

TEST_P(ObjectStore, PreallocatedObjectsAreDeletedOnceWhateverTheirCount) {
    start({.per_block = 2});
    allocate(1);                                 // count 1
    om.DereferenceObject(info, allocate(2), 0);  // count 0
    om.DeallocateObject(info, allocate(3), 0);   // count 0, recycled
    PVOID more = allocate(4);
    om.IncrementReference(info, more);  // count 2
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(recorded.deallocations(), Numbers{3});
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, PreallocatedObjectsWithoutADeleteRoutineJustGo) {
    start({.per_block = 1, .routines = false});
    allocate(1);
    om.DeallocateObject(info, allocate(2), 0);
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, PermanentBlocksGoWithTheInstance) {
    start({.permanent = 300});
    PVOID data = create(1);
    end(data);
    om.DereferenceObject(info, create(2), 0);
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, APermanentBlockIsFreedByItsLastReferenceDuringTeardown) {
    start({.permanent = 2});
    pObjectInfo kept = info;
    PVOID data = create(1);
    release();
    om.DereferenceObject(kept, data, 0);
    expect_built(0x1004, "InternalObjectDereference", 1188);
    EXPECT_EQ(holdings(), before);
}

// The second holder's deallocation is pending when the instance goes: the object is deleted, not
// preallocated.
TEST_P(ObjectStore, APendingDeallocationEndsAsADeletionInTeardown) {
    start();
    pObjectInfo kept = info;
    PVOID data = create(5);
    om.IncrementReference(info, data);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    release();
    EXPECT_EQ(recorded.deletions(), Numbers{});
    om.DereferenceObject(kept, data, 0);
    EXPECT_EQ(recorded.deletions(), Numbers{5});
    EXPECT_EQ(recorded.deallocations(), Numbers{});
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectStore, APendingDeallocationOfAPreallocatedObjectEndsAsADeletionInTeardown) {
    start();
    pObjectInfo kept = info;
    PVOID data = allocate(5);
    om.IncrementReference(info, data);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    release();
    om.DereferenceObject(kept, data, 0);
    EXPECT_EQ(recorded.deletions(), Numbers{5});
    EXPECT_EQ(recorded.deallocations(), Numbers{});
    EXPECT_EQ(holdings(), before);
}

// The instance goes while the deallocate routine of its last object runs.
TEST_P(ObjectStore, ADeallocationUnderWayEndsAsADeletionInTeardown) {
    start();
    PVOID data = create(5);
    pObjectInfo kept = info;
    recorded.on_deallocate = [&](UINT32) { release(); };
    EXPECT_EQ(om.DeallocateObject(kept, data, 0), object_error(0x1004));
    expect_built(0x1004, "ObjectDeallocate", 2129);
    EXPECT_EQ(recorded.deallocations(), Numbers{5});
    EXPECT_EQ(recorded.deletions(), Numbers{5});
    EXPECT_EQ(holdings(), before);
}

// --- Lock wrapper ---

TEST_P(ObjectStore, TheLockWrapperTakesWhatTheLevelSays) {
    start();
    ProtectToken token = {};
    ASSERT_EQ(pIOsal->lpVtbl->KxAllocReadWriteLock(pIOsal, &token.handle), KC_OK);
    EXPECT_EQ(InternalAcquire(info, 0, &token, 1), TRUE);
    EXPECT_TRUE(osal::is_error(elsewhere(
        [&] { return pIOsal->lpVtbl->KxAcquireLockForReadAccess(pIOsal, token.handle, FALSE); })));
    InternalRelease(info, 0, &token);
    EXPECT_EQ(InternalAcquire(info, 0, &token, 2), TRUE);
    EXPECT_EQ(elsewhere([&] { return InternalAcquire(info, 0, &token, 2); }), TRUE);
    InternalRelease(info, 0, &token);
    InternalRelease(info, 0, &token);
    statuses.take();
    for (UINT32 access : {0u, 3u, 0xFFFFFFFFu})
        EXPECT_EQ(InternalAcquire(info, 0, &token, access), FALSE);
    for (UINT32 level : {1u, 4u, 0x10000000u}) {
        EXPECT_EQ(InternalAcquire(info, level, &token, 1), FALSE);
        InternalRelease(info, level, &token);
    }
    expect_nothing_built();
    EXPECT_EQ(pIOsal->lpVtbl->KxDestroyReadWriteLock(pIOsal, token.handle), KC_OK) << "free";
}

TEST_P(ObjectStore, TheLockWrapperTakesMutexesAndSpinLocksForAnyAccess) {
    start();
    ProtectToken mutex = {}, spin = {};
    ASSERT_EQ(pIOsal->lpVtbl->KxAllocMutex(pIOsal, 1, &mutex.handle), KC_OK);
    ASSERT_EQ(pIOsal->lpVtbl->KxAllocSpinLock(pIOsal, &spin.handle), KC_OK);
    for (UINT32 access : {0u, 1u, 2u, 9u}) {
        EXPECT_EQ(InternalAcquire(info, 3, &mutex, access), TRUE);
        EXPECT_EQ(InternalAcquire(info, 2, &spin, access), TRUE);
        EXPECT_TRUE(is_taken(osal::as<_KX_MUTEX_HANDLE_>(mutex.handle)->mutex));
        EXPECT_TRUE(is_taken(osal::as<_KX_SPINLOCK_HANDLE_>(spin.handle)->spinLock));
        InternalRelease(info, 2, &spin);
        InternalRelease(info, 3, &mutex);
    }
    EXPECT_EQ(pIOsal->lpVtbl->KxDestroyMutex(pIOsal, mutex.handle), KC_OK);
    EXPECT_EQ(pIOsal->lpVtbl->KxDestroySpinLock(pIOsal, spin.handle), KC_OK);
}

TEST_P(ObjectStore, TheLockWrapperSaysWhenThereIsNoLock) {
    start();
    ProtectToken none = {};
    EXPECT_EQ(InternalAcquire(info, 0, &none, 1), FALSE);
    EXPECT_EQ(InternalAcquire(info, 3, &none, 1), FALSE);
    EXPECT_EQ(InternalAcquire(info, 2, &none, 1), TRUE) << "spin locks are never refused";
}

}  // namespace
}  // namespace osal_test
