// The store: its managers, its locks, and contexts' entries in it.
#include "store.h"

#include "host/kcstatus.h"
#include "host/lcm.h"

namespace secattr {

constinit Store store = {};

namespace {

constexpr UINT32 kBuckets = 1021;
constexpr UINT16 kObjectsPerBlock = 64;

BOOLEAN is_context(PVOID object, PVOID wanted) {
    return same(static_cast<Context*>(object)->handle, *static_cast<SCHANDLE*>(wanted));
}

KCSTATUS set_context(PVOID object, PVOID wanted) {
    static_cast<Context*>(object)->handle = *static_cast<SCHANDLE*>(wanted);
    return KC_OK;
}

// The object of a context, referenced; null if it is not listed.
PVOID find_context(SCHANDLE context) {
    PVOID object = nullptr;
    const KCSTATUS status = store.contexts->lpVtbl->FindObject(
        store.contexts, &context, is_context, bucket_of(context), KX_OBJECT_NO_ACCESS, &object);
    return is_error(status) ? nullptr : object;
}

void drop_context(PVOID object) {
    store.contexts->lpVtbl->DereferenceObject(store.contexts, object, KX_OBJECT_NO_ACCESS);
}

KCSTATUS end_type(PVOID object) {
    IOM* attributes = static_cast<Type*>(object)->attributes;
    attributes->lpVtbl->Release(attributes);
    return KC_OK;
}

void release(IOM*& manager) {
    if (manager != nullptr) manager->lpVtbl->Release(manager);
    manager = nullptr;
}

}  // namespace

KCSTATUS fail(UINT32 code, const char* function, UINT32 line) {
    return KcStatusBuild_log(KC_SEVERITY_ERROR, KC_FACILITY_SECATTR, code, "secattr", line,
                             function);
}

UINT32 bucket_of(SCHANDLE context) {
    const UINT64 mixed = reinterpret_cast<uintptr_t>(context.hTypeId) * 0x9E3779B97F4A7C15u ^
                         reinterpret_cast<uintptr_t>(context.hId) * 0xC2B2AE3D27D4EB4Fu;
    return static_cast<UINT32>((mixed >> 32) % kBuckets);
}

KCSTATUS make_manager(UINT32 object_size, bool keyed, PKX_OBJECT_ROUTINE on_end, IOM** manager) {
    void* made = nullptr;
    KCSTATUS status =
        LcmCreateInstance(&CLSID_ObjectManagerDataStore, nullptr, &IID_IObjectManager_1, &made);
    if (is_error(status)) return status;
    *manager = static_cast<IOM*>(made);
    status = (*manager)->lpVtbl->Initialize(*manager, object_size, kObjectsPerBlock,
                                            KX_OBJECT_LEVEL_LOCK, keyed ? kBuckets : 1, on_end,
                                            nullptr, nullptr, 0);
    if (is_error(status)) release(*manager);
    return status;
}

KCSTATUS build_store() {
    if (store.membership != nullptr) return KC_OK;
    void* osal = nullptr;
    KCSTATUS status = LcmCreateInstance(&CLSID_OrvaneOsal, nullptr, &IID_IOrvaneOsal_1, &osal);
    if (is_error(status)) return status;
    store.osal = static_cast<IOsal*>(osal);
    store.osal->lpVtbl->KxRegisterModuleName(store.osal, "secattr");
    status = make_manager(sizeof(Type), false, end_type, &store.types);
    if (!is_error(status)) status = make_manager(sizeof(Context), true, nullptr, &store.contexts);
    if (!is_error(status))
        status = store.osal->lpVtbl->KxAllocReadWriteLock(store.osal, &store.membership);
    if (is_error(status)) end_store();
    return status;
}

void end_store() {
    if (store.osal == nullptr) return;
    release(store.types);
    release(store.contexts);
    if (store.membership != nullptr)
        store.osal->lpVtbl->KxDestroyReadWriteLock(store.osal, store.membership);
    store.osal->lpVtbl->Release(store.osal);
    store = {};
}

bool is_listed(SCHANDLE context) {
    PVOID object = find_context(context);
    if (object != nullptr) drop_context(object);
    return object != nullptr;
}

KCSTATUS begin_context(SCHANDLE context, bool* begun) {
    PVOID object = nullptr;
    UINT32 opened = 0;
    const KCSTATUS status = store.contexts->lpVtbl->CreateObject(
        store.contexts, &context, set_context, &context, is_context, bucket_of(context),
        KX_OBJECT_NO_ACCESS, KX_OBJECT_NO_ACCESS, &object, &opened);
    if (is_error(status)) return status;
    drop_context(object);
    if (begun != nullptr) *begun = opened == KX_OBJECT_CREATED;
    return KC_OK;
}

bool end_context(SCHANDLE context) {
    PVOID object = find_context(context);
    if (object != nullptr)
        store.contexts->lpVtbl->DeleteObject(store.contexts, object, KX_OBJECT_NO_ACCESS);
    return object != nullptr;
}

Membership::Membership(Mode mode) {
    const IOsalVtbl* osal = store.osal->lpVtbl;
    (mode == kShared ? osal->KxAcquireLockForReadAccess : osal->KxAcquireLockForWriteAccess)(
        store.osal, store.membership, TRUE);
}

Membership::~Membership() {
    store.osal->lpVtbl->KxReleaseReadWriteLock(store.osal, store.membership);
}

}  // namespace secattr
