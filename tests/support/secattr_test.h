// Fixtures of tests of security contexts with the real attribute manager, all reached through the
// component runtime. To be used with OSAL_DEFINE_IDENTIFIERS.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <utility>

#include "host/lcm.h"
#include "host/secattr.h"
#include "osal/iscom.h"
#include "osal/osal.h"

namespace osal_test {

constexpr GUID kComponent = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr GUID kOther = {2, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_SECATTR, code);
}

inline SCHANDLE context(UINT64 user, UINT64 session) {
    return {reinterpret_cast<HANDLE>(user), reinterpret_cast<HANDLE>(session)};
}
inline UINT64 user_of(SCHANDLE context) {
    return reinterpret_cast<uintptr_t>(context.hTypeId);
}

inline std::atomic<int> cleanups;
inline std::atomic<int> releases;
inline std::atomic<int> inits;

inline void note_cleanup(SCHANDLE) {
    ++cleanups;
}
inline void note_release(PAttribute) {
    ++releases;
}
inline KCSTATUS set_number(PAttribute attribute, void* number) {
    ++inits;
    *static_cast<UINT64*>(attribute->pData) = *static_cast<UINT64*>(number);
    return KC_OK;
}
inline KCSTATUS refuse(PAttribute, void*) {
    return KC_MAKE_STATUS(3, 99, 5);
}

template <class Interface>
Interface* instance(const GUID& clsid, const GUID& iid) {
    void* made = nullptr;
    EXPECT_EQ(LcmCreateInstance(&clsid, nullptr, &iid, &made), KC_OK);
    return static_cast<Interface*>(made);
}

class SecurityAttributes : public testing::Test {
  protected:
    SecurityAttributes() {
        cleanups = releases = inits = 0;
        EXPECT_EQ(LcmStart(nullptr), KC_OK);
        manager = instance<ISA>(CLSID_SecurityAttributeManager, IID_IContextAttribute_1);
        contexts = instance<ISecurityContext>(CLSID_SecurityContextManager, IID_ISecurityContext_1);
        EXPECT_EQ(manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, note_cleanup,
                                                       note_release, &type),
                  KC_OK);
    }
    ~SecurityAttributes() override {
        if (type != nullptr) {
            EXPECT_EQ(manager->lpVtbl->SADeregisterAttribute(manager, type), KC_OK);
        }
        manager->lpVtbl->Release(manager);
        contexts->lpVtbl->Release(contexts);
        LcmStop();
    }

    KCSTATUS create(SCHANDLE where, UINT64 number, PAttribute* attribute, PUINT32 opened = nullptr,
                    UINT32 create_access = 0, UINT32 open_access = 0) {
        return manager->lpVtbl->SACreate(manager, where, type, &number, set_number, create_access,
                                         open_access, attribute, opened);
    }
    void created(SCHANDLE where, UINT64 number) {
        PAttribute attribute = nullptr;
        ASSERT_EQ(create(where, number, &attribute), KC_OK);
        give_back(attribute);
    }
    void give_back(PAttribute attribute, UINT32 access = 0) {
        EXPECT_EQ(manager->lpVtbl->SADereference(manager, access, attribute), KC_OK);
    }
    KCSTATUS reference(SCHANDLE where, PAttribute* attribute, UINT32 access = 0) {
        return manager->lpVtbl->SAReference(manager, where, type, access, attribute);
    }
    static UINT64 number(PAttribute attribute) { return *static_cast<UINT64*>(attribute->pData); }
    std::multiset<UINT64> listed() {
        std::multiset<UINT64> users;
        HANDLE scan = nullptr;
        SCHANDLE found;
        KCSTATUS status;
        while (!KC_IS_ERROR(status = contexts->lpVtbl->EnumerateContexts(contexts, &scan, &found)))
            users.insert(user_of(found));
        EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
        return users;
    }

    ISA* manager;
    ISecurityContext* contexts;
    HANDLE type = nullptr;
};

inline std::atomic<int> deleted_objects;

inline KCSTATUS fill_number(PVOID object, PVOID from) {
    *static_cast<UINT64*>(object) = *static_cast<UINT64*>(from);
    return KC_OK;
}
inline BOOLEAN equal_number(PVOID object, PVOID wanted) {
    return *static_cast<UINT64*>(object) == *static_cast<UINT64*>(wanted);
}

class ContextObjects : public SecurityAttributes {
  protected:
    ContextObjects() {
        deleted_objects = 0;
        objects = instance<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2);
        EXPECT_EQ(objects->lpVtbl->Initialize(
                      objects, &kOther, sizeof(UINT64), 16, 0, 4,
                      [](PVOID) -> KCSTATUS {
                          ++deleted_objects;
                          return KC_OK;
                      },
                      nullptr, nullptr, 0),
                  KC_OK);
    }
    ~ContextObjects() override { objects->lpVtbl->Release(objects); }

    void find_or_create(SCHANDLE where, UINT64 value) {
        PVOID object = nullptr;
        EXPECT_EQ(
            objects->lpVtbl->CreateObject(objects, where, &value, fill_number, &value, equal_number,
                                          static_cast<UINT32>(value % 4), 0, 0, &object, nullptr),
            KC_OK);
        EXPECT_EQ(objects->lpVtbl->DereferenceObject(objects, object, 0), KC_OK);
    }
    bool has(SCHANDLE where, UINT64 value) {
        PVOID object = nullptr;
        if (KC_IS_ERROR(objects->lpVtbl->FindObject(objects, where, &value, equal_number,
                                                    static_cast<UINT32>(value % 4), 0, &object)))
            return false;
        EXPECT_EQ(*static_cast<UINT64*>(object), value);
        EXPECT_EQ(objects->lpVtbl->DereferenceObject(objects, object, 0), KC_OK);
        return true;
    }
    std::multiset<std::pair<UINT64, UINT64>> all_objects() {
        std::multiset<std::pair<UINT64, UINT64>> found;
        ISCOM_SCAN_DATA scan = {};
        PVOID object = nullptr;
        KCSTATUS status;
        while (!KC_IS_ERROR(
            status = objects->lpVtbl->EnumerateObjects(objects, context(~0ull, ~0ull), &scan,
                                                       nullptr, nullptr, 0, &object))) {
            SCHANDLE where = {};
            objects->lpVtbl->GetObjectSecurityContext(objects, object, &where);
            found.insert({user_of(where), *static_cast<UINT64*>(object)});
            objects->lpVtbl->DereferenceObject(objects, object, 0);
        }
        EXPECT_EQ(KC_CODE(status), KC_CODE_NO_MORE_ENTRIES);
        return found;
    }

    ISCOM_2* objects;
};

}  // namespace osal_test
