// Memory and string primitives against those of the C library.
#include <cstring>
#include <cwchar>

#include "harness.h"
#include "library.h"

namespace {

using bench::keep;

// Both areas are equal, so everything is compared.
void compare(bench::Report& report, PIOsal osal, UINT32 size) {
    std::vector<char> a(size, 'x'), b(size, 'x');
    report.race("Comparing equal memory", bench::size_name(size), size,
                {{"memcmp",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          keep(a.data());
                          keep(std::memcmp(a.data(), b.data(), size));
                      }
                  }},
                 {"KxCompareMemory", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(osal->lpVtbl->KxCompareMemory(osal, a.data(), b.data(), size));
                  }}});
}

// The three read the same number of bytes: half as many 16-bit units, a quarter of wchar_t.
void length(bench::Report& report, PIOsal osal, UINT32 size) {
    std::vector<char> bytes(size + 4, 0);
    std::vector<WCHAR> units(size / sizeof(WCHAR) + 1, 0);
    std::vector<wchar_t> wide(size / sizeof(wchar_t) + 1, 0);
    std::fill(bytes.begin(), bytes.end() - 4, 'x');
    std::fill(units.begin(), units.end() - 1, 'x');
    std::fill(wide.begin(), wide.end() - 1, L'x');
    report.race("Length of a string", bench::size_name(size), size,
                {{"strlen",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          keep(bytes.data());
                          keep(std::strlen(bytes.data()));
                      }
                  }},
                 {"wcslen",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          keep(wide.data());
                          keep(std::wcslen(wide.data()));
                      }
                  }},
                 {"KxStrlen",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(osal->lpVtbl->KxStrlen(osal, bytes.data()));
                  }},
                 {"KxStrlenW", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(osal->lpVtbl->KxStrlenW(osal, units.data()));
                  }}});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"primitives", "Memory and string primitives", "one call", "", "bytes"});
    bench::Library library;
    bench::Instance osal;
    const UINT32 kSizes[] = {16, 256, 4096, 65'536, 1'048'576};
    for (UINT32 size : kSizes)
        compare(report, osal, size);
    for (UINT32 size : kSizes)
        length(report, osal, size);
    return report.finish();
}
