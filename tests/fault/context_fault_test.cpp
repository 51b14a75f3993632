// Security contexts with the real attribute manager, reached through the component runtime, while
// what they call fails: every heap request, every instance that is to be made, every call of the
// attribute manager and every call of an object manager, each once. After each failure the status
// is right, no attribute is referenced, nothing is leaked, and the operation works on the next try.
#include <dlfcn.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "osal/component.h"
#include "osal/internal/object.h"
#include "osal/internal/scobject.h"
#include "support/faults.h"
#include "support/secattr_test.h"

namespace osal_test {
namespace {

constexpr KCSTATUS kInjected = KC_MAKE_STATUS(3, 99, 77);
constexpr UINT32 kBuckets = 4;

// Counts calls and says which one is to fail.
struct Countdown {
    int calls = 0;
    int nth = 0;  // the first is 1; 0: none
    std::string failed;

    bool fails(const char* name) {
        if (++calls != nth) return false;
        failed = name;
        return true;
    }
};
Countdown countdown;

// --- Tables whose calls can fail; every call is passed on but the one that fails ---

// References of attributes that were handed out and not given back.
int referenced = 0;

const ISAVtbl* real_attributes = nullptr;
IOMVtbl real_objects;

// A call that gives something up does so and then fails.
template <auto Slot, int References, bool GivesUp, class... Arguments>
KCSTATUS attribute_call(const char* name, Arguments... arguments) {
    const bool fails = countdown.fails(name);
    if (fails && !GivesUp) return kInjected;
    const KCSTATUS status = (real_attributes->*Slot)(arguments...);
    if (!KC_IS_ERROR(status)) referenced += References;
    return fails ? kInjected : status;
}

// Wraps slots of a copy of the attribute manager's table.
ISAVtbl failing_attributes() {
    ISAVtbl table = *real_attributes;
    table.SARegisterAttribute = [](auto... all) {
        return attribute_call<&ISAVtbl::SARegisterAttribute, 0, false>("SARegisterAttribute",
                                                                       all...);
    };
    table.SADeregisterAttribute = [](auto... all) {
        return attribute_call<&ISAVtbl::SADeregisterAttribute, 0, true>("SADeregisterAttribute",
                                                                        all...);
    };
    table.SACreate = [](auto... all) {
        return attribute_call<&ISAVtbl::SACreate, 1, false>("SACreate", all...);
    };
    table.SADelete = [](auto... all) {
        return attribute_call<&ISAVtbl::SADelete, -1, true>("SADelete", all...);
    };
    table.SAReference = [](auto... all) {
        return attribute_call<&ISAVtbl::SAReference, 1, false>("SAReference", all...);
    };
    table.SADereference = [](auto... all) {
        return attribute_call<&ISAVtbl::SADereference, -1, true>("SADereference", all...);
    };
    table.SAEnumerate = [](auto... all) {
        return attribute_call<&ISAVtbl::SAEnumerate, 1, false>("SAEnumerate", all...);
    };
    return table;
}

// The managers of one context's objects, as opposed to those that the attribute manager has.
bool is_of_a_context(PVOID manager) {
    return static_cast<pObjectInfo>(manager)->pfDelete == _DeleteObjectShim;
}

// Creations fail in every manager. Look-ups fail in those of the contexts only: the attribute
// manager's are never torn down while it looks something up, which is all that can go wrong.
template <auto Slot, bool OfContextsOnly, class... Arguments>
KCSTATUS object_call(const char* name, PVOID manager, Arguments... arguments) {
    if ((!OfContextsOnly || is_of_a_context(manager)) && countdown.fails(name)) return kInjected;
    return (real_objects.*Slot)(manager, arguments...);
}

IOMVtbl failing_objects() {
    IOMVtbl table = real_objects;
    table.Initialize = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::Initialize, false>("Initialize", manager, all...);
    };
    table.CreateObject = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::CreateObject, false>("CreateObject", manager, all...);
    };
    table.ReferenceObjectByHandle = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::ReferenceObjectByHandle, true>("ReferenceObjectByHandle",
                                                                    manager, all...);
    };
    table.EnumerateObjects = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::EnumerateObjects, true>("EnumerateObjects", manager, all...);
    };
    table.FindObject = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::FindObject, true>("FindObject", manager, all...);
    };
    table.GetObjectStats = [](PVOID manager, auto... all) {
        return object_call<&IOMVtbl::GetObjectStats, true>("GetObjectStats", manager, all...);
    };
    return table;
}

KCSTATUS make_or_fail(const GUID* clsid, void* outer, const GUID* iid, void** out) {
    if (!countdown.fails("LcmCreateInstance")) return LcmCreateInstance(clsid, outer, iid, out);
    *out = nullptr;
    return kInjected;
}

// --- The operations ---

struct Held {
    UINT32 memory, locks;
    std::size_t blocks;
    bool operator==(const Held&) const = default;
};
void PrintTo(const Held& held, std::ostream* out) {
    *out << held.memory << " bytes, " << held.locks << " locks, " << held.blocks << " blocks";
}

struct Operation {
    std::string name;
    std::function<void()> prepare;
    std::function<KCSTATUS()> run;
};

class ContextFaults : public ContextObjects {
  protected:
    ContextFaults() : services_(instance<IOsal>(CLSID_OrvaneOsal, IID_IOrvaneOsal_1)) {
        real_attributes = manager->lpVtbl;
        wrapped_attributes_ = failing_attributes();
        manager->lpVtbl = &wrapped_attributes_;
        real_objects = vtObject;
        vtObject = failing_objects();
        ledger_.emplace();
        for (const Operation& operation : operations()) {  // what is made at a first use is there
            operation.prepare();
            EXPECT_EQ(operation.run(), KC_OK) << operation.name;
            clear();
        }
        clear();
        countdown = {};
        referenced = 0;
    }
    ~ContextFaults() override {
        ledger_.reset();
        vtObject = real_objects;
        manager->lpVtbl = real_attributes;
        services_->lpVtbl->Release(services_);
    }

    std::vector<Operation> operations() {
        const auto nothing = [] {};
        const auto with_objects = [this] {
            EXPECT_EQ(create(kHere, 1), KC_OK);
            EXPECT_EQ(create(kHere, 2), KC_OK);
        };
        const auto with_attribute = [this] { created(kHere, 7); };
        return {
            {"initialize a manager", nothing, [this] { return initialize_another(); }},
            {"create a context's first object", nothing, [this] { return create(kHere, 1); }},
            {"create a further object", with_objects, [this] { return create(kHere, 3); }},
            {"open an object", with_objects, [this] { return create(kHere, 2); }},
            {"find an object", with_objects, [this] { return find(); }},
            {"reference by handle", with_objects, [this] { return reference_by_handle(); }},
            {"enumerate a context", with_objects, [this] { return enumerate(kHere); }},
            {"enumerate everywhere", with_objects, [this] { return enumerate(kEverywhere); }},
            {"statistics", with_objects, [this] { return statistics(); }},
            {"delete an object", with_objects, [this] { return delete_object(); }},
            {"open a context", nothing, [this] { return open_context(); }},
            {"end a context", with_objects,
             [this] { return contexts->lpVtbl->EndContext(contexts, kHere); }},
            {"register a type", nothing, [this] { return register_type(); }},
            {"create a context's first attribute", nothing, [this] { return create_attribute(); }},
            {"open an attribute", with_attribute, [this] { return create_attribute(); }},
            {"enumerate attributes", with_attribute, [this] { return enumerate_attributes(); }},
            {"delete an attribute", with_attribute, [this] { return delete_attribute(); }},
        };
    }

    // Fails the first call of an operation, the second, and so on, until it needs no further one.
    // Fault is made with the number of the failing call and says whether it came to that; check
    // gets the operation and its status. Returns how many calls were failed.
    template <class Fault>
    int sweep(const std::function<void(const Operation&, KCSTATUS)>& check) {
        int failures = 0;
        for (const Operation& operation : operations())
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(operation.name + ", failing call " + std::to_string(nth));
                if (!try_failing<Fault>(operation, nth, check)) break;
                if (HasFailure()) return failures;
                ++failures;
            }
        return failures;
    }

    template <class Fault>
    bool try_failing(const Operation& operation, int nth,
                     const std::function<void(const Operation&, KCSTATUS)>& check) {
        const Held before = held();
        operation.prepare();
        KCSTATUS status;
        bool happened;
        {
            Fault fault(nth);
            status = operation.run();
            happened = fault.happened();
        }
        EXPECT_EQ(referenced, 0) << "an attribute stays referenced";
        if (happened) {
            check(operation, status);
            clear();
            operation.prepare();
            status = operation.run();
        }
        EXPECT_EQ(status, KC_OK) << "does not work without a failure";
        EXPECT_EQ(referenced, 0);
        // Not to be looked at before: a block of slots that was made for a creation which then
        // failed stays until an object of it has come and gone.
        clear();
        EXPECT_EQ(held(), before) << "leaked";
        return happened;
    }

    std::multiset<std::string> names() {
        const auto buffer = read_statistics();
        std::multiset<std::string> all;
        for (UINT32 i = 0; i < buffer[0].InterfaceCount; ++i)
            all.insert(buffer[0].GenOsalStatsInfo[i].ModuleName);
        return all;
    }

    const SCHANDLE kHere = context(1, 1);
    const SCHANDLE kEverywhere = context(~0ull, ~0ull);

  private:
    void clear() {
        SCHANDLE listed;
        HANDLE scan = nullptr;
        while (!KC_IS_ERROR(contexts->lpVtbl->EnumerateContexts(contexts, &scan, &listed)))
            EXPECT_EQ(contexts->lpVtbl->EndContext(contexts, listed), KC_OK);
    }

    // What all instances have in use.
    std::vector<GEN_OSAL_STATS_INFO_BUF> read_statistics() {
        UINT32 size = 0;
        services_->lpVtbl->KxGetGeneralOsalStatistics(services_, &size, nullptr);
        std::vector<GEN_OSAL_STATS_INFO_BUF> buffer(size / sizeof(GEN_OSAL_STATS_INFO_BUF) + 1);
        size = static_cast<UINT32>(buffer.size() * sizeof buffer[0]);
        EXPECT_EQ(services_->lpVtbl->KxGetGeneralOsalStatistics(services_, &size, buffer.data()),
                  KC_OK);
        return buffer;
    }
    Held held() {
        const auto buffer = read_statistics();
        Held sum = {0, 0, ledger_->blocks()};
        const GEN_OSAL_STATS_INFO* record = buffer[0].GenOsalStatsInfo;
        for (UINT32 i = 0; i < buffer[0].InterfaceCount; ++i) {
            sum.memory += record[i].MemoryPagedInUse + record[i].MemoryNonPagedInUse;
            sum.locks += record[i].LockInUse + record[i].MutexInUse;
        }
        return sum;
    }

    KCSTATUS create(SCHANDLE where, UINT64 value) {
        PVOID object = nullptr;
        const KCSTATUS status = objects->lpVtbl->CreateObject(
            objects, where, &value, fill_number, &value, equal_number,
            static_cast<UINT32>(value % kBuckets), 1, 1, &object, nullptr);
        EXPECT_EQ(object == nullptr, KC_IS_ERROR(status));
        return give_object_back(status, object, 1);
    }
    KCSTATUS give_object_back(KCSTATUS status, PVOID object, UINT32 access) {
        if (!KC_IS_ERROR(status)) objects->lpVtbl->DereferenceObject(objects, object, access);
        return status;
    }
    KCSTATUS find() {
        UINT64 value = 2;
        PVOID object = nullptr;
        const KCSTATUS status = objects->lpVtbl->FindObject(objects, kHere, &value, equal_number,
                                                            2 % kBuckets, 2, &object);
        return give_object_back(status, object, 2);
    }
    KCSTATUS reference_by_handle() {
        PVOID object = nullptr;
        const KCSTATUS status = objects->lpVtbl->ReferenceObjectByHandle(
            objects, kHere, reinterpret_cast<HANDLE>(0x01010001), 2, &object);
        return give_object_back(status, object, 2);
    }
    KCSTATUS enumerate(SCHANDLE where) {
        ISCOM_SCAN_DATA scan = {};
        PVOID object = nullptr;
        const KCSTATUS status =
            objects->lpVtbl->EnumerateObjects(objects, where, &scan, nullptr, nullptr, 1, &object);
        return give_object_back(status, object, 1);
    }
    KCSTATUS statistics() {
        UINT32 in_use = 9;
        return objects->lpVtbl->GetObjectStats(objects, kHere, nullptr, &in_use, nullptr);
    }
    KCSTATUS delete_object() {
        const int before = deleted_objects;
        PVOID object = nullptr;
        KCSTATUS status =
            objects->lpVtbl->FindObject(objects, kHere, nullptr, nullptr, 1 % kBuckets, 1, &object);
        if (KC_IS_ERROR(status)) return status;
        status = objects->lpVtbl->DeleteObject(objects, object, 1);
        EXPECT_EQ(deleted_objects, before + 1);
        return status;
    }
    KCSTATUS initialize_another() {
        void* made = nullptr;
        KCSTATUS status = LcmCreateInstance(&CLSID_ObjectManagerDataStore, nullptr,
                                            &IID_ISCObjectManager_2, &made);
        if (KC_IS_ERROR(status)) return status;
        auto* another = static_cast<ISCOM_2*>(made);
        status = another->lpVtbl->Initialize(another, &kOther, 8, 4, 0, kBuckets, nullptr, nullptr,
                                             nullptr, 0);
        EXPECT_EQ(reinterpret_cast<_SCObjectInfo*>(another)->pISA == nullptr, KC_IS_ERROR(status));
        another->lpVtbl->Release(another);
        return status;
    }
    KCSTATUS open_context() {
        SCHANDLE opened = kEverywhere;
        const KCSTATUS status = contexts->lpVtbl->OpenContext(contexts, 1, 1, &opened);
        EXPECT_EQ(user_of(opened), user_of(KC_IS_ERROR(status) ? kEverywhere : kHere));
        return status;
    }
    KCSTATUS register_type() {
        HANDLE made = &made;
        const KCSTATUS status =
            manager->lpVtbl->SARegisterAttribute(manager, &kOther, 100, nullptr, nullptr, &made);
        if (status != kInjected) {  // for which nothing was asked
            EXPECT_EQ(made == nullptr, KC_IS_ERROR(status));
            EXPECT_EQ(reinterpret_cast<uintptr_t>(made) >> 32, 0u);
        }
        if (!KC_IS_ERROR(status)) manager->lpVtbl->SADeregisterAttribute(manager, made);
        return status;
    }
    // A failure neither runs the release routine nor leaves the context behind, and an init routine
    // that ran has its attribute.
    KCSTATUS create_attribute() {
        const auto before = listed();
        const int begun = inits - releases;
        PAttribute attribute = nullptr;
        UINT32 opened = 9;
        const KCSTATUS status = SecurityAttributes::create(kHere, 7, &attribute, &opened, 1, 2);
        if (!KC_IS_ERROR(status)) {
            manager->lpVtbl->SADereference(manager, opened, attribute);
            return status;
        }
        EXPECT_EQ(attribute, nullptr);
        EXPECT_EQ(opened, 9u);
        EXPECT_EQ(inits - releases, begun);
        EXPECT_EQ(listed(), before);
        return status;
    }
    KCSTATUS enumerate_attributes() {
        SCHANDLE cursors[2] = {};
        PAttribute attribute = nullptr;
        const KCSTATUS status = manager->lpVtbl->SAEnumerate(
            manager, nullptr, type, &cursors[0], &cursors[1], nullptr, nullptr, 2, &attribute);
        if (!KC_IS_ERROR(status)) manager->lpVtbl->SADereference(manager, 2, attribute);
        return status;
    }
    KCSTATUS delete_attribute() {
        PAttribute attribute = nullptr;
        const KCSTATUS status = reference(kHere, &attribute, 1);
        return KC_IS_ERROR(status) ? status : manager->lpVtbl->SADelete(manager, 1, attribute);
    }

    IOsal* services_;
    ISAVtbl wrapped_attributes_;
    std::optional<HeapLedger> ledger_;
};

TEST_F(ContextFaults, TheStatisticsNameTheAttributeManager) {
    EXPECT_EQ(names().count("secattr"), 1u);
}

// --- The sweeps ---

class FailingHeap : public HeapFault {
  public:
    explicit FailingHeap(int nth) : HeapFault(nth), nth_(nth) {}
    bool happened() const { return requests() >= nth_; }

  private:
    const int nth_;
};

TEST_F(ContextFaults, EveryHeapRequestMayFailOnce) {
    const int failures = sweep<FailingHeap>([](const Operation&, KCSTATUS status) {
        EXPECT_TRUE(KC_IS_ERROR(status));
        // The services say the one of a lock that cannot be made, the object managers the other.
        EXPECT_TRUE(KC_CODE(status) == KC_CODE_FAILED || KC_CODE(status) == KC_CODE_NO_RESOURCES);
    });
    EXPECT_GE(failures, 20);
}

struct FailingCall {
    explicit FailingCall(int nth) { countdown = {0, nth, {}}; }
    ~FailingCall() { countdown.nth = 0; }
    bool happened() const { return !countdown.failed.empty(); }
};

TEST_F(ContextFaults, EveryCallOfTheAttributeManagerMayFailOnce) {
    vtObject = real_objects;
    std::set<std::string> failed;
    sweep<FailingCall>([&](const Operation& operation, KCSTATUS status) {
        const std::string& call = countdown.failed;
        failed.insert(call);
        const bool direct = operation.name.find("attribute") != std::string::npos ||
                            operation.name == "register a type";
        const auto is = [&](const char* name) { return operation.name == name; };
        // What it says when something is given back changes nothing.
        KCSTATUS expected = kInjected;
        if (call == "SADereference" || call == "SADeregisterAttribute") expected = KC_OK;
        if (call == "SAReference" && !direct) {
            if (is("find an object") || is("delete an object")) expected = 0xC7FA0009;
            if (is("enumerate a context")) expected = 0xC7FA0009;
            if (is("statistics")) expected = KC_OK;
        }
        EXPECT_EQ(status, expected) << call;
    });
    EXPECT_EQ(failed,
              (std::set<std::string>{"SARegisterAttribute", "SADeregisterAttribute", "SACreate",
                                     "SADelete", "SAReference", "SADereference", "SAEnumerate"}));
}

TEST_F(ContextFaults, EveryCallOfAnObjectManagerMayFailOnce) {
    manager->lpVtbl = real_attributes;
    std::set<std::string> failed;
    sweep<FailingCall>([&](const Operation&, KCSTATUS status) {
        failed.insert(countdown.failed);
        EXPECT_EQ(status, kInjected) << countdown.failed;
    });
    EXPECT_EQ(failed,
              (std::set<std::string>{"Initialize", "CreateObject", "ReferenceObjectByHandle",
                                     "EnumerateObjects", "FindObject", "GetObjectStats"}));
}

TEST_F(ContextFaults, EveryInstanceMayFailToBeMadeOnce) {
    vtObject = real_objects;
    manager->lpVtbl = real_attributes;
    const Interpose library("osal.so", "LcmCreateInstance", make_or_fail);
    const Interpose component("secattr.so", "LcmCreateInstance", make_or_fail);
    const int failures =
        sweep<FailingCall>([](const Operation&, KCSTATUS status) { EXPECT_EQ(status, kInjected); });
    // A manager's attribute manager and type; a context's object manager; a type's manager.
    EXPECT_EQ(failures, 4);
}

// The context's attribute keeps its object manager when only the object could not be made.
TEST_F(ContextFaults, AFailedFirstObjectLeavesAnEmptyManagerThatTheNextOneUses) {
    const auto fail = [](PVOID, PVOID) -> KCSTATUS { return kInjected; };
    PVOID object = nullptr;
    EXPECT_EQ(objects->lpVtbl->CreateObject(objects, kHere, nullptr, fail, nullptr, nullptr, 0, 1,
                                            1, &object, nullptr),
              kInjected);
    EXPECT_EQ(referenced, 0);
    UINT32 in_use = 9;
    EXPECT_EQ(objects->lpVtbl->GetObjectStats(objects, kHere, nullptr, &in_use, nullptr), KC_OK);
    EXPECT_EQ(in_use, 0u);
    find_or_create(kHere, 1);
    EXPECT_EQ(all_objects().size(), 1u);
    EXPECT_EQ(referenced, 0);
}

// --- What others do in the midst of an operation ---

// Called on this thread after its next call of this name of an object manager.
thread_local const char* meddle_after = nullptr;
thread_local std::function<void()> meddle;

template <auto Slot, class... Arguments>
KCSTATUS meddled_call(const char* name, PVOID manager, Arguments... arguments) {
    const KCSTATUS status = (real_objects.*Slot)(manager, arguments...);
    if (meddle_after != nullptr && std::string(meddle_after) == name) {
        meddle_after = nullptr;
        meddle();
    }
    return status;
}

class MeddledAttributes : public SecurityAttributes {
  protected:
    MeddledAttributes() {
        real_objects = vtObject;
        vtObject.CreateObject = [](auto... all) {
            return meddled_call<&IOMVtbl::CreateObject>("CreateObject", all...);
        };
        vtObject.DeleteObject = [](auto... all) {
            return meddled_call<&IOMVtbl::DeleteObject>("DeleteObject", all...);
        };
        vtObject.FindObject = [](auto... all) {
            return meddled_call<&IOMVtbl::FindObject>("FindObject", all...);
        };
        vtObject.EnumerateObjects = [](auto... all) {
            return meddled_call<&IOMVtbl::EnumerateObjects>("EnumerateObjects", all...);
        };
        vtObject.ReferenceObjectByHandle = [](auto... all) {
            return meddled_call<&IOMVtbl::ReferenceObjectByHandle>("ReferenceObjectByHandle",
                                                                   all...);
        };
    }
    ~MeddledAttributes() override {
        EXPECT_EQ(meddle_after, nullptr) << "was never called";
        vtObject = real_objects;
    }

    static void after(const char* call, std::function<void()> routine) {
        meddle_after = call;
        meddle = std::move(routine);
    }
    // Another thread's operation does not come to its end before this one's.
    void expect_to_hold_up(const char* call, const std::function<void()>& operation,
                           const std::function<void()>& others) {
        std::thread other;
        std::atomic<bool> done = false;
        after(call, [&] {
            other = std::thread([&] {
                others();
                done = true;
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_FALSE(done) << call;
        });
        operation();
        if (other.joinable()) other.join();
    }
    void end(SCHANDLE where) { contexts->lpVtbl->EndContext(contexts, where); }
    void open(SCHANDLE where) {
        SCHANDLE opened;
        EXPECT_EQ(contexts->lpVtbl->OpenContext(contexts, user_of(where), 1, &opened), KC_OK);
    }

    const SCHANDLE kHere = context(1, 1);
    const SCHANDLE kElsewhere = context(2, 1);
};

TEST_F(MeddledAttributes, AContextDoesNotEndWhileItGetsAnAttribute) {
    open(kHere);
    expect_to_hold_up(
        "CreateObject", [&] { created(kHere, 7); }, [&] { end(kHere); });
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(releases, 1);
}

TEST_F(MeddledAttributes, AContextIsNotSeenBeforeItHasItsFirstAttribute) {
    expect_to_hold_up(
        "CreateObject", [&] { created(kHere, 7); }, [&] { listed(); });
}

TEST_F(MeddledAttributes, ContextsBeginAndEndOneOperationAtATime) {
    expect_to_hold_up(
        "CreateObject", [&] { open(kHere); }, [&] { end(kHere); });
    created(kHere, 7);
    expect_to_hold_up(
        "EnumerateObjects", [&] { EXPECT_EQ(listed().size(), 1u); }, [&] { end(kHere); });
    created(kHere, 7);
    expect_to_hold_up(
        "FindObject", [&] { end(kHere); }, [&] { open(kElsewhere); });
    expect_to_hold_up(
        "EnumerateObjects", [&] { end(kElsewhere); }, [&] { created(kHere, 7); });
    EXPECT_EQ(listed(), (std::multiset<UINT64>{1}));
}

TEST_F(MeddledAttributes, AttributesComeOffTheirContextsOneOperationAtATime) {
    created(kHere, 7);
    PAttribute attribute = nullptr;
    ASSERT_EQ(reference(kHere, &attribute), KC_OK);
    expect_to_hold_up(
        "DeleteObject", [&] { EXPECT_EQ(manager->lpVtbl->SADelete(manager, 0, attribute), KC_OK); },
        [&] { end(kHere); });
    EXPECT_EQ(cleanups, 0);
    EXPECT_EQ(releases, 1);
    created(kHere, 7);
    expect_to_hold_up(
        "EnumerateObjects",
        [&] { EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK); },
        [&] { end(kHere); });
    type = nullptr;
    EXPECT_EQ(cleanups, 0);
    EXPECT_EQ(releases, 2);
}

TEST_F(MeddledAttributes, AContextThatSomebodyElseOpenedMeanwhileOutlivesAFailedAttribute) {
    after("FindObject", [&] { std::thread([&] { open(kHere); }).join(); });
    PAttribute attribute = nullptr;
    EXPECT_EQ(
        manager->lpVtbl->SACreate(manager, kHere, type, nullptr, refuse, 1, 2, &attribute, nullptr),
        KC_MAKE_STATUS(3, 99, 5));
    EXPECT_EQ(listed(), (std::multiset<UINT64>{1}));
}

// Nobody finds the attribute any more, but its creator has it like any other.
TEST_F(MeddledAttributes, AnAttributeThatIsMadeAsItsTypeEndsIsReleasedByItsCreator) {
    for (bool deletes : {false, true}) {
        after("ReferenceObjectByHandle",
              [&] { EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK); });
        PAttribute attribute = nullptr;
        ASSERT_EQ(create(kHere, 7, &attribute, nullptr, 1), KC_OK);
        PAttribute again = nullptr;
        EXPECT_EQ(reference(kHere, &again), error(3));
        EXPECT_EQ(number(attribute), 7u);
        EXPECT_EQ(releases, 0);
        EXPECT_EQ(deletes ? manager->lpVtbl->SADelete(manager, 1, attribute)
                          : manager->lpVtbl->SADereference(manager, 1, attribute),
                  KC_OK);
        EXPECT_EQ(releases.exchange(0), 1);
        EXPECT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, note_cleanup,
                                                       note_release, &type),
                  KC_OK);
    }
    EXPECT_EQ(cleanups, 0);
}

TEST_F(MeddledAttributes, ATypeThatWasLookedAtLeavesNothingBehind) {
    const HeapLedger ledger;
    HANDLE other = nullptr;
    ASSERT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kOther, 8, nullptr, nullptr, &other),
              KC_OK);
    SCHANDLE cursors[2] = {};
    PAttribute attribute = nullptr;
    EXPECT_EQ(KC_CODE(manager->lpVtbl->SAEnumerate(manager, &kOther, nullptr, &cursors[0],
                                                   &cursors[1], nullptr, nullptr, 0, &attribute)),
              KC_CODE_NO_MORE_ENTRIES);
    open(kHere);
    end(kHere);  // which looks at every type
    EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, other), KC_OK);
    EXPECT_EQ(ledger.blocks(), 0u);
}

// The first use of the attribute manager builds what it stands on.
TEST(AttributeStore, IsBuiltAtTheNextTryAfterAnyFailedHeapRequest) {
    ASSERT_EQ(LcmStart(nullptr), KC_OK);
    auto* services = instance<IOsal>(CLSID_OrvaneOsal, IID_IOrvaneOsal_1);
    int failures = 0;
    for (int nth = 1;; ++nth) {
        HeapLedger ledger;
        void* made = &made;
        KCSTATUS status;
        {
            FailingHeap fault(nth);
            status = LcmCreateInstance(&CLSID_SecurityAttributeManager, nullptr,
                                       &IID_IContextAttribute_1, &made);
            if (!fault.happened()) {
                EXPECT_EQ(status, KC_OK);
                static_cast<ISA*>(made)->lpVtbl->Release(static_cast<ISA*>(made));
                break;
            }
        }
        ++failures;
        EXPECT_TRUE(KC_IS_ERROR(status));
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(ledger.blocks(), 0u);
    }
    EXPECT_GE(failures, 5);
    services->lpVtbl->Release(services);
    LcmStop();
}

TEST(AttributeStore, ItsFactoryGivesNothingWhenItCannotBeBuilt) {
    ASSERT_EQ(LcmStart(nullptr), KC_OK);
    auto* services = instance<IOsal>(CLSID_OrvaneOsal, IID_IOrvaneOsal_1);
    void* library = dlopen(OSAL_LIBRARY_DIR "/components/secattr.so", RTLD_NOW);
    ASSERT_NE(library, nullptr);
    const auto entry =
        reinterpret_cast<decltype(&DllGetClassObject)>(dlsym(library, "DllGetClassObject"));
    void* made = nullptr;
    ASSERT_EQ(entry(&CLSID_SecurityContextManager, &IID_IClassFactory, &made), KC_S_OK);
    auto* factory = static_cast<LCM_IClassFactory*>(made);
    {
        FailingHeap fault(1);
        EXPECT_TRUE(KC_IS_ERROR(
            factory->lpVtbl->CreateInstance(factory, nullptr, &IID_ISecurityContext_1, &made)));
    }
    EXPECT_EQ(made, nullptr);
    factory->lpVtbl->Release(factory);
    dlclose(library);
    services->lpVtbl->Release(services);
    LcmStop();
}

std::atomic<int> services_made;

KCSTATUS make_slowly(const GUID* clsid, void* outer, const GUID* iid, void** out) {
    if (*clsid == CLSID_OrvaneOsal) {
        ++services_made;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return LcmCreateInstance(clsid, outer, iid, out);
}

TEST(AttributeStore, IsBuiltByOneOfSeveralThatWantIt) {
    ASSERT_EQ(LcmStart(nullptr), KC_OK);
    void* library = dlopen(OSAL_LIBRARY_DIR "/components/secattr.so", RTLD_NOW);
    ASSERT_NE(library, nullptr);
    {
        const Interpose hook("secattr.so", "LcmCreateInstance", make_slowly);
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([] {
                auto* made = instance<ISA>(CLSID_SecurityAttributeManager, IID_IContextAttribute_1);
                made->lpVtbl->Release(made);
            });
        for (auto& thread : threads)
            thread.join();
    }
    EXPECT_EQ(services_made, 1);
    dlclose(library);
    LcmStop();
}

TEST(AttributeStore, GoesWhenTheRuntimeStops) {
    const HeapLedger ledger;
    std::size_t kept = 0;  // by the library, from its first use on
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(LcmStart(nullptr), KC_OK);
        auto* manager = instance<ISA>(CLSID_SecurityAttributeManager, IID_IContextAttribute_1);
        auto* contexts =
            instance<ISecurityContext>(CLSID_SecurityContextManager, IID_ISecurityContext_1);
        HANDLE type = nullptr;
        EXPECT_EQ(
            manager->lpVtbl->SARegisterAttribute(manager, &kOther, 8, nullptr, note_release, &type),
            KC_OK);
        PAttribute attribute = nullptr;
        ASSERT_EQ(manager->lpVtbl->SACreate(manager, context(1, 1), type, nullptr, nullptr, 0, 0,
                                            &attribute, nullptr),
                  KC_OK);
        manager->lpVtbl->SADereference(manager, 0, attribute);
        manager->lpVtbl->Release(manager);
        contexts->lpVtbl->Release(contexts);
        LcmStop();
        EXPECT_EQ(releases.exchange(0), 1);  // with the type that nobody deregistered
        if (round == 0) kept = ledger.blocks();
        EXPECT_EQ(ledger.blocks(), kept);
    }
    EXPECT_LE(kept, 1u);
}

}  // namespace
}  // namespace osal_test
