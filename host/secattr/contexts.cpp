// The context manager: contexts are opened, listed and ended here.
#include "store.h"

namespace secattr {
namespace {

KCSTATUS QueryInterface(PISecurityContext, const GUID* pIId, void** ppInterface) {
    return query_context_manager(pIId, ppInterface);
}
UINT32 AddRef(PISecurityContext) {
    return add_reference();
}
UINT32 Release(PISecurityContext) {
    return drop_reference();
}

KCSTATUS OpenContext(PISecurityContext, UINT64 userId, UINT64 sessionId, PSCHANDLE phSC) {
    const SCHANDLE context = {reinterpret_cast<HANDLE>(userId),
                              reinterpret_cast<HANDLE>(sessionId)};
    if (phSC == nullptr || is_every_context(context)) return fail(KC_CODE_INVALID_ARGUMENT);
    Membership lock(Membership::kShared);
    const KCSTATUS status = begin_context(context);
    if (!is_error(status)) *phSC = context;
    return status;
}

KCSTATUS EndContext(PISecurityContext, SCHANDLE hSC) {
    Record* detached = nullptr;
    bool listed;
    {
        Membership lock(Membership::kExclusive);
        listed = end_context(hSC);
        if (listed) detached = detach_all(hSC);
    }
    if (!listed) return fail(KC_CODE_INVALID_HANDLE);
    finish_detached(detached, true);
    return KC_OK;
}

KCSTATUS EnumerateContexts(PISecurityContext, PHANDLE pScan, PSCHANDLE phSC) {
    if (pScan == nullptr || phSC == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    PVOID object = nullptr;
    Membership lock(Membership::kShared);
    const KCSTATUS status = store.contexts->lpVtbl->EnumerateObjects(
        store.contexts, pScan, nullptr, nullptr, KX_OBJECT_NO_ACCESS, &object);
    if (is_error(status)) return status;
    *phSC = static_cast<Context*>(object)->handle;
    store.contexts->lpVtbl->DereferenceObject(store.contexts, object, KX_OBJECT_NO_ACCESS);
    return KC_OK;
}

constexpr ISecurityContextVtbl kTable = {QueryInterface, AddRef,     Release,
                                         OpenContext,    EndContext, EnumerateContexts};

}  // namespace

constinit ISecurityContext context_manager = {&kTable};

}  // namespace secattr
