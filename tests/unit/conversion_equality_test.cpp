// The library's conversions beside the plain steps, one iconv call a character: results, counts and
// output must be equal for every input, whatever way the library takes.
//
// Runs once per code page, named by the environment variable OSAL_TEST_PAGE. Random inputs:
// OSAL_TEST_ROUNDS, with the seed OSAL_TEST_SEED, which a failure prints. OSAL_TEST_TEXT names a
// file of UTF-8, compressed or not, for the test of a whole text.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>

#include "osal/linux/internal/converter.h"
#include "osal/linux/internal/locale_literal.h"
#include "support/code_page.h"
#include "support/recorders.h"

namespace osal_test {
namespace {

const char* from_environment(const char* name, const char* otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

std::string hex(const std::string& bytes) {
    std::ostringstream out;
    for (unsigned char byte : bytes)
        out << std::hex << unsigned{byte} << ' ';
    return out.str();
}
std::string hex(const Wide& units) {
    std::ostringstream out;
    for (WCHAR unit : units)
        out << std::hex << unit << ' ';
    return out.str();
}

// The text of a file, which gzip passes on as it is if it is not compressed.
std::string read_text(const std::string& path) {
    std::string text;
    FILE* pipe = popen(("gzip -dcf '" + path + "'").c_str(), "r");
    if (pipe == nullptr) return text;
    char part[4096];
    while (const std::size_t size = fread(part, 1, sizeof part, pipe))
        text.append(part, size);
    pclose(pipe);
    return text;
}

// UTF-8 in another charset by one call of iconv, which writes what a page lacks in other letters.
std::string in_charset(const std::string& charset, std::string text) {
    std::string result(text.size() * 8 + 16, 0);
    char* in = text.data();
    char* out = result.data();
    std::size_t left = text.size();
    std::size_t room = result.size();
    iconv_t converter = iconv_open((charset + "//TRANSLIT").c_str(), "UTF-8");
    EXPECT_NE(iconv(converter, &in, &left, &out, &room), std::size_t(-1)) << charset;
    iconv_close(converter);
    result.resize(result.size() - room);
    return result;
}

Wide units_of(const std::string& text) {
    const std::string bytes = in_charset("UTF-16LE", text);
    Wide units(bytes.size() / sizeof(WCHAR));
    std::memcpy(units.data(), bytes.data(), bytes.size());
    return units;
}

// What a routine gave: the output is compared as far as the count says, and behind the count
// nothing may have changed.
template <class Text>
struct Answer {
    int result;
    UINT32 count;
    Text output;
    bool operator==(const Answer&) const = default;
};

constexpr std::size_t kMargin = 4;

template <class Text, class Routine>
Answer<Text> ask(UINT32 capacity, Routine routine) {
    using Unit = typename Text::value_type;
    Text output(capacity + kMargin, static_cast<Unit>(0xEE));
    Answer<Text> answer = {0, capacity, {}};
    answer.result = routine(output.data(), &answer.count);
    const auto first = output.begin() + static_cast<std::ptrdiff_t>(capacity);
    EXPECT_TRUE(std::all_of(first, output.end(), [](Unit unit) {
        return unit == static_cast<Unit>(0xEE);
    })) << "written beyond the capacity";
    // Of a success everything counts, the part behind the result too.
    if (answer.result == 0) answer.output = output;
    return answer;
}

class ConversionEquality : public testing::Test {
  protected:
    ConversionEquality()
        : page(from_environment("OSAL_TEST_PAGE", "850")),
          seed(static_cast<unsigned>(std::atol(from_environment("OSAL_TEST_SEED", "1")))),
          random(seed) {
        setenv("TESSEL_CODE_PAGE", page, 1);
        DllStart();
        osal = new_instance();
    }
    ~ConversionEquality() override {
        osal->lpVtbl->Release(osal);
        DllStop();
    }

    void compare_to_wide(const std::string& in, UINT32 capacity, BOOLEAN euro) {
        const auto length = static_cast<UINT32>(in.size());
        const auto mine = ask<Wide>(capacity, [&](WCHAR* out, UINT32* count) {
            return LocToUni(g_pOemCodePage, euro, in.data(), length, out, count);
        });
        const auto plain = ask<Wide>(capacity, [&](WCHAR* out, UINT32* count) {
            return osal::literal::loc_to_uni(page, euro, in.data(), length, out, count);
        });
        ASSERT_EQ(mine, plain) << page << " seed " << seed << " capacity " << capacity << " euro "
                               << int{euro} << " bytes " << hex(in);
    }
    void compare_utf8_to_wide(const std::string& in, UINT32 capacity) {
        const auto length = static_cast<UINT32>(in.size());
        const auto mine = ask<Wide>(capacity, [&](WCHAR* out, UINT32* count) {
            return Utf8ToUni(in.data(), length, out, count);
        });
        const auto plain = ask<Wide>(capacity, [&](WCHAR* out, UINT32* count) {
            return osal::literal::utf8_to_uni(in.data(), length, out, count);
        });
        ASSERT_EQ(mine, plain) << "seed " << seed << " capacity " << capacity << " UTF-8 "
                               << hex(in);
    }
    void compare_from_wide(const Wide& in, UINT32 capacity) {
        const auto length = static_cast<UINT32>(in.size());
        const auto mine = ask<std::string>(capacity, [&](char* out, UINT32* count) {
            return UniToLoc(g_pOemCodePage, in.data(), length, out, count);
        });
        const auto plain = ask<std::string>(capacity, [&](char* out, UINT32* count) {
            return osal::literal::uni_to_loc(page, in.data(), length, out, count);
        });
        ASSERT_EQ(mine, plain) << page << " seed " << seed << " capacity " << capacity << " units "
                               << hex(in);
    }
    void compare_wide_to_utf8(const Wide& in, UINT32 capacity) {
        const auto length = static_cast<UINT32>(in.size());
        const auto mine = ask<std::string>(capacity, [&](char* out, UINT32* count) {
            return UniToUtf8(in.data(), length, out, count);
        });
        const auto plain = ask<std::string>(capacity, [&](char* out, UINT32* count) {
            return osal::literal::uni_to_utf8(in.data(), length, out, count);
        });
        ASSERT_EQ(mine, plain) << "seed " << seed << " capacity " << capacity << " units "
                               << hex(in);
    }

    UINT32 below(std::size_t limit) {
        return static_cast<UINT32>(
            std::uniform_int_distribution<std::size_t>(0, limit - 1)(random));
    }

    // Plenty, or about the size of the result, which is found by asking.
    template <class Compare>
    void at_capacities(std::size_t plenty, std::size_t exact, Compare compare) {
        compare(static_cast<UINT32>(plenty));
        const std::size_t near = exact + below(5);
        compare(static_cast<UINT32>(near < 2 ? 0 : near - 2));
        if (below(8) == 0) compare(below(exact + 2));
    }

    WCHAR random_unit();
    Wide random_units();
    std::string random_bytes();
    std::string bytes_of(const Wide& units);
    std::string utf8_of(const Wide& units);
    void compare_all(const std::string& bytes);
    void compare_all(const Wide& units);
    template <class Text>
    void compare_by_lines(const Text& text);
    void expect_convertible(const std::string& text);

    const char* const page;
    const unsigned seed;
    std::mt19937 random;
    PIOsal osal;
};

// Units by kind, so that each branch of every way is met.
WCHAR ConversionEquality::random_unit() {
    constexpr WCHAR kNotable[] = {0,      '/',    ':',    '\\',   '[',    ']',    '~',    0x5C,
                                  0xA5,   0x203E, 0x20AC, 0xFEFF, 0xFFFE, 0xFFFF, 0xD800, 0xDFFF,
                                  0x00CC, 0x007F, 0x0080, 0x07FF, 0x0800, 0x001B, 0x000E, '+'};
    switch (below(8)) {
        case 0:
            return kNotable[below(std::size(kNotable))];
        case 1:
            return static_cast<WCHAR>(0xA0 + below(0x60));
        case 2:
            return static_cast<WCHAR>(0x400 + below(0x60));
        case 3:
            return static_cast<WCHAR>(0x3040 + below(0xC0));
        case 4:
            return static_cast<WCHAR>(0x4E00 + below(0x5200));
        case 5:
            return static_cast<WCHAR>(0xAC00 + below(0x2BA0));
        case 6:
            return static_cast<WCHAR>(below(0x10000));
        default:
            return static_cast<WCHAR>(' ' + below(0x5F));
    }
}

Wide ConversionEquality::random_units() {
    Wide units;
    for (UINT32 parts = below(4) + 1; parts > 0; --parts) {
        const bool is_plain = below(2) == 0;
        for (UINT32 length = below(is_plain ? 40 : 12); length > 0; --length)
            units.push_back(is_plain ? static_cast<WCHAR>(' ' + below(0x5F)) : random_unit());
    }
    return units;
}

std::string ConversionEquality::bytes_of(const Wide& units) {
    std::string bytes(units.size() * 12 + 1, 0);
    auto count = static_cast<UINT32>(bytes.size());
    osal::literal::uni_to_loc(page, units.data(), static_cast<UINT32>(units.size()), bytes.data(),
                              &count);
    bytes.resize(count);
    return bytes;
}

std::string ConversionEquality::utf8_of(const Wide& units) {
    std::string bytes;
    for (WCHAR unit : units) {
        char one[8];
        UINT32 count = sizeof one;
        if (osal::literal::uni_to_utf8(&unit, 1, one, &count) == 0) bytes.append(one, count);
    }
    return bytes;
}

// Text of the page with some of it damaged, or noise.
std::string ConversionEquality::random_bytes() {
    std::string bytes;
    if (below(4) != 0) bytes = below(2) == 0 ? bytes_of(random_units()) : utf8_of(random_units());
    if (below(3) == 0) return bytes;
    for (UINT32 i = below(4); i > 0; --i) {
        constexpr char kNotable[] = "/:\\[]\xCC~\x1B\x0E\x0F\xFF\xC0\xE0\xF0\x8E\x8F+";
        const char byte =
            below(2) == 0 ? kNotable[below(sizeof kNotable)] : static_cast<char>(below(256));
        bytes.insert(bytes.begin() + below(bytes.size() + 1), byte);
    }
    if (below(4) == 0) bytes.insert(below(bytes.size() + 1), below(2) == 0 ? "[20Ab]" : "[ z-!]");
    return bytes;
}

void ConversionEquality::compare_all(const std::string& bytes) {
    std::vector<WCHAR> out(bytes.size() + 1);
    auto count = static_cast<UINT32>(out.size());
    const auto length = static_cast<UINT32>(bytes.size());
    const BOOLEAN euro = below(2) == 0;
    osal::literal::loc_to_uni(page, euro, bytes.data(), length, out.data(), &count);
    at_capacities(bytes.size() + 1, count,
                  [&](UINT32 capacity) { compare_to_wide(bytes, capacity, euro); });
    count = static_cast<UINT32>(out.size());
    osal::literal::utf8_to_uni(bytes.data(), length, out.data(), &count);
    at_capacities(bytes.size() + 1, count,
                  [&](UINT32 capacity) { compare_utf8_to_wide(bytes, capacity); });
}

void ConversionEquality::compare_all(const Wide& units) {
    at_capacities(units.size() * 12 + 1, bytes_of(units).size(),
                  [&](UINT32 capacity) { compare_from_wide(units, capacity); });
    at_capacities(units.size() * 12 + 1, utf8_of(units).size(),
                  [&](UINT32 capacity) { compare_wide_to_utf8(units, capacity); });
}

// The whole text, then each line.
template <class Text>
void ConversionEquality::compare_by_lines(const Text& text) {
    compare_all(text);
    for (auto line = text.begin(); line != text.end() && !HasFatalFailure();) {
        const auto end = std::find(line, text.end(), '\n');
        compare_all(Text(line, end));
        line = end == text.end() ? end : end + 1;
    }
}

// So that the comparison of a text does not end at its first characters.
void ConversionEquality::expect_convertible(const std::string& text) {
    const Wide units = units_of(text);
    EXPECT_EQ(utf8_of(units), text);
    EXPECT_GE(bytes_of(units).size(), units.size());
    if (std::strcmp(page, "UTF-7") == 0) return;  // in which a plus sign is no character
    const std::string bytes = in_charset(page, text);
    std::vector<WCHAR> out(bytes.size() + 1);
    auto count = static_cast<UINT32>(out.size());
    EXPECT_EQ(LocToUni(g_pOemCodePage, TRUE, bytes.data(), static_cast<UINT32>(bytes.size()),
                       out.data(), &count),
              0);
}

TEST_F(ConversionEquality, OfRandomText) {
    LogRecorder log;
    const long rounds = std::atol(from_environment("OSAL_TEST_ROUNDS", "2000"));
    for (long round = 0; round < rounds && !HasFatalFailure(); ++round) {
        compare_all(random_bytes());
        compare_all(random_units());
    }
}

// Whole, and line by line: each line begins at another offset into the runs of the whole.
TEST_F(ConversionEquality, OfAWholeText) {
    const char* path = from_environment("OSAL_TEST_TEXT", "/usr/share/common-licenses/GPL-3");
    if (access(path, R_OK) != 0) GTEST_SKIP() << "there is no " << path << " on this machine";
    const std::string text = read_text(path);
    ASSERT_GT(text.size(), 10'000u) << path;
    expect_convertible(text);
    compare_all(text);
    compare_by_lines(in_charset(page, text));
    compare_by_lines(units_of(text));
}

// Every unit behind a letter, and as the first one.
TEST_F(ConversionEquality, OfEveryUnit) {
    for (UINT32 unit = 0; unit < 0x10000 && !HasFatalFailure(); ++unit) {
        const auto it = static_cast<WCHAR>(unit);
        compare_from_wide({'a', it, 'b'}, 37);
        if (unit % 16 == 0 || unit > 0xFE00 || unit < 0x200) {
            compare_from_wide({it, it, 'b'}, 37);
            compare_wide_to_utf8({it, it, 'b'}, 37);
        }
        compare_wide_to_utf8({'a', it}, 37);
    }
}

// Every pair of bytes, alone and before and behind letters.
TEST_F(ConversionEquality, OfEveryPairOfBytes) {
    for (UINT32 pair = 0; pair < 0x10000 && !HasFatalFailure(); ++pair) {
        const char bytes[2] = {static_cast<char>(pair >> 8), static_cast<char>(pair)};
        const std::string text(bytes, 2);
        compare_to_wide(text, 3, pair & 1);
        compare_utf8_to_wide(text, 3);
        if (pair % 4 == 0) compare_to_wide("a" + text + "b", 5, TRUE);
    }
}

}  // namespace
}  // namespace osal_test
