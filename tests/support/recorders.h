// Recorders of what osal.so, or another library, says to the outside: statuses it builds, and lines
// it logs.
//
// One object of a kind at a time. Both are thread safe; both pass the statuses on.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "osal/types.h"
#include "support/interpose.h"

namespace osal_test {

struct BuiltStatus {
    UINT32 severity;
    UINT32 facility;
    UINT32 code;
    std::string file;
    UINT32 line;
    std::string function;
};

// Stands in for the status library.
class StatusRecorder {
  public:
    explicit StatusRecorder(const char* library = "osal.so");
    ~StatusRecorder();

    // What was built since the last call, in order.
    std::vector<BuiltStatus> take();

    // Takes, and fails the test unless exactly one status was built: an error of the facility with
    // this code, tag and function name.
    void expect_one(UINT32 facility, UINT32 code, const char* file, const char* function);
    // The same for the services' facility, 2033.
    void expect_one(UINT32 code, const char* file, const char* function) {
        expect_one(2033, code, file, function);
    }
    void expect_none();

  private:
    static KCSTATUS build(UINT32 severity, UINT32 facility, UINT32 code, const char* file,
                          UINT32 line, const char* function);
    std::mutex mutex_;
    std::vector<BuiltStatus> built_;
    std::optional<Interpose> hook_;
};

struct LoggedLine {
    int priority;
    std::string text;  // formatted
};

// Stands in for syslog and vsyslog; nothing reaches the system log meanwhile.
class LogRecorder {
  public:
    explicit LogRecorder(const char* library = "osal.so");
    ~LogRecorder();
    std::vector<LoggedLine> take();

  private:
    static void log(int priority, const char* format, ...);
    static void vlog(int priority, const char* format, va_list arguments);
    std::mutex mutex_;
    std::vector<LoggedLine> lines_;
    std::optional<Interpose> syslog_;
    std::optional<Interpose> vsyslog_;
};

}  // namespace osal_test
