// A component library for the tests. COMPONENT_NAME names it, COMPONENT_CLASSES lists pointers to
// its classes; WITHOUT_TABLE, WITHOUT_START, WITHOUT_CLASS_OBJECT and WITHOUT_STOP leave an entry
// point out, WITHOUT_RELOCATION makes it need a function that nobody has.
#include "components/test_component.h"

using namespace test_component;

namespace {

// Instances are told apart by the test's thread only; a race between writers is no race on these.
thread_local Instance instance = {COMPONENT_NAME, {}, nullptr, {}};

KCSTATUS query_interface(LCM_IClassFactory*, const GUID*, void**) {
    return KC_OK;
}
UINT32 add_reference(LCM_IClassFactory*) {
    return 2;
}
UINT32 release(LCM_IClassFactory*) {
    component_event(COMPONENT_NAME, "Release");
    return 1;
}
KCSTATUS create_instance(LCM_IClassFactory*, void* outer, const GUID* iid, void** out) {
    instance.outer = outer;
    instance.iid = *iid;
    *out = &instance;
    return static_cast<KCSTATUS>(component_event(COMPONENT_NAME, "CreateInstance"));
}
KCSTATUS lock_server(LCM_IClassFactory*, BOOLEAN) {
    return KC_OK;
}

constexpr LCM_IClassFactoryVtbl kTable = {query_interface, add_reference, release, create_instance,
                                          lock_server};
[[maybe_unused]] constinit LCM_IClassFactory factory = {&kTable};

struct Unloading {
    ~Unloading() { component_event(COMPONENT_NAME, "unloaded"); }
} unloading;

}  // namespace

OSAL_BEGIN_DECLS

#ifndef WITHOUT_TABLE
const GUID* const TSCOM_Table[] = {COMPONENT_CLASSES, nullptr};
#endif

#ifndef WITHOUT_START
KCSTATUS DllStart() {
    return static_cast<KCSTATUS>(component_event(COMPONENT_NAME, "DllStart"));
}
#endif

#ifndef WITHOUT_CLASS_OBJECT
// 1 stands for success without a factory.
HRESULT DllGetClassObject(const GUID* clsid, const GUID* iid, PVOID* out) {
    const GUID factory_id = {1, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    if (*iid != factory_id) return KC_E_CREATE_FAILED;
    instance.clsid = *clsid;
    const HRESULT result = component_event(COMPONENT_NAME, "DllGetClassObject");
    if (result == KC_S_OK) *out = &factory;
    return result == 1 ? KC_S_OK : result;
}
#endif

#ifndef WITHOUT_STOP
KCSTATUS DllStop() {
    return static_cast<KCSTATUS>(component_event(COMPONENT_NAME, "DllStop"));
}
#endif

#ifdef WITHOUT_RELOCATION
void a_function_that_nobody_has();
void needs_it() {
    a_function_that_nobody_has();
}
#endif

OSAL_END_DECLS

static_assert(sizeof(factory) == sizeof(void*));
