// The words of all files, as objects of the library's security-context object manager.
//
// A word is an object in the context of the user who owns the files that it occurs in, so that one
// word is counted for each owner by itself. Within a context, words lie in hash buckets.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <set>

#include "client.h"
#include "host/secattr.h"
#include "osal/iscom.h"
#include "word_table.h"

namespace wordindex {

struct OwnedWord {
    uid_t owner;
    WideText text;  // a zero follows
    UINT64 count;
};

// Objects of one context.
struct ObjectCounts {
    UINT32 slots;
    UINT32 in_use;
    UINT32 preallocated;
};

// Gives an interface's reference back.
struct ReleaseInterface {
    template <class Interface>
    void operator()(Interface* instance) const {
        instance->lpVtbl->Release(instance);
    }
};

// The security context of a user, open for as long as this lives.
class Context {
  public:
    Context(ISecurityContext& manager, uid_t user);
    ~Context() { manager_.lpVtbl->EndContext(&manager_, handle_); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    SCHANDLE handle() const { return handle_; }

  private:
    ISecurityContext& manager_;
    SCHANDLE handle_ = {};
};

class Vocabulary {
  public:
    // Opens a context for each owner; they end with this object, and all words with them.
    Vocabulary(const Client& client, UINT32 buckets, const std::set<uid_t>& owners);

    // Adds the counts of a table to those of one of the owners. From any thread.
    void add(uid_t owner, const WordTable& words);

    // Visits every word of every owner, in no order.
    void for_each(const std::function<void(const OwnedWord&)>& visit) const;

    std::map<uid_t, ObjectCounts> object_counts() const;

  private:
    void add(SCHANDLE context, const Word& word);
    uid_t owner_of(PVOID object) const;

    const Client& client_;
    const UINT32 buckets_;
    std::unique_ptr<ISecurityContext, ReleaseInterface> context_manager_;
    std::unique_ptr<ISCOM_2, ReleaseInterface> objects_;
    std::map<uid_t, Context> contexts_;
};

}  // namespace wordindex
