// Interfaces of components, and the two objects that a client of the library begins with.
//
//     kx::Runtime runtime;                // loads and starts the components
//     kx::Service service("my client");   // an instance of the service interface
#pragma once

#include <utility>

#include "host/lcm.h"
#include "osal/identifiers.h"
#include "osal/iosal.h"
#include "osal/status.hpp"

namespace kx {

// The identifiers as constants, so that no source has to define them.
namespace id {
#define KX_IDENTIFIER(name, d1, d2, d3, ...) \
    inline constexpr GUID name = {d1, d2, d3, {__VA_ARGS__}};
OSAL_IDENTIFIERS(KX_IDENTIFIER)
#undef KX_IDENTIFIER
}  // namespace id

// Owns one reference of an interface, or none. Copies count another one. As safe on several threads
// as a pointer.
template <class Interface>
class Ref {
  public:
    Ref() = default;
    // Takes over a reference that the caller owns.
    explicit Ref(Interface* owned) : interface_(owned) {}
    Ref(const Ref& other) : interface_(other.interface_) {
        if (interface_ != nullptr) interface_->lpVtbl->AddRef(interface_);
    }
    Ref(Ref&& other) noexcept : interface_(std::exchange(other.interface_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(interface_, other.interface_);
        return *this;
    }
    ~Ref() {
        if (interface_ != nullptr) interface_->lpVtbl->Release(interface_);
    }

    Interface* get() const { return interface_; }
    explicit operator bool() const { return interface_ != nullptr; }

    // Calls a slot of the table: service.call<&IOsalVtbl::KxSleep>(UINT64{1000}).
    template <auto slot, class... Arguments>
    auto call(Arguments... arguments) const {
        return (interface_->lpVtbl->*slot)(interface_, arguments...);
    }

  private:
    Interface* interface_ = nullptr;
};

// Makes an instance of a class. The identifier has to be that of Interface; it is not checked.
template <class Interface>
Ref<Interface> create(const GUID& class_id, const GUID& interface_id) {
    void* made = nullptr;
    check(LcmCreateInstance(&class_id, nullptr, &interface_id, &made));
    return Ref<Interface>(static_cast<Interface*>(made));
}

// Starts the component runtime, and stops it at the end of its scope, which everything that was
// made through it has to end before. folder: searched for components besides the usual ones, or
// null.
class Runtime {
  public:
    // Throws what the runtime refused first. Whatever it did load is then stopped again.
    explicit Runtime(const char* folder = nullptr) {
        const KCSTATUS status = LcmStart(folder);
        if (!KC_IS_ERROR(status)) return;
        LcmStop();
        throw Error(status);
    }
    ~Runtime() { LcmStop(); }
    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
};

// An instance of the service interface, which all else of this face is made through. Copies share
// the instance, and everything made through it keeps it.
class Service : public Ref<IOsal> {
  public:
    // name: seen in the statistics, cut after 31 characters.
    explicit Service(const char* name)
        : Ref(create<IOsal>(id::CLSID_OrvaneOsal, id::IID_IOrvaneOsal_1)) {
        call<&IOsalVtbl::KxRegisterModuleName>(name);
    }
    // Takes over a reference of an instance that the caller owns.
    explicit Service(IOsal* owned) : Ref(owned) {}
};

}  // namespace kx
