// The object managers' class factory, their tables, and the references of an instance.
#include "support/faults.h"
#include "support/object_test.h"

OSAL_BEGIN_DECLS
extern const LCM_IClassFactoryVtbl vtOmCF;
extern CFInstance IOmClassFactory;
OSAL_END_DECLS

namespace osal_test {
namespace {

class ObjectFactory : public ServiceTest {
  protected:
    void expect_built(UINT32 code, const char* tag, const char* function, UINT32 line) {
        const auto built = statuses.take();
        ASSERT_EQ(built.size(), 1u);
        EXPECT_EQ(built[0].severity, KC_SEVERITY_ERROR);
        EXPECT_EQ(built[0].facility, KC_FACILITY_OBJECT);
        EXPECT_EQ(built[0].code, code);
        EXPECT_EQ(built[0].file, tag);
        EXPECT_EQ(built[0].function, function);
        EXPECT_EQ(built[0].line, line);
    }
    KCSTATUS create(const GUID& iid, void** made) {
        return factory->lpVtbl->CreateInstance(factory, nullptr, &iid, made);
    }

    StatusRecorder statuses;
    LCM_IClassFactory* factory = object_factory();
};

void* const kUntouched = reinterpret_cast<void*>(0x5A5A5A5A);

TEST_F(ObjectFactory, TheComponentEntryHandsOutTheStaticFactoryAndCountsIt) {
    EXPECT_EQ(static_cast<void*>(factory), &IOmClassFactory);
    EXPECT_EQ(IOmClassFactory.lpVtbl, &vtOmCF);
    EXPECT_EQ(IOmClassFactory.cReference, 1u);
    void* again = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IUnknown, &again), KC_S_OK);
    EXPECT_EQ(again, factory);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 1u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 0u);
}

TEST_F(ObjectFactory, TheComponentEntryMapsAnUnknownInterface) {
    void* made = kUntouched;
    EXPECT_EQ(DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IObjectManager_1, &made),
              KC_E_NOINTERFACE);
    EXPECT_EQ(made, nullptr);
}

TEST_F(ObjectFactory, QueryInterfaceForTheFactoryRaisesItsCount) {
    void* made = nullptr;
    EXPECT_EQ(factory->lpVtbl->QueryInterface(factory, &IID_IClassFactory, &made), KC_OK);
    EXPECT_EQ(made, &IOmClassFactory);
    EXPECT_EQ(IOmClassFactory.cReference, 2u);
}

TEST_F(ObjectFactory, QueryInterfaceForIUnknownHandsOutTheObjectItWasCalledOn) {
    CFInstance other = {&vtOmCF, 0, 0};
    auto* asked = reinterpret_cast<LCM_IClassFactory*>(&other);
    void* made = nullptr;
    EXPECT_EQ(factory->lpVtbl->QueryInterface(asked, &IID_IUnknown, &made), KC_OK);
    EXPECT_EQ(made, asked);
    EXPECT_EQ(other.cReference, 1u);
    EXPECT_EQ(factory->lpVtbl->QueryInterface(asked, &IID_IClassFactory, &made), KC_OK);
    EXPECT_EQ(made, &IOmClassFactory);
    EXPECT_EQ(other.cReference, 1u);
}

TEST_F(ObjectFactory, QueryInterfaceWithoutAResultPointerIsRefused) {
    EXPECT_EQ(factory->lpVtbl->QueryInterface(factory, &IID_IUnknown, nullptr), object_error(4));
    expect_built(4, "../factory", "OMFactoryQueryInterface", 100);
}

TEST_F(ObjectFactory, QueryInterfaceForAnUnknownInterfaceIsRefused) {
    void* made = kUntouched;
    EXPECT_EQ(factory->lpVtbl->QueryInterface(factory, &IID_IOrvaneOsal_1, &made), object_error(2));
    EXPECT_EQ(made, nullptr);
    expect_built(2, "../factory", "OMFactoryQueryInterface", 117);
    EXPECT_EQ(IOmClassFactory.cReference, 1u);
}

TEST_F(ObjectFactory, AddRefAndReleaseReturnTheNewCount) {
    EXPECT_EQ(factory->lpVtbl->AddRef(factory), 2u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 1u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 0u);
}

TEST_F(ObjectFactory, LockServerCountsUpForExactlyOneOnly) {
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 1), KC_OK);
    EXPECT_EQ(IOmClassFactory.cLock, 1u);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 2), KC_OK);
    EXPECT_EQ(IOmClassFactory.cLock, 0u);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 0), KC_OK);
    EXPECT_EQ(IOmClassFactory.cLock, 0xFFFFFFFFu);
}

TEST_F(ObjectFactory, CreateInstanceWithAnOuterObjectLeavesTheTargetUntouched) {
    void* made = kUntouched;
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, factory, &IID_IObjectManager_1, &made),
              object_error(4));
    EXPECT_EQ(made, kUntouched);
    expect_built(4, "../factory", "OMFactoryCreateInstance", 201);
    EXPECT_FALSE(vtInitialized);
}

TEST_F(ObjectFactory, CreateInstanceWithoutAResultPointerIsRefused) {
    EXPECT_EQ(create(IID_IObjectManager_1, nullptr), object_error(4));
    expect_built(4, "../factory", "OMFactoryCreateInstance", 201);
}

TEST_F(ObjectFactory, CreateInstanceForAnUnknownInterfaceIsRefused) {
    for (const GUID* iid : {&IID_IUnknown, &IID_IClassFactory, &IID_IOrvaneOsal_1}) {
        void* made = kUntouched;
        EXPECT_EQ(create(*iid, &made), object_error(2));
        EXPECT_EQ(made, nullptr);
        expect_built(2, "../factory", "OMFactoryCreateInstance", 382);
    }
    EXPECT_TRUE(vtInitialized);
}

TEST_F(ObjectFactory, AllSixteenBytesOfAnIdentifierCount) {
    GUID iid = IID_IObjectManager_1;
    for (std::size_t i = 0; i < sizeof iid; ++i) {
        reinterpret_cast<UINT8*>(&iid)[i] ^= 1;
        void* made = nullptr;
        EXPECT_EQ(create(iid, &made), object_error(2)) << "byte " << i;
        reinterpret_cast<UINT8*>(&iid)[i] ^= 1;
    }
}

TEST_F(ObjectFactory, CreateInstanceWithoutMemoryFails) {
    void* made = kUntouched;
    {
        HeapFault no_memory(1);
        EXPECT_EQ(create(IID_IObjectManager_1, &made), object_error(5));
    }
    EXPECT_EQ(made, nullptr);
    expect_built(5, "../factory", "OMFactoryCreateInstance", 351);
    EXPECT_EQ(g_ulCount, 0u);
}

TEST_F(ObjectFactory, TheTablesAreZeroUntilTheFirstCreation) {
    const IOMVtbl empty = {};
    const IOM_2Vtbl empty_2 = {};
    EXPECT_EQ(memcmp(&vtObject, &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(&vtObject_2, &empty_2, sizeof empty_2), 0);
    EXPECT_FALSE(vtInitialized);
    void* made = nullptr;
    ASSERT_EQ(create(IID_IObjectManager_1, &made), KC_OK);
    EXPECT_EQ(vtInitialized, TRUE);
    static_cast<IOM*>(made)->lpVtbl->Release(made);
}

TEST_F(ObjectFactory, EverySlotHoldsItsFunction) {
    void* made = nullptr;
    ASSERT_EQ(create(IID_IObjectManager_2, &made), KC_OK);
    using Slot = void (*)();
#define ADDRESS(number, field, function, ...) reinterpret_cast<Slot>(&function),
    const Slot first[] = {KX_IOM_SLOTS(ADDRESS)};
    const Slot second[] = {KX_IOM_2_SLOTS(ADDRESS)};
#undef ADDRESS
    static_assert(std::size(first) == 20 && std::size(second) == 21);
    EXPECT_EQ(memcmp(first, &vtObject, sizeof vtObject), 0);
    EXPECT_EQ(memcmp(second, &vtObject_2, sizeof vtObject_2), 0);
    static_cast<IOM_2*>(made)->lpVtbl->Release(made);
}

// Written out once more, so that a slip in the lists shows.
TEST_F(ObjectFactory, TheSlotsAreInOrder) {
    const std::vector<std::string> first = {"QueryInterface",
                                            "AddRef",
                                            "Release",
                                            "Initialize",
                                            "CreateObject",
                                            "DeleteObject",
                                            "ReferenceObjectByHandle",
                                            "DereferenceObject",
                                            "EnumerateObjects",
                                            "GetObjectHandle",
                                            "FindObject",
                                            "AcquireObject",
                                            "ReleaseObject",
                                            "IncrementReference",
                                            "DecrementReference",
                                            "CreateObjectByHandle",
                                            "AllocateObject",
                                            "DeallocateObject",
                                            "OpenObject",
                                            "GetObjectStats"};
    std::vector<std::string> second = first;
    second.insert(second.begin() + 10, "GetRawObjectHandle");
#define NAME(number, field, ...) #field,
    EXPECT_EQ(first, (std::vector<std::string>{KX_IOM_SLOTS(NAME)}));
    EXPECT_EQ(second, (std::vector<std::string>{KX_IOM_2_SLOTS(NAME)}));
#undef NAME
}

TEST_F(ObjectFactory, ConcurrentFirstCreationsAllSeeFilledTables) {
    std::vector<std::unique_ptr<RawThread>> threads;
    std::atomic<bool> go = false;
    std::atomic<int> made_count = 0;
    for (int i = 0; i < 8; ++i)
        threads.push_back(std::make_unique<RawThread>([&, i] {
            while (!go)
                sched_yield();
            void* made = nullptr;
            const GUID& iid = i % 2 != 0 ? IID_IObjectManager_1 : IID_IObjectManager_2;
            if (create(iid, &made) != KC_OK) return;
            if (i % 2 != 0)
                static_cast<IOM*>(made)->lpVtbl->Release(made);
            else
                static_cast<IOM_2*>(made)->lpVtbl->Release(made);
            ++made_count;
        }));
    go = true;
    for (auto& thread : threads)
        thread->join();
    EXPECT_EQ(made_count, 8);
}

class ObjectInstance : public ObjectTest {};
OSAL_ALL_FACES(ObjectInstance);

TEST_P(ObjectInstance, IsMadeWithOneReferenceAndItsTable) {
    EXPECT_EQ(info->cReference, 1u);
    EXPECT_EQ(g_ulCount, 1u);
    EXPECT_EQ(info->flags, 0u);
    const void* table = GetParam() == Face::kSecond ? static_cast<const void*>(&vtObject_2)
                                                    : static_cast<const void*>(&vtObject);
    EXPECT_EQ(info->lpVtbl, table);
}

TEST_P(ObjectInstance, AskingForTheOtherVersionSwitchesTheTable) {
    start();
    void* same = nullptr;
    EXPECT_EQ(om.QueryInterface(info, &IID_IObjectManager_2, &same), KC_OK);
    EXPECT_EQ(same, info);
    EXPECT_EQ(static_cast<const void*>(info->lpVtbl), &vtObject_2);
    EXPECT_EQ(om.QueryInterface(info, &IID_IUnknown, &same), KC_OK);
    EXPECT_EQ(static_cast<const void*>(info->lpVtbl), &vtObject_2);
    EXPECT_EQ(om.QueryInterface(info, &IID_IObjectManager_1, &same), KC_OK);
    EXPECT_EQ(info->lpVtbl, &vtObject);
    EXPECT_EQ(info->cReference, 4u);
    EXPECT_EQ(g_ulCount, 4u);
    for (UINT32 left = 3; left > 0; --left)
        EXPECT_EQ(om.Release(info), left);
}

// The handles that a first holder gets change their form when a second one asks for the other
// version.
TEST_P(ObjectInstance, SwitchingTheTableChangesTheHandlesOfEveryHolder) {
    start();
    PVOID data = create(1);
    void* same = nullptr;
    HANDLE plain = nullptr, scrambled = nullptr;
    om.QueryInterface(info, &IID_IObjectManager_1, &same);
    info->lpVtbl->GetObjectHandle(info, data, &plain);
    om.QueryInterface(info, &IID_IObjectManager_2, &same);
    info->lpVtbl->GetObjectHandle(info, data, &scrambled);
    EXPECT_EQ(osal::handle_word(plain) ^ osal::handle_word(scrambled), osal::scramble_of(info));
    EXPECT_NE(plain, scrambled);
    om.Release(info);
    om.Release(info);
    end(data);
}

TEST_P(ObjectInstance, QueryInterfaceWithoutInstanceOrResultPointerIsRefused) {
    void* made = kUntouched;
    EXPECT_EQ(om.QueryInterface(nullptr, &IID_IUnknown, &made), object_error(4));
    EXPECT_EQ(made, kUntouched);
    expect_built(4, "ObjectQueryInterface", 82);
    EXPECT_EQ(om.QueryInterface(info, &IID_IUnknown, nullptr), object_error(4));
    expect_built(4, "ObjectQueryInterface", 82);
}

TEST_P(ObjectInstance, QueryInterfaceForAnUnknownInterfaceIsRefused) {
    void* made = kUntouched;
    const void* table = info->lpVtbl;
    EXPECT_EQ(om.QueryInterface(info, &IID_IClassFactory, &made), object_error(2));
    EXPECT_EQ(made, nullptr);
    expect_built(2, "ObjectQueryInterface", 110);
    EXPECT_EQ(info->lpVtbl, table);
    EXPECT_EQ(info->cReference, 1u);
}

TEST_P(ObjectInstance, AddRefCountsTheInstanceAndTheModule) {
    EXPECT_EQ(om.AddRef(info), 2u);
    EXPECT_EQ(g_ulCount, 2u);
    EXPECT_EQ(om.Release(info), 1u);
    EXPECT_EQ(g_ulCount, 1u);
}

TEST_P(ObjectInstance, ReleasingAnUninitialisedOneFreesItsRecordAtOnce) {
    EXPECT_NE(holdings(), before);
    EXPECT_EQ(release(), 0u);
    EXPECT_EQ(holdings(), before);
    expect_nothing_built();
}

}  // namespace
}  // namespace osal_test
