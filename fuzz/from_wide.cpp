// Units to bytes: the routines beside the plain steps, then the service with any capacity; and what
// the service wrote is read back. Upper-casing, unit by unit and as a whole.
#include "osal/linux/internal/locale_literal.h"
#include "target.h"

namespace {

using fuzz::require;

void same_as_plain_steps(const char* page, const std::vector<WCHAR>& in, UINT32 capacity) {
    std::vector<CHAR> mine(capacity, '-');
    std::vector<CHAR> plain = mine;
    const auto length = static_cast<UINT32>(in.size());
    UINT32 my_count = capacity;
    UINT32 plain_count = capacity;
    int result = UniToLoc(page, in.data(), length, mine.data(), &my_count);
    require(
        result == osal::literal::uni_to_loc(page, in.data(), length, plain.data(), &plain_count),
        "result of UniToLoc");
    require(my_count == plain_count, "count of UniToLoc");
    require(result != 0 || mine == plain, "output of UniToLoc");
    my_count = plain_count = capacity;
    mine.assign(capacity, '-');
    plain = mine;
    result = UniToUtf8(in.data(), length, mine.data(), &my_count);
    require(result == osal::literal::uni_to_utf8(in.data(), length, plain.data(), &plain_count) &&
                my_count == plain_count && (result != 0 || mine == plain),
            "UniToUtf8");
}

void service(UINT32 selector, const std::vector<WCHAR>& in, UINT32 capacity) {
    if (in.empty()) return;
    const auto length = static_cast<INT32>(in.size());
    UINT32 needed = 0;
    const KCSTATUS query =
        KxWideCharToMultiByte(fuzz::instance(), selector, in.data(), length, nullptr, &needed);
    std::vector<CHAR> out(capacity);
    UINT32 count = capacity;
    const KCSTATUS status =
        KxWideCharToMultiByte(fuzz::instance(), selector, in.data(), length, out.data(), &count);
    if (KC_IS_ERROR(query)) return require(KC_CODE(status) == KC_CODE(query), "status");
    if (capacity == 0) return;
    require(KC_IS_ERROR(status) == (needed - 1 > capacity), "whether it fitted");
    require(count == (needed - 1 > capacity ? capacity : needed - 1), "count");
}

void upper_case(std::vector<WCHAR> text) {
    if (text.empty()) return;
    std::vector<WCHAR> each = text;
    for (WCHAR& unit : each)
        KxCharUpperBuff(fuzz::instance(), 1, &unit);
    while (text.size() < 256)
        text.insert(text.end(), text.begin(), text.end());
    KxCharUpperBuff(fuzz::instance(), static_cast<UINT32>(text.size()), text.data());
    for (std::size_t i = 0; i < text.size(); ++i)
        require(text[i] == each[i % each.size()], "KxCharUpperBuff");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const char* page = fuzz::choose_page(input.byte());
    const UINT32 selector = input.byte() % 8;
    const UINT32 capacity = input.word() % 1024;
    const std::vector<WCHAR> in = input.rest<WCHAR>();
    same_as_plain_steps(page, in, capacity);
    same_as_plain_steps(page, in, static_cast<UINT32>(in.size() + 1));
    service(selector, in, capacity);
    upper_case(in);
    return 0;
}
