// Counted strings in buffers of just their size, with any lengths, odd and missing ones too.
#include <algorithm>

#include "target.h"

namespace {

using fuzz::require;

// A string over a heap block of its capacity. The length may fall short of it, not exceed it.
template <class String, class Unit>
struct Owned {
    explicit Owned(fuzz::Input& input) {
        const UINT16 capacity = input.word() % 300;
        const bool is_missing = input.byte() % 16 == 0;
        buffer.resize(capacity / sizeof(Unit) + 1);
        const std::vector<Unit> text = input.units<Unit>(capacity / sizeof(Unit));
        std::copy(text.begin(), text.end(), buffer.begin());
        string.MaximumLength = capacity;
        string.Length = static_cast<UINT16>(capacity == 0 ? 0 : input.word() % (capacity + 1));
        string.Buffer = is_missing ? nullptr : buffer.data();
    }
    std::vector<Unit> buffer;
    String string;
};
using Narrow = Owned<STRING, CHAR>;
using WideText = Owned<UNICODE_STRING, WCHAR>;

int sign(INT32 order) {
    return (order > 0) - (order < 0);
}

void narrow(PIOsal osal, fuzz::Input& input) {
    Narrow a(input);
    Narrow b(input);
    const BOOLEAN ignore_case = input.byte() & 1;
    const INT32 order = KxCompareString(osal, &a.string, &b.string, ignore_case);
    require(sign(order) == -sign(KxCompareString(osal, &b.string, &a.string, ignore_case)),
            "order of narrow strings");
    require(KxEqualString(osal, &a.string, &b.string, ignore_case) ==
                (order == 0 && a.string.Length == b.string.Length),
            "equality of narrow strings");
    KxCopyString(osal, &a.string, &b.string);
    require(a.string.Length == std::min(a.string.MaximumLength, b.string.Length), "copied length");
}

void wide(PIOsal osal, fuzz::Input& input) {
    WideText a(input);
    WideText b(input);
    const BOOLEAN ignore_case = input.byte() & 1;
    const INT32 order = KxCompareUnicodeString(osal, &a.string, &b.string, ignore_case);
    require(sign(order) == -sign(KxCompareUnicodeString(osal, &b.string, &a.string, ignore_case)),
            "order of wide strings");
    require(KxEqualUnicodeString(osal, &a.string, &b.string, ignore_case) ==
                (order == 0 && a.string.Length == b.string.Length),
            "equality of wide strings");
    const UINT32 sum = UINT32{a.string.Length} + b.string.Length;
    const KCSTATUS status = KxAppendUnicodeStringToString(osal, &a.string, &b.string);
    require(KC_IS_ERROR(status) == (sum > a.string.MaximumLength && b.string.Length > 0),
            "whether it fitted");
    require(KC_IS_ERROR(status) || a.string.Length == sum, "appended length");
    KxAppendUnicodeStringToString(osal, &a.string, &a.string);
    KxCopyUnicodeString(osal, &b.string, &a.string);
    require(b.string.Length == std::min(b.string.MaximumLength, a.string.Length), "copied length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    fuzz::choose_page(0);
    narrow(fuzz::instance(), input);
    wide(fuzz::instance(), input);
    return 0;
}
