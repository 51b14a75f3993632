// Loading, using and unloading the registry library, over and over, in a program that is not linked
// with it.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/tsreg.h"
#include "support/fork.h"
#include "support/mappings.h"
#include "support/registry_folder.h"

namespace osal_test {
namespace {

constexpr const char* kLibrary = OSAL_LIBRARY_DIR "/libtsreg.so";

class Loaded {
  public:
    Loaded() : library_(dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(library_, nullptr) << dlerror();
    }
    ~Loaded() { EXPECT_EQ(dlclose(library_), 0); }
    template <class Function>
    Function* get(const char* name, Function*) {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }

  private:
    void* library_;
};
#define GET(library, function) (library).get(#function, static_cast<decltype(&function)>(nullptr))

bool is_loaded() {
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) dlclose(library);
    return library != nullptr;
}

std::size_t open_files() {
    std::size_t count = 0;
    DIR* folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

// Reads what the last round wrote, writes its own, and leaves its key open.
void use(Loaded& library, UINT32 round) {
    HANDLE key = nullptr;
    ASSERT_EQ(GET(library, TsRegCreateKeyExA)(TSREG_LOCAL_MACHINE, "A", 0, nullptr, 0, 0, nullptr,
                                              &key, nullptr),
              KC_OK);
    UINT32 number = 0;
    UINT32 size = sizeof number;
    const KCSTATUS status =
        GET(library, TsRegQueryValueExA)(key, "v", nullptr, nullptr, &number, &size);
    EXPECT_EQ(status == KC_OK, round != 0);
    EXPECT_EQ(number, round);
    ++number;
    EXPECT_EQ(GET(library, TsRegSetValueExA)(key, "v", 0, KX_REG_UINT32, &number, sizeof number),
              KC_OK);
}

class RegistryReload : public testing::Test {
  protected:
    RegistryFolder folder;
};

TEST_F(RegistryReload, KeepsWhatWasWrittenAndLeavesNothingBehind) {
    std::size_t files = 0;
    Mappings mapped;
    for (UINT32 round = 0; round < 30 && !HasFailure(); ++round) {
        {
            Loaded library;
            use(library, round);
        }
        EXPECT_FALSE(is_loaded());
        if (round == 9) {
            files = open_files();
            mapped = mappings();
        }
    }
    EXPECT_EQ(open_files(), files);
    expect_no_more(mapped);
}

TEST_F(RegistryReload, LeavesNoForkHandler) {
    {
        Loaded library;
        use(library, 0);
        EXPECT_TRUE(holds_in_child([] { return true; }));
    }
    EXPECT_FALSE(is_loaded());
    EXPECT_TRUE(holds_in_child([] { return !is_loaded(); }));
    Loaded library;
    use(library, 1);
}

TEST_F(RegistryReload, TakesBackATransactionThatIsOpen) {
    {
        Loaded library;
        use(library, 0);
        ASSERT_EQ(GET(library, TsRegBegin)(), KC_OK);
        use(library, 1);
    }
    Loaded library;
    use(library, 1);
}

TEST_F(RegistryReload, WithoutUseLeavesNothingBehind) {
    { Loaded library; }
    EXPECT_FALSE(is_loaded());
    EXPECT_FALSE(std::filesystem::exists(folder.file()));
}

}  // namespace
}  // namespace osal_test
