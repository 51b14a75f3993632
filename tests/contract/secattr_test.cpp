// The security-attribute component, reached through the component runtime, alone and behind the
// security-context object manager.
#include "support/secattr_test.h"

#include <dlfcn.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "osal/component.h"
#include "support/recorders.h"

OSAL_DEFINE_IDENTIFIERS

namespace osal_test {
namespace {

// Any number below the one given.
using Any = std::function<UINT64(UINT64)>;

// Four threads take so many steps each, by random numbers of their own.
void race(int steps, const std::function<void(const Any&)>& step) {
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            const Any any = [&](UINT64 bound) { return random() % bound; };
            for (int i = 0; i < steps; ++i)
                step(any);
        });
    for (auto& thread : threads)
        thread.join();
}

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

TEST_F(SecurityAttributes, InterfacesAndFactoriesCountTheirReferences) {
    const UINT32 count = manager->lpVtbl->AddRef(manager);
    void* out = nullptr;
    EXPECT_EQ(manager->lpVtbl->QueryInterface(manager, &IID_IUnknown, &out), KC_OK);
    EXPECT_EQ(manager->lpVtbl->AddRef(manager), count + 2);
    EXPECT_EQ(contexts->lpVtbl->QueryInterface(contexts, &IID_IUnknown, &out), KC_OK);
    EXPECT_EQ(contexts->lpVtbl->AddRef(contexts), count + 4);
    for (UINT32 left = count + 4; left-- > count - 1;)
        EXPECT_EQ(
            left % 2 == 0 ? manager->lpVtbl->Release(manager) : contexts->lpVtbl->Release(contexts),
            left);
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
    EXPECT_EQ(
        sa->SAEnumerate(manager, nullptr, type, &cursor, nullptr, nullptr, nullptr, 0, &attribute),
        error(4));
    EXPECT_EQ(
        sa->SAEnumerate(manager, nullptr, type, &cursor, &cursor, nullptr, nullptr, 0, nullptr),
        error(4));
    EXPECT_EQ(sa->SAAcquire(manager, 1, nullptr), error(4));
    ASSERT_EQ(create(context(1, 1), 1, &attribute), KC_OK);
    for (UINT32 access : {0u, 3u})
        EXPECT_EQ(sa->SAAcquire(manager, access, attribute), error(4));
    EXPECT_EQ(sa->SAGetSCHandle(manager, attribute, nullptr), error(4));
    give_back(attribute);
    EXPECT_EQ(sa->SARelease(manager, nullptr), error(4));
    EXPECT_EQ(sa->SAGetSCHandle(manager, nullptr, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, ~0ull, ~0ull, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, 1, 1, nullptr), error(4));
    EXPECT_EQ(contexts->lpVtbl->EnumerateContexts(contexts, nullptr, &cursor), error(4));
    EXPECT_EQ(contexts->lpVtbl->EnumerateContexts(contexts, &handle, nullptr), error(4));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(9, 9)), error(3));
}

TEST_F(SecurityAttributes, ARefusedRegistrationNamesNoType) {
    HANDLE made = &made;
    EXPECT_EQ(manager->lpVtbl->SARegisterAttribute(manager, nullptr, 8, nullptr, nullptr, &made),
              error(4));
    EXPECT_EQ(made, nullptr);
    made = &made;
    EXPECT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kOther, ~0u, nullptr, nullptr, &made),
              error(4));
    EXPECT_EQ(made, nullptr);
}

// The record before the data is of a multiple of 8 bytes, and the sum has to fit in 32 bits.
TEST_F(SecurityAttributes, DataAreRefusedJustWhereTheirSizeWouldWrap) {
    HANDLE made = nullptr;
    UINT32 refused = 0;
    while (manager->lpVtbl->SARegisterAttribute(manager, &kOther, ~refused, nullptr, nullptr,
                                                &made) == error(4))
        ++refused;
    EXPECT_GT(refused, 0u);
    EXPECT_LT(refused, 1000u);
    EXPECT_EQ(refused % 8, 0u);
    PAttribute attribute = nullptr;
    EXPECT_TRUE(KC_IS_ERROR(manager->lpVtbl->SACreate(manager, context(1, 1), made, nullptr,
                                                      nullptr, 0, 0, &attribute, nullptr)));
    EXPECT_EQ(attribute, nullptr);
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, made), KC_OK);
}

TEST_F(SecurityAttributes, EveryRoutineMayBeMissing) {
    HANDLE other = nullptr;
    ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kOther, 16, nullptr, nullptr, &other),
              KC_OK);
    for (UINT64 user : {1, 2}) {
        PAttribute attribute = nullptr;
        ASSERT_EQ(manager->lpVtbl->SACreate(manager, context(user, 1), other, nullptr, nullptr, 0,
                                            0, &attribute, nullptr),
                  KC_OK);
        EXPECT_EQ(number(attribute), 0u);
        give_back(attribute);
    }
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    PAttribute attribute = nullptr;
    EXPECT_EQ(manager->lpVtbl->SAReference(manager, context(1, 1), other, 0, &attribute), error(3));
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), KC_OK);
}

// Of three attributes that come off a context, the clean-up of one deletes another.
TEST_F(SecurityAttributes, DeletingAnAttributeOfAContextThatEndsDisturbsNoneOfTheOthers) {
    static std::function<void()> on_cleanup;
    static int calls;
    calls = 0;
    PAttribute kept[3] = {};
    const auto delete_kept = [&] {
        for (PAttribute& attribute : kept)
            if (attribute != nullptr) manager->lpVtbl->SADelete(manager, 0, attribute);
        std::fill(std::begin(kept), std::end(kept), nullptr);
    };
    on_cleanup = [&] {
        ++calls;
        delete_kept();
    };
    HANDLE types[3] = {};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(
                      manager, &kOther, 8, [](SCHANDLE) { on_cleanup(); }, note_release, &types[i]),
                  KC_OK);
        ASSERT_EQ(manager->lpVtbl->SACreate(manager, context(1, 1), types[i], nullptr, nullptr, 0,
                                            0, &kept[i], nullptr),
                  KC_OK);
    }
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(releases, 3);
    for (HANDLE each : types)
        EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, each), KC_OK);
}

TEST_F(SecurityAttributes, OnlyExactlyOneOfACompareRoutineChooses) {
    created(context(1, 1), 7);
    SCHANDLE cursors[2] = {};
    PAttribute attribute = nullptr;
    const auto say = [](PAttribute, void* answer) -> BOOLEAN {
        return *static_cast<BOOLEAN*>(answer);
    };
    for (BOOLEAN answer : {2, 255, 0}) {
        EXPECT_EQ(KC_CODE(manager->lpVtbl->SAEnumerate(manager, nullptr, type, &cursors[0],
                                                       &cursors[1], &answer, say, 0, &attribute)),
                  KC_CODE_NO_MORE_ENTRIES);
        EXPECT_EQ(attribute, nullptr);
    }
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

TEST_F(SecurityAttributes, ACreatorHasItsAccessBeforeAnybodyElseSeesTheAttribute) {
    for (UINT64 round = 1; round <= 300; ++round) {
        const SCHANDLE where = context(round, 1);
        std::atomic<bool> looking = false;
        std::atomic<bool> entered = false;
        std::thread reader([&] {
            PAttribute shared = nullptr;
            do
                looking = true;
            while (KC_IS_ERROR(reference(where, &shared, 2)));
            entered = true;
            give_back(shared, 2);
        });
        while (!looking)
            std::this_thread::yield();
        PAttribute attribute = nullptr;
        EXPECT_EQ(create(where, round, &attribute, nullptr, 1, 2), KC_OK);
        EXPECT_FALSE(entered);
        give_back(attribute, 1);
        reader.join();
        ASSERT_FALSE(HasFailure()) << "in round " << round;
    }
}

TEST_F(SecurityAttributes, AThreadThatHoldsAnAttributeExclusivelyGetsNoFurtherAccess) {
    constexpr KCSTATUS kNotAcquired = KC_MAKE_STATUS(3, KC_FACILITY_OSAL, 0x1002);
    const SCHANDLE where = context(1, 1);
    PAttribute attribute = nullptr;
    ASSERT_EQ(create(where, 7, &attribute, nullptr, 1, 2), KC_OK);
    for (UINT32 access : {1u, 2u}) {
        PAttribute again = nullptr;
        UINT32 opened = 9;
        SCHANDLE cursors[2] = {};
        EXPECT_EQ(reference(where, &again, access), kNotAcquired);
        EXPECT_EQ(create(where, 8, &again, &opened, 0, access), kNotAcquired);
        EXPECT_EQ(manager->lpVtbl->SAEnumerate(manager, nullptr, type, &cursors[0], &cursors[1],
                                               nullptr, nullptr, access, &again),
                  kNotAcquired);
        EXPECT_EQ(cursors[0].hId, nullptr);  // the next call tries again
        EXPECT_EQ(cursors[1].hId, nullptr);
        EXPECT_EQ(manager->lpVtbl->SAAcquire(manager, access, attribute), kNotAcquired);
        EXPECT_EQ(again, nullptr);
        EXPECT_EQ(opened, 9u);
    }
    give_back(attribute, 1);  // the only reference
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, where), KC_OK);
    EXPECT_EQ(releases, 1);
}

TEST_F(SecurityAttributes, AFailedFirstAttributeEndsOnlyAContextThatBeganForIt) {
    SCHANDLE opened = {};
    ASSERT_EQ(contexts->lpVtbl->OpenContext(contexts, 1, 1, &opened), KC_OK);
    PAttribute attribute = nullptr;
    for (UINT64 user : {1, 2})
        EXPECT_EQ(manager->lpVtbl->SACreate(manager, context(user, 1), type, nullptr, refuse, 1, 2,
                                            &attribute, nullptr),
                  KC_MAKE_STATUS(3, 99, 5));
    EXPECT_EQ(listed(), (std::multiset<UINT64>{1}));
}

TEST_F(SecurityAttributes, TheCleanUpRoutineGetsItsContextBeforeTheAttributeIsReleased) {
    static std::vector<std::string> calls;
    HANDLE other = nullptr;
    ASSERT_EQ(
        manager->lpVtbl->SARegisterAttribute(
            manager, &kOther, 0,
            [](SCHANDLE ended) { calls.push_back("clean up " + std::to_string(user_of(ended))); },
            [](PAttribute attribute) {
                calls.push_back("release " + std::to_string(user_of(attribute->hSC)));
            },
            &other),
        KC_OK);
    for (UINT64 user : {5, 6}) {
        PAttribute attribute = nullptr;
        ASSERT_EQ(manager->lpVtbl->SACreate(manager, context(user, 1), other, nullptr, nullptr, 0,
                                            0, &attribute, nullptr),
                  KC_OK);
        give_back(attribute);
    }
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(6, 1)), KC_OK);
    EXPECT_EQ(calls, (std::vector<std::string>{"clean up 6", "release 6"}));
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), KC_OK);
    EXPECT_EQ(calls, (std::vector<std::string>{"clean up 6", "release 6", "release 5"}));
}

TEST_F(SecurityAttributes, ItsRoutinesMayCallTheManager) {
    static std::function<void(SCHANDLE)> on_cleanup;
    static std::function<void()> on_release;
    on_cleanup = [this](SCHANDLE ended) {
        const SCHANDLE next = context(user_of(ended) + 1, 1);
        created(next, 1);
        EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, next), KC_OK);
        created(ended, 2);  // begins anew
        EXPECT_EQ(listed(), (std::multiset<UINT64>{1}));
    };
    on_release = [this] { created(context(9, 9), 3); };
    HANDLE other = nullptr;
    ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(
                  manager, &kOther, 8, [](SCHANDLE ended) { on_cleanup(ended); },
                  [](PAttribute) { on_release(); }, &other),
              KC_OK);
    PAttribute attribute = nullptr;
    ASSERT_EQ(manager->lpVtbl->SACreate(manager, context(1, 1), other, nullptr, nullptr, 0, 0,
                                        &attribute, nullptr),
              KC_OK);
    give_back(attribute);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(releases, 1);
    EXPECT_EQ(listed(), (std::multiset<UINT64>{1, 9}));
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), KC_OK);
}

TEST_F(SecurityAttributes, AComponentMayRegisterSeveralTypes) {
    HANDLE second = nullptr;
    ASSERT_EQ(
        manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, nullptr, nullptr, &second),
        KC_OK);
    EXPECT_NE(second, type);
    created(context(1, 1), 7);
    SCHANDLE cursors[2] = {};
    PAttribute attribute = nullptr;
    const auto next = [&](const GUID* component, HANDLE handle) {
        return manager->lpVtbl->SAEnumerate(manager, component, handle, &cursors[0], &cursors[1],
                                            nullptr, nullptr, 0, &attribute);
    };
    EXPECT_EQ(KC_CODE(next(nullptr, second)), KC_CODE_NO_MORE_ENTRIES);
    ASSERT_EQ(next(&kComponent, nullptr), KC_OK);  // the type that was registered first
    give_back(attribute);
    cursors[0] = cursors[1] = {};
    EXPECT_EQ(KC_CODE(next(&kComponent, second)), KC_CODE_NO_MORE_ENTRIES);
    EXPECT_EQ(next(&kOther, nullptr), error(3));
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, second), KC_OK);
}

TEST_F(SecurityAttributes, AScanMeetsEveryContextThatStaysOnce) {
    for (UINT64 user = 1; user <= 200; ++user)
        created(context(user, 1), user);
    std::multiset<UINT64> seen;
    std::multiset<UINT64> listed_then;
    SCHANDLE cursors[2] = {};
    HANDLE scan = nullptr;
    SCHANDLE found = {};
    PAttribute attribute = nullptr;
    const auto step = [&] {
        if (KC_IS_ERROR(manager->lpVtbl->SAEnumerate(manager, nullptr, type, &cursors[0],
                                                     &cursors[1], nullptr, nullptr, 2, &attribute)))
            return false;
        seen.insert(number(attribute));
        give_back(attribute, 2);
        EXPECT_EQ(contexts->lpVtbl->EnumerateContexts(contexts, &scan, &found), KC_OK);
        listed_then.insert(user_of(found));
        return true;
    };
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(step());
    for (UINT64 user = 10; user <= 190; user += 10) {
        ASSERT_EQ(contexts->lpVtbl->EndContext(contexts, context(user, 1)), KC_OK);
        created(context(1000 + user, 1), 1000 + user);
    }
    while (step())
        ;
    for (UINT64 user = 1; user <= 200; ++user) {
        if (user % 10 == 0 && user <= 190) continue;
        EXPECT_EQ(seen.count(user), 1u) << user;
        EXPECT_EQ(listed_then.count(user), 1u) << user;
    }
    for (UINT64 user = 110; user <= 190; user += 10)
        EXPECT_EQ(seen.count(user), 0u) << user;
    const SCHANDLE end = cursors[1];
    EXPECT_FALSE(step());
    EXPECT_EQ(cursors[1].hId, end.hId);
}

TEST_F(SecurityAttributes, RefusalsAreBuiltUnderTheNameOfTheOperation) {
    StatusRecorder statuses("secattr.so");
    PAttribute attribute = nullptr;
    reference(context(1, 1), nullptr);
    statuses.expect_one(KC_FACILITY_SECATTR, 4, "secattr", "SAReference");
    manager->lpVtbl->SAReference(manager, context(1, 1), nullptr, 0, &attribute);
    statuses.expect_one(KC_FACILITY_SECATTR, 3, "secattr", "SAReference");
    reference(context(1, 1), &attribute);
    statuses.expect_none();  // no attribute: nothing out of the ordinary
    contexts->lpVtbl->EndContext(contexts, context(1, 1));
    statuses.expect_one(KC_FACILITY_SECATTR, 3, "secattr", "EndContext");
}

TEST_F(SecurityAttributes, TheComponentsEntryAnswersAsItsInterfaceSays) {
    void* library = dlopen(OSAL_LIBRARY_DIR "/components/secattr.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    const auto entry =
        reinterpret_cast<decltype(&DllGetClassObject)>(dlsym(library, "DllGetClassObject"));
    const auto classes = static_cast<const GUID* const*>(dlsym(library, "TSCOM_Table"));
    EXPECT_TRUE(*classes[0] == CLSID_SecurityAttributeManager);
    EXPECT_TRUE(*classes[1] == CLSID_SecurityContextManager);
    EXPECT_EQ(classes[2], nullptr);

    void* out = &out;
    EXPECT_EQ(entry(&CLSID_OrvaneOsal, &IID_IClassFactory, &out), KC_E_NOINTERFACE);
    EXPECT_EQ(out, &out);
    EXPECT_EQ(entry(classes[0], &IID_IClassFactory, nullptr), KC_E_CREATE_FAILED);
    EXPECT_EQ(entry(classes[0], &IID_IContextAttribute_1, &out), KC_E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    ASSERT_EQ(entry(classes[1], &IID_IClassFactory, &out), KC_S_OK);
    auto* factory = static_cast<LCM_IClassFactory*>(out);
    const UINT32 count = factory->lpVtbl->AddRef(factory);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, TRUE), KC_OK);
    EXPECT_EQ(factory->lpVtbl->AddRef(factory), count + 2);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, FALSE), KC_OK);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 2), KC_OK);
    EXPECT_EQ(factory->lpVtbl->Release(factory), count - 1);
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, nullptr, &out), error(4));
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &IID_ISecurityContext_1, nullptr),
              error(4));
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, factory, &IID_ISecurityContext_1, &out),
              error(4));
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IContextAttribute_1, &out),
              error(2));
    EXPECT_EQ(out, nullptr);
    ASSERT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IUnknown, &out), KC_OK);
    EXPECT_EQ(out, contexts);
    contexts->lpVtbl->Release(contexts);
    factory->lpVtbl->Release(factory);
    dlclose(library);
}

// Everything at once. Each attribute that began is released once, and each context that ended has
// been cleaned up once.
TEST_F(SecurityAttributes, AttributesBeginAndEndOnceWhateverRacesForThem) {
    constexpr UINT64 kContexts = 6;
    std::atomic<int> removed = 0;
    race(4000, [&](const Any& any) {
        const SCHANDLE where = context(1 + any(kContexts), 1);
        PAttribute attribute = nullptr;
        UINT32 opened = 0;
        switch (any(4)) {
            case 0:
                contexts->lpVtbl->EndContext(contexts, where);
                break;
            case 1:
                if (KC_IS_ERROR(reference(where, &attribute, 1))) break;
                EXPECT_EQ(number(attribute), user_of(where));
                EXPECT_EQ(manager->lpVtbl->SADelete(manager, 1, attribute), KC_OK);
                ++removed;
                break;
            default:
                ASSERT_EQ(create(where, user_of(where), &attribute, &opened, 1, 2), KC_OK);
                EXPECT_EQ(number(attribute), user_of(where));
                give_back(attribute, opened);
        }
    });
    for (UINT64 user = 1; user <= kContexts; ++user)
        contexts->lpVtbl->EndContext(contexts, context(user, 1));
    EXPECT_EQ(releases, inits);
    EXPECT_LE(cleanups, inits);
    EXPECT_GE(cleanups + removed, inits);  // several may have deleted one
    EXPECT_TRUE(listed().empty());
}

TEST_F(SecurityAttributes, ATypeMayEndWhileOthersUseIt) {
    for (int round = 0; round < 100; ++round) {
        std::vector<std::thread> threads;
        std::atomic<bool> refused = false;
        for (UINT64 first = 1; first <= 2; ++first)
            threads.emplace_back([&, first] {
                for (UINT64 user = first; !refused; ++user) {
                    PAttribute attribute = nullptr;
                    UINT32 opened = 0;
                    const KCSTATUS status =
                        create(context(user % 50, 1), user, &attribute, &opened, 1, 2);
                    if (KC_IS_ERROR(status)) {
                        EXPECT_EQ(status, error(3));
                        refused = true;
                    } else {
                        give_back(attribute, opened);
                    }
                }
            });
        while (inits == 0)
            std::this_thread::yield();
        EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK);
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(releases.exchange(0), inits.exchange(0));
        ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, note_cleanup,
                                                       note_release, &type),
                  KC_OK);
    }
    EXPECT_EQ(cleanups, 0);
}

// --- Behind the security-context object manager ---

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

// More contexts than the library remembers places of, begun anew where managers are gone.
TEST_F(ContextObjects, ThousandsOfContextsComeAndGo) {
    constexpr UINT64 kContexts = 20'000;
    for (UINT64 round = 0; round < 2; ++round) {
        for (UINT64 user = 1; user <= kContexts; ++user)
            find_or_create(context(user, 1), user + round);
        UINT64 found = 0;
        for (UINT64 user = 1; user <= kContexts; ++user)
            found +=
                has(context(user, 1), user + round) && !has(context(user, 1), user + 1 - round);
        EXPECT_EQ(found, kContexts);
        for (UINT64 user = 1; user <= kContexts; ++user)
            EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(user, 1)), KC_OK);
        EXPECT_FALSE(has(context(1, 1), 1 + round));
        EXPECT_EQ(static_cast<UINT64>(deleted_objects), (round + 1) * kContexts);
    }
}

// The same context and object in two managers.
TEST_F(ContextObjects, ManagersDoNotShareTheObjectsOfAContext) {
    auto* others = instance<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2);
    ASSERT_EQ(others->lpVtbl->Initialize(others, &kOther, sizeof(UINT64), 16, 0, 4, nullptr,
                                         nullptr, nullptr, 0),
              KC_OK);
    find_or_create(context(1, 1), 7);
    std::swap(objects, others);
    EXPECT_FALSE(has(context(1, 1), 7));
    find_or_create(context(1, 1), 8);
    EXPECT_TRUE(has(context(1, 1), 8));
    std::swap(objects, others);
    EXPECT_TRUE(has(context(1, 1), 7));
    EXPECT_FALSE(has(context(1, 1), 8));
    others->lpVtbl->Release(others);
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

// A scan cannot go on in a context that has ended: it says so, and goes on behind it when told to.
TEST_F(ContextObjects, AScanThatLosesItsContextGoesOnWithTheNextWhenTheScanHandleIsCleared) {
    for (UINT64 user = 1; user <= 3; ++user)
        for (UINT64 value = 0; value < 3; ++value)
            find_or_create(context(user, 1), value);
    ISCOM_SCAN_DATA scan = {};
    PVOID object = nullptr;
    const auto next = [&] {
        return objects->lpVtbl->EnumerateObjects(objects, context(~0ull, ~0ull), &scan, nullptr,
                                                 nullptr, 0, &object);
    };
    ASSERT_EQ(next(), KC_OK);
    objects->lpVtbl->DereferenceObject(objects, object, 0);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(next(), error(3));
    EXPECT_EQ(next(), error(3));
    scan.hEnumObject = nullptr;
    std::multiset<UINT64> users;
    KCSTATUS status;
    while (!KC_IS_ERROR(status = next())) {
        SCHANDLE where = {};
        objects->lpVtbl->GetObjectSecurityContext(objects, object, &where);
        users.insert(user_of(where));
        objects->lpVtbl->DereferenceObject(objects, object, 0);
    }
    EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
    EXPECT_EQ(users, (std::multiset<UINT64>{2, 2, 2, 3, 3, 3}));
}

// Objects stay locked by their holders while their context ends and others scan, find and create.
TEST_F(ContextObjects, HoldersOfObjectsNeverBlockTheEndOfTheirContext) {
    PVOID object = nullptr;
    find_or_create(context(1, 1), 1);
    ASSERT_EQ(objects->lpVtbl->FindObject(objects, context(1, 1), nullptr, nullptr, 1, 1, &object),
              KC_OK);
    EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(1, 1)), KC_OK);
    EXPECT_EQ(deleted_objects, 0);
    find_or_create(context(1, 1), 1);  // in the context that begins anew
    EXPECT_EQ(*static_cast<UINT64*>(object), 1u);
    EXPECT_EQ(objects->lpVtbl->DereferenceObject(objects, object, 1), KC_OK);
    EXPECT_EQ(deleted_objects, 1);
    EXPECT_EQ(all_objects().size(), 1u);
}

TEST_F(ContextObjects, EveryObjectIsDeletedOnceWhateverRacesForIt) {
    std::atomic<int> made = 0;
    race(3000, [&](const Any& any) {
        const SCHANDLE where = context(1 + any(4), 1);
        UINT64 value = any(8);
        const auto bucket = static_cast<UINT32>(value % 4);
        const auto access = static_cast<UINT32>(any(3));
        PVOID object = nullptr;
        UINT32 opened = 0;
        switch (any(4)) {
            case 0:
                contexts->lpVtbl->EndContext(contexts, where);
                break;
            case 1:
                if (KC_IS_ERROR(objects->lpVtbl->FindObject(objects, where, &value, equal_number,
                                                            bucket, access, &object)))
                    break;
                EXPECT_EQ(*static_cast<UINT64*>(object), value);
                objects->lpVtbl->DereferenceObject(objects, object, access);
                break;
            default:
                ASSERT_EQ(objects->lpVtbl->CreateObject(objects, where, &value, fill_number, &value,
                                                        equal_number, bucket, access, access,
                                                        &object, &opened),
                          KC_OK);
                EXPECT_EQ(*static_cast<UINT64*>(object), value);
                made += opened == 1;
                objects->lpVtbl->DereferenceObject(objects, object, access);
        }
    });
    for (UINT64 user = 1; user <= 4; ++user)
        contexts->lpVtbl->EndContext(contexts, context(user, 1));
    EXPECT_EQ(deleted_objects, made);
    EXPECT_TRUE(all_objects().empty());
}

// With deferred deletion the end of a context only queues its objects; a thread ends them.
TEST_F(ContextObjects, DeferredDeletionsOutliveTheirContexts) {
    static std::atomic<int> deferred;
    static std::atomic<bool> on_this_thread;
    static std::thread::id here;
    here = std::this_thread::get_id();
    auto* queued = instance<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2);
    ASSERT_EQ(queued->lpVtbl->Initialize(
                  queued, &kOther, sizeof(UINT64), 16, 0x10000000, 4,
                  [](PVOID) -> KCSTATUS {
                      if (std::this_thread::get_id() == here) on_this_thread = true;
                      ++deferred;
                      return KC_OK;
                  },
                  nullptr, nullptr, 0),
              KC_OK);
    for (UINT64 user = 1; user <= 20; ++user) {
        for (UINT64 value = 0; value < 10; ++value) {
            PVOID object = nullptr;
            ASSERT_EQ(queued->lpVtbl->CreateObject(queued, context(user, 2), &value, fill_number,
                                                   nullptr, nullptr, 0, 0, 0, &object, nullptr),
                      KC_OK);
            EXPECT_EQ(queued->lpVtbl->DereferenceObject(queued, object, 0), KC_OK);
        }
        if (user % 2 == 0) {
            EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(user, 2)), KC_OK);
        }
    }
    EXPECT_EQ(queued->lpVtbl->Release(queued), 0u);
    while (deferred < 200)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(on_this_thread);
    for (UINT64 user = 1; user <= 20; user += 2)
        EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, context(user, 2)), KC_OK);
    EXPECT_EQ(deferred, 200);
}

}  // namespace
}  // namespace osal_test
