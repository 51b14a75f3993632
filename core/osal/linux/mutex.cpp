// Platform side of osal::Mutex.
#include "osal/internal/mutex.h"

namespace osal {
namespace {

void pause(int turns) {
    for (; turns > 0; --turns)
        __builtin_ia32_pause();
}

}  // namespace

int Mutex::init() {
    return pthread_mutex_init(&native, nullptr);
}
int Mutex::destroy() {
    return pthread_mutex_destroy(&native);
}
void Mutex::lock() NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&native);
}
void Mutex::lock_patiently() NO_THREAD_SAFETY_ANALYSIS {
    for (int turns = 50; turns <= 400; turns *= 2) {
        if (pthread_mutex_trylock(&native) == 0) return;
        pause(turns);
    }
    pthread_mutex_lock(&native);
}
void Mutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&native);
}

}  // namespace osal
