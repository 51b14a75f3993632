// Loading, starting, using, stopping and unloading the library, over and over, in a program that is
// not linked with it. OSAL_RELOAD_ROUNDS sets the rounds.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include "osal/component.h"
#include "osal/memory.h"
#include "support/mappings.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

class Loaded {
  public:
    Loaded() : library_(dlopen(OSAL_LIBRARY_DIR "/osal.so", RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(library_, nullptr) << dlerror();
    }
    ~Loaded() { EXPECT_EQ(dlclose(library_), 0); }

    template <class T>
    T& get(const char* name) {
        void* address = dlsym(library_, name);
        EXPECT_NE(address, nullptr) << name;
        return *reinterpret_cast<T*>(address);
    }

  private:
    void* library_;
};

bool is_loaded() {
    void* library = dlopen(OSAL_LIBRARY_DIR "/osal.so", RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) dlclose(library);
    return library != nullptr;
}

void use(PIOsal osal) {
    void* block = osal->lpVtbl->KxAllocPagedMemory(osal, 100);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(osal->lpVtbl->KxFreeMemory(osal, block), KC_OK);
}

void run_once() {
    Loaded library;
    // State is fresh: nothing is left of the round before.
    EXPECT_EQ(library.get<BOOLEAN>("g_Unload"), 0);
    EXPECT_EQ(library.get<BOOLEAN>("g_bOsalInitialized"), 0);
    EXPECT_EQ(library.get<PIOsal>("pIOsal"), nullptr);
    EXPECT_EQ(library.get<UINT32>("InterfaceCount"), 0u);

    EXPECT_EQ(library.get<decltype(DllStart)>("DllStart")(), KC_OK);
    void* object = nullptr;
    EXPECT_EQ(library.get<decltype(DllGetClassObject)>("DllGetClassObject")(
                  &library.get<const GUID>("CLSID_OrvaneOsal"),
                  &library.get<const GUID>("IID_IClassFactory"), &object),
              KC_S_OK);
    auto* factory = static_cast<LCM_IClassFactory*>(object);
    EXPECT_EQ(reinterpret_cast<CFInstance*>(factory)->cReference, 1u);
    void* instance = nullptr;
    EXPECT_EQ(factory->lpVtbl->CreateInstance(
                  factory, nullptr, &library.get<const GUID>("IID_IOrvaneOsal_1"), &instance),
              KC_OK);
    EXPECT_EQ(library.get<UINT32>("InterfaceCount"), 2u);
    auto* osal = static_cast<PIOsal>(instance);
    use(osal);
    EXPECT_EQ(osal->lpVtbl->Release(osal), 0u);
    factory->lpVtbl->Release(factory);
    library.get<decltype(DllStop)>("DllStop")();
}

int rounds() {
    return static_cast<int>(from_environment("OSAL_RELOAD_ROUNDS", 50));
}

void run_rounds(int count) {
    for (int round = 0; round < count && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(testing::Message() << "round " << round);
        run_once();
        EXPECT_FALSE(is_loaded());
    }
}

TEST(Reload, StartsAfreshAndLeavesNothingBehind) {
    run_rounds(10);
    const Mappings before = mappings();
    const std::size_t allocated = mallinfo2().uordblks;
    run_rounds(rounds());
    expect_no_more(before);
    // Each cached stack of the nine threads has its table of thread-local storage on the heap.
    EXPECT_LE(mallinfo2().uordblks, allocated + 8192);
}

TEST(Reload, LeavesNoForkHandler) {
    run_rounds(1);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Reload, WithoutUseLeavesNothingBehind) {
    { Loaded library; }
    EXPECT_FALSE(is_loaded());
    {
        Loaded library;
        library.get<decltype(DllStart)>("DllStart")();
        library.get<decltype(DllStop)>("DllStop")();
    }
    EXPECT_FALSE(is_loaded());
}

}  // namespace
}  // namespace osal_test
