// Recording stand-ins for what the security-context object manager works with: the component
// runtime's LcmCreateInstance, an attribute manager, and a proxy before each object manager.
//
// Every call is recorded in order. References of attributes are counted, so that a test can see
// that no path leaves one referenced. One object at a time.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/secattr.h"
#include "osal/iom.h"
#include "support/interpose.h"

namespace osal_test {

class AttributeStandIn {
  public:
    AttributeStandIn();
    ~AttributeStandIn();

    std::vector<std::string> take_calls();

    // The next call of this name returns the status, without doing anything else.
    void fail_next(const std::string& call, KCSTATUS status) { failures_[call] = status; }
    // The next CreateObject does what it is asked for and then fails.
    void fail_next_creation_late(KCSTATUS status) { late_failure_ = status; }
    // The next SACreate finds that another thread was first: it makes the attribute with `winner`.
    void lose_next_creation() { lose_creation_ = true; }

    UINT32 created_mode = 1;  // opened mode of a new attribute

    int referenced() const { return referenced_; }  // attributes handed out and not given back
    int manager_references() const { return references_; }
    UINT32 attributes() const { return static_cast<UINT32>(attributes_.size()); }
    void end_context(SCHANDLE context);  // calls the release routine, then the clean-up routine

    // What was registered.
    GUID component = {};
    UINT32 data_size = 0;
    PSA_CLEANUP_ROUTINE cleanup = nullptr;
    GUID asked_for = {};         // identifier that the attribute manager was asked for
    std::vector<UINT32> sizes;   // object sizes given to object managers
    std::vector<UINT32> levels;  // access levels given to object managers

  private:
    friend struct AttributeSlots;
    friend struct ManagerSlots;
    struct Held {
        Attribute attribute;
        UINT64 data;
    };
    using Key = std::pair<void*, void*>;

    static KCSTATUS create_instance(const GUID* clsid, void* outer, const GUID* iid, void** out);
    void record(const std::string& call) { calls_.push_back(call); }
    std::optional<KCSTATUS> failure(const std::string& call);
    KCSTATUS make_manager(const GUID* iid, void** out);

    ISA interface_;
    int references_ = 0;
    int referenced_ = 0;
    bool lose_creation_ = false;
    std::optional<KCSTATUS> late_failure_;
    PSA_RELEASE_ROUTINE release_ = nullptr;
    std::map<Key, std::unique_ptr<Held>> attributes_;
    std::map<std::string, KCSTATUS> failures_;
    std::vector<std::string> calls_;
    std::optional<Interpose> hook_;
};

}  // namespace osal_test
