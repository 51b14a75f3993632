// Object managers through the C++ face.
#include "osal/object.hpp"

#include <array>
#include <atomic>
#include <ranges>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/counted.h"
#include "support/face_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

using kx::Access;
using kx::Object;
using kx::ObjectLock;
using kx::Objects;

class FaceObjects : public FaceTest {
  protected:
    FaceObjects() { alive = 0; }
    void TearDown() override {
        EXPECT_EQ(alive, 0);
        FaceTest::TearDown();
    }
};

TEST_F(FaceObjects, AreConstructedInPlaceAndDestroyedOnceErased) {
    Objects<Counted> objects;
    Object<Counted> object = objects.create({}, 1, std::string(100, 'x'));
    EXPECT_TRUE(object);
    EXPECT_EQ(object->key, 1);
    EXPECT_EQ((*object).text, std::string(100, 'x'));
    EXPECT_EQ(object.get(), &*object);
    EXPECT_EQ(alive, 1);
    object.erase();
    EXPECT_FALSE(object);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(objects.counts().in_use, 0u);
}

TEST_F(FaceObjects, StayWithoutAReferenceUntilTheManagerGoes) {
    {
        Objects<Counted> objects;
        objects.create({}, 1);
        EXPECT_EQ(alive, 1);
        EXPECT_EQ(objects.find({}, of(1))->key, 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceObjects, LiveOnWhileTheyAreReferencedAfterTheyWereErased) {
    Objects<Counted> objects;
    Object<Counted> first = objects.create({}, 1);
    Object<Counted> second = first.share();
    EXPECT_EQ(second.get(), first.get());
    first.erase();
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(second->key, 1);
    EXPECT_FALSE(objects.find({}, of(1)));
    second.erase();
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceObjects, OutliveTheirManagerByTheirReferences) {
    Object<Counted> kept;
    Object<Counted> shared;
    {
        Objects<Counted> objects;
        kept = objects.create({}, 1, "kept");
        objects.create({}, 2);
        EXPECT_EQ(alive, 2);
    }
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(kept->text, "kept");
    shared = kept.share();
    kept.acquire(Access::exclusive);
    kept.reset();
    EXPECT_EQ(alive, 1);
    shared.erase();
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceObjects, AreFoundInTheirBucketOnly) {
    Objects<Counted> objects({.buckets = 4});
    objects.create({.bucket = 3}, 1);
    EXPECT_TRUE(objects.find({3}, of(1)));
    EXPECT_FALSE(objects.find({2}, of(1)));
    EXPECT_FALSE(objects.find({3}, of(2)));
    EXPECT_EQ(code_of([&] { objects.find({4}, of(1)); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { objects.create({4}, 1); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { objects.find_or_create({4}, of(1), 1); }), KC_CODE_INVALID_ARGUMENT);
}

TEST_F(FaceObjects, AreFoundOrCreated) {
    Objects<Counted> objects;
    auto [first, created] = objects.find_or_create({}, of(1), 1, "first");
    EXPECT_TRUE(created);
    auto [second, created_again] = objects.find_or_create({}, of(1), 1, "second");
    EXPECT_FALSE(created_again);
    EXPECT_EQ(second.get(), first.get());
    EXPECT_EQ(second->text, "first");
    EXPECT_EQ(alive, 1);
}

TEST_F(FaceObjects, AreFoundByHandleUntilTheyAreFreed) {
    Objects<Counted> objects({.permanent_blocks = 1});  // slots that count their generations
    Object<Counted> object = objects.create({}, 1);
    const HANDLE handle = object.handle();
    EXPECT_EQ(objects.by_handle(handle).get(), object.get());
    EXPECT_EQ(objects.by_handle(handle, Access::exclusive).access(), Access::exclusive);
    object.erase();
    EXPECT_FALSE(objects.by_handle(handle));
    Object<Counted> heir = objects.create({}, 2);
    EXPECT_FALSE(objects.by_handle(handle));
    EXPECT_FALSE(objects.by_handle(nullptr));
    EXPECT_TRUE(objects.by_handle(heir.handle()));
}

TEST_F(FaceObjects, MoveTheirReferences) {
    static_assert(!std::is_copy_constructible_v<Object<Counted>>);
    static_assert(!std::is_copy_assignable_v<Object<Counted>>);
    static_assert(std::is_nothrow_move_constructible_v<Object<Counted>>);
    Objects<Counted> objects;
    Object<Counted> object = objects.create({.access = Access::shared}, 1);
    Object<Counted> other = std::move(object);
    EXPECT_FALSE(object);
    EXPECT_EQ(object.access(), Access::none);
    EXPECT_EQ(other.access(), Access::shared);
    Objects<Counted> more;
    more.create({}, 2);
    other = more.create({}, 3);  // gives the first one back, with its access
    EXPECT_EQ(other->key, 3);
    objects.find({.access = Access::exclusive}, of(1)).erase();  // which nobody has access to
    Object<Counted> empty;
    other = std::move(empty);
    other.erase();
    other.reset();
    other.release();
    EXPECT_EQ(alive, 2);
}

TEST_F(FaceObjects, AccessIsTakenAndGivenUp) {
    for (ObjectLock lock :
         {ObjectLock::read_write, ObjectLock::read_write_paged, ObjectLock::mutex}) {
        Objects<Counted> objects({.lock = lock});
        Object<Counted> object = objects.create({.access = Access::exclusive}, 1);
        std::atomic<bool> got = false;
        std::thread other([&, handle = object.handle()] {
            Object<Counted> same = objects.by_handle(handle, Access::exclusive);
            got = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(got);
        object.release();
        EXPECT_EQ(object.access(), Access::none);
        other.join();
        EXPECT_TRUE(got);
        object.acquire(Access::shared);
        object.acquire(Access::exclusive);  // in place of the other one
        EXPECT_EQ(object.access(), Access::exclusive);
        object.acquire(Access::none);
        EXPECT_EQ(object.access(), Access::none);
        object.release();
        object.acquire(Access::exclusive);
        object.erase();
    }
}

TEST_F(FaceObjects, SharedAccessIsShared) {
    Objects<Counted> objects;
    Object<Counted> object = objects.create({.access = Access::shared}, 1);
    std::thread([&, handle = object.handle()] {
        EXPECT_TRUE(objects.by_handle(handle, Access::shared));
        EXPECT_EQ(objects.find({.access = Access::shared}, of(1)).access(), Access::shared);
    }).join();
}

TEST_F(FaceObjects, ExclusiveAccessKeepsOthersOut) {
    constexpr int kThreads = 4, kRounds = 500;
    Objects<Counted> objects({.buckets = 2});
    std::atomic<int> made = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                auto [object, created] =
                    objects.find_or_create({.bucket = 1, .access = Access::exclusive}, of(7), 7);
                ++object->hits;
                made += created;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(objects.find({1}, of(7))->hits, kThreads * kRounds);
}

TEST_F(FaceObjects, ComeAndGoOnSeveralThreads) {
    Objects<Counted> objects({.objects_per_block = 2, .buckets = 3});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 300; ++round) {
                const int key = round % 3;
                auto [object, created] = objects.find_or_create(
                    {.bucket = static_cast<UINT32>(key), .access = Access::exclusive}, of(key), key,
                    std::string(50, 'x'));
                object->text += 'y';
                object.erase();
                for (auto& met : objects.all(Access::shared))
                    EXPECT_GE(met->text.size(), 50u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(objects.counts().in_use, 0u);
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceObjects, AreMetInAForLoop) {
    Objects<Counted> objects({.objects_per_block = 2, .buckets = 2});
    using Scan = decltype(objects.all());
    static_assert(std::ranges::input_range<Scan>);
    EXPECT_EQ(keys(objects.all()), std::vector<int>{});
    for (int key = 0; key < 5; ++key)
        objects.create({static_cast<UINT32>(key) % 2}, key);
    EXPECT_EQ(keys(objects.all()), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(keys(objects.all(Access::exclusive)), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(FaceObjects, MayBeErasedOrKeptOrLeftInAForLoop) {
    Objects<Counted> objects({.objects_per_block = 2});
    for (int key = 0; key < 6; ++key)
        objects.create({}, key);
    Object<Counted> kept;
    for (auto& object : objects.all(Access::exclusive)) {
        EXPECT_EQ(object.access(), Access::exclusive);
        if (object->key == 5) break;
        if (object->key == 3)
            kept = std::move(object);
        else if (object->key % 2 == 0)
            object.erase();
        kept.release();
    }
    EXPECT_EQ(keys(objects.all()), (std::vector<int>{1, 3, 5}));
    EXPECT_EQ(kept->key, 3);
}

TEST_F(FaceObjects, WhatAConstructorThrowsComesOut) {
    Objects<Counted> objects;
    EXPECT_THROW(objects.create({}, -1), std::runtime_error);
    EXPECT_THROW(objects.find_or_create({}, of(-1), -1), std::runtime_error);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(objects.counts().in_use, 0u);
    objects.create({}, 1);
    EXPECT_EQ(keys(objects.all()), std::vector<int>{1});
}

TEST_F(FaceObjects, WhatAPredicateThrowsComesOut) {
    Objects<Counted> objects;
    objects.create({}, 1);
    objects.create({}, 2);
    int calls = 0;
    const auto thrower = [&](const Counted&) -> bool {
        ++calls;
        throw std::out_of_range("predicate");
    };
    EXPECT_THROW(objects.find({}, thrower), std::out_of_range);
    EXPECT_EQ(calls, 1);  // the second object is not asked about
    EXPECT_THROW(objects.find_or_create({}, thrower, 3), std::out_of_range);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(alive, 2);
    EXPECT_EQ(keys(objects.all()), (std::vector<int>{1, 2}));
    EXPECT_TRUE(objects.find({}, of(2)));  // nothing stayed locked
}

TEST_F(FaceObjects, MayBeEndedOnAThreadOfTheLibrary) {
    static std::atomic<std::thread::id> destroyer;
    struct Late {
        ~Late() { destroyer = std::this_thread::get_id(); }
    };
    destroyer = std::thread::id{};
    Objects<Late> objects({.deferred = true});
    objects.create({}).erase();
    while (destroyer.load() == std::thread::id{})
        std::this_thread::yield();
    EXPECT_NE(destroyer.load(), std::this_thread::get_id());
    while (objects.counts().in_use != 0)
        std::this_thread::yield();
}

// A destructor runs with nothing locked, so that it may use the manager.
TEST_F(FaceObjects, MayUseTheManagerWhenTheyEnd) {
    static UINT32 in_use_at_the_end;
    struct Node {
        explicit Node(Objects<Node>& objects, Object<Node> next = {})
            : objects(objects), next(std::move(next)) {
            ++alive;
        }
        ~Node() {
            if (next) next.erase();
            in_use_at_the_end = objects.counts().in_use;
            --alive;
        }
        Objects<Node>& objects;
        Object<Node> next;
    };
    Objects<Node> objects;
    Object<Node> last = objects.create({}, objects);
    Object<Node> first = objects.create({}, objects, std::move(last));
    EXPECT_EQ(alive, 2);
    first.erase();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(in_use_at_the_end, 1u);  // the first one, which is just ending
}

TEST_F(FaceObjects, MayBeAggregatesAndPlainNumbers) {
    struct Point {
        UINT64 x;
        std::array<char, 3> name;
    };
    Objects<Point> points;
    EXPECT_EQ(points.create({}, UINT64{3}, std::array<char, 3>{})->x, 3u);
    EXPECT_EQ(points.create({}, Point{4, {'a', 'b', 'c'}})->name[0], 'a');
    Objects<int> numbers;
    EXPECT_EQ(*numbers.create({}, 5), 5);
    EXPECT_EQ(*numbers.create({}), 0);
    EXPECT_TRUE(numbers.find({}, [](int number) { return number == 5; }));
}

TEST_F(FaceObjects, AreAlignedTo8Bytes) {
    struct Odd {
        UINT64 number;
        char rest[5];
    };
    Objects<Odd> objects;
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(objects.create({}).get()) % 8, 0u);
    Objects<std::array<char, 13>> bytes;
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes.create({}).get()) % 8, 0u);
}

TEST_F(FaceObjects, AreCounted) {
    Objects<Counted> objects({.objects_per_block = 3, .permanent_blocks = 2});
    EXPECT_EQ(objects.counts().slots, 6u);
    for (int key = 0; key < 7; ++key)
        objects.create({}, key);
    EXPECT_EQ(objects.counts().slots, 9u);
    EXPECT_EQ(objects.counts().in_use, 7u);
    EXPECT_EQ(objects.counts().preallocated, 0u);
}

TEST_F(FaceObjects, OfAManagerThatCannotBeAreAnError) {
    EXPECT_EQ(code_of([] { Objects<int>({.objects_per_block = 256}); }), KC_CODE_INVALID_ARGUMENT);
    HeapFault fault(2, true);
    EXPECT_EQ(code_of([] { Objects<int>({.permanent_blocks = 1}); }), KC_CODE_NO_RESOURCES);
}

TEST_F(FaceObjects, WithoutMemoryAreAnError) {
    Objects<Counted> objects;
    HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { objects.create({}, 1); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(alive, 0);
}

TEST_F(FaceObjects, AreReachedByTheTableToo) {
    Objects<Counted> objects;
    objects.create({}, 1);
    UINT32 in_use = 0;
    EXPECT_EQ(objects.get()->lpVtbl->GetObjectStats(objects.get(), nullptr, &in_use, nullptr),
              KC_OK);
    EXPECT_EQ(in_use, 1u);
}

}  // namespace
}  // namespace osal_test
