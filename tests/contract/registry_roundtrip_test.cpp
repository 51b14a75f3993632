// Registry keys and values on the real registry library: what was set is what is read.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "osal/registry.h"
#include "support/registry_folder.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

const WCHAR* wide(const std::u16string& text) {
    return reinterpret_cast<const WCHAR*>(text.c_str());
}

class RoundTrip : RegistryFolder, public BothWays {
  protected:
    RoundTrip() {
        EXPECT_EQ(CALL(KxCreateKey)(osal, wide(u"Client"), KX_KEY_ALL_ACCESS, &key), KC_OK);
    }
    ~RoundTrip() override { CALL(KxCloseKey)(osal, key); }

    KCSTATUS set(const std::u16string& name, KX_REG_TYPE type, const std::string& data) {
        return CALL(KxSetValueKey)(osal, key, wide(name), type, data.data(),
                                   static_cast<UINT32>(data.size()));
    }
    KCSTATUS set_text(const std::u16string& name, KX_REG_TYPE type, const std::u16string& text) {
        return CALL(KxSetValueKey)(osal, key, wide(name), type, text.c_str(),
                                   static_cast<UINT32>(text.size() * 2 + 2));
    }
    auto* value() { return reinterpret_cast<KX_KEY_VALUE_INFORMATION*>(words.data()); }
    std::string data() {
        return {reinterpret_cast<char*>(words.data()) + value()->ValueOffset, value()->ValueLength};
    }
    std::u16string text() {
        std::u16string units(value()->ValueLength / 2, 0);
        std::memcpy(units.data(), data().data(), units.size() * 2);
        return units;
    }
    std::u16string name() { return reinterpret_cast<const char16_t*>(value()->KeyValueName); }
    KCSTATUS query(const std::u16string& name) {
        return CALL(KxQueryValueKey)(osal, key, wide(name), words.data(), size(), &result);
    }
    KCSTATUS enumerate(UINT32 index) {
        return CALL(KxEnumerateValueKey)(osal, key, index, words.data(), size(), &result);
    }
    UINT32 size() { return static_cast<UINT32>(words.size() * sizeof(UINT64)); }

    std::vector<UINT64> words = std::vector<UINT64>(1 << 13);
    HANDLE key = nullptr;
    UINT32 result = 0;
};
OSAL_BOTH_WAYS(RoundTrip);

TEST_P(RoundTrip, EveryPlainTypeComesBackByNameAndByIndex) {
    const std::pair<KX_REG_TYPE, std::string> cases[] = {
        {KX_REG_BINARY, std::string("\0\xFF\0", 3)},
        {KX_REG_UINT32, "1234"},
        {KX_REG_UINT64, "12345678"}};
    for (const auto& [type, bytes] : cases) {
        ASSERT_EQ(set(u"v", type, bytes), KC_OK);
        ASSERT_EQ(query(u"V"), KC_OK);
        EXPECT_EQ(value()->ValueType, type);
        EXPECT_EQ(data(), bytes);
        ASSERT_EQ(enumerate(0), KC_OK);
        EXPECT_EQ(name(), u"v");
        EXPECT_EQ(value()->ValueType, type);
        EXPECT_EQ(data(), bytes);
    }
}

TEST_P(RoundTrip, StringsAndListsComeBack) {
    const std::u16string list(u"one\0two\0", 8);
    ASSERT_EQ(set_text(u"string", KX_REG_SZ, u"some text"), KC_OK);
    ASSERT_EQ(set_text(u"list", KX_REG_MULTI_SZ, list), KC_OK);
    ASSERT_EQ(query(u"string"), KC_OK);
    EXPECT_EQ(text(), std::u16string(u"some text\0", 10));
    EXPECT_EQ(result, value()->ValueOffset + value()->ValueLength);
    ASSERT_EQ(query(u"list"), KC_OK);
    EXPECT_EQ(text(), list);  // without the terminator of the list
    ASSERT_EQ(enumerate(0), KC_OK);
    EXPECT_EQ(text(), list + std::u16string(2, u'\0'));
}

TEST_P(RoundTrip, ValuesWithoutDataComeBackEmpty) {
    for (KX_REG_TYPE type = KX_REG_BINARY; type <= KX_REG_UINT64; ++type) {
        ASSERT_EQ(set(u"v", type, ""), KC_OK);
        ASSERT_EQ(query(u"v"), KC_OK);
        EXPECT_EQ(value()->ValueType, type);
        EXPECT_EQ(value()->ValueLength, 0u);
    }
}

TEST_P(RoundTrip, AMebibyteComesBack) {
    words.resize(1 << 18);
    std::string bytes(1 << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7);
    ASSERT_EQ(set(u"large", KX_REG_BINARY, bytes), KC_OK);
    ASSERT_EQ(query(u"large"), KC_OK);
    EXPECT_TRUE(data() == bytes);
    ASSERT_EQ(enumerate(0), KC_OK);
    EXPECT_TRUE(data() == bytes);
}

TEST_P(RoundTrip, AMebibyteOfTextComesBack) {
    words.resize(1 << 20);
    std::u16string large;
    while (large.size() < 1 << 20)
        large += u"A line of the text.\n";
    ASSERT_EQ(set_text(u"large", KX_REG_SZ, large), KC_OK);
    ASSERT_EQ(query(u"large"), KC_OK);
    EXPECT_TRUE(text() == large + u'\0');
    ASSERT_EQ(enumerate(0), KC_OK);
    EXPECT_TRUE(text() == large + u'\0' + u'\0');
}

TEST_P(RoundTrip, ReadingDoesNotWriteAndWritingDoesNotRead) {
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    ASSERT_EQ(CALL(KxOpenKey)(osal, wide(u"Client"), KX_KEY_READ, &reader), KC_OK);
    ASSERT_EQ(CALL(KxOpenKey)(osal, wide(u"Client"), KX_KEY_WRITE, &writer), KC_OK);
    EXPECT_EQ(CALL(KxSetValueKey)(osal, reader, wide(u"v"), KX_REG_BINARY, "x", 1), 0xC7F50006u);
    EXPECT_EQ(CALL(KxSetValueKey)(osal, writer, wide(u"v"), KX_REG_BINARY, "x", 1), KC_OK);
    EXPECT_EQ(CALL(KxQueryValueKey)(osal, writer, wide(u"v"), words.data(), size(), &result),
              0xC7F50006u);
    CALL(KxCloseKey)(osal, reader);
    CALL(KxCloseKey)(osal, writer);
}

TEST_P(RoundTrip, KeysAreMadeListedAndDeleted) {
    HANDLE sub = nullptr;
    EXPECT_EQ(CALL(KxOpenKey)(osal, wide(u"Client\\Sub"), KX_KEY_READ, &sub), 0xC7F50003u);
    ASSERT_EQ(CALL(KxCreateKey)(osal, wide(u"\\Client\\\\Sub\\"), 0, &sub), KC_OK);
    ASSERT_EQ(CALL(KxEnumerateKey)(osal, key, 0, words.data(), size(), &result), KC_OK);
    const auto* found = reinterpret_cast<KX_KEY_INFORMATION*>(words.data());
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(found->KeyName)), u"Sub");
    EXPECT_EQ(CALL(KxDeleteKey)(osal, key), 0xC7F51003u);
    EXPECT_EQ(CALL(KxDeleteKey)(osal, sub), KC_OK);
    EXPECT_EQ(CALL(KxCloseKey)(osal, sub), KC_OK);
    EXPECT_EQ(CALL(KxEnumerateKey)(osal, key, 0, words.data(), size(), &result), 0xC7F50009u);
    HANDLE root = nullptr;
    EXPECT_EQ(CALL(KxOpenKey)(osal, wide(u""), KX_KEY_READ, &root), KC_OK);
    CALL(KxCloseKey)(osal, root);
}

TEST(RoundTripOfMany, TenThousandValuesAreListedInOrder) {
    constexpr UINT32 kValues = 10'000;
    // In memory where there is such a folder: each value waits for the disk otherwise.
    if (std::filesystem::exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
    RegistryFolder folder;
    DllStart();
    PIOsal osal = new_instance();
    HANDLE key = nullptr;
    ASSERT_EQ(KxCreateKey(osal, wide(u"Many"), KX_KEY_ALL_ACCESS, &key), KC_OK);
    const auto name_of = [](UINT32 number) {
        const auto digits = std::to_string(100'000 + number);
        return std::u16string(digits.begin(), digits.end());
    };
    for (UINT32 number = kValues; number-- > 0;)
        ASSERT_EQ(KxSetValueKey(osal, key, wide(name_of(number)), KX_REG_UINT32, &number, 4),
                  KC_OK);
    std::vector<UINT64> words(64);
    auto* value = reinterpret_cast<KX_KEY_VALUE_INFORMATION*>(words.data());
    UINT32 result = 0;
    for (UINT32 number = 0; number < kValues; ++number) {
        ASSERT_EQ(KxEnumerateValueKey(osal, key, number, value, 512, &result), KC_OK);
        ASSERT_EQ(reinterpret_cast<const char16_t*>(value->KeyValueName), name_of(number));
    }
    EXPECT_EQ(KxEnumerateValueKey(osal, key, kValues, value, 512, &result), 0xC7F50009u);
    KxCloseKey(osal, key);
    osal->lpVtbl->Release(osal);
    DllStop();
}

// Names and strings beyond ASCII, in pages that hold them and pages that do not.
struct InPage : testing::TestWithParam<const char*> {};

TEST_P(InPage, NamesAndStringsBeyondAsciiComeBack) {
    RegistryFolder folder;
    setenv("TESSEL_CODE_PAGE", GetParam(), 1);
    DllStart();
    PIOsal osal = new_instance();
    const std::u16string name = u"Gr\u00FC\u00DFe \u20AC \u4E2D";
    HANDLE key = nullptr;
    ASSERT_EQ(KxCreateKey(osal, wide(name), KX_KEY_ALL_ACCESS, &key), KC_OK);
    ASSERT_EQ(KxSetValueKey(osal, key, wide(name), KX_REG_SZ, name.c_str(),
                            static_cast<UINT32>(name.size() * 2 + 2)),
              KC_OK);
    std::vector<UINT64> words(512);
    UINT32 result = 0;
    ASSERT_EQ(KxQueryValueKey(osal, key, wide(name), words.data(), 4096, &result), KC_OK);
    const auto* value = reinterpret_cast<KX_KEY_VALUE_INFORMATION*>(words.data());
    const auto* bytes = reinterpret_cast<char*>(words.data());
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(bytes + value->ValueOffset)), name);
    ASSERT_EQ(KxEnumerateValueKey(osal, key, 0, words.data(), 4096, &result), KC_OK);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(value->KeyValueName)), name);
    KxCloseKey(osal, key);
    osal->lpVtbl->Release(osal);
    DllStop();
}
INSTANTIATE_TEST_SUITE_P(RoundTrip, InPage,
                         testing::Values("UTF-8", "ISO-8859-1", "ISO-8859-15", "IBM850", "KOI8-R",
                                         "EUC-JP"));

}  // namespace
}  // namespace osal_test
