// Sizes of long tests.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace osal_test {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

inline std::uint64_t from_environment(const char* name, std::uint64_t otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 0) : otherwise;
}

}  // namespace osal_test
