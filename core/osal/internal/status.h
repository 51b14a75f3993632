// Building of statuses: the only way in which this library reports a failure.
#pragma once

#include "host/kcstatus.h"
#include "osal/status.h"

namespace osal {

constexpr bool is_error(KCSTATUS status) {
    return KC_IS_ERROR(status);
}

// A module as its statuses name it. The tag is a constant of the module and part of the contract,
// which is why it is not __FILE__.
struct Module {
    UINT32 facility;
    const char* tag;

    // Builds and logs an error under the name of the calling function.
    KCSTATUS fail(UINT32 code, const char* function = __builtin_FUNCTION(),
                  UINT32 line = __builtin_LINE()) const {
        return KcStatusBuild_log(KC_SEVERITY_ERROR, facility, code, tag, line, function);
    }
};

// An error of the services that is returned as it is, without a log line.
constexpr KCSTATUS unlogged_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, code);
}

}  // namespace osal
