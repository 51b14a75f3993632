// The component runtime: start, stop, and the way to an instance.
//
// Locks, in order: start_mutex serialises LcmStart and LcmStop, and is held while components are
// loaded, started and stopped. table_lock keeps components in the list: it is held shared while a
// class is looked up and made, and exclusively to take the list away, never while a component's
// code runs. It is of the kind that prefers readers: a thread that holds it shared may take it so
// again, which it does when a component makes an instance of another's class. Since readers could
// keep a writer out for ever, a stop first shuts out new calls, and a component is appended without
// the lock: the store that links it is the last one.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "component.h"
#include "host/lcm.h"
#include "refusal.h"
#include "search.h"

// This library does not link the one that exports them.
OSAL_DEFINE_IDENTIFIERS

namespace lcm {
namespace {

constinit pthread_mutex_t start_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_rwlock_t table_lock = PTHREAD_RWLOCK_INITIALIZER;

// Appended to under start_mutex, emptied under both locks.
constinit std::atomic<Component*> first_component{nullptr};

// Whether new calls are let in. Set before the first component is there and cleared before the last
// one goes.
constinit std::atomic<bool> started{false};

// How many calls of the runtime this thread is in. Above zero the thread is inside a component.
constinit thread_local int depth = 0;

class Entered {
  public:
    Entered() { ++depth; }
    ~Entered() { --depth; }
};

class StartLock {
  public:
    StartLock() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &callers_state_);
        pthread_mutex_lock(&start_mutex);
    }
    ~StartLock() {
        pthread_mutex_unlock(&start_mutex);
        pthread_setcancelstate(callers_state_, nullptr);
    }

  private:
    int callers_state_ = 0;
};

class SharedTable {
  public:
    SharedTable() { pthread_rwlock_rdlock(&table_lock); }
    ~SharedTable() { pthread_rwlock_unlock(&table_lock); }
};

class ExclusiveTable {
  public:
    ExclusiveTable() { pthread_rwlock_wrlock(&table_lock); }
    ~ExclusiveTable() { pthread_rwlock_unlock(&table_lock); }
};

// Remembers the first refusal.
class Verdict {
  public:
    void note(KCSTATUS status) {
        if (first_ == KC_OK) first_ = status;
    }
    KCSTATUS first() const { return first_; }

  private:
    KCSTATUS first_ = KC_OK;
};

bool is_loaded(const struct stat& status) {
    for (const Component* component = first_component; component != nullptr;
         component = component->next)
        if (component->is_file(status)) return true;
    return false;
}

void append(Component* component) {
    std::atomic<Component*>* end = &first_component;
    while (Component* earlier = *end)
        end = &earlier->next;
    *end = component;
}

KCSTATUS start(std::unique_ptr<Component> component) {
    if (const KCSTATUS status = component->start(); is_error(status)) {
        log_refusal(component->file.c_str(), "its DllStart failed");
        return status;
    }
    append(component.release());
    return KC_OK;
}

// Why a file must not be loaded; null if it may.
const char* distrust_file(const std::string& file, const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return "not a regular file";
    if (const char* why = distrust(status)) return why;
    const std::string folder = file.substr(0, file.rfind('/') + 1);
    return distrust(folder) != nullptr ? "others may write or own its folder" : nullptr;
}

KCSTATUS load_and_start(const std::string& name) {
    const std::string file = real_path(name);
    struct stat status;
    if (file.empty() || stat(file.c_str(), &status) != 0)
        return kStart.refuse(KC_CODE_INVALID_HANDLE, name.c_str(), strerrordesc_np(errno));
    if (is_loaded(status)) return KC_OK;
    if (const char* why = distrust_file(file, status))
        return kStart.refuse(KC_CODE_FAILED, file.c_str(), why);
    KCSTATUS refusal = KC_OK;
    std::unique_ptr<Component> component = load(file, status, &refusal);
    return component != nullptr ? start(std::move(component)) : refusal;
}

// The real path of a folder that may be searched; empty if it may not, with *refusal set unless it
// is merely missing where that is allowed.
std::string check_folder(const Folder& folder, KCSTATUS* refusal) {
    const char* path = folder.path.c_str();
    if (folder.must_be_absolute && *path != '/') {
        *refusal = kStart.refuse(KC_CODE_INVALID_ARGUMENT, path, "not an absolute path");
        return {};
    }
    std::string real = real_path(folder.path);
    if (real.empty()) {
        if (errno != ENOENT || !folder.may_be_missing)
            *refusal = kStart.refuse(KC_CODE_INVALID_HANDLE, path, strerrordesc_np(errno));
    } else if (const char* why = distrust(real)) {
        *refusal = kStart.refuse(KC_CODE_FAILED, path, why);
        real.clear();
    }
    return real;
}

void search(const Folder& folder, Verdict& verdict) {
    KCSTATUS refusal = KC_OK;
    const std::string real = check_folder(folder, &refusal);
    verdict.note(refusal);
    if (real.empty()) return;
    std::vector<std::string> names;
    if (!list_components(real, names))
        verdict.note(kStart.refuse(KC_CODE_FAILED, real.c_str(), strerrordesc_np(errno)));
    for (const std::string& name : names)
        verdict.note(load_and_start((real + "/").append(name)));
}

KCSTATUS search_all(const char* directory) {
    Verdict verdict;
    try {
        for (const Folder& folder : search_path(directory))
            search(folder, verdict);
    } catch (const std::bad_alloc&) {
        verdict.note(kStart.refuse(KC_CODE_NO_RESOURCES, "the search", "no memory"));
    }
    return verdict.first();
}

// Takes the whole list away, the component loaded last first.
Component* take_reversed() {
    ExclusiveTable table;
    Component* reversed = nullptr;
    while (Component* component = first_component) {
        first_component = component->next.load();
        component->next = reversed;
        reversed = component;
    }
    return reversed;
}

void stop_all(Component* components) {
    for (const Component* component = components; component != nullptr; component = component->next)
        component->stop();
    while (Component* component = components) {
        components = component->next;
        delete component;
    }
}

constexpr const char* kNotStarted = "the runtime is not started";

KCSTATUS refuse_class(const GUID& clsid, UINT32 code, const char* why) {
    char subject[64];
    const UINT8* d = clsid.Data4;
    snprintf(subject, sizeof subject, "class %08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
             clsid.Data1, clsid.Data2, clsid.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    return kCreate.refuse(code, subject, why);
}

const Component* server_of(const GUID& clsid) {
    const Component* component = first_component;
    while (component != nullptr && !component->serves(clsid))
        component = component->next;
    return component;
}

// A class factory, given back at the end of a scope, also when the thread ends in it.
struct Factory {
    LCM_IClassFactory* table = nullptr;
    ~Factory() {
        if (table != nullptr) table->lpVtbl->Release(table);
    }
};

KCSTATUS create(const Component& component, const GUID& clsid, void* outer, const GUID* iid,
                void** out) {
    void* pointer = nullptr;
    const HRESULT result = component.class_object(&clsid, &IID_IClassFactory, &pointer);
    const Factory factory{result == KC_S_OK ? static_cast<LCM_IClassFactory*>(pointer) : nullptr};
    if (result == KC_E_NOINTERFACE)
        return refuse_class(clsid, KC_CODE_UNSUPPORTED, "its component does not give the factory");
    if (factory.table == nullptr)
        return refuse_class(clsid, KC_CODE_FAILED, "its component failed to give the factory");
    const KCSTATUS status = factory.table->lpVtbl->CreateInstance(factory.table, outer, iid, out);
    if (is_error(status)) *out = nullptr;
    return status;
}

KCSTATUS find_and_create(const GUID& clsid, void* outer, const GUID* iid, void** out) {
    SharedTable table;
    if (const Component* component = server_of(clsid))
        return create(*component, clsid, outer, iid, out);
    return started ? refuse_class(clsid, KC_CODE_UNSUPPORTED, "no component serves it")
                   : refuse_class(clsid, KC_CODE_FAILED, kNotStarted);
}

}  // namespace
}  // namespace lcm

using namespace lcm;

OSAL_BEGIN_DECLS

KCSTATUS LcmStart(const char* directory) {
    if (depth != 0) return kStart.refuse(KC_CODE_BUSY, "a start", "called from inside a component");
    StartLock lock;
    Entered entered;
    started = true;
    return search_all(directory);
}

KCSTATUS LcmCreateInstance(const GUID* clsid, void* outer, const GUID* iid, void** out) {
    if (out != nullptr) *out = nullptr;
    if (clsid == nullptr || iid == nullptr || out == nullptr)
        return kCreate.refuse(KC_CODE_INVALID_ARGUMENT, "an instance", "null argument");
    // A call from inside a component is let in while its caller is: the stop waits for both.
    if (depth == 0 && !started) return refuse_class(*clsid, KC_CODE_FAILED, kNotStarted);
    Entered entered;
    return find_and_create(*clsid, outer, iid, out);
}

KCSTATUS LcmStop(void) {
    if (depth != 0) return kStop.refuse(KC_CODE_BUSY, "a stop", "called from inside a component");
    StartLock lock;
    Entered entered;
    started = false;
    stop_all(take_reversed());
    return KC_OK;
}

OSAL_END_DECLS
