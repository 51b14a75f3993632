// Loading, starting, stopping and unloading the library. This program is not linked with it.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "harness.h"
#include "osal/component.h"

namespace {

using bench::now;
using bench::Ns;

struct Phases {
    Ns load, start, stop, unload;
};

template <class Function>
Function* symbol(void* library, const char* name) {
    void* address = dlsym(library, name);
    if (address == nullptr) {
        std::fprintf(stderr, "%s: not found\n", name);
        std::exit(1);
    }
    return reinterpret_cast<Function*>(address);
}

void* load() {
    void* library = dlopen(OSAL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::exit(1);
    }
    return library;
}

// The whole life of the library once. A library that did not leave memory would not start afresh.
Phases live_once() {
    const Ns begin = now();
    void* library = load();
    const Ns loaded = now();
    symbol<decltype(DllStart)>(library, "DllStart")();
    void* factory = nullptr;
    symbol<decltype(DllGetClassObject)>(library, "DllGetClassObject")(
        symbol<const GUID>(library, "CLSID_OrvaneOsal"),
        symbol<const GUID>(library, "IID_IClassFactory"), &factory);
    if (factory == nullptr) std::exit(1);
    const Ns started = now();
    symbol<decltype(DllStop)>(library, "DllStop")();
    const Ns stopped = now();
    dlclose(library);
    const Ns unloaded = now();
    if (dlopen(OSAL_LIBRARY, RTLD_NOW | RTLD_NOLOAD) != nullptr) std::exit(1);
    return {loaded - begin, started - loaded, stopped - started, unloaded - stopped};
}

// A contender that counts some of the phases.
bench::Contender counting(const char* name, Ns (*part)(const Phases&)) {
    return {name, [part](std::uint64_t n) {
                Ns sum = 0;
                for (; n != 0; --n)
                    sum += part(live_once());
                return sum;
            }};
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"start", "Start and stop of the library", "the phase named, once",
                          "The raw primitive is dlopen and dlclose without a call in between. "
                          "Every round loads the library anew.",
                          ""});
    report.race(
        "Phases", "load to unload", 1,
        {{"dlopen + dlclose",
          [](std::uint64_t n) {
              for (; n != 0; --n)
                  dlclose(load());
          }},
         counting("load", [](const Phases& p) { return p.load; }),
         counting("DllStart + DllGetClassObject", [](const Phases& p) { return p.start; }),
         counting("load to first class object", [](const Phases& p) { return p.load + p.start; }),
         counting("DllStop", [](const Phases& p) { return p.stop; }),
         counting("unload", [](const Phases& p) { return p.unload; })},
        {.fixed_count = 4});
    return report.finish();
}
