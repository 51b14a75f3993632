// The attribute manager: types, and the attributes that contexts have of them.
#include <stddef.h>

#include "store.h"

namespace secattr {
namespace {

const IOMVtbl* slots(IOM* manager) {
    return manager->lpVtbl;
}

Record* record_of(PAttribute attribute) {
    return reinterpret_cast<Record*>(attribute);
}
static_assert(offsetof(Record, attribute) == 0);

// Fails for a thread that holds the attribute exclusively already.
KCSTATUS take_access(Record* record, UINT32 access, BOOLEAN wait = TRUE) {
    const IOsalVtbl* osal = store.osal->lpVtbl;
    if (access == KX_OBJECT_EXCLUSIVE)
        return osal->KxAcquireLockForWriteAccess(store.osal, record->access_lock, wait);
    if (access == KX_OBJECT_SHARED)
        return osal->KxAcquireLockForReadAccess(store.osal, record->access_lock, wait);
    return KC_OK;
}

void give_access(Record* record) {
    store.osal->lpVtbl->KxReleaseReadWriteLock(store.osal, record->access_lock);
}

bool is_access(UINT32 access) {
    return access == KX_OBJECT_EXCLUSIVE || access == KX_OBJECT_SHARED;
}

void drop(Record* record) {
    slots(record->home)->DereferenceObject(record->home, record, KX_OBJECT_NO_ACCESS);
}

// Gives a caller an attribute that was referenced for it, with the access asked for.
//
// Whoever asks for an attribute reads its data next: they come while the access is waited for.
KCSTATUS hand_out(Record* record, UINT32 access, PAttribute* out) {
    __builtin_prefetch(record->attribute.pData);
    const KCSTATUS status = take_access(record, access);
    if (is_error(status))
        drop(record);
    else
        *out = &record->attribute;
    return status;
}

// Delete routine of an attribute's object: the last reference of a detached attribute went.
KCSTATUS end_attribute(PVOID object) {
    auto* record = static_cast<Record*>(object);
    if (record->release != nullptr) record->release(&record->attribute);
    store.osal->lpVtbl->KxDestroyReadWriteLock(store.osal, record->access_lock);
    return KC_OK;
}

// Holds a reference of a type for a scope, if the handle names one.
class TypeReference {
  public:
    explicit TypeReference(HANDLE handle) {
        PVOID object = nullptr;
        if (!is_error(
                slots(store.types)
                    ->ReferenceObjectByHandle(store.types, handle, KX_OBJECT_NO_ACCESS, &object)))
            type_ = static_cast<Type*>(object);
    }
    ~TypeReference() {
        if (type_ != nullptr)
            slots(store.types)->DereferenceObject(store.types, type_, KX_OBJECT_NO_ACCESS);
    }
    TypeReference(const TypeReference&) = delete;
    TypeReference& operator=(const TypeReference&) = delete;

    Type* get() const { return type_; }
    // Nobody finds the type from now on; it goes with its last reference.
    void withdraw() const {
        slots(store.types)->IncrementReference(store.types, type_);
        slots(store.types)->DeleteObject(store.types, type_, KX_OBJECT_NO_ACCESS);
    }
    Type* operator->() const { return type_; }

  private:
    Type* type_ = nullptr;
};

BOOLEAN is_on_context(PVOID object, PVOID wanted) {
    return same(static_cast<Record*>(object)->attribute.hSC, *static_cast<SCHANDLE*>(wanted));
}

struct Creation {
    SCHANDLE context;
    Type* type;
    void* init_data;
    PSA_INIT_ROUTINE init;
    UINT32 access;
};

// Init routine of an attribute's object.
KCSTATUS begin_attribute(PVOID object, PVOID init_data) {
    auto* record = static_cast<Record*>(object);
    const auto* creation = static_cast<Creation*>(init_data);
    record->attribute = {creation->context, record + 1};
    record->home = creation->type->attributes;
    record->cleanup = creation->type->cleanup;
    record->release = creation->type->release;
    KCSTATUS status = store.osal->lpVtbl->KxAllocReadWriteLock(store.osal, &record->access_lock);
    if (is_error(status)) return status;
    // Before anybody else can see the attribute: nobody comes in between, and a creator never waits
    // for an access while others wait behind it.
    take_access(record, creation->access, FALSE);
    if (creation->init != nullptr) status = creation->init(&record->attribute, creation->init_data);
    if (is_error(status)) {
        if (is_access(creation->access)) give_access(record);
        store.osal->lpVtbl->KxDestroyReadWriteLock(store.osal, record->access_lock);
    }
    return status;
}

// Finds or makes an attribute on a listed context; the caller has a reference of it either way, and
// the access if it was made. Caller holds membership.
KCSTATUS find_or_begin(Creation* creation, Record** record, UINT32* opened) {
    IOM* home = creation->type->attributes;
    PVOID object = nullptr;
    const KCSTATUS status = slots(home)->CreateObject(
        home, creation, begin_attribute, &creation->context, is_on_context,
        bucket_of(creation->context), KX_OBJECT_NO_ACCESS, KX_OBJECT_NO_ACCESS, &object, opened);
    if (!is_error(status)) *record = static_cast<Record*>(object);
    return status;
}

// The same on a context that may have to begin. That is done under the exclusive lock, so that a
// context which gets no attribute after all goes again before anybody saw it. An attribute, once
// its init routine accepted it, stays: nothing that can fail comes after.
KCSTATUS find_or_create(Creation* creation, Record** record, UINT32* opened) {
    {
        Membership lock(Membership::kShared);
        if (is_listed(creation->context)) return find_or_begin(creation, record, opened);
    }
    Membership lock(Membership::kExclusive);
    bool begun = false;
    KCSTATUS status = begin_context(creation->context, &begun);
    if (is_error(status)) return status;
    status = find_or_begin(creation, record, opened);
    if (is_error(status) && begun) end_context(creation->context);
    return status;
}

// Takes an attribute off its context. Caller holds membership exclusively and a reference, which
// goes into the list. Deleting takes a reference of its own.
Record* detach(Record* record, Record* list) {
    record->detached = TRUE;
    record->next = list;
    slots(record->home)->IncrementReference(record->home, record);
    slots(record->home)->DeleteObject(record->home, record, KX_OBJECT_NO_ACCESS);
    return record;
}

Record* find(Type* type, SCHANDLE context) {
    PVOID object = nullptr;
    const KCSTATUS status = slots(type->attributes)
                                ->FindObject(type->attributes, &context, is_on_context,
                                             bucket_of(context), KX_OBJECT_NO_ACCESS, &object);
    return is_error(status) ? nullptr : static_cast<Record*>(object);
}

Record* detach_type(Type* type) {
    Record* list = nullptr;
    HANDLE scan = nullptr;
    PVOID object = nullptr;
    while (!is_error(slots(type->attributes)
                         ->EnumerateObjects(type->attributes, &scan, nullptr, nullptr,
                                            KX_OBJECT_NO_ACCESS, &object)))
        list = detach(static_cast<Record*>(object), list);
    return list;
}

struct Choice {
    void* data;
    PSA_COMPARE_ROUTINE routine;
};

BOOLEAN is_chosen(PVOID object, PVOID choice_data) {
    const auto* choice = static_cast<Choice*>(choice_data);
    return choice->routine == nullptr ||
           choice->routine(&static_cast<Record*>(object)->attribute, choice->data) == 1;
}

BOOLEAN is_component(PVOID object, PVOID wanted) {
    return static_cast<Type*>(object)->component == *static_cast<const GUID*>(wanted);
}

// The handle of a type that was registered for a component; null if there is none.
HANDLE type_of(const GUID* component) {
    PVOID type = nullptr;
    HANDLE handle = nullptr;
    if (is_error(slots(store.types)
                     ->FindObject(store.types, const_cast<GUID*>(component), is_component, 0,
                                  KX_OBJECT_NO_ACCESS, &type)))
        return nullptr;
    slots(store.types)->GetObjectHandle(store.types, type, &handle);
    slots(store.types)->DereferenceObject(store.types, type, KX_OBJECT_NO_ACCESS);
    return handle;
}

KCSTATUS QueryInterface(PISA, const GUID* pIId, void** ppInterface) {
    return query_attribute_manager(pIId, ppInterface);
}
UINT32 AddRef(PISA) {
    return add_reference();
}
UINT32 Release(PISA) {
    return drop_reference();
}

KCSTATUS SARegisterAttribute(PISA, const GUID* pComponentId, UINT32 dataSize,
                             PSA_CLEANUP_ROUTINE pCleanup, PSA_RELEASE_ROUTINE pRelease,
                             PHANDLE phAttribute) {
    if (phAttribute == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *phAttribute = nullptr;
    if (pComponentId == nullptr || dataSize > ~0u - sizeof(Record))
        return fail(KC_CODE_INVALID_ARGUMENT);
    Type type = {*pComponentId, nullptr, pCleanup, pRelease};
    KCSTATUS status =
        make_manager(dataSize + sizeof(Record), true, end_attribute, &type.attributes);
    if (is_error(status)) return status;
    PVOID object = nullptr;
    const auto copy = [](PVOID made, PVOID from) -> KCSTATUS {
        *static_cast<Type*>(made) = *static_cast<Type*>(from);
        return KC_OK;
    };
    status = slots(store.types)
                 ->CreateObject(store.types, &type, copy, nullptr, nullptr, 0, KX_OBJECT_NO_ACCESS,
                                KX_OBJECT_NO_ACCESS, &object, nullptr);
    if (is_error(status)) {
        type.attributes->lpVtbl->Release(type.attributes);
        return status;
    }
    slots(store.types)->GetObjectHandle(store.types, object, phAttribute);
    slots(store.types)->DereferenceObject(store.types, object, KX_OBJECT_NO_ACCESS);
    return KC_OK;
}

KCSTATUS SADeregisterAttribute(PISA, HANDLE hAttribute) {
    TypeReference type(hAttribute);
    if (type.get() == nullptr) return fail(KC_CODE_INVALID_HANDLE);
    type.withdraw();
    Record* detached;
    {
        Membership lock(Membership::kExclusive);
        detached = detach_type(type.get());
    }
    finish_detached(detached, false);
    return KC_OK;
}

KCSTATUS SACreate(PISA, SCHANDLE hSC, HANDLE hAttribute, void* pInitData, PSA_INIT_ROUTINE pInit,
                  UINT32 createAccess, UINT32 openAccess, PAttribute* ppAttribute,
                  PUINT32 pOpenedMode) {
    if (ppAttribute == nullptr || is_every_context(hSC)) return fail(KC_CODE_INVALID_ARGUMENT);
    TypeReference type(hAttribute);
    if (type.get() == nullptr) return fail(KC_CODE_INVALID_HANDLE);
    Creation creation = {hSC, type.get(), pInitData, pInit, createAccess};
    Record* record = nullptr;
    UINT32 opened = 0;
    KCSTATUS status = find_or_create(&creation, &record, &opened);
    if (is_error(status)) return status;
    if (opened == KX_OBJECT_CREATED)
        *ppAttribute = &record->attribute;
    else
        status = hand_out(record, openAccess, ppAttribute);
    if (!is_error(status) && pOpenedMode != nullptr) *pOpenedMode = opened;
    return status;
}

KCSTATUS SADereference(PISA, UINT32 access, PAttribute pAttribute) {
    if (pAttribute == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    Record* record = record_of(pAttribute);
    if (is_access(access)) give_access(record);
    drop(record);
    return KC_OK;
}

KCSTATUS SADelete(PISA pThis, UINT32 access, PAttribute pAttribute) {
    if (pAttribute == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    Record* record = record_of(pAttribute);
    {
        Membership lock(Membership::kExclusive);
        if (!record->detached) detach(record, nullptr);
    }
    return SADereference(pThis, access, pAttribute);
}

KCSTATUS SAReference(PISA, SCHANDLE hSC, HANDLE hAttribute, UINT32 access,
                     PAttribute* ppAttribute) {
    if (ppAttribute == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    TypeReference type(hAttribute);
    if (type.get() == nullptr) return fail(KC_CODE_INVALID_HANDLE);
    Record* record = find(type.get(), hSC);
    // Not logged: a context without an attribute is nothing out of the ordinary.
    if (record == nullptr)
        return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_SECATTR, KC_CODE_INVALID_HANDLE);
    return hand_out(record, access, ppAttribute);
}

KCSTATUS SAGetSCHandle(PISA, PAttribute pAttribute, PSCHANDLE phSC) {
    if (pAttribute == nullptr || phSC == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    *phSC = pAttribute->hSC;
    return KC_OK;
}

KCSTATUS SAEnumerate(PISA, const GUID* pComponentId, HANDLE hAttribute, PSCHANDLE phEnumType,
                     PSCHANDLE phEnum, void* pCompareData, PSA_COMPARE_ROUTINE pCompare,
                     UINT32 access, PAttribute* ppAttribute) {
    if (phEnumType == nullptr || phEnum == nullptr || ppAttribute == nullptr)
        return fail(KC_CODE_INVALID_ARGUMENT);
    if (hAttribute == nullptr && pComponentId != nullptr) hAttribute = type_of(pComponentId);
    TypeReference type(hAttribute);
    if (type.get() == nullptr) return fail(KC_CODE_INVALID_HANDLE);
    Choice choice = {pCompareData, pCompare};
    PVOID object = nullptr;
    // The scan handle of the type's manager is all that the cursors have to hold.
    HANDLE scan = phEnum->hId;
    KCSTATUS status = slots(type->attributes)
                          ->EnumerateObjects(type->attributes, &scan, &choice, is_chosen,
                                             KX_OBJECT_NO_ACCESS, &object);
    if (is_error(status)) return status;
    status = hand_out(static_cast<Record*>(object), access, ppAttribute);
    if (!is_error(status)) phEnum->hId = scan;
    return status;
}

KCSTATUS SAAcquire(PISA, UINT32 access, PAttribute pAttribute) {
    if (pAttribute == nullptr || !is_access(access)) return fail(KC_CODE_INVALID_ARGUMENT);
    return take_access(record_of(pAttribute), access);
}

KCSTATUS SARelease(PISA, PAttribute pAttribute) {
    if (pAttribute == nullptr) return fail(KC_CODE_INVALID_ARGUMENT);
    give_access(record_of(pAttribute));
    return KC_OK;
}

#define SECATTR_TABLE_ENTRY(number, field, ...) .field = field,
constexpr ISAVtbl kTable = {SECATTR_ISA_SLOTS(SECATTR_TABLE_ENTRY)};

}  // namespace

constinit ISA attribute_manager = {&kTable};

Record* detach_all(SCHANDLE context) {
    Record* list = nullptr;
    HANDLE scan = nullptr;
    PVOID object = nullptr;
    while (!is_error(slots(store.types)
                         ->EnumerateObjects(store.types, &scan, nullptr, nullptr,
                                            KX_OBJECT_NO_ACCESS, &object))) {
        if (Record* record = find(static_cast<Type*>(object), context)) list = detach(record, list);
        slots(store.types)->DereferenceObject(store.types, object, KX_OBJECT_NO_ACCESS);
    }
    return list;
}

void finish_detached(Record* list, bool with_cleanup) {
    while (list != nullptr) {
        Record* next = list->next;
        if (with_cleanup && list->cleanup != nullptr) list->cleanup(list->attribute.hSC);
        drop(list);
        list = next;
    }
}

}  // namespace secattr
