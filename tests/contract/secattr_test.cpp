// The security-attribute component, reached through the component runtime, alone and behind the
// security-context object manager.
#include "host/secattr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "host/lcm.h"
#include "osal/iscom.h"
#include "osal/osal.h"

OSAL_DEFINE_IDENTIFIERS

namespace osal_test {
namespace {

constexpr GUID kComponent = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr GUID kOther = {2, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_SECATTR, code);
}

SCHANDLE context(UINT64 user, UINT64 session) {
    return {reinterpret_cast<HANDLE>(user), reinterpret_cast<HANDLE>(session)};
}
UINT64 user_of(SCHANDLE context) {
    return reinterpret_cast<uintptr_t>(context.hTypeId);
}

std::atomic<int> cleanups;
std::atomic<int> releases;
std::atomic<int> inits;

void note_cleanup(SCHANDLE) {
    ++cleanups;
}
void note_release(PAttribute) {
    ++releases;
}
KCSTATUS set_number(PAttribute attribute, void* number) {
    ++inits;
    *static_cast<UINT64*>(attribute->pData) = *static_cast<UINT64*>(number);
    return KC_OK;
}
KCSTATUS refuse(PAttribute, void*) {
    return KC_MAKE_STATUS(3, 99, 5);
}

template <class Interface>
Interface* instance(const GUID& clsid, const GUID& iid) {
    void* made = nullptr;
    EXPECT_EQ(LcmCreateInstance(&clsid, nullptr, &iid, &made), KC_OK);
    return static_cast<Interface*>(made);
}

class SecurityAttributes : public testing::Test {
  protected:
    SecurityAttributes() {
        cleanups = releases = inits = 0;
        EXPECT_EQ(LcmStart(nullptr), KC_OK);
        manager = instance<ISA>(CLSID_SecurityAttributeManager, IID_IContextAttribute_1);
        contexts = instance<ISecurityContext>(CLSID_SecurityContextManager, IID_ISecurityContext_1);
        EXPECT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, note_cleanup,
                                                       note_release, &type),
                  KC_OK);
    }
    ~SecurityAttributes() override {
        if (type != nullptr) {
            EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK);
        }
        manager->lpVtbl->Release(manager);
        contexts->lpVtbl->Release(contexts);
        LcmStop();
    }

    KCSTATUS create(SCHANDLE where, UINT64 number, PAttribute* attribute, PUINT32 opened = nullptr,
                    UINT32 create_access = 0, UINT32 open_access = 0) {
        return manager->lpVtbl->SACreate(manager, where, type, &number, set_number, create_access,
                                         open_access, attribute, opened);
    }
    void created(SCHANDLE where, UINT64 number) {
        PAttribute attribute = nullptr;
        ASSERT_EQ(create(where, number, &attribute), KC_OK);
        give_back(attribute);
    }
    void give_back(PAttribute attribute, UINT32 access = 0) {
        EXPECT_EQ(manager->lpVtbl->SADereference(manager, access, attribute), KC_OK);
    }
    KCSTATUS reference(SCHANDLE where, PAttribute* attribute, UINT32 access = 0) {
        return manager->lpVtbl->SAReference(manager, where, type, access, attribute);
    }
    static UINT64 number(PAttribute attribute) { return *static_cast<UINT64*>(attribute->pData); }
    std::multiset<UINT64> listed() {
        std::multiset<UINT64> users;
        HANDLE scan = nullptr;
        SCHANDLE found;
        KCSTATUS status;
        while (!KC_IS_ERROR(status = contexts->lpVtbl->EnumerateContexts(contexts, &scan, &found)))
            users.insert(user_of(found));
        EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
        return users;
    }

    ISA* manager;
    ISecurityContext* contexts;
    HANDLE type = nullptr;
};

TEST_F(SecurityAttributes, TheTableHasThirteenSlotsInOrder) {
    EXPECT_EQ(sizeof(ISAVtbl), SECATTR_ISA_SLOT_COUNT * sizeof(void*));
#define EXPECT_OFFSET(number, field, ...) \
    EXPECT_EQ(offsetof(ISAVtbl, field), (number) * sizeof(void*));
    SECATTR_ISA_SLOTS(EXPECT_OFFSET)
    for (std::size_t i = 0; i < SECATTR_ISA_SLOT_COUNT; ++i)
        EXPECT_NE(reinterpret_cast<void* const*>(manager->lpVtbl)[i], nullptr);
}

TEST_F(SecurityAttributes, BothIdentifiersGiveTheSameManager) {
    ISA* passive = instance<ISA>(CLSID_SecurityAttributeManager, IID_IPassiveContextAttribute_1);
    EXPECT_EQ(passive, manager);
    void* out = nullptr;
    EXPECT_EQ(manager->lpVtbl->QueryInterface(manager, &IID_IUnknown, &out), KC_OK);
    EXPECT_EQ(out, manager);
    manager->lpVtbl->Release(manager);
    EXPECT_EQ(manager->lpVtbl->QueryInterface(manager, &IID_ISecurityContext_1, &out), error(2));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(manager->lpVtbl->QueryInterface(manager, &IID_IUnknown, nullptr), error(4));
    passive->lpVtbl->Release(passive);
}

TEST_F(SecurityAttributes, AContextBeginsWithItsFirstAttribute) {
    EXPECT_TRUE(listed().empty());
    created(context(1, 1), 7);
    EXPECT_EQ(listed(), (std::multiset<UINT64>{1}));
}

TEST_F(SecurityAttributes, CreationRunsTheInitRoutineOnceAndThenOpens) {
    PAttribute attribute = nullptr;
    UINT32 opened = 0;
    ASSERT_EQ(create(context(1, 1), 7, &attribute, &opened), KC_OK);
    EXPECT_EQ(opened, 1u);
    EXPECT_EQ(number(attribute), 7u);
    EXPECT_EQ(user_of(attribute->hSC), 1u);
    PAttribute again = nullptr;
    ASSERT_EQ(create(context(1, 1), 8, &again, &opened), KC_OK);
    EXPECT_EQ(opened, 2u);
    EXPECT_EQ(again, attribute);
    EXPECT_EQ(number(again), 7u);
    EXPECT_EQ(inits, 1);
    SCHANDLE where = {};
    EXPECT_EQ(manager->lpVtbl->SAGetSCHandle(manager, attribute, &where), KC_OK);
    EXPECT_EQ(user_of(where), 1u);
    give_back(attribute);
    give_back(again);
}

TEST_F(SecurityAttributes, AFailedInitRoutineLeavesNothing) {
    PAttribute attribute = nullptr;
    EXPECT_EQ(manager->lpVtbl->SACreate(manager, context(1, 1), type, nullptr, refuse, 1, 2,
                                        &attribute, nullptr),
              KC_MAKE_STATUS(3, 99, 5));
    EXPECT_EQ(attribute, nullptr);
    EXPECT_EQ(reference(context(1, 1), &attribute), error(3));
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(releases, 0);
}

TEST_F(SecurityAttributes, BadArgumentsAreRefused) {
    PAttribute attribute = nullptr;
    UINT64 value = 0;
    HANDLE handle = nullptr;
    SCHANDLE cursor = {};
    const SCHANDLE everyone = context(~0ull, ~0ull);
    const auto* sa = manager->lpVtbl;
    EXPECT_EQ(create(everyone, 1, &attribute), error(4));
    EXPECT_EQ(create(context(1, 1), 1, nullptr), error(4));
    EXPECT_EQ(sa->SACreate(manager, context(1, 1), nullptr, &value, set_number, 0, 0, &attribute,
                           nullptr),
              error(3));
    EXPECT_EQ(sa->SARegisterAttribute(manager, nullptr, 8, nullptr, nullptr, &handle), error(4));
    EXPECT_EQ(sa->SARegisterAttribute(manager, &kOther, 8, nullptr, nullptr, nullptr), error(4));
    EXPECT_EQ(sa->SARegisterAttribute(manager, &kOther, ~0u, nullptr, nullptr, &handle), error(4));
    EXPECT_EQ(sa->SADeregisterAttribute(manager, nullptr), error(3));
    EXPECT_EQ(sa->SADereference(manager, 0, nullptr), error(4));
    EXPECT_EQ(sa->SADelete(manager, 0, nullptr), error(4));
    EXPECT_EQ(reference(context(1, 1), nullptr), error(4));
    EXPECT_EQ(sa->SAEnumerate(manager, nullptr, nullptr, &cursor, &cursor, nullptr, nullptr, 0,
                              &attribute),
              error(3));
    EXPECT_EQ(
        sa->SAEnumerate(manager, nullptr, type, nullptr, &cursor, nullptr, nullptr, 0, &attribute),
        error(4));
    EXPECT_EQ(sa->SAAcquire(manager, 3, nullptr), error(4));
    EXPECT_EQ(sa->SARelease(manager, nullptr), error(4));
    EXPECT_EQ(sa->SAGetSCHandle(manager, nullptr, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, ~0ull, ~0ull, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, 1, 1, nullptr), error(4));
    EXPECT_EQ(contexts->lpVtbl->EnumerateContexts(contexts, nullptr, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(9, 9)), error(3));
}

TEST_F(SecurityAttributes, TheEndOfAContextCallsBothRoutinesExactlyOnce) {
    created(context(1, 1), 7);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(releases, 1);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), error(3));
    EXPECT_EQ(cleanups, 1);
    PAttribute attribute = nullptr;
    EXPECT_EQ(reference(context(1, 1), &attribute), error(3));
    EXPECT_TRUE(listed().empty());
}

TEST_F(SecurityAttributes, AReferencedAttributeOutlivesItsContext) {
    PAttribute attribute = nullptr;
    ASSERT_EQ(create(context(1, 1), 7, &attribute), KC_OK);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(releases, 0);
    EXPECT_EQ(number(attribute), 7u);
    created(context(1, 1), 8);  // the context begins anew with another attribute
    give_back(attribute);
    EXPECT_EQ(releases, 1);
}

TEST_F(SecurityAttributes, DeletingTakesTheAttributeOffItsContextOnce) {
    PAttribute attribute = nullptr;
    ASSERT_EQ(create(context(1, 1), 7, &attribute, nullptr, 1), KC_OK);
    PAttribute second = nullptr;
    manager->lpVtbl->SARelease(manager, attribute);
    ASSERT_EQ(reference(context(1, 1), &second), KC_OK);
    EXPECT_EQ(manager->lpVtbl->SADelete(manager, 0, attribute), KC_OK);
    EXPECT_EQ(releases, 0);
    EXPECT_EQ(manager->lpVtbl->SADelete(manager, 0, second), KC_OK);
    EXPECT_EQ(releases, 1);
    EXPECT_EQ(cleanups, 0);
}

TEST_F(SecurityAttributes, AnOpenedContextIsListedAndEndsWithoutAttributes) {
    SCHANDLE opened = {};
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, 5, 6, &opened), KC_OK);
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, 5, 6, &opened), KC_OK);
    EXPECT_EQ(user_of(opened), 5u);
    EXPECT_EQ(listed(), (std::multiset<UINT64>{5}));
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, opened), KC_OK);
    EXPECT_TRUE(listed().empty());
}

TEST_F(SecurityAttributes, TypesAreIndependentAndAStaleTypeIsRefused) {
    HANDLE other = nullptr;
    ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kOther, 16, nullptr, nullptr, &other),
              KC_OK);
    PAttribute attribute = nullptr;
    created(context(1, 1), 7);
    EXPECT_EQ(manager->lpVtbl->SAReference(manager, context(1, 1), other, 0, &attribute), error(3));
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), KC_OK);
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), error(3));
    EXPECT_EQ(manager->lpVtbl->SAReference(manager, context(1, 1), other, 0, &attribute), error(3));
}

TEST_F(SecurityAttributes, DeregisteringReleasesEveryAttributeWithoutCleanUp) {
    for (UINT64 user = 1; user <= 100; ++user)
        created(context(user, 1), user);
    PAttribute kept = nullptr;
    ASSERT_EQ(reference(context(50, 1), &kept), KC_OK);
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK);
    type = nullptr;
    EXPECT_EQ(releases, 99);
    EXPECT_EQ(cleanups, 0);
    EXPECT_EQ(manager->lpVtbl->SADelete(manager, 0, kept), KC_OK);
    EXPECT_EQ(releases, 100);
}

TEST_F(SecurityAttributes, EnumerationVisitsEachContextAndMayChoose) {
    std::multiset<UINT64> expected;
    for (UINT64 user = 1; user <= 300; ++user) {
        created(context(user, 1), user);
        expected.insert(user);
    }
    std::multiset<UINT64> seen;
    SCHANDLE cursors[2] = {};
    PAttribute attribute = nullptr;
    KCSTATUS status;
    while (!KC_IS_ERROR(status = manager->lpVtbl->SAEnumerate(manager, &kComponent, nullptr,
                                                              &cursors[0], &cursors[1], nullptr,
                                                              nullptr, 2, &attribute))) {
        seen.insert(number(attribute));
        give_back(attribute, 2);
    }
    EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
    EXPECT_EQ(seen, expected);

    SCHANDLE again[2] = {};
    const auto is_wanted = [](PAttribute candidate, void* wanted) -> BOOLEAN {
        return number(candidate) == *static_cast<UINT64*>(wanted);
    };
    UINT64 wanted = 200;
    ASSERT_EQ(manager->lpVtbl->SAEnumerate(manager, nullptr, type, &again[0], &again[1], &wanted,
                                           is_wanted, 0, &attribute),
              KC_OK);
    EXPECT_EQ(number(attribute), 200u);
    give_back(attribute);
}

TEST_F(SecurityAttributes, ExclusiveAccessKeepsSharedAccessOut) {
    PAttribute attribute = nullptr;
    ASSERT_EQ(create(context(1, 1), 7, &attribute, nullptr, 1), KC_OK);
    std::atomic<bool> entered = false;
    std::thread reader([&] {
        PAttribute shared = nullptr;
        EXPECT_EQ(reference(context(1, 1), &shared, 2), KC_OK);
        entered = true;
        give_back(shared, 2);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    give_back(attribute, 1);
    reader.join();
    EXPECT_TRUE(entered);
    ASSERT_EQ(reference(context(1, 1), &attribute, 2), KC_OK);
    PAttribute second = nullptr;
    ASSERT_EQ(reference(context(1, 1), &second, 2), KC_OK);  // shared with the first
    give_back(attribute, 2);
    give_back(second, 2);
}

TEST_F(SecurityAttributes, RacingCreatorsMakeOneAttributeForEachContext) {
    constexpr UINT64 kContexts = 200;
    std::vector<std::thread> threads;
    std::atomic<UINT32> made = 0;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (UINT64 user = 1; user <= kContexts; ++user) {
                PAttribute attribute = nullptr;
                UINT32 opened = 0;
                EXPECT_EQ(create(context(user, 1), user, &attribute, &opened, 1, 2), KC_OK);
                EXPECT_EQ(number(attribute), user);
                made += opened == 1;
                give_back(attribute, opened);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(made, kContexts);
    EXPECT_EQ(inits, static_cast<int>(kContexts));
}

TEST_F(SecurityAttributes, ContextsMayEndWhileOthersUseAndEnumerateThem) {
    std::atomic<bool> stop = false;
    std::vector<std::thread> users;
    for (int i = 0; i < 2; ++i)
        users.emplace_back([&] {
            while (!stop) {
                SCHANDLE cursors[2] = {};
                PAttribute attribute = nullptr;
                while (!KC_IS_ERROR(manager->lpVtbl->SAEnumerate(manager, nullptr, type,
                                                                 &cursors[0], &cursors[1], nullptr,
                                                                 nullptr, 2, &attribute))) {
                    EXPECT_EQ(number(attribute), user_of(attribute->hSC));
                    give_back(attribute, 2);
                }
            }
        });
    int ended = 0;
    for (UINT64 round = 0; round < 500; ++round) {
        for (UINT64 user = 1; user <= 8; ++user)
            created(context(user, round % 3), user);
        for (UINT64 user = 1; user <= 8; ++user)
            ended += !KC_IS_ERROR(contexts->lpVtbl->EndContext(contexts, context(user, round % 3)));
    }
    stop = true;
    for (auto& thread : users)
        thread.join();
    EXPECT_EQ(ended, 4000);
    EXPECT_EQ(cleanups, 4000);
    EXPECT_EQ(releases, 4000);
}

TEST_F(SecurityAttributes, RacingEndsOfAContextAreSettledInOnePlace) {
    for (int round = 0; round < 200; ++round) {
        created(context(1, 1), 7);
        std::atomic<int> ended = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                ended += !KC_IS_ERROR(contexts->lpVtbl->EndContext(contexts, context(1, 1)));
            });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(ended, 1);
    }
    EXPECT_EQ(cleanups, 200);
    EXPECT_EQ(releases, 200);
}

// --- Behind the security-context object manager ---

std::atomic<int> deleted_objects;

class ContextObjects : public SecurityAttributes {
  protected:
    ContextObjects() {
        deleted_objects = 0;
        objects = instance<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2);
        EXPECT_EQ(objects->lpVtbl->Initialize(
                      objects, &kOther, sizeof(UINT64), 16, 0, 4,
                      [](PVOID) -> KCSTATUS {
                          ++deleted_objects;
                          return KC_OK;
                      },
                      nullptr, nullptr, 0),
                  KC_OK);
    }
    ~ContextObjects() override { objects->lpVtbl->Release(objects); }

    void find_or_create(SCHANDLE where, UINT64 value) {
        const auto fill = [](PVOID object, PVOID from) -> KCSTATUS {
            *static_cast<UINT64*>(object) = *static_cast<UINT64*>(from);
            return KC_OK;
        };
        const auto equal = [](PVOID object, PVOID wanted) -> BOOLEAN {
            return *static_cast<UINT64*>(object) == *static_cast<UINT64*>(wanted);
        };
        PVOID object = nullptr;
        EXPECT_EQ(
            objects->lpVtbl->CreateObject(objects, where, &value, fill, &value, equal,
                                          static_cast<UINT32>(value % 4), 0, 0, &object, nullptr),
            KC_OK);
        EXPECT_EQ(objects->lpVtbl->DereferenceObject(objects, object, 0), KC_OK);
    }
    std::multiset<std::pair<UINT64, UINT64>> all_objects() {
        std::multiset<std::pair<UINT64, UINT64>> found;
        ISCOM_SCAN_DATA scan = {};
        PVOID object = nullptr;
        KCSTATUS status;
        while (!KC_IS_ERROR(
            status = objects->lpVtbl->EnumerateObjects(objects, context(~0ull, ~0ull), &scan,
                                                       nullptr, nullptr, 0, &object))) {
            SCHANDLE where = {};
            objects->lpVtbl->GetObjectSecurityContext(objects, object, &where);
            found.insert({user_of(where), *static_cast<UINT64*>(object)});
            objects->lpVtbl->DereferenceObject(objects, object, 0);
        }
        EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
        return found;
    }

    ISCOM_2* objects;
};

TEST_F(ContextObjects, ObjectsOfManyContextsAreFoundByTheWildcard) {
    std::multiset<std::pair<UINT64, UINT64>> expected;
    for (UINT64 user = 1; user <= 50; ++user)
        for (UINT64 value = 0; value < 20; ++value) {
            find_or_create(context(user, 1), value);
            expected.insert({user, value});
        }
    EXPECT_EQ(all_objects(), expected);
}

TEST_F(ContextObjects, TheEndOfAContextDeletesItsObjects) {
    for (UINT64 value = 0; value < 20; ++value) {
        find_or_create(context(1, 1), value);
        find_or_create(context(2, 1), value);
    }
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(deleted_objects, 20);
    EXPECT_EQ(all_objects().size(), 20u);
}

TEST_F(ContextObjects, ThreadsRacingForTheFirstObjectOfAContextShareOneManager) {
    constexpr UINT64 kContexts = 100;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (UINT64 user = 1; user <= kContexts; ++user)
                find_or_create(context(user, 1), user);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(all_objects().size(), kContexts);
}

TEST_F(ContextObjects, ContextsMayEndWhileTheWildcardEnumerates) {
    std::atomic<bool> stop = false;
    std::thread scanner([&] {
        while (!stop) {
            ISCOM_SCAN_DATA scan = {};
            PVOID object = nullptr;
            while (!KC_IS_ERROR(objects->lpVtbl->EnumerateObjects(
                objects, context(~0ull, ~0ull), &scan, nullptr, nullptr, 2, &object)))
                objects->lpVtbl->DereferenceObject(objects, object, 2);
        }
    });
    for (UINT64 round = 0; round < 300; ++round) {
        for (UINT64 user = 1; user <= 4; ++user)
            for (UINT64 value = 0; value < 3; ++value)
                find_or_create(context(user, round % 2), value);
        for (UINT64 user = 1; user <= 4; ++user)
            EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(user, round % 2)), KC_OK);
    }
    stop = true;
    scanner.join();
    EXPECT_EQ(deleted_objects, 300 * 4 * 3);
    EXPECT_TRUE(all_objects().empty());
}

TEST_F(ContextObjects, StatisticsAreThoseOfOneContext) {
    find_or_create(context(1, 1), 1);
    UINT32 in_use = 9;
    EXPECT_EQ(objects->lpVtbl->GetObjectStats(objects, context(1, 1), nullptr, &in_use, nullptr),
              KC_OK);
    EXPECT_EQ(in_use, 1u);
    EXPECT_EQ(objects->lpVtbl->GetObjectStats(objects, context(2, 1), nullptr, &in_use, nullptr),
              KC_OK);
    EXPECT_EQ(in_use, 0u);
}

}  // namespace
}  // namespace osal_test
