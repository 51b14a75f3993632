// Conversion between multi-byte and wide text, by export and by slot.
#include "osal/conversion.h"

#include <ctype.h>
#include <iconv.h>
#include <locale.h>
#include <string.h>
#include <syslog.h>
#include <wctype.h>

#include <thread>

#include "support/code_page.h"
#include "support/faults.h"
#include "support/recorders.h"

namespace osal_test {
namespace {

constexpr UINT32 kAnsi = KX_CODE_PAGE_ANSI;
constexpr UINT32 kOem = KX_CODE_PAGE_OEM;
constexpr UINT32 kUtf8 = KX_CODE_PAGE_UTF8;

class Conversion : public PageTest {
  protected:
    Conversion() : PageTest("437") {}
};
OSAL_BOTH_WAYS(Conversion);

TEST_P(Conversion, ASizeQueryOfTwoBytesGivesThree) {
    UINT32 count = 0;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "AB", -1, nullptr, &count), KC_OK);
    EXPECT_EQ(count, 3u);
}

TEST_P(Conversion, AnExactCapacityHoldsNoTerminator) {
    WCHAR out[3] = {0xEEEE, 0xEEEE, 0xEEEE};
    UINT32 count = 2;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "AB", -1, out, &count), KC_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(out[0], 'A');
    EXPECT_EQ(out[1], 'B');
    EXPECT_EQ(out[2], 0xEEEE);
}

TEST_P(Conversion, ACapacityTooSmallIsFilledWithCodeSeven) {
    WCHAR out[2] = {0xEEEE, 0xEEEE};
    UINT32 count = 1;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "AB", -1, out, &count), error(7));
    statuses.expect_one(7, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(out[0], 'A');
    EXPECT_EQ(out[1], 0xEEEE);
}

TEST_P(Conversion, AnEscapeOfSixBytesIsOneUnit) {
    EXPECT_EQ(to_wide(kOem, "[00E9]"), wide(u"\u00E9"));
    EXPECT_EQ(to_wide(kOem, "[00e9]"), wide(u"\u00E9"));
}

TEST_P(Conversion, AnOpenEscapeConvertsCharacterByCharacter) {
    EXPECT_EQ(to_wide(kOem, "[00E9x"), wide(u"[00E9x"));
    EXPECT_EQ(to_wide(kOem, "[00E9"), wide(u"[00E9"));
}

TEST_P(Conversion, AUnitThatThePageDoesNotHoldIsEscaped) {
    EXPECT_EQ(from_wide(kOem, wide(u"\u4E2D")), "[4E2D]");
}

TEST_P(Conversion, TheEuroOfAPageWithoutOneIsAByte) {
    EXPECT_EQ(from_wide(kOem, wide(u"\u20AC")), "\xCC");
    EXPECT_EQ(to_wide(kOem, "\xCC"), wide(u"\u20AC"));
}

TEST_P(Conversion, TheEuroOfAPageWithOneIsThatOfThePage) {
    EXPECT_EQ(from_wide(kAnsi, wide(u"\u20AC")), "\x80");
    EXPECT_EQ(to_wide(kAnsi, "\x80"), wide(u"\u20AC"));
    EXPECT_EQ(to_wide(kAnsi, "\xCC"), wide(u"\u00CC"));
}

TEST_P(Conversion, AnUnknownCodePageIsAnInvalidArgument) {
    for (UINT32 selector : {0u, 6u, 0xFFFFFFFFu}) {
        WCHAR units[4] = {'a'};
        CHAR bytes[16] = "a";
        UINT32 count = 4;
        StatusRecorder statuses;
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, selector, bytes, 1, units, &count), error(4));
        statuses.expect_one(4, "locale", "KxMultiByteToWideChar");
        EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, selector, units, 1, bytes, &count), error(4));
        statuses.expect_one(4, "locale", "KxWideCharToMultiByte");
        EXPECT_EQ(count, 4u);
    }
}

TEST_P(Conversion, Utf8GoesBothWays) {
    EXPECT_EQ(to_wide(kUtf8, "a\xC3\xA9\xE2\x82\xAC"), wide(u"a\u00E9\u20AC"));
    EXPECT_EQ(from_wide(kUtf8, wide(u"a\u00E9\u20AC")), "a\xC3\xA9\xE2\x82\xAC");
}

TEST_P(Conversion, UpperCasingChangesLettersOnly) {
    WCHAR text[] = {'a', '1', 'b', '-', 'Z'};
    EXPECT_EQ(CALL(KxCharUpperBuff)(osal, 5, text), KC_OK);
    EXPECT_EQ(Wide(text, text + 5), wide(u"A1B-Z"));
}

TEST_P(Conversion, UpperCasingOfNothingIsAnInvalidArgument) {
    WCHAR text[] = {'a'};
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxCharUpperBuff)(osal, 0, text), error(4));
    statuses.expect_one(4, "locale", "KxCharUpperBuff");
    EXPECT_EQ(CALL(KxCharUpperBuff)(osal, 1, nullptr), error(4));
    statuses.expect_one(4, "locale", "KxCharUpperBuff");
    EXPECT_EQ(text[0], 'a');
}

// --- Arguments, capacities, terminators ----------------------------------------------------------

TEST_P(Conversion, BadArgumentsLeaveTheCountAlone) {
    WCHAR units[4] = {'a'};
    CHAR bytes[16] = "a";
    UINT32 count = 4;
    StatusRecorder statuses;
    for (INT32 length : {0, -2, INT32_MIN}) {
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, bytes, length, units, &count), error(4));
        statuses.expect_one(4, "locale", "KxMultiByteToWideChar");
        EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, units, length, bytes, &count), error(4));
        statuses.expect_one(4, "locale", "KxWideCharToMultiByte");
    }
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, nullptr, 1, units, &count), error(4));
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, nullptr, 1, bytes, &count), error(4));
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, bytes, 1, units, nullptr), error(4));
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, units, 1, bytes, nullptr), error(4));
}

TEST_P(Conversion, SelectorsFourAndFiveAreAnsiAndOem) {
    EXPECT_EQ(to_wide(4, "\x80"), wide(u"\u20AC"));
    EXPECT_EQ(to_wide(5, "\x80"), wide(u"\u00C7"));
    EXPECT_EQ(from_wide(4, wide(u"\u20AC")), "\x80");
    EXPECT_EQ(from_wide(5, wide(u"\u00C7")), "\x80");
}

TEST_P(Conversion, CapacitiesOfBytesAreKeptToo) {
    const Wide text = wide(u"AB");
    char out[4] = {'-', '-', '-', '-'};
    UINT32 count = 0;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 2, nullptr, &count), KC_OK);
    EXPECT_EQ(count, 3u);
    count = 2;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 2, out, &count), KC_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(std::string(out, 4), "AB--");
    StatusRecorder statuses;
    count = 1;
    out[0] = out[1] = '-';
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 2, out, &count), error(7));
    statuses.expect_one(7, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(std::string(out, 4), "A---");
    count = 3;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 2, out, &count), KC_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(std::string(out, 4), std::string("AB\0-", 4));
}

TEST_P(Conversion, ANullOutputIsASizeQueryHeldToItsCapacity) {
    StatusRecorder statuses;
    UINT32 count = 1;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "ABC", 3, nullptr, &count), error(7));
    statuses.expect_one(7, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(count, 2u);
    for (UINT32 capacity : {3u, 9u}) {
        count = capacity;
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "ABC", 3, nullptr, &count), KC_OK);
        EXPECT_EQ(count, 4u);
    }
    const Wide text = wide(u"ABC");
    count = 2;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 3, nullptr, &count), error(7));
    EXPECT_EQ(count, 3u);
}

TEST_P(Conversion, ACapacityOfZeroIsASizeQuery) {
    WCHAR out = 0xEEEE;
    UINT32 count = 0;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, "ABC", 3, &out, &count), KC_OK);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(out, 0xEEEE);
}

TEST_P(Conversion, ACountedTerminatorIsNotConverted) {
    EXPECT_EQ(to_wide(kOem, std::string("ab\0", 3)), wide(u"ab"));
    EXPECT_EQ(to_wide(kOem, std::string("a\0b", 3)), (Wide{'a', 0, 'b'}));
    EXPECT_EQ(to_wide(kOem, std::string("a\0\0", 3)), (Wide{'a', 0}));
    EXPECT_EQ(from_wide(kOem, {'a', 'b', 0}), "ab");
    EXPECT_EQ(from_wide(kOem, {'a', 0, 'b'}), std::string("a\0b", 3));
}

TEST_P(Conversion, AnEmptyTextIsEmpty) {
    for (UINT32 selector : {kAnsi, kOem, kUtf8}) {
        WCHAR unit = 0xEEEE;
        UINT32 count = 1;
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, selector, "", -1, &unit, &count), KC_OK);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(unit, 0);
        count = 0;
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, selector, "", -1, nullptr, &count), KC_OK);
        EXPECT_EQ(count, 1u);
        char byte = '-';
        count = 1;
        EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, selector, &unit, -1, &byte, &count), KC_OK);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(byte, 0);
    }
}

// --- Scratch -------------------------------------------------------------------------------------

TEST_P(Conversion, LongTextsUsePoolScratchAndGiveItBack) {
    const std::string longest_on_stack(255, 'a');
    UINT32 count = 0;
    EXPECT_EQ(
        CALL(KxMultiByteToWideChar)(osal, kOem, longest_on_stack.data(), 255, nullptr, &count),
        KC_OK);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u);
    const std::string text(256, 'a');
    count = 0;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, text.data(), 256, nullptr, &count), KC_OK);
    EXPECT_EQ(count, 257u);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 514u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
    // Nor is scratch needed when the output has room for anything.
    Wide out(257);
    count = 257;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, text.data(), 256, out.data(), &count), KC_OK);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 514u);
    count = 256;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, text.data(), 256, out.data(), &count), KC_OK);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 2 * 514u);
}

TEST_P(Conversion, LongTextsOfUnitsUsePoolScratchToo) {
    const Wide text(43, 'a');
    UINT32 count = 0;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 42, nullptr, &count), KC_OK);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 0u);
    count = 0;
    EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, text.data(), 43, nullptr, &count), KC_OK);
    EXPECT_EQ(count, 44u);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 12 * 43u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

TEST_P(Conversion, NoPoolMemoryIsOutOfResources) {
    const std::string text(256, 'a');
    const Wide units(43, 'a');
    UINT32 count = 7;
    StatusRecorder statuses;
    {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kOem, text.data(), 256, nullptr, &count),
                  error(5));
    }
    statuses.expect_one(5, "locale", "KxMultiByteToWideChar");
    {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, kOem, units.data(), 43, nullptr, &count),
                  error(5));
    }
    statuses.expect_one(5, "locale", "KxWideCharToMultiByte");
    // Scratch of more than the pool takes; without an instance, there is none at all.
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(nullptr, kOem, text.data(), 256, nullptr, &count),
              error(5));
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
}

TEST_P(Conversion, AFailureGivesPoolScratchBack) {
    std::string text(300, 'a');
    UINT32 count = 7;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, 6, text.data(), 300, nullptr, &count), error(4));
    statuses.expect_one(4, "locale", "KxMultiByteToWideChar");
    text[299] = '\xFF';
    EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, kUtf8, text.data(), 300, nullptr, &count),
              error(1));
    statuses.expect_one(1, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(record->MemoryPagedInUse, 0u);
    EXPECT_EQ(record->MemoryPagedTotalAllocated, 2 * 602u);
}

// --- Rules of code-page text ---------------------------------------------------------------------

TEST_P(Conversion, EveryEscapedUnitComesBack) {
    for (UINT32 unit = 1; unit < 0x10000; unit += 7) {
        const Wide text = {static_cast<WCHAR>(unit), '.'};
        ASSERT_EQ(to_wide(kOem, from_wide(kOem, text)), text) << unit;
    }
}

TEST_P(Conversion, EscapesTakeAnyDigits) {
    EXPECT_EQ(to_wide(kOem, "[zzzz]"), (Wide{static_cast<WCHAR>(35 * 0x1111)}));
    EXPECT_EQ(to_wide(kOem, "[FFFF][0000]"), (Wide{0xFFFF, 0}));
    EXPECT_EQ(to_wide(kOem, "[]]]]]"), (Wide{static_cast<WCHAR>((']' - 87) * 0x1111)}));
}

TEST_P(Conversion, ALoneUnitOfASurrogatePairIsEscaped) {
    EXPECT_EQ(from_wide(kOem, {0xD83D, 0xDE00}), "[D83D][DE00]");
    EXPECT_EQ(to_wide(kOem, "[D83D][DE00]"), (Wide{0xD83D, 0xDE00}));
}

TEST_P(Conversion, ByteOrderMarksInAPageAreEscaped) {
    EXPECT_EQ(from_wide(kOem, {0xFFFE, 'a', 0xFFFE, 'b'}), "[FFFE]a[FFFE]b");
    EXPECT_EQ(from_wide(kOem, {0xFEFF, 'a', 0xFEFF}), "[FEFF]a[FEFF]");
    EXPECT_EQ(from_wide(kOem, {'/', 0xFFFE, 'a'}), "/[FFFE]a");
}

TEST_P(Conversion, SeparatorsMayComeBeforeTheFirstConvertedCharacter) {
    EXPECT_EQ(to_wide(kOem, "/:\\[0041]a\x82"), wide(u"/:\\Aa\u00E9"));
    EXPECT_EQ(from_wide(kOem, wide(u"/:\\a\u00E9")), "/:\\a\x82");
}

TEST_P(Conversion, ASwappedMarkInUtf8FailsAndAPlainOneIsDropped) {
    StatusRecorder statuses;
    from_wide(kUtf8, {0xFFFE, 'a'}, error(1));
    statuses.expect_one(1, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(from_wide(kUtf8, {0xFEFF, 'a', 0xFEFF}), "a\xEF\xBB\xBF");
    EXPECT_EQ(from_wide(kUtf8, {0xFEFF, 0xFFFE}), "\xEF\xBF\xBE");
    EXPECT_EQ(from_wide(kUtf8, {'a', 0xFFFE}), "a\xEF\xBF\xBE");
    EXPECT_EQ(to_wide(kUtf8,
                      "\xEF\xBB\xBF"
                      "a"),
              (Wide{0xFEFF, 'a'}));
}

TEST_P(Conversion, Utf8ThatDoesNotConvertFails) {
    StatusRecorder statuses;
    for (const char* text :
         {"\xF0\x9F\x98\x80", "\x80", "\xC0\x80", "\xE0\x80\x80", "a\xC3", "\xE2\x82",
          "\xED\xA0\x80", "\xC3\x28", "\xFF", "\xF8\x88\x80\x80\x80"}) {
        to_wide(kUtf8, text, error(1));
        statuses.expect_one(1, "locale", "KxMultiByteToWideChar");
    }
    from_wide(kUtf8, {'a', 0xD800}, error(1));
    statuses.expect_one(1, "locale", "KxWideCharToMultiByte");
    from_wide(kUtf8, {0xDC00}, error(1));
}

TEST_P(Conversion, Utf8HasNoEscapesSeparatorsOrEuroByte) {
    EXPECT_EQ(to_wide(kUtf8, "[0041]/\\:"), wide(u"[0041]/\\:"));
    StatusRecorder statuses;
    to_wide(kUtf8, "\xCC", error(1));
}

// --- Pages ---------------------------------------------------------------------------------------

class ConversionInAscii : public PageTest {
  protected:
    ConversionInAscii() : PageTest("ANSI_X3.4-1968") {}
};
OSAL_BOTH_WAYS(ConversionInAscii);

TEST_P(ConversionInAscii, BytesThatThePageDoesNotHoldFail) {
    StatusRecorder statuses;
    to_wide(kOem, "ab\x82", error(1));
    statuses.expect_one(1, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(to_wide(kOem, "\xCC"), wide(u"\u20AC"));  // but for the euro
    EXPECT_EQ(from_wide(kOem, wide(u"\u00E9\u20AC")), "[00E9]\xCC");
}

class ConversionInJapanese : public PageTest {
  protected:
    ConversionInJapanese() : PageTest("SJIS") {}
};
OSAL_BOTH_WAYS(ConversionInJapanese);

TEST_P(ConversionInJapanese, DoubleBytesAreOneUnit) {
    EXPECT_EQ(to_wide(kOem,
                      "a\x93\xFA\x96\x7B"
                      "b"),
              wide(u"a\u65E5\u672Cb"));
    EXPECT_EQ(from_wide(kOem, wide(u"a\u65E5\u672Cb")),
              "a\x93\xFA\x96\x7B"
              "b");
    StatusRecorder statuses;
    to_wide(kOem, "a\x93", error(1));
}

TEST_P(ConversionInJapanese, ABackslashIsItselfInEveryPage) {
    EXPECT_EQ(to_wide(kOem, "\\"), wide(u"\\"));
    EXPECT_EQ(from_wide(kOem, wide(u"\\")), "\\");
    EXPECT_EQ(to_wide(kOem, "\x83\x5C"), wide(u"\u30BD"));  // as a second byte it is none
    EXPECT_EQ(from_wide(kOem, wide(u"\u30BD")), "\x83\x5C");
    EXPECT_EQ(to_wide(kOem, "~"), wide(u"\u203E"));
}

class ConversionInUtf8Page : public PageTest {
  protected:
    ConversionInUtf8Page() : PageTest("UTF-8") {}
};
OSAL_BOTH_WAYS(ConversionInUtf8Page);

TEST_P(ConversionInUtf8Page, TheRulesOfCodePageTextHold) {
    EXPECT_EQ(to_wide(kOem, "[00E9]\xC3\xA9"), wide(u"\u00E9\u00E9"));
    EXPECT_EQ(from_wide(kOem, {0xD800, 0xE9}), "[D800]\xC3\xA9");
    EXPECT_EQ(from_wide(kOem, {0xFEFF, 0xFEFF}), "[FEFF]\xEF\xBB\xBF");
    EXPECT_EQ(from_wide(kOem, {0xFFFE, 0xFEFF}), "[FFFE]\xEF\xBB\xBF");
    EXPECT_EQ(from_wide(kOem, {':', 0xFEFF, 0xFFFE}), ":[FEFF]\xEF\xBF\xBE");
    EXPECT_EQ(to_wide(kOem, "\xCC\x81"), wide(u"\u0301"));  // a page with the euro
}

TEST_P(ConversionInUtf8Page, TheEuroByteGoesByTheFlagItIsGiven) {
    WCHAR units[2];
    UINT32 count = 2;
    EXPECT_EQ(LocToUni("UTF-8", FALSE, "\xCC", 1, units, &count), 0);
    EXPECT_EQ(units[0], 0x20AC);
    count = 2;
    EXPECT_EQ(LocToUni("UTF-8", TRUE, "\xCC", 1, units, &count), -1);
    EXPECT_EQ(count, 0u);
}

// The page can be had when it is chosen, and no longer when it is used.
iconv_t no_converter(const char*, const char*) {
    return reinterpret_cast<iconv_t>(-1);
}

class ConversionInAStatefulPage : public PageTest {
  protected:
    ConversionInAStatefulPage() : PageTest("ISO-2022-JP") {}
};
OSAL_BOTH_WAYS(ConversionInAStatefulPage);

TEST_P(ConversionInAStatefulPage, AConverterThatCannotBeOpenedIsLoggedAndFails) {
    LogRecorder log;
    StatusRecorder statuses;
    Interpose iconv("osal.so", "iconv_open", no_converter);
    to_wide(kOem, "a", error(1));
    statuses.expect_one(1, "locale", "KxMultiByteToWideChar");
    from_wide(kOem, {'a'}, error(1));
    statuses.expect_one(1, "locale", "KxWideCharToMultiByte");
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(lines[0].text, "LocToUni: Unable to open conversion descriptor\n");
    EXPECT_EQ(lines[1].priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(lines[1].text, "UniToLoc: Unable to open conversion descriptor\n");
}

// As a converter does that keeps the unit x until it sees the next one.
std::size_t hold_back_x(iconv_t converter, char** in, std::size_t* in_left, char** out,
                        std::size_t* out_left) {
    if (in == nullptr || *in == nullptr || *in_left != 4 || memcmp(*in, "x\0\0\0", 4) != 0)
        return iconv(converter, in, in_left, out, out_left);
    *in += 4;
    *in_left = 0;
    *(*out)++ = 0;
    --*out_left;
    return 0;
}

TEST_P(ConversionInAStatefulPage, AUnitThatYieldsNothingButTheTerminatorIsEscaped) {
    Interpose converter("osal.so", "iconv", hold_back_x);
    EXPECT_EQ(from_wide(kOem, wide(u"axb")), "a[0078]b");
}

TEST(ConversionRoutines, NothingConvertsFromAPageThatDoesNotExistButNotToIt) {
    LogRecorder log;
    WCHAR unit = 0;
    char byte = 0;
    UINT32 count = 1;
    EXPECT_EQ(LocToUni("NO-SUCH-PAGE", FALSE, "", 0, &unit, &count), 0);
    EXPECT_EQ(count, 0u);
    count = 1;
    EXPECT_EQ(UniToLoc("NO-SUCH-PAGE", &unit, 0, &byte, &count), -1);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(log.take().size(), 2u);
}

TEST(ConversionRoutines, Utf8WithoutAConverterIsLoggedAndFails) {
    LogRecorder log;
    Interpose iconv("osal.so", "iconv_open", no_converter);
    WCHAR unit = 'a';
    char byte = 'a';
    UINT32 count = 4;
    EXPECT_EQ(Utf8ToUni(&byte, 1, &unit, &count), -1);
    EXPECT_EQ(count, 0u);
    count = 4;
    EXPECT_EQ(UniToUtf8(&unit, 1, &byte, &count), -1);
    EXPECT_EQ(count, 0u);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "Utf8ToUni: Unable to open conversion descriptor\n");
    EXPECT_EQ(lines[1].text, "UniToUtf8: Unable to open conversion descriptor\n");
    EXPECT_EQ(lines[1].priority, LOG_USER | LOG_ERR);
}

TEST(ConversionRoutines, CapacitiesOfTheRoutinesThemselves) {
    setenv("TESSEL_CODE_PAGE", "437", 1);
    DllStart();
    PIOsal osal = new_instance();
    for (const char* page : {"437", "850"}) {  // by tables, and by the plain steps
        WCHAR units[4] = {};
        UINT32 count = 2;
        EXPECT_EQ(LocToUni(page, FALSE, "ab", 2, units, &count), 0);
        EXPECT_EQ(count, 2u);
        count = 1;
        EXPECT_EQ(LocToUni(page, FALSE, "ab", 2, units, &count), -1);
        EXPECT_EQ(count, 0u);
        count = 0;
        EXPECT_EQ(LocToUni(page, FALSE, "a", 1, units, &count), -1);
        EXPECT_EQ(LocToUni(page, FALSE, "", 0, units, &count), 0);

        const WCHAR in[] = {'a', 0x4E2D};
        char bytes[9] = "--------";
        count = 8;
        EXPECT_EQ(UniToLoc(page, in, 2, bytes, &count), 0);
        EXPECT_EQ(count, 7u);
        count = 7;  // reaching the capacity fails
        EXPECT_EQ(UniToLoc(page, in, 2, bytes, &count), -1);
        EXPECT_EQ(count, 0u);
        memcpy(bytes, "--------", 8);
        count = 6;  // an escape is not cut, nor written beyond the capacity
        EXPECT_EQ(UniToLoc(page, in, 2, bytes, &count), -1);
        EXPECT_EQ(memcmp(bytes + 6, "--", 2), 0);
        count = 0;
        EXPECT_EQ(UniToLoc(page, in, 1, bytes, &count), -1);
        EXPECT_EQ(UniToLoc(page, in, 0, bytes, &count), 0);
    }
    osal->lpVtbl->Release(osal);
    DllStop();
}

// What a late caller meets: the code pages are gone, UTF-8 needs none.
TEST(ConversionAfterShutdown, FailsInAPageAndGoesOnInUtf8) {
    setenv("TESSEL_CODE_PAGE", "437", 1);
    DllStart();
    PIOsal osal = new_instance();
    DllStop();
    LogRecorder log;
    StatusRecorder statuses;
    for (UINT32 selector : {kAnsi, kOem}) {
        WCHAR unit = 'a';
        char bytes[12] = "a";
        UINT32 count = 1;
        EXPECT_EQ(KxMultiByteToWideChar(osal, selector, bytes, 1, &unit, &count), error(1));
        statuses.expect_one(1, "locale", "KxMultiByteToWideChar");
        count = 12;
        EXPECT_EQ(KxWideCharToMultiByte(osal, selector, &unit, 1, bytes, &count), error(1));
        statuses.expect_one(1, "locale", "KxWideCharToMultiByte");
    }
    EXPECT_EQ(log.take().size(), 4u);
    WCHAR unit = 0;
    UINT32 count = 1;
    EXPECT_EQ(KxMultiByteToWideChar(osal, kUtf8, "\xC3\xA9", 2, &unit, &count), KC_OK);
    EXPECT_EQ(unit, 0xE9);
    osal->lpVtbl->Release(osal);
}

TEST(ConversionRoutines, SequenceLengthCountsLeadingOnes) {
    const struct {
        UCHAR first;
        UINT32 length;
    } rows[] = {{0, 1},    {0x7F, 1}, {0x80, 1}, {0xBF, 1}, {0xC0, 2}, {0xDF, 2},
                {0xE0, 3}, {0xF0, 4}, {0xF8, 5}, {0xFC, 6}, {0xFE, 7}, {0xFF, 7}};
    for (const auto& row : rows)
        EXPECT_EQ(Utf8SeqLen(row.first), row.length) << int{row.first};
}

// --- Threads -------------------------------------------------------------------------------------

TEST_P(ConversionInJapanese, ThreadsMayConvertAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            // Each meets blocks of units that nobody has asked about yet.
            for (UINT32 unit = 0x3000; unit < 0x9000; unit += 97) {
                const Wide text = {static_cast<WCHAR>(unit + static_cast<UINT32>(i)), 'x'};
                EXPECT_EQ(to_wide(kOem, from_wide(kOem, text)), text);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

// --- Upper-casing --------------------------------------------------------------------------------

WCHAR upper_by_definition(WCHAR unit) {
    const bool is_changed = unit <= 0xFF ? isalnum(unit) != 0 : iswalnum(unit) != 0;
    const wint_t changed = is_changed ? towupper(unit) : unit;
    return changed <= 0xFFFF ? static_cast<WCHAR>(changed) : unit;
}

// All units, in texts short and long, whatever the locale.
void expect_upper_by_definition(const char* locale) {
    for (UINT32 length : {1u, 7u, 159u, 160u, 161u, 4096u}) {
        Wide text(65536);
        for (UINT32 unit = 0; unit < 65536; ++unit)
            text[unit] = static_cast<WCHAR>(unit % 5 == 0 ? unit : ' ' + unit % 0x5F);
        const Wide before = text;
        for (UINT32 start = 0; start < text.size(); start += length)
            KxCharUpperBuff(nullptr, std::min(length, 65536 - start), text.data() + start);
        for (UINT32 unit = 0; unit < 65536; ++unit)
            ASSERT_EQ(text[unit], upper_by_definition(before[unit]))
                << locale << ' ' << before[unit] << " in " << length;
    }
}

TEST(UpperCasing, FollowsTheLocaleOfTheMoment) {
    for (const char* locale : {"C", "C.UTF-8", "C"}) {
        ASSERT_NE(setlocale(LC_ALL, locale), nullptr);
        expect_upper_by_definition(locale);
    }
    WCHAR unit = 0x101;
    ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(KxCharUpperBuff(nullptr, 1, &unit), KC_OK);
    EXPECT_EQ(unit, 0x100);
    unit = 0xE9;  // no byte of its own in UTF-8
    EXPECT_EQ(KxCharUpperBuff(nullptr, 1, &unit), KC_OK);
    EXPECT_EQ(unit, 0xE9);
}

// Locales that the machine does not have are made for the test, if it has what to make them of.
bool set_made_locale(const char* name, const char* source, const char* charset) {
    const std::string folder = std::string(OSAL_BUILD_DIR) + "/locales";
    const std::string command = "mkdir -p " + folder + " && localedef -i " + source + " -f " +
                                charset + " " + folder + "/" + name + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return false;
    setenv("LOCPATH", folder.c_str(), 1);
    return setlocale(LC_ALL, name) != nullptr;
}

TEST(UpperCasing, OfTurkishIsNotThatOfAscii) {
    if (!set_made_locale("tr_TR.UTF-8", "tr_TR", "UTF-8")) GTEST_SKIP() << "no such locale here";
    ASSERT_EQ(towupper('i'), 0x130u);
    expect_upper_by_definition("tr_TR.UTF-8");
    Wide text(300, 'i');
    EXPECT_EQ(KxCharUpperBuff(nullptr, 300, text.data()), KC_OK);
    EXPECT_EQ(text, Wide(300, 0x130));
}

TEST(UpperCasing, OfALocaleOfSingleBytesChangesThem) {
    if (!set_made_locale("de_DE.ISO-8859-1", "de_DE", "ISO-8859-1"))
        GTEST_SKIP() << "no such locale here";
    expect_upper_by_definition("de_DE.ISO-8859-1");
    WCHAR unit = 0xE9;
    EXPECT_EQ(KxCharUpperBuff(nullptr, 1, &unit), KC_OK);
    EXPECT_EQ(unit, 0xC9);
}

}  // namespace
}  // namespace osal_test
