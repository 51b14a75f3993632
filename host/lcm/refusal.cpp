#include "refusal.h"

#include <syslog.h>

#include "host/kcstatus.h"

namespace lcm {

void log_refusal(const char* subject, const char* why) {
    syslog(LOG_USER | LOG_ERR, "component runtime refuses %s: %s", subject, why);
}

KCSTATUS Call::refuse(UINT32 code, const char* subject, const char* why, UINT32 line) const {
    log_refusal(subject, why);
    return KcStatusBuild_log(KC_SEVERITY_ERROR, KC_FACILITY_RUNTIME, code, "lcm", line, function);
}

}  // namespace lcm
