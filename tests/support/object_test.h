// Fixture of tests of the object manager: an instance in each way a client can reach it, with
// routines that record their calls.
//
// At its end an instance that is left is released, and everything the object manager took from the
// services must have been given back.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "osal/internal/object.h"
#include "osal/linux/internal/sync.h"
#include "support/recorders.h"
#include "support/service_test.h"
#include "support/threads.h"

namespace osal_test {

enum class Face { kExports, kFirst, kSecond };
inline void PrintTo(Face face, std::ostream* out) {
    *out << (face == Face::kExports ? "exports" : face == Face::kFirst ? "IOM" : "IOM_2");
}

constexpr KCSTATUS object_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OBJECT, code);
}

inline LCM_IClassFactory* object_factory() {
    void* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IClassFactory, &factory),
              KC_S_OK);
    return static_cast<LCM_IClassFactory*>(factory);
}

// The operations of an instance as the face under test reaches them.
inline IOMVtbl operations_of(void* instance, Face face) {
#define FROM_EXPORT(number, field, function, ...) .field = &function,
    if (face == Face::kExports) return {KX_IOM_SLOTS(FROM_EXPORT)};
#undef FROM_EXPORT
    if (face == Face::kFirst) return *static_cast<IOM*>(instance)->lpVtbl;
    const IOM_2Vtbl& table = *static_cast<IOM_2*>(instance)->lpVtbl;
#define FROM_SLOT(number, field, ...) .field = table.field,
    return {KX_IOM_SLOTS(FROM_SLOT)};
#undef FROM_SLOT
}

// Whether another thread would have to wait for a platform mutex.
inline bool is_taken(pthread_mutex_t& mutex) {
    return elsewhere([&] {
        if (pthread_mutex_trylock(&mutex) != 0) return true;
        pthread_mutex_unlock(&mutex);
        return false;
    });
}

// Everything that the services lent the library's own instance, and is still out.
struct Holdings {
    UINT32 values[6];
    bool operator==(const Holdings&) const = default;
};
inline Holdings holdings() {
    const OsalObjInfo* own = osal::instance_of(pIOsal);
    return {{osal::load(own->MemoryNonPagedInUse), osal::load(own->MemoryPagedInUse),
             osal::load(own->LockInUse), osal::load(own->MutexInUse),
             osal::load(own->SpinLockInUse), osal::load(own->WorkItemInUse)}};
}

// What client routines were called with, and how they behave.
struct Calls {
    std::mutex mutex;
    std::vector<UINT32> deleted, deallocated;  // the first word of the data
    KCSTATUS init_result = KC_OK;
    std::function<void(UINT32)> on_delete;  // runs inside the delete routine
    std::function<void(UINT32)> on_deallocate;

    std::vector<UINT32> deletions() {
        std::lock_guard lock(mutex);
        return deleted;
    }
    std::vector<UINT32> deallocations() {
        std::lock_guard lock(mutex);
        return deallocated;
    }
};
inline Calls* calls = nullptr;

inline UINT32& word_of(PVOID data) {
    return *static_cast<UINT32*>(data);
}
inline KCSTATUS on_delete(PVOID data) {
    {
        std::lock_guard lock(calls->mutex);
        calls->deleted.push_back(word_of(data));
    }
    if (calls->on_delete) calls->on_delete(word_of(data));
    return object_error(77);  // not used by anybody
}
inline KCSTATUS on_deallocate(PVOID data) {
    {
        std::lock_guard lock(calls->mutex);
        calls->deallocated.push_back(word_of(data));
    }
    if (calls->on_deallocate) calls->on_deallocate(word_of(data));
    return KC_OK;
}
inline KCSTATUS write_word(PVOID data, PVOID word) {
    EXPECT_EQ(word_of(data), 0u) << "data that was not zeroed";
    word_of(data) = *static_cast<UINT32*>(word);
    return calls->init_result;
}
inline BOOLEAN same_word(PVOID data, PVOID word) {
    return word_of(data) == *static_cast<UINT32*>(word);
}

// How an instance is initialised.
struct Shape {
    UINT32 size = 16;
    UINT16 per_block = 4;
    UINT32 level = 0;
    UINT32 buckets = 1;
    UINT32 permanent = 0;
    bool routines = true;
};

class ObjectTest : public ServiceTest, public testing::WithParamInterface<Face> {
  protected:
    ObjectTest() {
        calls = &recorded;
        before = holdings();
        make();
    }
    ~ObjectTest() override {
        if (info != nullptr) {
            EXPECT_EQ(release(), 0u);
        }
        EXPECT_TRUE(eventually([&] { return holdings() == before; })) << "something was kept";
        EXPECT_TRUE(eventually([] { return osal::load(numScheduledDelObjects) == 0; }));
        EXPECT_TRUE(eventually([] { return osal::load(g_OsalCurrentThreads) == 0; }));
        EXPECT_EQ(g_ulCount, 0u);
    }

    void make() {
        LCM_IClassFactory* factory = object_factory();
        void* made = nullptr;
        const GUID& iid = GetParam() == Face::kSecond ? IID_IObjectManager_2 : IID_IObjectManager_1;
        ASSERT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &iid, &made), KC_OK);
        factory->lpVtbl->Release(factory);
        info = static_cast<pObjectInfo>(made);
        om = operations_of(made, GetParam());
    }
    KCSTATUS initialize(const Shape& shape) {
        const auto deletes = shape.routines ? &on_delete : nullptr;
        const auto deallocates = shape.routines ? &on_deallocate : nullptr;
        return om.Initialize(info, shape.size, shape.per_block, shape.level, shape.buckets, deletes,
                             deallocates, nullptr, shape.permanent);
    }
    void start(const Shape& shape = {}) { ASSERT_EQ(initialize(shape), KC_OK); }
    UINT32 release() {
        const UINT32 left = om.Release(info);
        if (left == 0) info = nullptr;
        return left;
    }

    // A new object with a word in its data, or a failure of the test.
    PVOID create(UINT32 word, UINT32 bucket = 0) {
        PVOID data = nullptr;
        EXPECT_EQ(om.CreateObject(info, &word, write_word, nullptr, nullptr, bucket, 0, 0, &data,
                                  nullptr),
                  KC_OK);
        return data;
    }
    PVOID allocate(UINT32 word) {
        PVOID data = nullptr;
        EXPECT_EQ(om.AllocateObject(info, &data), KC_OK);
        if (data != nullptr) word_of(data) = word;
        return data;
    }
    PVOID find(UINT32 word, UINT32 bucket = 0, UINT32 access = 0) {
        PVOID data = nullptr;
        return om.FindObject(info, &word, same_word, bucket, access, &data) == KC_OK ? data
                                                                                     : nullptr;
    }
    HANDLE handle_of(PVOID data) {
        HANDLE handle = nullptr;
        EXPECT_EQ(om.GetObjectHandle(info, data, &handle), KC_OK);
        return handle;
    }
    UINT32 raw(PVOID data) { return osal::handle_of(osal::object_of(data)); }
    // What the face under test takes for a raw handle.
    HANDLE handle_from(UINT32 raw_handle) {
        const UINT32 scramble = GetParam() == Face::kSecond ? osal::scramble_of(info) : 0;
        return osal::handle_from(raw_handle ^ scramble);
    }
    PVOID reference(HANDLE handle, UINT32 access = 0) {
        PVOID data = nullptr;
        return om.ReferenceObjectByHandle(info, handle, access, &data) == KC_OK ? data : nullptr;
    }
    void end(PVOID data, UINT32 access = 0) {
        EXPECT_EQ(om.DeleteObject(info, data, access), KC_OK);
    }

    struct Stats {
        UINT32 allocated, in_use, preallocated;
        bool operator==(const Stats&) const = default;
    };
    Stats stats() {
        Stats stats;
        EXPECT_EQ(om.GetObjectStats(info, &stats.allocated, &stats.in_use, &stats.preallocated),
                  KC_OK);
        return stats;
    }
    std::vector<UINT32> block_ids() {
        std::vector<UINT32> ids;
        for (auto* link = info->blockList.Flink; link != &info->blockList; link = link->Flink)
            ids.push_back(osal::linked_block(link)->blockId);
        return ids;
    }
    pBlockHeader block(UINT32 id) {
        for (auto* link = info->blockList.Flink; link != &info->blockList; link = link->Flink)
            if (osal::linked_block(link)->blockId == id) return osal::linked_block(link);
        return nullptr;
    }
    UINT8 flags(PVOID data) { return osal::load(osal::object_of(data)->flags); }
    UINT32 count(PVOID data) { return osal::load(osal::object_of(data)->instanceCount); }

    // Fails the test unless exactly this error was built since the last look.
    void expect_built(UINT32 code, const char* tag, const char* function, UINT32 line) {
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), 1u) << "statuses built";
        EXPECT_EQ(built[0].severity, KC_SEVERITY_ERROR);
        EXPECT_EQ(built[0].facility, KC_FACILITY_OBJECT);
        EXPECT_EQ(built[0].code, code);
        EXPECT_EQ(built[0].file, tag);
        EXPECT_EQ(built[0].function, function);
        EXPECT_EQ(built[0].line, line);
    }
    void expect_built(UINT32 code, const char* function, UINT32 line) {
        expect_built(code, "../object", function, line);
    }
    void expect_nothing_built() { statuses.expect_none(); }

    Calls recorded;
    Holdings before;
    StatusRecorder statuses;
    pObjectInfo info = nullptr;  // the instance
    IOMVtbl om;                  // its operations, in the way under test
};

#define OSAL_ALL_FACES(suite)                                                   \
    INSTANTIATE_TEST_SUITE_P(                                                   \
        Of, suite,                                                              \
        testing::Values(::osal_test::Face::kExports, ::osal_test::Face::kFirst, \
                        ::osal_test::Face::kSecond),                            \
        [](const auto& info) {                                                  \
            return info.param == ::osal_test::Face::kExports ? "Exports"        \
                   : info.param == ::osal_test::Face::kFirst ? "First"          \
                                                             : "Second";        \
        })

}  // namespace osal_test
