// A platform mutex that the compiler can follow, and its scoped guard.
//
// Mutex is a pthread_mutex_t and nothing else, so records and globals whose layout names one keep
// their layout. The calls lie in linux/mutex.cpp: portable modules do not reach the platform.
#pragma once

#include <pthread.h>

#include "osal/internal/annotations.h"

namespace osal {

struct CAPABILITY("mutex") Mutex {
    pthread_mutex_t native;

    int init();     // platform result; for mutexes inside records
    int destroy();  // platform result
    void lock() ACQUIRE();
    void lock_patiently() ACQUIRE();  // see patience.h
    void unlock() RELEASE();
};
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t));

struct Patiently {};
constexpr Patiently kPatiently;

// Holds a mutex for a scope. Its destructor also runs when a thread is cancelled or exits inside.
class SCOPED_CAPABILITY Lock {
  public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    Lock(Mutex& mutex, Patiently) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock_patiently(); }
    ~Lock() RELEASE() { mutex_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace osal
