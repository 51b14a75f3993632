// How the runtime refuses: a status for the caller, a line in the system log for the operator.
#pragma once

#include "osal/status.h"
#include "osal/types.h"

namespace lcm {

constexpr bool is_error(KCSTATUS status) {
    return KC_IS_ERROR(status);
}

// Logs "subject: why".
void log_refusal(const char* subject, const char* why);

// An exported function, under whose name statuses are built wherever the refusal arises.
struct Call {
    const char* function;

    // Logs the refusal and builds its status.
    KCSTATUS refuse(UINT32 code, const char* subject, const char* why,
                    UINT32 line = __builtin_LINE()) const;
};

constexpr Call kStart{"LcmStart"};
constexpr Call kStop{"LcmStop"};
constexpr Call kCreate{"LcmCreateInstance"};

}  // namespace lcm
