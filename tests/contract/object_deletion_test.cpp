// Deferred deletion of the object manager.
#include <signal.h>

#include "support/object_test.h"

namespace osal_test {
namespace {

using Numbers = std::vector<UINT32>;

// Counts, and on demand refuses, the threads that the library starts.
std::atomic<int> threads_started = 0;
std::atomic<int> threads_refused = 0;
std::atomic<bool> refuse_threads = false;
using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
Create* real_create = nullptr;
int create_thread(pthread_t* id, const pthread_attr_t* attributes, void* (*routine)(void*),
                  void* argument) {
    if (refuse_threads) {
        ++threads_refused;
        return EAGAIN;
    }
    ++threads_started;
    return real_create(id, attributes, routine, argument);
}

class ObjectDeletion : public ObjectTest {
  protected:
    ObjectDeletion() : hook("osal.so", "pthread_create", &create_thread) {
        real_create = hook.original_as<Create>();
        threads_started = threads_refused = 0;
        refuse_threads = false;
    }
    bool idle() { return !osal::load(info->objDeleteActive); }
    bool drained(std::size_t deletions) {
        return eventually([&] { return recorded.deletions().size() == deletions && idle(); });
    }

    // Holds the deletion thread inside the delete routine of object 1 until the gate is opened.
    void hold_first() {
        recorded.on_delete = [this](UINT32 word) {
            if (word != 1) return;
            held = true;
            while (!open)
                nap();
        };
    }
    bool first_is_held() {
        return eventually([this] { return held.load(); });
    }

    Interpose hook;
    std::atomic<bool> held = false;
    std::atomic<bool> open = false;
};
OSAL_ALL_FACES(ObjectDeletion);

TEST_P(ObjectDeletion, TheRoutineRunsLaterOnAnotherThread) {
    start({.level = 0x10000000});
    PVOID data = create(7);
    om.IncrementReference(info, data);
    std::atomic<pthread_t> ran_on = 0;
    recorded.on_delete = [&](UINT32) { ran_on = pthread_self(); };
    end(data);
    EXPECT_EQ(threads_started, 0);
    EXPECT_EQ(om.DereferenceObject(info, data, 0), KC_OK);
    ASSERT_TRUE(drained(1));
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    EXPECT_NE(ran_on, pthread_self());
    EXPECT_EQ(threads_started, 1);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectDeletion, TwoObjectsInARowAreFreedByOneThreadInOrder) {
    start({.level = 0x10000000});
    hold_first();
    PVOID one = create(1), two = create(2);
    end(one);
    ASSERT_TRUE(first_is_held());
    end(two);
    EXPECT_EQ(osal::load(numScheduledDelObjects), 1u);
    EXPECT_EQ(length_of(info->objDeleteList), 1u);
    EXPECT_TRUE(info->objDeleteActive);
    EXPECT_EQ(stats(), (Stats{4, 2, 0})) << "in use until they are freed";
    open = true;
    ASSERT_TRUE(drained(2));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(threads_started, 1);
    EXPECT_EQ(osal::load(numScheduledDelObjects), 0u);
    EXPECT_EQ(stats(), (Stats{0, 0, 0}));
}

TEST_P(ObjectDeletion, EachDrainedQueueEndsItsThread) {
    start({.level = 0x10000000});
    for (UINT32 i = 1; i <= 3; ++i) {
        end(create(i));
        ASSERT_TRUE(drained(i));
        EXPECT_EQ(threads_started, static_cast<int>(i));
    }
}

TEST_P(ObjectDeletion, WithoutItTheRoutineRunsOnTheCallersThread) {
    start();
    pthread_t ran_on = 0;
    recorded.on_delete = [&](UINT32) { ran_on = pthread_self(); };
    end(create(7));
    EXPECT_EQ(ran_on, pthread_self());
    EXPECT_EQ(threads_started, 0);
}

TEST_P(ObjectDeletion, WorksWithMutexesToo) {
    start({.level = 0x10000003});
    end(create(7));
    ASSERT_TRUE(drained(1));
    EXPECT_EQ(threads_started, 1);
}

TEST_P(ObjectDeletion, DeallocationsAreDeferredToo) {
    start({.level = 0x10000000});
    PVOID data = create(7);
    EXPECT_EQ(om.DeallocateObject(info, data, 0), KC_OK);
    ASSERT_TRUE(eventually([&] { return stats() == (Stats{4, 0, 1}) && idle(); }));
    EXPECT_EQ(recorded.deallocations(), Numbers{7});
    EXPECT_EQ(threads_started, 1);
}

TEST_P(ObjectDeletion, WithoutARoutineNothingIsDeferred) {
    start({.level = 0x10000000, .routines = false});
    end(create(1));
    EXPECT_EQ(om.DeallocateObject(info, create(2), 0), KC_OK);
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
    EXPECT_EQ(threads_started, 0);
}

TEST_P(ObjectDeletion, AQueuedObjectIsFoundByNobodyAndFreedOnce) {
    start({.level = 0x10000000});
    hold_first();
    end(create(1));
    ASSERT_TRUE(first_is_held());
    PVOID queued = create(2), recycled = create(3);
    const HANDLE handle = handle_of(queued), recycled_handle = handle_of(recycled);
    end(queued);
    EXPECT_EQ(om.DeallocateObject(info, recycled, 0), KC_OK);
    // Surplus deletions and dereferences of what is on its way.
    end(queued);
    EXPECT_EQ(om.DereferenceObject(info, queued, 0), KC_OK);
    EXPECT_EQ(om.DeallocateObject(info, recycled, 0), KC_OK);
    EXPECT_EQ(om.DereferenceObject(info, recycled, 0), KC_OK);
    HANDLE scan = nullptr;
    PVOID met = nullptr;
    EXPECT_EQ(om.EnumerateObjects(info, &scan, nullptr, nullptr, 0, &met), object_error(9));
    EXPECT_EQ(reference(handle), nullptr);
    EXPECT_EQ(reference(recycled_handle), nullptr);
    EXPECT_EQ(om.CreateObjectByHandle(info, osal::handle_from(raw(queued)), nullptr, nullptr, 0, 0,
                                      &met, nullptr),
              object_error(3));
    expect_built(3, "ObjectCreateByHandle", 666);
    EXPECT_EQ(length_of(info->objDeleteList), 2u);
    open = true;
    ASSERT_TRUE(drained(2));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(recorded.deallocations(), Numbers{3});
    EXPECT_EQ(stats(), (Stats{4, 0, 1}));
}

TEST_P(ObjectDeletion, ARoutineMayQueueFurtherObjects) {
    start({.level = 0x10000000});
    PVOID second = create(2);
    recorded.on_delete = [&](UINT32 word) {
        if (word == 1) end(second);
    };
    end(create(1));
    ASSERT_TRUE(drained(2));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(threads_started, 1);
}

TEST_P(ObjectDeletion, WithoutAThreadObjectsWaitForTheNextOne) {
    start({.level = 0x10000000});
    refuse_threads = true;
    PVOID one = create(1), two = create(2);
    end(one);
    EXPECT_EQ(threads_refused, 1);
    EXPECT_TRUE(idle());
    EXPECT_EQ(length_of(info->objDeleteList), 1u);
    EXPECT_EQ(osal::load(numScheduledDelObjects), 1u);
    refuse_threads = false;
    end(two);
    ASSERT_TRUE(drained(2));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(threads_started, 1);
}

TEST_P(ObjectDeletion, TheWorkItemStartsADeletionThread) {
    start({.level = 0x10000000});
    refuse_threads = true;
    end(create(1));
    osal::store(info->objDeleteActive, TRUE);
    ObjDeleteWorker(info->objDeleteWorkHandle, info);
    EXPECT_TRUE(idle()) << "no thread, no activity";
    refuse_threads = false;
    EXPECT_EQ(pIOsal->lpVtbl->KxScheduleWorkItem(pIOsal, info->objDeleteWorkHandle, 1), KC_OK);
    ASSERT_TRUE(drained(1));
    EXPECT_EQ(threads_started, 1);
}

TEST_P(ObjectDeletion, TheInstanceGoesWithItsLastQueuedObject) {
    start({.level = 0x10000000});
    hold_first();
    end(create(1));
    ASSERT_TRUE(first_is_held());
    end(create(2));
    om.DeallocateObject(info, create(3), 0);
    om.DereferenceObject(info, create(4), 0);
    allocate(5);
    EXPECT_EQ(release(), 0u);
    EXPECT_NE(holdings(), before);
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 5})) << "preallocated ones end at once";
    open = true;
    ASSERT_TRUE(eventually([&] { return holdings() == before; }));
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 5, 2, 3, 4}));
    EXPECT_EQ(recorded.deallocations(), Numbers{}) << "a pending deallocation ends as a deletion";
}

TEST_P(ObjectDeletion, AReferencedObjectKeepsATornDownInstanceUntilItIsFreed) {
    start({.level = 0x10000000});
    pObjectInfo kept = info;
    PVOID data = create(7);
    release();
    EXPECT_EQ(om.DereferenceObject(kept, data, 0), KC_OK);
    ASSERT_TRUE(eventually([&] { return holdings() == before; }));
    EXPECT_EQ(recorded.deletions(), Numbers{7});
    expect_nothing_built();
}

TEST_P(ObjectDeletion, ItsThreadHasItsNameAndLeavesSignalsAlone) {
    start({.level = 0x10000000});
    std::string name;
    sigset_t blocked;
    recorded.on_delete = [&](UINT32) {
        char text[16];
        pthread_getname_np(pthread_self(), text, sizeof text);
        name = text;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    };
    end(create(1));
    ASSERT_TRUE(drained(1));
    EXPECT_EQ(name, "osal-deletion");
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
}

TEST_P(ObjectDeletion, ShutdownWaitsForIt) {
    start({.level = 0x10000000});
    hold_first();
    end(create(1));
    ASSERT_TRUE(first_is_held());
    end(create(2));
    EXPECT_EQ(release(), 0u);
    RawThread stopper([] { OsalUninitialize(); });
    nap(milliseconds(50));
    EXPECT_FALSE(stopper.done());
    open = true;
    stopper.join();
    EXPECT_EQ(recorded.deletions(), (Numbers{1, 2}));
    EXPECT_EQ(osal::load(g_OsalCurrentThreads), 0);
    EXPECT_EQ(holdings(), before);
}

TEST_P(ObjectDeletion, ShutdownDoesNotWaitForAThreadThatCouldNotBeStarted) {
    start({.level = 0x10000000});
    refuse_threads = true;
    end(create(1));
    EXPECT_EQ(threads_refused, 1);
    OsalUninitialize();
    refuse_threads = false;
    end(create(2));
    ASSERT_TRUE(drained(2));
}

}  // namespace
}  // namespace osal_test
