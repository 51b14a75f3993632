// Platform side of osal::Mutex.
#include "osal/internal/mutex.h"

#include "osal/internal/patience.h"

namespace osal {

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
    if (!patiently([this] { return pthread_mutex_trylock(&native) == 0; }))
        pthread_mutex_lock(&native);
}
void Mutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&native);
}

}  // namespace osal
