#include "support/threads.h"

#include <cstdlib>
#include <cstring>

#include "osal/internal/pool_block.h"

namespace osal_test {

bool under_helgrind() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload_helgrind") != nullptr;
}

void forget_stack_of_this_thread() {
#if defined(OSAL_ADDRESS_SANITIZER)
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    void* stack;
    std::size_t size;
    pthread_attr_getstack(&attr, &stack, &size);
    pthread_attr_destroy(&attr);
    ASAN_UNPOISON_MEMORY_REGION(stack, size);
#endif
}

}  // namespace osal_test
