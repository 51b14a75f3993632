// Object managers that construct and destroy what they keep.
//
//     struct Session { explicit Session(UINT32 user) : user(user) {}  UINT32 user; };
//     kx::Objects<Session> sessions({.buckets = 64});
//     auto [session, created] = sessions.find_or_create(
//         {.bucket = user % 64, .access = kx::Access::exclusive},
//         [&](const Session& other) { return other.user == user; }, user);
//     const HANDLE name = session.handle();  // sessions.by_handle(name) finds it again
//
// Locks, blocking and the life of an object are those of osal/iom.h. A T is constructed when its
// object is created, and destroyed when the object was erased, or its manager has gone, and the
// last reference was given back: by whatever thread does that, or by one of the library's if
// deletion is deferred. Its destructor must not throw.
//
// Constructors and predicates run with the manager locked: they must neither call back into it nor
// end their thread. What they throw comes out of the call that ran them; a T whose constructor
// threw was never there. Everything else that goes wrong is a kx::Error.
//
// A manager is safe on any thread. A reference is for one thread at a time, and while it holds
// access, its thread must not enter the manager but through it; that is not checked.
#pragma once

#include <cxxabi.h>

#include <cstddef>
#include <exception>
#include <iterator>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "osal/interface.hpp"
#include "osal/iom.h"

namespace kx {

// Access to an object that a reference holds.
enum class Access : UINT32 {
    none = KX_OBJECT_NO_ACCESS,
    exclusive = KX_OBJECT_EXCLUSIVE,
    shared = KX_OBJECT_SHARED,
};

// Locks of a manager and its objects.
enum class ObjectLock : UINT32 {
    read_write = KX_OBJECT_LEVEL_LOCK,
    read_write_paged = KX_OBJECT_LEVEL_SPIN,
    mutex = KX_OBJECT_LEVEL_MUTEX,  // shared access is exclusive too
};

struct ObjectOptions {
    UINT16 objects_per_block = 64;  // 1 to 255
    UINT32 buckets = 1;
    ObjectLock lock = ObjectLock::read_write;
    bool deferred = false;  // objects are destroyed on a thread of the library's
    UINT32 permanent_blocks = 0;
};

// Where to look or create, and the access to what is found.
struct Place {
    UINT32 bucket = 0;
    Access access = Access::none;
};

struct ObjectCounts {
    UINT32 slots;         // of all blocks
    UINT32 in_use;        // objects that are not preallocated
    UINT32 preallocated;  // never any that this face made
};

namespace detail {

// An interface that somebody else keeps.
template <class Interface>
class Borrowed {
  public:
    Borrowed() = default;
    explicit Borrowed(const Ref<Interface>& ref) : interface_(ref.get()) {}
    Interface* get() const { return interface_; }

  private:
    Interface* interface_ = nullptr;
};

// Keeps what a client's callable throws inside of the library, which no exception may cross.
class Guard {
  public:
    // The callable's result; refused if it throws now or has thrown before.
    template <class Result, class Call>
    Result run(Result refused, Call&& call) {
        if (thrown_) return refused;
        try {
            return call();
        } catch (...) {
            // What has no type is the end of the thread, which has to go on.
            if (abi::__cxa_current_exception_type() == nullptr) throw;
            thrown_ = std::current_exception();
            return refused;
        }
    }
    void rethrow() const {
        if (thrown_) std::rethrow_exception(thrown_);
    }

  private:
    std::exception_ptr thrown_;
};

// The routines of a manager of T, which find their way by a record on the caller's stack.
template <class T, class Predicate, class Construct>
struct ObjectCall {
    Predicate& matches;
    Construct& construct;
    Guard guard = {};

    static BOOLEAN compare(PVOID data, PVOID self) {
        auto& call = *static_cast<ObjectCall*>(self);
        return call.guard.run(FALSE, [&]() -> BOOLEAN {
            return call.matches(std::as_const(*static_cast<T*>(data))) ? TRUE : FALSE;
        });
    }
    static KCSTATUS init(PVOID data, PVOID self) {
        constexpr KCSTATUS kRefused =
            KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OBJECT, KC_CODE_FAILED);
        auto& call = *static_cast<ObjectCall*>(self);
        return call.guard.run(kRefused, [&] {
            call.construct(data);
            return KC_OK;
        });
    }
};

template <class T>
KCSTATUS destroy_object(PVOID data) noexcept {
    static_cast<T*>(data)->~T();
    return KC_OK;
}

// Without a routine the library has less to do.
template <class T>
constexpr PKX_OBJECT_ROUTINE kDestroyRoutine =
    std::is_trivially_destructible_v<T> ? nullptr : &destroy_object<T>;

template <class T, class... Arguments>
void construct_object(PVOID data, Arguments&&... arguments) {
    if constexpr (std::is_constructible_v<T, Arguments...>)
        new (data) T(std::forward<Arguments>(arguments)...);
    else
        new (data) T{std::forward<Arguments>(arguments)...};
}

// False if the status has one of the codes that say that there is no such object.
inline bool is_found(Status status, UINT32 none, UINT32 none_either) {
    if (status.is_error() && (status.code() == none || status.code() == none_either)) return false;
    check(status.value());
    return true;
}

// Where a scan is.
class HandleCursor {
  public:
    HANDLE* get() { return &scan_; }
    // Whether a scan that failed can go on behind what failed.
    static bool pass_over() { return false; }

  private:
    HANDLE scan_ = nullptr;
};

}  // namespace detail

// A reference of an object in a manager, with the access that it holds, or empty. Holder keeps the
// manager's interface, or relies on the object for that.
template <class T, class Holder>
class BasicObject {
  public:
    BasicObject() = default;
    // Takes over a reference that the caller owns, and the access that goes with it.
    BasicObject(Holder manager, T* object, Access access)
        : manager_(std::move(manager)), object_(object), access_(access) {}
    BasicObject(BasicObject&& other) noexcept
        : manager_(std::move(other.manager_)),
          object_(std::exchange(other.object_, nullptr)),
          access_(std::exchange(other.access_, Access::none)) {}
    BasicObject& operator=(BasicObject other) noexcept {
        std::swap(manager_, other.manager_);
        std::swap(object_, other.object_);
        std::swap(access_, other.access_);
        return *this;
    }
    ~BasicObject() { reset(); }

    explicit operator bool() const { return object_ != nullptr; }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }

    Access access() const { return access_; }
    // Goes stale when the object is freed, and may name another one once its whole block was.
    HANDLE handle() const {
        HANDLE handle = nullptr;
        check(interface()->lpVtbl->GetObjectHandle(interface(), object_, &handle));
        return handle;
    }
    // The security context that the object was created in.
    SCHANDLE context() const requires requires(Holder holder) {
        holder.get()->lpVtbl->GetObjectSecurityContext;
    }
    {
        SCHANDLE context = {};
        check(interface()->lpVtbl->GetObjectSecurityContext(interface(), object_, &context));
        return context;
    }
    // Another reference of the object, with no access.
    BasicObject share() const {
        check(interface()->lpVtbl->IncrementReference(interface(), object_));
        return {manager_, object_, Access::none};
    }

    // Waits for an access, after giving up the one that is held.
    void acquire(Access access) {
        release();
        if (access == Access::none) return;
        check(
            interface()->lpVtbl->AcquireObject(interface(), object_, static_cast<UINT32>(access)));
        access_ = access;
    }
    void release() {
        if (std::exchange(access_, Access::none) != Access::none)
            interface()->lpVtbl->ReleaseObject(interface(), object_);
    }
    // Gives the access and the reference up.
    void reset() {
        if (object_ != nullptr)
            interface()->lpVtbl->DereferenceObject(interface(), take_object(), take_access());
        manager_ = Holder();
    }
    // Takes the object out of every look-up, and gives the access and the reference up. Waits until
    // nobody else has access. Erasing an object twice only gives up the reference.
    void erase() {
        if (object_ != nullptr)
            interface()->lpVtbl->DeleteObject(interface(), take_object(), take_access());
        manager_ = Holder();
    }

  protected:
    auto* interface() const { return manager_.get(); }

  private:
    T* take_object() { return std::exchange(object_, nullptr); }
    UINT32 take_access() { return static_cast<UINT32>(std::exchange(access_, Access::none)); }

    Holder manager_;
    T* object_ = nullptr;
    Access access_ = Access::none;
};

// Its object keeps the manager's instance, also after the manager was destroyed.
template <class T>
using Object = BasicObject<T, detail::Borrowed<IOM>>;

// One pass over objects: a range for a for loop. The current reference is given back before the
// next object is looked for; it may be moved out of the loop.
template <class Object, class Step>
class ObjectScan {
  public:
    class Iterator {
      public:
        using iterator_concept = std::input_iterator_tag;
        using value_type = Object;
        using difference_type = std::ptrdiff_t;

        explicit Iterator(ObjectScan& scan) : scan_(&scan) {}
        Object& operator*() const { return scan_->current_; }
        Iterator& operator++() {
            scan_->advance();
            return *this;
        }
        void operator++(int) { scan_->advance(); }
        friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
            return iterator.is_at_end();
        }

      private:
        bool is_at_end() const { return !scan_->more_; }
        ObjectScan* scan_;
    };

    explicit ObjectScan(Step step) : step_(std::move(step)) {}
    Iterator begin() {
        advance();
        return Iterator(*this);
    }
    std::default_sentinel_t end() const { return {}; }

  private:
    void advance() {
        current_.reset();
        current_ = step_();
        more_ = static_cast<bool>(current_);
    }

    Step step_;
    Object current_;
    bool more_ = false;
};

// The operations of a manager. Interface: with its table. Holder: what its references keep. Cursor:
// of a scan. Context: what each operation names in front of all else, if anything.
template <class T, class Interface, class Holder, class Cursor, class... Context>
class BasicObjects {
    static_assert(alignof(T) <= 8, "objects lie at multiples of 8 bytes");
    static_assert(sizeof(T) < std::numeric_limits<UINT32>::max() / 2);
    using Table = std::remove_const_t<std::remove_pointer_t<decltype(Interface::lpVtbl)>>;

  public:
    using Object = BasicObject<T, Holder>;

    BasicObjects(const BasicObjects&) = delete;
    BasicObjects& operator=(const BasicObjects&) = delete;

    // For operations that the face does not cover.
    Interface* get() const { return manager_.get(); }

    // Makes an object with a T of these arguments. Code 4: no such bucket.
    template <class... Arguments>
    Object create(Context... context, Place place, Arguments&&... arguments) {
        const auto none = [](const T&) { return false; };
        return open(context..., place, false, none, std::forward<Arguments>(arguments)...).first;
    }
    // The first object of the bucket that matches(const T&) accepts, or a new one; true for a new
    // one. Waits, for an object that is there, until nobody else has access to it.
    template <class Predicate, class... Arguments>
    std::pair<Object, bool> find_or_create(Context... context, Place place, Predicate&& matches,
                                           Arguments&&... arguments) {
        return open(context..., place, true, matches, std::forward<Arguments>(arguments)...);
    }
    // The first object of the bucket that matches(const T&) accepts, or an empty reference.
    template <class Predicate>
    Object find(Context... context, Place place, Predicate&& matches) {
        const auto none = [](PVOID) {};
        detail::ObjectCall<T, Predicate, decltype(none)> call{matches, none};
        PVOID data = nullptr;
        const Status status = manager_.template call<&Table::FindObject>(
            context..., PVOID{&call}, &call.compare, place.bucket,
            static_cast<UINT32>(place.access), &data);
        call.guard.rethrow();  // nothing was found then
        if (!detail::is_found(status, KC_CODE_NO_MATCH, KC_CODE_NO_MORE_ENTRIES)) return {};
        return adopt(data, place.access);
    }
    // An empty reference if the handle is stale or unknown.
    Object by_handle(Context... context, HANDLE handle, Access access = Access::none) {
        PVOID data = nullptr;
        const Status status = manager_.template call<&Table::ReferenceObjectByHandle>(
            context..., handle, static_cast<UINT32>(access), &data);
        if (!detail::is_found(status, KC_CODE_INVALID_HANDLE, KC_CODE_INVALID_HANDLE)) return {};
        return adopt(data, access);
    }
    // A range of all objects: for (auto& object : objects.all()). Objects that come or go meanwhile
    // may be met or not; with access, one that was erased just before may come. The range must not
    // outlive the manager.
    auto all(Context... context, Access access = Access::none) {
        auto step = [this, context..., access, cursor = Cursor{}]() mutable {
            return next(context..., access, cursor);
        };
        return ObjectScan<Object, decltype(step)>(std::move(step));
    }

    ObjectCounts counts(Context... context) const {
        ObjectCounts counts = {};
        check(manager_.template call<&Table::GetObjectStats>(context..., &counts.slots,
                                                             &counts.in_use, &counts.preallocated));
        return counts;
    }

  protected:
    explicit BasicObjects(Ref<Interface> manager) : manager_(std::move(manager)) {}

    static UINT32 level_of(const ObjectOptions& options) {
        return static_cast<UINT32>(options.lock) | (options.deferred ? KX_OBJECT_DEFERRED : 0u);
    }

    const Ref<Interface> manager_;

  private:
    Object adopt(PVOID data, Access access) const {
        return Object(Holder(manager_), static_cast<T*>(data), access);
    }

    // look: whether an object that is there will do.
    template <class Predicate, class... Arguments>
    std::pair<Object, bool> open(Context... context, Place place, bool look, Predicate& matches,
                                 Arguments&&... arguments) {
        const auto construct = [&](PVOID data) {
            detail::construct_object<T>(data, std::forward<Arguments>(arguments)...);
        };
        detail::ObjectCall<T, Predicate, decltype(construct)> call{matches, construct};
        const auto access = static_cast<UINT32>(place.access);
        PVOID data = nullptr;
        UINT32 mode = 0;
        const KCSTATUS status = manager_.template call<&Table::CreateObject>(
            context..., PVOID{&call}, &call.init, PVOID{&call}, look ? &call.compare : nullptr,
            place.bucket, access, access, &data, &mode);
        call.guard.rethrow();  // nothing was found or made then
        check(status);
        return {adopt(data, place.access), mode == KX_OBJECT_CREATED};
    }

    Object next(Context... context, Access access, Cursor& cursor) const {
        PVOID data = nullptr;
        Status status;
        do
            status = manager_.template call<&Table::EnumerateObjects>(
                context..., cursor.get(), PVOID{nullptr}, PKX_OBJECT_COMPARE_ROUTINE{nullptr},
                static_cast<UINT32>(access), &data);
        while (status.is_error() && status.code() == KC_CODE_INVALID_HANDLE && cursor.pass_over());
        if (!detail::is_found(status, KC_CODE_NO_MORE_ENTRIES, KC_CODE_NO_MORE_ENTRIES)) return {};
        return adopt(data, access);
    }
};

// A manager of objects of type T. When it goes all objects are erased, which waits for those that
// somebody has access to: no reference with access may outlive it on its own thread. References
// without access may.
template <class T>
class Objects : public BasicObjects<T, IOM, detail::Borrowed<IOM>, detail::HandleCursor> {
  public:
    // Code 4: more than 255 objects to a block. Code 5: no memory.
    explicit Objects(const ObjectOptions& options = {})
        : Objects::BasicObjects(
              kx::create<IOM>(id::CLSID_ObjectManagerDataStore, id::IID_IObjectManager_1)) {
        constexpr PKX_OBJECT_ROUTINE kNone = nullptr;
        check(this->manager_.template call<&IOMVtbl::Initialize>(
            static_cast<UINT32>(sizeof(T)), options.objects_per_block, this->level_of(options),
            options.buckets, detail::kDestroyRoutine<T>, kNone, kNone, options.permanent_blocks));
    }
};

}  // namespace kx
