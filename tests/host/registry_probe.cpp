// Makes a key with the registry library given and prints whether this process counts as
// set-user-id, and the status. Links nothing of the project: a set-user-id process would not find
// it relative to its own file.
#include <dlfcn.h>
#include <stdio.h>
#include <sys/auxv.h>
#include <unistd.h>

#include "host/tsreg.h"

int main(int, char** arguments) {
    void* library = dlopen(arguments[1], RTLD_NOW);
    if (library == nullptr) return fprintf(stderr, "%s\n", dlerror()), 1;
    const auto create =
        reinterpret_cast<decltype(&TsRegCreateKeyExA)>(dlsym(library, "TsRegCreateKeyExA"));
    HANDLE key = nullptr;
    const KCSTATUS status =
        create(TSREG_LOCAL_MACHINE, "A", 0, nullptr, 0, 0, nullptr, &key, nullptr);
    printf("%lu %08X\n", getauxval(AT_SECURE), status);
    fflush(stdout);
    _exit(0);  // without the leak checker of a sanitizer, which may not look into such a process
}
