// The files that were built: what they export, need and contain, as binutils see them.
//
// exports/services.txt holds the ninety services in slot order, exports/osal.txt what else osal.so
// promises, exports/lib*.txt and exports/secattr.txt what the others export. A service counts as
// exported once its row of osal/slots_iosal.h is a SLOT. Names of the OSAL_PRIVATE node are
// promised to nobody and need no entry.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "osal/slots_iosal.h"

namespace osal_test {
namespace {

using Names = std::set<std::string>;

const std::string kOsal = OSAL_LIBRARY_DIR "/osal.so";
const std::string kExports = OSAL_SOURCE_DIR "/tests/abi/exports/";

[[maybe_unused]] bool exists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

std::vector<std::string> lines_of(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    std::vector<std::string> lines;
    char line[4096];
    while (fgets(line, sizeof line, pipe) != nullptr)
        lines.emplace_back(line, strcspn(line, "\n"));
    EXPECT_EQ(pclose(pipe), 0) << command;
    return lines;
}

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

[[maybe_unused]] std::string contents_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Names names_in(const std::string& list) {
    std::ifstream file(kExports + list);
    EXPECT_TRUE(file) << list;
    return {std::istream_iterator<std::string>(file), {}};
}

// Exported names with their version node: "DllStart@@OSAL_1".
Names exports_of(const std::string& library) {
    Names names;
    for (const std::string& line :
         lines_of("nm -D --defined-only --with-symbol-versions " + library))
        if (const auto words = words_of(line); words.size() == 3 && words[1] != "A")
            names.insert(words[2]);
    return names;
}

// The names of one node.
Names exports_of(const std::string& library, const std::string& node) {
    Names names;
    for (const std::string& name : exports_of(library))
        if (const auto at = name.find("@@" + node); at != std::string::npos)
            names.insert(name.substr(0, at));
    return names;
}

Names vacant_services() {
#define SERVED(...)
#define VACANT(number, field, function, ...) #function,
    return {KX_IOSAL_SLOTS(SERVED, VACANT)};
#undef SERVED
#undef VACANT
}

TEST(Exports, OfOsalAreThePromisedOnes) {
    Names expected = names_in("osal.txt");
    expected.merge(names_in("services.txt"));
    for (const std::string& name : vacant_services())
        EXPECT_EQ(expected.erase(name), 1u) << name;
    EXPECT_EQ(exports_of(kOsal, "OSAL_1"), expected);
}

TEST(Exports, OfOsalLieInItsTwoNodesAndNoneTwice) {
    const Names open = exports_of(kOsal, "OSAL_1"), closed = exports_of(kOsal, "OSAL_PRIVATE");
    EXPECT_EQ(exports_of(kOsal).size(), open.size() + closed.size());
    for (const std::string& name : closed) {
        EXPECT_FALSE(open.contains(name)) << name;
        EXPECT_NE(name.substr(0, 2), "_Z") << "a name of C++";
    }
}

TEST(Exports, OfHostLibrariesAreTheListedOnes) {
    for (const std::string library : {"libkcstatus", "liblcm", "libtsreg", "components/secattr"}) {
        Names names;
        for (const std::string& name : exports_of(OSAL_LIBRARY_DIR "/" + library + ".so"))
            names.insert(name.substr(0, name.find('@')));
        EXPECT_EQ(names, names_in(library.substr(library.find('/') + 1) + ".txt")) << library;
    }
}

// Values of one kind of entry of the dynamic section: "NEEDED" gives the libraries needed.
std::vector<std::string> dynamic(const std::string& library, const std::string& tag) {
    std::vector<std::string> values;
    for (const std::string& line : lines_of("readelf -dW " + library)) {
        if (line.find("(" + tag + ")") == std::string::npos) continue;
        const auto open = line.find('['), close = line.find(']');
        EXPECT_LT(open, close) << line;
        values.push_back(line.substr(open + 1, close - open - 1));
    }
    return values;
}

TEST(Library, NeedsItsHostLibrariesAndTheSystemsOnly) {
    const Names known = {"libkcstatus.so", "liblcm.so",     "libtsreg.so", "libc.so.6",
                         "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6",   "ld-linux-x86-64.so.2",
                         "libasan.so.8",   "libubsan.so.1", "libtsan.so.2"};
    const auto needed = dynamic(kOsal, "NEEDED");
    for (const std::string& name : needed)
        EXPECT_TRUE(known.contains(name)) << name;
    EXPECT_EQ(std::count(needed.begin(), needed.end(), "libkcstatus.so"), 1);
}

TEST(Library, IsNamedAndFindsItsNeighboursBesideItself) {
    EXPECT_EQ(dynamic(kOsal, "SONAME"), std::vector<std::string>{"osal.so"});
    EXPECT_EQ(dynamic(kOsal, "RUNPATH"), std::vector<std::string>{"$ORIGIN"});
    EXPECT_EQ(dynamic(kOsal, "RPATH"), std::vector<std::string>{});
}

// Object files of the modules that must not reach the platform directly.
TEST(PortableModules, CallNeitherServicesNorThreads) {
    const std::string folder = OSAL_BUILD_DIR "/core/osal/CMakeFiles/osal_portable.dir";
    std::size_t undefined = 0;
    for (const std::string& line : lines_of("nm -u " + folder + "/*.o")) {
        const auto words = words_of(line);
        if (words.size() != 2 || words[0] != "U") continue;
        ++undefined;
        EXPECT_NE(words[1].substr(0, 2), "Kx") << "a service called by name";
        EXPECT_NE(words[1].substr(0, 8), "pthread_");
    }
    EXPECT_GT(undefined, 0u) << "no object file was read";
}

#if defined(OSAL_PLAIN_BUILD)

TEST(StatusLibrary, HasNoWayToAllocate) {
    const Names allocators = {"malloc", "calloc", "realloc", "strdup", "asprintf",
                              "_Znwm",  "_Znam",  "fopen",   "fputs",  "fprintf"};
    for (const std::string& line : lines_of("nm -D -u " OSAL_LIBRARY_DIR "/libkcstatus.so")) {
        const std::string name = words_of(line).back();
        EXPECT_FALSE(allocators.contains(name.substr(0, name.find('@')))) << name;
    }
}

struct Section {
    unsigned long address, size;
};

Section section(const std::string& library, const std::string& name) {
    for (std::string line : lines_of("readelf -SW " + library)) {
        std::replace(line.begin(), line.end(), '[', ' ');
        std::replace(line.begin(), line.end(), ']', ' ');
        const auto words = words_of(line);
        if (words.size() > 5 && words[1] == name)
            return {std::stoul(words[3], nullptr, 16), std::stoul(words[5], nullptr, 16)};
    }
    ADD_FAILURE() << library << " has no section " << name;
    return {};
}

// The one entry is that of the compiler's start file; code of the library would add others.
TEST(Loading, RunsNoCodeOfTheLibrary) {
    const Section table = section(kOsal, ".init_array");
    ASSERT_EQ(table.size, sizeof(void*));
    unsigned long entry = 0;
    for (const std::string& line : lines_of("readelf -rW " + kOsal)) {
        const auto words = words_of(line);
        if (words.size() != 4 || words[2] != "R_X86_64_RELATIVE") continue;
        if (std::stoul(words[0], nullptr, 16) == table.address)
            entry = std::stoul(words[3], nullptr, 16);
    }
    std::string name = "?";
    for (const std::string& line : lines_of("nm " + kOsal))
        if (const auto words = words_of(line);
            words.size() == 3 && std::stoul(words[0], nullptr, 16) == entry)
            name = words[2];
    EXPECT_EQ(name, "frame_dummy");
}

TEST(Release, IsSmall) {
    if (std::string(OSAL_BUILD_TYPE) != "Release") GTEST_SKIP() << "not a release build";
    const std::string stripped = testing::TempDir() + "/osal.stripped.so";
    lines_of("strip -o " + stripped + " " + kOsal);
    struct stat status;
    ASSERT_EQ(stat(stripped.c_str(), &status), 0);
    EXPECT_LT(status.st_size, 300 * 1024);
    EXPECT_EQ(remove(stripped.c_str()), 0);
}

TEST(Release, NamesNoFolderOfTheMachineItWasBuiltOn) {
    if (std::string(OSAL_BUILD_TYPE) != "Release") GTEST_SKIP() << "not a release build";
    for (const char* library : {"osal.so", "libkcstatus.so", "liblcm.so", "libtsreg.so"}) {
        const std::string path = std::string(OSAL_LIBRARY_DIR "/") + library;
        if (!exists(path)) continue;
        const std::string bytes = contents_of(path);
        EXPECT_EQ(bytes.find(OSAL_SOURCE_DIR), std::string::npos) << library;
        EXPECT_EQ(bytes.find(OSAL_BUILD_DIR), std::string::npos) << library;
    }
}

#endif

}  // namespace
}  // namespace osal_test
