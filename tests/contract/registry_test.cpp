// Registry keys and values, by export and by slot: what is passed down to a stand-in of the
// registry library, what is made of its answers, and every failure with the line that it names.
#include "osal/registry.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "osal/conversion.h"
#include "osal/linux/internal/config.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/registry_stand_in.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

const WCHAR* wide(const char16_t* text) {
    return reinterpret_cast<const WCHAR*>(text);
}

using Calls = std::vector<std::string>;

constexpr char kCanary = '\x5A';
constexpr std::size_t kMargin = 32;

// A caller's buffer of a length, with bytes behind it that must stay as they are.
class Output {
  public:
    explicit Output(UINT32 length)
        : length(length), words_((length + kMargin) / sizeof(UINT64) + 1) {
        std::memset(words_.data(), kCanary, words_.size() * sizeof(UINT64));
    }
    char* bytes() { return reinterpret_cast<char*>(words_.data()); }
    auto* value() { return reinterpret_cast<KX_KEY_VALUE_INFORMATION*>(bytes()); }
    auto* key() { return reinterpret_cast<KX_KEY_INFORMATION*>(bytes()); }
    bool unhurt_behind() {
        return std::all_of(bytes() + length, bytes() + length + kMargin,
                           [](char byte) { return byte == kCanary; });
    }
    std::u16string units(UINT32 offset, UINT32 size) {
        std::u16string text(size / 2, 0);
        std::memcpy(text.data(), bytes() + offset, text.size() * 2);
        return text;
    }
    std::u16string value_name() { return units(20, value()->KeyValueNameLength); }
    std::u16string value_units() { return units(value()->ValueOffset, value()->ValueLength); }

    const UINT32 length;
    UINT32 result = 0xABCD;

  private:
    std::vector<UINT64> words_;
};

// Names with their terminator, as records hold them.
std::u16string terminated(std::u16string text) {
    return text + u'\0';
}

// Chosen before the library starts.
struct OemCodePage {
    OemCodePage() { setenv("TESSEL_CODE_PAGE", "ISO-8859-1", 1); }
};

class RegistryKeys : OemCodePage, public BothWays {
  protected:
    RegistryKeys() {
        CALL(KxOpenKey)(osal, wide(u"Key"), KX_KEY_READ, &key);
        registry.take();
    }
    ~RegistryKeys() override {
        if (key != nullptr) CALL(KxCloseKey)(osal, key);
    }

    // That exactly one status was built, the one of this module's table.
    void expect_failure(const char* function, UINT32 code, UINT32 line) {
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), 1u);
        EXPECT_EQ(built[0].severity, 3u);
        EXPECT_EQ(built[0].facility, 2033u);
        EXPECT_EQ(built[0].code, code);
        EXPECT_EQ(built[0].file, "config");
        EXPECT_EQ(built[0].function, function);
        EXPECT_EQ(built[0].line, line);
    }
    void expect_conversion_failure(const char* function, UINT32 code) {
        statuses.expect_one(code, "locale", function);
    }
    // A record of another kind, which no service may take for a key.
    HANDLE other_record() {
        static _KX_KEY_HANDLE_ other = {};
        other.Signature = osal::four_cc("EVNT");
        return &other;
    }
    std::vector<HANDLE> bad_handles() { return {nullptr, other_record()}; }

    KCSTATUS query(Output& out, const char16_t* name) {
        return CALL(KxQueryValueKey)(osal, key, name != nullptr ? wide(name) : nullptr, out.bytes(),
                                     out.length, &out.result);
    }
    KCSTATUS enumerate_values(Output& out, UINT32 index = 0) {
        return CALL(KxEnumerateValueKey)(osal, key, index, out.bytes(), out.length, &out.result);
    }
    KCSTATUS enumerate_keys(Output& out, UINT32 index = 0) {
        return CALL(KxEnumerateKey)(osal, key, index, out.bytes(), out.length, &out.result);
    }

    RegistryStandIn registry;
    StatusRecorder statuses;
    HANDLE key = nullptr;
};
OSAL_BOTH_WAYS(RegistryKeys);

constexpr KCSTATUS kFromBelow = 0xC7F50006;

// --- opening, creating, closing -----------------------------------------------------------------

TEST_P(RegistryKeys, OpeningPassesThePathBelowTheRootAndTheAccess) {
    HANDLE opened = nullptr;
    for (UINT32 access : {0u, 1u, 2u}) {
        ASSERT_EQ(CALL(KxOpenKey)(osal, wide(u"A\\B"), access, &opened), KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"Open(80000002, \"Software\\Orvane\\A\\B\", 0, " +
                                          std::to_string(access) + ", &)"}));
        CALL(KxCloseKey)(osal, opened);
        EXPECT_EQ(registry.take(), (Calls{"Close(1234)"}));
    }
}

TEST_P(RegistryKeys, CreatingChecksTheAccessAndDoesNotPassIt) {
    HANDLE made = nullptr;
    for (UINT32 access : {0u, 1u, 2u}) {
        ASSERT_EQ(CALL(KxCreateKey)(osal, wide(u"A"), access, &made), KC_OK);
        EXPECT_EQ(registry.take(),
                  (Calls{"Create(80000002, \"Software\\Orvane\\A\", 0, 0, 0, 0, 0, &, &)"}));
        CALL(KxCloseKey)(osal, made);
        registry.take();
    }
}

TEST_P(RegistryKeys, TheRecordCarriesSignatureHandleAndPath) {
    const auto* opened = static_cast<_KX_KEY_HANDLE_*>(key);
    EXPECT_EQ(opened->Signature, 0x2059454Bu);
    EXPECT_EQ(opened->Key.KeyHandle, registry.key);
    EXPECT_STREQ(opened->Key.KeyName, "Software\\Orvane\\Key");
}

TEST_P(RegistryKeys, OpenKeysAreCountedToTheirInstance) {
    EXPECT_EQ(record->KeyInUse, 1u);
    HANDLE opened = nullptr;
    HANDLE made = nullptr;
    CALL(KxOpenKey)(osal, wide(u"A"), 0, &opened);
    CALL(KxCreateKey)(osal, wide(u"A"), 0, &made);
    EXPECT_EQ(record->KeyInUse, 3u);
    CALL(KxCloseKey)(osal, opened);
    CALL(KxCloseKey)(osal, made);
    EXPECT_EQ(record->KeyInUse, 1u);
}

TEST_P(RegistryKeys, OpeningWithBadPointersLeavesTheHandleUntouched) {
    OsalObjInfo foreign = {};
    const auto check = [&](auto service, const char* function, UINT32 line) {
        for (PIOsal self : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(&foreign)}) {
            HANDLE opened = this;
            EXPECT_EQ(service(self, wide(u"A"), 0, &opened), error(4));
            EXPECT_EQ(opened, this);
            expect_failure(function, 4, line);
        }
        HANDLE opened = this;
        EXPECT_EQ(service(osal, nullptr, 0, &opened), error(4));
        EXPECT_EQ(opened, this);
        expect_failure(function, 4, line);
        EXPECT_EQ(service(osal, wide(u"A"), 0, nullptr), error(4));
        expect_failure(function, 4, line);
    };
    check(CALL(KxOpenKey), "KxOpenKey", 779);
    check(CALL(KxCreateKey), "KxCreateKey", 269);
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(record->KeyInUse, 1u);
}

TEST_P(RegistryKeys, AnUnknownAccessIsRefusedWithANullHandle) {
    for (UINT32 access : {3u, 0xFFFFFFFFu}) {
        HANDLE opened = this;
        EXPECT_EQ(CALL(KxOpenKey)(osal, wide(u"A"), access, &opened), error(4));
        EXPECT_EQ(opened, nullptr);
        expect_failure("KxOpenKey", 4, 799);
        opened = this;
        EXPECT_EQ(CALL(KxCreateKey)(osal, wide(u"A"), access, &opened), error(4));
        EXPECT_EQ(opened, nullptr);
        expect_failure("KxCreateKey", 4, 289);
    }
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, OpeningWithoutMemoryDoesNothing) {
    HANDLE opened = this;
    {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxOpenKey)(osal, wide(u"A"), 0, &opened), error(5));
    }
    expect_failure("KxOpenKey", 5, 845);
    EXPECT_EQ(opened, nullptr);
    opened = this;
    {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxCreateKey)(osal, wide(u"A"), 0, &opened), error(5));
    }
    expect_failure("KxCreateKey", 5, 342);
    EXPECT_EQ(opened, nullptr);
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(record->KeyInUse, 1u);
}

TEST_P(RegistryKeys, ARefusalOfTheRegistryIsPassedOn) {
    registry.status = kFromBelow;
    for (auto service : {CALL(KxOpenKey), CALL(KxCreateKey)}) {
        HANDLE opened = this;
        EXPECT_EQ(service(osal, wide(u"A"), 0, &opened), kFromBelow);
        EXPECT_EQ(opened, nullptr);
    }
    EXPECT_EQ(record->KeyInUse, 1u);
    statuses.expect_none();
    registry.status = KC_OK;
}

TEST_P(RegistryKeys, AStatusOfTheRegistryThatIsNoErrorIsPassedOnWithAHandle) {
    registry.status = 0x47F50001;
    HANDLE opened = nullptr;
    EXPECT_EQ(CALL(KxOpenKey)(osal, wide(u"A"), 0, &opened), 0x47F50001u);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(record->KeyInUse, 2u);
    EXPECT_EQ(CALL(KxCloseKey)(osal, opened), 0x47F50001u);
    registry.status = KC_OK;
}

TEST_P(RegistryKeys, APathOf239BytesIsTheLongest) {
    const std::u16string longest(239, u'n');
    HANDLE opened = nullptr;
    ASSERT_EQ(CALL(KxOpenKey)(osal, wide(longest.c_str()), 0, &opened), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"Open(80000002, \"Software\\Orvane\\" +
                                      std::string(239, 'n') + "\", 0, 0, &)"}));
    CALL(KxCloseKey)(osal, opened);
    registry.take();
    const std::u16string longer(240, u'n');
    EXPECT_EQ(CALL(KxOpenKey)(osal, wide(longer.c_str()), 0, &opened), error(7));
    EXPECT_EQ(opened, nullptr);
    expect_conversion_failure("KxWideCharToMultiByte", 7);
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(record->KeyInUse, 1u);
}

TEST_P(RegistryKeys, PathsArePassedDownAsTheyAre) {
    for (const auto& [path, narrow] :
         {std::pair{u"", ""}, {u"\\A", "\\A"}, {u"A\\\\B\\", "A\\\\B\\"}}) {
        HANDLE opened = nullptr;
        ASSERT_EQ(CALL(KxOpenKey)(osal, wide(path), 0, &opened), KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"Open(80000002, \"Software\\Orvane\\" +
                                          std::string(narrow) + "\", 0, 0, &)"}));
        CALL(KxCloseKey)(osal, opened);
        registry.take();
    }
}

TEST_P(RegistryKeys, ClosingChecksInstanceAndHandle) {
    OsalObjInfo foreign = {};
    for (PIOsal self : {PIOsal{nullptr}, reinterpret_cast<PIOsal>(&foreign)}) {
        EXPECT_EQ(CALL(KxCloseKey)(self, key), error(3));
        expect_failure("KxCloseKey", 3, 227);
    }
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(CALL(KxCloseKey)(osal, bad), error(3));
        expect_failure("KxCloseKey", 3, 227);
    }
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(record->KeyInUse, 1u);
}

TEST_P(RegistryKeys, ClosingWipesTheRecordEvenIfTheRegistryRefuses) {
    Quarantine quarantine;
    registry.status = kFromBelow;
    EXPECT_EQ(CALL(KxCloseKey)(osal, key), kFromBelow);
    EXPECT_EQ(record->KeyInUse, 0u);
    const auto* bytes = static_cast<const char*>(key);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(_KX_KEY_HANDLE_), [](char b) { return b == 0; }));
    EXPECT_EQ(CALL(KxCloseKey)(osal, key), error(3));
    expect_failure("KxCloseKey", 3, 227);
    key = nullptr;
}

// --- deleting -----------------------------------------------------------------------------------

TEST_P(RegistryKeys, DeletingAKeyGoesByPathAndKeepsTheHandle) {
    EXPECT_EQ(CALL(KxDeleteKey)(osal, key), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"DeleteKey(80000002, \"Software\\Orvane\\Key\")"}));
    EXPECT_EQ(CALL(KxDeleteKey)(nullptr, key), KC_OK);  // the instance is not looked at
    EXPECT_EQ(record->KeyInUse, 1u);
    registry.status = kFromBelow;
    EXPECT_EQ(CALL(KxDeleteKey)(osal, key), kFromBelow);
    registry.status = KC_OK;
    registry.take();
    EXPECT_EQ(CALL(KxCloseKey)(osal, key), KC_OK);
    key = nullptr;
}

TEST_P(RegistryKeys, DeletingThroughABadHandleIsRefused) {
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(CALL(KxDeleteKey)(osal, bad), error(3));
        expect_failure("KxDeleteKey", 3, 378);
        EXPECT_EQ(CALL(KxDeleteValue)(osal, bad, wide(u"v")), error(3));
        expect_failure("KxDeleteValue", 3, 406);
    }
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, ANullOrEmptyValueNameMeansDefault) {
    Output out(100);
    for (const WCHAR* name : {static_cast<const WCHAR*>(nullptr), wide(u"")}) {
        EXPECT_EQ(CALL(KxDeleteValue)(osal, key, name), KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"DeleteValue(1234, \"default\")"}));
        EXPECT_EQ(CALL(KxSetValueKey)(osal, key, name, KX_REG_BINARY, "x", 1), KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"Set(1234, \"default\", 0, 0, 1)"}));
        EXPECT_EQ(CALL(KxSetValueKey)(osal, key, name, KX_REG_SZ, u"x", 4), KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"Set(1234, \"default\", 0, 2, 2)"}));
        EXPECT_EQ(CALL(KxQueryValueKey)(osal, key, name, out.bytes(), out.length, &out.result),
                  KC_OK);
        EXPECT_EQ(registry.take(), (Calls{"Query(1234, \"default\", 0, &, &84)"}));
        EXPECT_EQ(out.value_name(), terminated(u"default"));
    }
}

TEST_P(RegistryKeys, DeletingAValueWithoutMemoryDoesNothing) {
    {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxDeleteValue)(osal, key, wide(u"v")), error(5));
    }
    expect_failure("KxDeleteValue", 5, 414);
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, AValueNameOf255BytesIsTheLongest) {
    const std::u16string longest(255, u'v');
    const std::string narrow(255, 'v');
    EXPECT_EQ(CALL(KxDeleteValue)(osal, key, wide(longest.c_str())), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"DeleteValue(1234, \"" + narrow + "\")"}));
    EXPECT_EQ(CALL(KxSetValueKey)(osal, key, wide(longest.c_str()), KX_REG_BINARY, "x", 1), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"Set(1234, \"" + narrow + "\", 0, 0, 1)"}));
    const std::u16string longer(256, u'v');
    EXPECT_EQ(CALL(KxDeleteValue)(osal, key, wide(longer.c_str())), error(7));
    expect_conversion_failure("KxWideCharToMultiByte", 7);
    EXPECT_EQ(CALL(KxSetValueKey)(osal, key, wide(longer.c_str()), KX_REG_SZ, u"x", 4), error(7));
    expect_conversion_failure("KxWideCharToMultiByte", 7);
    EXPECT_EQ(registry.take(), Calls{});
}

// --- enumerating keys ---------------------------------------------------------------------------

TEST_P(RegistryKeys, AnEnumeratedKeyFillsItsRecordAndNoMore) {
    registry.name = "Sub";
    registry.written = 0x1122334455667788;
    Output out(100);
    ASSERT_EQ(enumerate_keys(out, 7), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"EnumKey(1234, 7, &511, 0, 0, 0, &)"}));
    EXPECT_EQ(out.key()->LastWriteTime, 0x1122334455667788u);
    EXPECT_EQ(out.key()->Reserved, 0x5A5A5A5Au);
    EXPECT_EQ(out.key()->KeyNameLength, 8u);
    EXPECT_EQ(out.units(16, 8), terminated(u"Sub"));
    EXPECT_EQ(out.result, 0xABCDu);
}

TEST_P(RegistryKeys, EnumeratingKeysChecksItsArgumentsInOrder) {
    Output out(100);
    const auto call = CALL(KxEnumerateKey);
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(call(osal, bad, 0, nullptr, 0, nullptr), error(3));
        expect_failure("KxEnumerateKey", 3, 462);
    }
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 23, &out.result), error(4));
    expect_failure("KxEnumerateKey", 4, 469);
    EXPECT_EQ(call(osal, key, 0, nullptr, 24, &out.result), error(4));
    expect_failure("KxEnumerateKey", 4, 469);
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 24, nullptr), error(4));
    expect_failure("KxEnumerateKey", 4, 469);
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 24, &out.result), error(7));
    expect_failure("KxEnumerateKey", 7, 474);
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(out.result, 0xABCDu);
}

TEST_P(RegistryKeys, LengthsOf25And26AreFoundTooSmallAfterTheRegistryWasAsked) {
    for (UINT32 length : {25u, 26u}) {
        Output out(length);
        EXPECT_EQ(enumerate_keys(out), error(7));
        expect_failure("KxEnumerateKey", 7, 514);
        EXPECT_EQ(registry.take().size(), 1u);
        EXPECT_TRUE(out.unhurt_behind());
        registry.status = kFromBelow;
        EXPECT_EQ(enumerate_keys(out), kFromBelow);
        registry.status = KC_OK;
        registry.take();
    }
}

TEST_P(RegistryKeys, EnumeratingKeysWithoutMemoryIsCode5) {
    Output out(100);
    {
        HeapFault fault(1);
        EXPECT_EQ(enumerate_keys(out), error(5));
    }
    expect_failure("KxEnumerateKey", 5, 526);
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, AnyAnswerButZeroEndsAnEnumerationOfKeys) {
    Output out(100);
    for (KCSTATUS status : {0xC7F50009u, 0x47F50001u}) {
        registry.status = status;
        EXPECT_EQ(enumerate_keys(out), status);
        EXPECT_EQ(enumerate_values(out), status);
    }
    registry.status = KC_OK;
    statuses.expect_none();
}

TEST_P(RegistryKeys, ANameThatJustFitsIsTakenAndAUnitMoreIsNot) {
    registry.name = "12345678";
    for (UINT32 length = 27; length < 80; ++length) {
        Output out(length);
        const UINT32 room = (length - 25) / 2;
        EXPECT_EQ(enumerate_keys(out), room >= 8 ? KC_OK : error(7)) << length;
        EXPECT_TRUE(out.unhurt_behind()) << length;
        if (room >= 8)
            EXPECT_EQ(out.units(16, out.key()->KeyNameLength), terminated(u"12345678"));
        else
            expect_conversion_failure("KxMultiByteToWideChar", 7);
    }
}

// --- enumerating values -------------------------------------------------------------------------

TEST_P(RegistryKeys, EnumeratingValuesChecksItsArgumentsInOrder) {
    Output out(100);
    const auto call = CALL(KxEnumerateValueKey);
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(call(osal, bad, 0, nullptr, 0, nullptr), error(3));
        expect_failure("KxEnumerateValueKey", 3, 560);
    }
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 23, &out.result), error(4));
    expect_failure("KxEnumerateValueKey", 4, 567);
    EXPECT_EQ(call(osal, key, 0, nullptr, 24, &out.result), error(4));
    expect_failure("KxEnumerateValueKey", 4, 567);
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 24, nullptr), error(4));
    expect_failure("KxEnumerateValueKey", 4, 567);
    EXPECT_EQ(call(osal, key, 0, out.bytes(), 24, &out.result), error(7));
    expect_failure("KxEnumerateValueKey", 7, 572);
    EXPECT_EQ(registry.take(), Calls{});
    {
        HeapFault fault(1);
        EXPECT_EQ(enumerate_values(out), error(5));
    }
    expect_failure("KxEnumerateValueKey", 5, 753);
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, AnEnumeratedValueFillsItsRecord) {
    registry.name = "n";
    registry.data = "12345";
    Output out(100);
    ASSERT_EQ(enumerate_values(out, 3), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"EnumValue(1234, 3, &100, 0, &, &100)"}));
    EXPECT_EQ(out.value()->Reserved, 0x5A5A5A5Au);
    EXPECT_EQ(out.value()->ValueType, KX_REG_BINARY);
    EXPECT_EQ(out.value()->KeyValueNameLength, 4u);
    EXPECT_EQ(out.value()->ValueOffset, 28u);
    EXPECT_EQ(out.value()->ValueLength, 5u);
    EXPECT_EQ(out.value_name(), terminated(u"n"));
    EXPECT_EQ(std::string(out.bytes() + 28, 5), "12345");
    EXPECT_EQ(out.result, 0xABCDu);
}

TEST_P(RegistryKeys, LengthsOf25And26HaveNoRoomForAValueName) {
    for (UINT32 length : {25u, 26u}) {
        Output out(length);
        registry.type = KX_REG_UINT64;
        EXPECT_EQ(enumerate_values(out), error(7));
        expect_failure("KxEnumerateValueKey", 7, 645);
        EXPECT_EQ(out.value()->ValueType, KX_REG_UINT64);
        EXPECT_TRUE(out.unhurt_behind());
    }
}

TEST_P(RegistryKeys, AnEnumeratedValueWithoutANameDoesNotConvert) {
    registry.name = "";
    Output out(100);
    EXPECT_EQ(enumerate_values(out), error(4));
    expect_conversion_failure("KxMultiByteToWideChar", 4);
}

TEST_P(RegistryKeys, AnEnumeratedValueOfAnUnknownTypeIsAnInvalidArgument) {
    registry.type = 5;
    for (UINT32 length : {33u, 34u, 100u}) {  // with the name four units: no room, none, plenty
        Output out(length);
        EXPECT_EQ(enumerate_values(out), error(4));
        expect_failure("KxEnumerateValueKey", 4, 744);
    }
}

// The room behind the name "name" is length - 34 bytes.
TEST_P(RegistryKeys, EachTypeSaysWhenItsDataDoNotFit) {
    struct Case {
        UINT32 type;
        std::string data;
        INT64 needed;
        UINT32 line;
    };
    for (const auto& [type, data, needed, line] :
         {Case{KX_REG_BINARY, "12345", 5, 703}, Case{KX_REG_BINARY, "", 0, 703},
          Case{KX_REG_UINT32, "1234", 4, 714}, Case{KX_REG_UINT64, "12345678", 8, 739}}) {
        registry.type = type;
        registry.data = data;
        for (UINT32 length = 33; length < 50; ++length) {
            Output out(length);
            const bool fits = INT64{length} - 34 >= needed;
            EXPECT_EQ(enumerate_values(out), fits ? KC_OK : error(7)) << type << ' ' << length;
            EXPECT_TRUE(out.unhurt_behind()) << type << ' ' << length;
            if (!fits) {
                expect_failure("KxEnumerateValueKey", 7, line);
                continue;
            }
            EXPECT_EQ(out.value()->ValueLength, needed);
            EXPECT_EQ(std::string(out.bytes() + 34, data.size()), data);
        }
    }
}

TEST_P(RegistryKeys, AShortNumberIsCompletedWithZeroes) {
    registry.data = "\x11";
    for (UINT32 type : {KX_REG_UINT32, KX_REG_UINT64}) {
        registry.type = type;
        Output out(100);
        ASSERT_EQ(enumerate_values(out), KC_OK);
        EXPECT_EQ(out.value()->ValueLength, type == KX_REG_UINT32 ? 4u : 8u);
        UINT64 number = 0;
        std::memcpy(&number, out.bytes() + 34, out.value()->ValueLength);
        EXPECT_EQ(number, 0x11u);
    }
}

// A string of n units needs n + 2 units within half of the units of room; its terminator counts and
// another zero unit follows.
TEST_P(RegistryKeys, AnEnumeratedStringNeedsFourTimesItsLength) {
    registry.type = KX_REG_SZ;
    registry.data = std::string("abcd\0", 5);
    for (UINT32 length = 33; length < 80; ++length) {
        Output out(length);
        const KCSTATUS status = enumerate_values(out);
        EXPECT_TRUE(out.unhurt_behind()) << length;
        const INT64 room = (INT64{length} - 34 - 1) / 2;
        if (INT64{length} - 34 - 1 <= 1) {
            EXPECT_EQ(status, error(7));
            expect_failure("KxEnumerateValueKey", 7, 686);
        } else if (room < 4) {
            EXPECT_EQ(status, error(7));
            expect_conversion_failure("KxMultiByteToWideChar", 7);
        } else if (8 >= room - 2) {
            EXPECT_EQ(status, error(7));
            expect_failure("KxMultiByteToWideCharMultiple", 7, 175);
        } else {
            EXPECT_EQ(status, KC_OK);
            EXPECT_EQ(out.value_units(), terminated(terminated(u"abcd")));
        }
    }
}

TEST_P(RegistryKeys, AnEnumeratedListKeepsItsStringsAndGainsAZeroUnit) {
    registry.type = KX_REG_MULTI_SZ;
    registry.data = std::string("ab\0c\0\0", 6);
    Output out(100);
    ASSERT_EQ(enumerate_values(out), KC_OK);
    EXPECT_EQ(out.value_units(), (std::u16string{u'a', u'b', 0, u'c', 0, 0, 0}));
}

TEST_P(RegistryKeys, AnEnumeratedStringWithoutDataIsOneZeroUnitAndAnEmptyListTwo) {
    for (const auto& [type, data, units] : {std::tuple{KX_REG_SZ, 0, 1u},
                                            {KX_REG_SZ, 1, 1u},
                                            {KX_REG_MULTI_SZ, 0, 2u},
                                            {KX_REG_MULTI_SZ, 1, 2u},
                                            {KX_REG_MULTI_SZ, 2, 2u}}) {
        registry.type = type;
        registry.data = std::string(static_cast<std::size_t>(data), '\0');
        for (UINT32 space : {3u, 4u, 5u, 20u}) {
            Output out(34 + space);
            const bool fits = units * 2 <= space;
            EXPECT_EQ(enumerate_values(out), fits ? KC_OK : error(7)) << type << ' ' << space;
            EXPECT_TRUE(out.unhurt_behind());
            if (fits)
                EXPECT_EQ(out.value_units(), std::u16string(units, u'\0'));
            else
                expect_failure("KxEnumerateValueKey", 7, 686);
        }
    }
}

TEST_P(RegistryKeys, EnumeratedStringsThatLackTheirEndAreEnded) {
    for (UINT32 type : {KX_REG_SZ, KX_REG_MULTI_SZ}) {
        registry.type = type;
        registry.data = "ab";
        Output out(100);
        ASSERT_EQ(enumerate_values(out), KC_OK);
        EXPECT_EQ(out.value_units().substr(0, 3), terminated(u"ab"));
        registry.data = std::string(100, 'x');  // as much as is asked for: no byte left behind it
        EXPECT_EQ(enumerate_values(out), error(7));
        EXPECT_TRUE(out.unhurt_behind());
        statuses.take();
    }
}

// --- querying -----------------------------------------------------------------------------------

TEST_P(RegistryKeys, QueryingChecksItsArgumentsInOrder) {
    Output out(100);
    const auto call = CALL(KxQueryValueKey);
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(call(osal, bad, nullptr, nullptr, 0, nullptr), error(3));
        expect_failure("KxQueryValueKey", 3, 898);
    }
    EXPECT_EQ(call(osal, key, nullptr, nullptr, 0, &out.result), error(4));
    expect_failure("KxQueryValueKey", 4, 903);
    EXPECT_EQ(call(osal, key, nullptr, out.bytes(), 0, nullptr), error(4));
    expect_failure("KxQueryValueKey", 4, 903);
    for (UINT32 length : {0u, 23u}) {
        EXPECT_EQ(call(osal, key, nullptr, out.bytes(), length, &out.result), error(7));
        expect_failure("KxQueryValueKey", 7, 908);
    }
    {
        HeapFault fault(1);
        EXPECT_EQ(query(out, u"v"), error(5));
    }
    expect_failure("KxQueryValueKey", 5, 1053);
    EXPECT_EQ(registry.take(), Calls{});
    EXPECT_EQ(out.result, 0xABCDu);
}

TEST_P(RegistryKeys, ANameThatTakesTheRoomToItsEndDoesNotFit) {
    for (UINT32 length = 24; length < 40; ++length) {  // "abc" and its terminator take 8 bytes
        Output out(length);
        registry.data = "";
        const bool fits = length - 24 > 8;
        EXPECT_EQ(query(out, u"abc"), fits ? KC_OK : error(7)) << length;
        EXPECT_TRUE(out.unhurt_behind()) << length;
        if (!fits) {
            expect_failure("KxQueryValueKey", 7, 928);
            EXPECT_EQ(registry.take(), Calls{});
            EXPECT_EQ(out.result, 0xABCDu);
        }
    }
}

// The name of a value always finds a work buffer, so the failure of line 962 cannot arise: not in
// the least room, nor where the sum of name and room just passes 32 bits.
TEST_P(RegistryKeys, EveryNameThatFitsHasRoomToBeConverted) {
    for (UINT32 units = 1; units < 40; ++units) {
        const std::u16string name(units, u'n');
        for (UINT32 length = 24; length < 24 + 2 * 40 + 3; ++length) {
            Output out(length);
            const bool fits = length - 24 > 2 * (units + 1);
            EXPECT_EQ(query(out, name.c_str()), fits ? KC_OK : error(7));
            for (const auto& built : statuses.take())
                EXPECT_EQ(built.line, 928u) << units << ' ' << length;
        }
    }
    registry.take();
    Output out(29);
    ASSERT_EQ(query(out, u"n"), KC_OK);
    EXPECT_EQ(registry.take(), (Calls{"Query(1234, \"n\", 0, &, &7)"}));
}

TEST_P(RegistryKeys, ALengthOfFourGigabytesIsNoWorkBufferOfNoBytes) {
    Output out(100);
    HeapFault fault(1, true);
    for (UINT32 units = 9; units < 15; ++units) {
        const std::u16string name(units, u'n');
        EXPECT_EQ(CALL(KxQueryValueKey)(osal, key, wide(name.c_str()), out.bytes(), ~UINT32{0},
                                        &out.result),
                  error(5));
        expect_failure("KxQueryValueKey", 5, 1053);
    }
}

TEST_P(RegistryKeys, AQueryPassesTheNameAndTheRoomThatIsLeft) {
    registry.data = "12345";
    Output out(60);
    ASSERT_EQ(query(out, u"abc"), KC_OK);
    // Of 60 - 24 - 8 bytes for data and twice 8 for the name, 4 hold the name.
    EXPECT_EQ(registry.take(), (Calls{"Query(1234, \"abc\", 0, &, &40)"}));
    EXPECT_EQ(out.value()->Reserved, 0u);
    EXPECT_EQ(out.value()->ValueType, KX_REG_BINARY);
    EXPECT_EQ(out.value()->KeyValueNameLength, 8u);
    EXPECT_EQ(out.value()->ValueOffset, 32u);
    EXPECT_EQ(out.value()->ValueLength, 5u);
    EXPECT_EQ(out.value_name(), terminated(u"abc"));
    EXPECT_EQ(std::string(out.bytes() + 32, 5), "12345");
}

// Where the registry was told to put the data of the last query.
const char* queried_data = nullptr;
KCSTATUS note_data(HANDLE, const CHAR*, UINT32*, UINT32* type, PVOID data, UINT32* size) {
    queried_data = static_cast<const char*>(data);
    std::memcpy(data, "12345678", 8);
    *size = 8;
    *type = KX_REG_UINT64;
    return KC_OK;
}

TEST_P(RegistryKeys, TheResultLengthOfANumberIsTakenInTheWorkBuffer) {
    Interpose hook("osal.so", "TsRegQueryValueExA", &note_data);
    Output out(100);
    ASSERT_EQ(query(out, u"v"), KC_OK);
    EXPECT_EQ(out.result, static_cast<UINT32>(queried_data + 8 - out.bytes()));
}

TEST_P(RegistryKeys, AStatusOfTheQueryIsPassedOnAndTheNameStays) {
    registry.status = 0xC7F50003;
    Output out(100);
    EXPECT_EQ(query(out, u"abc"), 0xC7F50003u);
    statuses.expect_none();
    EXPECT_EQ(out.value_name(), terminated(u"abc"));
    EXPECT_EQ(out.result, 0xABCDu);
    registry.status = KC_OK;
}

TEST_P(RegistryKeys, ANameThatConvertsToMoreThanTheWorkBufferHoldsIsTooLong) {
    const std::u16string name(100, u'\u4E2D');  // six bytes each
    Output out(24 + 202 + 20);
    EXPECT_EQ(query(out, name.c_str()), error(7));
    expect_conversion_failure("KxWideCharToMultiByte", 7);
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, QueriedDataMustFitBehindTheName) {
    registry.data = "12345";
    for (UINT32 type : {0u, 1u, 4u, 5u}) {
        registry.type = type;
        for (UINT32 space = 1; space < 9; ++space) {
            Output out(32 + space);
            EXPECT_EQ(query(out, u"abc"), space >= 5 ? KC_OK : error(7)) << space;
            EXPECT_TRUE(out.unhurt_behind());
            if (space >= 5)
                EXPECT_EQ(out.value()->ValueLength, 5u);
            else
                expect_failure("KxQueryValueKey", 7, 1045);
        }
    }
}

TEST_P(RegistryKeys, AQueriedStringWithoutDataHasNoLengthAndNoResultLength) {
    registry.data = "";
    for (UINT32 type : {KX_REG_SZ, KX_REG_MULTI_SZ})
        for (UINT32 space : {1u, 50u}) {
            registry.type = type;
            Output out(32 + space);
            out.value()->ValueLength = 99;
            EXPECT_EQ(query(out, u"abc"), KC_OK);
            EXPECT_EQ(out.value()->ValueLength, 0u);
            EXPECT_EQ(out.result, 0u);
            EXPECT_EQ(out.value_name(), terminated(u"abc"));
        }
}

TEST_P(RegistryKeys, AQueriedStringNeedsRoomForItsTerminator) {
    for (const std::string& data : {std::string("abcd"), std::string("abcd\0", 5)}) {
        registry.type = KX_REG_SZ;
        registry.data = data;
        for (UINT32 space = 1; space < 20; ++space) {
            Output out(32 + space);
            const KCSTATUS status = query(out, u"abc");
            EXPECT_TRUE(out.unhurt_behind()) << space;
            EXPECT_EQ(status, space >= 10 ? KC_OK : error(7)) << space;
            if (space >= 10) {
                EXPECT_EQ(out.value_units(), terminated(u"abcd"));
                EXPECT_EQ(out.result, 32u + 10);
            } else if (space < 2 || space >= 8) {
                expect_failure("KxQueryValueKey", 7, 1026);
            } else {
                expect_conversion_failure("KxMultiByteToWideChar", 7);
            }
        }
    }
}

TEST_P(RegistryKeys, AQueriedListLosesTheTerminatorOfTheList) {
    registry.type = KX_REG_MULTI_SZ;
    registry.data = std::string("ab\0c\0\0", 6);
    Output out(100);
    ASSERT_EQ(query(out, u"abc"), KC_OK);
    EXPECT_EQ(out.value_units(), (std::u16string{u'a', u'b', 0, u'c', 0}));
    EXPECT_EQ(out.result, out.value()->ValueOffset + out.value()->ValueLength);
}

TEST_P(RegistryKeys, AQueriedListWithoutStringsDoesNotConvert) {
    registry.type = KX_REG_MULTI_SZ;
    registry.data = std::string(1, '\0');
    Output out(100);
    EXPECT_EQ(query(out, u"abc"), error(4));
    expect_conversion_failure("KxMultiByteToWideChar", 4);
    EXPECT_EQ(out.result, 0xABCDu);
}

// --- setting ------------------------------------------------------------------------------------

TEST_P(RegistryKeys, SettingChecksHandleAndType) {
    const auto call = CALL(KxSetValueKey);
    for (HANDLE bad : bad_handles()) {
        EXPECT_EQ(call(osal, bad, nullptr, 9, nullptr, 0), error(3));
        expect_failure("KxSetValueKey", 3, 1085);
    }
    for (UINT32 type : {5u, 0xFFFFFFFFu}) {
        EXPECT_EQ(call(osal, key, wide(u"v"), type, "x", 1), error(4));
        expect_failure("KxSetValueKey", 4, 1184);
    }
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, NoDataMeansAValueOfNoBytesWhateverTheType) {
    const auto call = CALL(KxSetValueKey);
    for (UINT32 type = 0; type < 5; ++type)
        for (const auto& [data, length] :
             {std::pair<const void*, UINT32>{nullptr, 0}, {nullptr, 1000}, {"x", 0}}) {
            EXPECT_EQ(call(osal, key, wide(u"v"), type, data, length), KC_OK);
            EXPECT_EQ(registry.take(),
                      (Calls{"Set(1234, \"v\", 0, " + std::to_string(type) + ", 0)"}));
        }
}

TEST_P(RegistryKeys, NumbersMustHaveTheirSize) {
    const UINT64 number[2] = {0x1122334455667788, 0};
    const auto call = CALL(KxSetValueKey);
    for (UINT32 length = 1; length < 10; ++length) {
        EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_UINT32, number, length),
                  length == 4 ? KC_OK : error(4));
        if (length != 4) expect_failure("KxSetValueKey", 4, 1117);
        EXPECT_EQ(registry.take().size(), length == 4 ? 1u : 0u);
        EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_UINT64, number, length),
                  length == 8 ? KC_OK : error(4));
        if (length != 8) expect_failure("KxSetValueKey", 4, 1134);
        EXPECT_EQ(registry.take().size(), length == 8 ? 1u : 0u);
    }
}

TEST_P(RegistryKeys, SettingWithoutMemoryIsCode5AfterTheSizeWasJudged) {
    for (const auto& [type, line] : {std::pair{KX_REG_BINARY, 0u},
                                     {KX_REG_SZ, 0u},
                                     {KX_REG_UINT32, 1117u},
                                     {KX_REG_UINT64, 1134u}}) {
        HeapFault fault(1);
        EXPECT_EQ(CALL(KxSetValueKey)(osal, key, wide(u"v"), type, u"xy", 6), error(5));
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), line != 0 ? 2u : 1u);
        EXPECT_EQ(built.front().line, line != 0 ? line : 1188u);
        EXPECT_EQ(built.back().line, 1188u);
        EXPECT_EQ(built.back().code, 5u);
        EXPECT_EQ(built.back().function, "KxSetValueKey");
    }
    EXPECT_EQ(registry.take(), Calls{});
}

TEST_P(RegistryKeys, StringsAreSetWithTheirTerminatorsAndReadUpToThem) {
    const auto call = CALL(KxSetValueKey);
    EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_SZ, u"abc\0def\0", 18), KC_OK);
    EXPECT_EQ(registry.data, std::string("abc\0", 4));
    EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_MULTI_SZ, u"abc\0def\0", 18), KC_OK);
    EXPECT_EQ(registry.data, std::string("abc\0def\0\0", 9));
    // The length only gives the room: one byte of it is enough for a short string.
    EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_SZ, u"a longer text", 1), KC_OK);
    EXPECT_EQ(registry.data, std::string("a longer text\0", 14));
    EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_SZ, u"", 2), KC_OK);
    EXPECT_EQ(registry.data, "");
    EXPECT_EQ(call(osal, key, wide(u"v"), KX_REG_MULTI_SZ, u"", 2), KC_OK);
    EXPECT_EQ(registry.data, std::string(1, '\0'));
}

TEST_P(RegistryKeys, AStringLongerThanItsLengthAllowsIsTooLong) {
    const auto set = [&](std::size_t units, KX_REG_TYPE type) {
        std::u16string text(units, u'x');
        text.push_back(0);
        return CALL(KxSetValueKey)(osal, key, wide(u"v"), type, text.data(), 1);  // room for 261
    };
    EXPECT_EQ(set(259, KX_REG_SZ), KC_OK);
    EXPECT_EQ(registry.data.size(), 260u);
    EXPECT_EQ(set(260, KX_REG_SZ), error(7));
    expect_failure("WideCharToMultiByteMultiple", 7, 97);
    EXPECT_EQ(set(262, KX_REG_SZ), error(7));
    expect_conversion_failure("KxWideCharToMultiByte", 7);
    EXPECT_EQ(set(259, KX_REG_MULTI_SZ), KC_OK);
    EXPECT_EQ(registry.data.size(), 261u);
}

TEST_P(RegistryKeys, AStatusOfTheSettingIsPassedOn) {
    registry.status = kFromBelow;
    for (UINT32 type : {KX_REG_BINARY, KX_REG_SZ})
        EXPECT_EQ(CALL(KxSetValueKey)(osal, key, wide(u"v"), type, u"x", 4), kFromBelow);
    EXPECT_EQ(CALL(KxDeleteValue)(osal, key, wide(u"v")), kFromBelow);
    statuses.expect_none();
    registry.status = KC_OK;
}

// --- the conversions of lists -------------------------------------------------------------------

class StringLists : OemCodePage, public ServiceTest {
  protected:
    KCSTATUS narrow(const char16_t* text, UINT32 multiple, UINT32 room) {
        bytes.assign(room + kMargin, kCanary);
        count = room;
        const KCSTATUS status =
            WideCharToMultiByteMultiple(osal, 2, multiple, wide(text), 77, bytes.data(), &count);
        EXPECT_TRUE(std::all_of(bytes.begin() + room, bytes.end(),
                                [](char byte) { return byte == kCanary; }));
        return status;
    }
    KCSTATUS widen(const char* text, UINT32 multiple, UINT32 room) {
        units.assign(room + kMargin, u'\x5A5A');
        count = room;
        const KCSTATUS status = KxMultiByteToWideCharMultiple(
            osal, 2, multiple, text, 77, reinterpret_cast<PWCHAR>(units.data()), &count);
        EXPECT_TRUE(std::all_of(units.begin() + room, units.end(),
                                [](char16_t unit) { return unit == u'\x5A5A'; }));
        return status;
    }
    void expect_line(const char* function, UINT32 line) {
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), 1u);
        EXPECT_EQ(built[0].code, 7u);
        EXPECT_EQ(built[0].file, "config");
        EXPECT_EQ(built[0].function, function);
        EXPECT_EQ(built[0].line, line);
    }

    StatusRecorder statuses;
    std::string bytes;
    std::u16string units;
    UINT32 count = 0;
};

TEST_F(StringLists, AnEmptyListIsOneByteAndAnEmptyStringNone) {
    EXPECT_EQ(narrow(u"", 1, 1), KC_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(bytes[0], '\0');
    EXPECT_EQ(narrow(u"", 0, 10), KC_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(bytes[0], kCanary);
    EXPECT_EQ(widen("", 1, 1), KC_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(units[0], u'\0');
    EXPECT_EQ(widen("", 0, 10), KC_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(units[0], u'\x5A5A');
    statuses.expect_none();
}

TEST_F(StringLists, ANarrowStringNeedsAByteMoreThanItsTerminator) {
    EXPECT_EQ(narrow(u"abc", 0, 5), KC_OK);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(bytes.substr(0, 4), std::string("abc\0", 4));
    for (UINT32 room : {3u, 4u}) {
        EXPECT_EQ(narrow(u"abc", 0, room), error(7));
        EXPECT_EQ(count, room);
        expect_line("WideCharToMultiByteMultiple", 97);
    }
    EXPECT_EQ(narrow(u"abc", 0, 2), error(7));
    statuses.expect_one(7, "locale", "KxWideCharToMultiByte");
    EXPECT_EQ(narrow(u"abc", 0, 0), error(7));
    expect_line("WideCharToMultiByteMultiple", 79);
}

TEST_F(StringLists, ANarrowListEndsWithAnEmptyString) {
    EXPECT_EQ(narrow(u"ab\0c\0", 1, 6), KC_OK);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(bytes.substr(0, 6), std::string("ab\0c\0\0", 6));
    EXPECT_EQ(narrow(u"ab\0c\0", 1, 5), error(7));
    expect_line("WideCharToMultiByteMultiple", 97);
    EXPECT_EQ(narrow(u"", 1, 0), error(7));
    expect_line("WideCharToMultiByteMultiple", 118);
    EXPECT_EQ(narrow(u"ab\0c\0", 2, 6), KC_OK);  // only exactly 1 means a list
    EXPECT_EQ(count, 3u);
}

// The end of the output is as many bytes away as units are given.
TEST_F(StringLists, AWideListUsesHalfOfItsRoom) {
    EXPECT_EQ(widen("abc", 0, 9), KC_OK);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(units.substr(0, 4), terminated(u"abc"));
    for (UINT32 room : {3u, 4u, 8u}) {
        EXPECT_EQ(widen("abc", 0, room), error(7));
        EXPECT_EQ(count, room);
        expect_line("KxMultiByteToWideCharMultiple", 175);
    }
    EXPECT_EQ(widen("abc", 0, 2), error(7));
    statuses.expect_one(7, "locale", "KxMultiByteToWideChar");
    EXPECT_EQ(widen("abc", 0, 0), error(7));
    expect_line("KxMultiByteToWideCharMultiple", 159);
    EXPECT_EQ(widen("a\0b\0", 1, 5), error(7));  // a byte is left for the second string
    expect_line("KxMultiByteToWideCharMultiple", 159);
    EXPECT_EQ(widen("", 1, 0), error(7));
    expect_line("KxMultiByteToWideCharMultiple", 196);
}

TEST_F(StringLists, AWideListEndsWithAnEmptyString) {
    EXPECT_EQ(widen("ab\0c\0", 1, 12), KC_OK);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(units.substr(0, 6), (std::u16string{u'a', u'b', 0, u'c', 0, 0}));
    EXPECT_EQ(widen("ab\0c\0", 2, 12), KC_OK);
    EXPECT_EQ(count, 3u);
}

}  // namespace
}  // namespace osal_test
