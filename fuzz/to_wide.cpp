// Bytes to units: the routines beside the plain steps, then the service with any capacity.
#include "osal/linux/internal/locale_literal.h"
#include "target.h"

namespace {

using fuzz::require;

void same_as_plain_steps(const char* page, BOOLEAN euro, const std::vector<CHAR>& in,
                         UINT32 capacity) {
    std::vector<WCHAR> mine(capacity, 0xEEEE);
    std::vector<WCHAR> plain(capacity, 0xEEEE);
    const auto length = static_cast<UINT32>(in.size());
    UINT32 my_count = capacity;
    UINT32 plain_count = capacity;
    int result = LocToUni(page, euro, in.data(), length, mine.data(), &my_count);
    require(result == osal::literal::loc_to_uni(page, euro, in.data(), length, plain.data(),
                                                &plain_count),
            "result of LocToUni");
    require(my_count == plain_count, "count of LocToUni");
    require(result != 0 || mine == plain, "output of LocToUni");
    my_count = plain_count = capacity;
    mine.assign(capacity, 0xEEEE);
    plain = mine;
    result = Utf8ToUni(in.data(), length, mine.data(), &my_count);
    require(result == osal::literal::utf8_to_uni(in.data(), length, plain.data(), &plain_count) &&
                my_count == plain_count && (result != 0 || mine == plain),
            "Utf8ToUni");
}

void service(UINT32 selector, const std::vector<CHAR>& in, UINT32 capacity) {
    if (in.empty()) return;
    const auto length = static_cast<INT32>(in.size());
    UINT32 needed = 0;
    const KCSTATUS query =
        KxMultiByteToWideChar(fuzz::instance(), selector, in.data(), length, nullptr, &needed);
    std::vector<WCHAR> out(capacity);
    UINT32 count = capacity;
    const KCSTATUS status =
        KxMultiByteToWideChar(fuzz::instance(), selector, in.data(), length, out.data(), &count);
    if (KC_IS_ERROR(query)) return require(KC_CODE(status) == KC_CODE(query), "status");
    if (capacity == 0) return;
    require(KC_IS_ERROR(status) == (needed - 1 > capacity), "whether it fitted");
    require(count == (needed - 1 > capacity ? capacity : needed - 1), "count");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const char* page = fuzz::choose_page(input.byte());
    const BOOLEAN euro = input.byte() & 1;
    const UINT32 selector = input.byte() % 8;
    const UINT32 capacity = input.byte();
    const std::vector<CHAR> in = input.rest<CHAR>();
    same_as_plain_steps(page, euro, in, capacity);
    same_as_plain_steps(page, euro, in, static_cast<UINT32>(in.size()));
    service(selector, in, capacity);
    return 0;
}
