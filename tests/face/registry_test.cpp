// Registry keys and values through the C++ face, in a registry of the test's own.
#include "osal/registry.hpp"

#include <type_traits>

#include "host/tsreg.h"
#include "support/face_test.h"
#include "support/faults.h"
#include "support/registry_folder.h"

namespace osal_test {
namespace {

using namespace std::string_literals;
using kx::Key;
using kx::KeyAccess;
using kx::RegistryBytes;
using kx::RegistryStrings;

class FaceRegistry : RegistryFolder, public FaceTest {
  protected:
    // Stores what no client of the library could, through the registry library itself.
    static void store(const char* name, UINT32 type, const std::string& data) {
        HANDLE raw = nullptr;
        ASSERT_EQ(TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, "Software\\Orvane\\Client", 0,
                                  KX_KEY_ALL_ACCESS, &raw),
                  KC_OK);
        EXPECT_EQ(
            TsRegSetValueExA(raw, name, 0, type, data.data(), static_cast<UINT32>(data.size())),
            KC_OK);
        EXPECT_EQ(TsRegCloseKey(raw), KC_OK);
    }

    void TearDown() override {
        { const Key closed = std::move(key); }
        FaceTest::TearDown();
    }

    Key key = Key::create(service, "Client");
};

using Names = std::vector<std::string>;

TEST_F(FaceRegistry, AKeyIsFoundOnceItWasMade) {
    EXPECT_FALSE(Key::find(service, "Client\\Sub"));
    EXPECT_EQ(code_of([&] { Key(service, "Client\\Sub"); }), KC_CODE_INVALID_HANDLE);
    { const Key made = Key::create(service, "Client\\Sub"); }
    EXPECT_TRUE(Key::find(service, "Client\\Sub"));
    EXPECT_NE(Key(service, "Client\\Sub").handle(), nullptr);
    EXPECT_TRUE(Key::find(service, ""));
}

TEST_F(FaceRegistry, APathThatCannotBeIsAnError) {
    const std::string large(240, 'k');
    EXPECT_EQ(code_of([&] { Key(service, large); }), KC_CODE_BUFFER_TOO_SMALL);
    EXPECT_EQ(code_of([&] { Key::find(service, large); }), KC_CODE_BUFFER_TOO_SMALL);
    EXPECT_EQ(code_of([&] { Key::create(service, large); }), KC_CODE_BUFFER_TOO_SMALL);
    EXPECT_EQ(code_of([&] { Key::find(service, "a\0b"s); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { Key::find(service, "a", static_cast<KeyAccess>(3)); }),
              KC_CODE_INVALID_ARGUMENT);
}

TEST_F(FaceRegistry, AKeyMovesAndClosesTheOneThatWasOpen) {
    static_assert(!std::is_copy_constructible_v<Key> && !std::is_copy_assignable_v<Key>);
    Key other = Key::create(service, "Other");
    const HANDLE handle = other.handle();
    EXPECT_EQ(counters().KeyInUse, 2u);
    key = std::move(other);
    EXPECT_EQ(key.handle(), handle);
    EXPECT_EQ(other.handle(), nullptr);
    EXPECT_EQ(counters().KeyInUse, 1u);
}

TEST_F(FaceRegistry, EveryTypeComesBack) {
    key.set("number", UINT32{0xFFFFFFFF});
    key.set("large", UINT64{1} << 63);
    key.set("text", "gr\xC3\xBC\xC3\x9F, \xE4\xB8\xAD");
    key.set("list", RegistryStrings{"one", "\xE4\xB8\xAD", "three"});
    const RegistryBytes bytes = {std::byte{0}, std::byte{255}, std::byte{0}};
    key.set("bytes", bytes);
    EXPECT_EQ(key.get<UINT32>("number"), 0xFFFFFFFF);
    EXPECT_EQ(key.get<UINT64>("LARGE"), UINT64{1} << 63);
    EXPECT_EQ(key.get<std::string>("text"), "gr\xC3\xBC\xC3\x9F, \xE4\xB8\xAD");
    EXPECT_EQ(key.get<RegistryStrings>("list"), (RegistryStrings{"one", "\xE4\xB8\xAD", "three"}));
    EXPECT_EQ(key.get<RegistryBytes>("bytes"), bytes);
}

TEST_F(FaceRegistry, TheIndexOfAValueIsItsType) {
    key.set("bytes", RegistryBytes{});
    key.set("number", UINT32{1});
    key.set("text", "t");
    key.set("list", RegistryStrings{"t"});
    key.set("large", UINT64{1});
    EXPECT_EQ(key.value("bytes")->index(), KX_REG_BINARY);
    EXPECT_EQ(key.value("number")->index(), KX_REG_UINT32);
    EXPECT_EQ(key.value("text")->index(), KX_REG_SZ);
    EXPECT_EQ(key.value("list")->index(), KX_REG_MULTI_SZ);
    EXPECT_EQ(key.value("large")->index(), KX_REG_UINT64);
}

TEST_F(FaceRegistry, EmptyValuesComeBackEmpty) {
    key.set("text", "");
    key.set("list", RegistryStrings{});
    key.set("bytes", RegistryBytes{});
    EXPECT_EQ(key.get<std::string>("text"), "");
    EXPECT_EQ(key.get<RegistryStrings>("list"), RegistryStrings{});
    EXPECT_EQ(key.get<RegistryBytes>("bytes"), RegistryBytes{});
    EXPECT_EQ(key.value_names(), (Names{"bytes", "list", "text"}));
}

TEST_F(FaceRegistry, ValuesOfOthersAreReadAsFarAsTheyGo) {
    store("terminator", KX_REG_SZ, "\0"s);
    store("end of list", KX_REG_MULTI_SZ, "\0"s);
    store("two ends", KX_REG_MULTI_SZ, "\0\0"s);
    store("inner zero", KX_REG_SZ, "ab\0cd\0"s);
    store("early end", KX_REG_MULTI_SZ, "a\0\0b\0\0"s);
    store("unterminated", KX_REG_MULTI_SZ, "a\0b"s);
    store("short number", KX_REG_UINT32, "\x01\x02"s);
    store("no number", KX_REG_UINT64, "");
    EXPECT_EQ(key.get<std::string>("terminator"), "");
    EXPECT_EQ(key.get<RegistryStrings>("end of list"), RegistryStrings{});
    EXPECT_EQ(key.get<RegistryStrings>("two ends"), RegistryStrings{});
    EXPECT_EQ(key.get<std::string>("inner zero"), "ab");
    EXPECT_EQ(key.get<RegistryStrings>("early end"), RegistryStrings{"a"});
    EXPECT_EQ(key.get<RegistryStrings>("unterminated"), (RegistryStrings{"a", "b"}));
    EXPECT_EQ(key.get<UINT32>("short number"), 0x0201u);
    EXPECT_EQ(key.get<UINT64>("no number"), 0u);
}

TEST_F(FaceRegistry, AValueOfAnotherTypeIsAnErrorAndOneThatIsMissingIsNone) {
    key.set("number", UINT32{1});
    store("strange", 7, "x");
    EXPECT_EQ(code_of([&] { key.get<UINT64>("number"); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.get<std::string>("number"); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.value("strange"); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(key.get<UINT64>("missing"), std::nullopt);
    EXPECT_FALSE(key.value("missing"));
}

TEST_F(FaceRegistry, WhatAZeroWouldCutIsAnError) {
    EXPECT_EQ(code_of([&] { key.set("text", "a\0b"s); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.set("a\0b"s, UINT32{1}); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.value("a\0b"s); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.remove_value("a\0b"s); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] {
                  key.set("l", RegistryStrings{"a", "", "b"});
              }),
              KC_CODE_INVALID_ARGUMENT);
    EXPECT_EQ(code_of([&] { key.set("l", RegistryStrings{"a\0b"s}); }), KC_CODE_INVALID_ARGUMENT);
    EXPECT_TRUE(key.value_names().empty());
}

TEST_F(FaceRegistry, AnEmptyNameMeansDefault) {
    key.set("", UINT32{1});
    EXPECT_EQ(key.get<UINT32>("default"), 1u);
    EXPECT_EQ(key.value_names(), Names{"default"});
    EXPECT_TRUE(key.remove_value(""));
}

TEST_F(FaceRegistry, LargeValuesFindTheirRoom) {
    std::string text;
    while (text.size() < 1 << 20)
        text += "A line of the text.\n";
    RegistryBytes bytes(1 << 20, std::byte{7});
    key.set("bytes", bytes);
    key.set("text", text);
    key.set("list", RegistryStrings(1000, std::string(100, 'x')));
    EXPECT_TRUE(key.get<RegistryBytes>("bytes") == bytes);
    EXPECT_TRUE(key.get<std::string>("text") == text);
    EXPECT_TRUE(key.get<RegistryStrings>("list") == RegistryStrings(1000, std::string(100, 'x')));
    EXPECT_EQ(key.value_names(), (Names{"bytes", "list", "text"}));
}

// Around the sizes at which the first buffer is just large enough, or not.
TEST_F(FaceRegistry, EverySizeFindsItsRoom) {
    for (std::size_t size = 480; size < 1030; size += size < 510 ? 1 : 37) {
        key.set("v", std::string(size, 'x'));
        EXPECT_EQ(key.get<std::string>("v"), std::string(size, 'x'));
        key.set("v", RegistryBytes(size, std::byte{1}));
        EXPECT_EQ(key.get<RegistryBytes>("v"), RegistryBytes(size, std::byte{1}));
    }
}

TEST_F(FaceRegistry, LongNamesAreKeptAndLongerOnesRefused) {
    const std::string name(255, 'n');
    key.set(name, UINT32{1});
    EXPECT_EQ(key.get<UINT32>(name), 1u);
    EXPECT_EQ(key.value_names(), Names{name});
    EXPECT_EQ(code_of([&] { key.set(name + "n", UINT32{1}); }), KC_CODE_BUFFER_TOO_SMALL);
    EXPECT_EQ(code_of([&] { key.value(name + "n"); }), KC_CODE_INVALID_ARGUMENT);
}

TEST_F(FaceRegistry, ValuesAreListedAndRemoved) {
    for (const char* name : {"c", "a", "b"})
        key.set(name, name);
    EXPECT_EQ(key.value_names(), (Names{"a", "b", "c"}));
    for (const std::string& name : key.value_names())
        EXPECT_TRUE(key.remove_value(name));
    EXPECT_TRUE(key.value_names().empty());
    EXPECT_FALSE(key.remove_value("a"));
}

TEST_F(FaceRegistry, ListsNamesWhateverTheValuesAre) {
    store("strange", 7, "x");
    store("", KX_REG_BINARY, "nameless");
    key.set("z", UINT32{1});
    EXPECT_EQ(key.value_names(), (Names{"strange", "z"}));
}

TEST_F(FaceRegistry, KeysAreListedAndRemoved) {
    for (const char* path : {"Client\\Two", "Client\\One", "Client\\Two\\Deep"})
        Key::create(service, path);
    EXPECT_EQ(key.sub_keys(), (Names{"One", "Two"}));
    EXPECT_EQ(code_of([&] { Key(service, "Client\\Two").remove(); }), KC_CODE_BUSY);
    Key deep(service, "Client\\Two\\Deep");
    EXPECT_TRUE(deep.remove());
    EXPECT_FALSE(deep.remove());
    EXPECT_FALSE(deep.value("any"));
    EXPECT_EQ(code_of([&] { deep.value_names(); }), KC_CODE_INVALID_HANDLE);
    EXPECT_EQ(code_of([&] { deep.sub_keys(); }), KC_CODE_INVALID_HANDLE);
    EXPECT_TRUE(Key(service, "Client\\Two").remove());
    EXPECT_EQ(key.sub_keys(), Names{"One"});
}

TEST_F(FaceRegistry, AccessIsThatAskedFor) {
    Key reader(service, "Client", KeyAccess::read);
    Key writer(service, "Client", KeyAccess::write);
    EXPECT_EQ(code_of([&] { reader.set("v", UINT32{1}); }), KC_CODE_ACCESS_DENIED);
    EXPECT_EQ(code_of([&] { reader.remove_value("v"); }), KC_CODE_ACCESS_DENIED);
    writer.set("v", UINT32{1});
    EXPECT_EQ(code_of([&] { writer.value("v"); }), KC_CODE_ACCESS_DENIED);
    EXPECT_EQ(code_of([&] { writer.value_names(); }), KC_CODE_ACCESS_DENIED);
    EXPECT_EQ(reader.get<UINT32>("v"), 1u);
}

TEST_F(FaceRegistry, WithoutMemoryIsAnErrorAndLeavesNothing) {
    HeapFault fault(1, true);
    EXPECT_EQ(code_of([&] { Key(service, "Client"); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { key.set("v", UINT32{1}); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { key.value("v"); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { key.remove_value("v"); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { key.value_names(); }), KC_CODE_NO_RESOURCES);
    EXPECT_EQ(code_of([&] { key.sub_keys(); }), KC_CODE_NO_RESOURCES);
}

TEST_F(FaceRegistry, LongerThanAValueMayBeIsALengthError) {
    const std::byte nothing{};
    const std::span<const std::byte> bytes(&nothing, std::size_t{1} << 32);
    EXPECT_THROW(key.set("v", bytes), std::length_error);
}

}  // namespace
}  // namespace osal_test
