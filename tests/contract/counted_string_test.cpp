// Counted strings, by export and by slot.
#include "osal/counted_string.h"

#include <string.h>

#include "osal/linux/internal/counted_string.h"
#include "support/code_page.h"
#include "support/faults.h"
#include "support/recorders.h"

namespace osal_test {
namespace {

constexpr WCHAR kUntouched = 0xEEEE;

STRING narrow(const char* text, UINT16 length) {
    return {length, length, const_cast<PCHAR>(text)};
}
STRING narrow(const char* text) {
    return narrow(text, static_cast<UINT16>(strlen(text)));
}

// A wide string in a buffer of its own.
class WideString {
  public:
    WideString(const char16_t* text, UINT16 capacity_bytes) : units_(capacity_bytes / 2 + 2) {
        const Wide source = wide(text);
        units_.assign(units_.size(), kUntouched);
        std::copy(source.begin(), source.end(), units_.begin());
        string_ = {static_cast<UINT16>(source.size() * 2), capacity_bytes, units_.data()};
    }
    explicit WideString(const char16_t* text)
        : WideString(text, static_cast<UINT16>(wide(text).size() * 2 + 2)) {}

    UNICODE_STRING* operator->() { return &string_; }
    operator UNICODE_STRING*() { return &string_; }
    Wide text() const { return Wide(units_.begin(), units_.begin() + string_.Length / 2); }
    WCHAR unit(std::size_t index) const { return units_[index]; }

  private:
    Wide units_;
    UNICODE_STRING string_;
};

class CountedString : public PageTest {
  protected:
    CountedString() : PageTest("437") {}
};
OSAL_BOTH_WAYS(CountedString);

TEST_P(CountedString, InitTakesTheLengthOfTheText) {
    char text[] = "abc";
    STRING string;
    CALL(KxInitString)(osal, &string, text);
    EXPECT_EQ(string.Length, 3);
    EXPECT_EQ(string.MaximumLength, 4);
    EXPECT_EQ(string.Buffer, text);

    Wide units = wide(u"abc");
    units.push_back(0);
    UNICODE_STRING wide_string;
    CALL(KxInitUnicodeString)(osal, &wide_string, units.data());
    EXPECT_EQ(wide_string.Length, 6);
    EXPECT_EQ(wide_string.MaximumLength, 8);
    EXPECT_EQ(wide_string.Buffer, units.data());
}

TEST_P(CountedString, InitOfNullTextLeavesNothing) {
    STRING string = {1, 2, const_cast<PCHAR>("x")};
    CALL(KxInitString)(osal, &string, nullptr);
    EXPECT_EQ(string.Buffer, nullptr);
    EXPECT_EQ(string.Length, 0);
    EXPECT_EQ(string.MaximumLength, 0);

    WCHAR unit = 0;
    UNICODE_STRING wide_string = {1, 2, &unit};
    CALL(KxInitUnicodeString)(osal, &wide_string, nullptr);
    EXPECT_EQ(wide_string.Buffer, nullptr);
    EXPECT_EQ(wide_string.Length, 0);
    EXPECT_EQ(wide_string.MaximumLength, 0);
}

TEST_P(CountedString, NullDestinationsAreIgnored) {
    STRING string = narrow("x");
    WideString wide_string(u"x");
    CALL(KxInitString)(osal, nullptr, "x");
    CALL(KxInitUnicodeString)(osal, nullptr, wide_string->Buffer);
    CALL(KxCopyString)(osal, nullptr, &string);
    CALL(KxCopyUnicodeString)(osal, nullptr, wide_string);
}

TEST_P(CountedString, InitCutsLengthsToSixteenBits) {
    const std::string longest(65535, 'a');
    STRING string;
    CALL(KxInitString)(osal, &string, longest.c_str());
    EXPECT_EQ(string.Length, 65535);
    EXPECT_EQ(string.MaximumLength, 0);

    const std::string longer(70000, 'a');
    CALL(KxInitString)(osal, &string, longer.c_str());
    EXPECT_EQ(string.Length, 70000 - 65536);
    EXPECT_EQ(string.MaximumLength, 70001 - 65536);

    Wide units(32767, 'a');
    units.push_back(0);
    UNICODE_STRING wide_string;
    CALL(KxInitUnicodeString)(osal, &wide_string, units.data());
    EXPECT_EQ(wide_string.Length, 65534);
    EXPECT_EQ(wide_string.MaximumLength, 0);
}

TEST_P(CountedString, ACopyThatFillsTheCapacityHasNoTerminator) {
    WideString source(u"abcde");
    WideString exact(u"", 10);
    CALL(KxCopyUnicodeString)(osal, exact, source);
    EXPECT_EQ(exact.text(), wide(u"abcde"));
    EXPECT_EQ(exact.unit(5), kUntouched);

    WideString roomy(u"", 12);
    CALL(KxCopyUnicodeString)(osal, roomy, source);
    EXPECT_EQ(roomy.text(), wide(u"abcde"));
    EXPECT_EQ(roomy.unit(5), 0);

    // One byte of room is not enough for the terminator of a wide string.
    WideString odd(u"", 11);
    CALL(KxCopyUnicodeString)(osal, odd, source);
    EXPECT_EQ(odd->Length, 10);
    EXPECT_EQ(odd.unit(5), kUntouched);
}

TEST_P(CountedString, ACopyIsCutToTheCapacity) {
    STRING source = narrow("abcde");
    char bytes[] = "------";
    STRING dest = {0, 3, bytes};
    CALL(KxCopyString)(osal, &dest, &source);
    EXPECT_EQ(dest.Length, 3);
    EXPECT_STREQ(bytes, "abc---");

    dest.MaximumLength = 6;
    CALL(KxCopyString)(osal, &dest, &source);
    EXPECT_EQ(dest.Length, 5);
    EXPECT_STREQ(bytes, "abcde");
}

TEST_P(CountedString, AnOddCapacityCutsAUnitInHalf) {
    WideString source(u"\u1234\u5678");
    WideString dest(u"", 3);
    CALL(KxCopyUnicodeString)(osal, dest, source);
    EXPECT_EQ(dest->Length, 3);
    EXPECT_EQ(dest.unit(0), 0x1234);
    EXPECT_EQ(dest.unit(1), 0xEE78);
}

TEST_P(CountedString, TheTerminatorOfHalfAUnitTakesItsPlace) {
    WideString source(u"\u1234\u5678");
    source->Length = 3;
    WideString dest(u"", 5);
    CALL(KxCopyUnicodeString)(osal, dest, source);
    EXPECT_EQ(dest->Length, 3);
    EXPECT_EQ(dest.unit(0), 0x1234);
    EXPECT_EQ(dest.unit(1), 0);
    EXPECT_EQ(dest.unit(2), kUntouched);
}

TEST_P(CountedString, ACopyOfNothingHasNoLength) {
    char bytes[] = "abc";
    STRING dest = {3, 4, bytes};
    CALL(KxCopyString)(osal, &dest, nullptr);
    EXPECT_EQ(dest.Length, 0);
    EXPECT_STREQ(bytes, "abc");

    WideString wide_dest(u"abc");
    CALL(KxCopyUnicodeString)(osal, wide_dest, nullptr);
    EXPECT_EQ(wide_dest->Length, 0);
    EXPECT_EQ(wide_dest.unit(0), 'a');
}

TEST_P(CountedString, ACopyWithoutBuffersMovesTheLengthOnly) {
    STRING source = {3, 3, nullptr};
    char bytes[] = "------";
    STRING dest = {0, 5, bytes};
    CALL(KxCopyString)(osal, &dest, &source);
    EXPECT_EQ(dest.Length, 3);
    EXPECT_EQ(memcmp(bytes, "---\0--", 6), 0);

    STRING nowhere = {0, 5, nullptr};
    STRING text = narrow("abc");
    CALL(KxCopyString)(osal, &nowhere, &text);
    EXPECT_EQ(nowhere.Length, 3);

    UNICODE_STRING wide_nowhere = {0, 8, nullptr};
    WideString wide_text(u"abc");
    CALL(KxCopyUnicodeString)(osal, &wide_nowhere, wide_text);
    EXPECT_EQ(wide_nowhere.Length, 6);
}

TEST_P(CountedString, ComparisonFallsBackToTheLengthDifference) {
    STRING abc = narrow("abc");
    STRING abcd = narrow("abcd");
    for (BOOLEAN ignore_case : {FALSE, TRUE}) {
        EXPECT_EQ(CALL(KxCompareString)(osal, &abc, &abcd, ignore_case), -1);
        EXPECT_EQ(CALL(KxCompareString)(osal, &abcd, &abc, ignore_case), 1);
        EXPECT_EQ(CALL(KxCompareString)(osal, &abc, &abc, ignore_case), 0);
    }
    WideString wide_abc(u"abc");
    WideString wide_abcde(u"abcde");
    for (BOOLEAN ignore_case : {FALSE, TRUE}) {
        EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, wide_abc, wide_abcde, ignore_case), -4);
        EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, wide_abcde, wide_abc, ignore_case), 4);
    }
}

TEST_P(CountedString, ComparisonOrdersByTheFirstDifference) {
    STRING a = narrow("abcz");
    STRING b = narrow("abd");
    EXPECT_LT(CALL(KxCompareString)(osal, &a, &b, FALSE), 0);
    EXPECT_GT(CALL(KxCompareString)(osal, &b, &a, FALSE), 0);
    STRING upper = narrow("ABC");
    STRING lower = narrow("abc");
    EXPECT_LT(CALL(KxCompareString)(osal, &upper, &lower, FALSE), 0);
    EXPECT_EQ(CALL(KxCompareString)(osal, &upper, &lower, TRUE), 0);
    // Any value but 0 ignores case.
    EXPECT_EQ(CALL(KxCompareString)(osal, &upper, &lower, 2), 0);
}

TEST_P(CountedString, NarrowComparisonStopsAtAZeroByte) {
    STRING a = narrow("ab\0x", 4);
    STRING b = narrow("ab\0y", 4);
    for (BOOLEAN ignore_case : {FALSE, TRUE}) {
        EXPECT_EQ(CALL(KxCompareString)(osal, &a, &b, ignore_case), 0);
        EXPECT_EQ(CALL(KxEqualString)(osal, &a, &b, ignore_case), TRUE);
    }
}

TEST_P(CountedString, WideComparisonOrdersBytesNotUnits) {
    WideString low(u"\u0001");
    WideString high(u"\u0100");
    EXPECT_GT(CALL(KxCompareUnicodeString)(osal, low, high, FALSE), 0);
    EXPECT_LT(CALL(KxCompareUnicodeString)(osal, high, low, FALSE), 0);
    EXPECT_GT(unincmp(low, high), 0);
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, low, low, TRUE), 0);
}

TEST_P(CountedString, WideComparisonDoesNotStopAtAZeroUnit) {
    WCHAR a[] = {'a', 0, 'x'};
    WCHAR b[] = {'a', 0, 'y'};
    UNICODE_STRING s1 = {6, 6, a};
    UNICODE_STRING s2 = {6, 6, b};
    EXPECT_LT(CALL(KxCompareUnicodeString)(osal, &s1, &s2, FALSE), 0);
    EXPECT_LT(CALL(KxCompareUnicodeString)(osal, &s1, &s2, TRUE), 0);
}

TEST_P(CountedString, WideComparisonMayIgnoreCase) {
    WideString upper(u"ABC");
    WideString mixed(u"aBc");
    EXPECT_NE(CALL(KxCompareUnicodeString)(osal, upper, mixed, FALSE), 0);
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, upper, mixed, TRUE), 0);
    EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, upper, mixed, TRUE), TRUE);
    EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, upper, mixed, FALSE), FALSE);
    EXPECT_EQ(mixed.text(), wide(u"aBc"));  // only a copy is upper-cased
}

TEST_P(CountedString, ComparisonWithNullGivesMinusOne) {
    STRING text = narrow("a");
    WideString wide_text(u"a");
    EXPECT_EQ(CALL(KxCompareString)(osal, nullptr, &text, FALSE), -1);
    EXPECT_EQ(CALL(KxCompareString)(osal, &text, nullptr, FALSE), -1);
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, nullptr, wide_text, FALSE), -1);
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, wide_text, nullptr, TRUE), -1);
    EXPECT_EQ(CALL(KxEqualString)(osal, nullptr, &text, FALSE), FALSE);
    EXPECT_EQ(CALL(KxEqualString)(osal, &text, nullptr, FALSE), FALSE);
    EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, nullptr, nullptr, FALSE), FALSE);
}

TEST_P(CountedString, StringsOfDifferentLengthAreUnequal) {
    STRING a = narrow("ab\0", 3);
    STRING b = narrow("ab", 2);
    EXPECT_EQ(CALL(KxEqualString)(osal, &a, &b, FALSE), FALSE);
    EXPECT_EQ(CALL(KxEqualString)(osal, &b, &b, FALSE), TRUE);
    WideString c(u"ab");
    WideString d(u"abc");
    EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, c, d, FALSE), FALSE);
    EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, c, c, FALSE), TRUE);
}

TEST_P(CountedString, AMissingBufferComesFirst) {
    STRING text = narrow("abc");
    STRING missing = {3, 3, nullptr};
    WideString wide_text(u"abc");
    UNICODE_STRING wide_missing = {6, 6, nullptr};
    for (BOOLEAN ignore_case : {FALSE, TRUE}) {
        EXPECT_LT(CALL(KxCompareString)(osal, &missing, &text, ignore_case), 0);
        EXPECT_GT(CALL(KxCompareString)(osal, &text, &missing, ignore_case), 0);
        EXPECT_EQ(CALL(KxCompareString)(osal, &missing, &missing, ignore_case), 0);
        EXPECT_EQ(CALL(KxEqualString)(osal, &missing, &text, ignore_case), FALSE);
        EXPECT_LT(CALL(KxCompareUnicodeString)(osal, &wide_missing, wide_text, ignore_case), 0);
        EXPECT_GT(CALL(KxCompareUnicodeString)(osal, wide_text, &wide_missing, ignore_case), 0);
        EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, &wide_missing, wide_text, ignore_case), FALSE);
    }
    STRING empty = {0, 0, nullptr};
    EXPECT_EQ(CALL(KxCompareString)(osal, &empty, &text, FALSE), -3);
}

TEST_P(CountedString, ComparisonIgnoringCaseNeedsTheHeap) {
    WideString text(u"abc");
    for (int request : {1, 2}) {
        HeapFault fault(request);
        EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, text, text, TRUE), -1) << request;
    }
    for (int request : {1, 2}) {
        HeapFault fault(request);
        EXPECT_EQ(CALL(KxEqualUnicodeString)(osal, text, text, TRUE), FALSE) << request;
    }
    EXPECT_EQ(unincasecmp(osal, text, text), 0);
}

TEST_P(CountedString, ComparisonIgnoringCaseOfAnEmptyStringBuildsAStatus) {
    WideString empty(u"");
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, empty, empty, TRUE), 0);
    const auto built = statuses.take();
    ASSERT_EQ(built.size(), 2u);
    EXPECT_EQ(built[0].code, 4u);
    EXPECT_EQ(built[0].function, "KxCharUpperBuff");
}

TEST_P(CountedString, OddLengthsCompareByBytes) {
    WideString a(u"ab");
    WideString b(u"ab");
    a->Length = b->Length = 3;
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, a, b, FALSE), 0);
    EXPECT_EQ(CALL(KxCompareUnicodeString)(osal, a, b, TRUE), 0);
    b->Buffer[1] = 'c';
    EXPECT_LT(CALL(KxCompareUnicodeString)(osal, a, b, FALSE), 0);
    // The half of a unit at the end is not upper-cased.
    b->Buffer[1] = 'B';
    EXPECT_NE(CALL(KxCompareUnicodeString)(osal, a, b, TRUE), 0);
}

TEST_P(CountedString, AppendTerminatesWhenThereIsRoom) {
    WideString dest(u"ab", 8);
    WideString source(u"c");
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), KC_OK);
    EXPECT_EQ(dest.text(), wide(u"abc"));
    EXPECT_EQ(dest.unit(3), 0);
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), KC_OK);
    EXPECT_EQ(dest.text(), wide(u"abcc"));
    EXPECT_EQ(dest.unit(4), kUntouched);
}

TEST_P(CountedString, AppendBeyondTheCapacityChangesNothing) {
    WideString dest(u"abc", 8);
    WideString source(u"de");
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), error(7));
    statuses.expect_one(7, "string", "KxAppendUnicodeStringToString");
    EXPECT_EQ(dest->Length, 6);
    EXPECT_EQ(dest.unit(3), kUntouched);
}

TEST_P(CountedString, AppendToACapacityBelowTheLengthFails) {
    WideString dest(u"abc");
    WideString source(u"d");
    dest->MaximumLength = 2;
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), error(7));
    // Lengths that add up to more than 16 bits do not wrap.
    dest->Length = 65534;
    dest->MaximumLength = 65535;
    source->Length = 65534;
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), error(7));
}

TEST_P(CountedString, AppendOfNothingIsFine) {
    WideString dest(u"abc");
    WideString empty(u"");
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, empty), KC_OK);
    dest->MaximumLength = 0;  // not even looked at
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, empty), KC_OK);
    EXPECT_EQ(dest.text(), wide(u"abc"));
}

TEST_P(CountedString, AppendWithNullIsAnInvalidArgument) {
    WideString text(u"abc");
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, nullptr, text), error(4));
    statuses.expect_one(4, "string", "KxAppendUnicodeStringToString");
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, text, nullptr), error(4));
    statuses.expect_one(4, "string", "KxAppendUnicodeStringToString");
    EXPECT_EQ(CALL(KxAppendUnicodeToString)(osal, nullptr, text->Buffer), error(4));
    statuses.expect_one(4, "string", "KxAppendUnicodeToString");
    EXPECT_EQ(CALL(KxAppendUnicodeToString)(osal, nullptr, nullptr), error(4));
    statuses.expect_one(4, "string", "KxAppendUnicodeToString");
    EXPECT_EQ(CALL(KxAppendUnicodeToString)(osal, text, nullptr), KC_OK);
    statuses.expect_none();
    EXPECT_EQ(text.text(), wide(u"abc"));
}

TEST_P(CountedString, AppendOfItselfDoubles) {
    WideString text(u"abc", 14);
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, text, text), KC_OK);
    EXPECT_EQ(text.text(), wide(u"abcabc"));
    EXPECT_EQ(text.unit(6), 0);
}

TEST_P(CountedString, AppendOfAnOverlappingSourceMovesIt) {
    WideString text(u"abcdefgh", 32);
    text->Length = 6;
    UNICODE_STRING tail = {10, 10, text->Buffer + 2};  // cdefg, which the copy lands on
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, text, &tail), KC_OK);
    EXPECT_EQ(text.text(), wide(u"abccdefg"));
}

TEST_P(CountedString, AppendWithOddLengthsWorksByBytes) {
    WideString dest(u"ab", 8);
    WideString source(u"\u6463");
    dest->Length = 3;
    source->Length = 1;
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), KC_OK);
    EXPECT_EQ(dest->Length, 4);
    EXPECT_EQ(dest.unit(1), 'b' | 0x63 << 8);
    EXPECT_EQ(dest.unit(2), 0);
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, dest, source), KC_OK);
    EXPECT_EQ(dest->Length, 5);
    EXPECT_EQ(dest.unit(2), 0x63);
    EXPECT_EQ(dest.unit(3), kUntouched & 0xFF00);  // the terminator is two bytes, behind the data
}

TEST_P(CountedString, AppendWithoutBuffersAddsTheLengthsOnly) {
    UNICODE_STRING nowhere = {2, 8, nullptr};
    WideString text(u"abc", 20);
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, &nowhere, text), KC_OK);
    EXPECT_EQ(nowhere.Length, 8);
    UNICODE_STRING missing = {4, 4, nullptr};
    EXPECT_EQ(CALL(KxAppendUnicodeStringToString)(osal, text, &missing), KC_OK);
    EXPECT_EQ(text->Length, 10);
    EXPECT_EQ(text.unit(3), kUntouched);
    EXPECT_EQ(text.unit(5), 0);
}

TEST_P(CountedString, AppendOfZeroTerminatedText) {
    WideString dest(u"ab", 12);
    WCHAR text[] = {'c', 'd', 0};
    EXPECT_EQ(CALL(KxAppendUnicodeToString)(osal, dest, text), KC_OK);
    EXPECT_EQ(dest.text(), wide(u"abcd"));
    WCHAR long_text[] = {'e', 'f', 'g', 0};
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxAppendUnicodeToString)(osal, dest, long_text), error(7));
    statuses.expect_one(7, "string", "KxAppendUnicodeStringToString");
    EXPECT_EQ(dest.text(), wide(u"abcd"));
}

TEST_P(CountedString, IntegersAreWrittenInTheBase) {
    const struct {
        UINT32 value, base;
        const char16_t* text;
    } rows[] = {{255, 16, u"ff"},
                {255, 10, u"255"},
                {255, 2, u"255"},
                {255, 8, u"377"},
                {0, 10, u"0"},
                {0xFFFFFFFF, 10, u"4294967295"},
                {0xDEADBEEF, 16, u"deadbeef"},
                {0xFFFFFFFF, 8, u"37777777777"},
                {7, 0, u"7"}};
    for (const auto& row : rows) {
        WideString string(u"", 40);
        EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, row.value, row.base, string), KC_OK);
        EXPECT_EQ(string.text(), wide(row.text));
        EXPECT_EQ(string.unit(string->Length / 2), 0);
    }
}

TEST_P(CountedString, AnIntegerMayFillTheCapacity) {
    WideString string(u"", 6);
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 123, 10, string), KC_OK);
    EXPECT_EQ(string.text(), wide(u"123"));
    EXPECT_EQ(string.unit(3), kUntouched);
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 4567, 10, string), error(7));
    statuses.expect_one(7, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(string->Length, 6);
    EXPECT_EQ(string.unit(3), kUntouched);
}

TEST_P(CountedString, AnIntegerWithoutRoomGivesTheRoomNeeded) {
    UNICODE_STRING none = {0, 0, nullptr};
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 123, 10, &none), KC_OK);
    EXPECT_EQ(none.Length, 8);
    WideString odd(u"", 1);
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 123, 10, odd), KC_OK);
    EXPECT_EQ(odd->Length, 8);
    EXPECT_EQ(odd.unit(0), kUntouched);
    UNICODE_STRING small = {2, 4, nullptr};
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 123, 10, &small), error(7));
    EXPECT_EQ(small.Length, 2);
}

TEST_P(CountedString, IntegersAreReadInTheBase) {
    const struct {
        const char16_t* text;
        UINT32 base, value;
    } rows[] = {
        {u"ff", 16, 255}, {u"0xFF", 16, 255},      {u"0x10", 0, 16},   {u"010", 0, 8},
        {u"101", 2, 5},   {u"z", 36, 35},          {u"12abc", 10, 12}, {u"abc", 10, 0},
        {u" 42", 10, 42}, {u"-1", 10, 0xFFFFFFFF}, {u"5", 1, 0},       {u"4294967297", 10, 1},
        {u"5", 37, 0}};
    for (const auto& row : rows) {
        WideString string(row.text);
        UINT32 value = 0xEEEE;
        EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, string, row.base, &value), KC_OK);
        EXPECT_EQ(value, row.value);
    }
}

TEST_P(CountedString, ANumberOfSixtyFiveCharactersIsTheLongest) {
    const std::u16string zeroes(64, u'0');
    WideString longest((zeroes + u"7").c_str());
    UINT32 value = 0;
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, longest, 10, &value), KC_OK);
    EXPECT_EQ(value, 7u);
    WideString longer((zeroes + u"07").c_str());
    value = 0xEEEE;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, longer, 10, &value), error(7));
    statuses.expect_one(7, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(value, 0xEEEEu);
}

TEST_P(CountedString, AnOddByteIsNoPartOfANumber) {
    WideString string(u"123");
    string->Length = 5;
    UINT32 value = 0;
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, string, 10, &value), KC_OK);
    EXPECT_EQ(value, 12u);
}

TEST_P(CountedString, NoTextIsNoNumber) {
    WideString empty(u"");
    UNICODE_STRING missing = {4, 4, nullptr};
    UINT32 value = 0xEEEE;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, empty, 10, &value), error(4));
    statuses.expect_one(4, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, &missing, 10, &value), error(4));
    statuses.expect_one(4, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(value, 0xEEEEu);
}

TEST_P(CountedString, IntegersNeedTheirPointers) {
    WideString string(u"1");
    UINT32 value;
    StatusRecorder statuses;
    EXPECT_EQ(CALL(KxIntegerToUnicodeString)(osal, 1, 10, nullptr), error(4));
    statuses.expect_one(4, "string", "KxIntegerToUnicodeString");
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, nullptr, 10, &value), error(4));
    statuses.expect_one(4, "string", "KxUnicodeStringToInteger");
    EXPECT_EQ(CALL(KxUnicodeStringToInteger)(osal, string, 10, nullptr), error(4));
    statuses.expect_one(4, "string", "KxUnicodeStringToInteger");
}

}  // namespace
}  // namespace osal_test
