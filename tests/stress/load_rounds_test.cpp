// Load, start, use, stop and unload, over and over, with timers, work items and deferred deletions
// pending at the stop: when DllStop has returned no thread of the library may be left, nor any of
// its code be needed.
//
// OSAL_TEST_ROUNDS sets the number of rounds.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "osal/iom.h"
#include "osal/osal.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

constexpr const char* kLibrary = OSAL_LIBRARY_DIR "/osal.so";

// What the stop leaves unfreed, by contract; kept to the end so that it is no leak.
auto& left_behind = *new std::vector<void*>;
std::atomic<int> runs;
std::atomic<int> deletions;

void* linger(HANDLE, void* context) {
    usleep(static_cast<useconds_t>(reinterpret_cast<uintptr_t>(context)));
    ++runs;
    return nullptr;
}

KCSTATUS delete_slowly(PVOID) {
    usleep(1'000);
    ++deletions;
    return KC_OK;
}

std::size_t thread_count() {
    std::size_t count = 0;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* entry = readdir(tasks))
        count += entry->d_name[0] != '.';
    closedir(tasks);
    return count;
}

template <class Function>
Function* find(void* library, const char* name) {
    void* address = dlsym(library, name);
    EXPECT_NE(address, nullptr) << name;
    return reinterpret_cast<Function*>(address);
}

template <class Interface>
Interface* make(void* library, const char* class_name, const char* interface_name) {
    void *factory = nullptr, *instance = nullptr;
    EXPECT_EQ(find<decltype(DllGetClassObject)>(library, "DllGetClassObject")(
                  find<const GUID>(library, class_name),
                  find<const GUID>(library, "IID_IClassFactory"), &factory),
              KC_S_OK);
    auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
    EXPECT_EQ(class_factory->lpVtbl->CreateInstance(
                  class_factory, nullptr, find<const GUID>(library, interface_name), &instance),
              KC_OK);
    return static_cast<Interface*>(instance);
}

void queue_more_than_will_run(PIOsal osal, std::mt19937& random) {
    left_behind.push_back(osal);
    for (int i = 0; i < 20; ++i) {
        HANDLE item = nullptr, timer = nullptr;
        const auto delay_us = reinterpret_cast<void*>(uintptr_t{random() % 200});
        EXPECT_EQ(osal->lpVtbl->KxAllocWorkItem(osal, linger, delay_us, &item), KC_OK);
        EXPECT_EQ(osal->lpVtbl->KxScheduleWorkItem(osal, item, KX_PRIORITY_NORMAL), KC_OK);
        EXPECT_EQ(osal->lpVtbl->KxAllocTimer(osal, linger, delay_us, FALSE, &timer), KC_OK);
        EXPECT_EQ(osal->lpVtbl->KxScheduleTimer(osal, timer, random() % 30'000), KC_OK);
        left_behind.insert(left_behind.end(), {item, timer});
    }
}

// Their deletion outlives the object manager.
void queue_deletions(IOM* objects, int count) {
    const IOMVtbl& om = *objects->lpVtbl;
    EXPECT_EQ(om.Initialize(objects, 8, 16, KX_OBJECT_LEVEL_LOCK | KX_OBJECT_DEFERRED, 1,
                            delete_slowly, nullptr, nullptr, 0),
              KC_OK);
    for (int i = 0; i < count; ++i) {
        PVOID data = nullptr;
        EXPECT_EQ(
            om.CreateObject(objects, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, &data, nullptr),
            KC_OK);
        EXPECT_EQ(om.DeleteObject(objects, data, 0), KC_OK);
    }
    EXPECT_EQ(om.Release(objects), 0u);
}

void play_round(std::mt19937& random) {
    const std::size_t threads_before = thread_count();
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    find<decltype(DllStart)>(library, "DllStart")();
    queue_more_than_will_run(make<IOsal>(library, "CLSID_OrvaneOsal", "IID_IOrvaneOsal_1"), random);
    const int deletions_before = deletions;
    queue_deletions(make<IOM>(library, "CLSID_ObjectManagerDataStore", "IID_IObjectManager_1"), 20);
    usleep(random() % 2'000);
    find<decltype(DllStop)>(library, "DllStop")();
    EXPECT_EQ(deletions, deletions_before + 20);
    ASSERT_EQ(dlclose(library), 0);
    ASSERT_EQ(dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still mapped";
    const int runs_at_unload = runs;
    usleep(random() % 300);
    ASSERT_EQ(runs, runs_at_unload);
    // The kernel takes a moment to remove the entry of a thread that was joined.
    for (int i = 0; i < 1'000 && thread_count() != threads_before; ++i)
        usleep(1'000);
    ASSERT_EQ(thread_count(), threads_before);
}

TEST(LoadRounds, LeaveNoThreadAndNoCodeBehind) {
    std::mt19937 random(1);
    std::thread([] {}).join();  // a sanitizer's own thread starts with the first of the process
    const auto rounds = from_environment("OSAL_TEST_ROUNDS", 30);
    for (std::uint64_t round = 0; round < rounds && !HasFatalFailure(); ++round) {
        SCOPED_TRACE(round);
        play_round(random);
    }
}

}  // namespace
}  // namespace osal_test
