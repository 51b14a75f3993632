// The component entry, the service factory, and the life of service instances.
#include "osal/component.h"

#include <dlfcn.h>
#include <pthread.h>
#include <string.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "osal/internal/pool_block.h"
#include "support/faults.h"
#include "support/recorders.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

template <class T>
T* symbol(const char* name) {
    void* address = dlsym(RTLD_DEFAULT, name);
    EXPECT_NE(address, nullptr) << name << " cannot be found by name";
    return static_cast<T*>(address);
}

LCM_IClassFactory* as_factory(void* object) {
    return static_cast<LCM_IClassFactory*>(object);
}

// An identifier that differs from another in one of its sixteen bytes.
GUID with_other_byte(GUID id, std::size_t index) {
    reinterpret_cast<UCHAR*>(&id)[index] ^= 0x40;
    return id;
}

// A started library; the factory as a client gets it.
class Component : public testing::Test {
  protected:
    Component() {
        DllStart();
        void* object = nullptr;
        EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &object), KC_S_OK);
        factory = as_factory(object);
        counts = static_cast<CFInstance*>(object);
    }
    ~Component() override { DllStop(); }

    KCSTATUS create(void** instance) {
        return factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IOrvaneOsal_1, instance);
    }

    LCM_IClassFactory* factory;
    CFInstance* counts;
    StatusRecorder statuses;
    void* const untouched = &statuses;
};

// --- identifiers

std::string text_of(const GUID& id) {
    char text[37];
    snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", id.Data1,
             id.Data2, id.Data3, id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4],
             id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

TEST(Identifiers, AreExportedWithTheirSixteenBytes) {
    const struct {
        const char* name;
        const char* text;
    } kIdentifiers[] = {
        {"CLSID_OrvaneOsal", "9074B2E1-B573-11D2-82E6-0008C7299464"},
        {"IID_IOrvaneOsal_1", "9074B2E0-B573-11D2-82E6-0008C7299464"},
        {"CLSID_ObjectManagerDataStore", "7FDB405F-8F95-11D0-BAD9-00C04FC28D48"},
        {"IID_IUnknown", "00000000-0000-0000-C000-000000000046"},
        {"IID_IClassFactory", "00000001-0000-0000-C000-000000000046"},
        {"IID_IObjectManager_1", "9F376C29-4F41-11D2-90AB-00A0C925D248"},
        {"IID_IObjectManager_2", "7496CBA4-C0F6-4E8D-BAAB-7A59809B3ADD"},
        {"IID_ISCObjectManager_1", "F5BF7C63-24DB-11D3-BD1F-9F0FED487865"},
        {"IID_ISCObjectManager_2", "99D7A180-1E1D-4F8D-94E1-2ED36270D54B"},
        {"CLSID_SecurityContextManager", "7F4F2EB7-07B3-11D3-BBF2-00A0C9EA53EF"},
        {"IID_ISecurityContext_1", "7F4F2EB6-07B3-11D3-BBF2-00A0C9EA53EF"},
        {"CLSID_SecurityAttributeManager", "59B15C79-0FBE-11D3-BBF3-00A0C9EA53EF"},
        {"IID_IContextAttribute_1", "360B325B-0F94-11D3-BBF3-00A0C9EA53EF"},
        {"IID_IPassiveContextAttribute_1", "35277243-7D36-11D5-BC31-00A0C9EA53EF"},
    };
    for (const auto& [name, text] : kIdentifiers) {
        const auto* id = symbol<const GUID>(name);
        ASSERT_NE(id, nullptr);
        EXPECT_EQ(text_of(*id), text) << name;
    }
#define COUNT(...) +1
    EXPECT_EQ(std::size(kIdentifiers), std::size_t{OSAL_IDENTIFIERS(COUNT)});
#undef COUNT
}

TEST(Identifiers, LieInTheOrderOfTheirFields) {
    const UCHAR bytes[] = {0xE1, 0xB2, 0x74, 0x90, 0x73, 0xB5, 0xD2, 0x11,
                           0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94, 0x64};
    static_assert(sizeof(GUID) == sizeof bytes);
    EXPECT_EQ(memcmp(&CLSID_OrvaneOsal, bytes, sizeof bytes), 0);
}

TEST(ClassTable, ListsTheTwoClassesAndEndsWithNull) {
    EXPECT_EQ(TSCOM_Table[0], &CLSID_OrvaneOsal);
    EXPECT_EQ(TSCOM_Table[1], &CLSID_ObjectManagerDataStore);
    EXPECT_EQ(TSCOM_Table[2], nullptr);
}

// --- DllGetClassObject

TEST_F(Component, AnUnknownClassGivesNoInterfaceAndLeavesThePointer) {
    void* object = untouched;
    EXPECT_EQ(DllGetClassObject(&IID_IOrvaneOsal_1, &IID_IClassFactory, &object),
              HRESULT{0x80004002});
    EXPECT_EQ(object, untouched);
    statuses.expect_none();
}

TEST_F(Component, ClassesAreComparedOverAllSixteenBytes) {
    for (std::size_t i = 0; i < sizeof(GUID); ++i) {
        const GUID other = with_other_byte(CLSID_OrvaneOsal, i);
        void* object = untouched;
        EXPECT_EQ(DllGetClassObject(&other, &IID_IClassFactory, &object), KC_E_NOINTERFACE) << i;
        EXPECT_EQ(object, untouched);
    }
}

TEST_F(Component, TheServiceClassGivesTheServiceFactoryWithItsCountRaised) {
    const UINT32 before = counts->cReference;
    void* object = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &object), KC_S_OK);
    EXPECT_EQ(object, symbol<CFInstance>("IOsalClassFactory"));
    EXPECT_EQ(counts->cReference, before + 1);
    EXPECT_EQ(counts->lpVtbl, symbol<LCM_IClassFactoryVtbl>("vtOsalCF"));
}

TEST_F(Component, TheFirstReferenceOfTheFactoryIsTheFirstCallers) {
    EXPECT_EQ(counts->cReference, 1u);
    EXPECT_EQ(counts->cLock, 0u);
}

TEST_F(Component, IUnknownOfTheServiceClassGivesTheStaticFactory) {
    const UINT32 before = counts->cReference;
    void* object = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IUnknown, &object), KC_S_OK);
    EXPECT_EQ(object, counts);
    EXPECT_EQ(counts->cReference, before + 1);
}

TEST_F(Component, AnotherInterfaceOfTheServiceClassGivesNoInterfaceAndNull) {
    void* object = untouched;
    EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IOrvaneOsal_1, &object),
              HRESULT{0x80004002});
    EXPECT_EQ(object, nullptr);
    statuses.expect_one(2, "osal", "OsalFactoryQueryInterface");
}

TEST_F(Component, AMissingOutPointerIsAFailedCreation) {
    EXPECT_EQ(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, nullptr),
              HRESULT{0x80080001});
    statuses.expect_one(4, "osal", "OsalFactoryQueryInterface");
}

// --- the factory

TEST_F(Component, FactoryQueryWithoutAnOutPointerIsAnInvalidArgument) {
    EXPECT_EQ(factory->lpVtbl->QueryInterface(factory, &IID_IClassFactory, nullptr), error(4));
    statuses.expect_one(4, "osal", "OsalFactoryQueryInterface");
}

TEST_F(Component, FactoryQueryForAnotherInterfaceClearsThePointer) {
    for (std::size_t i = 0; i < sizeof(GUID); ++i) {
        const GUID other = with_other_byte(IID_IClassFactory, i);
        if (other == IID_IUnknown) continue;
        void* object = untouched;
        EXPECT_EQ(factory->lpVtbl->QueryInterface(factory, &other, &object), error(2));
        EXPECT_EQ(object, nullptr);
        statuses.expect_one(2, "osal", "OsalFactoryQueryInterface");
    }
    EXPECT_EQ(counts->cReference, 1u);
}

UINT32 count_by_ten(LCM_IClassFactory* This) {
    return reinterpret_cast<CFInstance*>(This)->cReference += 10;
}

TEST_F(Component, FactoryQueryForIUnknownCountsThroughTheTableOfTheObjectItIsCalledOn) {
    LCM_IClassFactoryVtbl table = *factory->lpVtbl;
    table.AddRef = count_by_ten;
    CFInstance other = {&table, 0, 0};
    auto* This = reinterpret_cast<LCM_IClassFactory*>(&other);
    void* object = nullptr;
    EXPECT_EQ(factory->lpVtbl->QueryInterface(This, &IID_IUnknown, &object), KC_OK);
    EXPECT_EQ(object, This);
    EXPECT_EQ(other.cReference, 10u);
    EXPECT_EQ(factory->lpVtbl->QueryInterface(This, &IID_IClassFactory, &object), KC_OK);
    EXPECT_EQ(object, counts);
    EXPECT_EQ(other.cReference, 10u);
    EXPECT_EQ(counts->cReference, 2u);
}

TEST_F(Component, FactoryReferencesAreCountedAndTheFactoryIsNeverFreed) {
    EXPECT_EQ(factory->lpVtbl->AddRef(factory), 2u);
    EXPECT_EQ(factory->lpVtbl->AddRef(factory), 3u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 2u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 1u);
    EXPECT_EQ(factory->lpVtbl->Release(factory), 0u);
    EXPECT_EQ(factory->lpVtbl->AddRef(factory), 1u);
    void* instance = nullptr;
    EXPECT_EQ(create(&instance), KC_OK);
    OsalReleaseReference(static_cast<PIOsal>(instance));
}

TEST_F(Component, LockServerLocksForExactlyOneAndUnlocksForAnyOtherValue) {
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 1), KC_OK);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 1), KC_OK);
    EXPECT_EQ(counts->cLock, 2u);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 0), KC_OK);
    EXPECT_EQ(counts->cLock, 1u);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 2), KC_OK);
    EXPECT_EQ(counts->cLock, 0u);
    EXPECT_EQ(factory->lpVtbl->LockServer(factory, 255), KC_OK);
    EXPECT_EQ(counts->cLock, 0xFFFFFFFFu);
    EXPECT_EQ(counts->cReference, 1u) << "locks are not references";
}

TEST_F(Component, FactoryCountsAreExactUnderManyThreads) {
    constexpr int kThreads = 4, kRounds = 5000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([this] {
            for (int round = 0; round < kRounds; ++round) {
                factory->lpVtbl->AddRef(factory);
                factory->lpVtbl->LockServer(factory, 1);
                if (round % 2 == 0) factory->lpVtbl->Release(factory);
                if (round % 2 == 0) factory->lpVtbl->LockServer(factory, 0);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counts->cReference, 1u + kThreads * kRounds / 2);
    EXPECT_EQ(counts->cLock, kThreads * kRounds / 2u);
}

TEST_F(Component, TheFactoryRoutinesAreFoundByNameInTheOrderOfTheTable) {
    const char* const names[] = {"OsalFactoryQueryInterface", "OsalFactoryAddReference",
                                 "OsalFactoryReleaseReference", "OsalFactoryCreateInstance",
                                 "OsalFactoryLockServer"};
    void* entries[std::size(names)];
    static_assert(sizeof entries == sizeof *factory->lpVtbl);
    memcpy(entries, factory->lpVtbl, sizeof entries);
    for (std::size_t i = 0; i < std::size(names); ++i)
        EXPECT_EQ(entries[i], symbol<void>(names[i])) << names[i];
}

// --- CreateInstance

TEST_F(Component, CreateWithoutAnOutPointerIsAnInvalidArgument) {
    EXPECT_EQ(create(nullptr), error(4));
    statuses.expect_one(4, "osal", "OsalFactoryCreateInstance");
}

TEST_F(Component, CreateRefusesAggregationAndLeavesThePointer) {
    void* instance = untouched;
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, factory, &IID_IOrvaneOsal_1, &instance),
              error(4));
    EXPECT_EQ(instance, untouched);
    statuses.expect_one(4, "osal", "OsalFactoryCreateInstance");
}

TEST_F(Component, CreateForIUnknownIsUnsupportedAndClearsThePointer) {
    void* instance = untouched;
    EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IUnknown, &instance),
              error(2));
    EXPECT_EQ(instance, nullptr);
    statuses.expect_one(2, "osal", "OsalFactoryCreateInstance");
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST_F(Component, CreateComparesTheInterfaceOverAllSixteenBytes) {
    for (std::size_t i = 0; i < sizeof(GUID); ++i) {
        const GUID other = with_other_byte(IID_IOrvaneOsal_1, i);
        void* instance = untouched;
        EXPECT_EQ(factory->lpVtbl->CreateInstance(factory, nullptr, &other, &instance), error(2));
        EXPECT_EQ(instance, nullptr);
        statuses.expect_one(2, "osal", "OsalFactoryCreateInstance");
    }
}

TEST_F(Component, CreateWithoutMemoryClearsThePointerAndListsNothing) {
    void* instance = untouched;
    {
        HeapFault fault(1);
        EXPECT_EQ(create(&instance), error(5));
        EXPECT_EQ(fault.requests(), 1);
    }
    EXPECT_EQ(instance, nullptr);
    statuses.expect_one(5, "osal", "OsalFactoryCreateInstance");
    EXPECT_EQ(InterfaceCount, 1u);
    EXPECT_EQ(length_of(InterfaceList), 1u);
}

TEST_F(Component, ANewInstanceIsEmptyWithOneReference) {
    void* object = nullptr;
    ASSERT_EQ(create(&object), KC_OK);
    statuses.expect_none();
    auto* record = static_cast<OsalObjInfo*>(object);
    EXPECT_EQ(record->lpVtbl, symbol<IOsalVtbl>("vtOsal"));
    EXPECT_EQ(record->cReference, 1u);
    EXPECT_EQ(memcmp(&record->Signature, "OSAL", 4), 0);
    EXPECT_EQ(record->Signature, 0x4C41534Fu);
    for (CHAR c : record->ModuleName)
        EXPECT_EQ(c, 0);
    EXPECT_EQ(record->Link2.Flink, nullptr);
    EXPECT_EQ(record->Link2.Blink, nullptr);
    for (auto list :
         {&OsalObjInfo::EventList, &OsalObjInfo::KeyList, &OsalObjInfo::LockList,
          &OsalObjInfo::MemoryNonPagedList, &OsalObjInfo::MemoryPagedList, &OsalObjInfo::MutexList,
          &OsalObjInfo::SpinLockList, &OsalObjInfo::TimerList, &OsalObjInfo::WorkItemList}) {
        EXPECT_EQ((record->*list).Flink, &(record->*list));
        EXPECT_EQ((record->*list).Blink, &(record->*list));
    }
#define EXPECT_ZERO(name) EXPECT_EQ(record->name, 0u) << #name;
    OSAL_COUNTERS(EXPECT_ZERO)
#undef EXPECT_ZERO
    OsalReleaseReference(static_cast<PIOsal>(object));
}

TEST_F(Component, ItsLocksAreOrdinaryMutexes) {
    void* object = nullptr;
    ASSERT_EQ(create(&object), KC_OK);
    auto* record = static_cast<OsalObjInfo*>(object);
    for (pthread_mutex_t* mutex :
         {&record->ProtectionMutex.native, &record->ProtectionSpinLock.native}) {
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY) << "not recursive";
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    }
    OsalReleaseReference(static_cast<PIOsal>(object));
}

// --- the list of instances

std::vector<const void*> listed() {
    std::vector<const void*> instances;
    for (LIST_ENTRY* link = InterfaceList.Flink; link != &InterfaceList; link = link->Flink)
        instances.push_back(reinterpret_cast<char*>(link) - offsetof(OsalObjInfo, Link));
    return instances;
}

TEST_F(Component, InstancesAreListedOldestFirst) {
    using Instances = std::vector<const void*>;
    PIOsal a = new_instance(), b = new_instance(), c = new_instance();
    EXPECT_EQ(listed(), (Instances{pIOsal, a, b, c}));
    EXPECT_EQ(InterfaceCount, 4u);
    EXPECT_EQ(OsalReleaseReference(b), 0u);
    EXPECT_EQ(listed(), (Instances{pIOsal, a, c}));
    EXPECT_EQ(InterfaceCount, 3u);
    EXPECT_EQ(OsalReleaseReference(a), 0u);
    EXPECT_EQ(OsalReleaseReference(c), 0u);
    EXPECT_EQ(listed(), Instances{pIOsal});
    EXPECT_EQ(InterfaceCount, 1u);
}

TEST_F(Component, AReleasedInstanceIsUnlinkedWithTheMarkerAndNoLongerTrusted) {
    Quarantine keep;
    PIOsal instance = new_instance();
    const OsalObjInfo* record = osal::instance_of(instance);
    EXPECT_EQ(OsalReleaseReference(instance), 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record->Link.Flink), 0xBAADF00Du);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(record->Link.Blink), 0xBAADF00Du);
    EXPECT_EQ(KxAllocPagedMemory(instance, 8), nullptr);
}

int mutexes_destroyed;
int stand_in_mutex_destroy(pthread_mutex_t*) {
    ++mutexes_destroyed;
    return 0;
}

TEST_F(Component, AReleasedInstanceGivesBothItsMutexesBack) {
    PIOsal instance = new_instance();
    Interpose hook("osal.so", "pthread_mutex_destroy", &stand_in_mutex_destroy);
    EXPECT_EQ(OsalReleaseReference(instance), 0u);
    EXPECT_EQ(mutexes_destroyed, 2);
}

TEST_F(Component, ReleaseLeavesWhatWasAllocatedThroughTheInstance) {
    PIOsal instance = new_instance();
    char* block = static_cast<char*>(KxAllocPagedMemory(instance, 3));
    strcpy(block, "ab");
    EXPECT_EQ(OsalReleaseReference(instance), 0u);
    EXPECT_STREQ(block, "ab");
    free(block - 56);
}

TEST_F(Component, InstancesComeAndGoOnManyThreads) {
    constexpr int kThreads = 4, kRounds = 500;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([] {
            for (int round = 0; round < kRounds; ++round) {
                PIOsal a = new_instance(), b = new_instance();
                EXPECT_EQ(OsalReleaseReference(a), 0u);
                EXPECT_EQ(OsalReleaseReference(b), 0u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(InterfaceCount, 1u);
    EXPECT_EQ(listed(), std::vector<const void*>{pIOsal});
    EXPECT_EQ(counts->cReference, 1u);
}

// --- instances, by export and by slot

class Instance : public BothWays {
  protected:
    // Of the three whose slot has another name than the export.
    auto query() {
        return GetParam() == Way::kExport ? &OsalQueryInterface : slots->QueryInterface;
    }
    auto add_reference() { return GetParam() == Way::kExport ? &OsalAddReference : slots->AddRef; }
    auto release() { return GetParam() == Way::kExport ? &OsalReleaseReference : slots->Release; }

    StatusRecorder statuses;
};
OSAL_BOTH_WAYS(Instance);

TEST_P(Instance, QueryGivesItselfForItsInterfaceAndIUnknown) {
    for (const GUID* id : {&IID_IUnknown, &IID_IOrvaneOsal_1}) {
        void* object = nullptr;
        EXPECT_EQ(query()(osal, id, &object), KC_OK);
        EXPECT_EQ(object, osal);
        EXPECT_EQ(record->cReference, 2u);
        EXPECT_EQ(release()(osal), 1u);
    }
    statuses.expect_none();
}

TEST_P(Instance, QueryForAnotherInterfaceIsUnsupportedAndClearsThePointer) {
    void* object = osal;
    EXPECT_EQ(query()(osal, &IID_IClassFactory, &object), error(2));
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(record->cReference, 1u);
    statuses.expect_one(2, "osal", "OsalQueryInterface");
    for (std::size_t i = 0; i < sizeof(GUID); ++i) {
        const GUID other = with_other_byte(IID_IOrvaneOsal_1, i);
        EXPECT_EQ(query()(osal, &other, &object), error(2)) << i;
    }
}

TEST_P(Instance, QueryWithoutAnOutPointerIsAnInvalidArgument) {
    EXPECT_EQ(query()(osal, &IID_IUnknown, nullptr), error(4));
    EXPECT_EQ(record->cReference, 1u);
    statuses.expect_one(4, "osal", "OsalQueryInterface");
}

TEST_P(Instance, ReferencesAreCounted) {
    EXPECT_EQ(add_reference()(osal), 2u);
    EXPECT_EQ(add_reference()(osal), 3u);
    EXPECT_EQ(release()(osal), 2u);
    EXPECT_EQ(release()(osal), 1u);
}

TEST_P(Instance, TheLastReleaseReturnsZeroAndEndsTheInstance) {
    PIOsal other = new_instance();
    const UINT32 before = InterfaceCount;
    EXPECT_EQ(release()(other), 0u);
    EXPECT_EQ(InterfaceCount, before - 1);
}

TEST_P(Instance, ReferencesAreExactUnderManyThreads) {
    constexpr int kThreads = 4, kRounds = 5000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([this] {
            for (int round = 0; round < kRounds; ++round) {
                add_reference()(osal);
                add_reference()(osal);
                release()(osal);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(record->cReference, 1u + kThreads * kRounds);
    record->cReference = 1;
}

TEST_P(Instance, ANameOfUpTo31CharactersIsStoredWhole) {
    for (std::size_t length : {0, 1, 30, 31}) {
        const std::string name(length, 'n');
        EXPECT_EQ(CALL(KxRegisterModuleName)(osal, name.c_str()), KC_OK);
        EXPECT_EQ(std::string(record->ModuleName), name);
    }
    statuses.expect_none();
}

TEST_P(Instance, ALongerNameIsCutToItsFirst31Characters) {
    for (std::size_t length : {32, 33, 40, 1000}) {
        std::string name(length, 'n');
        name[30] = 'X';
        EXPECT_EQ(CALL(KxRegisterModuleName)(osal, name.c_str()), KC_OK);
        EXPECT_EQ(record->ModuleName[31], 0);
        EXPECT_EQ(std::string(record->ModuleName), name.substr(0, 31));
    }
    EXPECT_EQ(record->Link.Flink, &InterfaceList) << "the field behind stays as it was";
}

TEST_P(Instance, ASecondNameReplacesTheFirst) {
    CALL(KxRegisterModuleName)(osal, "a long name");
    CALL(KxRegisterModuleName)(osal, "short");
    EXPECT_STREQ(record->ModuleName, "short");
}

TEST_P(Instance, WithoutANameTheCallIsAnInvalidArgument) {
    CALL(KxRegisterModuleName)(osal, "name");
    EXPECT_EQ(CALL(KxRegisterModuleName)(osal, nullptr), error(4));
    EXPECT_STREQ(record->ModuleName, "name");
    statuses.expect_one(4, "osal", "KxRegisterModuleName");
}

}  // namespace
}  // namespace osal_test
