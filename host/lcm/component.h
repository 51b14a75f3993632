// One component library: checking, loading and unloading it.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <string>

#include "osal/component.h"
#include "osal/identifiers.h"

namespace lcm {

// A loaded component, which unloads its library when it goes. Made by load, freed by the runtime;
// immutable but for `next`.
struct Component {
    std::string file;  // real path
    dev_t device = 0;  // identity of the file, whatever name it comes under
    ino_t inode = 0;
    void* module = nullptr;
    const GUID* const* classes = nullptr;
    decltype(&DllStart) start = nullptr;
    decltype(&DllStop) stop = nullptr;
    decltype(&DllGetClassObject) class_object = nullptr;
    std::atomic<Component*> next = nullptr;

    Component() = default;
    ~Component();
    bool serves(const GUID& clsid) const;
    bool is_file(const struct stat& status) const {
        return device == status.st_dev && inode == status.st_ino;
    }
};

// Loads a checked file, whose status is given, and finds its entry points, but does not start it.
// Null with *refusal set if it was refused.
std::unique_ptr<Component> load(const std::string& file, const struct stat& status,
                                KCSTATUS* refusal);

}  // namespace lcm
