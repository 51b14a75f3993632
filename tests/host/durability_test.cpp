// The registry library when things go wrong around it: processes that are killed, that write at
// once, files that are full, protected or damaged.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "host/killed_writer.h"
#include "support/interpose.h"

namespace osal_test {
namespace {

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, code);
}

TEST_F(Durability, AKilledWriterLosesNothingThatWasAcknowledged) {
    kill_writers(10);
}

// --- several processes --------------------------------------------------------------------------

TEST_F(Durability, FourProcessesMayMakeAndUseAFileAtOnce) {
    constexpr int kProcesses = 4;
    constexpr UINT32 kValues = 100;
    std::vector<pid_t> children;
    for (int process = 0; process < kProcesses; ++process) {
        const pid_t child = fork();
        if (child != 0) {
            children.push_back(child);
            continue;
        }
        HANDLE key = create("Shared\\Key");
        for (UINT32 number = 0; number < kValues; ++number) {
            const auto name = std::to_string(process) + "-" + std::to_string(number);
            std::string data;
            if (set(key, name, pattern(number)) != KC_OK) _exit(1);
            if (get(key, name, data) != KC_OK || data != pattern(number)) _exit(2);
        }
        _exit(0);
    }
    for (const pid_t child : children)
        EXPECT_EQ(exit_of(child), 0);
    HANDLE key = create("Shared\\Key");
    char name[256];
    UINT32 count = 0;
    for (UINT32 length = sizeof name;
         TsRegEnumValueA(key, count, name, &length, nullptr, nullptr, nullptr, nullptr) == KC_OK;
         length = sizeof name)
        ++count;
    EXPECT_EQ(count, kProcesses * kValues);
    TsRegCloseKey(key);
}

// A reader sees either the old or the new value of a writer in another process, and sees it change.
TEST_F(Durability, AReaderSeesWhatAnotherProcessWrites) {
    HANDLE key = create("A");
    ASSERT_EQ(set(key, "v", pattern(0)), KC_OK);
    const pid_t child = fork();
    if (child == 0) {
        for (UINT32 number = 1; number <= 50; ++number)
            if (set(key, "v", pattern(number)) != KC_OK) _exit(1);
        _exit(0);
    }
    UINT32 seen = 0;
    std::string data;
    while (waitpid(child, nullptr, WNOHANG) == 0) {
        ASSERT_EQ(get(key, "v", data), KC_OK);
        while (seen < 50 && data != pattern(seen))
            ++seen;
        ASSERT_EQ(data, pattern(seen));
    }
    ASSERT_EQ(get(key, "v", data), KC_OK);
    EXPECT_EQ(data, pattern(50));
    TsRegCloseKey(key);
}

// --- trouble with the file ----------------------------------------------------------------------

std::vector<std::string>* logged = nullptr;
void record_line(int priority, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    EXPECT_EQ(priority, LOG_USER | LOG_ERR);
    logged->push_back(text);
}

class BrokenFile : public testing::Test {
  protected:
    BrokenFile() { logged = &lines; }

    void expect_one_line(const std::string& file) {
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find(file + ": "), std::string::npos) << lines[0];
        lines.clear();
    }
    static KCSTATUS status_of_open() {
        HANDLE key = nullptr;
        const KCSTATUS status = TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, "A", 0, KX_KEY_READ, &key);
        if (status == KC_OK) TsRegCloseKey(key);
        return status;
    }

    RegistryFolder folder;
    std::vector<std::string> lines;
    Interpose hook{"libtsreg.so", "syslog", &record_line};
};

TEST_F(BrokenFile, ADamagedFileIsNamedOnceAndUsedAgainWhenItIsWhole) {
    std::ofstream(folder.file()) << std::string(8192, 'x');
    EXPECT_EQ(status_of_open(), error(12));
    EXPECT_EQ(status_of_open(), error(12));
    HANDLE key = this;
    EXPECT_EQ(TsRegCreateKeyExA(TSREG_LOCAL_MACHINE, "A", 0, nullptr, 0, 0, nullptr, &key, nullptr),
              error(12));
    EXPECT_EQ(key, nullptr);
    expect_one_line(folder.file());
    std::filesystem::remove(folder.file());
    TsRegCloseKey(create("A"));
    EXPECT_EQ(status_of_open(), KC_OK);
    EXPECT_TRUE(lines.empty());
}

TEST_F(BrokenFile, AFileDamagedInTheMiddleGivesAStatusAndNoWrongData) {
    HANDLE key = create("A");
    for (UINT32 number = 0; number < 200; ++number)
        ASSERT_EQ(set(key, std::to_string(number), pattern(number)), KC_OK);
    TsRegCloseKey(key);
    RegistryFolder::close_file();
    // The log is emptied into the file when a connection is closed for good, here by a child.
    const pid_t child = fork();
    if (child == 0) exit(status_of_open() == KC_OK ? 0 : 1);
    ASSERT_EQ(exit_of(child), 0);
    std::fstream file(folder.file(), std::ios::in | std::ios::out | std::ios::binary);
    const std::string garbage(4096, '\xAA');
    for (int page = 1; page < 40; ++page)
        file.seekp(page * 4096).write(garbage.data(), 4096);
    file.close();
    EXPECT_EQ(status_of_open(), error(12));
    expect_one_line(folder.file());
}

// As somebody whom file modes bind: root is bound by none.
template <class Check>
int as_nobody(const std::string& folder, Check check) {
    const pid_t child = fork();
    if (child != 0) return exit_of(child);
    if (geteuid() == 0) {
        if (chown(folder.c_str(), 65534, 65534) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(99);
    }
    check();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST_F(BrokenFile, AProtectedFileIsReadAndNotWritten) {
    TsRegCloseKey(create("A"));
    RegistryFolder::close_file();
    for (const char* suffix : {"", "-wal", "-shm"})
        if (const std::string file = folder.file() + suffix; std::filesystem::exists(file)) {
            ASSERT_EQ(chmod(file.c_str(), *suffix != '\0' ? 0666 : 0444), 0);
        }
    EXPECT_EQ(as_nobody(folder.folder(),
                        [&] {
                            EXPECT_EQ(status_of_open(), KC_OK);
                            EXPECT_TRUE(lines.empty());
                            EXPECT_EQ(create("B"), nullptr);
                            expect_one_line(folder.file());
                            EXPECT_EQ(status_of_open(), KC_OK);
                        }),
              0);
}

TEST_F(BrokenFile, AFileThatMayNotBeReadIsDenied) {
    TsRegCloseKey(create("A"));
    RegistryFolder::close_file();
    ASSERT_EQ(chmod(folder.file().c_str(), 0), 0);
    EXPECT_EQ(as_nobody(folder.folder(),
                        [&] {
                            EXPECT_EQ(status_of_open(), error(6));
                            expect_one_line(folder.file());
                        }),
              0);
}

// A small file system of its own for the test's folder.
class FullFileSystem : public BrokenFile {
  protected:
    bool mount_small() {
        return mount("none", folder.folder().c_str(), "tmpfs", 0, "size=512k") == 0;
    }
    ~FullFileSystem() override {
        RegistryFolder::close_file();
        umount(folder.folder().c_str());
    }
};

TEST_F(FullFileSystem, AFullFileSystemLosesNothingThatWasAcknowledged) {
    if (!mount_small()) GTEST_SKIP() << "may not mount a tmpfs here: " << strerror(errno);
    HANDLE key = create("A");
    ASSERT_NE(key, nullptr);
    UINT32 acknowledged = 0;
    KCSTATUS status = KC_OK;
    while (acknowledged < 1000) {
        status = set(key, std::to_string(acknowledged), std::string(10'000, 'x'));
        if (status != KC_OK) break;
        ++acknowledged;
    }
    EXPECT_EQ(status, error(5));
    EXPECT_GT(acknowledged, 0u);
    expect_one_line(folder.file());
    std::string data;
    for (UINT32 number = 0; number < acknowledged; ++number) {
        ASSERT_EQ(get(key, std::to_string(number), data), KC_OK) << number;
        EXPECT_EQ(data.size(), 10'000u);
    }
    EXPECT_EQ(get(key, std::to_string(acknowledged), data), error(3));
    TsRegCloseKey(key);
}

}  // namespace
}  // namespace osal_test
