#include "component.h"

#include <dlfcn.h>
#include <link.h>

#include "refusal.h"

namespace lcm {
namespace {

// A symbol of this very library. A plain look-up would also find those of the libraries it needs,
// so that one that needs osal.so would seem to have all entry points.
void* own_symbol(void* module, const char* name) {
    void* symbol = dlsym(module, name);
    link_map* own = nullptr;
    void* owner = nullptr;
    Dl_info unused;
    if (symbol == nullptr || dlinfo(module, RTLD_DI_LINKMAP, &own) != 0 ||
        dladdr1(symbol, &unused, &owner, RTLD_DL_LINKMAP) == 0)
        return nullptr;
    return owner == own ? symbol : nullptr;
}

template <class Pointer>
bool find(void* module, const char* name, Pointer& pointer, const char*& missing) {
    pointer = reinterpret_cast<Pointer>(own_symbol(module, name));
    if (pointer == nullptr) missing = name;
    return pointer != nullptr;
}

// Null, or the name of the first entry point that the library lacks.
const char* find_entry_points(Component& component) {
    const char* missing = nullptr;
    void* const module = component.module;
    static_cast<void>(find(module, "TSCOM_Table", component.classes, missing) &&
                      find(module, "DllStart", component.start, missing) &&
                      find(module, "DllGetClassObject", component.class_object, missing) &&
                      find(module, "DllStop", component.stop, missing));
    return missing;
}

}  // namespace

Component::~Component() {
    if (module != nullptr) dlclose(module);
}

bool Component::serves(const GUID& clsid) const {
    for (const GUID* const* served = classes; *served != nullptr; ++served)
        if (**served == clsid) return true;
    return false;
}

std::unique_ptr<Component> load(const std::string& file, const struct stat& status,
                                KCSTATUS* refusal) {
    auto component = std::make_unique<Component>();
    component->file = file;
    component->device = status.st_dev;
    component->inode = status.st_ino;
    component->module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (component->module == nullptr) {
        *refusal = kStart.refuse(KC_CODE_FAILED, file.c_str(), dlerror());
        return nullptr;
    }
    if (const char* missing = find_entry_points(*component)) {
        const std::string why = std::string("has no ") + missing;
        *refusal = kStart.refuse(KC_CODE_UNSUPPORTED, file.c_str(), why.c_str());
        return nullptr;
    }
    return component;
}

}  // namespace lcm
