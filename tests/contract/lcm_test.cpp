// The component runtime, with component libraries built for these tests and with osal.so.
//
// This program is not linked with osal.so: what it sees of it, it sees through the runtime.
#include "host/lcm.h"

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "components/test_component.h"
#include "osal/iosal.h"
#include "support/recorders.h"

OSAL_DEFINE_IDENTIFIERS

namespace osal_test {
namespace {

namespace fs = std::filesystem;
using namespace test_component;
using Strings = std::vector<std::string>;

constexpr KCSTATUS runtime_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_RUNTIME, code);
}

class Runtime;
std::atomic<Runtime*> running = nullptr;

class Runtime : public testing::Test {
  protected:
    Runtime() : statuses_("liblcm.so"), log_("liblcm.so") {
        unsetenv("LCM_COMPONENT_PATH");
        std::string pattern = testing::TempDir() + "lcm_test.XXXXXX";
        root_ = fs::canonical(mkdtemp(pattern.data()));
        running = this;
    }
    ~Runtime() override {
        LcmStop();
        running = nullptr;
        fs::remove_all(root_);
    }

    // A new folder with copies of some of the test components.
    fs::path folder(const std::string& name, const Strings& components = {}) {
        fs::create_directory(root_ / name);
        fs::permissions(root_ / name, fs::perms(0755));
        for (const auto& component : components)
            fs::permissions(add(root_ / name, component), fs::perms(0755));
        return root_ / name;
    }
    fs::path add(const fs::path& folder, const std::string& component) {
        const fs::path file = folder / (component + ".so");
        fs::copy_file(fs::path(OSAL_BUILD_DIR "/tests/components") / (component + ".so"), file);
        return file;
    }

    KCSTATUS start(const fs::path& folder) { return LcmStart(folder.c_str()); }
    KCSTATUS create(const GUID& clsid, Instance** out = nullptr) {
        void* instance = this;
        const KCSTATUS status = LcmCreateInstance(&clsid, nullptr, &kInstance, &instance);
        EXPECT_EQ(instance == nullptr, KC_IS_ERROR(status));
        if (out != nullptr) *out = static_cast<Instance*>(instance);
        return status;
    }
    std::string server_of(const GUID& clsid) {
        Instance* instance = nullptr;
        create(clsid, &instance);
        return instance != nullptr ? instance->component : "nobody";
    }

    // What the components were called for since the last call: "alpha DllStart".
    Strings take_events() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

    // Expects one refusal since the last check: its status, and a log line with both texts.
    void expect_refusal(UINT32 code, const char* function, const std::string& subject,
                        const std::string& why) {
        statuses_.expect_one(KC_FACILITY_RUNTIME, code, "lcm", function);
        expect_line(subject, why);
    }
    void expect_line(const std::string& subject, const std::string& why) {
        const auto lines = log_.take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
        EXPECT_NE(lines[0].text.find(subject), std::string::npos) << lines[0].text;
        EXPECT_NE(lines[0].text.find(why), std::string::npos) << lines[0].text;
    }
    void expect_no_refusal() {
        statuses_.expect_none();
        EXPECT_TRUE(log_.take().empty());
    }

    // Runs in every event, on its thread; its result is the routine's. Set while nothing runs.
    std::function<HRESULT(const std::string& component, const std::string& event)> on_event;

    fs::path root_;
    StatusRecorder statuses_;
    LogRecorder log_;

  private:
    std::mutex mutex_;
    Strings events_;

    friend HRESULT dispatch(const char* component, const char* event);
};

HRESULT dispatch(const char* component, const char* event) {
    Runtime* test = running;
    if (test == nullptr) return KC_S_OK;
    {
        std::lock_guard lock(test->mutex_);
        test->events_.push_back(std::string(component) + " " + event);
    }
    return test->on_event ? test->on_event(component, event) : KC_S_OK;
}

}  // namespace
}  // namespace osal_test

HRESULT component_event(const char* component, const char* event) {
    return osal_test::dispatch(component, event);
}

namespace osal_test {
namespace {

constexpr const char* kWritable = "its group or others may write it";

// Calls before the start, arguments

TEST_F(Runtime, AnInstanceBeforeTheStartIsRefused) {
    EXPECT_EQ(create(kAlpha), runtime_error(1));
    expect_refusal(1, "LcmCreateInstance", "class A1FAA1FA-0001-0001-0101-010101010101",
                   "not started");
}

TEST_F(Runtime, AStopBeforeTheStartDoesNothing) {
    EXPECT_EQ(LcmStop(), KC_OK);
    expect_no_refusal();
}

TEST_F(Runtime, NullArgumentsOfAnInstanceAreRefused) {
    start(folder("a", {"alpha"}));
    take_events();
    void* out = this;
    EXPECT_EQ(LcmCreateInstance(nullptr, nullptr, &kInstance, &out), runtime_error(4));
    EXPECT_EQ(out, nullptr);
    expect_refusal(4, "LcmCreateInstance", "an instance", "null argument");
    out = this;
    EXPECT_EQ(LcmCreateInstance(&kAlpha, nullptr, nullptr, &out), runtime_error(4));
    EXPECT_EQ(out, nullptr);
    expect_refusal(4, "LcmCreateInstance", "an instance", "null argument");
    EXPECT_EQ(LcmCreateInstance(&kAlpha, nullptr, &kInstance, nullptr), runtime_error(4));
    expect_refusal(4, "LcmCreateInstance", "an instance", "null argument");
    EXPECT_EQ(take_events(), Strings{});
}

// Finding, loading, starting

TEST_F(Runtime, ComponentsAreStartedOnceEachInNameOrder) {
    EXPECT_EQ(start(folder("a", {"beta", "alpha"})), KC_OK);
    EXPECT_EQ(take_events(), (Strings{"alpha DllStart", "beta DllStart"}));
    expect_no_refusal();
}

TEST_F(Runtime, FilesOfOtherNamesAreNotTouched) {
    const fs::path a = folder("a");
    for (const char* name : {"alpha.so.1", "alpha", "so", ".so", "README"})
        std::ofstream(a / name) << "no library";
    EXPECT_EQ(start(a), KC_OK);
    expect_no_refusal();
}

TEST_F(Runtime, WithoutAFolderTheOwnOneIsSearched) {
    EXPECT_EQ(LcmStart(nullptr), KC_OK);
    expect_no_refusal();
    EXPECT_EQ(server_of(kAlpha), "nobody");
}

TEST_F(Runtime, TheVariableNamesFurtherFolders) {
    const fs::path a = folder("a", {"alpha"});
    const fs::path b = folder("b", {"beta"});
    setenv("LCM_COMPONENT_PATH", ("::" + b.string() + ":" + a.string() + ":").c_str(), 1);
    EXPECT_EQ(LcmStart(nullptr), KC_OK);
    EXPECT_EQ(take_events(), (Strings{"beta DllStart", "alpha DllStart"}));
    expect_no_refusal();
}

TEST_F(Runtime, TheVariableIsReadInAWayThatIgnoresItInASetUserIdProcess) {
    // Fails unless the runtime asks by secure_getenv, which then answers as it does there.
    Interpose asked(
        "liblcm.so", "secure_getenv", +[](const char*) -> char* { return nullptr; });
    setenv("LCM_COMPONENT_PATH", folder("a", {"alpha"}).c_str(), 1);
    EXPECT_EQ(LcmStart(nullptr), KC_OK);
    EXPECT_EQ(take_events(), Strings{});
}

// What a command prints.
std::string output_of(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    char line[256] = "";
    if (fgets(line, sizeof line, pipe) == nullptr) line[0] = 0;
    pclose(pipe);
    return line;
}

TEST_F(Runtime, ASetUserIdProcessIgnoresTheVariable) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can make a file set-user-id for somebody";
    constexpr uid_t kSomebody = 12345;
    fs::permissions(root_, fs::perms(0755));
    for (const char* library : {"liblcm.so", "libkcstatus.so"})
        fs::copy_file(fs::path(OSAL_LIBRARY_DIR) / library, root_ / library);
    const fs::path probe = root_ / "probe";
    fs::copy_file(OSAL_BUILD_DIR "/tests/components/secure_probe", probe);
    // A relative folder: refused with code 4 unless the variable is ignored.
    setenv("LCM_COMPONENT_PATH", "relative", 1);
    const std::string command = probe.string() + " " + root_.string() + " 2>&1";
    EXPECT_EQ(output_of(command), "0 C7F40004\n");
    ASSERT_EQ(chown(probe.c_str(), kSomebody, 0), 0);
    ASSERT_EQ(chmod(probe.c_str(), 04755), 0);
    const std::string secure = output_of(command);
    if (secure[0] == '0') GTEST_SKIP() << "set-user-id files have no effect in " << root_;
    EXPECT_EQ(secure, "1 00000000\n");
}

TEST_F(Runtime, OfTwoComponentsWithOneClassTheOneFoundFirstServes) {
    setenv("LCM_COMPONENT_PATH", folder("a", {"alpha"}).c_str(), 1);
    EXPECT_EQ(start(folder("b", {"beta"})), KC_OK);
    EXPECT_EQ(server_of(kShared), "beta");
    EXPECT_EQ(server_of(kAlpha), "alpha");
}

TEST_F(Runtime, TheOwnFolderComesBeforeTheCallers) {
    EXPECT_EQ(start(folder("a", {"rival"})), KC_OK);
    EXPECT_EQ(take_events(), Strings{"rival DllStart"});
    void* osal = nullptr;
    ASSERT_EQ(LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &osal), KC_OK);
    EXPECT_EQ(take_events(), Strings{});
    static_cast<PIOsal>(osal)->lpVtbl->Release(static_cast<PIOsal>(osal));
}

TEST_F(Runtime, AFileIsLoadedOnceUnderWhateverNames) {
    const fs::path a = folder("a", {"alpha"});
    fs::create_symlink("alpha.so", a / "again.so");
    fs::create_hard_link(a / "alpha.so", a / "twice.so");
    fs::create_directory_symlink(a, root_ / "b");
    setenv("LCM_COMPONENT_PATH", (root_ / "b").c_str(), 1);
    EXPECT_EQ(start(a), KC_OK);
    EXPECT_EQ(take_events(), Strings{"alpha DllStart"});
    expect_no_refusal();
}

TEST_F(Runtime, ASecondStartAddsWhatIsNew) {
    const fs::path a = folder("a", {"alpha"});
    EXPECT_EQ(start(a), KC_OK);
    add(a, "beta");
    EXPECT_EQ(start(a), KC_OK);
    EXPECT_EQ(take_events(), (Strings{"alpha DllStart", "beta DllStart"}));
    EXPECT_EQ(server_of(kShared), "alpha");
    EXPECT_EQ(server_of(kBeta), "beta");
}

// Refused files and folders

TEST_F(Runtime, AFileThatOthersMayWriteIsRefusedAndTheRestLoaded) {
    for (const unsigned mode : {0757u, 0775u}) {
        const fs::path a = folder(std::to_string(mode), {"alpha", "beta"});
        fs::permissions(a / "alpha.so", fs::perms(mode));
        EXPECT_EQ(start(a), runtime_error(1));
        EXPECT_EQ(take_events(), Strings{"beta DllStart"});
        expect_refusal(1, "LcmStart", (a / "alpha.so").string(), kWritable);
        EXPECT_EQ(server_of(kBeta), "beta");
        LcmStop();
        take_events();
    }
}

TEST_F(Runtime, AFolderThatOthersMayWriteIsRefused) {
    for (const unsigned mode : {0757u, 0775u, 01777u}) {
        const fs::path a = folder(std::to_string(mode), {"alpha"});
        fs::permissions(a, fs::perms(mode));
        EXPECT_EQ(start(a), runtime_error(1));
        EXPECT_EQ(take_events(), Strings{});
        expect_refusal(1, "LcmStart", a.string(), kWritable);
    }
}

TEST_F(Runtime, ALinkIntoAFolderThatOthersMayWriteIsRefused) {
    const fs::path open = folder("open", {"alpha"});
    fs::permissions(open, fs::perms(0777));
    const fs::path a = folder("a");
    fs::create_symlink(open / "alpha.so", a / "alpha.so");
    EXPECT_EQ(start(a), runtime_error(1));
    EXPECT_EQ(take_events(), Strings{});
    expect_refusal(1, "LcmStart", (open / "alpha.so").string(), "folder");
}

TEST_F(Runtime, ALinkToAFileThatOthersMayWriteIsRefused) {
    const fs::path b = folder("b", {"alpha"});
    fs::permissions(b / "alpha.so", fs::perms(0777));
    const fs::path a = folder("a");
    fs::create_symlink(b / "alpha.so", a / "alpha.so");
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", (b / "alpha.so").string(), kWritable);
}

TEST_F(Runtime, AFileOrFolderOfAnotherUserIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    constexpr uid_t kSomebody = 12345;
    const fs::path a = folder("a", {"alpha"});
    ASSERT_EQ(chown((a / "alpha.so").c_str(), kSomebody, 0), 0);
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", (a / "alpha.so").string(), "owned by neither");
    ASSERT_EQ(chown(a.c_str(), kSomebody, 0), 0);
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", a.string(), "owned by neither");
    EXPECT_EQ(take_events(), Strings{});
}

TEST_F(Runtime, AFileOfTheEffectiveUserIsLoaded) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    constexpr uid_t kSomebody = 12345;
    const fs::path a = folder("a", {"alpha"});
    for (const fs::path& path : {root_, a, a / "alpha.so"})
        ASSERT_EQ(chown(path.c_str(), kSomebody, 0), 0);
    ASSERT_EQ(seteuid(kSomebody), 0);
    start(a);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(take_events(), Strings{"alpha DllStart"});
}

TEST_F(Runtime, AFolderThatDoesNotExistIsRefusedAndTheSearchGoesOn) {
    setenv("LCM_COMPONENT_PATH",
           ((root_ / "none").string() + ":" + folder("a", {"alpha"}).string()).c_str(), 1);
    EXPECT_EQ(LcmStart(nullptr), runtime_error(3));
    expect_refusal(3, "LcmStart", (root_ / "none").string(), "No such file");
    EXPECT_EQ(take_events(), Strings{"alpha DllStart"});
    EXPECT_EQ(start(root_ / "neither"), runtime_error(3));
}

TEST_F(Runtime, AFileInPlaceOfAFolderIsRefused) {
    std::ofstream(root_ / "file") << "text";
    EXPECT_EQ(start(root_ / "file"), runtime_error(1));
    expect_refusal(1, "LcmStart", (root_ / "file").string(), "Not a directory");
}

TEST_F(Runtime, AFolderThatCannotBeReadIsRefused) {
    const fs::path a = folder("a", {"alpha"});
    Interpose open(
        "liblcm.so", "opendir", +[](const char*) -> void* {
            errno = EACCES;
            return nullptr;
        });
    EXPECT_EQ(start(a), runtime_error(1));
    statuses_.take();
    const auto lines = log_.take();
    ASSERT_EQ(lines.size(), 2u);  // the own folder cannot be read either
    EXPECT_NE(lines[1].text.find(a.string() + ": Permission denied"), std::string::npos);
}

std::atomic<int> allocations_left = 0;

void* allocate_or_throw(std::size_t size) {
    if (allocations_left-- <= 0) throw std::bad_alloc();
    return operator new(size);
}

TEST_F(Runtime, WithoutMemoryTheSearchEndsAndMayBeRepeated) {
    const fs::path a = folder("a", {"alpha", "beta"});
    int given = 0;
    for (;; ++given) {
        Interpose memory("liblcm.so", "_Znwm", &allocate_or_throw);
        allocations_left = given;
        const KCSTATUS status = start(a);
        if (status == KC_OK) break;
        ASSERT_EQ(status, runtime_error(5));
        expect_refusal(5, "LcmStart", "the search", "no memory");
    }
    EXPECT_GE(given, 3);
    EXPECT_EQ(server_of(kAlpha), "alpha");
    EXPECT_EQ(server_of(kBeta), "beta");
    EXPECT_EQ(take_events(),
              (Strings{"alpha DllStart", "beta DllStart", "alpha DllGetClassObject",
                       "alpha CreateInstance", "alpha Release", "beta DllGetClassObject",
                       "beta CreateInstance", "beta Release"}));
}

TEST_F(Runtime, ARelativeFolderOfTheVariableIsRefused) {
    setenv("LCM_COMPONENT_PATH", "plugins", 1);
    EXPECT_EQ(LcmStart(nullptr), runtime_error(4));
    expect_refusal(4, "LcmStart", "plugins", "not an absolute path");
}

TEST_F(Runtime, ARelativeFolderOfTheCallerIsSearched) {
    folder("a", {"alpha"});
    fs::current_path(root_);
    EXPECT_EQ(LcmStart("a"), KC_OK);
    EXPECT_EQ(take_events(), Strings{"alpha DllStart"});
    fs::current_path("/");
}

TEST_F(Runtime, ALinkThatLeadsNowhereIsRefused) {
    const fs::path a = folder("a");
    fs::create_symlink("gone", a / "alpha.so");
    EXPECT_EQ(start(a), runtime_error(3));
    expect_refusal(3, "LcmStart", (a / "alpha.so").string(), "No such file");
}

TEST_F(Runtime, AFolderNamedLikeAComponentIsRefused) {
    const fs::path a = folder("a");
    fs::create_directory(a / "alpha.so");
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", (a / "alpha.so").string(), "not a regular file");
}

TEST_F(Runtime, AFileThatIsNoLibraryIsRefused) {
    const fs::path a = folder("a", {"beta"});
    std::ofstream(a / "alpha.so") << "text";
    fs::permissions(a / "alpha.so", fs::perms(0644));
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", (a / "alpha.so").string(), "too short");
    EXPECT_EQ(take_events(), Strings{"beta DllStart"});
}

TEST_F(Runtime, ALibraryThatCannotBeBoundWholeIsRefusedAtOnce) {
    const fs::path a = folder("a", {"unresolved"});
    EXPECT_EQ(start(a), runtime_error(1));
    expect_refusal(1, "LcmStart", (a / "unresolved.so").string(), "a_function_that_nobody_has");
    EXPECT_EQ(take_events(), Strings{});
}

TEST_F(Runtime, ALibraryWithoutAnEntryPointIsRefusedAndUnloaded) {
    const std::pair<const char*, const char*> kinds[] = {{"no_table", "TSCOM_Table"},
                                                         {"no_start", "DllStart"},
                                                         {"no_class_object", "DllGetClassObject"},
                                                         {"no_stop", "DllStop"}};
    for (const auto& [component, missing] : kinds) {
        const fs::path a = folder(component, {component});
        EXPECT_EQ(start(a), runtime_error(2));
        expect_refusal(2, "LcmStart", component, std::string("has no ") + missing);
        EXPECT_EQ(take_events(), Strings{std::string(component) + " unloaded"});
    }
    EXPECT_EQ(server_of(kAlpha), "nobody");
}

TEST_F(Runtime, EntryPointsOfALibraryThatAComponentNeedsAreNotItsOwn) {
    const fs::path a = folder("a", {"borrower"});
    EXPECT_EQ(start(a), runtime_error(2));
    expect_refusal(2, "LcmStart", (a / "borrower.so").string(), "has no DllStop");
}

TEST_F(Runtime, AComponentThatDoesNotStartIsUnloadedAndItsStatusReturned) {
    on_event = [](const auto& component, const auto& event) -> HRESULT {
        return component == "alpha" && event == "DllStart" ? 0xC1230045 : 0;
    };
    const fs::path a = folder("a", {"alpha", "beta"});
    EXPECT_EQ(start(a), 0xC1230045u);
    statuses_.expect_none();
    expect_line((a / "alpha.so").string(), "its DllStart failed");
    EXPECT_EQ(take_events(), (Strings{"alpha DllStart", "alpha unloaded", "beta DllStart"}));
    EXPECT_EQ(server_of(kAlpha), "nobody");
    EXPECT_EQ(server_of(kBeta), "beta");
}

TEST_F(Runtime, AStatusOfDllStartThatIsNoErrorStarts) {
    on_event = [](const auto&, const auto& event) -> HRESULT { return event == "DllStart"; };
    EXPECT_EQ(start(folder("a", {"alpha"})), KC_OK);
    EXPECT_EQ(server_of(kAlpha), "alpha");
}

TEST_F(Runtime, OfSeveralRefusalsTheFirstIsReturnedAndAllAreLogged) {
    const fs::path a = folder("a", {"no_stop", "unresolved"});
    EXPECT_EQ(start(a), runtime_error(2));
    EXPECT_EQ(statuses_.take().size(), 2u);
    EXPECT_EQ(log_.take().size(), 2u);
}

// Instances

TEST_F(Runtime, TheComponentsFactoryMakesTheInstanceAndIsReleased) {
    start(folder("a", {"alpha"}));
    take_events();
    void* out = nullptr;
    EXPECT_EQ(LcmCreateInstance(&kShared, this, &kInstance, &out), KC_OK);
    EXPECT_EQ(take_events(),
              (Strings{"alpha DllGetClassObject", "alpha CreateInstance", "alpha Release"}));
    const auto* instance = static_cast<const Instance*>(out);
    EXPECT_TRUE(instance->clsid == kShared);
    EXPECT_EQ(instance->outer, this);
    EXPECT_TRUE(instance->iid == kInstance);
    expect_no_refusal();
}

TEST_F(Runtime, AClassThatNobodyServesIsRefused) {
    start(folder("a", {"alpha"}));
    EXPECT_EQ(create(kNobodys), runtime_error(2));
    expect_refusal(2, "LcmCreateInstance", "class 58A2ED00-0001-0001-0101-010101010102",
                   "no component serves it");
}

TEST_F(Runtime, ResultsOfTheEntryBecomeStatuses) {
    start(folder("a", {"alpha"}));
    HRESULT result = 0;
    on_event = [&](const auto&, const auto& event) -> HRESULT {
        return event == "DllGetClassObject" ? result : 0;
    };
    result = KC_E_NOINTERFACE;
    EXPECT_EQ(create(kAlpha), runtime_error(2));
    expect_refusal(2, "LcmCreateInstance", "class A1FAA1FA", "does not give the factory");
    result = KC_E_CREATE_FAILED;
    EXPECT_EQ(create(kAlpha), runtime_error(1));
    expect_refusal(1, "LcmCreateInstance", "class A1FAA1FA", "failed to give the factory");
    result = 1;  // success, but no factory
    EXPECT_EQ(create(kAlpha), runtime_error(1));
    expect_refusal(1, "LcmCreateInstance", "class A1FAA1FA", "failed to give the factory");
    take_events();
    result = 0;
    EXPECT_EQ(create(kAlpha), KC_OK);
}

TEST_F(Runtime, StatusesOfTheFactoryArePassedOnUnchanged) {
    start(folder("a", {"alpha"}));
    KCSTATUS status = 0xC1230045;
    on_event = [&](const auto&, const auto& event) -> HRESULT {
        return event == "CreateInstance" ? status : 0;
    };
    EXPECT_EQ(create(kAlpha), 0xC1230045u);
    EXPECT_EQ(take_events().back(), "alpha Release");
    status = 1;
    EXPECT_EQ(create(kAlpha), 1u);
    expect_no_refusal();
}

// Stopping

TEST_F(Runtime, AllStopInReverseOrderBeforeTheFirstIsUnloaded) {
    start(folder("a", {"alpha", "beta"}));
    take_events();
    EXPECT_EQ(LcmStop(), KC_OK);
    EXPECT_EQ(take_events(),
              (Strings{"beta DllStop", "alpha DllStop", "beta unloaded", "alpha unloaded"}));
    EXPECT_EQ(create(kAlpha), runtime_error(1));
    expect_refusal(1, "LcmCreateInstance", "class A1FAA1FA", "not started");
}

TEST_F(Runtime, AResultOfDllStopIsIgnored) {
    on_event = [](const auto&, const auto& event) -> HRESULT {
        return event == "DllStop" ? 0xC1230045 : 0;
    };
    start(folder("a", {"alpha"}));
    EXPECT_EQ(LcmStop(), KC_OK);
    expect_no_refusal();
}

TEST_F(Runtime, ASecondStopDoesNothing) {
    start(folder("a", {"alpha"}));
    LcmStop();
    take_events();
    EXPECT_EQ(LcmStop(), KC_OK);
    EXPECT_EQ(take_events(), Strings{});
    expect_no_refusal();
}

TEST_F(Runtime, AfterAStopEverythingMayBeStartedAnew) {
    const fs::path a = folder("a", {"alpha"});
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(start(a), KC_OK);
        EXPECT_EQ(server_of(kAlpha), "alpha");
        take_events();
        EXPECT_EQ(LcmStop(), KC_OK);
        EXPECT_EQ(take_events(), (Strings{"alpha DllStop", "alpha unloaded"}));
    }
}

// From inside a component

TEST_F(Runtime, AComponentMayMakeInstancesOfOthersWhileOneOfItsOwnIsMade) {
    start(folder("a", {"alpha", "beta"}));
    take_events();
    on_event = [&](const auto& component, const auto& event) -> HRESULT {
        if (component == "beta" && event == "CreateInstance") return create(kAlpha);
        return 0;
    };
    EXPECT_EQ(create(kBeta), KC_OK);
    EXPECT_EQ(take_events(),
              (Strings{"beta DllGetClassObject", "beta CreateInstance", "alpha DllGetClassObject",
                       "alpha CreateInstance", "alpha Release", "beta Release"}));
}

TEST_F(Runtime, AComponentThatStartsMayMakeInstancesOfThoseBeforeIt) {
    KCSTATUS of_earlier = 1, of_itself = 1;
    on_event = [&](const auto& component, const auto& event) -> HRESULT {
        if (component == "beta" && event == "DllStart") {
            of_earlier = create(kAlpha);
            of_itself = create(kBeta);
        }
        return 0;
    };
    start(folder("a", {"alpha", "beta"}));
    EXPECT_EQ(of_earlier, KC_OK);
    EXPECT_EQ(of_itself, runtime_error(2));
}

TEST_F(Runtime, AComponentThatStopsGetsNoInstances) {
    KCSTATUS of_earlier = 1;
    start(folder("a", {"alpha", "beta"}));
    on_event = [&](const auto& component, const auto& event) -> HRESULT {
        if (component == "beta" && event == "DllStop") of_earlier = create(kAlpha);
        return 0;
    };
    LcmStop();
    EXPECT_EQ(of_earlier, runtime_error(1));
    expect_refusal(1, "LcmCreateInstance", "class A1FAA1FA", "not started");
}

TEST_F(Runtime, StartAndStopFromInsideAComponentAreRefused) {
    const fs::path a = folder("a", {"alpha"});
    on_event = [&](const auto&, const auto& event) -> HRESULT {
        if (event == "unloaded") return 0;
        EXPECT_EQ(start(a), runtime_error(0x1003)) << event;
        expect_refusal(0x1003, "LcmStart", "a start", "from inside a component");
        EXPECT_EQ(LcmStop(), runtime_error(0x1003)) << event;
        expect_refusal(0x1003, "LcmStop", "a stop", "from inside a component");
        return 0;
    };
    EXPECT_EQ(start(a), KC_OK);
    EXPECT_EQ(create(kAlpha), KC_OK);
    EXPECT_EQ(LcmStop(), KC_OK);
    EXPECT_EQ(take_events(),
              (Strings{"alpha DllStart", "alpha DllGetClassObject", "alpha CreateInstance",
                       "alpha Release", "alpha DllStop", "alpha unloaded"}));
}

TEST_F(Runtime, AThreadThatEndsInsideAComponentHoldsNothing) {
    start(folder("a", {"alpha"}));
    on_event = [](const auto&, const auto& event) -> HRESULT {
        if (event == "CreateInstance") pthread_exit(nullptr);
        return 0;
    };
    pthread_t thread;
    const auto body = +[](void*) -> void* {
        void* out = nullptr;
        LcmCreateInstance(&kAlpha, nullptr, &kInstance, &out);
        return &running;  // not reached
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    void* result = this;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(take_events().back(), "alpha Release");
    on_event = nullptr;
    EXPECT_EQ(LcmStop(), KC_OK);  // would wait for ever for a lock left behind
}

// Threads

TEST_F(Runtime, ThreadsMakeInstancesWhileComponentsAreAdded) {
    const fs::path a = folder("a", {"alpha"});
    const fs::path b = folder("b", {"beta"});
    start(a);
    std::atomic<int> alphas = 0, betas = 0;
    std::atomic<bool> added = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (bool last = false; !last;) {
                last = added;
                alphas += create(kAlpha) == KC_OK;
                const KCSTATUS status = create(kBeta);
                betas += status == KC_OK;
                if (last) {
                    EXPECT_EQ(status, KC_OK);
                }
            }
        });
    while (alphas < 100)
        std::this_thread::yield();
    EXPECT_EQ(start(b), KC_OK);
    added = true;
    for (auto& thread : threads)
        thread.join();
    EXPECT_GE(alphas, 100);
    EXPECT_GE(betas, 4);
}

TEST_F(Runtime, AStopWaitsForInstancesUnderWayAndRefusesLaterOnes) {
    const fs::path a = folder("a", {"alpha"});
    for (int round = 0; round < 10; ++round) {
        start(a);
        std::atomic<int> made = 0, refused = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                void* out = nullptr;
                while (LcmCreateInstance(&kAlpha, nullptr, &kInstance, &out) == KC_OK)
                    ++made;
                ++refused;
            });
        while (made < 50)
            std::this_thread::yield();
        EXPECT_EQ(LcmStop(), KC_OK);
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(refused, 4);
        const Strings events = take_events();
        ASSERT_GE(events.size(), 2u);
        EXPECT_EQ(events[events.size() - 2], "alpha DllStop");
        EXPECT_EQ(events.back(), "alpha unloaded");
    }
}

TEST_F(Runtime, StartsAndStopsOfSeveralThreadsWaitForOneAnother) {
    const fs::path a = folder("a", {"alpha"});
    std::atomic<int> inside = 0;
    on_event = [&](const auto&, const auto& event) -> HRESULT {
        if (event != "DllStart" && event != "DllStop") return 0;
        EXPECT_EQ(inside.fetch_add(1), 0);
        std::this_thread::yield();
        inside.fetch_sub(1);
        return 0;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                EXPECT_EQ(start(a), KC_OK);
                EXPECT_EQ(LcmStop(), KC_OK);
            }
        });
    for (auto& thread : threads)
        thread.join();
    const Strings events = take_events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "alpha DllStart"),
              std::count(events.begin(), events.end(), "alpha DllStop"));
}

// osal.so

bool osal_is_loaded() {
    void* handle = dlopen("osal.so", RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
}

TEST_F(Runtime, OsalIsReachedThroughTheRuntime) {
    EXPECT_FALSE(osal_is_loaded());
    ASSERT_EQ(LcmStart(nullptr), KC_OK);
    EXPECT_TRUE(osal_is_loaded());
    void* out = nullptr;
    ASSERT_EQ(LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &out), KC_OK);
    auto* osal = static_cast<PIOsal>(out);
    void* block = osal->lpVtbl->KxAllocPagedMemory(osal, 100);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(osal->lpVtbl->KxFreeMemory(osal, block), KC_OK);
    EXPECT_EQ(osal->lpVtbl->Release(osal), 0u);
    EXPECT_EQ(LcmStop(), KC_OK);
    EXPECT_FALSE(osal_is_loaded());
}

TEST_F(Runtime, OsalsRefusalOfAnAggregateAndOfAnInterfaceArePassedOn) {
    ASSERT_EQ(LcmStart(nullptr), KC_OK);
    void* out = this;
    EXPECT_EQ(LcmCreateInstance(&CLSID_OrvaneOsal, this, &IID_IOrvaneOsal_1, &out), 0xC7F10004u);
    EXPECT_EQ(out, nullptr);
    out = this;
    EXPECT_EQ(LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IUnknown, &out), 0xC7F10002u);
    EXPECT_EQ(out, nullptr);
    expect_no_refusal();
}

TEST_F(Runtime, OsalMayBeStartedAgainAfterAStop) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(LcmStart(nullptr), KC_OK);
        void* out = nullptr;
        ASSERT_EQ(LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &out), KC_OK);
        static_cast<PIOsal>(out)->lpVtbl->Release(static_cast<PIOsal>(out));
        ASSERT_EQ(LcmStop(), KC_OK);
    }
}

}  // namespace
}  // namespace osal_test
