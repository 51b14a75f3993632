// What the two interfaces of the component share: the store of types, contexts and attributes.
//
// The store is built on the library's object managers, as any client would: one manager holds the
// attribute types (so that an attribute handle is an object handle, stale ones being refused), one
// the contexts, and each type has one for its attributes, keyed by context. Their
// compare-and-create settles races; their references keep attributes alive. What is in the store
// holds no reference of its own: an object that nobody uses stays, with a count of 0, until it is
// deleted or its manager goes.
//
// Locks: Store::membership (a read/write lock of the services) is held shared while an attribute is
// added to a listed context, and exclusively while a context begins with its first attribute or
// attributes are taken off their contexts; no routine of a client but the init routine is called
// with it held. Each attribute has a read/write lock of its own for its access, waited for with
// nothing else held.
#pragma once

#include "host/secattr.h"
#include "osal/iom.h"
#include "osal/osal.h"

namespace secattr {

// An attribute type: object of Store::types. Its delete routine releases the manager.
struct Type {
    GUID component;
    IOM* attributes;
    PSA_CLEANUP_ROUTINE cleanup;
    PSA_RELEASE_ROUTINE release;
};

// An attribute: object of its type's manager. The data follows. detached and next are guarded by
// membership until the attribute was taken off its context.
struct Record {
    Attribute attribute;
    IOM* home;
    PSA_CLEANUP_ROUTINE cleanup;
    PSA_RELEASE_ROUTINE release;
    HANDLE access_lock;
    Record* next;  // in a list of detached attributes
    BOOLEAN detached;
};
static_assert(sizeof(Record) % 8 == 0, "the data behind it is aligned");

struct Context {
    SCHANDLE handle;
};

struct Store {
    IOsal* osal;
    IOM* types;
    IOM* contexts;
    HANDLE membership;
};

extern Store store;

// Builds the store at the first use and tears it down at the end. Neither is called concurrently
// with anything else here.
KCSTATUS build_store();
void end_store();

constexpr bool is_error(KCSTATUS status) {
    return KC_IS_ERROR(status);
}
KCSTATUS fail(UINT32 code, const char* function = __builtin_FUNCTION(),
              UINT32 line = __builtin_LINE());

constexpr bool same(SCHANDLE a, SCHANDLE b) {
    return a.hTypeId == b.hTypeId && a.hId == b.hId;
}
UINT32 bucket_of(SCHANDLE context);
inline bool is_every_context(SCHANDLE context) {
    const auto all_ones = reinterpret_cast<HANDLE>(~uintptr_t{0});
    return same(context, {all_ones, all_ones});
}

// Makes an object manager with as many buckets as bucket_of uses, or with one.
KCSTATUS make_manager(UINT32 object_size, bool keyed, PKX_OBJECT_ROUTINE on_end, IOM** manager);

// Both interfaces are static objects; their references are counted in one place.
extern ISA attribute_manager;
extern ISecurityContext context_manager;
KCSTATUS query_attribute_manager(const GUID* iid, void** out);
KCSTATUS query_context_manager(const GUID* iid, void** out);
UINT32 add_reference();
UINT32 drop_reference();

// The list of contexts. Caller holds membership, exclusively to end one. *begun, unless the pointer
// is null: it was not listed before.
bool is_listed(SCHANDLE context);
KCSTATUS begin_context(SCHANDLE context, bool* begun = nullptr);
bool end_context(SCHANDLE context);  // false: not listed

// Takes every attribute of a context off it. Caller holds membership exclusively, and passes the
// result to finish_detached once it is released.
Record* detach_all(SCHANDLE context);

// Ends attributes that were taken off, with their clean-up routines or without.
void finish_detached(Record* list, bool with_cleanup);

// Holds the membership lock for a scope.
class Membership {
  public:
    enum Mode { kShared, kExclusive };
    explicit Membership(Mode mode);
    ~Membership();
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;
};

}  // namespace secattr
