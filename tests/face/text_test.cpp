// Conversion of text through the C++ face.
#include "osal/text.hpp"

#include <stdlib.h>
#include <sys/mman.h>

#include "support/face_test.h"
#include "support/faults.h"

namespace osal_test {
namespace {

using namespace std::string_literals;
using kx::CodePage;

// Chosen before the components start.
struct OemCodePage {
    OemCodePage() { setenv("TESSEL_CODE_PAGE", "850", 1); }
};

class FaceText : OemCodePage, public FaceTest {};

TEST_F(FaceText, GoesBothWaysInEveryCodePage) {
    const std::u16string wide = u"gr\u00FC\u00DF";
    EXPECT_EQ(kx::to_wide(service, "gr\xC3\xBC\xC3\x9F"), wide);
    EXPECT_EQ(kx::to_narrow(service, wide), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(kx::to_narrow(service, wide, CodePage::oem), "gr\x81\xE1");
    EXPECT_EQ(kx::to_wide(service, "gr\x81\xE1", CodePage::oem), wide);
    EXPECT_EQ(kx::to_narrow(service, wide, CodePage::ansi), "gr\xFC\xDF");
    EXPECT_EQ(kx::to_wide(service, "gr\xFC\xDF", CodePage::ansi), wide);
}

TEST_F(FaceText, ThatIsEmptyStaysEmpty) {
    EXPECT_EQ(kx::to_wide(service, ""), u"");
    EXPECT_EQ(kx::to_wide(service, {}), u"");
    EXPECT_EQ(kx::to_narrow(service, {}), "");
    EXPECT_EQ(kx::to_upper(service, {}), u"");
}

TEST_F(FaceText, KeepsItsZeros) {
    for (CodePage page : {CodePage::ansi, CodePage::oem, CodePage::utf8}) {
        EXPECT_EQ(kx::to_wide(service, "\0"s, page), u"\0"s);
        EXPECT_EQ(kx::to_wide(service, "\0a\0b\0\0"s, page), u"\0a\0b\0\0"s);
        EXPECT_EQ(kx::to_narrow(service, u"\0\0\0"s, page), "\0\0\0"s);
        EXPECT_EQ(kx::to_narrow(service, u"\0a\0b\0\0"s, page), "\0a\0b\0\0"s);
    }
}

TEST_F(FaceText, NeedsNoTerminator) {
    EXPECT_EQ(kx::to_wide(service, std::string_view("abcdef").substr(1, 3)), u"bcd");
    EXPECT_EQ(kx::to_narrow(service, std::u16string_view(u"abcdef").substr(1, 3)), "bcd");
}

// Two, three and six bytes a unit, from a single unit to more than any buffer on the stack.
TEST_F(FaceText, HasTheRoomItTakes) {
    for (std::size_t length : {1, 2, 3, 41, 42, 43, 255, 256, 257, 100'000}) {
        std::string two, three, six;
        for (std::size_t i = 0; i < length; ++i) {
            two += "\xC3\xBC";
            three += "\xE4\xB8\xAD";
            six += "[4E2D]";
        }
        EXPECT_EQ(kx::to_narrow(service, std::u16string(length, u'\u00FC')), two);
        EXPECT_EQ(kx::to_wide(service, two), std::u16string(length, u'\u00FC'));
        EXPECT_EQ(kx::to_narrow(service, std::u16string(length, u'\u4E2D')), three);
        EXPECT_EQ(kx::to_wide(service, three), std::u16string(length, u'\u4E2D'));
        EXPECT_EQ(kx::to_narrow(service, std::u16string(length, u'\u4E2D'), CodePage::oem), six);
        EXPECT_EQ(kx::to_wide(service, six, CodePage::oem), std::u16string(length, u'\u4E2D'));
        EXPECT_EQ(kx::to_wide(service, std::string(length, 'a')), std::u16string(length, u'a'));
        EXPECT_EQ(kx::to_narrow(service, std::u16string(length, u'a')), std::string(length, 'a'));
    }
}

TEST_F(FaceText, ThatDoesNotConvertIsAnError) {
    EXPECT_EQ(code_of([&] { kx::to_wide(service, "a\xFF"); }), KC_CODE_FAILED);
    EXPECT_EQ(code_of([&] { kx::to_wide(service, "\xF0\x9F\x98\x80"); }), KC_CODE_FAILED);
    EXPECT_EQ(code_of([&] { kx::to_narrow(service, std::u16string(1, char16_t{0xD800})); }),
              KC_CODE_FAILED);
}

TEST_F(FaceText, OfAnUnknownCodePageIsAnError) {
    const auto unknown = static_cast<CodePage>(9);
    EXPECT_EQ(code_of([&] { kx::to_wide(service, "a", unknown); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { kx::to_narrow(service, u"a", unknown); }), KC_CODE_INVALID_ARGUMENT);
}

TEST_F(FaceText, WithoutPoolMemoryIsAnError) {
    HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { kx::to_narrow(service, std::u16string(1000, u'a')); }),
              KC_CODE_NO_RESOURCES);
}

// Addresses that nobody may touch: the length is judged before any character.
TEST_F(FaceText, LongerThanTheServicesCountIsALengthError) {
    constexpr std::size_t kLength = std::size_t{1} << 31;
    void* area =
        mmap(nullptr, kLength * 2, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(area, MAP_FAILED);
    const std::string_view narrow(static_cast<const char*>(area), kLength);
    const std::u16string_view wide(static_cast<const char16_t*>(area), kLength);
    EXPECT_THROW(kx::to_wide(service, narrow), std::length_error);
    EXPECT_THROW(kx::to_narrow(service, wide), std::length_error);
    munmap(area, kLength * 2);
}

TEST_F(FaceText, IsUpperCased) {
    EXPECT_EQ(kx::to_upper(service, u"abc-1\0z"s), u"ABC-1\0Z"s);
}

}  // namespace
}  // namespace osal_test
