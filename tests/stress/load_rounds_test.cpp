// Load, start, use, stop and unload, over and over, with timers and work items pending at the stop:
// when DllStop has returned no thread of the library may be left, nor any of its code be needed.
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

#include "osal/osal.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

constexpr const char* kLibrary = OSAL_LIBRARY_DIR "/osal.so";

// What the stop leaves unfreed, by contract; kept to the end so that it is no leak.
auto& left_behind = *new std::vector<void*>;
std::atomic<int> runs;

void* linger(HANDLE, void* context) {
    usleep(static_cast<useconds_t>(reinterpret_cast<uintptr_t>(context)));
    ++runs;
    return nullptr;
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

PIOsal start(void* library) {
    find<decltype(DllStart)>(library, "DllStart")();
    const auto* service_class = static_cast<const GUID*>(dlsym(library, "CLSID_OrvaneOsal"));
    const auto* factory_id = static_cast<const GUID*>(dlsym(library, "IID_IClassFactory"));
    const auto* service_id = static_cast<const GUID*>(dlsym(library, "IID_IOrvaneOsal_1"));
    void *factory = nullptr, *instance = nullptr;
    EXPECT_EQ(find<decltype(DllGetClassObject)>(library, "DllGetClassObject")(service_class,
                                                                              factory_id, &factory),
              KC_S_OK);
    auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
    EXPECT_EQ(class_factory->lpVtbl->CreateInstance(class_factory, nullptr, service_id, &instance),
              KC_OK);
    return static_cast<PIOsal>(instance);
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

void play_round(std::mt19937& random) {
    const std::size_t threads_before = thread_count();
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    queue_more_than_will_run(start(library), random);
    usleep(random() % 2'000);
    find<decltype(DllStop)>(library, "DllStop")();
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
