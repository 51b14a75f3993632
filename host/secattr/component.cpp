// Component entry of secattr.so: two classes with a static factory each, and the shared interfaces.
//
// build_mutex serialises the building of the store, which the first instance asks for.
#include <pthread.h>

#include <atomic>

#include "osal/component.h"
#include "store.h"

namespace secattr {
namespace {

constinit pthread_mutex_t build_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit std::atomic<UINT32> references{0};

KCSTATUS ensure_store() {
    pthread_mutex_lock(&build_mutex);
    const KCSTATUS status = build_store();
    pthread_mutex_unlock(&build_mutex);
    return status;
}

using Query = KCSTATUS (*)(const GUID* iid, void** out);

// A class's factory: static, its references only counted.
struct Factory {
    const LCM_IClassFactoryVtbl* lpVtbl;
    const GUID* class_id;
    Query query;
};

Factory* factory_of(LCM_IClassFactory* This) {
    return reinterpret_cast<Factory*>(This);
}

KCSTATUS hand_out(void* interface, void** out) {
    add_reference();
    *out = interface;
    return KC_OK;
}

KCSTATUS factory_query(LCM_IClassFactory* This, const GUID* pIId, void** ppInterface) {
    if (pIId == nullptr || ppInterface == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *ppInterface = nullptr;
    if (*pIId != IID_IUnknown && *pIId != IID_IClassFactory) return fail(KC_CODE_UNSUPPORTED);
    return hand_out(This, ppInterface);
}
UINT32 factory_add_reference(LCM_IClassFactory*) {
    return add_reference();
}
UINT32 factory_release(LCM_IClassFactory*) {
    return drop_reference();
}

KCSTATUS factory_create(LCM_IClassFactory* This, void* pUnkOuter, const GUID* pIId,
                        void** ppInterface) {
    if (ppInterface == nullptr || pUnkOuter != nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *ppInterface = nullptr;
    const KCSTATUS status = ensure_store();
    return is_error(status) ? status : factory_of(This)->query(pIId, ppInterface);
}

KCSTATUS factory_lock(LCM_IClassFactory*, BOOLEAN fLock) {
    fLock == 1 ? add_reference() : drop_reference();
    return KC_OK;
}

HRESULT to_result(KCSTATUS status) {
    if (!is_error(status)) return KC_S_OK;
    return KC_CODE(status) == KC_CODE_UNSUPPORTED ? KC_E_NOINTERFACE : KC_E_CREATE_FAILED;
}

constexpr LCM_IClassFactoryVtbl kFactoryTable = {factory_query, factory_add_reference,
                                                 factory_release, factory_create, factory_lock};

constinit Factory factories[] = {
    {&kFactoryTable, &CLSID_SecurityAttributeManager, query_attribute_manager},
    {&kFactoryTable, &CLSID_SecurityContextManager, query_context_manager},
};

}  // namespace

UINT32 add_reference() {
    return references.fetch_add(1) + 1;
}
UINT32 drop_reference() {
    return references.fetch_sub(1) - 1;
}

KCSTATUS query_attribute_manager(const GUID* iid, void** out) {
    if (iid == nullptr || out == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *out = nullptr;
    if (*iid != IID_IUnknown && *iid != IID_IContextAttribute_1 &&
        *iid != IID_IPassiveContextAttribute_1)
        return fail(KC_CODE_UNSUPPORTED);
    return hand_out(&attribute_manager, out);
}

KCSTATUS query_context_manager(const GUID* iid, void** out) {
    if (iid == nullptr || out == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *out = nullptr;
    if (*iid != IID_IUnknown && *iid != IID_ISecurityContext_1) return fail(KC_CODE_UNSUPPORTED);
    return hand_out(&context_manager, out);
}

}  // namespace secattr

using namespace secattr;

OSAL_BEGIN_DECLS

OSAL_DEFINE_IDENTIFIERS

const GUID* const TSCOM_Table[] = {&CLSID_SecurityAttributeManager, &CLSID_SecurityContextManager,
                                   nullptr};

KCSTATUS DllStart() {
    return KC_OK;
}

KCSTATUS DllStop() {
    end_store();
    return KC_OK;
}

HRESULT DllGetClassObject(const GUID* pClassID, const GUID* pIID, PVOID* ppInterface) {
    for (Factory& factory : factories)
        if (*pClassID == *factory.class_id) {
            auto* unknown = reinterpret_cast<LCM_IClassFactory*>(&factory);
            return to_result(factory_query(unknown, pIID, ppInterface));
        }
    return KC_E_NOINTERFACE;
}

OSAL_END_DECLS
