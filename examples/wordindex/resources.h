// Handles of the library that give themselves back.
#pragma once

#include <atomic>

#include "client.h"

namespace wordindex {

// A handle that a service made, and the service that destroys it.
template <auto Destroy>
class Owned {
  public:
    ~Owned() { client.call<Destroy>(handle); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

  protected:
    explicit Owned(const Client& owner) : client(owner) {}
    // Passes on the status of the service that makes the handle.
    void made(KCSTATUS status, const char* what) const {
        if (KC_IS_ERROR(status)) throw failure(std::string("cannot make ") + what, status);
    }

    const Client& client;
    HANDLE handle = nullptr;
};

// Stays signalled once it was. Asked again and again: the library has no events yet.
class Event {
  public:
    explicit Event(const Client& owner) : client_(owner) {}
    void signal() { signalled_ = true; }
    void wait() const {
        while (!signalled_)
            client_.call<&IOsalVtbl::KxSleep>(kPoll_us);
    }

  private:
    static constexpr UINT64 kPoll_us = 1000;
    const Client& client_;
    std::atomic<bool> signalled_ = false;
};

class ReadWriteLock : Owned<&IOsalVtbl::KxDestroyReadWriteLock> {
  public:
    explicit ReadWriteLock(const Client& owner) : Owned(owner) {
        made(client.call<&IOsalVtbl::KxAllocReadWriteLock>(&handle), "a read/write lock");
    }
    void acquire_read() { client.call<&IOsalVtbl::KxAcquireLockForReadAccess>(handle, TRUE); }
    void acquire_write() { client.call<&IOsalVtbl::KxAcquireLockForWriteAccess>(handle, TRUE); }
    void release() { client.call<&IOsalVtbl::KxReleaseReadWriteLock>(handle); }
};

template <void (ReadWriteLock::*Acquire)()>
class Access {
  public:
    explicit Access(ReadWriteLock& lock) : lock_(lock) { (lock_.*Acquire)(); }
    ~Access() { lock_.release(); }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

  private:
    ReadWriteLock& lock_;
};
using ReadAccess = Access<&ReadWriteLock::acquire_read>;
using WriteAccess = Access<&ReadWriteLock::acquire_write>;

// Must not go while it is queued.
class WorkItem : Owned<&IOsalVtbl::KxDestroyWorkItem> {
  public:
    WorkItem(const Client& owner, PKX_WORK_ITEM_ROUTINE routine, void* context) : Owned(owner) {
        made(client.call<&IOsalVtbl::KxAllocWorkItem>(routine, context, &handle), "a work item");
    }
    void schedule() const {
        client.call<&IOsalVtbl::KxScheduleWorkItem>(handle, UINT32{KX_PRIORITY_NORMAL});
    }
};

// Must not go while it is armed.
class Timer : Owned<&IOsalVtbl::KxDestroyTimer> {
  public:
    Timer(const Client& owner, PKX_TIMER_ROUTINE routine, void* context) : Owned(owner) {
        made(client.call<&IOsalVtbl::KxAllocTimer>(routine, context, FALSE, &handle), "a timer");
    }
    void arm(UINT64 interval_us) const {
        client.call<&IOsalVtbl::KxScheduleTimer>(handle, interval_us);
    }
    // False if the routine is running or still to run.
    bool cancel() const { return client.call<&IOsalVtbl::KxCancelTimer>(handle) != FALSE; }
};

}  // namespace wordindex
