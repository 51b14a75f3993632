// Starts the component runtime that lies in the folder given and prints whether this process counts
// as set-user-id, and the status of the start. Links nothing of the project: a set-user-id process
// would not find it relative to its own file.
#include <dlfcn.h>
#include <stdio.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <string>

int main(int, char** arguments) {
    const std::string folder = arguments[1];
    dlopen((folder + "/libkcstatus.so").c_str(), RTLD_NOW | RTLD_GLOBAL);
    void* runtime = dlopen((folder + "/liblcm.so").c_str(), RTLD_NOW);
    if (runtime == nullptr) return fprintf(stderr, "%s\n", dlerror()), 1;
    const auto start = reinterpret_cast<unsigned (*)(const char*)>(dlsym(runtime, "LcmStart"));
    printf("%lu %08X\n", getauxval(AT_SECURE), start(nullptr));
    fflush(stdout);
    _exit(0);  // without the leak checker of a sanitizer, which may not look into such a process
}
