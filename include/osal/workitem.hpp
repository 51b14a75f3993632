// Work items that own their callable and end with their scope.
//
//     kx::WorkItem item(service, [&] { result = compute(); });
//     item.schedule();
//     item.wait();
//
// The callable runs on one of the library's workers, as osal/workitem.h describes, and must keep to
// what is said there of routines; if it throws, the process ends (std::terminate). It may queue its
// item again, when it may run on a second worker beside itself, and destroy it. All functions but
// the destructor are safe on any thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "osal/interface.hpp"
#include "osal/routine.hpp"
#include "osal/workitem.h"

namespace kx {

namespace detail {

class WorkItemRoutine : public Routine {
  public:
    WorkItemRoutine(const Service& service, std::function<void()> call)
        : Routine(service, std::move(call)) {
        check(service_.call<&IOsalVtbl::KxAllocWorkItem>(&Routine::enter, context(), &handle_));
    }

    bool schedule() {
        const std::lock_guard lock(mutex_);
        if (closing_ || waiting_) return false;
        check(service_.call<&IOsalVtbl::KxScheduleWorkItem>(handle_,
                                                            KX_PRIORITY{KX_PRIORITY_NORMAL}));
        waiting_ = true;
        return true;
    }
    bool queued() const {
        const std::lock_guard lock(mutex_);
        return waiting_;
    }
    void wait() {
        const Uncancelled uncancelled;
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !waiting_ && !runs_elsewhere(); });
    }

  private:
    // The library takes nothing out of its queue. In a run of its own the item does not wait for
    // its turn, which takes another worker.
    void give_up_waiting(std::unique_lock<std::mutex>& lock) override {
        if (!runs_here()) changed_.wait(lock, [this] { return !waiting_; });
    }
    void after_run() override {}
    void destroy_handle() override { service_.call<&IOsalVtbl::KxDestroyWorkItem>(handle_); }
};

}  // namespace detail

class WorkItem {
  public:
    // Code 4: no callable. Code 5: no memory.
    WorkItem(const Service& service, std::function<void()> call)
        : routine_(new detail::WorkItemRoutine(service, std::move(call))) {}

    // Waits for runs of the callable on other threads, and if the item is queued for a worker to
    // come to it, who does not call the callable any more: what that uses may go as soon as this
    // returns. So its owner must not hold a lock that the callable takes; and where the owner is
    // another item's callable, that keeps a worker busy with waiting for one. Called from within
    // the item's own callable, waits for other runs only, and the callable itself goes when it
    // returns and a worker has come to the item if it was queued again. Not a cancellation point.
    ~WorkItem() = default;

    // Queues the item: the callable runs once. False: queued already and not begun, nothing
    // changes.
    bool schedule() { return routine_->schedule(); }
    // Whether it is queued and has not begun.
    bool queued() const { return routine_->queued(); }
    // Waits until the item is not queued and its callable not running, but for a run that this is
    // called in. Not a cancellation point.
    void wait() { routine_->wait(); }

    // For services that the face does not cover, which must not queue or destroy it.
    HANDLE handle() const { return routine_->handle(); }

  private:
    const std::unique_ptr<detail::WorkItemRoutine, detail::CloseRoutine> routine_;
};

}  // namespace kx
