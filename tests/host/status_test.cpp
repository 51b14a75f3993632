// The status library: statuses, names, and the line that goes out when one is built.
//
// The chosen output is read once for a process, so each choice is tested in a child of its own.
#include "host/kcstatus.h"

#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "support/interpose.h"

namespace osal_test {
namespace {

constexpr UINT32 kError = KC_SEVERITY_ERROR;

KCSTATUS build() {
    return KcStatusBuild_log(kError, KC_FACILITY_OSAL, 0x1001, "memory", 12, "KxFreeMemory");
}

constexpr char kLine[] =
    "osal error 0xC7F11001 (corrupt memory block or already initialised) at memory:12 in "
    "KxFreeMemory";

// --- packing and names

TEST(Status, IsPackedFromItsThreeFields) {
    EXPECT_EQ(build(), 0xC7F11001u);
    EXPECT_EQ(KcStatusBuild_log(3, 2042, 4, "object", 1, "f"), 0xC7FA0004u);
    EXPECT_EQ(KcStatusBuild_log(0, 0, 0, "f", 1, "f"), 0u);
    EXPECT_EQ(KcStatusBuild_log(3, 0x3FFF, 0xFFFF, "f", 1, "f"), 0xFFFFFFFFu);
}

TEST(Status, DropsBitsThatDoNotFitTheirField) {
    EXPECT_EQ(KcStatusBuild_log(4, 0, 0, "f", 1, "f"), 0u);
    EXPECT_EQ(KcStatusBuild_log(0, 0x4000, 0, "f", 1, "f"), 0u);
    EXPECT_EQ(KcStatusBuild_log(0, 0, 0x10000, "f", 1, "f"), 0u);
    EXPECT_EQ(KcStatusBuild_log(~0u, 0x40000 + 2033, 0xABC0005, "f", 1, "f"), 0xC7F10005u);
}

TEST(StatusName, SaysWhatEachCodeMeans) {
    const struct {
        UINT32 code;
        const char* text;
    } kNames[] = {{1, "general failure"},
                  {2, "unsupported class or interface"},
                  {3, "invalid handle or not found"},
                  {4, "invalid argument"},
                  {5, "out of memory or resources"},
                  {6, "access denied"},
                  {7, "buffer too small"},
                  {9, "no more entries"},
                  {10, "timed out"},
                  {11, "no matching object"},
                  {12, "stored data damaged"},
                  {4097, "corrupt memory block or already initialised"},
                  {4098, "lock not acquired"},
                  {4099, "object busy"},
                  {4100, "instance torn down during the call"}};
    for (const auto& [code, text] : kNames) {
        EXPECT_STREQ(KcStatusName(KC_MAKE_STATUS(kError, KC_FACILITY_OSAL, code)), text);
        EXPECT_STREQ(KcStatusName(code), text) << "whatever the severity";
    }
}

TEST(StatusName, OfSuccessAndOfTheUnknown) {
    EXPECT_STREQ(KcStatusName(KC_OK), "success");
    EXPECT_STREQ(KcStatusName(KC_MAKE_STATUS(kError, KC_FACILITY_OSAL, 0)), "unknown condition");
    for (UINT32 code : {8u, 4096u, 4101u, 0xFFFFu})
        EXPECT_STREQ(KcStatusName(KC_MAKE_STATUS(kError, KC_FACILITY_OSAL, code)),
                     "unknown condition");
}

TEST(FacilityName, SaysWhoBuiltAStatus) {
    EXPECT_STREQ(KcStatusFacilityName(0xC7F10001), "osal");
    EXPECT_STREQ(KcStatusFacilityName(0xC7F40001), "component runtime");
    EXPECT_STREQ(KcStatusFacilityName(0xC7FA0001), "object manager");
    EXPECT_STREQ(KcStatusFacilityName(KC_MAKE_STATUS(3, KC_FACILITY_REGISTRY, 1)), "registry");
    EXPECT_STREQ(KcStatusFacilityName(KC_MAKE_STATUS(3, KC_FACILITY_SECATTR, 1)),
                 "security attributes");
    EXPECT_STREQ(KcStatusFacilityName(0xC0000001), "facility");
}

// --- where the line goes

int log_pipe;

void stand_in_syslog(int priority, const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const int prefix = snprintf(text, sizeof text, "<%d>", priority);
    vsnprintf(text + prefix, sizeof text - static_cast<std::size_t>(prefix), format, arguments);
    va_end(arguments);
    dprintf(log_pipe, "%s\n", text);
}

struct Output {
    std::string log, error;
    bool operator==(const Output&) const = default;
};
void PrintTo(const Output& output, std::ostream* out) {
    *out << "log '" << output.log << "', standard error '" << output.error << "'";
}

std::string drain(int pipe) {
    std::string text;
    char part[512];
    for (ssize_t size; (size = read(pipe, part, sizeof part)) > 0;)
        text.append(part, static_cast<std::size_t>(size));
    close(pipe);
    return text;
}

// What a child writes that runs under a value of KCSTATUS_LOG, or without the variable.
Output output_of(const std::optional<std::string>& choice, const std::function<void()>& body) {
    int log[2], error[2];
    if (pipe(log) != 0 || pipe(error) != 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
        choice ? setenv("KCSTATUS_LOG", choice->c_str(), 1) : unsetenv("KCSTATUS_LOG");
        log_pipe = log[1];
        dup2(error[1], STDERR_FILENO);
        Interpose hook("libkcstatus.so", "syslog", &stand_in_syslog);
        body();
        _exit(testing::Test::HasFailure());
    }
    close(log[1]);
    close(error[1]);
    const Output output = {drain(log[0]), drain(error[0])};
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << output.error;
    return output;
}

std::string logged(int priority) {
    char line[sizeof kLine + 8];
    snprintf(line, sizeof line, "<%d>%s\n", LOG_USER | priority, kLine);
    return line;
}

TEST(StatusLine, GoesToTheSystemLogAtDebugUnlessChosenOtherwise) {
    EXPECT_EQ(output_of({}, build), (Output{logged(LOG_DEBUG), ""}));
    EXPECT_EQ(output_of("debug", build), (Output{logged(LOG_DEBUG), ""}));
}

TEST(StatusLine, GoesOutAtTheChosenPriority) {
    EXPECT_EQ(output_of("error", build), (Output{logged(LOG_ERR), ""}));
    EXPECT_EQ(output_of("warning", build), (Output{logged(LOG_WARNING), ""}));
    EXPECT_EQ(output_of("notice", build), (Output{logged(LOG_NOTICE), ""}));
    EXPECT_EQ(output_of("info", build), (Output{logged(LOG_INFO), ""}));
}

TEST(StatusLine, GoesToStandardErrorWhenChosen) {
    EXPECT_EQ(output_of("stderr", build), (Output{"", std::string(kLine) + "\n"}));
}

TEST(StatusLine, IsNotWrittenWhenOff) {
    EXPECT_EQ(output_of("off", build), (Output{"", ""}));
}

TEST(StatusLine, OfAnUnknownChoiceGoesOutAtDebug) {
    for (const char* choice : {"", "Error", "stderr ", "7"})
        EXPECT_EQ(output_of(choice, build), (Output{logged(LOG_DEBUG), ""})) << choice;
}

TEST(StatusLine, FollowsTheFirstReadingOfTheChoice) {
    const Output output = output_of("off", [] {
        build();
        setenv("KCSTATUS_LOG", "stderr", 1);
        build();
    });
    EXPECT_EQ(output, (Output{"", ""}));
}

TEST(StatusLine, HasAMarkForMissingTexts) {
    const auto body = [] { KcStatusBuild_log(kError, 1, 8, nullptr, 0, nullptr); };
    const std::string line = "facility error 0xC0010008 (unknown condition) at ?:0 in ?\n";
    EXPECT_EQ(output_of("stderr", body).error, line);
    EXPECT_EQ(output_of({}, body).log, std::string("<15>").append(line));
}

TEST(StatusLine, NamesTheSeverity) {
    const auto body = [] {
        for (UINT32 severity = 0; severity < 4; ++severity)
            KcStatusBuild_log(severity, KC_FACILITY_OSAL, 0, "f", 1, "g");
    };
    EXPECT_EQ(output_of("stderr", body).error,
              "osal success 0x07F10000 (success) at f:1 in g\n"
              "osal information 0x47F10000 (success) at f:1 in g\n"
              "osal warning 0x87F10000 (success) at f:1 in g\n"
              "osal error 0xC7F10000 (unknown condition) at f:1 in g\n");
}

TEST(StatusLine, CutsLongTextsAtTheir200thByte) {
    static const std::string text(5000, 'x');
    const auto body = [] {
        KcStatusBuild_log(kError, KC_FACILITY_OBJECT, 4097, text.c_str(), ~0u, text.c_str());
    };
    const std::string cut(200, 'x');
    const std::string line =
        "object manager error 0xC7FA1001 (corrupt memory block or already initialised) at " + cut +
        ":4294967295 in " + cut + "\n";
    EXPECT_EQ(output_of("stderr", body).error, line);
    EXPECT_EQ(output_of({}, body).log, std::string("<15>").append(line));
}

TEST(StatusLine, OfSeveralThreadsStaysWhole) {
    const Output output = output_of("stderr", [] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([] {
                for (int round = 0; round < 50; ++round)
                    build();
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    std::string expected;
    for (int i = 0; i < 200; ++i)
        expected.append(kLine).append("\n");
    EXPECT_EQ(output.error, expected);
}

// --- what the caller keeps

void disturbing_syslog(int, const char*, ...) {
    pthread_testcancel();
    errno = EPIPE;
}

TEST(StatusCaller, KeepsErrno) {
    Interpose hook("libkcstatus.so", "syslog", &disturbing_syslog);
    unsetenv("KCSTATUS_LOG");
    errno = ENOENT;
    build();
    EXPECT_EQ(errno, ENOENT);
}

TEST(StatusCaller, KeepsErrnoWhenStandardErrorIsClosed) {
    output_of("stderr", [] {
        close(STDERR_FILENO);
        errno = ENOENT;
        EXPECT_EQ(build(), 0xC7F11001u);
        EXPECT_EQ(errno, ENOENT);
    });
}

TEST(StatusCaller, KeepsItsCancellationState) {
    for (const char* choice : {"debug", "stderr", "off"})
        output_of(choice, [] {
            for (int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
                int before = -1;
                pthread_setcancelstate(state, nullptr);
                build();
                pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
                EXPECT_EQ(before, state);
            }
        });
}

bool went_past;

TEST(StatusCaller, IsNotCancelledInside) {
    Interpose hook("libkcstatus.so", "syslog", &disturbing_syslog);
    unsetenv("KCSTATUS_LOG");
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        +[](void*) -> void* {
            pthread_cancel(pthread_self());
            build();
            went_past = true;
            pthread_testcancel();
            return nullptr;
        },
        nullptr);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_TRUE(went_past);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(StatusCaller, CostsNoMemory) {
    for (const char* choice : {"debug", "stderr"})
        output_of(choice, [] {
            build();
            const auto before = mallinfo2();
            for (int i = 0; i < 100; ++i)
                build();
            const auto after = mallinfo2();
            EXPECT_EQ(after.uordblks, before.uordblks);
        });
}

}  // namespace
}  // namespace osal_test
