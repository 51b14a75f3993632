// Conversion between multi-byte and wide text, by export and by slot.
#include "osal/conversion.h"

#include "support/code_page.h"
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

}  // namespace
}  // namespace osal_test
