// Statuses, references and instances through the C++ face.
#include <stdlib.h>

#include "support/face_test.h"

namespace osal_test {
namespace {

constexpr KCSTATUS kBadHandle =
    KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_INVALID_HANDLE);

TEST(FaceStatus, HasItsPartsAndWords) {
    const kx::Status status = kBadHandle;
    EXPECT_TRUE(status.is_error());
    EXPECT_EQ(status.code(), KC_CODE_INVALID_HANDLE);
    EXPECT_EQ(status.facility(), KC_FACILITY_OSAL);
    EXPECT_STREQ(status.text(), KcStatusName(kBadHandle));
    EXPECT_STREQ(status.facility_text(), "osal");
    EXPECT_NE(status, kx::Status{});
    EXPECT_FALSE(kx::Status{}.is_error());
}

TEST(FaceStatus, OnlyErrorsAreThrown) {
    EXPECT_EQ(kx::check(KC_OK), KC_OK);
    EXPECT_EQ(kx::check(1), 1u);  // a plain value
    try {
        kx::check(kBadHandle);
        FAIL();
    } catch (const kx::Error& error) {
        EXPECT_EQ(error.status(), kx::Status(kBadHandle));
        EXPECT_STREQ(error.what(), KcStatusName(kBadHandle));
    }
}

using Interfaces = FaceTest;

UINT32 references(const kx::Ref<IOsal>& ref) {
    ref.call<&IOsalVtbl::AddRef>();
    return ref.call<&IOsalVtbl::Release>();
}

TEST_F(Interfaces, CopiesCountReferences) {
    EXPECT_EQ(references(service), 1u);
    {
        kx::Service copy = service;
        EXPECT_EQ(copy.get(), service.get());
        EXPECT_EQ(references(service), 2u);
        kx::Service moved = std::move(copy);
        EXPECT_EQ(references(moved), 2u);
        EXPECT_FALSE(copy);
        moved = service;
        EXPECT_EQ(references(moved), 2u);
    }
    EXPECT_EQ(references(service), 1u);
    EXPECT_FALSE(kx::Ref<IOsal>{});
}

TEST_F(Interfaces, AnAdoptedReferenceIsGivenBack) {
    service.call<&IOsalVtbl::AddRef>();
    { kx::Service adopted(service.get()); }
    EXPECT_EQ(references(service), 1u);
}

TEST_F(Interfaces, AServiceBearsItsName) {
    EXPECT_STREQ(counters().ModuleName, kName);
}

TEST_F(Interfaces, TheIdentifiersAreThoseOfTheLibrary) {
    EXPECT_TRUE(kx::create<IOsal>(kx::id::CLSID_OrvaneOsal, kx::id::IID_IOrvaneOsal_1));
    EXPECT_EQ(kx::id::IID_IUnknown.Data4[7], 0x46);
}

TEST_F(Interfaces, AClassThatNobodyServesIsThrown) {
    const GUID nobody = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    EXPECT_EQ(code_of([&] { kx::create<IOsal>(nobody, kx::id::IID_IUnknown); }),
              KC_CODE_UNSUPPORTED);
    EXPECT_EQ(code_of([&] { kx::create<IOsal>(kx::id::CLSID_OrvaneOsal, nobody); }),
              KC_CODE_UNSUPPORTED);
}

TEST(FaceRuntime, ARefusalStopsWhatWasStarted) {
    try {
        kx::Runtime runtime("/no such folder");
        FAIL();
    } catch (const kx::Error& error) {
        EXPECT_EQ(error.code(), KC_CODE_INVALID_HANDLE);
        EXPECT_EQ(error.status().facility(), KC_FACILITY_RUNTIME);
    }
    void* out = nullptr;
    EXPECT_EQ(KC_CODE(LcmCreateInstance(&kx::id::CLSID_OrvaneOsal, nullptr,
                                        &kx::id::IID_IOrvaneOsal_1, &out)),
              KC_CODE_FAILED);
}

TEST(FaceRuntime, MayBeStartedAgain) {
    for (int round = 0; round < 3; ++round) {
        kx::Runtime runtime;
        EXPECT_TRUE(kx::Service("again"));
    }
}

}  // namespace
}  // namespace osal_test
