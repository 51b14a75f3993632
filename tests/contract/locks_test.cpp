// Locks, interlocked operations and the interrupt level, by export and by slot.
#include "osal/lock.h"

#include <cerrno>
#include <cstring>

#include "osal/linux/internal/sync.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"
#include "support/threads.h"

namespace osal_test {
namespace {

constexpr KCSTATUS kNobodyHolds = 1;

class LockTest : public BothWays {
  protected:
    template <class Record>
    static Record* behind(HANDLE handle) {
        return static_cast<Record*>(handle);
    }
};

// A handle of no lock: long enough to look at, and of another kind.
struct Stranger {
    LIST_ENTRY links[2] = {};
    UINT32 signature = osal::four_cc("EVNT");
    char rest[200] = {};
};

class Mutex : public LockTest {
  protected:
    HANDLE mutex = nullptr;
    Mutex() { EXPECT_EQ(CALL(KxAllocMutex)(osal, 0, &mutex), KC_OK); }
    ~Mutex() override {
        if (mutex != nullptr) {
            EXPECT_EQ(CALL(KxDestroyMutex)(osal, mutex), KC_OK);
        }
    }
    bool free_for_others() {
        auto* native = &behind<_KX_MUTEX_HANDLE_>(mutex)->mutex;
        return elsewhere([native] {
            const int result = pthread_mutex_trylock(native);
            if (result == 0) pthread_mutex_unlock(native);
            return result == 0;
        });
    }
};
OSAL_BOTH_WAYS(Mutex);

class ReadWriteLock : public LockTest {
  protected:
    HANDLE lock = nullptr;
    ReadWriteLock() { EXPECT_EQ(CALL(KxAllocReadWriteLock)(osal, &lock), KC_OK); }
    ~ReadWriteLock() override {
        if (lock != nullptr) {
            EXPECT_EQ(CALL(KxDestroyReadWriteLock)(osal, lock), KC_OK);
        }
    }
    _KX_LOCK_HANDLE_* fields() { return behind<_KX_LOCK_HANDLE_>(lock); }
    bool readable_elsewhere() {
        return elsewhere([this] {
            if (CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE) != KC_OK) return false;
            EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
            return true;
        });
    }
    bool writable_elsewhere() {
        return elsewhere([this] {
            if (CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE) != KC_OK) return false;
            EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
            return true;
        });
    }
};
OSAL_BOTH_WAYS(ReadWriteLock);

class SpinLock : public LockTest {
  protected:
    HANDLE lock = nullptr;
    SpinLock() { EXPECT_EQ(CALL(KxAllocSpinLock)(osal, &lock), KC_OK); }
    ~SpinLock() override {
        if (lock != nullptr) {
            EXPECT_EQ(CALL(KxDestroySpinLock)(osal, lock), KC_OK);
        }
    }
    bool free_for_others() {
        auto* native = &behind<_KX_SPINLOCK_HANDLE_>(lock)->spinLock;
        return elsewhere([native] {
            const int result = pthread_mutex_trylock(native);
            if (result == 0) pthread_mutex_unlock(native);
            return result == 0;
        });
    }
    static int cancel_type() {
        int type;
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
        pthread_setcanceltype(type, nullptr);
        return type;
    }
};
OSAL_BOTH_WAYS(SpinLock);

class Interlocked : public BothWays {};
OSAL_BOTH_WAYS(Interlocked);

class InterruptLevel : public BothWays {};
OSAL_BOTH_WAYS(InterruptLevel);

// Calls that end or start the life of a lock, one row a kind.
class LockLife : public LockTest {
  protected:
    struct Kind {
        const char* alloc_name;
        const char* destroy_name;
        std::function<KCSTATUS(PIOsal, HANDLE*)> alloc;
        std::function<KCSTATUS(PIOsal, HANDLE)> destroy;
        const UINT32& in_use;
        const char* signature;
        const char* platform_destroy;
    };
    std::vector<Kind> kinds() {
        return {{"KxAllocMutex", "KxDestroyMutex",
                 [this](PIOsal o, HANDLE* h) { return CALL(KxAllocMutex)(o, 7, h); },
                 [this](PIOsal o, HANDLE h) { return CALL(KxDestroyMutex)(o, h); },
                 record->MutexInUse, "MUTX", "pthread_mutex_destroy"},
                {"KxAllocReadWriteLock", "KxDestroyReadWriteLock",
                 [this](PIOsal o, HANDLE* h) { return CALL(KxAllocReadWriteLock)(o, h); },
                 [this](PIOsal o, HANDLE h) { return CALL(KxDestroyReadWriteLock)(o, h); },
                 record->LockInUse, "LOCK", "pthread_rwlock_destroy"},
                {"KxAllocSpinLock", "KxDestroySpinLock",
                 [this](PIOsal o, HANDLE* h) { return CALL(KxAllocSpinLock)(o, h); },
                 [this](PIOsal o, HANDLE h) { return CALL(KxDestroySpinLock)(o, h); },
                 record->SpinLockInUse, "SPIN", "pthread_mutex_destroy"}};
    }
};
OSAL_BOTH_WAYS(LockLife);

TEST_P(LockLife, AllocationWantsAnInstanceAndAPlaceForTheHandle) {
    StatusRecorder statuses;
    OsalObjInfo stranger = {};
    for (auto& kind : kinds()) {
        HANDLE handle = &stranger;
        EXPECT_EQ(kind.alloc(nullptr, &handle), error(4));
        statuses.expect_one(4, "sync", kind.alloc_name);
        EXPECT_EQ(kind.alloc(reinterpret_cast<PIOsal>(&stranger), &handle), error(4));
        statuses.expect_one(4, "sync", kind.alloc_name);
        EXPECT_EQ(handle, &stranger) << "untouched";
        EXPECT_EQ(kind.alloc(osal, nullptr), error(4));
        statuses.expect_one(4, "sync", kind.alloc_name);
        EXPECT_EQ(kind.in_use, 0u);
    }
}

TEST_P(LockLife, AllocationWithoutMemoryGivesNullAndCodeOne) {
    for (auto& kind : kinds()) {
        StatusRecorder statuses;
        HeapFault fault(1);
        HANDLE handle = this;
        EXPECT_EQ(kind.alloc(osal, &handle), error(1));
        statuses.expect_one(1, "sync", kind.alloc_name);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(kind.in_use, 0u);
    }
}

TEST_P(LockLife, ALockIsCountedAndSigned) {
    StatusRecorder statuses;
    for (auto& kind : kinds()) {
        HANDLE handles[3] = {};
        for (HANDLE& handle : handles)
            EXPECT_EQ(kind.alloc(osal, &handle), KC_OK);
        EXPECT_EQ(kind.in_use, 3u);
        for (HANDLE handle : handles) {
            EXPECT_EQ(memcmp(static_cast<char*>(handle) + 32, kind.signature, 4), 0);
            EXPECT_EQ(kind.destroy(osal, handle), KC_OK);
        }
        EXPECT_EQ(kind.in_use, 0u);
        EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u) << "records come from the C heap";
        EXPECT_EQ(record->MemoryNonPagedTotalAllocated, 0u);
    }
    statuses.expect_none();
}

TEST_P(LockLife, WhatIsReservedStaysAsTheHeapGaveIt) {
    Interpose heap("osal.so", "malloc", &patterned_malloc);
    const std::string pattern(2 * sizeof(LIST_ENTRY), static_cast<char>(kHeapByte));
    for (auto& kind : kinds()) {
        HANDLE handle = nullptr;
        ASSERT_EQ(kind.alloc(osal, &handle), KC_OK);
        EXPECT_EQ(memcmp(handle, pattern.data(), pattern.size()), 0) << kind.signature;
        if (kind.signature == std::string("LOCK")) {
            EXPECT_EQ(memcmp(&behind<_KX_LOCK_HANDLE_>(handle)->threadId, pattern.data(),
                             sizeof(pthread_t)),
                      0);
        }
        EXPECT_EQ(kind.destroy(osal, handle), KC_OK);
    }
}

// Whoever releases touches nothing that the next owner may have freed.
TEST_P(LockLife, ALockMayBeDestroyedByItsNextOwner) {
    const auto pair_of = [this](int kind, HANDLE lock, KCSPIN_STATE* state, bool take) {
        if (kind == 0)
            return take ? CALL(KxAcquireMutex)(osal, lock) : CALL(KxReleaseMutex)(osal, lock);
        if (kind == 2)
            return take ? CALL(KxAcquireSpinLock)(osal, lock, state)
                        : CALL(KxReleaseSpinLock)(osal, lock, *state);
        return take ? CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE)
                    : CALL(KxReleaseReadWriteLock)(osal, lock);
    };
    const auto all = kinds();
    for (int round = 0; round < 150; ++round) {
        const int kind = round % 3;
        HANDLE lock = nullptr;
        KCSPIN_STATE state;
        ASSERT_EQ(all[kind].alloc(osal, &lock), KC_OK);
        ASSERT_EQ(pair_of(kind, lock, &state, true), KC_OK);
        std::atomic<bool> coming = false;
        RawThread next([&] {
            KCSPIN_STATE own_state;
            coming = true;
            EXPECT_EQ(pair_of(kind, lock, &own_state, true), KC_OK);
            EXPECT_EQ(pair_of(kind, lock, &own_state, false), KC_OK);
            EXPECT_EQ(all[kind].destroy(osal, lock), KC_OK);
        });
        while (!coming)
            std::this_thread::yield();
        EXPECT_EQ(pair_of(kind, lock, &state, false), KC_OK);
    }
    for (auto& kind : all)
        EXPECT_EQ(kind.in_use, 0u);
}

TEST_P(LockLife, DestructionWantsAnInstanceAndALockOfTheKind) {
    Quarantine quarantine;
    StatusRecorder statuses;
    Stranger stranger;
    OsalObjInfo no_instance = {};
    for (auto& kind : kinds()) {
        HANDLE handle = nullptr;
        ASSERT_EQ(kind.alloc(osal, &handle), KC_OK);
        EXPECT_EQ(kind.destroy(nullptr, handle), error(3));
        statuses.expect_one(3, "sync", kind.destroy_name);
        EXPECT_EQ(kind.destroy(reinterpret_cast<PIOsal>(&no_instance), handle), error(3));
        statuses.expect_one(3, "sync", kind.destroy_name);
        EXPECT_EQ(kind.destroy(osal, nullptr), error(3));
        statuses.expect_one(3, "sync", kind.destroy_name);
        EXPECT_EQ(kind.destroy(osal, &stranger), error(3));
        statuses.expect_one(3, "sync", kind.destroy_name);
        EXPECT_EQ(kind.in_use, 1u);
        EXPECT_EQ(kind.destroy(osal, handle), KC_OK);
        statuses.expect_none();
    }
}

TEST_P(LockLife, ADestroyedRecordIsZeroedAndItsHandleStale) {
    Quarantine quarantine;
    StatusRecorder statuses;
    const std::size_t sizes[] = {sizeof(_KX_MUTEX_HANDLE_), sizeof(_KX_LOCK_HANDLE_),
                                 sizeof(_KX_SPINLOCK_HANDLE_)};
    const std::size_t* size = sizes;
    for (auto& kind : kinds()) {
        HANDLE handle = nullptr;
        ASSERT_EQ(kind.alloc(osal, &handle), KC_OK);
        ASSERT_EQ(kind.destroy(osal, handle), KC_OK);
        const std::string zeroes(*size, '\0');
        EXPECT_EQ(memcmp(handle, zeroes.data(), *size++), 0);
        statuses.expect_none();
        EXPECT_EQ(kind.destroy(osal, handle), error(3));
        statuses.expect_one(3, "sync", kind.destroy_name);
        EXPECT_EQ(kind.in_use, 0u);
    }
}

TEST_P(LockLife, AFailedPlatformDestroyLeavesLockAndCounter) {
    StatusRecorder statuses;
    for (auto& kind : kinds()) {
        HANDLE handle = nullptr;
        ASSERT_EQ(kind.alloc(osal, &handle), KC_OK);
        {
            Interpose busy(
                "osal.so", kind.platform_destroy, +[](void*) { return EBUSY; });
            EXPECT_EQ(kind.destroy(osal, handle), error(0x1003));
        }
        statuses.expect_one(0x1003, "sync", kind.destroy_name);
        EXPECT_EQ(memcmp(static_cast<char*>(handle) + 32, kind.signature, 4), 0);
        EXPECT_EQ(kind.in_use, 1u);
        EXPECT_EQ(kind.destroy(osal, handle), KC_OK);
    }
}

TEST_P(Mutex, TheOwnerReleasesItAsOftenAsItTookIt) {
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(CALL(KxAcquireMutex)(osal, mutex), KC_OK);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(free_for_others()) << i;
        EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), KC_OK);
    }
    EXPECT_TRUE(free_for_others());
}

TEST_P(Mutex, AcquisitionWaitsForTheOwner) {
    ASSERT_EQ(CALL(KxAcquireMutex)(osal, mutex), KC_OK);
    std::atomic<bool> got = false;
    RawThread other([&] {
        EXPECT_EQ(CALL(KxAcquireMutex)(osal, mutex), KC_OK);
        got = true;
        EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), KC_OK);
    });
    nap(milliseconds(20));
    EXPECT_FALSE(got);
    EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), KC_OK);
    other.join();
    EXPECT_TRUE(got);
}

TEST_P(Mutex, ABadHandleIsCodeThree) {
    StatusRecorder statuses;
    Stranger stranger;
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{&stranger}}) {
        EXPECT_EQ(CALL(KxAcquireMutex)(osal, handle), error(3));
        statuses.expect_one(3, "sync", "KxAcquireMutex");
        EXPECT_EQ(CALL(KxReleaseMutex)(osal, handle), error(3));
        statuses.expect_one(3, "sync", "KxReleaseMutex");
    }
}

TEST_P(Mutex, AStaleHandleIsCodeThree) {
    Quarantine quarantine;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxDestroyMutex)(osal, mutex), KC_OK);
    EXPECT_EQ(CALL(KxAcquireMutex)(osal, mutex), error(3));
    EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), error(3));
    mutex = nullptr;
}

TEST_P(Mutex, AcquireAndReleaseIgnoreTheInstance) {
    EXPECT_EQ(CALL(KxAcquireMutex)(nullptr, mutex), KC_OK);
    EXPECT_EQ(CALL(KxReleaseMutex)(nullptr, mutex), KC_OK);
}

TEST_P(Mutex, AReleaseByAnotherThreadReturnsZeroAndChangesNothing) {
    SKIP_UNDER_HELGRIND();
    SKIP_UNDER_THREAD_SANITIZER();
    StatusRecorder statuses;
    ASSERT_EQ(CALL(KxAcquireMutex)(osal, mutex), KC_OK);
    EXPECT_EQ(elsewhere([&] { return CALL(KxReleaseMutex)(osal, mutex); }), KC_OK);
    EXPECT_FALSE(free_for_others());
    EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), KC_OK);
    statuses.expect_none();
}

TEST_P(Mutex, DestructionWhileHeldLeavesItUsable) {
    SKIP_UNDER_HELGRIND();
    SKIP_UNDER_THREAD_SANITIZER();
    StatusRecorder statuses;
    ASSERT_EQ(CALL(KxAcquireMutex)(osal, mutex), KC_OK);
    EXPECT_EQ(CALL(KxDestroyMutex)(osal, mutex), error(0x1003));
    statuses.expect_one(0x1003, "sync", "KxDestroyMutex");
    EXPECT_EQ(record->MutexInUse, 1u);
    EXPECT_FALSE(free_for_others());
    EXPECT_EQ(CALL(KxReleaseMutex)(osal, mutex), KC_OK);
    EXPECT_TRUE(free_for_others());
}

TEST_P(ReadWriteLock, ReadersShareIt) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    EXPECT_TRUE(readable_elsewhere());
    EXPECT_FALSE(writable_elsewhere());
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_TRUE(writable_elsewhere());
}

TEST_P(ReadWriteLock, TheWriterIsAlone) {
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
    EXPECT_FALSE(readable_elsewhere());
    EXPECT_FALSE(writable_elsewhere());
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_TRUE(readable_elsewhere());
}

TEST_P(ReadWriteLock, AWriteTryOnALockHeldForReadingIsRefusedAtOnce) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    StatusRecorder statuses;
    EXPECT_EQ(elsewhere([&] { return CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE); }),
              error(0x1002));
    statuses.expect_one(0x1002, "sync", "KxAcquireLockForWriteAccess");
    EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE), error(0x1002))
        << "nor is a reader made the writer";
    statuses.expect_one(0x1002, "sync", "KxAcquireLockForWriteAccess");
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds) << "tries are not counted";
}

TEST_P(ReadWriteLock, AReadTryOnALockHeldForWritingIsRefusedAtOnce) {
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE), KC_OK);
    StatusRecorder statuses;
    EXPECT_EQ(elsewhere([&] { return CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE); }),
              error(0x1002));
    statuses.expect_one(0x1002, "sync", "KxAcquireLockForReadAccess");
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds) << "tries are not counted";
}

TEST_P(ReadWriteLock, AnyNonZeroWaitFlagWaits) {
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
    std::atomic<int> got = 0;
    RawThread reader([&] {
        EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, 0x80), KC_OK);
        ++got;
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    });
    RawThread writer([&] {
        EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, 2), KC_OK);
        ++got;
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    });
    nap(milliseconds(20));
    EXPECT_EQ(got, 0);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    reader.join();
    writer.join();
    EXPECT_EQ(got, 2);
}

TEST_P(ReadWriteLock, AWaitingWriterKeepsNewReadersOut) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    std::atomic<int> order = 0;
    int writer_came = 0, reader_came = 0;
    RawThread writer([&] {
        EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
        writer_came = ++order;
        nap(milliseconds(5));
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    });
    ASSERT_TRUE(eventually([&] { return !readable_elsewhere(); })) << "the writer waits";
    RawThread reader([&] {
        EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
        reader_came = ++order;
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    });
    nap(milliseconds(20));
    EXPECT_EQ(order, 0);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    writer.join();
    reader.join();
    EXPECT_EQ(writer_came, 1);
    EXPECT_EQ(reader_came, 2);
}

TEST_P(ReadWriteLock, AReaderThatAsksAgainBehindAWriterIsRefused) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    RawThread writer([&] {
        EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    });
    ASSERT_TRUE(eventually([&] { return !readable_elsewhere(); })) << "the writer waits";
    // To wait here would be for ever; a try shows that it would.
    EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE), error(0x1002));
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
}

// What the release has to leave usable.
void expect_usable(bool readable, bool writable) {
    EXPECT_TRUE(readable);
    EXPECT_TRUE(writable);
}

TEST_P(ReadWriteLock, ReleaseOfAnUnheldLockReturnsOne) {
    StatusRecorder statuses;
    static int unlocks;
    unlocks = 0;
    {
        Interpose unlock(
            "osal.so", "pthread_rwlock_unlock", +[](pthread_rwlock_t*) { return ++unlocks, 0; });
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds);
    }
    EXPECT_EQ(unlocks, 0);
    statuses.expect_none();
    expect_usable(readable_elsewhere(), writable_elsewhere());
}

TEST_P(ReadWriteLock, ReleaseOfAnUnheldLockReturnsOneWhateverWasLockedBefore) {
    const auto acquire_read = CALL(KxAcquireLockForReadAccess);
    const auto acquire_write = CALL(KxAcquireLockForWriteAccess);
    for (auto acquire : {acquire_read, acquire_write, acquire_read, acquire_write, acquire_write}) {
        ASSERT_EQ(acquire(osal, lock, TRUE), KC_OK);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds);
        expect_usable(readable_elsewhere(), writable_elsewhere());
    }
}

TEST_P(ReadWriteLock, ConcurrentSurplusReleasesNeverUnlockTwice) {
    SKIP_UNDER_HELGRIND();
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> ready = 0, unlocks = 0;
        auto release = [&] {
            ++ready;
            while (ready < 2) {
            }
            if (CALL(KxReleaseReadWriteLock)(osal, lock) == KC_OK) ++unlocks;
        };
        RawThread owner([&] {
            EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
            release();
        });
        RawThread other(release);
        owner.join();
        other.join();
        ASSERT_EQ(unlocks, 1);
    }
    expect_usable(readable_elsewhere(), writable_elsewhere());
}

TEST_P(ReadWriteLock, APlatformRefusalLeavesTheCountsUntouched) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    StatusRecorder statuses;
    {
        Interpose many(
            "osal.so", "pthread_rwlock_rdlock", +[](pthread_rwlock_t*) { return EAGAIN; });
        Interpose deadlock(
            "osal.so", "pthread_rwlock_wrlock", +[](pthread_rwlock_t*) { return EDEADLK; });
        EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), error(0x1002));
        statuses.expect_one(0x1002, "sync", "KxAcquireLockForReadAccess");
        EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), error(0x1002));
        statuses.expect_one(0x1002, "sync", "KxAcquireLockForWriteAccess");
    }
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds);
}

TEST_P(ReadWriteLock, TheWriterThatAsksAgainIsRefused) {
    SKIP_UNDER_HELGRIND();
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
    EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), error(0x1002));
    EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), error(0x1002));
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), kNobodyHolds);
    expect_usable(readable_elsewhere(), writable_elsewhere());
}

TEST_P(ReadWriteLock, ACountDrivenBelowZeroIsHealed) {
    for (UINT32 count = 0xFFFFFFFF; count >= 0xFFFFFFFC; --count) {
        fields()->readers = count;
        ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE), KC_OK);
        EXPECT_EQ(fields()->readers, 1u);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
        fields()->readers = count;
        ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE), KC_OK);
        EXPECT_EQ(fields()->readers, 0u);
        fields()->readers = count;
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
        EXPECT_EQ(fields()->readers, 0u);
    }
    fields()->readers = 0xFFFFFFFB;
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE), KC_OK);
    EXPECT_EQ(fields()->readers, 0xFFFFFFFB) << "only four values are";
    fields()->readers = 0;
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
}

TEST_P(ReadWriteLock, RemembersTheLastThreadThatTookIt) {
    ASSERT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, TRUE), KC_OK);
    EXPECT_EQ(fields()->threadId, pthread_self());
    const pthread_t other = elsewhere([&] {
        EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE), KC_OK);
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
        return pthread_self();
    });
    EXPECT_EQ(fields()->threadId, other) << "never cleared";
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
    ASSERT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, TRUE), KC_OK);
    EXPECT_EQ(fields()->threadId, pthread_self());
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
}

TEST_P(ReadWriteLock, DestructionWhileHeldLeavesItUsable) {
    StatusRecorder statuses;
    const auto acquire_read = CALL(KxAcquireLockForReadAccess);
    const auto acquire_write = CALL(KxAcquireLockForWriteAccess);
    for (auto acquire : {acquire_read, acquire_write}) {
        ASSERT_EQ(acquire(osal, lock, TRUE), KC_OK);
        EXPECT_EQ(CALL(KxDestroyReadWriteLock)(osal, lock), error(0x1003));
        statuses.expect_one(0x1003, "sync", "KxDestroyReadWriteLock");
        EXPECT_EQ(record->LockInUse, 1u);
        EXPECT_FALSE(writable_elsewhere());
        statuses.take();
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), KC_OK);
        expect_usable(readable_elsewhere(), writable_elsewhere());
    }
}

TEST_P(ReadWriteLock, ABadHandleIsCodeThree) {
    StatusRecorder statuses;
    Stranger stranger;
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{&stranger}}) {
        EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, handle, FALSE), error(3));
        statuses.expect_one(3, "sync", "KxAcquireLockForReadAccess");
        EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, handle, FALSE), error(3));
        statuses.expect_one(3, "sync", "KxAcquireLockForWriteAccess");
        EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, handle), error(3));
        statuses.expect_one(3, "sync", "KxReleaseReadWriteLock");
    }
}

TEST_P(ReadWriteLock, AStaleHandleIsCodeThree) {
    Quarantine quarantine;
    EXPECT_EQ(CALL(KxDestroyReadWriteLock)(osal, lock), KC_OK);
    EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(osal, lock, FALSE), error(3));
    EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(osal, lock, FALSE), error(3));
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(osal, lock), error(3));
    lock = nullptr;
}

TEST_P(ReadWriteLock, AcquireAndReleaseIgnoreTheInstance) {
    EXPECT_EQ(CALL(KxAcquireLockForReadAccess)(nullptr, lock, TRUE), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(nullptr, lock), KC_OK);
    EXPECT_EQ(CALL(KxAcquireLockForWriteAccess)(nullptr, lock, TRUE), KC_OK);
    EXPECT_EQ(CALL(KxReleaseReadWriteLock)(nullptr, lock), KC_OK);
}

TEST_P(SpinLock, ExcludesOthersAndSavesTheCancellationType) {
    for (int type : {PTHREAD_CANCEL_DEFERRED, PTHREAD_CANCEL_ASYNCHRONOUS}) {
        pthread_setcanceltype(type, nullptr);
        KCSPIN_STATE saved = 77;
        EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), KC_OK);
        EXPECT_EQ(saved, static_cast<KCSPIN_STATE>(type));
        EXPECT_EQ(cancel_type(), PTHREAD_CANCEL_DEFERRED);
        EXPECT_FALSE(free_for_others());
        EXPECT_EQ(CALL(KxReleaseSpinLock)(osal, lock, saved), KC_OK);
        EXPECT_EQ(cancel_type(), type);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
        EXPECT_TRUE(free_for_others());
    }
}

TEST_P(SpinLock, ItsOwnerIsCancelledOnlyAfterTheRelease) {
    std::atomic<int> stage = 0;
    RawThread owner([&] {
        pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
        KCSPIN_STATE saved;
        EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), KC_OK);
        stage = 1;
        while (stage != 2) {
        }
        const auto release = CALL(KxReleaseSpinLock);
        stage = 3;
        release(osal, lock, saved);
        stage = 4;  // not reached: the type is asynchronous again
    });
    while (stage != 1)
        nap();
    owner.cancel();
    nap(milliseconds(20));
    EXPECT_EQ(stage, 1) << "not cancelled while it holds the lock";
    stage = 2;
    EXPECT_TRUE(owner.join());
    EXPECT_EQ(stage, 3);
    EXPECT_TRUE(free_for_others());
}

TEST_P(SpinLock, UnlocksBeforeItRestoresTheCancellationType) {
    static pthread_mutex_t* native;
    static bool was_free;
    native = &behind<_KX_SPINLOCK_HANDLE_>(lock)->spinLock;
    was_free = false;
    KCSPIN_STATE saved;
    ASSERT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), KC_OK);
    Interpose restore(
        "osal.so", "pthread_setcanceltype", +[](int type, int* old) {
            was_free = pthread_mutex_trylock(native) == 0;
            if (was_free) pthread_mutex_unlock(native);
            return pthread_setcanceltype(type, old);
        });
    EXPECT_EQ(CALL(KxReleaseSpinLock)(osal, lock, saved), KC_OK);
    EXPECT_TRUE(was_free);
}

TEST_P(SpinLock, ANullPlaceForTheStateIsCodeFourAndLeavesItFree) {
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, lock, nullptr), error(4));
    statuses.expect_one(4, "sync", "KxAcquireSpinLock");
    EXPECT_TRUE(free_for_others());
}

TEST_P(SpinLock, TheHandleIsLookedAtBeforeThePlaceForTheState) {
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, nullptr, nullptr), error(3));
    statuses.expect_one(3, "sync", "KxAcquireSpinLock");
}

TEST_P(SpinLock, ABadHandleIsCodeThree) {
    StatusRecorder statuses;
    Stranger stranger;
    for (HANDLE handle : {HANDLE{nullptr}, HANDLE{&stranger}}) {
        KCSPIN_STATE saved = 77;
        EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, handle, &saved), error(3));
        statuses.expect_one(3, "sync", "KxAcquireSpinLock");
        EXPECT_EQ(saved, 77u);
        EXPECT_EQ(CALL(KxReleaseSpinLock)(osal, handle, PTHREAD_CANCEL_ASYNCHRONOUS), error(3));
        statuses.expect_one(3, "sync", "KxReleaseSpinLock");
        EXPECT_EQ(cancel_type(), PTHREAD_CANCEL_DEFERRED) << "untouched";
    }
}

TEST_P(SpinLock, AStaleHandleIsCodeThree) {
    Quarantine quarantine;
    EXPECT_EQ(CALL(KxDestroySpinLock)(osal, lock), KC_OK);
    KCSPIN_STATE saved;
    EXPECT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), error(3));
    EXPECT_EQ(CALL(KxReleaseSpinLock)(osal, lock, 0), error(3));
    lock = nullptr;
}

TEST_P(SpinLock, AcquireAndReleaseIgnoreTheInstance) {
    KCSPIN_STATE saved;
    EXPECT_EQ(CALL(KxAcquireSpinLock)(nullptr, lock, &saved), KC_OK);
    EXPECT_EQ(CALL(KxReleaseSpinLock)(nullptr, lock, saved), KC_OK);
}

TEST_P(SpinLock, DestructionWhileHeldLeavesItUsable) {
    SKIP_UNDER_HELGRIND();
    SKIP_UNDER_THREAD_SANITIZER();
    StatusRecorder statuses;
    KCSPIN_STATE saved;
    ASSERT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), KC_OK);
    EXPECT_EQ(CALL(KxDestroySpinLock)(osal, lock), error(0x1003));
    statuses.expect_one(0x1003, "sync", "KxDestroySpinLock");
    EXPECT_EQ(record->SpinLockInUse, 1u);
    EXPECT_FALSE(free_for_others());
    EXPECT_EQ(CALL(KxReleaseSpinLock)(osal, lock, saved), KC_OK);
    EXPECT_TRUE(free_for_others());
}

TEST_P(Interlocked, IncrementAndDecrementReturnTheNewValueAndWrap) {
    UINT32 word = 0xFFFFFFFE;
    EXPECT_EQ(CALL(KxInterlockedIncrement)(nullptr, &word), 0xFFFFFFFFu);
    EXPECT_EQ(CALL(KxInterlockedIncrement)(osal, &word), 0u);
    EXPECT_EQ(CALL(KxInterlockedDecrement)(osal, &word), 0xFFFFFFFFu);
    EXPECT_EQ(CALL(KxInterlockedDecrement)(nullptr, &word), 0xFFFFFFFEu);
    EXPECT_EQ(word, 0xFFFFFFFEu);
}

TEST_P(Interlocked, ExchangeReturnsTheOldValue) {
    UINT32 word = 5;
    EXPECT_EQ(CALL(KxInterlockedExchange)(nullptr, &word, 0x80000001u), 5u);
    EXPECT_EQ(CALL(KxInterlockedExchange)(osal, &word, 6), 0x80000001u);
    EXPECT_EQ(word, 6u);
}

TEST_P(Interlocked, NoChangeIsLostBetweenThreads) {
    constexpr UINT32 kRounds = 20000;
    UINT32 word = 0;
    auto add = [&] {
        for (UINT32 i = 0; i < kRounds; ++i) {
            CALL(KxInterlockedIncrement)(osal, &word);
            CALL(KxInterlockedIncrement)(osal, &word);
            CALL(KxInterlockedDecrement)(osal, &word);
        }
    };
    RawThread other(add);
    add();
    other.join();
    EXPECT_EQ(word, 2 * kRounds);
}

TEST_P(InterruptLevel, IsZeroInEveryThread) {
    EXPECT_EQ(CALL(KxGetCurrentIrql)(nullptr), 0);
    EXPECT_EQ(elsewhere([&] { return CALL(KxGetCurrentIrql)(osal); }), 0);
    HANDLE lock = nullptr;
    ASSERT_EQ(CALL(KxAllocSpinLock)(osal, &lock), KC_OK);
    KCSPIN_STATE saved;
    ASSERT_EQ(CALL(KxAcquireSpinLock)(osal, lock, &saved), KC_OK);
    EXPECT_EQ(CALL(KxGetCurrentIrql)(osal), 0) << "also with a spin lock held";
    CALL(KxReleaseSpinLock)(osal, lock, saved);
    CALL(KxDestroySpinLock)(osal, lock);
}

}  // namespace
}  // namespace osal_test
