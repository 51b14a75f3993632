// What this process has mapped, to see that loading and unloading a library leaves nothing behind.
#pragma once

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "support/sizes.h"

namespace osal_test {

// What a leak would add to: mapped files, stacks of threads (each has a guard page), and memory.
struct Mappings {
    std::size_t files = 0;
    std::size_t guards = 0;
    std::size_t memory = 0;
};

inline Mappings mappings() {
    std::FILE* list = std::fopen("/proc/self/maps", "r");
    Mappings count;
    char line[PATH_MAX + 100];
    while (std::fgets(line, sizeof line, list) != nullptr) {
        unsigned long start, end;
        char access[5];
        std::sscanf(line, "%lx-%lx %4s", &start, &end, access);
        if (std::strchr(line, '/') != nullptr)
            ++count.files;
        else if (std::strcmp(access, "---p") != 0)
            ++count.memory;
        else if (end - start == 4096)
            ++count.guards;
    }
    std::fclose(list);
    return count;
}

// That a few dozen rounds since then left nothing.
inline void expect_no_more(const Mappings& before) {
    const Mappings after = mappings();
    EXPECT_EQ(after.files, before.files);
    // A cached stack or a heap arena may come or go; a round that leaked would show tenfold.
    EXPECT_LE(after.guards, before.guards + 6);
    // A sanitizer maps memory for its own ends: freed blocks that it holds back, and a new list of
    // the loaded files at every dlopen and dlclose, which it keeps.
    if (!kSanitized) {
        EXPECT_LE(after.memory, before.memory + 6);
    }
}

}  // namespace osal_test
