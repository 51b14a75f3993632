// The registry library by itself.
#include "host/tsreg.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/registry_folder.h"

namespace osal_test {
namespace {

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, code);
}
constexpr KCSTATUS kNotFound = error(3);

struct Value {
    KCSTATUS status;
    UINT32 type;
    std::string data;
};

class Registry : public testing::Test {
  protected:
    static HANDLE create(const char* path, HANDLE base = TSREG_LOCAL_MACHINE) {
        HANDLE key = nullptr;
        EXPECT_EQ(TsRegCreateKeyExA(base, path, 0, nullptr, 0, 0, nullptr, &key, nullptr), KC_OK);
        return key;
    }
    static HANDLE open(const char* path, UINT32 access = KX_KEY_ALL_ACCESS) {
        HANDLE key = nullptr;
        EXPECT_EQ(TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, path, 0, access, &key), KC_OK) << path;
        return key;
    }
    static KCSTATUS status_of_open(const char* path, HANDLE base = TSREG_LOCAL_MACHINE) {
        HANDLE key = &key;
        const KCSTATUS status = TsRegOpenKeyExA(base, path, 0, KX_KEY_READ, &key);
        if (status == KC_OK)
            TsRegCloseKey(key);
        else
            EXPECT_EQ(key, nullptr);
        return status;
    }
    static KCSTATUS set(HANDLE key, const char* name, const std::string& data, UINT32 type = 0) {
        return TsRegSetValueExA(key, name, 0, type, data.data(), static_cast<UINT32>(data.size()));
    }
    static Value query(HANDLE key, const char* name) {
        Value value = {KC_OK, 0, std::string(2 << 20, '\0')};
        auto size = static_cast<UINT32>(value.data.size());
        value.status =
            TsRegQueryValueExA(key, name, nullptr, &value.type, value.data.data(), &size);
        value.data.resize(size);
        return value;
    }
    static KCSTATUS enumerate(HANDLE key, UINT32 index, std::string& name, UINT64* written) {
        char text[256];
        UINT32 length = sizeof text;
        const KCSTATUS status =
            TsRegEnumKeyExA(key, index, text, &length, nullptr, nullptr, nullptr, written);
        if (status == KC_OK) name.assign(text, length);
        return status;
    }
    static KCSTATUS value_name(HANDLE key, UINT32 index, std::string& name) {
        char text[256];
        UINT32 length = sizeof text;
        const KCSTATUS status =
            TsRegEnumValueA(key, index, text, &length, nullptr, nullptr, nullptr, nullptr);
        if (status == KC_OK) name.assign(text, length);
        return status;
    }
    static std::vector<std::string> sub_keys(HANDLE key) {
        std::vector<std::string> names;
        std::string name;
        for (UINT32 index = 0; enumerate(key, index, name, nullptr) == KC_OK; ++index)
            names.push_back(name);
        return names;
    }
    static std::vector<std::string> values(HANDLE key) {
        std::vector<std::string> names;
        std::string name;
        for (UINT32 index = 0; value_name(key, index, name) == KC_OK; ++index)
            names.push_back(name);
        return names;
    }

    RegistryFolder folder;
};

using Names = std::vector<std::string>;

TEST_F(Registry, AReadMakesNoFile) {
    EXPECT_EQ(status_of_open("A"), kNotFound);
    EXPECT_FALSE(std::filesystem::exists(folder.file()));
}

TEST_F(Registry, TheFileAndItsFoldersAreForTheOwnerOnly) {
    const std::string file = folder.folder() + "/one/two/registry.db";
    setenv("TSREG_FILE", file.c_str(), 1);
    TsRegCloseKey(create("A"));
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    ASSERT_EQ(stat((file + "-wal").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    ASSERT_EQ(stat((folder.folder() + "/one/two").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
}

std::string output_of(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char part[256];
    while (const std::size_t size = fread(part, 1, sizeof part, pipe))
        output.append(part, size);
    pclose(pipe);
    return output;
}

// Whose home does not exist, so that such a process has no file at all.
TEST_F(Registry, ASetUserIdProcessIgnoresTheEnvironment) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0) GTEST_SKIP() << "only root may make a set-user-id file";
    const std::string probe = folder.folder() + "/probe";
    const std::string library = folder.folder() + "/libtsreg.so";
    std::filesystem::copy_file(OSAL_BUILD_DIR "/tests/host/registry_probe", probe);
    std::filesystem::copy_file(OSAL_LIBRARY_DIR "/libtsreg.so", library);
    ASSERT_EQ(chmod(folder.folder().c_str(), 0777), 0);
    setenv("HOME", folder.folder().c_str(), 1);
    setenv("XDG_STATE_HOME", folder.folder().c_str(), 1);
    const std::string command = probe + " " + library + " 2>&1";
    EXPECT_EQ(output_of(command), "0 00000000\n");
    EXPECT_TRUE(std::filesystem::remove(folder.file()));
    ASSERT_EQ(chown(probe.c_str(), kNobody, 0), 0);
    ASSERT_EQ(chmod(probe.c_str(), 04755), 0);
    const std::string secure = output_of(command);
    if (secure[0] == '0') GTEST_SKIP() << "set-user-id files have no effect in " << probe;
    EXPECT_EQ(secure, "1 C7F50006\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file()));
    EXPECT_FALSE(std::filesystem::exists(folder.folder() + "/orvane"));
    EXPECT_FALSE(std::filesystem::exists(folder.folder() + "/.local"));
}

TEST_F(Registry, CreationMakesTheKeysOnTheWayAndSaysWhetherItMadeAny) {
    HANDLE key = nullptr;
    UINT32 disposition = 0;
    EXPECT_EQ(TsRegCreateKeyExA(TSREG_LOCAL_MACHINE, "A\\B\\C", 0, nullptr, 0, 0, nullptr, &key,
                                &disposition),
              KC_OK);
    EXPECT_EQ(disposition, TSREG_CREATED_NEW_KEY);
    TsRegCloseKey(key);
    EXPECT_EQ(status_of_open("A\\B"), KC_OK);
    EXPECT_EQ(TsRegCreateKeyExA(TSREG_LOCAL_MACHINE, "A\\B\\C", 0, nullptr, 0, 0, nullptr, &key,
                                &disposition),
              KC_OK);
    EXPECT_EQ(disposition, TSREG_OPENED_EXISTING_KEY);
    TsRegCloseKey(key);
}

TEST_F(Registry, NamesIgnoreTheCaseOfAsciiLettersAndKeepTheFirstSpelling) {
    TsRegCloseKey(create("Alpha\\Beta"));
    HANDLE key = create("ALPHA");
    EXPECT_EQ(sub_keys(key), Names{"Beta"});
    set(key, "Name", "1");
    set(key, "nAME", "2");
    EXPECT_EQ(values(key), Names{"Name"});
    EXPECT_EQ(query(key, "NAME").data, "2");
    // E with acute in two encodings and in both cases: four names.
    for (const char* name : {"\xE9", "\xC9", "\xC3\xA9", "\xC3\x89"})
        set(key, name, name);
    EXPECT_EQ(values(key).size(), 5u);
    TsRegCloseKey(key);
}

TEST_F(Registry, EmptyNamesInAPathAreSkipped) {
    TsRegCloseKey(create("A\\B"));
    for (const char* path : {"\\A\\B", "A\\B\\", "A\\\\B", "\\\\A\\\\\\B\\\\"})
        EXPECT_EQ(status_of_open(path), KC_OK) << path;
    EXPECT_EQ(status_of_open(""), KC_OK);
    EXPECT_EQ(status_of_open(nullptr), KC_OK);
    EXPECT_EQ(sub_keys(TSREG_LOCAL_MACHINE), Names{"A"});
}

TEST_F(Registry, PathsMayStartAtAnOpenKey) {
    HANDLE base = create("A");
    HANDLE key = create("B\\C", base);
    set(key, "x", "1");
    TsRegCloseKey(key);
    key = open("A\\B\\C");
    EXPECT_EQ(query(key, "x").data, "1");
    TsRegCloseKey(key);
    EXPECT_EQ(status_of_open("", base), KC_OK);
    EXPECT_EQ(TsRegDeleteKeyA(base, "B\\C"), KC_OK);
    EXPECT_EQ(status_of_open("A\\B\\C"), kNotFound);
    TsRegCloseKey(base);
}

TEST_F(Registry, NamesOf255BytesAreTheLongest) {
    const std::string longest(255, 'n');
    HANDLE key = create(longest.c_str());
    EXPECT_EQ(set(key, longest.c_str(), "x"), KC_OK);
    EXPECT_EQ(query(key, longest.c_str()).data, "x");
    const std::string longer(256, 'n');
    EXPECT_EQ(status_of_open(longer.c_str()), error(4));
    EXPECT_EQ(set(key, longer.c_str(), "x"), error(4));
    EXPECT_EQ(query(key, longer.c_str()).status, error(4));
    EXPECT_EQ(TsRegDeleteValueA(key, longer.c_str()), error(4));
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, longer.c_str()), error(4));
    HANDLE none = &none;
    EXPECT_EQ(TsRegCreateKeyExA(key, longer.c_str(), 0, nullptr, 0, 0, nullptr, &none, nullptr),
              error(4));
    EXPECT_EQ(none, nullptr);
    TsRegCloseKey(key);
}

TEST_F(Registry, ValuesKeepTheirTypeAndEveryByte) {
    HANDLE key = create("A");
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes.push_back(static_cast<char>(i));
    const std::string large(1 << 20, 'x');
    for (UINT32 type : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu})
        for (const std::string& data : {std::string(), bytes, large}) {
            ASSERT_EQ(set(key, "v", data, type), KC_OK);
            const Value value = query(key, "v");
            EXPECT_EQ(value.status, KC_OK);
            EXPECT_EQ(value.type, type);
            EXPECT_TRUE(value.data == data);
        }
    TsRegCloseKey(key);
}

TEST_F(Registry, ANullNameIsTheEmptyOneAndBackslashesAreAllowedInValueNames) {
    HANDLE key = create("A");
    EXPECT_EQ(TsRegSetValueExA(key, nullptr, 0, 2, nullptr, 0), KC_OK);
    EXPECT_EQ(query(key, "").type, 2u);
    EXPECT_EQ(set(key, "\\a\\b", "1"), KC_OK);
    EXPECT_EQ(values(key), (Names{"", "\\a\\b"}));
    EXPECT_EQ(TsRegDeleteValueA(key, nullptr), KC_OK);
    EXPECT_EQ(query(key, nullptr).status, kNotFound);
    TsRegCloseKey(key);
}

TEST_F(Registry, ASizeQueryNeedsNoBuffer) {
    HANDLE key = create("A");
    set(key, "v", "12345", 2);
    UINT32 size = 0;
    UINT32 type = 0;
    EXPECT_EQ(TsRegQueryValueExA(key, "v", nullptr, &type, nullptr, &size), KC_OK);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(type, 2u);
    EXPECT_EQ(TsRegQueryValueExA(key, "v", nullptr, nullptr, nullptr, nullptr), KC_OK);
    TsRegCloseKey(key);
}

TEST_F(Registry, TooSmallABufferGetsTheSizeAndNoByte) {
    HANDLE key = create("A");
    set(key, "name", "12345", 2);
    char data[8] = "unhurt.";
    UINT32 size = 4;
    UINT32 type = 0;
    EXPECT_EQ(TsRegQueryValueExA(key, "name", nullptr, &type, data, &size), error(7));
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(type, 2u);
    EXPECT_STREQ(data, "unhurt.");
    char name[8] = "unhurt.";
    UINT32 length = 4;
    size = sizeof data;
    EXPECT_EQ(TsRegEnumValueA(key, 0, name, &length, nullptr, nullptr, data, &size), error(7));
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(size, 5u);
    EXPECT_STREQ(name, "unhurt.");
    EXPECT_STREQ(data, "unhurt.");
    size = 4;
    EXPECT_EQ(TsRegEnumValueA(key, 0, name, &length, nullptr, nullptr, data, &size), error(7));
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(TsRegEnumValueA(key, 0, name, &length, nullptr, nullptr, data, &size), KC_OK);
    EXPECT_EQ(length, 4u);
    EXPECT_STREQ(name, "name");
    TsRegCloseKey(key);
}

TEST_F(Registry, TooSmallANameBufferGetsTheRoomOfAKeyName) {
    TsRegCloseKey(create("Four"));
    char name[8] = "unhurt.";
    UINT32 length = 4;
    EXPECT_EQ(
        TsRegEnumKeyExA(TSREG_LOCAL_MACHINE, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
        error(7));
    EXPECT_EQ(length, 5u);
    EXPECT_STREQ(name, "unhurt.");
    EXPECT_EQ(
        TsRegEnumKeyExA(TSREG_LOCAL_MACHINE, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
        KC_OK);
    EXPECT_EQ(length, 4u);
    EXPECT_STREQ(name, "Four");
}

TEST_F(Registry, RightsAreThoseAskedForOnOpening) {
    HANDLE all = create("A");
    set(all, "v", "1");
    HANDLE reader = open("A", KX_KEY_READ);
    EXPECT_EQ(query(reader, "v").status, KC_OK);
    EXPECT_EQ(set(reader, "v", "2"), error(6));
    EXPECT_EQ(TsRegDeleteValueA(reader, "v"), error(6));
    HANDLE writer = open("A", KX_KEY_WRITE);
    EXPECT_EQ(set(writer, "v", "2"), KC_OK);
    EXPECT_EQ(query(writer, "v").status, error(6));
    std::string name;
    EXPECT_EQ(value_name(writer, 0, name), error(6));
    EXPECT_EQ(enumerate(writer, 0, name, nullptr), error(6));
    EXPECT_EQ(TsRegDeleteValueA(writer, "v"), KC_OK);
    HANDLE none = &none;
    EXPECT_EQ(TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, "A", 0, 3, &none), error(4));
    EXPECT_EQ(none, nullptr);
    for (HANDLE key : {all, reader, writer})
        EXPECT_EQ(TsRegCloseKey(key), KC_OK);
}

TEST_F(Registry, AHandleThatIsNoneIsKnown) {
    HANDLE key = create("A");
    EXPECT_EQ(TsRegCloseKey(key), KC_OK);
    HANDLE other = create("A");  // takes the closed one's place
    char text[8];
    UINT32 length = sizeof text;
    for (HANDLE bad : {key, HANDLE{nullptr}, HANDLE{&key}, HANDLE{this}}) {
        EXPECT_EQ(TsRegCloseKey(bad), error(3));
        EXPECT_EQ(status_of_open("", bad), error(3));
        EXPECT_EQ(set(bad, "v", "1"), error(3));
        EXPECT_EQ(query(bad, "v").status, error(3));
        EXPECT_EQ(TsRegDeleteValueA(bad, "v"), error(3));
        EXPECT_EQ(TsRegDeleteKeyA(bad, "A"), error(3));
        HANDLE made;
        EXPECT_EQ(TsRegCreateKeyExA(bad, "B", 0, nullptr, 0, 0, nullptr, &made, nullptr), error(3));
        EXPECT_EQ(TsRegEnumKeyExA(bad, 0, text, &length, nullptr, nullptr, nullptr, nullptr),
                  error(3));
        EXPECT_EQ(TsRegEnumValueA(bad, 0, text, &length, nullptr, nullptr, nullptr, nullptr),
                  error(3));
    }
    EXPECT_EQ(TsRegCloseKey(other), KC_OK);
    EXPECT_EQ(TsRegCloseKey(TSREG_LOCAL_MACHINE), KC_OK);
}

TEST_F(Registry, NullPointersAreInvalidArguments) {
    HANDLE key = create("A");
    UINT32 length = 1;
    char text[1];
    EXPECT_EQ(TsRegOpenKeyExA(key, "", 0, 0, nullptr), error(4));
    EXPECT_EQ(TsRegCreateKeyExA(key, "", 0, nullptr, 0, 0, nullptr, nullptr, nullptr), error(4));
    EXPECT_EQ(TsRegSetValueExA(key, "v", 0, 0, nullptr, 1), error(4));
    EXPECT_EQ(TsRegSetValueExA(key, "v", 0, 0, text, (64u << 20) + 1), error(4));
    EXPECT_EQ(TsRegEnumKeyExA(key, 0, nullptr, &length, nullptr, nullptr, nullptr, nullptr),
              error(4));
    EXPECT_EQ(TsRegEnumKeyExA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr), error(4));
    EXPECT_EQ(TsRegEnumValueA(key, 0, nullptr, &length, nullptr, nullptr, nullptr, nullptr),
              error(4));
    EXPECT_EQ(TsRegEnumValueA(key, 0, text, nullptr, nullptr, nullptr, nullptr, nullptr), error(4));
    TsRegCloseKey(key);
}

TEST_F(Registry, AKeyWithSubKeysIsNotDeleted) {
    TsRegCloseKey(create("A\\B"));
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, "A"), error(0x1003));
    EXPECT_EQ(status_of_open("A\\B"), KC_OK);
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, "A\\B"), KC_OK);
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, "A"), KC_OK);
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, "A"), kNotFound);
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, ""), error(4));
}

TEST_F(Registry, AHandleOfADeletedKeyNeverReachesItsSuccessor) {
    HANDLE stale = create("A");
    set(stale, "v", "1");
    EXPECT_EQ(TsRegDeleteKeyA(TSREG_LOCAL_MACHINE, "A"), KC_OK);
    HANDLE fresh = create("A");
    EXPECT_EQ(values(fresh), Names{});
    set(fresh, "v", "2");
    std::string name;
    EXPECT_EQ(query(stale, "v").status, kNotFound);
    EXPECT_EQ(set(stale, "v", "1"), kNotFound);
    EXPECT_EQ(TsRegDeleteValueA(stale, "v"), kNotFound);
    EXPECT_EQ(value_name(stale, 0, name), kNotFound);
    EXPECT_EQ(enumerate(stale, 0, name, nullptr), kNotFound);
    EXPECT_EQ(status_of_open("", stale), kNotFound);
    EXPECT_EQ(query(fresh, "v").data, "2");
    EXPECT_EQ(TsRegCloseKey(stale), KC_OK);
    EXPECT_EQ(TsRegCloseKey(fresh), KC_OK);
}

TEST_F(Registry, DeletingAValueThatIsNotThereIsNotFound) {
    HANDLE key = create("A");
    EXPECT_EQ(TsRegDeleteValueA(key, "v"), kNotFound);
    TsRegCloseKey(key);
}

TEST_F(Registry, EnumerationFollowsTheNamesWhateverTheOrderOfTheirMaking) {
    HANDLE key = create("A");
    for (const char* name : {"delta", "Alpha", "charlie", "Bravo"}) {
        TsRegCloseKey(create(name, key));
        set(key, name, name);
    }
    const Names sorted = {"Alpha", "Bravo", "charlie", "delta"};
    EXPECT_EQ(sub_keys(key), sorted);
    EXPECT_EQ(values(key), sorted);
    std::string name;
    EXPECT_EQ(value_name(key, 4, name), error(9));
    EXPECT_EQ(value_name(key, 0xFFFFFFFF, name), error(9));
    EXPECT_EQ(enumerate(key, 4, name, nullptr), error(9));
    TsRegCloseKey(key);
}

// Random steps beside a sorted set: an index always counts what is there now.
TEST_F(Registry, AnIndexCountsWhatThereIsAtThatMoment) {
    HANDLE key = create("A");
    std::set<std::string> model;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 40; ++i) {
        const auto name = std::to_string(random() % 100);
        set(key, name.c_str(), name);
        model.insert(name);
    }
    UINT32 index = 0;
    for (int step = 0; step < 400; ++step) {
        const auto name = std::to_string(random() % 100);
        const auto choice = random() % 8;
        if (choice == 0 && set(key, name.c_str(), name) == KC_OK) model.insert(name);
        if (choice == 1 && TsRegDeleteValueA(key, name.c_str()) == KC_OK) model.erase(name);
        if (choice == 2) index = random() % 50;
        std::string found;
        const KCSTATUS status = value_name(key, index, found);
        ASSERT_EQ(status, index < model.size() ? KC_OK : error(9));
        if (status == KC_OK) {
            ASSERT_EQ(found, *std::next(model.begin(), index)) << index;
        }
        index += choice > 3;
    }
    TsRegCloseKey(key);
}

TEST_F(Registry, ChangesOfAnotherProcessShowInAnEnumerationUnderWay) {
    HANDLE key = create("A");
    for (const char* name : {"b", "c", "d"})
        set(key, name, name);
    std::string name;
    EXPECT_EQ(value_name(key, 0, name), KC_OK);
    const pid_t child = fork();
    if (child == 0) _exit(set(key, "a", "a") == KC_OK ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(value_name(key, 1, name), KC_OK);
    EXPECT_EQ(name, "b");
    EXPECT_EQ(value_name(key, 2, name), KC_OK);
    EXPECT_EQ(name, "c");
    TsRegCloseKey(key);
}

TEST_F(Registry, TheLastWriteTimeFollowsValuesAndSubKeys) {
    HANDLE parent = create("A");
    HANDLE key = create("B", parent);
    std::string name;
    UINT64 made = 0;
    ASSERT_EQ(enumerate(parent, 0, name, &made), KC_OK);
    const UINT64 unix_now = static_cast<UINT64>(time(nullptr));
    EXPECT_NEAR(static_cast<double>(made / 10'000'000), unix_now + 11'644'473'600.0, 60.0);
    UINT64 before = made;
    const auto changed = [&] {
        UINT64 after = 0;
        EXPECT_EQ(enumerate(parent, 0, name, &after), KC_OK);
        return std::exchange(before, after) < after;
    };
    EXPECT_FALSE(changed());
    set(key, "v", "1");
    EXPECT_TRUE(changed());
    TsRegDeleteValueA(key, "v");
    EXPECT_TRUE(changed());
    TsRegCloseKey(create("C", key));
    EXPECT_TRUE(changed());
    TsRegDeleteKeyA(key, "C");
    EXPECT_TRUE(changed());
    TsRegCloseKey(create("", key));
    EXPECT_FALSE(changed());
    TsRegCloseKey(key);
    TsRegCloseKey(parent);
}

TEST_F(Registry, HandlesStayValidOnBothSidesOfAFork) {
    HANDLE key = create("A");
    set(key, "v", "parent");
    const pid_t child = fork();
    if (child == 0) {
        const bool read = query(key, "v").data == "parent";
        const bool wrote = set(key, "v", "child") == KC_OK;
        _exit(read && wrote && TsRegCloseKey(key) == KC_OK ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(query(key, "v").data, "child");
    TsRegCloseKey(key);
}

TEST_F(Registry, ThreadsMayCallAtOnceAndForkMeanwhile) {
    HANDLE key = create("A");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([key, thread] {
            const auto name = std::to_string(thread);
            for (int i = 0; i < 25; ++i) {
                EXPECT_EQ(set(key, name.c_str(), std::to_string(i)), KC_OK);
                EXPECT_EQ(query(key, name.c_str()).data, std::to_string(i));
            }
        });
    for (int i = 0; i < 10; ++i) {
        const pid_t child = fork();
        if (child == 0) _exit(set(key, "child", "x") == KC_OK ? 0 : 1);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(values(key).size(), 5u);
    TsRegCloseKey(key);
}

}  // namespace
}  // namespace osal_test
