// Operations of the object manager that make and end objects.
#include <numeric>

#include "support/faults.h"
#include "support/object_test.h"

namespace osal_test {
namespace {

using Numbers = std::vector<UINT32>;
void* const kUntouched = reinterpret_cast<void*>(0x5A5A5A5A);

class ObjectOperations : public ObjectTest {
  protected:
    // Whether another thread could have the object's lock at once.
    bool is_free_for(PVOID data, bool exclusive) {
        const HANDLE lock = osal::object_of(data)->protect.handle;
        return elsewhere([&] {
            const KCSTATUS status =
                exclusive ? pIOsal->lpVtbl->KxAcquireLockForWriteAccess(pIOsal, lock, FALSE)
                          : pIOsal->lpVtbl->KxAcquireLockForReadAccess(pIOsal, lock, FALSE);
            if (status != KC_OK) return false;
            pIOsal->lpVtbl->KxReleaseReadWriteLock(pIOsal, lock);
            return true;
        });
    }
    void expect_access(PVOID data, UINT32 access) {
        EXPECT_EQ(is_free_for(data, true), access == 0);
        EXPECT_EQ(is_free_for(data, false), access != 1);
        statuses.take();
    }
    KCSTATUS create_or_open(UINT32 word, UINT32 create_access, UINT32 open_access, PVOID* data,
                            UINT32* mode, UINT32 bucket = 0) {
        return om.CreateObject(info, &word, write_word, &word, same_word, bucket, create_access,
                               open_access, data, mode);
    }
    KCSTATUS by_handle(UINT32 handle, PVOID* data, UINT32* mode, UINT32 create_access = 0,
                       UINT32 open_access = 0) {
        return om.CreateObjectByHandle(info, osal::handle_from(handle), nullptr, nullptr,
                                       create_access, open_access, data, mode);
    }
};
OSAL_ALL_FACES(ObjectOperations);

// --- Arguments ---

TEST_P(ObjectOperations, AnInstanceThatIsNotInitialisedRefusesEverything) {
    PVOID data = kUntouched;
    PVOID some = kUntouched;
    EXPECT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    expect_built(4, "ObjectCreate", 266);
    EXPECT_EQ(om.DeleteObject(info, some, 0), object_error(4));
    expect_built(4, "ObjectDelete", 899);
    EXPECT_EQ(om.DereferenceObject(info, some, 0), object_error(4));
    expect_built(4, "ObjectDereference", 1226);
    EXPECT_EQ(om.DecrementReference(info, some), object_error(4));
    expect_built(4, "ObjectDereference", 1226);
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x01010001), nullptr, nullptr, 0, 0,
                                      &data, nullptr),
              object_error(4));
    expect_built(4, "ObjectCreateByHandle", 643);
    EXPECT_EQ(om.AllocateObject(info, &data), object_error(4));
    expect_built(4, "ObjectAllocate", 1829);
    EXPECT_EQ(om.DeallocateObject(info, some, 0), object_error(4));
    expect_built(4, "ObjectDeallocate", 2042);
    EXPECT_EQ(data, kUntouched);
}

TEST_P(ObjectOperations, NullPointersAreRefused) {
    start();
    EXPECT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, nullptr, nullptr),
              object_error(4));
    expect_built(4, "ObjectCreate", 266);
    EXPECT_EQ(om.DeleteObject(info, nullptr, 0), object_error(4));
    expect_built(4, "ObjectDelete", 899);
    EXPECT_EQ(om.DereferenceObject(info, nullptr, 0), object_error(4));
    expect_built(4, "ObjectDereference", 1226);
    EXPECT_EQ(om.DecrementReference(info, nullptr), object_error(4));
    expect_built(4, "ObjectDereference", 1226);
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x01010001), nullptr, nullptr, 0, 0,
                                      nullptr, nullptr),
              object_error(4));
    expect_built(4, "ObjectCreateByHandle", 643);
    EXPECT_EQ(om.AllocateObject(info, nullptr), object_error(4));
    expect_built(4, "ObjectAllocate", 1829);
    EXPECT_EQ(om.DeallocateObject(info, nullptr, 0), object_error(4));
    expect_built(4, "ObjectDeallocate", 2042);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectOperations, ANullInstanceIsRefused) {
    PVOID data = kUntouched;
    EXPECT_EQ(om.CreateObject(nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.DeleteObject(nullptr, &data, 0), object_error(4));
    EXPECT_EQ(om.DereferenceObject(nullptr, &data, 0), object_error(4));
    EXPECT_EQ(om.DecrementReference(nullptr, &data), object_error(4));
    EXPECT_EQ(om.CreateObjectByHandle(nullptr, nullptr, nullptr, nullptr, 0, 0, &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.AllocateObject(nullptr, &data), object_error(4));
    EXPECT_EQ(om.DeallocateObject(nullptr, &data, 0), object_error(4));
    EXPECT_EQ(data, kUntouched);
}

// --- CreateObject ---

TEST_P(ObjectOperations, ACreatedObjectIsLiveReadyAndInItsBucket) {
    start({.buckets = 3});
    PVOID data = create(7, 2);
    pObject ob = osal::object_of(data);
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_READY);
    EXPECT_EQ(count(data), 1u);
    EXPECT_NE(ob->protect.handle, nullptr);
    EXPECT_EQ(info->pHashListArray[2].Flink, &ob->objectLink);
    EXPECT_EQ(length_of(info->pHashListArray[0]), 0u);
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    EXPECT_EQ(block(1)->freeObjectCount, 3u);
    end(data);
}

TEST_P(ObjectOperations, ObjectsJoinTheirBucketAtItsTail) {
    start();
    PVOID one = create(1), two = create(2);
    EXPECT_EQ(osal::linked_object(info->pHashListArray[0].Flink), osal::object_of(one));
    EXPECT_EQ(osal::linked_object(info->pHashListArray[0].Blink), osal::object_of(two));
    end(one);
    end(two);
}

TEST_P(ObjectOperations, DataOfAReusedSlotIsZeroed) {
    start({.size = 64, .per_block = 2});
    PVOID keeper = create(1);
    PVOID data = create(2);
    memset(data, 0xFF, 64);
    end(data);
    PVOID again = nullptr;
    ASSERT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &again, nullptr),
              KC_OK);
    EXPECT_EQ(again, data);
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(static_cast<UINT8*>(again)[i], 0);
    end(again);
    end(keeper);
}

TEST_P(ObjectOperations, CreateTakesTheAccessForItsOutcome) {
    start();
    for (UINT32 access : {0u, 1u, 2u, 5u}) {
        PVOID data = nullptr, same = nullptr;
        UINT32 mode = 99;
        const UINT32 taken = access <= 2 ? access : 0;
        ASSERT_EQ(create_or_open(10, access, 0, &data, &mode), KC_OK);
        EXPECT_EQ(mode, 1u);
        expect_access(data, taken);
        if (taken != 0) om.ReleaseObject(info, data);
        ASSERT_EQ(create_or_open(10, 0, access, &same, &mode), KC_OK);
        EXPECT_EQ(mode, 2u);
        EXPECT_EQ(same, data);
        EXPECT_EQ(count(data), 2u);
        expect_access(data, taken);
        if (taken != 0) om.ReleaseObject(info, data);
        om.DereferenceObject(info, same, 0);
        end(data);
    }
}

TEST_P(ObjectOperations, CreateWithoutACompareRoutineAlwaysCreates) {
    start();
    PVOID one = create(1), two = create(1);
    EXPECT_NE(one, two);
    end(one);
    end(two);
}

TEST_P(ObjectOperations, OnlyExactlyOneIsAMatch) {
    start();
    PVOID one = create(1), made = nullptr;
    UINT32 mode = 0;
    const auto two = [](PVOID, PVOID) -> BOOLEAN { return 2; };
    ASSERT_EQ(om.CreateObject(info, nullptr, nullptr, nullptr, +two, 0, 0, 0, &made, &mode), KC_OK);
    EXPECT_EQ(mode, 1u);
    EXPECT_NE(made, one);
    end(one);
    end(made);
}

TEST_P(ObjectOperations, CreateLooksInItsBucketOnly) {
    start({.buckets = 2});
    PVOID one = create(1, 0), other = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(create_or_open(1, 0, 0, &other, &mode, 1), KC_OK);
    EXPECT_EQ(mode, 1u);
    end(one);
    end(other);
}

TEST_P(ObjectOperations, ABucketOutOfRangeIsRefused) {
    start({.buckets = 2});
    PVOID data = kUntouched;
    for (UINT32 bucket : {2u, 3u, 0xFFFFFFFFu}) {
        EXPECT_EQ(create_or_open(1, 0, 0, &data, nullptr, bucket), object_error(4));
        expect_built(4, "ObjectCreate", 266);
    }
    EXPECT_EQ(data, kUntouched);
}

TEST_P(ObjectOperations, AnInitErrorIsReturnedUnchangedAndPutsTheSlotBack) {
    start();
    recorded.init_result = 0xC1234567;
    PVOID data = kUntouched;
    UINT32 word = 1, mode = 99;
    EXPECT_EQ(om.CreateObject(info, &word, write_word, nullptr, nullptr, 0, 1, 1, &data, &mode),
              0xC1234567u);
    expect_nothing_built();
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(mode, 99u);
    EXPECT_EQ(stats(), (Stats{4, 0, 0})) << "the new block stays";
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
    EXPECT_EQ(length_of(block(1)->freeList), 4u);
    EXPECT_EQ(osal::linked_object(block(1)->freeList.Blink)->handleIndex, 1u) << "at the tail";
    EXPECT_EQ(osal::linked_object(block(1)->freeList.Blink)->protect.handle, nullptr);
    recorded.init_result = KC_OK;
    PVOID next = create(2);
    EXPECT_EQ(raw(next), 0x02010001u);
    end(next);
}

TEST_P(ObjectOperations, AnInitStatusThatIsNoErrorIsSuccess) {
    start();
    recorded.init_result = 0x7FFFFFFF;
    PVOID data = create(1);
    end(data);
}

// Heap requests of the first creation: the block, the lock.
TEST_P(ObjectOperations, CreateWithoutMemoryFails) {
    start();
    PVOID data = kUntouched;
    for (int request : {1, 2}) {
        {
            HeapFault no_memory(request);
            EXPECT_EQ(create_or_open(1, 0, 0, &data, nullptr), object_error(5));
        }
        const auto built = statuses.take();
        EXPECT_EQ(built.back().function, "ObjectCreate");
        EXPECT_EQ(built.back().code, 5u);
        EXPECT_EQ(built.back().file, "../object");
        EXPECT_EQ(built.back().line, request == 1 ? 406u : 499u);
        EXPECT_EQ(stats(), (Stats{request == 1 ? 0u : 4u, 0, 0}));
    }
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
    EXPECT_EQ(data, kUntouched);
}

TEST_P(ObjectOperations, CreateReplacesAnObjectThatIsBeingDeleted) {
    start();
    PVOID old = create(1);
    om.IncrementReference(info, old);
    om.AcquireObject(info, old, 1);
    osal::change_flags(osal::object_of(old), 0, OBJ_FLAG_DELETED);  // as the deleter marks it
    om.ReleaseObject(info, old);
    PVOID fresh = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(create_or_open(1, 0, 0, &fresh, &mode), KC_OK);
    EXPECT_EQ(mode, 1u);
    EXPECT_NE(fresh, old);
    EXPECT_EQ(count(old), 2u) << "the reference of the search was dropped";
    osal::change_flags(osal::object_of(old), OBJ_FLAG_DELETED, 0);
    om.DereferenceObject(info, old, 0);
    end(old);
    end(fresh);
}

// The deleter drops its reference while the search waits for the object's lock, so that the search
// has the last one.
TEST_P(ObjectOperations, CreateEndsADeletedObjectOfWhichItHasTheLastReference) {
    start();
    PVOID old = create(1), fresh = nullptr;
    UINT32 mode = 0;
    om.AcquireObject(info, old, 1);
    RawThread searcher([&] { create_or_open(1, 0, 0, &fresh, &mode); });
    ASSERT_TRUE(eventually([&] { return count(old) == 2; }));
    end(old, 1);
    searcher.join();
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(recorded.deletions(), Numbers{1});
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    expect_nothing_built();
    end(fresh);
}

TEST_P(ObjectOperations, CreatingRefusesALevelWithoutLocks) {
    start();
    PVOID data = kUntouched;
    UINT32 mode = 99;
    info->accessLevel = 1;
    EXPECT_EQ(create_or_open(1, 0, 0, &data, nullptr), object_error(4));
    expect_built(4, "ObjectCreate", 499);
    EXPECT_EQ(by_handle(0x01010001, &data, &mode), object_error(4));
    info->accessLevel = 0;
    expect_built(4, "ObjectCreateByHandle", 797);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
}

// A handle that nobody made yet is good neither before its slot is taken nor when the taking fails.
TEST_P(ObjectOperations, AnInitErrorOfAHandleLeavesTheGenerationOfTheSlot) {
    start();
    recorded.init_result = 0xC0000001;
    UINT32 word = 1;
    PVOID data = nullptr;
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x01770001), &word, write_word, 0, 0,
                                      &data, nullptr),
              0xC0000001u);
    EXPECT_EQ(osal::handle_of(osal::slot_of(info, block(1), 1)), 0x01010001u);
    EXPECT_EQ(reference(handle_from(0x01770001)), nullptr);
    EXPECT_EQ(reference(handle_from(0x01010001)), nullptr);
}

// --- DeleteObject, DereferenceObject ---

TEST_P(ObjectOperations, ADeletedObjectLivesUntilItsLastReferenceGoes) {
    start();
    PVOID data = create(7);
    const HANDLE handle = handle_of(data);
    ASSERT_EQ(reference(handle), data);
    end(data);
    EXPECT_EQ(recorded.deletions(), Numbers{});
    EXPECT_EQ(find(7), nullptr);
    EXPECT_EQ(reference(handle), nullptr);
    HANDLE scan = nullptr;
    PVOID met = nullptr;
    EXPECT_EQ(om.EnumerateObjects(info, &scan, nullptr, nullptr, 0, &met), object_error(9));
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    EXPECT_EQ(word_of(data), 7u);
    EXPECT_EQ(om.DereferenceObject(info, data, 0), KC_OK);
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectOperations, DeletingTwiceOnlyDropsAReference) {
    start();
    PVOID data = create(7);
    om.IncrementReference(info, data);
    om.IncrementReference(info, data);
    end(data);
    EXPECT_EQ(count(data), 2u);
    end(data);
    EXPECT_EQ(count(data), 1u);
    EXPECT_EQ(recorded.deletions(), Numbers{});
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK) << "is no deallocation any more";
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    EXPECT_EQ(recorded.deallocations(), Numbers{});
}

TEST_P(ObjectOperations, DeletingGivesUpTheLockThatIsHeld) {
    start();
    for (UINT32 access : {0u, 1u, 2u}) {
        PVOID data = create(access);
        om.IncrementReference(info, data);
        if (access != 0) om.AcquireObject(info, data, access);
        end(data, access);
        expect_access(data, 0);
        EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_READY | OBJ_FLAG_DELETED);
        om.DereferenceObject(info, data, 0);
    }
}

TEST_P(ObjectOperations, DereferencingGivesUpTheLockThatIsHeld) {
    start();
    PVOID data = create(1);
    for (UINT32 access : {1u, 2u}) {
        om.IncrementReference(info, data);
        om.AcquireObject(info, data, access);
        EXPECT_EQ(om.DereferenceObject(info, data, access), KC_OK);
        expect_access(data, 0);
        EXPECT_EQ(count(data), 1u);
    }
    end(data);
}

TEST_P(ObjectOperations, ACountOfZeroFreesNothingThatWasNotDeleted) {
    start();
    PVOID data = create(1);
    EXPECT_EQ(om.DecrementReference(info, data), KC_OK);
    EXPECT_EQ(count(data), 0u);
    EXPECT_EQ(om.DecrementReference(info, data), KC_OK);
    EXPECT_EQ(count(data), 0u) << "does not wrap";
    EXPECT_EQ(find(1), data);
    EXPECT_EQ(count(data), 1u);
    EXPECT_EQ(recorded.deletions(), Numbers{});
    end(data);
    EXPECT_EQ(recorded.deletions(), Numbers{1});
}

TEST_P(ObjectOperations, DeletingAnObjectWithoutReferencesFreesIt) {
    start();
    PVOID data = create(1);
    om.DecrementReference(info, data);
    end(data);
    EXPECT_EQ(recorded.deletions(), Numbers{1});
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

// Deleting marks under the exclusive lock, so a lookup that waits for the object refuses it.
TEST_P(ObjectOperations, ALookupThatWaitsForADeletedObjectRefusesIt) {
    start();
    PVOID data = create(1);
    const HANDLE handle = handle_of(data);
    om.IncrementReference(info, data);
    om.AcquireObject(info, data, 1);
    std::atomic<KCSTATUS> status = 0;
    RawThread waiter([&] {
        PVOID found = nullptr;
        status = om.ReferenceObjectByHandle(info, handle, 2, &found);
    });
    ASSERT_TRUE(eventually([&] { return count(data) == 3; }));
    end(data, 1);
    waiter.join();
    EXPECT_EQ(status, object_error(3));
    expect_built(3, "ObjectReferenceByHandle", 1114);
    EXPECT_EQ(count(data), 1u);
    om.DereferenceObject(info, data, 0);
    EXPECT_EQ(recorded.deletions(), Numbers{1});
}

// Whoever holds the object's lock keeps a deletion waiting, with the instance locked.
TEST_P(ObjectOperations, DeletingWaitsForTheObjectLock) {
    start();
    PVOID data = create(1);
    om.IncrementReference(info, data);
    om.AcquireObject(info, data, 2);
    RawThread deleter([&] { om.DeleteObject(info, data, 0); });
    nap(milliseconds(20));
    EXPECT_FALSE(deleter.done());
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_READY);
    om.ReleaseObject(info, data);
    deleter.join();
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_READY | OBJ_FLAG_DELETED);
    om.DereferenceObject(info, data, 0);
}

TEST_P(ObjectOperations, RoutinesRunWithNothingLockedAndMayCallBack) {
    start();
    recorded.on_delete = [&](UINT32 word) {
        if (word != 1) return;
        PVOID data = create(2);
        EXPECT_EQ(find(2), data);
        om.DereferenceObject(info, data, 0);
        end(data);
    };
    end(create(1));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectOperations, WithoutRoutinesObjectsAreFreedAllTheSame) {
    start({.routines = false});
    end(create(1));
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
    PVOID data = create(2);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
}

TEST_P(ObjectOperations, AFreedSlotHasNoLockAndTheNextGeneration) {
    start();
    PVOID keeper = create(1), data = create(2);
    pObject ob = osal::object_of(data);
    end(data);
    EXPECT_EQ(ob->flags, OBJ_FLAG_FREE | OBJ_FLAG_READY);
    EXPECT_EQ(ob->protect.handle, nullptr);
    EXPECT_EQ(ob->handleInstance, 2u);
    EXPECT_EQ(osal::linked_object(block(1)->freeList.Blink), ob);
    end(keeper);
}

// --- CreateObjectByHandle ---

TEST_P(ObjectOperations, AHandleOfOnesChoiceMakesItsBlockOnly) {
    start();
    PVOID data = nullptr, same = nullptr;
    UINT32 mode = 99;
    ASSERT_EQ(by_handle(0x02070005, &data, &mode), KC_OK);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(block_ids(), Numbers{5});
    EXPECT_EQ(raw(data), 0x02070005u);
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE) << "and does not become ready";
    EXPECT_EQ(count(data), 1u);
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    EXPECT_EQ(block(5)->freeObjectCount, 3u);
    ASSERT_EQ(by_handle(0x02070005, &same, &mode), KC_OK);
    EXPECT_EQ(mode, 2u);
    EXPECT_EQ(same, data);
    EXPECT_EQ(count(data), 2u);
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectOperations, TheObjectInASlotTakesOnTheGenerationAskedFor) {
    start();
    PVOID data = nullptr, same = nullptr;
    ASSERT_EQ(by_handle(0x01070002, &data, nullptr), KC_OK);
    ASSERT_EQ(by_handle(0x01090002, &same, nullptr), KC_OK);
    EXPECT_EQ(same, data);
    EXPECT_EQ(raw(data), 0x01090002u);
    EXPECT_EQ(reference(handle_from(0x01070002)), nullptr);
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectOperations, BlocksOfHandlesAreKeptSorted) {
    start();
    PVOID data[5];
    const UINT32 ids[] = {700, 5, 65535, 256, 6};
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(by_handle(0x01010000 | ids[i], &data[i], nullptr), KC_OK);
    EXPECT_EQ(block_ids(), (Numbers{5, 6, 256, 700, 65535}));
    PVOID lowest = create(1);
    EXPECT_EQ(osal::object_of(lowest)->handleId, 5u) << "the first block with room";
    end(lowest);
    for (PVOID item : data)
        end(item);
}

TEST_P(ObjectOperations, AHandleTakesItsAccess) {
    start();
    PVOID data = nullptr;
    for (UINT32 access : {0u, 1u, 2u}) {
        ASSERT_EQ(by_handle(0x01010001, &data, nullptr, access, 0), KC_OK);
        expect_access(data, access);
        if (access != 0) om.ReleaseObject(info, data);
        ASSERT_EQ(by_handle(0x01010001, &data, nullptr, 0, access), KC_OK);
        expect_access(data, access);
        if (access != 0) om.ReleaseObject(info, data);
        om.DereferenceObject(info, data, 0);
        end(data);
    }
}

TEST_P(ObjectOperations, HandlesNeedAnInstanceWithOneBucket) {
    start({.buckets = 2});
    PVOID data = kUntouched;
    UINT32 mode = 99;
    EXPECT_EQ(by_handle(0x01010001, &data, &mode), object_error(4));
    expect_built(4, "ObjectCreateByHandle", 643);
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(mode, 99u);
}

TEST_P(ObjectOperations, SlotsThatNoBlockHasAreRefusedBeforeABlockIsMade) {
    start();
    PVOID data = kUntouched;
    for (UINT32 slot : {0u, 5u, 128u, 255u}) {
        EXPECT_EQ(by_handle(slot << 24 | 0x00010001, &data, nullptr), object_error(3));
        expect_built(3, "ObjectCreateByHandle", 666);
    }
    EXPECT_EQ(block_ids(), Numbers{});
    EXPECT_EQ(data, kUntouched);
}

TEST_P(ObjectOperations, BlockZeroCannotBeMade) {
    start();
    PVOID data = kUntouched;
    UINT32 mode = 99;
    EXPECT_EQ(by_handle(0x01010000, &data, &mode), object_error(5));
    expect_built(5, "ObjectCreateByHandle", 843);
    EXPECT_EQ(mode, 0u);
    PVOID one = create(1);
    EXPECT_EQ(by_handle(0x01010000, &data, &mode), object_error(5));
    expect_built(5, "ObjectCreateByHandle", 689);
    EXPECT_EQ(data, kUntouched);
    end(one);
}

TEST_P(ObjectOperations, AHandleWithoutMemoryFails) {
    start();
    PVOID data = kUntouched, high = nullptr;
    UINT32 mode = 99;
    const auto attempt = [&](int request, UINT32 handle, UINT32 line) {
        {
            HeapFault no_memory(request);
            EXPECT_EQ(by_handle(handle, &data, &mode), object_error(5));
        }
        const auto built = statuses.take();
        EXPECT_EQ(built.back().function, "ObjectCreateByHandle");
        EXPECT_EQ(built.back().line, line);
        EXPECT_EQ(mode, 0u);
        EXPECT_EQ(data, kUntouched);
    };
    attempt(1, 0x01010003, 843);
    attempt(2, 0x01010003, 797);
    EXPECT_EQ(block(3)->freeObjectCount, 4u);
    attempt(1, 0x01010002, 689);
    attempt(1, 0x01010004, 843);
    ASSERT_EQ(by_handle(0x01010101, &high, nullptr), KC_OK);
    end(high);
}

// Blocks but the first few are entered in parts of the index: one for all, and one for each 256
// ids.
TEST_P(ObjectOperations, AHandleWithoutMemoryForTheIndexFails) {
    start();
    const Holdings started = holdings();
    for (const UINT32 handle : {0x01010020u, 0x01010100u})
        for (int request : {2, 3}) {
            PVOID data = kUntouched;
            {
                HeapFault no_memory(request);
                EXPECT_EQ(by_handle(handle, &data, nullptr), object_error(5));
            }
            expect_built(5, "ObjectCreateByHandle", 843);
            EXPECT_EQ(block_ids(), Numbers{});
            EXPECT_EQ(stats(), (Stats{0, 0, 0}));
            EXPECT_EQ(holdings(), started);
        }
}

TEST_P(ObjectOperations, ManagersOfFewBlocksTakeNoMemoryForTheIndex) {
    start();
    const UINT32 paged = holdings().values[1];
    PVOID first = nullptr, last = nullptr;
    ASSERT_EQ(by_handle(0x01010001, &first, nullptr), KC_OK);
    const UINT32 a_block = holdings().values[1] - paged;
    ASSERT_EQ(by_handle(0x0101001F, &last, nullptr), KC_OK);
    EXPECT_EQ(holdings().values[1] - paged, 2 * a_block);
    end(first);
    end(last);
}

// The lowest block with room is taken, and the lowest unused id, on both sides of the border
// between the two ways in which blocks are found.
TEST_P(ObjectOperations, BlocksAreFoundAcrossTheBorderOfTheIndex) {
    start({.per_block = 1});
    std::vector<PVOID> objects;
    for (UINT32 id = 1; id <= 300; ++id) {
        objects.push_back(create(id));
        ASSERT_EQ(raw(objects.back()), 0x01010000 | id);
    }
    for (UINT32 id : {1u, 30u, 31u, 32u, 33u, 255u, 256u, 300u}) {
        end(objects[id - 1]);
        EXPECT_EQ(block(id), nullptr);
        EXPECT_EQ(reference(handle_from(0x01010000 | id)), nullptr);
        objects[id - 1] = create(id);
        EXPECT_EQ(raw(objects[id - 1]), 0x01010000 | id);
    }
    Numbers ids(300);
    std::iota(ids.begin(), ids.end(), 1u);
    EXPECT_EQ(block_ids(), ids);
    for (UINT32 id = 1; id <= 300; ++id) {
        EXPECT_EQ(reference(handle_from(0x01010000 | id)), objects[id - 1]);
        om.DereferenceObject(info, objects[id - 1], 0);
    }
    HANDLE scan = osal::handle_from(0x01000000 | 29);
    for (UINT32 id = 29; id <= 300; ++id) {
        PVOID data = nullptr;
        ASSERT_EQ(om.EnumerateObjects(info, &scan, nullptr, nullptr, 0, &data), KC_OK);
        EXPECT_EQ(data, objects[id - 1]);
        om.DereferenceObject(info, data, 0);
    }
    for (PVOID data : objects)
        end(data);
    EXPECT_EQ(info->index.root, nullptr);
}

TEST_P(ObjectOperations, AnInitErrorOfAHandleIsReturnedUnchanged) {
    start();
    recorded.init_result = 0xC0000001;
    UINT32 word = 1, mode = 99;
    PVOID data = kUntouched;
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x02010001), &word, write_word, 1, 1,
                                      &data, &mode),
              0xC0000001u);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
    EXPECT_EQ(osal::linked_object(block(1)->freeList.Blink)->handleIndex, 2u);
    expect_nothing_built();
}

// --- AllocateObject, DeallocateObject ---

TEST_P(ObjectOperations, AnAllocatedObjectIsPreallocatedAndFoundByHandleOnly) {
    start();
    PVOID data = allocate(5);
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_PREALLOCATED);
    EXPECT_EQ(count(data), 1u);
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
    EXPECT_EQ(length_of(info->allocatedList), 1u);
    EXPECT_EQ(find(5), nullptr);
    EXPECT_EQ(reference(handle_of(data)), data);
}

TEST_P(ObjectOperations, AllocatingThenDeallocatingLeavesThePreallocatedCount) {
    start();
    PVOID data = allocate(5);
    const UINT32 handle = raw(data);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    EXPECT_EQ(recorded.deallocations(), Numbers{5});
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
    EXPECT_EQ(length_of(info->allocatedList), 1u);
    EXPECT_EQ(raw(data), handle + 0x10000);
    EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_PREALLOCATED);
    EXPECT_NE(osal::object_of(data)->protect.handle, nullptr);
    EXPECT_EQ(count(data), 0u);
}

TEST_P(ObjectOperations, APendingDeallocationIsOnNoList) {
    start();
    PVOID data = allocate(5);
    om.IncrementReference(info, data);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    EXPECT_EQ(stats(), (Stats{4, 0, 0}));
    EXPECT_EQ(length_of(info->allocatedList), 0u);
    EXPECT_EQ(recorded.deallocations(), Numbers{});
    om.DereferenceObject(info, data, 0);
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
    EXPECT_EQ(recorded.deallocations(), Numbers{5});
}

TEST_P(ObjectOperations, ADeallocatedObjectOfABucketBecomesPreallocated) {
    start();
    PVOID data = create(5);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
    EXPECT_EQ(find(5), nullptr);
    EXPECT_EQ(osal::linked_object(info->allocatedList.Flink), osal::object_of(data));
    EXPECT_EQ(recorded.deallocations(), Numbers{5});
    EXPECT_EQ(recorded.deletions(), Numbers{});
}

TEST_P(ObjectOperations, DeallocatingGivesUpTheLockThatIsHeld) {
    start();
    for (UINT32 access : {0u, 1u, 2u}) {
        PVOID data = create(access);
        om.IncrementReference(info, data);
        if (access != 0) om.AcquireObject(info, data, access);
        EXPECT_EQ(om.DeallocateObject(info, data, access), KC_OK);
        expect_access(data, 0);
        EXPECT_EQ(flags(data), OBJ_FLAG_IN_USE | OBJ_FLAG_READY | OBJ_FLAG_DEALLOCATED);
        EXPECT_EQ(om.DeleteObject(info, data, 0), KC_OK) << "only drops the reference";
    }
    EXPECT_EQ(recorded.deallocations(), (Numbers{0, 1, 2}));
}

TEST_P(ObjectOperations, DeletingAPreallocatedObjectLeavesTheCountsRight) {
    start();
    PVOID used = create(1);
    PVOID data = allocate(5);
    EXPECT_EQ(stats(), (Stats{4, 1, 1}));
    end(data);
    EXPECT_EQ(recorded.deletions(), Numbers{5});
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    EXPECT_EQ(length_of(info->allocatedList), 0u);
    EXPECT_EQ(block(1)->freeObjectCount, 3u);
    end(used);
}

TEST_P(ObjectOperations, APreallocatedObjectThatIsReferencedWhenDeletedIsNotCounted) {
    start();
    PVOID data = allocate(5);
    om.IncrementReference(info, data);
    end(data);
    EXPECT_EQ(stats(), (Stats{4, 0, 0}));
    EXPECT_EQ(length_of(info->allocatedList), 0u);
    om.DereferenceObject(info, data, 0);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
    PVOID next = create(6);
    EXPECT_EQ(stats(), (Stats{4, 1, 0})) << "the mark went with the slot";
    end(next);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectOperations, AllocateWithoutMemoryFails) {
    start();
    PVOID data = kUntouched;
    for (int request : {1, 2}) {
        {
            HeapFault no_memory(request);
            EXPECT_EQ(om.AllocateObject(info, &data), object_error(5));
        }
        const auto built = statuses.take();
        EXPECT_EQ(built.back().function, "ObjectAllocate");
        EXPECT_EQ(built.back().line, request == 1 ? 1927u : 1991u);
    }
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
}

TEST_P(ObjectOperations, AllocateRefusesALevelWithoutLocks) {
    start();
    PVOID data = kUntouched;
    info->accessLevel = 1;
    EXPECT_EQ(om.AllocateObject(info, &data), object_error(4));
    info->accessLevel = 0;
    expect_built(4, "ObjectAllocate", 1962);
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(block(1)->freeObjectCount, 4u);
}

TEST_P(ObjectOperations, ObjectsGetLocksOfTheInstancesLevel) {
    start({.level = 3});
    PVOID data = create(1);
    EXPECT_EQ(holdings().values[3], before.values[3] + 2) << "mutexes";
    om.AcquireObject(info, data, 2);
    const HANDLE lock = osal::object_of(data)->protect.handle;
    EXPECT_TRUE(is_taken(osal::as<_KX_MUTEX_HANDLE_>(lock)->mutex)) << "shared is exclusive";
    end(data, 2);
    EXPECT_EQ(holdings().values[3], before.values[3] + 1);
}

// No instance has spin locks, but one that did would work.
TEST_P(ObjectOperations, SpinLocksAreMadeAndDestroyedLikeTheOthers) {
    start();
    info->accessLevel = 2;
    const HANDLE lock = std::exchange(info->protect.handle, nullptr);
    ASSERT_EQ(pIOsal->lpVtbl->KxAllocSpinLock(pIOsal, &info->protect.handle), KC_OK);
    PVOID data = create(1);
    EXPECT_EQ(holdings().values[4], before.values[4] + 2);
    end(data);
    EXPECT_EQ(holdings().values[4], before.values[4] + 1);
    info->accessLevel = 0;
    pIOsal->lpVtbl->KxDestroySpinLock(pIOsal, std::exchange(info->protect.handle, lock));
}

}  // namespace
}  // namespace osal_test
