#include "support/service_test.h"

#include "osal/internal/annotations.h"

namespace osal_test {

PIOsal new_instance() {
    void* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &factory), KC_S_OK);
    auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
    void* instance = nullptr;
    EXPECT_EQ(class_factory->lpVtbl->CreateInstance(class_factory, nullptr, &IID_IOrvaneOsal_1,
                                                    &instance),
              KC_OK);
    class_factory->lpVtbl->Release(class_factory);
    return static_cast<PIOsal>(instance);
}

NO_ADDRESS_CHECKS std::size_t length_of(const LIST_ENTRY& head) {
    std::size_t length = 0;
    for (const LIST_ENTRY* entry = head.Flink; entry != &head; entry = entry->Flink)
        ++length;
    return length;
}

ServiceTest::ServiceTest() {
    DllStart();
    osal = new_instance();
    slots = osal->lpVtbl;
    record = osal::instance_of(osal);
}

ServiceTest::~ServiceTest() {
    slots->Release(osal);
    DllStop();
}

}  // namespace osal_test
