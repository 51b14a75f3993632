// Objects in security contexts through the C++ face, with the real attribute manager.
#include "osal/context_object.hpp"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/secattr.h"
#include "support/counted.h"
#include "support/face_test.h"

namespace osal_test {
namespace {

using kx::Access;
using kx::ContextObject;
using kx::ContextObjects;

constexpr GUID kComponent = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

std::atomic<int> cleanups;

class FaceContextObjects : public FaceTest {
  protected:
    FaceContextObjects() { alive = cleanups = 0; }
    void TearDown() override {
        EXPECT_EQ(alive, 0);
        contexts = {};
        FaceTest::TearDown();
    }
    SCHANDLE context(UINT64 user) {
        SCHANDLE opened = {};
        kx::check(contexts.call<&ISecurityContextVtbl::OpenContext>(user, UINT64{1}, &opened));
        return opened;
    }
    void end(SCHANDLE ended) { kx::check(contexts.call<&ISecurityContextVtbl::EndContext>(ended)); }

    kx::Ref<ISecurityContext> contexts = kx::create<ISecurityContext>(
        kx::id::CLSID_SecurityContextManager, kx::id::IID_ISecurityContext_1);
    const SCHANDLE one = context(1);
    const SCHANDLE two = context(2);
    const SCHANDLE three = context(3);
};

bool same(SCHANDLE a, SCHANDLE b) {
    return a.hTypeId == b.hTypeId && a.hId == b.hId;
}

TEST_F(FaceContextObjects, AreOfOneContext) {
    ContextObjects<Counted> objects(kComponent, {.buckets = 4});
    EXPECT_FALSE(objects.find(one, {}, of(1)));
    ContextObject<Counted> object =
        objects.create(one, {.bucket = 3, .access = Access::exclusive}, 1, "text");
    EXPECT_EQ(object->text, "text");
    EXPECT_EQ(object.access(), Access::exclusive);
    object.release();
    EXPECT_TRUE(same(object.context(), one));
    EXPECT_EQ(objects.find(one, {3}, of(1)).get(), object.get());
    EXPECT_FALSE(objects.find(one, {2}, of(1)));
    EXPECT_FALSE(objects.find(two, {3}, of(1)));
    EXPECT_EQ(objects.by_handle(one, object.handle()).get(), object.get());
    EXPECT_FALSE(objects.by_handle(two, object.handle()));
    object.erase();
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(objects.find(one, {3}, of(1)));
}

TEST_F(FaceContextObjects, AreFoundOrCreatedInEachContext) {
    ContextObjects<Counted> objects(kComponent);
    auto [first, created] = objects.find_or_create(one, {.access = Access::shared}, of(1), 1);
    first.release();
    auto [second, created_too] = objects.find_or_create(two, {}, of(1), 1);
    auto [third, created_again] = objects.find_or_create(one, {}, of(1), 1);
    EXPECT_TRUE(created);
    EXPECT_TRUE(created_too);
    EXPECT_FALSE(created_again);
    EXPECT_EQ(third.get(), first.get());
    EXPECT_NE(second.get(), first.get());
}

TEST_F(FaceContextObjects, AreMetInOneContextOrInAll) {
    ContextObjects<Counted> objects(kComponent, {.objects_per_block = 2});
    EXPECT_EQ(keys(objects.all(kx::every_context())), std::vector<int>{});
    EXPECT_EQ(keys(objects.all(one)), std::vector<int>{});
    for (int key = 0; key < 3; ++key)
        objects.create(one, {}, key);
    objects.create(three, {}, 10);
    EXPECT_EQ(keys(objects.all(one)), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(keys(objects.all(two)), std::vector<int>{});
    EXPECT_EQ(keys(objects.all(three, Access::exclusive)), std::vector<int>{10});
    int met = 0;
    for (auto& object : objects.all(kx::every_context(), Access::shared)) {
        EXPECT_TRUE(same(object.context(), object->key == 10 ? three : one));
        ++met;
    }
    EXPECT_EQ(met, 4);
}

TEST_F(FaceContextObjects, AWalkOverAllContextsSurvivesTheEndOfOne) {
    ContextObjects<Counted> objects(kComponent);
    for (const SCHANDLE& where : {one, two, three})
        for (int key = 0; key < 2; ++key)
            objects.create(where, {}, key);
    std::vector<SCHANDLE> met;
    for (auto& object : objects.all(kx::every_context())) {
        met.push_back(object.context());
        if (met.size() == 1) end(met[0]);
    }
    EXPECT_EQ(met.size(), 5u);  // of the first context one object only
}

TEST_F(FaceContextObjects, EndWithTheirContextButForThoseReferenced) {
    ContextObjects<Counted> objects(kComponent, {}, [](SCHANDLE) { ++cleanups; });
    ContextObject<Counted> kept = objects.create(one, {}, 1, "kept");
    objects.create(one, {}, 2);
    objects.create(two, {}, 3);
    end(one);
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(alive, 2);
    EXPECT_EQ(kept->text, "kept");
    kept.reset();
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(keys(objects.all(kx::every_context())), std::vector<int>{3});
}

TEST_F(FaceContextObjects, OutliveTheirManagerByAReference) {
    ContextObject<Counted> kept;
    {
        ContextObjects<Counted> objects(kComponent);
        kept = objects.create(one, {.access = Access::exclusive}, 1);
        objects.create(two, {}, 2);
    }
    EXPECT_EQ(alive, 2);
    kept.release();
    ContextObject<Counted> other = kept.share();
    kept.reset();
    EXPECT_EQ(alive, 2);
    EXPECT_EQ(other->key, 1);
    other.erase();
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceContextObjects, WhatConstructorsAndPredicatesThrowComesOut) {
    ContextObjects<Counted> objects(kComponent);
    EXPECT_THROW(objects.create(one, {}, -1), std::runtime_error);
    objects.create(one, {}, 1);
    const auto thrower = [](const Counted&) -> bool { throw std::out_of_range("predicate"); };
    EXPECT_THROW(objects.find(one, {}, thrower), std::out_of_range);
    EXPECT_THROW(objects.find_or_create(one, {}, thrower, 2), std::out_of_range);
    EXPECT_EQ(keys(objects.all(one)), std::vector<int>{1});
}

TEST_F(FaceContextObjects, AreCountedByContext) {
    ContextObjects<Counted> objects(kComponent, {.objects_per_block = 3});
    objects.create(one, {}, 1);
    objects.create(one, {}, 2);
    EXPECT_EQ(objects.counts(one).slots, 3u);
    EXPECT_EQ(objects.counts(one).in_use, 2u);
    EXPECT_EQ(objects.counts(two).slots, 0u);
}

TEST_F(FaceContextObjects, WhereNoneCanBeAreAnError) {
    EXPECT_EQ(code_of([] { ContextObjects<int>(kComponent, {.objects_per_block = 256}); }),
              KC_CODE_INVALID_ARGUMENT);
    ContextObjects<Counted> objects(kComponent);
    EXPECT_EQ(code_of([&] { objects.create(kx::every_context(), {}, 1); }),
              KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { objects.create(one, {.bucket = 1}, 1); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceContextObjects, ExclusiveAccessKeepsOthersOut) {
    constexpr int kThreads = 4, kRounds = 200;
    ContextObjects<Counted> objects(kComponent);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                auto [object, created] =
                    objects.find_or_create(one, {.access = Access::exclusive}, of(7), 7);
                ++object->hits;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(objects.find(one, {}, of(7))->hits, kThreads * kRounds);
}

TEST_F(FaceContextObjects, MayEndOnAThreadOfTheLibrary) {
    ContextObjects<Counted> objects(kComponent, {.deferred = true});
    objects.create(one, {}, 1).erase();
    while (alive != 0)
        std::this_thread::yield();
    while (objects.counts(one).in_use != 0)
        std::this_thread::yield();
}

}  // namespace
}  // namespace osal_test
