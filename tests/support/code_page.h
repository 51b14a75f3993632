// A service test in a code page of its choice.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "osal/linux/internal/locale.h"
#include "support/service_test.h"

namespace osal_test {

// Names the OEM code page in the environment. To be a base before that which starts the library.
struct PageInEnvironment {
    explicit PageInEnvironment(const char* page) { setenv("TESSEL_CODE_PAGE", page, 1); }
};

// Wide text of characters of 16 bits.
using Wide = std::vector<WCHAR>;
inline Wide wide(const char16_t* text) {
    const std::u16string units = text;
    return Wide(units.begin(), units.end());
}

// BothWays in an OEM code page; conversions of whole texts with room to spare. Of a failure the
// count has to stay, and nothing is returned.
class PageTest : private PageInEnvironment, public BothWays {
  protected:
    explicit PageTest(const char* page) : PageInEnvironment(page) {}

    Wide to_wide(UINT32 selector, const std::string& text, KCSTATUS expected = KC_OK) {
        Wide out(text.size() + 2, 0xEEEE);
        auto count = static_cast<UINT32>(out.size());
        EXPECT_EQ(CALL(KxMultiByteToWideChar)(osal, selector, text.data(),
                                              static_cast<INT32>(text.size()), out.data(), &count),
                  expected);
        if (expected != KC_OK) {
            EXPECT_EQ(count, out.size());  // as it was
            return {};
        }
        EXPECT_LT(count, out.size());
        EXPECT_EQ(out[count], 0);
        out.resize(count);
        return out;
    }

    std::string from_wide(UINT32 selector, const Wide& text, KCSTATUS expected = KC_OK) {
        std::string out(text.size() * 12 + 2, '\xEE');
        auto count = static_cast<UINT32>(out.size());
        EXPECT_EQ(CALL(KxWideCharToMultiByte)(osal, selector, text.data(),
                                              static_cast<INT32>(text.size()), out.data(), &count),
                  expected);
        if (expected != KC_OK) {
            EXPECT_EQ(count, out.size());  // as it was
            return {};
        }
        EXPECT_LT(count, out.size());
        EXPECT_EQ(out[count], 0);
        out.resize(count);
        return out;
    }
};

}  // namespace osal_test
