// The library as a subject sees it: an instance, reached through its table as clients do.
#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "osal/osal.h"

namespace bench {

// Starts the library for the life of the program.
class Library {
  public:
    Library() { DllStart(); }
    ~Library() { DllStop(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

// An instance of the service interface.
class Instance {
  public:
    Instance() {
        void* factory = nullptr;
        if (DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &factory) != KC_S_OK) fail();
        auto* classes = static_cast<LCM_IClassFactory*>(factory);
        void* made = nullptr;
        if (classes->lpVtbl->CreateInstance(classes, nullptr, &IID_IOrvaneOsal_1, &made) != KC_OK)
            fail();
        classes->lpVtbl->Release(classes);
        osal_ = static_cast<PIOsal>(made);
    }
    ~Instance() { osal_->lpVtbl->Release(osal_); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    operator PIOsal() const { return osal_; }
    const IOsalVtbl* operator->() const { return osal_->lpVtbl; }

  private:
    [[noreturn]] static void fail() {
        std::fprintf(stderr, "the library does not start\n");
        std::exit(1);
    }
    PIOsal osal_;
};

// A peer that is looked up at run time, since linking it would replace the C library's own
// functions. False if the library or a function is missing.
class Peer {
  public:
    explicit Peer(const char* file) : handle_(dlopen(file, RTLD_NOW | RTLD_LOCAL)) {}

    template <class Function>
    bool find(const char* name, Function*& function) const {
        if (handle_ == nullptr) return false;
        function = reinterpret_cast<Function*>(dlsym(handle_, name));
        return function != nullptr;
    }

  private:
    void* handle_;
};

}  // namespace bench
