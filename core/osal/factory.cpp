// The class factory of both kinds of object managers, and their interface tables.
//
// Locks: none. The first creation fills the tables, which are zero before; a creation beside it
// waits until that is done.
#include "osal/internal/object.h"
#include "osal/internal/scobject.h"

using namespace osal;

OSAL_BEGIN_DECLS

constinit IOMVtbl vtObject = {};
constinit IOM_2Vtbl vtObject_2 = {};
constinit BOOLEAN vtInitialized = FALSE;

extern const LCM_IClassFactoryVtbl vtOmCF;
extern CFInstance IOmClassFactory;

UINT32 OMFactoryAddRef(LCM_IClassFactory* pThis);
UINT32 OMFactoryRelease(LCM_IClassFactory* pThis);
KCSTATUS OMFactoryCreateInstance(LCM_IClassFactory* pThis, void* pUnkOuter, const GUID* pIId,
                                 void** ppInterface);
KCSTATUS OMFactoryLockServer(LCM_IClassFactory* pThis, BOOLEAN fLock);

OSAL_END_DECLS

namespace {

constexpr Module kModule{KC_FACILITY_OBJECT, "../factory"};

#define OSAL_TABLE_ENTRY(number, field, function, ...) .field = function,
constexpr IOMVtbl kTable = {KX_IOM_SLOTS(OSAL_TABLE_ENTRY)};
constexpr IOM_2Vtbl kTable2 = {KX_IOM_2_SLOTS(OSAL_TABLE_ENTRY)};
constexpr ISCOMVtbl kContextTable = {KX_ISCOM_SLOTS(OSAL_TABLE_ENTRY)};
constexpr ISCOM_2Vtbl kContextTable2 = {KX_ISCOM_2_SLOTS(OSAL_TABLE_ENTRY)};

#define OSAL_TABLE_OFFSET(number, field, ...) \
    static_assert(offsetof(Table, field) == (number) * sizeof(void*));
namespace first {
using Table = IOMVtbl;
KX_IOM_SLOTS(OSAL_TABLE_OFFSET)
static_assert(sizeof(Table) == KX_IOM_SLOT_COUNT * sizeof(void*));
}  // namespace first
namespace second {
using Table = IOM_2Vtbl;
KX_IOM_2_SLOTS(OSAL_TABLE_OFFSET)
static_assert(sizeof(Table) == KX_IOM_2_SLOT_COUNT * sizeof(void*));
}  // namespace second
namespace context_first {
using Table = ISCOMVtbl;
KX_ISCOM_SLOTS(OSAL_TABLE_OFFSET)
static_assert(sizeof(Table) == KX_ISCOM_SLOT_COUNT * sizeof(void*));
}  // namespace context_first
namespace context_second {
using Table = ISCOM_2Vtbl;
KX_ISCOM_2_SLOTS(OSAL_TABLE_OFFSET)
static_assert(sizeof(Table) == KX_ISCOM_2_SLOT_COUNT * sizeof(void*));
}  // namespace context_second

constinit UINT32 fillers = 0;  // threads that came to fill the tables; atomic

CFInstance* factory_of(LCM_IClassFactory* pThis) {
    return reinterpret_cast<CFInstance*>(pThis);
}

// Once: clients read the tables plainly, so they must not be written again.
void fill_tables() {
    if (load(vtInitialized)) return;
    if (increment(fillers) == 1) {
        vtObject = kTable;
        vtObject_2 = kTable2;
        vtSCObject = kContextTable;
        vtSCObject_2 = kContextTable2;
        store(vtInitialized, TRUE);
    }
    while (!load(vtInitialized))
        service<&IOsalVtbl::KxSleep>(pIOsal, UINT64{0});
}

using QueryInterface = KCSTATUS (*)(PVOID pThis, const GUID* pIId, void** ppInterface);

// A zeroed record that answers to the interface asked for, or an error, which is reported at the
// line given.
template <class Record>
KCSTATUS make_manager(QueryInterface query, UINT32 line, const GUID* pIId, void** ppInterface) {
    constexpr UINT32 size = sizeof(Record);
    PVOID record = service<&IOsalVtbl::KxAllocNonPagedMemory>(pIOsal, size);
    if (record == nullptr)
        return kModule.fail(KC_CODE_NO_RESOURCES, "OMFactoryCreateInstance", line);
    service<&IOsalVtbl::KxZeroMemory>(pIOsal, record, size);
    const KCSTATUS status = query(record, pIId, ppInterface);
    if (is_error(status)) service<&IOsalVtbl::KxFreeMemory>(pIOsal, record);
    return status;
}

}  // namespace

constinit const LCM_IClassFactoryVtbl vtOmCF = {OMFactoryQueryInterface, OMFactoryAddRef,
                                                OMFactoryRelease, OMFactoryCreateInstance,
                                                OMFactoryLockServer};

constinit CFInstance IOmClassFactory = {&vtOmCF, 0, 0};

KCSTATUS OMFactoryQueryInterface(LCM_IClassFactory* pThis, const GUID* pIId, void** ppInterface) {
    if (ppInterface == nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT, "OMFactoryQueryInterface", 100);
    *ppInterface = nullptr;
    auto* own = reinterpret_cast<LCM_IClassFactory*>(&IOmClassFactory);
    LCM_IClassFactory* factory;
    if (*pIId == IID_IUnknown)
        factory = pThis != nullptr ? pThis : own;  // the component entry has no instance
    else if (*pIId == IID_IClassFactory)
        factory = own;
    else
        return kModule.fail(KC_CODE_UNSUPPORTED, "OMFactoryQueryInterface", 117);
    factory->lpVtbl->AddRef(factory);
    *ppInterface = factory;
    return KC_OK;
}

UINT32 OMFactoryAddRef(LCM_IClassFactory* pThis) {
    return service<&IOsalVtbl::KxInterlockedIncrement>(pIOsal, &factory_of(pThis)->cReference);
}

UINT32 OMFactoryRelease(LCM_IClassFactory* pThis) {
    return service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, &factory_of(pThis)->cReference);
}

KCSTATUS OMFactoryCreateInstance(LCM_IClassFactory*, void* pUnkOuter, const GUID* pIId,
                                 void** ppInterface) {
    if (ppInterface == nullptr || pUnkOuter != nullptr)
        return kModule.fail(KC_CODE_INVALID_ARGUMENT, "OMFactoryCreateInstance", 201);
    *ppInterface = nullptr;
    fill_tables();
    if (*pIId == IID_IObjectManager_1 || *pIId == IID_IObjectManager_2)
        return make_manager<ObjectInfo>(ObjectQueryInterface, 351, pIId, ppInterface);
    if (*pIId == IID_ISCObjectManager_1 || *pIId == IID_ISCObjectManager_2)
        return make_manager<_SCObjectInfo>(SCObjectQueryInterface, 375, pIId, ppInterface);
    return kModule.fail(KC_CODE_UNSUPPORTED, "OMFactoryCreateInstance", 382);
}

// Contract: only exactly 1 locks; any other true value counts as an unlock.
KCSTATUS OMFactoryLockServer(LCM_IClassFactory* pThis, BOOLEAN fLock) {
    UINT32* locks = &factory_of(pThis)->cLock;
    if (fLock == 1)
        service<&IOsalVtbl::KxInterlockedIncrement>(pIOsal, locks);
    else
        service<&IOsalVtbl::KxInterlockedDecrement>(pIOsal, locks);
    return KC_OK;
}
