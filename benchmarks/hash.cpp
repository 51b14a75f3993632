// String hashes against the published ELF hash written in place and the standard library's.
#include <string_view>

#include "harness.h"
#include "library.h"

namespace {

using bench::keep;

constexpr UINT32 kTableSize = 1009;

// Needs the same reading and about the same steps a byte.
__attribute__((noinline)) UINT32 elf_hash(const char* text, UINT32 table_size) {
    UINT32 hash = 0;
    for (; *text != 0; ++text) {
        hash = (hash << 4) + static_cast<unsigned char>(*text);
        const UINT32 top = hash & 0xF0000000u;
        if (top != 0) hash ^= top >> 24;
        hash &= ~top;
    }
    return hash % table_size;
}

void race(bench::Report& report, PIOsal osal, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i)
        text += static_cast<char>('a' + i * 7 % 26);
    std::vector<WCHAR> wide(text.begin(), text.end());
    wide.push_back(0);
    report.race("String hashes", std::to_string(length), static_cast<double>(length),
                {{"ELF hash",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(elf_hash(text.c_str(), kTableSize));
                  }},
                 {"KxStrHash",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(osal->lpVtbl->KxStrHash(osal, text.c_str(), kTableSize));
                  }},
                 {"KxStrHashW",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(osal->lpVtbl->KxStrHashW(osal, wide.data(), kTableSize));
                  }},
                 {"std::hash", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(std::hash<std::string_view>{}(text) % kTableSize);
                  }}});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"hash", "String hashes", "the hash of one string",
                          "KxStrHashW feeds two bytes for each character.", "characters"});
    bench::Library library;
    bench::Instance osal;
    for (std::size_t length : {4, 16, 64, 256, 1024})
        race(report, osal, length);
    return report.finish();
}
