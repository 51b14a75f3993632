// Fixture of tests of the services: a started library and one instance, as a client has them.
//
// Each test of a binary runs in a process of its own, so start-up state is fresh in each.
#pragma once

#include <gtest/gtest.h>

#include "osal/internal/instance.h"
#include "osal/linux/internal/init.h"
#include "osal/osal.h"

namespace osal_test {

// A new instance from the service factory; the caller owns one reference. Starts the library.
PIOsal new_instance();

// An error status of the services.
constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, code);
}

// The number of entries of a list. Also walks lists of pool blocks, whose links are guarded.
std::size_t length_of(const LIST_ENTRY& head);

class ServiceTest : public testing::Test {
  protected:
    ServiceTest();
    ~ServiceTest() override;

    PIOsal osal;             // the instance
    const IOsalVtbl* slots;  // its table
    OsalObjInfo* record;     // its record
};

// Tests of a BothWays suite run twice, on the exports and on the slots: CALL(KxFreeMemory) is the
// service in the way under test, as in CALL(KxFreeMemory)(osal, block). Derive a suite from
// BothWays and name it in OSAL_BOTH_WAYS.
enum class Way { kExport, kSlot };
inline void PrintTo(Way way, std::ostream* out) {
    *out << (way == Way::kExport ? "export" : "slot");
}

class BothWays : public ServiceTest, public testing::WithParamInterface<Way> {};

#define CALL(service) (GetParam() == ::osal_test::Way::kExport ? &service : slots->service)

#define OSAL_BOTH_WAYS(suite)                                                           \
    INSTANTIATE_TEST_SUITE_P(                                                           \
        By, suite, testing::Values(::osal_test::Way::kExport, ::osal_test::Way::kSlot), \
        [](const auto& info) {                                                          \
            return info.param == ::osal_test::Way::kExport ? "Export" : "Slot";         \
        })

}  // namespace osal_test
