// Security-context objects, with recording stand-ins for the attribute manager and the object
// managers.
#include <algorithm>

#include "osal/internal/object.h"
#include "osal/internal/scobject.h"
#include "support/recorders.h"
#include "support/sc_stand_ins.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

using ::osal::object_of;
using Calls = std::vector<std::string>;

constexpr GUID kComponent = {0x11112222, 0x3333, 0x4444, {1, 2, 3, 4, 5, 6, 7, 8}};

SCHANDLE context(UINT64 type, UINT64 id) {
    return {reinterpret_cast<HANDLE>(type), reinterpret_cast<HANDLE>(id)};
}
const SCHANDLE kFirst = context(1, 1);
const SCHANDLE kSecond = context(1, 2);
const SCHANDLE kThird = context(2, 1);
const SCHANDLE kEveryContext = context(~0ull, ~0ull);

constexpr KCSTATUS object_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OBJECT, code);
}
constexpr KCSTATUS foreign_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, 77, code);
}

struct ClientData {
    UINT32 number;
    UINT32 filler;
};

std::vector<UINT32> deleted;  // numbers of the objects that the delete routine got

KCSTATUS note_deletion(PVOID object) {
    deleted.push_back(static_cast<ClientData*>(object)->number);
    return KC_OK;
}
KCSTATUS refuse_deallocation(PVOID) {
    ADD_FAILURE() << "nothing is ever deallocated";
    return KC_OK;
}
KCSTATUS set_number(PVOID object, PVOID number) {
    static_cast<ClientData*>(object)->number = *static_cast<UINT32*>(number);
    return KC_OK;
}
KCSTATUS refuse(PVOID, PVOID) {
    return foreign_error(9);
}
BOOLEAN has_number(PVOID object, PVOID number) {
    return static_cast<ClientData*>(object)->number == *static_cast<UINT32*>(number);
}

// A recorded call that ends in an access value.
std::string with_access(std::string call, UINT32 access) {
    call += static_cast<char>('0' + access);
    call += ')';
    return call;
}

class SecurityContexts : public ServiceTest {
  protected:
    SecurityContexts() {
        deleted.clear();
        manager_ = make(&IID_ISCObjectManager_1);
    }
    ~SecurityContexts() override {
        for (PVOID object : kept_)
            SCObjectDereference(manager_, object, 0);
        if (manager_ != nullptr) manager_->lpVtbl->Release(manager_);
        EXPECT_EQ(stand_in_.referenced(), 0) << "an attribute stays referenced";
        EXPECT_EQ(stand_in_.manager_references(), 0);
    }

    ISCOM* make(const GUID* iid) {
        void* factory = nullptr;
        EXPECT_EQ(DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IClassFactory, &factory),
                  KC_S_OK);
        auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
        void* made = nullptr;
        EXPECT_EQ(class_factory->lpVtbl->CreateInstance(class_factory, nullptr, iid, &made), KC_OK);
        class_factory->lpVtbl->Release(class_factory);
        return static_cast<ISCOM*>(made);
    }
    ISCOM_2* second() {
        void* same = nullptr;
        EXPECT_EQ(manager_->lpVtbl->QueryInterface(manager_, &IID_ISCObjectManager_2, &same),
                  KC_OK);
        manager_->lpVtbl->Release(manager_);
        return static_cast<ISCOM_2*>(same);
    }
    KCSTATUS initialize(UINT32 level = 0, UINT32 size = sizeof(ClientData), UINT16 per_block = 4) {
        // Deferred deletions would be noted on another thread.
        const bool deferred = level >> 28 != 0;
        return manager_->lpVtbl->Initialize(manager_, &kComponent, size, per_block, level, 2,
                                            deferred ? nullptr : note_deletion, nullptr, nullptr,
                                            0);
    }
    void initialized(UINT32 level = 0) {
        ASSERT_EQ(initialize(level), KC_OK);
        stand_in_.take_calls();
    }
    KCSTATUS create(SCHANDLE where, UINT32 number, PVOID* object, UINT32 create_access = 0,
                    UINT32 open_access = 0, PUINT32 opened = nullptr) {
        const KCSTATUS status = manager_->lpVtbl->CreateObject(
            manager_, where, &number, set_number, &number, has_number, 0, create_access,
            open_access, object, opened);
        if (!KC_IS_ERROR(status)) kept_.push_back(*object);
        return status;
    }
    // An object that is there without a reference of anybody's.
    ClientData* created(SCHANDLE where, UINT32 number) {
        PVOID object = nullptr;
        EXPECT_EQ(create(where, number, &object), KC_OK);
        kept_.pop_back();
        EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, object, 0), KC_OK);
        stand_in_.take_calls();
        return static_cast<ClientData*>(object);
    }
    void expect_failure(UINT32 code, UINT32 line, const char* function) {
        const auto built = statuses_.take();
        ASSERT_EQ(built.size(), 1u);
        EXPECT_EQ(built[0].severity, KC_SEVERITY_ERROR);
        EXPECT_EQ(built[0].facility, KC_FACILITY_OBJECT);
        EXPECT_EQ(built[0].code, code);
        EXPECT_EQ(built[0].file, "../scobject");
        EXPECT_EQ(built[0].line, line);
        EXPECT_EQ(built[0].function, function);
    }
    _SCObjectInfo* info() { return reinterpret_cast<_SCObjectInfo*>(manager_); }

    AttributeStandIn stand_in_;
    StatusRecorder statuses_;
    ISCOM* manager_;
    std::vector<PVOID> kept_;  // referenced objects, given back at the end
};

#define EXPECT_CALLS(...) EXPECT_EQ(stand_in_.take_calls(), (Calls{__VA_ARGS__}))

// --- Tables and interfaces ---

TEST_F(SecurityContexts, TheTablesHoldTheirFunctionsInSlotOrder) {
    const auto* first = reinterpret_cast<void* const*>(&vtSCObject);
    const auto* second = reinterpret_cast<void* const*>(&vtSCObject_2);
#define EXPECT_SLOT(number, field, function, ...) \
    EXPECT_EQ(table[number], reinterpret_cast<void*>(function)) << #field;
    const auto* table = first;
    KX_ISCOM_SLOTS(EXPECT_SLOT)
    table = second;
    KX_ISCOM_2_SLOTS(EXPECT_SLOT)
    EXPECT_EQ(sizeof(ISCOMVtbl), 20 * sizeof(void*));
    EXPECT_EQ(sizeof(ISCOM_2Vtbl), 17 * sizeof(void*));
}

TEST_F(SecurityContexts, QueryingTheSecondInterfaceSwitchesSlotEightForEveryHolder) {
    ISCOM_2* second = this->second();
    EXPECT_EQ(static_cast<void*>(second), static_cast<void*>(manager_));
    EXPECT_EQ(second->lpVtbl->EnumerateObjects, &SCObjectEnumerate2);
    EXPECT_EQ(reinterpret_cast<const ISCOM_2*>(manager_)->lpVtbl, &vtSCObject_2);

    void* unknown = nullptr;
    EXPECT_EQ(second->lpVtbl->QueryInterface(second, &IID_IUnknown, &unknown), KC_OK);
    EXPECT_EQ(unknown, second);
    EXPECT_EQ(second->lpVtbl, &vtSCObject_2);
    second->lpVtbl->Release(second);

    void* again = nullptr;
    EXPECT_EQ(second->lpVtbl->QueryInterface(second, &IID_ISCObjectManager_1, &again), KC_OK);
    EXPECT_EQ(manager_->lpVtbl, &vtSCObject);
    manager_->lpVtbl->Release(manager_);
}

TEST_F(SecurityContexts, QueryInterfaceRefusesNullsAndUnknownIdentifiers) {
    void* out = &out;
    EXPECT_EQ(manager_->lpVtbl->QueryInterface(nullptr, &IID_IUnknown, &out), object_error(4));
    expect_failure(4, 410, "SCObjectQueryInterface");
    EXPECT_EQ(out, &out);
    EXPECT_EQ(manager_->lpVtbl->QueryInterface(manager_, &IID_IUnknown, nullptr), object_error(4));
    expect_failure(4, 410, "SCObjectQueryInterface");
    EXPECT_EQ(manager_->lpVtbl->QueryInterface(manager_, &IID_IObjectManager_1, &out),
              object_error(2));
    expect_failure(2, 435, "SCObjectQueryInterface");
    EXPECT_EQ(out, nullptr);
}

TEST_F(SecurityContexts, ReferencesAreCountedInTheInstanceAndInTheModule) {
    const UINT32 before = g_ulCount;
    EXPECT_EQ(info()->cReference, 1u);
    EXPECT_EQ(manager_->lpVtbl->AddRef(manager_), 2u);
    EXPECT_EQ(g_ulCount, before + 1);
    EXPECT_EQ(manager_->lpVtbl->Release(manager_), 1u);
    EXPECT_EQ(g_ulCount, before);
}

TEST_F(SecurityContexts, ReleaseOfAnInstanceThatWasNeverInitialisedTouchesNoManager) {
    const auto* own = osal::instance_of(pIOsal);
    const UINT32 in_use = own->MemoryNonPagedInUse;
    EXPECT_EQ(manager_->lpVtbl->Release(manager_), 0u);
    manager_ = nullptr;
    EXPECT_CALLS();
    EXPECT_EQ(own->MemoryNonPagedInUse, in_use - sizeof(_SCObjectInfo));
}

TEST_F(SecurityContexts, TheLastReleaseDeregistersThenReleasesTheAttributeManager) {
    initialized();
    EXPECT_EQ(manager_->lpVtbl->Release(manager_), 0u);
    manager_ = nullptr;
    EXPECT_CALLS("SADeregisterAttribute", "ISA.Release");
}

// --- Initialize ---

TEST_F(SecurityContexts, InitializeRefusesWhatIsOutOfRange) {
    const auto refused = [&](KCSTATUS status) {
        EXPECT_EQ(status, object_error(4));
        expect_failure(4, 548, "SCObjectInitialize");
        EXPECT_EQ(info()->pISA, nullptr);
    };
    for (UINT32 level : {1u, 4u, 0x10000001u, 0x08000000u, 0xF8000003u, 0x0FFFFFFFu})
        refused(initialize(level));
    refused(initialize(0, sizeof(ClientData), 256));
    refused(initialize(0, 0xFFFFFFFFu));
    refused(initialize(0, 0xFFFFFFFFu - 23));
    refused(
        manager_->lpVtbl->Initialize(manager_, nullptr, 8, 4, 0, 1, nullptr, nullptr, nullptr, 0));
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, InitializeRegistersTheAttributeTypeAndStoresItsArguments) {
    const auto cleanup = [](SCHANDLE) {};
    EXPECT_EQ(manager_->lpVtbl->Initialize(manager_, &kComponent, 100, 255, 0x20000003, 7,
                                           note_deletion, note_deletion, cleanup, 3),
              KC_OK);
    EXPECT_CALLS("LcmCreateInstance(attributes)", "SARegisterAttribute");
    EXPECT_TRUE(stand_in_.component == kComponent);
    EXPECT_EQ(stand_in_.data_size, 8u);
    EXPECT_EQ(stand_in_.cleanup, static_cast<PSA_CLEANUP_ROUTINE>(cleanup));
    EXPECT_NE(info()->pISA, nullptr);
    EXPECT_EQ(info()->hAttribute, &stand_in_);
    EXPECT_EQ(info()->objectSize, 124u);
    EXPECT_EQ(info()->objectsPerBlock, 255u);
    EXPECT_EQ(info()->accessLevel, 0x20000003u);
    EXPECT_EQ(info()->hashSize, 7u);
    EXPECT_EQ(info()->permBlocks, 3u);
    EXPECT_EQ(info()->pfDelete, &note_deletion);
}

TEST_F(SecurityContexts, LevelsWithBitOneAskForTheContextAttributeInterface) {
    initialized(0x10000002);
    EXPECT_TRUE(stand_in_.asked_for == IID_IContextAttribute_1);
    initialized(3);
    EXPECT_TRUE(stand_in_.asked_for == IID_IContextAttribute_1);
    initialized(0);
    EXPECT_TRUE(stand_in_.asked_for == IID_IPassiveContextAttribute_1);
}

TEST_F(SecurityContexts, InitializePassesOnThatThereIsNoAttributeManager) {
    stand_in_.fail_next("attributes", foreign_error(2));
    EXPECT_EQ(initialize(), foreign_error(2));
    EXPECT_EQ(info()->pISA, nullptr);
    EXPECT_EQ(info()->objectSize, 0u);
    statuses_.expect_none();
}

TEST_F(SecurityContexts, ASecondInitializeWithoutAnAttributeManagerLeavesTheInstanceUninitialised) {
    initialized();
    stand_in_.fail_next("attributes", foreign_error(2));
    EXPECT_EQ(initialize(), foreign_error(2));
    EXPECT_CALLS("SADeregisterAttribute", "ISA.Release", "LcmCreateInstance(attributes)");
    EXPECT_EQ(info()->pISA, nullptr);
    EXPECT_EQ(stand_in_.manager_references(), 0);
}

TEST_F(SecurityContexts, InitializeGivesTheAttributeManagerBackWhenRegistrationFails) {
    stand_in_.fail_next("SARegisterAttribute", foreign_error(5));
    EXPECT_EQ(initialize(), foreign_error(5));
    EXPECT_CALLS("LcmCreateInstance(attributes)", "SARegisterAttribute", "ISA.Release");
    EXPECT_EQ(info()->pISA, nullptr);
    EXPECT_EQ(info()->objectSize, 0u);
}

TEST_F(SecurityContexts, ASecondInitializeIsAcceptedAndGivesUpTheFirst) {
    initialized();
    ASSERT_EQ(initialize(), KC_OK);
    EXPECT_CALLS("SADeregisterAttribute", "ISA.Release", "LcmCreateInstance(attributes)",
                 "SARegisterAttribute");
    EXPECT_EQ(stand_in_.manager_references(), 1);
}

TEST_F(SecurityContexts, InitializeAcceptsWhatIsJustInRange) {
    EXPECT_EQ(initialize(0, 0xFFFFFFFFu - 24, 255), KC_OK);
    EXPECT_EQ(info()->objectSize, 0xFFFFFFFFu);
    for (UINT32 level : {0u, 2u, 3u, 0xF0000000u, 0x80000003u})
        EXPECT_EQ(initialize(level), KC_OK) << level;
    EXPECT_EQ(info()->objectSize, sizeof(ClientData) + 24);
}

TEST_F(SecurityContexts, ASecondInitializeThatIsRefusedChangesNothing) {
    initialized();
    EXPECT_EQ(initialize(1), object_error(4));
    EXPECT_CALLS();
    EXPECT_EQ(info()->accessLevel, 0u);
    PVOID object = nullptr;
    EXPECT_EQ(create(kFirst, 1, &object), KC_OK);
}

// What was held is given up before, so the instance is as one that was never initialised.
TEST_F(SecurityContexts, ASecondInitializeThatFailsLeavesTheInstanceUninitialised) {
    initialized();
    stand_in_.fail_next("SARegisterAttribute", foreign_error(5));
    EXPECT_EQ(initialize(), foreign_error(5));
    EXPECT_CALLS("SADeregisterAttribute", "ISA.Release", "LcmCreateInstance(attributes)",
                 "SARegisterAttribute", "ISA.Release");
    EXPECT_EQ(info()->pISA, nullptr);
    PVOID object = nullptr;
    EXPECT_EQ(create(kFirst, 1, &object), object_error(4));
    expect_failure(4, 353, "_GetSessionAttribute");
}

// --- CreateObject ---

TEST_F(SecurityContexts, TheFirstObjectOfAContextMakesItsObjectManager) {
    initialized(0x10000000);
    PVOID object = nullptr;
    UINT32 opened = 0;
    ASSERT_EQ(create(kFirst, 5, &object, 0, 0, &opened), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Initialize", "CreateObject(0,0)", "SADereference(1:1,1)");
    EXPECT_EQ(opened, 1u);
    EXPECT_EQ(static_cast<ClientData*>(object)->number, 5u);
    EXPECT_EQ(stand_in_.sizes, std::vector<UINT32>{sizeof(ClientData) + 24});
    EXPECT_EQ(stand_in_.levels, std::vector<UINT32>{0x10000000});
    statuses_.expect_none();
}

TEST_F(SecurityContexts, LaterObjectsUseTheContextsManagerAndExistingOnesAreOpened) {
    initialized();
    ClientData* first = created(kFirst, 5);
    PVOID object = nullptr;
    UINT32 opened = 0;
    ASSERT_EQ(create(kFirst, 5, &object, 0, 0, &opened), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "CreateObject(0,0)", "SADereference(1:1,2)");
    EXPECT_EQ(object, first);
    EXPECT_EQ(opened, 2u);
    ASSERT_EQ(create(kFirst, 6, &object), KC_OK);
    EXPECT_NE(object, first);
    EXPECT_EQ(stand_in_.attributes(), 1u);
}

TEST_F(SecurityContexts, TheLoserOfACreationRaceReleasesItsManagerAndUsesTheWinners) {
    initialized();
    stand_in_.lose_next_creation();
    PVOID object = nullptr;
    ASSERT_EQ(create(kFirst, 5, &object), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Initialize", "Release", "CreateObject(0,0)", "SADereference(1:1,2)");
    EXPECT_EQ(
        reinterpret_cast<IOM*>(object_of(static_cast<char*>(object) - 24)->blockStart->oi)->lpVtbl,
        &vtObject);
}

// Only 2 says that the attribute was there already.
TEST_F(SecurityContexts, AnyOtherOpenedModeOfAnAttributeMeansThatItIsNew) {
    initialized();
    UINT64 id = 10;
    for (UINT32 mode : {0u, 1u, 3u, 0x10002u}) {
        stand_in_.created_mode = mode;
        PVOID object = nullptr;
        const SCHANDLE where = context(1, ++id);
        ASSERT_EQ(create(where, 5, &object), KC_OK);
        const Calls calls = stand_in_.take_calls();
        EXPECT_EQ(calls.back(), "SADereference(1:" + std::to_string(id) + ",1)");
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "Release"), 0) << mode;
    }
}

TEST_F(SecurityContexts, AnAttributeThatCannotBeMadeLeavesTheResultsAndTheManagerToTheCaller) {
    initialized();
    stand_in_.fail_next("SACreate", foreign_error(5));
    stand_in_.created_mode = 2;  // of a failed creation it means nothing
    IOM untouched = {};
    PAttribute attribute = nullptr;
    UINT32 access = 99;
    EXPECT_EQ(_CreateSessionAttribute(info(), kFirst, &untouched, &attribute, &access),
              foreign_error(5));
    EXPECT_EQ(attribute, nullptr);
    EXPECT_EQ(access, 99u);
    EXPECT_CALLS("SACreate(1:1,1,2)");
}

TEST_F(SecurityContexts, AnObjectsLockIsReleasedWhileItsAttributeIsGivenBack) {
    initialized();
    PVOID object = nullptr;
    ASSERT_EQ(create(kFirst, 5, &object, 1, 2), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Initialize", "CreateObject(1,2)", "ReleaseObject", "SADereference(1:1,1)",
                 "AcquireObject(1)");
    manager_->lpVtbl->ReleaseObject(manager_, object);
    ASSERT_EQ(create(kFirst, 5, &object, 1, 2), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "CreateObject(1,2)", "ReleaseObject", "SADereference(1:1,2)",
                 "AcquireObject(2)");
    manager_->lpVtbl->ReleaseObject(manager_, object);
}

TEST_F(SecurityContexts, AnAccessThatCreationDoesNotKnowIsNeitherReleasedNorTaken) {
    initialized();
    PVOID object = nullptr;
    ASSERT_EQ(create(kFirst, 5, &object, 3, 3), KC_OK);
    stand_in_.take_calls();
    ASSERT_EQ(create(kFirst, 5, &object, 3, 3), KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "CreateObject(3,3)", "SADereference(1:1,2)");
}

TEST_F(SecurityContexts, CreateObjectRefusesANullResultPointer) {
    initialized();
    EXPECT_EQ(create(kFirst, 5, nullptr), object_error(4));
    expect_failure(4, 646, "SCObjectCreate");
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, AContextsObjectManagerGetsWhatTheManagerWasInitialisedWith) {
    ASSERT_EQ(manager_->lpVtbl->Initialize(manager_, &kComponent, sizeof(ClientData), 5, 0x40000000,
                                           7, nullptr, refuse_deallocation, nullptr, 3),
              KC_OK);
    PVOID object = nullptr;
    ASSERT_EQ(create(kFirst, 5, &object), KC_OK);
    const auto* data = static_cast<const char*>(object) - 24;
    const ObjectInfo* oi = object_of(const_cast<char*>(data))->blockStart->oi;
    EXPECT_EQ(oi->objectSize, sizeof(ClientData) + 24 + sizeof(Object));
    EXPECT_EQ(oi->objectsPerBlock, 5u);
    EXPECT_EQ(oi->hashSize, 7u);
    EXPECT_EQ(oi->statsAllocated, 15u);
    EXPECT_EQ(oi->flags, OI_FLAG_INITIALIZED | OI_FLAG_DEFERRED_DELETE);
    EXPECT_EQ(oi->pfDelete, &_DeleteObjectShim);
    EXPECT_EQ(oi->pfDeallocate, nullptr);
    EXPECT_EQ(oi->pfDebug, nullptr);
}

TEST_F(SecurityContexts, ANotFoundOfAnyFacilityStartsTheContext) {
    initialized();
    stand_in_.fail_next("SAReference", foreign_error(3));
    PVOID object = nullptr;
    EXPECT_EQ(create(kFirst, 5, &object), KC_OK);
    EXPECT_EQ(stand_in_.attributes(), 1u);
}

class FailedCreation : public SecurityContexts {
  protected:
    // The creation of the first object of a context fails with the status; outputs stay.
    void expect_refused(KCSTATUS status) {
        PVOID object = &object;
        UINT32 opened = 99;
        EXPECT_EQ(create(kFirst, 5, &object, 1, 1, &opened), status);
        EXPECT_EQ(object, &object);
        EXPECT_EQ(opened, 99u);
    }
};

TEST_F(FailedCreation, ALookUpErrorOtherThanNotFoundIsReturned) {
    initialized();
    stand_in_.fail_next("SAReference", foreign_error(5));
    expect_refused(foreign_error(5));
    EXPECT_CALLS("SAReference(1:1,2)");
}

TEST_F(FailedCreation, AManagerThatCannotBeMadeIsReported) {
    initialized();
    stand_in_.fail_next("manager", foreign_error(2));
    expect_refused(foreign_error(2));
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)");
}

TEST_F(FailedCreation, AManagerThatCannotBeAttachedIsReleased) {
    initialized();
    stand_in_.fail_next("SACreate", foreign_error(5));
    expect_refused(foreign_error(5));
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Release");
}

TEST_F(FailedCreation, AManagerThatCannotBeInitialisedIsReleased) {
    initialized();
    stand_in_.fail_next("Initialize", foreign_error(5));
    expect_refused(foreign_error(5));
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Initialize", "Release");
}

TEST_F(FailedCreation, AnObjectThatCannotBeMadeGivesTheNewAttributeBack) {
    initialized();
    stand_in_.fail_next("CreateObject", foreign_error(5));
    expect_refused(foreign_error(5));
    EXPECT_CALLS("SAReference(1:1,2)", "LcmCreateInstance(manager)", "SACreate(1:1,1,2)",
                 "Initialize", "CreateObject(1,1)", "SADereference(1:1,1)");
}

TEST_F(FailedCreation, AnInitRoutinesErrorIsReturnedAndItsHeaderStaysUnwritten) {
    initialized();
    created(kFirst, 5);
    PVOID object = &object;
    EXPECT_EQ(manager_->lpVtbl->CreateObject(manager_, kFirst, nullptr, refuse, nullptr, nullptr, 0,
                                             0, 0, &object, nullptr),
              foreign_error(9));
    EXPECT_CALLS("SAReference(1:1,2)", "CreateObject(0,0)", "SADereference(1:1,2)");
    EXPECT_EQ(object, &object);
}

// An object manager never does so; if it did, the lock it took would be given back.
TEST_F(FailedCreation, AnObjectThatWasOpenedAllTheSameIsReleased) {
    initialized();
    created(kFirst, 5);
    for (UINT32 access : {0u, 1u, 2u}) {
        stand_in_.fail_next_creation_late(foreign_error(5));
        PVOID object = &object;
        UINT32 opened = 99;
        EXPECT_EQ(create(kFirst, 5, &object, 1, access, &opened), foreign_error(5));
        EXPECT_EQ(object, &object);
        EXPECT_EQ(opened, 99u);
        const std::string call = with_access("CreateObject(1,", access);
        if (access == 0)
            EXPECT_CALLS("SAReference(1:1,2)", call, "SADereference(1:1,2)");
        else
            EXPECT_CALLS("SAReference(1:1,2)", call, "ReleaseObject", "SADereference(1:1,2)");
    }
    PVOID object = nullptr;
    ASSERT_EQ(create(kFirst, 5, &object, 1, 1), KC_OK);  // nobody holds it
    manager_->lpVtbl->ReleaseObject(manager_, object);
    for (int i = 0; i < 3; ++i)  // the references of the failed creations
        manager_->lpVtbl->DereferenceObject(manager_, object, 0);
}

TEST_F(SecurityContexts, AStatusThatIsNoErrorWritesTheHeaderAndIsReturned) {
    struct {
        _SCHeader header;
        ClientData data;
    } object = {};
    constexpr KCSTATUS kWarning = KC_MAKE_STATUS(2, 77, 9);
    _SCObjectInfo owner = {};
    const auto warn = [](PVOID, PVOID) -> KCSTATUS { return kWarning; };
    _HandleInitShim shim = {nullptr, warn, kThird, &owner};
    EXPECT_EQ(_InitializeObjectShim(&object, &shim), kWarning);
    EXPECT_EQ(object.header.hSecurityContext.hId, kThird.hId);
    shim = {nullptr, nullptr, kSecond, &owner};
    EXPECT_EQ(_InitializeObjectShim(&object, &shim), KC_OK);
    EXPECT_EQ(object.header.hSecurityContext.hId, kSecond.hId);
}

TEST_F(SecurityContexts, TheCompareShimsAnswerForAMissingRoutine) {
    struct {
        _SCHeader header;
        ClientData data;
    } object = {{}, {5, 0}};
    UINT32 number = 5;
    _HandleCompareShim shim = {&number, nullptr};
    EXPECT_EQ(_CompareObjectDefaultNone(&object, &shim), FALSE);
    EXPECT_EQ(_CompareObjectDefaultAny(&object, &shim), TRUE);
    shim.pCompareRoutine = has_number;
    EXPECT_EQ(_CompareObjectDefaultNone(&object, &shim), TRUE);
    number = 6;
    EXPECT_EQ(_CompareObjectDefaultAny(&object, &shim), FALSE);
}

TEST_F(SecurityContexts, AnAttributeWithoutAnObjectManagerIsReleasedWithoutOne) {
    _SecurityAttribute data = {};
    Attribute attribute = {kFirst, &data};
    _ReleaseAttribute(&attribute);
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, TheInitShimWritesTheHeaderOnlyAfterTheRoutineSucceeded) {
    struct {
        _SCHeader header;
        ClientData data;
    } object = {};
    UINT32 number = 8;
    _SCObjectInfo owner = {};
    owner.pfDelete = note_deletion;
    _HandleInitShim shim = {&number, refuse, kThird, &owner};
    EXPECT_EQ(_InitializeObjectShim(&object, &shim), foreign_error(9));
    EXPECT_EQ(object.header.pfDelete, nullptr);
    shim.pInitRoutine = set_number;
    EXPECT_EQ(_InitializeObjectShim(&object, &shim), KC_OK);
    EXPECT_EQ(object.header.hSecurityContext.hTypeId, kThird.hTypeId);
    EXPECT_EQ(object.header.pfDelete, &note_deletion);
    EXPECT_EQ(object.data.number, 8u);
    EXPECT_EQ(_DeleteObjectShim(&object), KC_OK);
    EXPECT_EQ(deleted, std::vector<UINT32>{8});
    object.header.pfDelete = [](PVOID) -> KCSTATUS { return foreign_error(6); };
    EXPECT_EQ(_DeleteObjectShim(&object), foreign_error(6));
    object.header.pfDelete = nullptr;
    EXPECT_EQ(_DeleteObjectShim(&object), KC_OK);
}

TEST_F(SecurityContexts, WithoutACompareRoutineCreationFindsNothing) {
    initialized();
    UINT32 number = 1;
    PVOID first = nullptr;
    PVOID second = nullptr;
    for (PVOID* object : {&first, &second})
        ASSERT_EQ(manager_->lpVtbl->CreateObject(manager_, kFirst, &number, set_number, nullptr,
                                                 nullptr, 0, 0, 0, object, nullptr),
                  KC_OK);
    EXPECT_NE(first, second);
    kept_ = {first, second};
}

TEST_F(SecurityContexts, AnObjectKnowsItsContext) {
    initialized();
    ClientData* object = created(kThird, 5);
    SCHANDLE where = {};
    EXPECT_EQ(manager_->lpVtbl->GetObjectSecurityContext(manager_, object, &where), KC_OK);
    EXPECT_EQ(where.hTypeId, kThird.hTypeId);
    EXPECT_EQ(where.hId, kThird.hId);
    const auto* header = reinterpret_cast<_SCHeader*>(object) - 1;
    EXPECT_EQ(header->pfDelete, &note_deletion);
    EXPECT_EQ(reinterpret_cast<char*>(object) - 24, reinterpret_cast<const char*>(header));

    EXPECT_EQ(manager_->lpVtbl->GetObjectSecurityContext(manager_, nullptr, &where),
              object_error(4));
    expect_failure(4, 1454, "SCObjectGetSCHandle");
    EXPECT_EQ(manager_->lpVtbl->GetObjectSecurityContext(manager_, object, nullptr),
              object_error(4));
    expect_failure(4, 1454, "SCObjectGetSCHandle");
}

// --- Look-ups ---

TEST_F(SecurityContexts, AContextWithoutObjectsIsReportedByEachOperationInItsWay) {
    initialized();
    PVOID object = &object;
    HANDLE scan = nullptr;
    EXPECT_EQ(manager_->lpVtbl->ReferenceObjectByHandle(manager_, kFirst, &scan, 0, &object),
              KC_MAKE_STATUS(3, KC_FACILITY_SECATTR, 3));
    statuses_.expect_none();
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, &object),
              0xC7FA0009u);
    statuses_.expect_none();
    EXPECT_EQ(
        manager_->lpVtbl->EnumerateObjects(manager_, kFirst, &scan, nullptr, nullptr, 0, &object),
        object_error(9));
    expect_failure(9, 994, "SCObjectEnumerate");

    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA data = {};
    EXPECT_EQ(second->lpVtbl->EnumerateObjects(second, kFirst, &data, nullptr, nullptr, 0, &object),
              object_error(9));
    expect_failure(9, 1091, "SCObjectEnumerate2");
    UINT32 statistics[3] = {7, 7, 7};
    EXPECT_EQ(second->lpVtbl->GetObjectStats(second, kFirst, &statistics[0], &statistics[1],
                                             &statistics[2]),
              KC_OK);
    for (UINT32 value : statistics)
        EXPECT_EQ(value, 0u);
    EXPECT_EQ(second->lpVtbl->GetObjectStats(second, kFirst, nullptr, nullptr, nullptr), KC_OK);
    EXPECT_EQ(object, &object);
}

TEST_F(SecurityContexts, OperationsOnAnInstanceThatIsNotInitialisedSayCodeFour) {
    PVOID object = nullptr;
    EXPECT_EQ(create(kFirst, 1, &object), object_error(4));
    expect_failure(4, 353, "_GetSessionAttribute");
    EXPECT_EQ(manager_->lpVtbl->ReferenceObjectByHandle(manager_, kFirst, nullptr, 0, &object),
              object_error(4));
    expect_failure(4, 353, "_GetSessionAttribute");
    PAttribute attribute = nullptr;
    UINT32 access = 0;
    EXPECT_EQ(_CreateSessionAttribute(info(), kFirst, nullptr, &attribute, &access),
              object_error(4));
    expect_failure(4, 311, "_CreateSessionAttribute");
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA data = {};
    EXPECT_EQ(second->lpVtbl->EnumerateObjects(second, kEveryContext, &data, nullptr, nullptr, 0,
                                               &object),
              object_error(4));
    expect_failure(4, 353, "_GetSessionAttribute");
}

// Before Initialize, what drops the look-up's status drops the refusal as well.
TEST_F(SecurityContexts, LookUpsOfAnUninitialisedInstanceEndAsInAContextWithoutObjects) {
    PVOID object = &object;
    HANDLE scan = nullptr;
    const auto expect_refusal_and = [&](UINT32 line, const char* function) {
        const auto built = statuses_.take();
        ASSERT_EQ(built.size(), line == 0 ? 1u : 2u);
        EXPECT_EQ(built[0].line, 353u);
        EXPECT_EQ(built[0].function, "_GetSessionAttribute");
        if (line == 0) return;
        EXPECT_EQ(built[1].line, line);
        EXPECT_EQ(built[1].function, function);
    };
    EXPECT_EQ(
        manager_->lpVtbl->EnumerateObjects(manager_, kFirst, &scan, nullptr, nullptr, 0, &object),
        object_error(9));
    expect_refusal_and(994, "SCObjectEnumerate");
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, &object),
              0xC7FA0009u);
    expect_refusal_and(0, nullptr);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA data = {};
    EXPECT_EQ(second->lpVtbl->EnumerateObjects(second, kFirst, &data, nullptr, nullptr, 0, &object),
              object_error(9));
    expect_refusal_and(1091, "SCObjectEnumerate2");
    UINT32 in_use = 7;
    EXPECT_EQ(second->lpVtbl->GetObjectStats(second, kFirst, nullptr, &in_use, nullptr), KC_OK);
    EXPECT_EQ(in_use, 0u);
    expect_refusal_and(0, nullptr);
    EXPECT_EQ(object, &object);
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, LookUpsRefuseNullResultsWithoutALogLineOrALookUp) {
    initialized();
    created(kFirst, 1);
    HANDLE scan = nullptr;
    ISCOM_SCAN_DATA data = {};
    const auto* table = manager_->lpVtbl;
    EXPECT_EQ(table->ReferenceObjectByHandle(manager_, kFirst, reinterpret_cast<HANDLE>(0x01010001),
                                             0, nullptr),
              object_error(4));
    EXPECT_EQ(table->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, nullptr),
              object_error(4));
    EXPECT_EQ(table->EnumerateObjects(manager_, kFirst, &scan, nullptr, nullptr, 0, nullptr),
              object_error(4));
    PVOID object = &object;
    for (SCHANDLE where : {kFirst, kEveryContext}) {
        EXPECT_EQ(SCObjectEnumerate2(manager_, where, &data, nullptr, nullptr, 0, nullptr),
                  object_error(4));
        EXPECT_EQ(SCObjectEnumerate2(manager_, where, nullptr, nullptr, nullptr, 0, &object),
                  object_error(4));
    }
    EXPECT_EQ(object, &object);
    EXPECT_EQ(scan, nullptr);
    EXPECT_EQ(data.hEnumObject, nullptr);
    statuses_.expect_none();
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, AnyLookUpFailureEndsAnEnumerationOrAFindButNotAReference) {
    initialized();
    created(kFirst, 1);
    PVOID object = &object;
    HANDLE scan = nullptr;
    const auto fail_look_up = [&] {
        stand_in_.take_calls();
        stand_in_.fail_next("SAReference", foreign_error(5));
    };
    fail_look_up();
    EXPECT_EQ(
        manager_->lpVtbl->EnumerateObjects(manager_, kFirst, &scan, nullptr, nullptr, 0, &object),
        object_error(9));
    expect_failure(9, 994, "SCObjectEnumerate");
    EXPECT_CALLS("SAReference(1:1,2)");
    fail_look_up();
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, &object),
              0xC7FA0009u);
    statuses_.expect_none();
    fail_look_up();
    EXPECT_EQ(manager_->lpVtbl->ReferenceObjectByHandle(manager_, kFirst, nullptr, 0, &object),
              foreign_error(5));
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA data = {};
    fail_look_up();
    EXPECT_EQ(second->lpVtbl->EnumerateObjects(second, kFirst, &data, nullptr, nullptr, 0, &object),
              object_error(9));
    expect_failure(9, 1091, "SCObjectEnumerate2");
    UINT32 in_use = 7;
    fail_look_up();
    EXPECT_EQ(second->lpVtbl->GetObjectStats(second, kFirst, nullptr, &in_use, nullptr), KC_OK);
    EXPECT_EQ(in_use, 0u);
    EXPECT_CALLS("SAReference(1:1,2)");
    EXPECT_EQ(object, &object);
}

// Each look-up with each access; the lock is taken again only where it was taken.
TEST_F(SecurityContexts, EveryLookUpHandsOverInTheSameOrder) {
    initialized();
    created(kFirst, 1);
    HANDLE handle = reinterpret_cast<HANDLE>(0x01010001);
    for (UINT32 access : {0u, 1u, 2u}) {
        const auto expect_hand_over = [&](const char* look_up, PVOID object) {
            if (access == 0)
                EXPECT_CALLS("SAReference(1:1,2)", with_access(look_up, access),
                             "SADereference(1:1,2)");
            else
                EXPECT_CALLS("SAReference(1:1,2)", with_access(look_up, access), "ReleaseObject",
                             "SADereference(1:1,2)", with_access("AcquireObject(", access));
            EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, object, access), KC_OK);
        };
        PVOID object = nullptr;
        ASSERT_EQ(
            manager_->lpVtbl->ReferenceObjectByHandle(manager_, kFirst, handle, access, &object),
            KC_OK);
        expect_hand_over("ReferenceObjectByHandle(", object);
        ASSERT_EQ(
            manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, access, &object),
            KC_OK);
        expect_hand_over("FindObject(", object);
        HANDLE scan = nullptr;
        ASSERT_EQ(manager_->lpVtbl->EnumerateObjects(manager_, kFirst, &scan, nullptr, nullptr,
                                                     access, &object),
                  KC_OK);
        expect_hand_over("EnumerateObjects(", object);
        ISCOM_SCAN_DATA data = {};
        ASSERT_EQ(SCObjectEnumerate2(manager_, kFirst, &data, nullptr, nullptr, access, &object),
                  KC_OK);
        expect_hand_over("EnumerateObjects(", object);
    }
}

TEST_F(SecurityContexts, AHandleMeansSomethingOnlyWithItsContext) {
    initialized();
    ClientData* first = created(kFirst, 1);
    ClientData* second = created(kSecond, 2);
    HANDLE handles[2] = {};
    EXPECT_EQ(manager_->lpVtbl->GetObjectHandle(manager_, first, &handles[0]), KC_OK);
    EXPECT_EQ(manager_->lpVtbl->GetObjectHandle(manager_, second, &handles[1]), KC_OK);
    EXPECT_EQ(handles[0], handles[1]);
    PVOID object = nullptr;
    EXPECT_EQ(manager_->lpVtbl->ReferenceObjectByHandle(manager_, kSecond, handles[0], 1, &object),
              KC_OK);
    EXPECT_EQ(object, second);
    EXPECT_CALLS("SAReference(1:2,2)", "ReferenceObjectByHandle(1)", "ReleaseObject",
                 "SADereference(1:2,2)", "AcquireObject(1)");
    EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, object, 1), KC_OK);

    object = nullptr;
    EXPECT_EQ(manager_->lpVtbl->ReferenceObjectByHandle(
                  manager_, kFirst, reinterpret_cast<HANDLE>(0x01FF0001), 1, &object),
              object_error(3));
    EXPECT_CALLS("SAReference(1:1,2)", "ReferenceObjectByHandle(1)", "SADereference(1:1,2)");
    EXPECT_EQ(object, nullptr);
}

class MutexManagers : public SecurityContexts, public testing::WithParamInterface<UINT32> {};
INSTANTIATE_TEST_SUITE_P(Levels, MutexManagers, testing::Values(3u, 0x80000003u));

TEST_P(MutexManagers, AreHandedOverWithAnyAccess) {
    initialized(GetParam());
    ClientData* object = created(kFirst, 1);
    PVOID found = nullptr;
    ASSERT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 5, &found),
              KC_OK);
    EXPECT_EQ(found, object);
    EXPECT_CALLS("SAReference(1:1,2)", "FindObject(5)", "ReleaseObject", "SADereference(1:1,2)",
                 "AcquireObject(5)");
    EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, found, 5), KC_OK);
}

TEST_F(SecurityContexts, FindTakesTheFirstObjectThatMatches) {
    initialized();
    ClientData* first = created(kFirst, 1);
    ClientData* second = created(kFirst, 2);
    PVOID object = nullptr;
    UINT32 number = 2;
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, &object),
              KC_OK);
    EXPECT_EQ(object, first);
    kept_.push_back(object);
    EXPECT_CALLS("SAReference(1:1,2)", "FindObject(0)", "SADereference(1:1,2)");
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, &number, has_number, 0, 2, &object),
              KC_OK);
    EXPECT_EQ(object, second);
    manager_->lpVtbl->DereferenceObject(manager_, object, 2);
    number = 3;
    stand_in_.take_calls();
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, &number, has_number, 0, 2, &object),
              object_error(11));
    EXPECT_CALLS("SAReference(1:1,2)", "FindObject(2)", "SADereference(1:1,2)");
}

TEST_F(SecurityContexts, EnumerationOfOneContextEndsWithCodeNine) {
    initialized();
    created(kFirst, 1);
    created(kFirst, 2);
    created(kSecond, 3);
    HANDLE scan = nullptr;
    std::vector<UINT32> numbers;
    PVOID object = nullptr;
    KCSTATUS status;
    while (!KC_IS_ERROR(status = manager_->lpVtbl->EnumerateObjects(
                            manager_, kFirst, &scan, nullptr, nullptr, 0, &object))) {
        numbers.push_back(static_cast<ClientData*>(object)->number);
        kept_.push_back(object);
    }
    EXPECT_EQ(status, object_error(9));
    EXPECT_EQ(numbers, (std::vector<UINT32>{1, 2}));
    statuses_.expect_none();
}

TEST_F(SecurityContexts, TheWildcardVisitsEveryContextInTheAttributeManagersOrder) {
    initialized();
    created(kThird, 4);
    created(kFirst, 1);
    created(kFirst, 2);
    created(kSecond, 3);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA scan = {};
    std::vector<UINT32> numbers;
    PVOID object = nullptr;
    KCSTATUS status;
    while (!KC_IS_ERROR(status = second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan,
                                                                  nullptr, nullptr, 2, &object))) {
        numbers.push_back(static_cast<ClientData*>(object)->number);
        EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 2), KC_OK);
    }
    EXPECT_EQ(status, KC_MAKE_STATUS(3, KC_FACILITY_SECATTR, 9));
    EXPECT_EQ(numbers, (std::vector<UINT32>{1, 2, 3, 4}));
    EXPECT_EQ(scan.hEnumObject, nullptr);
    statuses_.expect_none();
}

TEST_F(SecurityContexts, TheWildcardScanReferencesTheContextUnderWayAgain) {
    initialized();
    created(kFirst, 1);
    created(kSecond, 2);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA scan = {};
    PVOID object = nullptr;
    ASSERT_EQ(second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan, nullptr, nullptr, 0,
                                               &object),
              KC_OK);
    EXPECT_CALLS("SAEnumerate(2)", "EnumerateObjects(0)", "SADereference(1:1,2)");
    EXPECT_EQ(scan.hLastSC.hId, kFirst.hId);
    EXPECT_EQ(scan.hEnumSCType.hId, &stand_in_);  // what the attribute manager left in each
    EXPECT_EQ(scan.hEnumSC.hId, kFirst.hId);
    kept_.push_back(object);
    ASSERT_EQ(second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan, nullptr, nullptr, 0,
                                               &object),
              KC_OK);
    EXPECT_CALLS("SAReference(1:1,2)", "EnumerateObjects(0)", "SADereference(1:1,2)",
                 "SAEnumerate(2)", "EnumerateObjects(0)", "SADereference(1:2,2)");
    EXPECT_EQ(static_cast<ClientData*>(object)->number, 2u);
    kept_.push_back(object);
}

TEST_F(SecurityContexts, TheWildcardScanReturnsErrorsAsTheyAre) {
    initialized();
    created(kFirst, 1);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA scan = {};
    PVOID object = nullptr;
    const auto next = [&] {
        return second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan, nullptr, nullptr, 0,
                                                &object);
    };
    stand_in_.fail_next("SAEnumerate", foreign_error(5));
    EXPECT_EQ(next(), foreign_error(5));
    stand_in_.fail_next("EnumerateObjects", foreign_error(6));
    EXPECT_EQ(next(), foreign_error(6));
    EXPECT_EQ(stand_in_.referenced(), 0);
}

TEST_F(SecurityContexts, TheEndOfAContextIsKnownByTheCodeAlone) {
    initialized();
    created(kFirst, 1);
    created(kSecond, 2);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA scan = {};
    PVOID object = nullptr;
    stand_in_.fail_next("EnumerateObjects", foreign_error(9));
    ASSERT_EQ(second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan, nullptr, nullptr, 1,
                                               &object),
              KC_OK);
    EXPECT_CALLS("SAEnumerate(2)", "EnumerateObjects(1)", "SADereference(1:1,2)", "SAEnumerate(2)",
                 "EnumerateObjects(1)", "ReleaseObject", "SADereference(1:2,2)",
                 "AcquireObject(1)");
    EXPECT_EQ(static_cast<ClientData*>(object)->number, 2u);
    EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 1), KC_OK);
}

// The scan does not look for another context by itself: its caller decides.
TEST_F(SecurityContexts, AWildcardScanWhoseContextHasEndedSaysSo) {
    initialized();
    created(kFirst, 1);
    created(kFirst, 2);
    created(kSecond, 3);
    ISCOM_2* second = this->second();
    ISCOM_SCAN_DATA scan = {};
    PVOID object = nullptr;
    const auto next = [&] {
        stand_in_.take_calls();
        return second->lpVtbl->EnumerateObjects(second, kEveryContext, &scan, nullptr, nullptr, 0,
                                                &object);
    };
    ASSERT_EQ(next(), KC_OK);
    EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 0), KC_OK);
    stand_in_.end_context(kFirst);
    const HANDLE resume = scan.hEnumObject;
    EXPECT_EQ(next(), KC_MAKE_STATUS(3, KC_FACILITY_SECATTR, 3));
    EXPECT_CALLS("SAReference(1:1,2)");
    EXPECT_EQ(scan.hEnumObject, resume);
    scan.hEnumObject = nullptr;
    ASSERT_EQ(next(), KC_OK);
    EXPECT_EQ(static_cast<ClientData*>(object)->number, 3u);
    EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 0), KC_OK);
}

TEST_F(SecurityContexts, AScanOfOneContextUsesTheScanHandleOfItsDataOnly) {
    initialized();
    created(kFirst, 1);
    ISCOM_2* second = this->second();
    const SCHANDLE mark = context(11, 12);
    ISCOM_SCAN_DATA scan = {mark, mark, nullptr, mark};
    PVOID object = nullptr;
    ASSERT_EQ(second->lpVtbl->EnumerateObjects(second, kFirst, &scan, nullptr, nullptr, 0, &object),
              KC_OK);
    EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 0), KC_OK);
    EXPECT_EQ(scan.hEnumObject, reinterpret_cast<HANDLE>(0x02000001));
    for (const SCHANDLE& kept : {scan.hEnumSCType, scan.hEnumSC, scan.hLastSC})
        EXPECT_TRUE(kept.hTypeId == mark.hTypeId && kept.hId == mark.hId);
    EXPECT_EQ(second->lpVtbl->EnumerateObjects(second, kFirst, &scan, nullptr, nullptr, 0, &object),
              object_error(9));
    statuses_.expect_none();
}

TEST_F(SecurityContexts, OneHalfOfTheWildcardIsAContextLikeAnyOther) {
    initialized();
    ISCOM_2* second = this->second();
    for (const SCHANDLE half : {context(~0ull, 1), context(1, ~0ull)}) {
        created(half, 7);
        ISCOM_SCAN_DATA scan = {};
        PVOID object = nullptr;
        ASSERT_EQ(
            second->lpVtbl->EnumerateObjects(second, half, &scan, nullptr, nullptr, 0, &object),
            KC_OK);
        EXPECT_EQ(stand_in_.take_calls()[0].rfind("SAReference", 0), 0u);
        EXPECT_EQ(second->lpVtbl->DereferenceObject(second, object, 0), KC_OK);
    }
}

// --- Operations on objects ---

TEST_F(SecurityContexts, OperationsOnAnObjectReachItsOwnManager) {
    initialized();
    ClientData* object = created(kSecond, 5);
    HANDLE handle = nullptr;
    EXPECT_EQ(manager_->lpVtbl->IncrementReference(manager_, object), KC_OK);
    EXPECT_EQ(object_of(reinterpret_cast<_SCHeader*>(object) - 1)->instanceCount, 1u);
    EXPECT_EQ(manager_->lpVtbl->DecrementReference(manager_, object), KC_OK);
    EXPECT_EQ(object_of(reinterpret_cast<_SCHeader*>(object) - 1)->instanceCount, 0u);
    EXPECT_EQ(manager_->lpVtbl->IncrementReference(manager_, object), KC_OK);
    EXPECT_EQ(manager_->lpVtbl->AcquireObject(manager_, object, 2), KC_OK);
    EXPECT_EQ(manager_->lpVtbl->ReleaseObject(manager_, object), KC_OK);
    EXPECT_EQ(manager_->lpVtbl->GetObjectHandle(manager_, object, &handle), KC_OK);
    EXPECT_EQ(handle, reinterpret_cast<HANDLE>(0x01010001));
    EXPECT_EQ(manager_->lpVtbl->IncrementReference(manager_, object), KC_OK);
    EXPECT_EQ(manager_->lpVtbl->DeleteObject(manager_, object, 0), KC_OK);
    EXPECT_TRUE(deleted.empty());
    EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, object, 0), KC_OK);
    EXPECT_EQ(deleted, std::vector<UINT32>{5});
}

// What an object's manager is called with, each call answered by a status of its own.
struct ForwardedCall {
    PVOID manager, object;
    UINT32 access;
};
ForwardedCall forwarded;

template <UINT32 Code>
KCSTATUS forward_with_access(PVOID manager, PVOID object, UINT32 access) {
    forwarded = {manager, object, access};
    return foreign_error(Code);
}
template <UINT32 Code>
KCSTATUS forward_plain(PVOID manager, PVOID object) {
    forwarded = {manager, object, 0};
    return foreign_error(Code);
}
KCSTATUS forward_handle(PVOID manager, PVOID object, PHANDLE) {
    forwarded = {manager, object, 0};
    return foreign_error(27);
}

TEST_F(SecurityContexts, OperationsOnAnObjectPassArgumentsAndStatusesOnUnchanged) {
    initialized();
    ClientData* object = created(kSecond, 5);
    PVOID const data = reinterpret_cast<_SCHeader*>(object) - 1;
    PVOID const owner = object_of(data)->blockStart->oi;
    const auto expect_forwarded = [&](KCSTATUS status, UINT32 code, UINT32 access) {
        EXPECT_EQ(status, foreign_error(code));
        EXPECT_EQ(forwarded.manager, owner);
        EXPECT_EQ(forwarded.object, data);
        EXPECT_EQ(forwarded.access, access);
        forwarded = {};
    };
    const IOMVtbl real = vtObject;
    vtObject.DeleteObject = forward_with_access<21>;
    vtObject.DereferenceObject = forward_with_access<22>;
    vtObject.AcquireObject = forward_with_access<23>;
    vtObject.ReleaseObject = forward_plain<24>;
    vtObject.IncrementReference = forward_plain<25>;
    vtObject.DecrementReference = forward_plain<26>;
    vtObject.GetObjectHandle = forward_handle;
    const auto* table = manager_->lpVtbl;
    for (UINT32 access : {0u, 1u, 2u, 7u}) {
        expect_forwarded(table->DeleteObject(manager_, object, access), 21, access);
        expect_forwarded(table->DereferenceObject(manager_, object, access), 22, access);
        expect_forwarded(table->AcquireObject(manager_, object, access), 23, access);
    }
    HANDLE handle = nullptr;
    expect_forwarded(table->ReleaseObject(manager_, object), 24, 0);
    expect_forwarded(table->IncrementReference(manager_, object), 25, 0);
    expect_forwarded(table->DecrementReference(manager_, object), 26, 0);
    expect_forwarded(table->GetObjectHandle(manager_, object, &handle), 27, 0);
    vtObject = real;
    statuses_.expect_none();
}

TEST_F(SecurityContexts, OperationsOnANullObjectAreRefused) {
    initialized();
    HANDLE handle = nullptr;
    EXPECT_EQ(manager_->lpVtbl->DeleteObject(manager_, nullptr, 0), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, nullptr, 0), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->GetObjectHandle(manager_, nullptr, &handle), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->AcquireObject(manager_, nullptr, 1), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->ReleaseObject(manager_, nullptr), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->IncrementReference(manager_, nullptr), object_error(4));
    EXPECT_EQ(manager_->lpVtbl->DecrementReference(manager_, nullptr), object_error(4));
    statuses_.expect_none();
}

TEST_F(SecurityContexts, StatisticsAreThoseOfTheContext) {
    initialized();
    created(kFirst, 1);
    created(kFirst, 2);
    created(kSecond, 3);
    ISCOM_2* second = this->second();
    UINT32 allocated = 0;
    UINT32 in_use = 0;
    UINT32 preallocated = 7;
    EXPECT_EQ(second->lpVtbl->GetObjectStats(second, kFirst, &allocated, &in_use, &preallocated),
              KC_OK);
    EXPECT_EQ(allocated, 4u);
    EXPECT_EQ(in_use, 2u);
    EXPECT_EQ(preallocated, 0u);
    EXPECT_CALLS("SAReference(1:1,2)", "GetObjectStats", "SADereference(1:1,2)");
}

TEST_F(SecurityContexts, PreallocationAndStatisticsOfAllContextsAreNotSupported) {
    initialized();
    PVOID object = nullptr;
    EXPECT_EQ(manager_->lpVtbl->AllocateObject(manager_, &object), object_error(13));
    expect_failure(13, 1485, "SCObjectAllocate");
    EXPECT_EQ(manager_->lpVtbl->DeallocateObject(manager_, object, 0), object_error(13));
    expect_failure(13, 1514, "SCObjectDeallocate");
    EXPECT_EQ(manager_->lpVtbl->OpenObject(manager_, kFirst, nullptr, nullptr, nullptr, nullptr, 0,
                                           0, 0, &object, nullptr),
              object_error(13));
    expect_failure(13, 1560, "SCObjectOpen");
    EXPECT_EQ(manager_->lpVtbl->GetObjectStats(manager_, nullptr, nullptr, nullptr),
              object_error(16));
    expect_failure(16, 1585, "SCObjectGetStats");
    EXPECT_CALLS();
}

TEST_F(SecurityContexts, TheEndOfAContextReleasesItsObjectManagerAndDeletesItsObjects) {
    initialized();
    created(kFirst, 1);
    created(kFirst, 2);
    created(kSecond, 3);
    stand_in_.end_context(kFirst);
    EXPECT_CALLS("Release");
    EXPECT_EQ(deleted, (std::vector<UINT32>{1, 2}));
    PVOID object = nullptr;
    EXPECT_EQ(manager_->lpVtbl->FindObject(manager_, kFirst, nullptr, nullptr, 0, 0, &object),
              0xC7FA0009u);
}

TEST_F(SecurityContexts, AnObjectThatIsStillReferencedOutlivesItsContext) {
    initialized();
    ClientData* object = created(kFirst, 1);
    manager_->lpVtbl->IncrementReference(manager_, object);
    stand_in_.end_context(kFirst);
    EXPECT_TRUE(deleted.empty());
    EXPECT_EQ(object->number, 1u);
    EXPECT_EQ(manager_->lpVtbl->DereferenceObject(manager_, object, 0), KC_OK);
    EXPECT_EQ(deleted, std::vector<UINT32>{1});
}

TEST_F(SecurityContexts, DeletingTheLastObjectOfAContextThatHasEndedSaysThatItsManagerIsGone) {
    initialized();
    ClientData* object = created(kFirst, 1);
    manager_->lpVtbl->IncrementReference(manager_, object);
    stand_in_.end_context(kFirst);
    EXPECT_EQ(manager_->lpVtbl->DeleteObject(manager_, object, 0), object_error(0x1004));
    EXPECT_EQ(deleted, std::vector<UINT32>{1});
}

}  // namespace
}  // namespace osal_test
