// Upper-casing of wide text by the rules of the process locale.
#include <ctype.h>
#include <wctype.h>

#include "osal/conversion.h"
#include "osal/internal/status.h"

using namespace osal;

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "locale"};

// isalnum has an answer for bytes only; whatever lies above is a wide character's question.
bool is_alphanumeric(WCHAR unit) {
    return unit <= 0xFF ? isalnum(unit) != 0 : iswalnum(unit) != 0;
}

WCHAR upper(WCHAR unit) {
    if (!is_alphanumeric(unit)) return unit;
    const wint_t changed = towupper(unit);
    return changed <= 0xFFFF ? static_cast<WCHAR>(changed) : unit;
}

}  // namespace

KCSTATUS KxCharUpperBuff(PIOsal, UINT32 Length, PWCHAR pWideStr) {
    if (Length == 0 || pWideStr == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    for (UINT32 i = Length; i-- > 0;)
        pWideStr[i] = upper(pWideStr[i]);
    return KC_OK;
}
