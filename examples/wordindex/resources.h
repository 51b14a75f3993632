// Handles of the library that give themselves back.
#pragma once

#include "client.h"

namespace wordindex {

// A handle that a service made, and the service that destroys it.
template <auto Destroy>
class Owned {
  public:
    ~Owned() {
        if (handle != nullptr) client.call<Destroy>(handle);
    }
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

// Something that happens once. Whoever waited for it may destroy it at once: it counts as signalled
// only when the lock tells that nobody is still signalling.
class Event : Owned<&IOsalVtbl::KxDestroyEvent> {
  public:
    explicit Event(const Client& owner) : Owned(owner), lock_(owner) {
        made(client.call<&IOsalVtbl::KxAllocEvent>(KX_EVENT_TYPE{KxNotificationEvent}, &handle),
             "an event");
    }
    void signal() {
        WriteAccess access(lock_);
        signalled_ = true;
        client.call<&IOsalVtbl::KxSignalEvent>(handle, static_cast<BOOLEAN*>(nullptr));
    }
    // A wait may end early, so it proves nothing by itself.
    void wait() {
        do
            client.call<&IOsalVtbl::KxWaitForSingleEvent>(handle, KX_WAIT_FOREVER);
        while (!is_signalled());
    }

  private:
    bool is_signalled() {
        ReadAccess access(lock_);
        return signalled_;
    }

    ReadWriteLock lock_;  // guards what follows
    bool signalled_ = false;
};

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
