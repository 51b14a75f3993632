// Numbers to wide text and back, and numbers read from any text.
#include "target.h"

namespace {

using fuzz::require;

void there_and_back(PIOsal osal, fuzz::Input& input) {
    constexpr UINT32 kBases[] = {8, 10, 16};
    const UINT32 value = input.number();
    const UINT32 base = kBases[input.byte() % 3];
    std::vector<WCHAR> buffer(input.byte() % 16);
    const auto capacity = static_cast<UINT16>(buffer.size() * sizeof(WCHAR));
    UNICODE_STRING text = {0, capacity, buffer.data()};
    const KCSTATUS status = KxIntegerToUnicodeString(osal, value, base, &text);
    if (capacity == 0 || KC_IS_ERROR(status)) return;
    UINT32 again = ~value;
    require(KxUnicodeStringToInteger(osal, &text, base, &again) == KC_OK, "read back");
    require(again == value, "value");
}

void any_text(PIOsal osal, fuzz::Input& input) {
    const UINT32 base = input.byte();
    std::vector<WCHAR> units = input.rest<WCHAR>();
    const auto size = static_cast<UINT16>(units.size() * sizeof(WCHAR));
    const UNICODE_STRING text = {size, size, units.data()};
    UINT32 value = 0;
    const KCSTATUS status = KxUnicodeStringToInteger(osal, &text, base, &value);
    require(size != 0 || KC_CODE(status) == KC_CODE_INVALID_ARGUMENT, "empty text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    fuzz::choose_page(input.byte());
    there_and_back(fuzz::instance(), input);
    any_text(fuzz::instance(), input);
    return 0;
}
