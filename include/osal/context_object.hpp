// Objects in security contexts, constructed and destroyed like those of osal/object.hpp, where all
// but this is said: every operation names a context in front of all else.
//
//     kx::ContextObjects<Session> sessions(kComponent, {.buckets = 64});
//     sessions.create(context, {.bucket = 3}, user);
//     for (auto& session : sessions.all(kx::every_context(), kx::Access::shared))
//         report(session.context(), session->user);
//
// What a context is and who ends it is said in osal/iscom.h, and what may have become of an object
// before the access to it was got. A T is destroyed with its context too, by whatever thread ends
// that. A reference keeps the manager's instance: the objects go when the manager and the last
// reference are gone.
#pragma once

#include <cstdint>
#include <utility>

#include "osal/iscom.h"
#include "osal/object.hpp"

namespace kx {

namespace detail {

class ContextCursor {
  public:
    ISCOM_SCAN_DATA* get() { return &scan_; }
    // A walk over every context fails when its present one has ended, and goes on with the next.
    bool pass_over() { return std::exchange(scan_.hEnumObject, nullptr) != nullptr; }

  private:
    ISCOM_SCAN_DATA scan_ = {};
};

}  // namespace detail

// Stands for every context, in all() only.
inline SCHANDLE every_context() {
    const auto all_ones = reinterpret_cast<HANDLE>(~std::uintptr_t{0});
    return {all_ones, all_ones};
}

template <class T>
using ContextObject = BasicObject<T, Ref<ISCOM_2>>;

template <class T>
class ContextObjects
    : public BasicObjects<T, ISCOM_2, Ref<ISCOM_2>, detail::ContextCursor, SCHANDLE> {
  public:
    // component: names the object type. cleanup: called once for each context that ends and has had
    // objects of the type, or null; it must not throw. Code 4: more than 255 objects to a block.
    // Throws also what the attribute manager says, and code 2 if there is none.
    explicit ContextObjects(const GUID& component, const ObjectOptions& options = {},
                            PISCOM_CLEANUP_ROUTINE cleanup = nullptr)
        : ContextObjects::BasicObjects(
              kx::create<ISCOM_2>(id::CLSID_ObjectManagerDataStore, id::IID_ISCObjectManager_2)) {
        constexpr PKX_OBJECT_ROUTINE kNone = nullptr;
        check(this->manager_.template call<&ISCOM_2Vtbl::Initialize>(
            &component, static_cast<UINT32>(sizeof(T)), options.objects_per_block,
            this->level_of(options), options.buckets, detail::kDestroyRoutine<T>, kNone, cleanup,
            options.permanent_blocks));
    }
};

}  // namespace kx
