// Statuses of the registry library.
#pragma once

#include "osal/status.h"

namespace tsreg {

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, code);
}

constexpr KCSTATUS kNotFound = error(KC_CODE_INVALID_HANDLE);
constexpr KCSTATUS kBadHandle = error(KC_CODE_INVALID_HANDLE);
constexpr KCSTATUS kBadArgument = error(KC_CODE_INVALID_ARGUMENT);
constexpr KCSTATUS kNoMemory = error(KC_CODE_NO_RESOURCES);
constexpr KCSTATUS kDenied = error(KC_CODE_ACCESS_DENIED);
constexpr KCSTATUS kTooSmall = error(KC_CODE_BUFFER_TOO_SMALL);
constexpr KCSTATUS kNoMore = error(KC_CODE_NO_MORE_ENTRIES);
constexpr KCSTATUS kHasSubKeys = error(KC_CODE_BUSY);
constexpr KCSTATUS kLost = error(KC_CODE_FAILED);

}  // namespace tsreg
