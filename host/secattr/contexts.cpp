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

// Finds a context's object and references it; null if there is none.
PVOID find(SCHANDLE context) {
    const auto is_context = [](PVOID object, PVOID wanted) -> BOOLEAN {
        return same(static_cast<Context*>(object)->handle, *static_cast<SCHANDLE*>(wanted));
    };
    PVOID object = nullptr;
    const KCSTATUS status = store.contexts->lpVtbl->FindObject(
        store.contexts, &context, is_context, bucket_of(context), KX_OBJECT_NO_ACCESS, &object);
    return is_error(status) ? nullptr : object;
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
    Record* detached;
    PVOID object;
    {
        Membership lock(Membership::kExclusive);
        object = find(hSC);
        if (object != nullptr)
            store.contexts->lpVtbl->DeleteObject(store.contexts, object, KX_OBJECT_NO_ACCESS);
        detached = detach_all(hSC);
    }
    if (object == nullptr && detached == nullptr) return fail(KC_CODE_INVALID_HANDLE);
    finish_detached(detached, true);
    return KC_OK;
}

KCSTATUS EnumerateContexts(PISecurityContext, PHANDLE pScan, PSCHANDLE phSC) {
    if (pScan == nullptr || phSC == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    PVOID object = nullptr;
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
