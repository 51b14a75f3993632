// Locks for std::lock_guard and its like. See osal/lock.h.
//
//     kx::Mutex mutex(service);
//     {
//         std::lock_guard lock(mutex);
//         ++count;
//     }
//
// A lock is destroyed once nobody uses it any more. One that is still held then is left as it is:
// its record stays allocated. All functions are safe on any thread and none is a cancellation
// point, but for what SpinLock says.
#pragma once

#include "osal/interface.hpp"
#include "osal/lock.h"

namespace kx {

// A recursive mutex, BasicLockable: the services cannot try. std::condition_variable_any takes it,
// held once.
class Mutex {
  public:
    explicit Mutex(const Service& service) : service_(service) {
        check(service_.call<&IOsalVtbl::KxAllocMutex>(UINT32{0}, &handle_));
    }
    ~Mutex() { service_.call<&IOsalVtbl::KxDestroyMutex>(handle_); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { check(service_.call<&IOsalVtbl::KxAcquireMutex>(handle_)); }
    // Does nothing on a thread that does not own the mutex.
    void unlock() { service_.call<&IOsalVtbl::KxReleaseMutex>(handle_); }

    HANDLE handle() const { return handle_; }

  private:
    const Service service_;
    HANDLE handle_ = nullptr;
};

// A read/write lock that prefers writers, for std::shared_lock as well. Not recursive: a reader
// that locks again may wait for ever. A writer that locks again in either way gets an Error of
// code 0x1002, as does one reader too many.
class SharedMutex {
  public:
    explicit SharedMutex(const Service& service) : service_(service) {
        check(service_.call<&IOsalVtbl::KxAllocReadWriteLock>(&handle_));
    }
    ~SharedMutex() { service_.call<&IOsalVtbl::KxDestroyReadWriteLock>(handle_); }
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() { check(acquire<&IOsalVtbl::KxAcquireLockForWriteAccess>(TRUE)); }
    bool try_lock() { return succeeded(acquire<&IOsalVtbl::KxAcquireLockForWriteAccess>(FALSE)); }
    void unlock() { service_.call<&IOsalVtbl::KxReleaseReadWriteLock>(handle_); }

    void lock_shared() { check(acquire<&IOsalVtbl::KxAcquireLockForReadAccess>(TRUE)); }
    bool try_lock_shared() {
        return succeeded(acquire<&IOsalVtbl::KxAcquireLockForReadAccess>(FALSE));
    }
    void unlock_shared() { unlock(); }

    HANDLE handle() const { return handle_; }

  private:
    template <auto slot>
    KCSTATUS acquire(BOOLEAN wait) {
        return service_.call<slot>(handle_, wait);
    }
    static bool succeeded(KCSTATUS status) {
        if (KC_CODE(status) == KC_CODE_LOCK_NOT_ACQUIRED) return false;
        check(status);
        return true;
    }

    const Service service_;
    HANDLE handle_ = nullptr;
};

// A lock that keeps its owner's cancellation deferred, BasicLockable. It blocks rather than spins
// and is not recursive: a second lock() of its owner never returns.
//
// An owner whose cancellation was asynchronous before may be cancelled inside unlock(), with the
// lock free already. Such a thread must not leave unlock() to a destructor, std::lock_guard's
// included: cancellation inside a destructor ends the process.
class SpinLock {
  public:
    explicit SpinLock(const Service& service) : service_(service) {
        check(service_.call<&IOsalVtbl::KxAllocSpinLock>(&handle_));
    }
    ~SpinLock() { service_.call<&IOsalVtbl::KxDestroySpinLock>(handle_); }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

    void lock() {
        KCSPIN_STATE former;  // stored before the lock is waited for: not yet the owner's place
        check(service_.call<&IOsalVtbl::KxAcquireSpinLock>(handle_, &former));
        former_ = former;
    }
    // By the owner alone; not checked.
    void unlock() { service_.call<&IOsalVtbl::KxReleaseSpinLock>(handle_, former_); }

    HANDLE handle() const { return handle_; }

  private:
    const Service service_;
    HANDLE handle_ = nullptr;
    KCSPIN_STATE former_ = 0;  // the owner's
};

}  // namespace kx
