// One component library: checking, loading and unloading it.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>

#include "osal/component.h"
#include "osal/identifiers.h"

namespace lcm {

// A loaded component. Made and freed by the runtime; immutable but for `next`.
struct Component {
    std::string file;  // real path
    dev_t device;      // identity of the file, whatever name it comes under
    ino_t inode;
    void* module;
    const GUID* const* classes;
    decltype(&DllStart) start;
    decltype(&DllStop) stop;
    decltype(&DllGetClassObject) class_object;
    std::atomic<Component*> next;

    bool serves(const GUID& clsid) const;
    bool is_file(const struct stat& status) const {
        return device == status.st_dev && inode == status.st_ino;
    }
};

// Loads a checked file, whose status is given, and finds its entry points, but does not start it.
// Null with *refusal set if it was refused.
Component* load(const std::string& file, const struct stat& status, KCSTATUS* refusal);

// Unloads the library and frees the record. Does not stop it.
void unload(Component* component);

}  // namespace lcm
