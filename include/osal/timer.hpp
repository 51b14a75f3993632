// Timers that own their callable and end with their scope.
//
//     kx::Timer timer(service, [&] {
//         poll();
//         timer.schedule(std::chrono::milliseconds(50));  // once more, when this returns
//     });
//     timer.schedule(std::chrono::milliseconds(50));
//
// The callable runs on the library's timer thread, in the ticks that osal/timer.h describes, and
// must keep to what is said there of routines; if it throws, the process ends (std::terminate). It
// may arm and cancel its timer, and destroy it. All functions but the destructor are safe on any
// thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "osal/interface.hpp"
#include "osal/routine.hpp"
#include "osal/timeout.hpp"
#include "osal/timer.h"

namespace kx {

namespace detail {

// The library's timer is not armed while the callable runs, since it could not be cancelled then:
// what is armed meanwhile waits in again_ for the end of the run.
class TimerRoutine : public Routine {
  public:
    TimerRoutine(const Service& service, std::function<void()> call)
        : Routine(service, std::move(call)) {
        check(service_.call<&IOsalVtbl::KxAllocTimer>(&Routine::enter, context(), FALSE, &handle_));
    }

    bool schedule(UINT64 delay_us) {
        const std::lock_guard lock(mutex_);
        if (closing_ || is_armed()) return false;
        if (runs_ != nullptr)
            again_ = delay_us;
        else
            arm(delay_us);
        return true;
    }
    bool cancel() {
        std::unique_lock lock(mutex_);
        if (!again_) return withdraw(lock);
        again_.reset();
        return true;
    }
    bool armed() const {
        const std::lock_guard lock(mutex_);
        return is_armed();
    }

  private:
    bool is_armed() const { return waiting_ || again_; }
    void arm(UINT64 delay_us) {
        check(service_.call<&IOsalVtbl::KxScheduleTimer>(handle_, delay_us));
        waiting_ = true;
    }
    // True if a run was waited for and will not come. The library refuses while it is about to run
    // this routine or has not quite left it.
    bool withdraw(std::unique_lock<std::mutex>& lock) {
        while (waiting_) {
            if (service_.call<&IOsalVtbl::KxCancelTimer>(handle_)) {
                waiting_ = false;
                return true;
            }
            const Uncancelled uncancelled;  // as in close()
            changed_.wait_for(lock, std::chrono::milliseconds(1));
        }
        return false;
    }
    void give_up_waiting(std::unique_lock<std::mutex>& lock) override {
        again_.reset();
        withdraw(lock);
    }
    void after_run() override {
        if (again_) arm(*std::exchange(again_, std::nullopt));
    }
    void destroy_handle() override { service_.call<&IOsalVtbl::KxDestroyTimer>(handle_); }

    std::optional<UINT64> again_;
};

}  // namespace detail

class Timer {
  public:
    // Code 4: no callable. Code 5: no memory.
    Timer(const Service& service, std::function<void()> call)
        : routine_(new detail::TimerRoutine(service, std::move(call))) {}

    // Cancels the timer, and waits for the callable if it is running on the timer thread: what it
    // uses may go as soon as this returns. So its owner must not hold a lock that it takes. Called
    // from within the callable, does not wait, and the callable itself goes when it returns. Not a
    // cancellation point.
    ~Timer() = default;

    // Arms the timer: the callable runs once, after the delay; while it is running, the delay
    // counts from when it returns. A delay of more than the 497 days that fit is cut to them.
    // False: armed already, nothing changes.
    template <class Rep, class Period>
    bool schedule(std::chrono::duration<Rep, Period> delay) {
        const auto delay_us = static_cast<UINT64>(to_timeout(delay));
        return routine_->schedule(std::min(delay_us, kLongest_us));
    }
    // True if the timer was armed and the callable will not run for that. False if it was not, or
    // the callable is running or just about to.
    bool cancel() { return routine_->cancel(); }
    // Whether the callable is still to run.
    bool armed() const { return routine_->armed(); }

    // For services that the face does not cover, which must not arm, cancel or destroy it.
    HANDLE handle() const { return routine_->handle(); }

  private:
    static constexpr UINT64 kLongest_us = UINT64{0xFFFFFFFF} * 10'000;  // ticks

    const std::unique_ptr<detail::TimerRoutine, detail::CloseRoutine> routine_;
};

}  // namespace kx
