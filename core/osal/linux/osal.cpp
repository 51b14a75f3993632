// The component entry, the service class factory, and the life of service-interface instances.
//
// Locks: g_hModuleMutex serialises the one-time initialisation. InterfaceMutex guards InterfaceList
// and InterfaceCount. Neither is held when the other is taken, but for start-up, which makes the
// library's own instance (module mutex first).
#include <cstdlib>

#include "osal/component.h"
#include "osal/internal/atomics.h"
#include "osal/internal/instance.h"
#include "osal/internal/list.h"
#include "osal/internal/object.h"
#include "osal/internal/status.h"
#include "osal/internal/valgrind.h"
#include "osal/linux/internal/init.h"
#include "osal/osal.h"

using namespace osal;

OSAL_BEGIN_DECLS

OSAL_DEFINE_IDENTIFIERS

const GUID* const TSCOM_Table[] = {&CLSID_OrvaneOsal, &CLSID_ObjectManagerDataStore, nullptr};

#define OSAL_TABLE_ENTRY(number, field, function, ...) .field = function,
#define OSAL_TABLE_HOLE(number, field, ...) .field = nullptr,
extern const IOsalVtbl vtOsal = {KX_IOSAL_SLOTS(OSAL_TABLE_ENTRY, OSAL_TABLE_HOLE)};

constinit LIST_ENTRY InterfaceList = {};
constinit UINT32 InterfaceCount = 0;
constinit PIOsal pIOsal = nullptr;

constinit Mutex InterfaceMutex = {PTHREAD_MUTEX_INITIALIZER};

OSAL_END_DECLS

namespace {

constexpr Module kModule{KC_FACILITY_OSAL, "osal"};

#define OSAL_TABLE_OFFSET(number, field, ...) \
    static_assert(offsetof(IOsalVtbl, field) == (number) * sizeof(void*));
KX_IOSAL_SLOTS(OSAL_TABLE_OFFSET, OSAL_TABLE_OFFSET)
static_assert(sizeof(IOsalVtbl) == KX_IOSAL_SLOT_COUNT * sizeof(void*));

constexpr LIST_ENTRY OsalObjInfo::*kResourceLists[] = {
    &OsalObjInfo::EventList,          &OsalObjInfo::KeyList,         &OsalObjInfo::LockList,
    &OsalObjInfo::MemoryNonPagedList, &OsalObjInfo::MemoryPagedList, &OsalObjInfo::MutexList,
    &OsalObjInfo::SpinLockList,       &OsalObjInfo::TimerList,       &OsalObjInfo::WorkItemList};

void make_instance(OsalObjInfo* instance) {
    instance->lpVtbl = &vtOsal;
    instance->cReference = 1;
    instance->Signature = OsalObjInfo::kSignature;
    instance->ProtectionMutex.init();
    instance->ProtectionSpinLock.init();
    announce_atomics(instance->ProtectionMutex, instance->ProtectionSpinLock,
                     instance->MemoryNonPagedInUse, instance->MemoryNonPagedTotalAllocated,
                     instance->MemoryPagedInUse, instance->MemoryPagedTotalAllocated);
    for (auto list : kResourceLists)
        OsalInitializeListHead(&(instance->*list));
}

void end_instance(OsalObjInfo* instance) {
    {
        Lock lock(InterfaceMutex);
        OsalRemoveEntryList(&instance->Link);
        --InterfaceCount;
    }
    instance->ProtectionMutex.destroy();
    instance->ProtectionSpinLock.destroy();
    // Only the signature is cleared, so that a stale instance is known; Link keeps its marker.
    wipe(&instance->Signature, sizeof instance->Signature);
    std::free(instance);
}

// The library's own instance is in use as long as the library is. It goes with a library that was
// shut down, so that loading it again and again does not leak.
[[gnu::destructor]] void unload() {
    if (g_Unload && pIOsal != nullptr) end_instance(instance_of(pIOsal));
}

CFInstance* factory_of(LCM_IClassFactory* This) {
    return reinterpret_cast<CFInstance*>(This);
}

}  // namespace

OSAL_BEGIN_DECLS

KCSTATUS OsalFactoryQueryInterface(LCM_IClassFactory* This, const GUID* pIId, void** ppInterface);
UINT32 OsalFactoryAddReference(LCM_IClassFactory* This);
UINT32 OsalFactoryReleaseReference(LCM_IClassFactory* This);
KCSTATUS OsalFactoryLockServer(LCM_IClassFactory* This, BOOLEAN fLock);

extern const LCM_IClassFactoryVtbl vtOsalCF = {OsalFactoryQueryInterface, OsalFactoryAddReference,
                                               OsalFactoryReleaseReference,
                                               OsalFactoryCreateInstance, OsalFactoryLockServer};

constinit CFInstance IOsalClassFactory = {&vtOsalCF, 0, 0};

KCSTATUS OsalFactoryQueryInterface(LCM_IClassFactory* This, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    *ppInterface = nullptr;
    auto* service_factory = reinterpret_cast<LCM_IClassFactory*>(&IOsalClassFactory);
    LCM_IClassFactory* factory;
    if (*pIId == IID_IUnknown)
        factory = This != nullptr ? This : service_factory;  // the component entry has no This
    else if (*pIId == IID_IClassFactory)
        factory = service_factory;
    else
        return kModule.fail(KC_CODE_UNSUPPORTED);
    factory->lpVtbl->AddRef(factory);
    *ppInterface = factory;
    return KC_OK;
}

UINT32 OsalFactoryAddReference(LCM_IClassFactory* This) {
    return increment(factory_of(This)->cReference);
}

UINT32 OsalFactoryReleaseReference(LCM_IClassFactory* This) {
    return decrement(factory_of(This)->cReference);
}

// Contract: only exactly 1 locks; any other true value counts as an unlock.
KCSTATUS OsalFactoryLockServer(LCM_IClassFactory* This, BOOLEAN fLock) {
    UINT32& locks = factory_of(This)->cLock;
    if (fLock == 1)
        increment(locks);
    else
        decrement(locks);
    return KC_OK;
}

KCSTATUS OsalFactoryCreateInstance(LCM_IClassFactory*, void* pUnkOuter, const GUID* pIId,
                                   void** ppInterface) {
    if (ppInterface == nullptr || pUnkOuter != nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    *ppInterface = nullptr;
    // Contract: an instance is made for its own interface only, not for IID_IUnknown.
    if (*pIId != IID_IOrvaneOsal_1) return kModule.fail(KC_CODE_UNSUPPORTED);
    auto* instance = static_cast<OsalObjInfo*>(std::calloc(1, sizeof(OsalObjInfo)));
    if (instance == nullptr) return kModule.fail(KC_CODE_NO_RESOURCES);
    make_instance(instance);
    *ppInterface = instance;
    Lock lock(InterfaceMutex);
    OsalInsertTailList(&InterfaceList, &instance->Link);
    ++InterfaceCount;
    return KC_OK;
}

KCSTATUS OsalQueryInterface(PIOsal pThis, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    *ppInterface = nullptr;
    if (*pIId != IID_IUnknown && *pIId != IID_IOrvaneOsal_1)
        return kModule.fail(KC_CODE_UNSUPPORTED);
    *ppInterface = pThis;
    OsalAddReference(pThis);
    return KC_OK;
}

UINT32 OsalAddReference(PIOsal pThis) {
    return increment(instance_of(pThis)->cReference);
}

UINT32 OsalReleaseReference(PIOsal pThis) {
    OsalObjInfo* instance = instance_of(pThis);
    // The count left is that of the decrement, not read again: another holder may by then have
    // dropped the last reference and freed the instance.
    const UINT32 left = decrement(instance->cReference);
    // Contract: what was allocated through the instance stays as it is, and nobody can release it.
    if (left == 0) end_instance(instance);
    return left;
}

KCSTATUS KxRegisterModuleName(PIOsal pThis, const CHAR* pModuleName) {
    if (pModuleName == nullptr) return kModule.fail(KC_CODE_INVALID_ARGUMENT);
    UINT32 length = KxStrlen(pThis, pModuleName);
    // The last byte of the field is never written but as a terminator, so a cut name keeps its own.
    UINT32 size = length < OsalObjInfo::kNameSize ? length + 1 : OsalObjInfo::kNameSize - 1;
    KxCopyMemory(pThis, instance_of(pThis)->ModuleName, pModuleName, size);
    return KC_OK;
}

HRESULT DllGetClassObject(const GUID* pClassID, const GUID* pIID, PVOID* ppInterface) {
    if (const KCSTATUS status = ensure_initialized(); is_error(status))
        return OsalMapStatusToHresult(status);
    if (*pClassID == CLSID_ObjectManagerDataStore)
        return OsalMapStatusToHresult(OMFactoryQueryInterface(nullptr, pIID, ppInterface));
    if (*pClassID != CLSID_OrvaneOsal)
        return OsalMapStatusToHresult(unlogged_error(KC_CODE_UNSUPPORTED));
    return OsalMapStatusToHresult(OsalFactoryQueryInterface(nullptr, pIID, ppInterface));
}

OSAL_END_DECLS
