// The status library: packs statuses, logs where they arose, and names them.
//
// No state but the chosen output, read once from the environment. Nothing allocates.
#include "host/kcstatus.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>

namespace {

struct Name {
    UINT32 number;
    const char* text;
};

constexpr Name kCodes[] = {
    {KC_CODE_FAILED, "general failure"},
    {KC_CODE_UNSUPPORTED, "unsupported class or interface"},
    {KC_CODE_INVALID_HANDLE, "invalid handle or not found"},
    {KC_CODE_INVALID_ARGUMENT, "invalid argument"},
    {KC_CODE_NO_RESOURCES, "out of memory or resources"},
    {KC_CODE_ACCESS_DENIED, "access denied"},
    {KC_CODE_BUFFER_TOO_SMALL, "buffer too small"},
    {KC_CODE_NO_MORE_ENTRIES, "no more entries"},
    {KC_CODE_TIMED_OUT, "timed out"},
    {KC_CODE_NO_MATCH, "no matching object"},
    {KC_CODE_DAMAGED, "stored data damaged"},
    {KC_CODE_CORRUPT, "corrupt memory block or already initialised"},
    {KC_CODE_LOCK_NOT_ACQUIRED, "lock not acquired"},
    {KC_CODE_BUSY, "object busy"},
    {KC_CODE_TORN_DOWN, "instance torn down during the call"},
};

constexpr Name kFacilities[] = {
    {KC_FACILITY_OSAL, "osal"},
    {KC_FACILITY_RUNTIME, "component runtime"},
    {KC_FACILITY_REGISTRY, "registry"},
    {KC_FACILITY_SECATTR, "security attributes"},
    {KC_FACILITY_OBJECT, "object manager"},
};

constexpr const char* kSeverities[] = {"success", "information", "warning", "error"};

template <std::size_t N>
const char* text_of(const Name (&names)[N], UINT32 number, const char* otherwise) {
    for (const Name& name : names)
        if (name.number == number) return name.text;
    return otherwise;
}

// Where lines go: a syslog priority, or one of these.
constexpr int kNotChosen = -1;
constexpr int kStandardError = -2;
constexpr int kNowhere = -3;

struct Output {
    const char* name;
    int value;
};
constexpr Output kOutputs[] = {
    {"error", LOG_ERR},   {"warning", LOG_WARNING},   {"notice", LOG_NOTICE}, {"info", LOG_INFO},
    {"debug", LOG_DEBUG}, {"stderr", kStandardError}, {"off", kNowhere},
};

constinit std::atomic<int> chosen_output{kNotChosen};

int choose_output() {
    int value = LOG_DEBUG;
    if (const char* wanted = secure_getenv("KCSTATUS_LOG"))
        for (const Output& output : kOutputs)
            if (strcmp(wanted, output.name) == 0) value = output.value;
    chosen_output.store(value, std::memory_order_relaxed);
    return value;
}

int output() {
    const int value = chosen_output.load(std::memory_order_relaxed);
    return value != kNotChosen ? value : choose_output();
}

// Bounded, so that neither this library nor syslog needs memory for a line.
#define LINE_FORMAT "%s %s 0x%08X (%s) at %.200s:%u in %.200s"
constexpr std::size_t kLineSize = 600;

// One write, so that lines of several threads do not mix. A failed one has nobody to tell.
void write_to_stderr(char* text, int length) {
    text[length] = '\n';
    if (write(STDERR_FILENO, text, static_cast<std::size_t>(length) + 1) < 0) return;
}

void write_line(int where, KCSTATUS status, const char* file, UINT32 line, const char* function) {
    const char* facility = KcStatusFacilityName(status);
    const char* severity = kSeverities[KC_SEVERITY(status)];
    const char* name = KcStatusName(status);
    if (where != kStandardError)
        return syslog(LOG_USER | where, LINE_FORMAT, facility, severity, status, name, file, line,
                      function);
    char text[kLineSize];
    const int length = snprintf(text, sizeof text, LINE_FORMAT, facility, severity, status, name,
                                file, line, function);
    if (length > 0) write_to_stderr(text, length);
}

}  // namespace

KCSTATUS KcStatusBuild_log(UINT32 severity, UINT32 facility, UINT32 code, const char* file,
                           UINT32 line, const char* function) {
    const KCSTATUS status = KC_MAKE_STATUS(severity, facility, code);
    const int where = output();
    if (where == kNowhere) return status;
    // Not a scoped guard: the second call may end a thread of asynchronous cancellation type, which
    // must not happen inside a destructor.
    const int caller_errno = errno;
    int caller_state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &caller_state);
    write_line(where, status, file != nullptr ? file : "?", line,
               function != nullptr ? function : "?");
    errno = caller_errno;
    pthread_setcancelstate(caller_state, nullptr);
    return status;
}

const char* KcStatusName(KCSTATUS status) {
    if (KC_CODE(status) == 0) return KC_IS_ERROR(status) ? "unknown condition" : "success";
    return text_of(kCodes, KC_CODE(status), "unknown condition");
}

const char* KcStatusFacilityName(KCSTATUS status) {
    return text_of(kFacilities, KC_FACILITY(status), "facility");
}
