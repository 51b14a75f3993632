// Lookups of the object manager: by handle, by compare routine, by scan, and find-or-open.
#include "support/object_test.h"

namespace osal_test {
namespace {

using Numbers = std::vector<UINT32>;
void* const kUntouched = reinterpret_cast<void*>(0x5A5A5A5A);

// A client routine that runs under the instance lock keeps others from what the lock guards, not
// from an object that is there already.
class LockedInstance {
  public:
    // Of CreateObject, OpenObject and CreateObjectByHandle.
    static KCSTATUS init(PVOID data, PVOID self) {
        auto* locked = static_cast<LockedInstance*>(self);
        word_of(data) = 5;
        locked->inside = true;
        while (!locked->leave)
            nap();
        return KC_OK;
    }
    std::atomic<bool> inside = false, leave = false;
};

class ObjectLookup : public ObjectTest {
  protected:
    // Asks for an object while another thread is in there, which then leaves: the look-up waits.
    PVOID reference_behind(LockedInstance& locked, HANDLE handle) {
        PVOID found = nullptr;
        EXPECT_TRUE(eventually([&] { return locked.inside.load(); }));
        RawThread finder([&] { found = reference(handle); });
        nap(milliseconds(20));
        EXPECT_FALSE(finder.done());
        locked.leave = true;
        finder.join();
        return found;
    }
    bool is_locked(PVOID data) {
        const HANDLE lock = osal::object_of(data)->protect.handle;
        const bool taken = elsewhere([&] {
            if (pIOsal->lpVtbl->KxAcquireLockForWriteAccess(pIOsal, lock, FALSE) != KC_OK)
                return true;
            pIOsal->lpVtbl->KxReleaseReadWriteLock(pIOsal, lock);
            return false;
        });
        if (taken) statuses.take();
        return taken;
    }
    KCSTATUS enumerate(HANDLE* scan, PVOID* data, UINT32 access = 0) {
        return om.EnumerateObjects(info, scan, nullptr, nullptr, access, data);
    }
    // The words of all objects that a scan from here on meets.
    Numbers scan_from(UINT32 resume) {
        Numbers words;
        HANDLE scan = osal::handle_from(resume);
        PVOID data = nullptr;
        while (enumerate(&scan, &data) == KC_OK) {
            words.push_back(word_of(data));
            om.DereferenceObject(info, data, 0);
        }
        return words;
    }
    KCSTATUS open(UINT32 word, PVOID* data, UINT32* mode, UINT32 alloc_access = 0,
                  UINT32 open_access = 0, UINT32 bucket = 0) {
        return om.OpenObject(info, &word, set_word, &word, same_word, bucket, alloc_access,
                             open_access, data, mode);
    }
    static KCSTATUS set_word(PVOID data, PVOID word) {
        word_of(data) = *static_cast<UINT32*>(word);
        return calls->init_result;
    }
    void mark_deleted(PVOID data) {
        osal::change_flags(osal::object_of(data), 0, OBJ_FLAG_DELETED);
    }
    void unmark_deleted(PVOID data) {
        osal::change_flags(osal::object_of(data), OBJ_FLAG_DELETED, 0);
    }
};
OSAL_ALL_FACES(ObjectLookup);

// --- Arguments ---

TEST_P(ObjectLookup, AnInstanceThatIsNotInitialisedRefusesEverything) {
    PVOID data = kUntouched;
    PVOID some = kUntouched;
    HANDLE handle = kUntouched;
    UINT32 number = 5;
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle, 0, &data), object_error(4));
    expect_built(4, "ObjectReferenceByHandle", 1033);
    EXPECT_EQ(om.GetObjectHandle(info, some, &handle), object_error(4));
    if (GetParam() == Face::kSecond)
        expect_built(4, "ObjectGetHandle2", 1450);
    else
        expect_built(4, "ObjectGetHandle", 1488);
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 0, &data), object_error(4));
    expect_built(4, "ObjectFind", 1540);
    EXPECT_EQ(om.EnumerateObjects(info, &handle, nullptr, nullptr, 0, &data), object_error(4));
    expect_built(4, "ObjectEnumerate", 1304);
    EXPECT_EQ(om.OpenObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    expect_built(4, "ObjectOpen", 2192);
    EXPECT_EQ(om.GetObjectStats(info, &number, &number, &number), object_error(4));
    expect_built(4, "ObjectGetStats", 2407);
    EXPECT_EQ(om.AcquireObject(info, some, 1), object_error(4));
    expect_built(4, "ObjectAcquireAccess", 1657);
    EXPECT_EQ(om.ReleaseObject(info, some), object_error(4));
    expect_built(4, "ObjectReleaseAccess", 1703);
    EXPECT_EQ(om.IncrementReference(info, some), object_error(4));
    expect_built(4, "ObjectIncrement", 1749);
    EXPECT_EQ(data, kUntouched);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(number, 5u);
}

TEST_P(ObjectLookup, NullPointersAreRefused) {
    start();
    PVOID data = create(1);
    PVOID out = kUntouched;
    HANDLE handle = kUntouched;
    const bool second = GetParam() == Face::kSecond;
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle_of(data), 0, nullptr), object_error(4));
    expect_built(4, "ObjectReferenceByHandle", 1033);
    EXPECT_EQ(om.GetObjectHandle(info, nullptr, &handle), object_error(4));
    expect_built(4, second ? "ObjectGetHandle2" : "ObjectGetHandle", second ? 1450 : 1488);
    EXPECT_EQ(om.GetObjectHandle(info, data, nullptr), object_error(4));
    expect_built(4, second ? "ObjectGetHandle2" : "ObjectGetHandle", second ? 1450 : 1488);
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 0, nullptr), object_error(4));
    expect_built(4, "ObjectFind", 1540);
    EXPECT_EQ(om.EnumerateObjects(info, nullptr, nullptr, nullptr, 0, &out), object_error(4));
    expect_built(4, "ObjectEnumerate", 1304);
    EXPECT_EQ(om.EnumerateObjects(info, &handle, nullptr, nullptr, 0, nullptr), object_error(4));
    expect_built(4, "ObjectEnumerate", 1304);
    EXPECT_EQ(om.OpenObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, nullptr, nullptr),
              object_error(4));
    expect_built(4, "ObjectOpen", 2192);
    EXPECT_EQ(om.AcquireObject(info, nullptr, 1), object_error(4));
    expect_built(4, "ObjectAcquireAccess", 1657);
    EXPECT_EQ(om.ReleaseObject(info, nullptr), object_error(4));
    expect_built(4, "ObjectReleaseAccess", 1703);
    EXPECT_EQ(om.IncrementReference(info, nullptr), object_error(4));
    expect_built(4, "ObjectIncrement", 1749);
    EXPECT_EQ(out, kUntouched);
    EXPECT_EQ(handle, kUntouched);
    EXPECT_EQ(count(data), 1u);
    end(data);
}

TEST_P(ObjectLookup, ANullInstanceIsRefused) {
    PVOID data = kUntouched;
    HANDLE handle = kUntouched;
    EXPECT_EQ(om.ReferenceObjectByHandle(nullptr, handle, 0, &data), object_error(4));
    EXPECT_EQ(om.GetObjectHandle(nullptr, &data, &handle), object_error(4));
    EXPECT_EQ(om.FindObject(nullptr, nullptr, nullptr, 0, 0, &data), object_error(4));
    EXPECT_EQ(om.EnumerateObjects(nullptr, &handle, nullptr, nullptr, 0, &data), object_error(4));
    EXPECT_EQ(om.OpenObject(nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
              object_error(4));
    EXPECT_EQ(om.GetObjectStats(nullptr, nullptr, nullptr, nullptr), object_error(4));
    EXPECT_EQ(om.AcquireObject(nullptr, &data, 1), object_error(4));
    EXPECT_EQ(om.ReleaseObject(nullptr, &data), object_error(4));
    EXPECT_EQ(om.IncrementReference(nullptr, &data), object_error(4));
}

TEST_P(ObjectLookup, ABucketOutOfRangeIsRefused) {
    start({.buckets = 2});
    PVOID data = kUntouched;
    for (UINT32 bucket : {2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(om.FindObject(info, nullptr, nullptr, bucket, 0, &data), object_error(4));
        expect_built(4, "ObjectFind", 1540);
        EXPECT_EQ(open(1, &data, nullptr, 0, 0, bucket), object_error(4));
        expect_built(4, "ObjectOpen", 2192);
    }
    EXPECT_EQ(data, kUntouched);
}

// --- Handles ---

TEST_P(ObjectLookup, AHandleFindsItsObject) {
    start();
    PVOID data = create(1);
    for (UINT32 access : {0u, 1u, 2u}) {
        EXPECT_EQ(reference(handle_of(data), access), data);
        EXPECT_EQ(count(data), 2u);
        EXPECT_EQ(is_locked(data), access != 0);
        om.DereferenceObject(info, data, access);
    }
    end(data);
}

TEST_P(ObjectLookup, TheUpperHalfOfAHandleIsLeftAlone) {
    start();
    PVOID data = create(1);
    HANDLE handle = reinterpret_cast<HANDLE>(0x1122334455667788);
    EXPECT_EQ(om.GetObjectHandle(info, data, &handle), KC_OK);
    const auto number = reinterpret_cast<uintptr_t>(handle);
    EXPECT_EQ(number >> 32, 0x11223344u);
    EXPECT_EQ(static_cast<UINT32>(number), osal::handle_word(handle_from(raw(data))));
    EXPECT_EQ(reference(handle), data) << "and is not looked at";
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectLookup, RawHandlesAreNotThoseOfTheSecondInterface) {
    start();
    PVOID data = create(1);
    void* same = nullptr;
    ASSERT_EQ(om.QueryInterface(info, &IID_IObjectManager_2, &same), KC_OK);
    auto* second = static_cast<IOM_2*>(same);
    HANDLE plain = nullptr, scrambled = nullptr;
    EXPECT_EQ(second->lpVtbl->GetRawObjectHandle(second, data, &plain), KC_OK);
    EXPECT_EQ(second->lpVtbl->GetObjectHandle(second, data, &scrambled), KC_OK);
    EXPECT_EQ(osal::handle_word(plain), raw(data));
    PVOID found = nullptr;
    EXPECT_EQ(second->lpVtbl->ReferenceObjectByHandle(second, scrambled, 0, &found), KC_OK);
    EXPECT_EQ(found, data);
    om.DereferenceObject(info, data, 0);
    found = kUntouched;
    EXPECT_EQ(second->lpVtbl->ReferenceObjectByHandle(second, plain, 0, &found), object_error(3));
    EXPECT_EQ(found, kUntouched);
    second->lpVtbl->Release(second);
    end(data);
}

TEST_P(ObjectLookup, RawHandlesNeedTheirPointersToo) {
    void* same = nullptr;
    ASSERT_EQ(om.QueryInterface(info, &IID_IObjectManager_2, &same), KC_OK);
    auto* second = static_cast<IOM_2*>(same);
    const auto raw_handle = second->lpVtbl->GetRawObjectHandle;
    PVOID some = kUntouched;
    HANDLE handle = kUntouched;
    EXPECT_EQ(raw_handle(second, some, &handle), object_error(4)) << "not initialised";
    expect_built(4, "ObjectGetHandle", 1488);
    start();
    PVOID data = create(1);
    EXPECT_EQ(raw_handle(second, nullptr, &handle), object_error(4));
    expect_built(4, "ObjectGetHandle", 1488);
    EXPECT_EQ(raw_handle(second, data, nullptr), object_error(4));
    expect_built(4, "ObjectGetHandle", 1488);
    EXPECT_EQ(handle, kUntouched);
    second->lpVtbl->Release(second);
    end(data);
}

TEST_P(ObjectLookup, AnUnknownHandleIsRefusedWithoutALogLine) {
    start();
    PVOID found = kUntouched;
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle_from(0x01010001), 1, &found),
              object_error(3));
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle_from(0x00010001), 1, &found),
              object_error(3));
    EXPECT_EQ(found, kUntouched);
    expect_nothing_built();
}

TEST_P(ObjectLookup, AnObjectThatIsDeletedWhileItsLockIsTakenIsRefused) {
    start();
    PVOID data = create(1);
    const HANDLE handle = handle_of(data);
    osal::change_flags(osal::object_of(data), 0, OBJ_FLAG_DEALLOCATED);
    PVOID found = nullptr;
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle, 1, &found), object_error(3));
    EXPECT_EQ(found, data) << "written before the refusal";
    expect_built(3, "ObjectReferenceByHandle", 1114);
    EXPECT_EQ(count(data), 1u);
    EXPECT_FALSE(is_locked(data));
    EXPECT_EQ(om.ReferenceObjectByHandle(info, handle, 0, &found), KC_OK) << "without access";
    om.DereferenceObject(info, data, 0);
    osal::change_flags(osal::object_of(data), OBJ_FLAG_DEALLOCATED, 0);
    end(data);
}

TEST_P(ObjectLookup, ReferencesAndLocksOfAnObjectCanBeTakenDirectly) {
    start();
    PVOID data = create(1);
    EXPECT_EQ(om.IncrementReference(info, data), KC_OK);
    EXPECT_EQ(count(data), 2u);
    EXPECT_EQ(om.AcquireObject(info, data, 1), KC_OK);
    EXPECT_TRUE(is_locked(data));
    EXPECT_EQ(om.ReleaseObject(info, data), KC_OK);
    EXPECT_FALSE(is_locked(data));
    om.DecrementReference(info, data);
    end(data);
}

TEST_P(ObjectLookup, AnUnknownAccessTakesNoLockAndSucceeds) {
    start();
    PVOID data = create(1);
    for (UINT32 access : {0u, 3u, 0xFFFFFFFFu}) {
        EXPECT_EQ(om.AcquireObject(info, data, access), KC_OK);
        EXPECT_FALSE(is_locked(data));
    }
    expect_nothing_built();
    end(data);
}

TEST_P(ObjectLookup, AHandleOfALiveObjectIsGoodWhileTheInstanceIsLocked) {
    start();
    PVOID data = create(1);
    const HANDLE handle = handle_of(data);
    LockedInstance locked;
    PVOID made = nullptr;
    RawThread maker([&] {
        om.CreateObject(info, &locked, LockedInstance::init, nullptr, nullptr, 0, 0, 0, &made,
                        nullptr);
    });
    ASSERT_TRUE(eventually([&] { return locked.inside.load(); }));
    EXPECT_EQ(reference(handle), data);
    om.DereferenceObject(info, data, 0);
    EXPECT_EQ(count(data), 1u);
    locked.leave = true;
    maker.join();
    end(data);
    end(made);
}

TEST_P(ObjectLookup, AHandleThatIsBeingMadeIsWaitedFor) {
    start();
    const HANDLE handle = handle_from(0x02070001);
    LockedInstance locked;
    PVOID made = nullptr;
    RawThread maker([&] {
        om.CreateObjectByHandle(info, osal::handle_from(0x02070001), &locked, LockedInstance::init,
                                0, 0, &made, nullptr);
    });
    const PVOID found = reference_behind(locked, handle);
    maker.join();
    ASSERT_EQ(found, made);
    om.DereferenceObject(info, made, 0);
    end(made);
}

TEST_P(ObjectLookup, AReferenceTakenWhileAnObjectIsBeingOpenedIsNotForgotten) {
    start();
    PVOID data = allocate(1);
    const HANDLE handle = handle_of(data);
    LockedInstance locked;
    PVOID opened = nullptr;
    RawThread opener([&] {
        om.OpenObject(info, &locked, LockedInstance::init, nullptr, nullptr, 0, 0, 0, &opened,
                      nullptr);
    });
    const PVOID found = reference_behind(locked, handle);
    opener.join();
    EXPECT_EQ(found, data);
    EXPECT_EQ(count(data), 2u);
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectLookup, AnObjectWithoutReferencesIsFoundByItsHandle) {
    start();
    PVOID data = create(1);
    om.DecrementReference(info, data);
    EXPECT_EQ(reference(handle_of(data)), data);
    EXPECT_EQ(count(data), 1u);
    end(data);
}

// --- FindObject ---

TEST_P(ObjectLookup, FindWithoutACompareRoutineTakesTheFirstOfTheBucket) {
    start({.buckets = 2});
    PVOID one = create(1), two = create(2), other = create(3, 1);
    PVOID found = nullptr;
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 0, &found), KC_OK);
    EXPECT_EQ(found, one);
    EXPECT_EQ(count(one), 2u);
    om.DereferenceObject(info, one, 0);
    for (PVOID data : {one, two, other})
        end(data);
}

TEST_P(ObjectLookup, FindTakesTheFirstObjectThatMatches) {
    start({.buckets = 2});
    PVOID one = create(1), two = create(2), twin = create(2);
    EXPECT_EQ(find(2), two);
    EXPECT_EQ(find(2, 1), nullptr);
    om.DereferenceObject(info, two, 0);
    for (PVOID data : {one, two, twin})
        end(data);
}

TEST_P(ObjectLookup, NothingFoundIsNotLogged) {
    start();
    PVOID found = kUntouched;
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 1, &found), object_error(11));
    PVOID data = create(1);
    UINT32 word = 2;
    EXPECT_EQ(om.FindObject(info, &word, same_word, 0, 1, &found), object_error(11));
    EXPECT_EQ(found, kUntouched);
    expect_nothing_built();
    end(data);
}

TEST_P(ObjectLookup, FindTakesTheAccessAskedFor) {
    start();
    PVOID data = create(1);
    for (UINT32 access : {0u, 1u, 2u}) {
        EXPECT_EQ(find(1, 0, access), data);
        EXPECT_EQ(is_locked(data), access != 0);
        om.DereferenceObject(info, data, access);
    }
    end(data);
}

TEST_P(ObjectLookup, FindWithAccessWaitsUntilTheObjectIsReady) {
    start();
    PVOID data = create(1);
    osal::change_flags(osal::object_of(data), OBJ_FLAG_READY, 0);
    RawThread finder([&] {
        EXPECT_EQ(find(1, 0, 1), data);
        om.DereferenceObject(info, data, 1);
    });
    ASSERT_TRUE(eventually([&] { return count(data) == 2; }));
    nap(milliseconds(20));
    EXPECT_FALSE(finder.done());
    osal::change_flags(osal::object_of(data), 0, OBJ_FLAG_READY);
    finder.join();
    end(data);
}

TEST_P(ObjectLookup, AWaitForAnObjectEndsWhenItIsDeleted) {
    start();
    PVOID data = create(7);
    osal::change_flags(osal::object_of(data), OBJ_FLAG_READY, 0);
    std::atomic<KCSTATUS> status = 0;
    RawThread finder([&] {
        PVOID found = nullptr;
        status = om.FindObject(info, nullptr, nullptr, 0, 2, &found);
    });
    ASSERT_TRUE(eventually([&] { return count(data) == 2; }));
    end(data);
    finder.join();
    EXPECT_EQ(status, object_error(11));
    expect_built(11, "ObjectFind", 1625);
    EXPECT_EQ(recorded.deletions(), Numbers{7}) << "by the reference that was undone";
}

TEST_P(ObjectLookup, AnObjectThatIsDeletedWhileFoundIsRefused) {
    start();
    PVOID data = create(1);
    mark_deleted(data);
    PVOID found = nullptr;
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 1, &found), object_error(11));
    expect_built(11, "ObjectFind", 1625);
    EXPECT_EQ(found, data);
    EXPECT_EQ(count(data), 1u);
    EXPECT_FALSE(is_locked(data));
    EXPECT_EQ(om.FindObject(info, nullptr, nullptr, 0, 0, &found), KC_OK) << "without access";
    om.DereferenceObject(info, found, 0);
    unmark_deleted(data);
    end(data);
}

// --- EnumerateObjects ---

TEST_P(ObjectLookup, AScanVisitsBlocksAndSlotsInOrder) {
    start({.per_block = 2});
    PVOID data[6];
    for (UINT32 i = 0; i < 6; ++i)
        data[i] = create(i + 1);
    end(data[2]);
    end(data[3]);  // block 2 is gone
    HANDLE scan = nullptr;
    PVOID met = nullptr;
    EXPECT_EQ(enumerate(&scan, &met), KC_OK);
    EXPECT_EQ(met, data[0]);
    EXPECT_EQ(osal::handle_word(scan) & 0xFF00FFFF, 0x02000001u);
    EXPECT_EQ(count(met), 2u);
    om.DereferenceObject(info, met, 0);
    EXPECT_EQ(enumerate(&scan, &met), KC_OK);
    EXPECT_EQ(met, data[1]);
    EXPECT_EQ(osal::handle_word(scan) & 0xFF00FFFF, 0x01000003u) << "the next block there is";
    om.DereferenceObject(info, met, 0);
    EXPECT_EQ(scan_from(osal::handle_word(scan)), (Numbers{5, 6}));
    for (int i : {0, 1, 4, 5})
        end(data[i]);
}

TEST_P(ObjectLookup, TheEndOfAScanLeavesTheResumeHandle) {
    start({.per_block = 2});
    PVOID one = create(1), two = create(2);
    HANDLE scan = nullptr;
    PVOID met = nullptr;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(enumerate(&scan, &met), KC_OK);
        om.DereferenceObject(info, met, 0);
    }
    EXPECT_EQ(osal::handle_word(scan) & 0xFF00FFFF, 0x01000002u) << "behind the last block";
    const HANDLE last = scan;
    met = kUntouched;
    EXPECT_EQ(enumerate(&scan, &met), object_error(9));
    EXPECT_EQ(scan, last);
    EXPECT_EQ(met, kUntouched);
    expect_nothing_built();
    PVOID three = create(3);
    EXPECT_EQ(enumerate(&scan, &met), KC_OK) << "an object made behind the resume point is met";
    EXPECT_EQ(met, three);
    om.DereferenceObject(info, met, 0);
    for (PVOID data : {one, two, three})
        end(data);
}

TEST_P(ObjectLookup, AScanOfNothingStartsAtTheFirstSlot) {
    start();
    HANDLE scan = nullptr;
    PVOID met = kUntouched;
    EXPECT_EQ(enumerate(&scan, &met), object_error(9));
    EXPECT_EQ(osal::handle_word(scan), 0x01010001u);
}

TEST_P(ObjectLookup, AScanWhoseBlockWasFreedGoesOnWithTheNext) {
    start({.per_block = 2});
    PVOID data[6];
    for (UINT32 i = 0; i < 6; ++i)
        data[i] = create(i + 1);
    EXPECT_EQ(scan_from(0x02010002), (Numbers{4, 5, 6}));
    end(data[2]);
    end(data[3]);
    EXPECT_EQ(scan_from(0x02010002), (Numbers{5, 6})) << "from its first slot";
    EXPECT_EQ(scan_from(0x05010001), (Numbers{5, 6})) << "slots that a block does not have";
    EXPECT_EQ(scan_from(0xFF010001), (Numbers{5, 6}));
    EXPECT_EQ(scan_from(0x00010001), (Numbers{5, 6})) << "behind all slots of the block";
    EXPECT_EQ(scan_from(0x01000000), (Numbers{1, 2, 5, 6})) << "before all blocks";
    for (int i : {0, 1, 4, 5})
        end(data[i]);
}

TEST_P(ObjectLookup, TheGenerationOfAResumeHandleIsNotUsed) {
    start();
    PVOID one = create(1), two = create(2);
    EXPECT_EQ(scan_from(0x02FF0001), Numbers{2});
    end(one);
    end(two);
}

TEST_P(ObjectLookup, SlotsFrom128UpAreScannedToo) {
    start({.per_block = 255});
    std::vector<PVOID> data;
    Numbers words;
    for (UINT32 i = 1; i <= 256; ++i) {
        data.push_back(create(i));
        words.push_back(i);
    }
    EXPECT_EQ(scan_from(0), words);
    EXPECT_EQ(scan_from(0xFF010001), (Numbers{255, 256}));
    for (PVOID item : data)
        end(item);
}

TEST_P(ObjectLookup, AScanThatEndsInTheLastBlockEnds) {
    for (UINT32 per_block : {1u, 4u, 255u}) {
        start({.per_block = static_cast<UINT16>(per_block)});
        PVOID data[2] = {};
        UINT32 word = 5;
        ASSERT_EQ(om.CreateObjectByHandle(info, osal::handle_from(0x01010001), &word, write_word, 0,
                                          0, &data[0], nullptr),
                  KC_OK);
        word = 6;
        ASSERT_EQ(om.CreateObjectByHandle(info, osal::handle_from(per_block << 24 | 0x0001FFFF),
                                          &word, write_word, 0, 0, &data[1], nullptr),
                  KC_OK);
        HANDLE scan = nullptr;
        PVOID met = nullptr;
        for (PVOID expected : data) {
            EXPECT_EQ(enumerate(&scan, &met), KC_OK);
            EXPECT_EQ(met, expected);
            om.DereferenceObject(info, met, 0);
        }
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(enumerate(&scan, &met), object_error(9));
        EXPECT_NE(scan, nullptr);
        for (PVOID item : data)
            end(item);
        release();
        make();
    }
}

TEST_P(ObjectLookup, AScanMeetsWhatTheCompareRoutineAccepts) {
    start();
    PVOID one = create(1), two = create(2), three = create(2);
    UINT32 word = 2;
    HANDLE scan = nullptr;
    PVOID met = nullptr;
    for (PVOID expected : {two, three}) {
        EXPECT_EQ(om.EnumerateObjects(info, &scan, &word, same_word, 0, &met), KC_OK);
        EXPECT_EQ(met, expected);
        om.DereferenceObject(info, met, 0);
    }
    EXPECT_EQ(om.EnumerateObjects(info, &scan, &word, same_word, 0, &met), object_error(9));
    for (PVOID data : {one, two, three})
        end(data);
}

TEST_P(ObjectLookup, AScanMeetsPreallocatedObjects) {
    start();
    PVOID one = create(1);
    allocate(2);
    EXPECT_EQ(scan_from(0), (Numbers{1, 2}));
    end(one);
}

TEST_P(ObjectLookup, AScanTakesTheAccessAskedFor) {
    start();
    PVOID data = create(1);
    for (UINT32 access : {1u, 2u}) {
        HANDLE scan = nullptr;
        PVOID met = nullptr;
        EXPECT_EQ(enumerate(&scan, &met, access), KC_OK);
        EXPECT_TRUE(is_locked(met));
        om.DereferenceObject(info, met, access);
    }
    end(data);
}

TEST_P(ObjectLookup, AScanWithAccessWaitsForAPreallocatedObjectToBeOpened) {
    start();
    PVOID data = allocate(1);
    RawThread scanner([&] {
        HANDLE scan = nullptr;
        PVOID met = nullptr;
        EXPECT_EQ(enumerate(&scan, &met, 1), KC_OK);
        EXPECT_EQ(met, data);
        om.ReleaseObject(info, met);
    });
    ASSERT_TRUE(eventually([&] { return count(data) == 2; }));
    nap(milliseconds(20));
    EXPECT_FALSE(scanner.done());
    PVOID opened = nullptr;
    EXPECT_EQ(open(1, &opened, nullptr), KC_OK);
    EXPECT_EQ(opened, data);
    scanner.join();
    EXPECT_EQ(count(data), 1u) << "the opening forgot the scan's reference";
    end(data);
}

TEST_P(ObjectLookup, AScanHandsOutAnObjectThatWasDeletedMeanwhile) {
    start();
    PVOID data = create(7);
    osal::change_flags(osal::object_of(data), OBJ_FLAG_READY, 0);
    RawThread scanner([&] {
        HANDLE scan = nullptr;
        PVOID met = nullptr;
        EXPECT_EQ(enumerate(&scan, &met, 1), KC_OK);
        EXPECT_EQ(met, data);
        om.DereferenceObject(info, met, 1);
    });
    ASSERT_TRUE(eventually([&] { return count(data) == 2; }));
    end(data);
    scanner.join();
    EXPECT_EQ(recorded.deletions(), Numbers{7});
}

// --- OpenObject ---

TEST_P(ObjectLookup, OpenTakesTheOldestPreallocatedObject) {
    start({.buckets = 2});
    PVOID one = allocate(0), two = allocate(0);
    PVOID opened = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(open(5, &opened, &mode, 0, 0, 1), KC_OK);
    EXPECT_EQ(opened, one);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(flags(one), OBJ_FLAG_IN_USE | OBJ_FLAG_READY);
    EXPECT_EQ(count(one), 1u);
    EXPECT_EQ(stats(), (Stats{4, 1, 1}));
    EXPECT_EQ(find(5, 1), one);
    om.DereferenceObject(info, one, 0);
    end(one);
    EXPECT_EQ(osal::linked_object(info->allocatedList.Flink), osal::object_of(two));
}

TEST_P(ObjectLookup, OpenFindsWhatIsThere) {
    start();
    PVOID data = create(5), opened = nullptr;
    UINT32 mode = 0;
    ASSERT_EQ(open(5, &opened, &mode), KC_OK);
    EXPECT_EQ(opened, data);
    EXPECT_EQ(mode, 2u);
    EXPECT_EQ(count(data), 2u);
    om.DereferenceObject(info, data, 0);
    end(data);
}

TEST_P(ObjectLookup, OpenWithoutPreallocatedObjectsFails) {
    start();
    PVOID data = create(5), opened = kUntouched;
    UINT32 mode = 77;
    EXPECT_EQ(open(6, &opened, &mode), object_error(0x1003));
    expect_built(0x1003, "ObjectOpen", 2263);
    EXPECT_EQ(opened, kUntouched);
    EXPECT_EQ(mode, 77u);
    EXPECT_FALSE(osal::is_error(om.DereferenceObject(info, data, 0))) << "the instance is unlocked";
    end(data);
}

TEST_P(ObjectLookup, OpenTakesTheAccessForItsOutcome) {
    start();
    for (UINT32 access : {0u, 1u, 2u, 7u}) {
        allocate(0);
        PVOID data = nullptr, same = nullptr;
        const bool taken = access == 1 || access == 2;
        ASSERT_EQ(open(5, &data, nullptr, access, 0), KC_OK);
        EXPECT_EQ(is_locked(data), taken);
        if (taken) om.ReleaseObject(info, data);
        ASSERT_EQ(open(5, &same, nullptr, 0, access), KC_OK);
        EXPECT_EQ(same, data);
        EXPECT_EQ(is_locked(data), taken);
        if (taken) om.ReleaseObject(info, data);
        om.DereferenceObject(info, data, 0);
        end(data);
    }
}

TEST_P(ObjectLookup, AnInitErrorOfAnOpeningPutsTheObjectBackAtTheTail) {
    start();
    PVOID one = allocate(0), two = allocate(0), opened = kUntouched;
    recorded.init_result = 0xC7654321;
    EXPECT_EQ(open(5, &opened, nullptr), 0xC7654321u);
    expect_nothing_built();
    EXPECT_EQ(opened, kUntouched);
    EXPECT_EQ(stats(), (Stats{4, 0, 2}));
    EXPECT_EQ(osal::linked_object(info->allocatedList.Flink), osal::object_of(two));
    EXPECT_EQ(osal::linked_object(info->allocatedList.Blink), osal::object_of(one));
}

TEST_P(ObjectLookup, OpenWithoutACompareRoutineAlwaysTakesAPreallocatedObject) {
    start();
    PVOID there = create(5), data = allocate(0), opened = nullptr;
    EXPECT_EQ(om.OpenObject(info, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &opened, nullptr),
              KC_OK);
    EXPECT_EQ(opened, data);
    end(there);
    end(data);
}

TEST_P(ObjectLookup, OpenReplacesAnObjectThatIsBeingDeleted) {
    start();
    PVOID old = create(5), data = allocate(0), opened = nullptr;
    UINT32 mode = 0;
    mark_deleted(old);
    EXPECT_EQ(open(5, &opened, &mode), KC_OK);
    EXPECT_EQ(opened, data);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(count(old), 1u) << "the reference of the search was dropped";
    unmark_deleted(old);
    end(old);
    end(data);
}

TEST_P(ObjectLookup, OpenEndsADeletedObjectOfWhichItHasTheLastReference) {
    start();
    PVOID old = create(5), data = allocate(0), opened = nullptr;
    UINT32 mode = 0;
    om.AcquireObject(info, old, 1);
    RawThread opener([&] { open(5, &opened, &mode); });
    ASSERT_TRUE(eventually([&] { return count(old) == 2; }));
    end(old, 1);
    opener.join();
    EXPECT_EQ(opened, data);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(recorded.deletions(), Numbers{5});
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    end(data);
}

TEST_P(ObjectLookup, OpenPassesOverAPreallocatedObjectThatIsBeingDeleted) {
    start();
    PVOID doomed = allocate(1), data = allocate(2), opened = nullptr;
    mark_deleted(doomed);
    EXPECT_EQ(open(5, &opened, nullptr), KC_OK);
    EXPECT_EQ(opened, data);
    EXPECT_EQ(recorded.deletions(), Numbers{5}) << "freed by the reference that was undone";
    EXPECT_EQ(stats(), (Stats{4, 1, 0}));
    end(data);
}

// --- GetObjectStats ---

TEST_P(ObjectLookup, EachFigureIsOptional) {
    start({.per_block = 3});
    PVOID data = create(1);
    allocate(2);
    UINT32 allocated = 9, in_use = 9, preallocated = 9;
    EXPECT_EQ(om.GetObjectStats(info, nullptr, nullptr, nullptr), KC_OK);
    EXPECT_EQ(om.GetObjectStats(info, &allocated, nullptr, nullptr), KC_OK);
    EXPECT_EQ(om.GetObjectStats(info, nullptr, &in_use, nullptr), KC_OK);
    EXPECT_EQ(om.GetObjectStats(info, nullptr, nullptr, &preallocated), KC_OK);
    EXPECT_EQ(allocated, 3u);
    EXPECT_EQ(in_use, 1u);
    EXPECT_EQ(preallocated, 1u);
    end(data);
}

}  // namespace
}  // namespace osal_test
