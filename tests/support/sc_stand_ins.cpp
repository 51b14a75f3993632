#include "support/sc_stand_ins.h"

#include <gtest/gtest.h>

#include "osal/component.h"

namespace osal_test {
namespace {

AttributeStandIn* current = nullptr;

std::string name(SCHANDLE context) {
    return std::to_string(reinterpret_cast<uintptr_t>(context.hTypeId)) + ":" +
           std::to_string(reinterpret_cast<uintptr_t>(context.hId));
}

constexpr KCSTATUS attribute_error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_SECATTR, code);
}

// An object manager behind a table that records.
struct Proxy {
    const IOMVtbl* lpVtbl;
    IOM* real;
};

IOM* real(PVOID pThis) {
    return static_cast<Proxy*>(pThis)->real;
}

}  // namespace

struct ManagerSlots {
    static UINT32 Release(PVOID pThis) {
        current->record("Release");
        IOM* manager = real(pThis);
        const UINT32 left = manager->lpVtbl->Release(manager);
        if (left == 0) delete static_cast<Proxy*>(pThis);
        return left;
    }
    static KCSTATUS Initialize(PVOID pThis, UINT32 size, UINT16 per_block, UINT32 level,
                               UINT32 buckets, PKX_OBJECT_ROUTINE on_delete,
                               PKX_OBJECT_ROUTINE on_deallocate, PKX_OBJECT_ROUTINE debug,
                               UINT32 permanent) {
        current->record("Initialize");
        current->sizes.push_back(size);
        current->levels.push_back(level);
        EXPECT_EQ(on_deallocate, nullptr);
        EXPECT_EQ(debug, nullptr);
        if (const auto failed = current->failure("Initialize")) return *failed;
        IOM* manager = real(pThis);
        return manager->lpVtbl->Initialize(manager, size, per_block, level, buckets, on_delete,
                                           on_deallocate, debug, permanent);
    }
    static KCSTATUS CreateObject(PVOID pThis, PVOID init_data, PKX_OBJECT_INIT_ROUTINE init,
                                 PVOID compare_data, PKX_OBJECT_COMPARE_ROUTINE compare,
                                 UINT32 index, UINT32 create, UINT32 open, PVOID* object,
                                 PUINT32 opened) {
        current->record("CreateObject(" + std::to_string(create) + "," + std::to_string(open) +
                        ")");
        if (const auto failed = current->failure("CreateObject")) return *failed;
        IOM* manager = real(pThis);
        const KCSTATUS status = manager->lpVtbl->CreateObject(
            manager, init_data, init, compare_data, compare, index, create, open, object, opened);
        return std::exchange(current->late_failure_, std::nullopt).value_or(status);
    }
    static KCSTATUS ReferenceObjectByHandle(PVOID pThis, HANDLE handle, UINT32 access,
                                            PVOID* object) {
        current->record("ReferenceObjectByHandle(" + std::to_string(access) + ")");
        IOM* manager = real(pThis);
        return manager->lpVtbl->ReferenceObjectByHandle(manager, handle, access, object);
    }
    static KCSTATUS EnumerateObjects(PVOID pThis, PHANDLE scan, PVOID data,
                                     PKX_OBJECT_COMPARE_ROUTINE compare, UINT32 access,
                                     PVOID* object) {
        current->record("EnumerateObjects(" + std::to_string(access) + ")");
        if (const auto failed = current->failure("EnumerateObjects")) return *failed;
        IOM* manager = real(pThis);
        return manager->lpVtbl->EnumerateObjects(manager, scan, data, compare, access, object);
    }
    static KCSTATUS FindObject(PVOID pThis, PVOID data, PKX_OBJECT_COMPARE_ROUTINE compare,
                               UINT32 index, UINT32 access, PVOID* object) {
        current->record("FindObject(" + std::to_string(access) + ")");
        IOM* manager = real(pThis);
        return manager->lpVtbl->FindObject(manager, data, compare, index, access, object);
    }
    static KCSTATUS AcquireObject(PVOID pThis, PVOID object, UINT32 access) {
        current->record("AcquireObject(" + std::to_string(access) + ")");
        IOM* manager = real(pThis);
        return manager->lpVtbl->AcquireObject(manager, object, access);
    }
    static KCSTATUS ReleaseObject(PVOID pThis, PVOID object) {
        current->record("ReleaseObject");
        IOM* manager = real(pThis);
        return manager->lpVtbl->ReleaseObject(manager, object);
    }
    static KCSTATUS GetObjectStats(PVOID pThis, PUINT32 allocated, PUINT32 in_use,
                                   PUINT32 preallocated) {
        current->record("GetObjectStats");
        IOM* manager = real(pThis);
        return manager->lpVtbl->GetObjectStats(manager, allocated, in_use, preallocated);
    }

    static const IOMVtbl* table() {
        static const IOMVtbl kTable = [] {
            IOMVtbl table = {};
            table.Release = Release;
            table.Initialize = Initialize;
            table.CreateObject = CreateObject;
            table.ReferenceObjectByHandle = ReferenceObjectByHandle;
            table.EnumerateObjects = EnumerateObjects;
            table.FindObject = FindObject;
            table.AcquireObject = AcquireObject;
            table.ReleaseObject = ReleaseObject;
            table.GetObjectStats = GetObjectStats;
            return table;
        }();
        return &kTable;
    }
};

struct AttributeSlots {
    static UINT32 Release(PISA) {
        current->record("ISA.Release");
        return static_cast<UINT32>(--current->references_);
    }
    static KCSTATUS SARegisterAttribute(PISA, const GUID* component, UINT32 size,
                                        PSA_CLEANUP_ROUTINE cleanup, PSA_RELEASE_ROUTINE release,
                                        PHANDLE handle) {
        current->record("SARegisterAttribute");
        if (const auto failed = current->failure("SARegisterAttribute")) return *failed;
        current->component = *component;
        current->data_size = size;
        current->cleanup = cleanup;
        current->release_ = release;
        *handle = current;
        return KC_OK;
    }
    static KCSTATUS SADeregisterAttribute(PISA, HANDLE handle) {
        current->record("SADeregisterAttribute");
        EXPECT_EQ(handle, current);
        while (!current->attributes_.empty())
            release_first();
        return KC_OK;
    }
    static void release_first() {
        const auto first = current->attributes_.begin();
        const auto held = std::move(first->second);
        current->attributes_.erase(first);
        current->release_(&held->attribute);
    }
    static KCSTATUS SACreate(PISA, SCHANDLE context, HANDLE handle, void* init_data,
                             PSA_INIT_ROUTINE init, UINT32 create, UINT32 open,
                             PAttribute* attribute, PUINT32 opened) {
        current->record("SACreate(" + name(context) + "," + std::to_string(create) + "," +
                        std::to_string(open) + ")");
        EXPECT_EQ(handle, current);
        *opened = current->created_mode;
        if (const auto failed = current->failure("SACreate")) return *failed;
        auto held = std::make_unique<AttributeStandIn::Held>();
        held->attribute = {context, &held->data};
        held->data = 0;
        if (current->lose_creation_) {
            // The winner's object manager: initialised as the loser's would have been.
            current->lose_creation_ = false;
            struct InitAttr {
                void* manager_info;
                void* manager;
            } winner = *static_cast<InitAttr*>(init_data);
            EXPECT_EQ(current->make_manager(&IID_IObjectManager_1, &winner.manager), KC_OK);
            EXPECT_EQ(init(&held->attribute, &winner), KC_OK);
            *opened = 2;
        } else {
            if (const KCSTATUS status = init(&held->attribute, init_data); KC_IS_ERROR(status))
                return status;
        }
        *attribute = &held->attribute;
        current->attributes_[{context.hTypeId, context.hId}] = std::move(held);
        ++current->referenced_;
        return KC_OK;
    }
    static KCSTATUS SAReference(PISA, SCHANDLE context, HANDLE handle, UINT32 access,
                                PAttribute* attribute) {
        current->record("SAReference(" + name(context) + "," + std::to_string(access) + ")");
        EXPECT_EQ(handle, current);
        if (const auto failed = current->failure("SAReference")) return *failed;
        const auto found = current->attributes_.find({context.hTypeId, context.hId});
        if (found == current->attributes_.end()) return attribute_error(3);
        *attribute = &found->second->attribute;
        ++current->referenced_;
        return KC_OK;
    }
    static KCSTATUS SADereference(PISA, UINT32 access, PAttribute attribute) {
        current->record("SADereference(" + name(attribute->hSC) + "," + std::to_string(access) +
                        ")");
        --current->referenced_;
        return KC_OK;
    }
    // The cursor holds the last context that was handed out.
    static KCSTATUS SAEnumerate(PISA, const GUID* component, HANDLE handle, PSCHANDLE first,
                                PSCHANDLE second, void* data, PSA_COMPARE_ROUTINE compare,
                                UINT32 access, PAttribute* attribute) {
        current->record("SAEnumerate(" + std::to_string(access) + ")");
        EXPECT_EQ(component, nullptr);
        EXPECT_EQ(handle, current);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(compare, nullptr);
        if (const auto failed = current->failure("SAEnumerate")) return *failed;
        const bool started = first->hId != nullptr;
        const auto next = started ? current->attributes_.upper_bound({second->hTypeId, second->hId})
                                  : current->attributes_.begin();
        if (next == current->attributes_.end()) return attribute_error(9);
        first->hId = current;
        *second = next->second->attribute.hSC;
        *attribute = &next->second->attribute;
        ++current->referenced_;
        return KC_OK;
    }

    static const ISAVtbl* table() {
        static const ISAVtbl kTable = [] {
            ISAVtbl table = {};
            table.Release = Release;
            table.SARegisterAttribute = SARegisterAttribute;
            table.SADeregisterAttribute = SADeregisterAttribute;
            table.SACreate = SACreate;
            table.SAReference = SAReference;
            table.SADereference = SADereference;
            table.SAEnumerate = SAEnumerate;
            return table;
        }();
        return &kTable;
    }
};

AttributeStandIn::AttributeStandIn() : interface_{AttributeSlots::table()} {
    current = this;
    hook_.emplace("osal.so", "LcmCreateInstance", &AttributeStandIn::create_instance);
}

AttributeStandIn::~AttributeStandIn() {
    while (!attributes_.empty())
        AttributeSlots::release_first();
    hook_.reset();
    current = nullptr;
}

std::vector<std::string> AttributeStandIn::take_calls() {
    return std::exchange(calls_, {});
}

std::optional<KCSTATUS> AttributeStandIn::failure(const std::string& call) {
    const auto found = failures_.find(call);
    if (found == failures_.end()) return std::nullopt;
    const KCSTATUS status = found->second;
    failures_.erase(found);
    return status;
}

void AttributeStandIn::end_context(SCHANDLE context) {
    const auto found = attributes_.find({context.hTypeId, context.hId});
    const auto held = std::move(found->second);
    attributes_.erase(found);
    release_(&held->attribute);
    if (cleanup != nullptr) cleanup(context);
}

KCSTATUS AttributeStandIn::make_manager(const GUID* iid, void** out) {
    void* factory = nullptr;
    EXPECT_EQ(DllGetClassObject(&CLSID_ObjectManagerDataStore, &IID_IClassFactory, &factory),
              KC_S_OK);
    auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
    void* made = nullptr;
    const KCSTATUS status =
        class_factory->lpVtbl->CreateInstance(class_factory, nullptr, iid, &made);
    class_factory->lpVtbl->Release(class_factory);
    if (KC_IS_ERROR(status)) return status;
    *out = new Proxy{ManagerSlots::table(), static_cast<IOM*>(made)};
    return KC_OK;
}

KCSTATUS AttributeStandIn::create_instance(const GUID* clsid, void* outer, const GUID* iid,
                                           void** out) {
    EXPECT_EQ(outer, nullptr);
    *out = nullptr;
    if (*clsid == CLSID_SecurityAttributeManager) {
        current->record("LcmCreateInstance(attributes)");
        if (const auto failed = current->failure("attributes")) return *failed;
        current->asked_for = *iid;
        ++current->references_;
        *out = &current->interface_;
        return KC_OK;
    }
    EXPECT_TRUE(*clsid == CLSID_ObjectManagerDataStore);
    EXPECT_TRUE(*iid == IID_IObjectManager_1);
    current->record("LcmCreateInstance(manager)");
    if (const auto failed = current->failure("manager")) return *failed;
    return current->make_manager(iid, out);
}

}  // namespace osal_test
