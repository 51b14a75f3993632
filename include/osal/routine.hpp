// What timers and work items share: a callable that the library runs on threads of its own, until
// its owner gives it up.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "osal/cancellation.hpp"
#include "osal/interface.hpp"

namespace kx::detail {

// Made with new by its owner, who ends with close(); freed by that, or by the last run if close()
// was called in one.
//
// mutex_ guards everything but service_, call_ and handle_, which do not change while there are
// runs. The callable runs without it.
class Routine {
  public:
    Routine(const Routine&) = delete;
    Routine& operator=(const Routine&) = delete;

    HANDLE handle() const { return handle_; }

    // For the library, with context() as context. A callable that throws ends the process.
    static void* enter(HANDLE, PVOID routine) noexcept {
        static_cast<Routine*>(routine)->run();
        return nullptr;
    }

    // From when this returns the callable does not run, but for a run that it was called in, and
    // will not be called again.
    void close() {
        const Uncancelled uncancelled;  // a wait that is cancelled would end the process
        std::unique_lock lock(mutex_);
        closing_ = true;
        give_up_waiting(lock);
        changed_.wait(lock, [this] { return !runs_elsewhere(); });
        if (waiting_ || runs_ != nullptr) {
            abandoned_ = true;
            return;
        }
        lock.unlock();
        dispose();
    }

  protected:
    // Code 4: no callable.
    Routine(const Service& service, std::function<void()> call)
        : service_(service), call_(std::move(call)) {
        if (!call_)
            throw Error(
                KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_INVALID_ARGUMENT));
    }
    virtual ~Routine() = default;

    PVOID context() { return static_cast<Routine*>(this); }
    bool runs_here() const { return find_run(true); }
    bool runs_elsewhere() const { return find_run(false); }

    // Ends what is waiting, if that can be done soon.
    virtual void give_up_waiting(std::unique_lock<std::mutex>& lock) = 0;
    virtual void after_run() = 0;
    virtual void destroy_handle() = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    const Service service_;
    const std::function<void()> call_;
    HANDLE handle_ = nullptr;
    bool waiting_ = false;  // the library is to call run() once more
    bool closing_ = false;

    // One for each run of the callable, on its stack.
    struct Run {
        std::thread::id thread;
        Run* next;
    };
    Run* runs_ = nullptr;

  private:
    bool find_run(bool here) const {
        for (const Run* run = runs_; run != nullptr; run = run->next)
            if ((run->thread == std::this_thread::get_id()) == here) return true;
        return false;
    }
    void run() {
        std::unique_lock lock(mutex_);
        waiting_ = false;
        if (!closing_) call(lock);
        changed_.notify_all();
        if (!abandoned_ || waiting_ || runs_ != nullptr) return;
        lock.unlock();
        dispose();
    }
    void call(std::unique_lock<std::mutex>& lock) {
        Run current = {std::this_thread::get_id(), runs_};
        runs_ = &current;
        lock.unlock();
        call_();
        lock.lock();
        Run** link = &runs_;
        while (*link != &current)
            link = &(*link)->next;
        *link = current.next;
        after_run();
    }
    void dispose() {
        destroy_handle();
        delete this;
    }

    bool abandoned_ = false;  // by its owner
};

// Gives a routine up at the end of a scope.
struct CloseRoutine {
    void operator()(Routine* routine) const { routine->close(); }
};

}  // namespace kx::detail
