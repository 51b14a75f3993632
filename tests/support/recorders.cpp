#include "support/recorders.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>

#include <string_view>

#include "osal/status.h"

namespace osal_test {
namespace {

StatusRecorder* current_statuses = nullptr;
LogRecorder* current_log = nullptr;

}  // namespace

StatusRecorder::StatusRecorder(const char* library) {
    current_statuses = this;
    hook_.emplace(library, "KcStatusBuild_log", &StatusRecorder::build);
}

StatusRecorder::~StatusRecorder() {
    hook_.reset();
    current_statuses = nullptr;
}

KCSTATUS StatusRecorder::build(UINT32 severity, UINT32 facility, UINT32 code, const char* file,
                               UINT32 line, const char* function) {
    std::lock_guard lock(current_statuses->mutex_);
    current_statuses->built_.push_back({severity, facility, code, file, line, function});
    return KC_MAKE_STATUS(severity, facility, code);
}

std::vector<BuiltStatus> StatusRecorder::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(built_, {});
}

void StatusRecorder::expect_one(UINT32 facility, UINT32 code, const char* file,
                                const char* function) {
    const auto built = take();
    ASSERT_EQ(built.size(), 1u) << "statuses built";
    EXPECT_EQ(built[0].severity, KC_SEVERITY_ERROR);
    EXPECT_EQ(built[0].facility, facility);
    EXPECT_EQ(built[0].code, code);
    EXPECT_EQ(built[0].file, file);
    EXPECT_EQ(built[0].function, function);
    EXPECT_NE(built[0].line, 0u);
}

void StatusRecorder::expect_none() {
    EXPECT_TRUE(take().empty()) << "a status was built";
}

LogRecorder::LogRecorder(const char* library) {
    current_log = this;
    syslog_.emplace(library, "syslog", &LogRecorder::log);
    // Only osal.so writes lines of its callers'.
    if (std::string_view(library) == "osal.so")
        vsyslog_.emplace(library, "vsyslog", &LogRecorder::vlog);
}

LogRecorder::~LogRecorder() {
    vsyslog_.reset();
    syslog_.reset();
    current_log = nullptr;
}

void LogRecorder::log(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vlog(priority, format, arguments);
    va_end(arguments);
}

void LogRecorder::vlog(int priority, const char* format, va_list arguments) {
    char text[1024];
    vsnprintf(text, sizeof text, format, arguments);
    std::lock_guard lock(current_log->mutex_);
    current_log->lines_.push_back({priority, text});
}

std::vector<LoggedLine> LogRecorder::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

}  // namespace osal_test
