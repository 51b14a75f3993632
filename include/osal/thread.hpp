// Threads. See osal/thread.h.
//
//     kx::Thread thread(service, [&](int first) { return fill(first); }, 10);
//     thread.join();
//     if (kx::Status status = thread.exit_status(); status.is_error()) complain(status.text());
#pragma once

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <concepts>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>

#include "osal/cancellation.hpp"
#include "osal/interface.hpp"
#include "osal/thread.h"
#include "osal/timeout.hpp"

namespace kx {
namespace detail {

// Tells that a thread is gone: that it has left its routine and the library, however it did.
class Departure {
  public:
    void announce() {
        std::lock_guard lock(mutex_);
        gone_ = true;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return gone_; });
    }
    bool wait_for(std::chrono::microseconds time) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, time, [this] { return gone_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool gone_ = false;
};

// A thread-local one outlives every frame of its thread, but for those of the C library.
class AtThreadEnd {
  public:
    explicit AtThreadEnd(std::shared_ptr<Departure> departure) : departure_(std::move(departure)) {}
    ~AtThreadEnd() { departure_->announce(); }
    AtThreadEnd(const AtThreadEnd&) = delete;
    AtThreadEnd& operator=(const AtThreadEnd&) = delete;

  private:
    const std::shared_ptr<Departure> departure_;
};

// What a thread runs; made by its creator, ended on the thread.
template <class Callable, class... Arguments>
struct Task {
    IOsal* osal;  // kept by the Thread until the thread is gone
    std::shared_ptr<Departure> departure;
    std::tuple<Callable, Arguments...> call;

    KCSTATUS run() {
        using Result = std::invoke_result_t<Callable, Arguments...>;
        const auto invoke = [](auto&... parts) -> Result {
            return std::invoke(std::move(parts)...);
        };
        if constexpr (std::is_same_v<Result, KCSTATUS>) {
            return std::apply(invoke, call);
        } else if constexpr (std::is_same_v<Result, Status>) {
            return std::apply(invoke, call).value();
        } else {
            static_cast<void>(std::apply(invoke, call));
            return KC_OK;
        }
    }

    // Nothing is left to be destroyed when KxExitThread leaves these frames.
    static void* routine(HANDLE self, PVOID context) {
        IOsal* osal;
        KCSTATUS status;
        {
            const std::unique_ptr<Task> task(static_cast<Task*>(context));
            thread_local const AtThreadEnd end(task->departure);
            osal = task->osal;
            status = task->run();
        }
        osal->lpVtbl->KxExitThread(osal, self, status, FALSE);
        return nullptr;
    }
};

}  // namespace detail

// A thread that runs a callable with arguments, all moved or copied in as with std::thread. They
// are destroyed on the thread. An exception out of the callable ends the process by std::terminate.
//
// The thread is joined by its destructor at the latest: it counts, and needs the library's code,
// for as long as it runs, so a runtime could not be stopped behind a thread that was let go. A join
// returns when the thread is gone and its thread-local objects are destroyed, which is later than
// for those who wait for the handle. Joins are no cancellation points and never end early. A
// thread that joins itself waits for ever; that is not checked.
//
// A thread may also be cancelled, leave by pthread_exit, or call KxExitThread without destroying
// itself. After the first two a join starts a short-lived thread that makes up for what the
// library was not told; if that is refused, join() throws code 5 and may be tried again, and the
// destructor leaves the thread's record and its place in the library's count taken for good.
//
// One object is not to be used on several threads at a time.
class Thread {
  public:
    // Throws what KxCreateThread refuses: code 5 for too many threads, code 1 for no memory.
    template <class Callable, class... Arguments>
    requires std::invocable<std::decay_t<Callable>, std::decay_t<Arguments>...>
    explicit Thread(const Service& service, Callable&& callable, Arguments&&... arguments)
        : service_(service), departure_(std::make_shared<detail::Departure>()) {
        using Task = detail::Task<std::decay_t<Callable>, std::decay_t<Arguments>...>;
        std::unique_ptr<Task> task(
            new Task{service_.get(),
                     departure_,
                     {std::forward<Callable>(callable), std::forward<Arguments>(arguments)...}});
        check(service_.call<&IOsalVtbl::KxCreateThread>(
            KX_PRIORITY{KX_PRIORITY_NORMAL}, &Task::routine, PVOID{task.get()}, &handle_));
        static_cast<void>(task.release());  // the thread's
    }
    Thread(Thread&& other) noexcept
        : service_(std::move(other.service_)),
          departure_(std::move(other.departure_)),
          handle_(std::exchange(other.handle_, nullptr)),
          status_(other.status_) {}
    // Joins the thread that was here before.
    Thread& operator=(Thread other) noexcept {
        std::swap(service_, other.service_);
        std::swap(departure_, other.departure_);
        std::swap(handle_, other.handle_);
        std::swap(status_, other.status_);
        return *this;
    }
    ~Thread() {
        try {
            if (joinable()) join();
        } catch (const Error&) {
        }
    }

    // False once it was joined or moved away.
    bool joinable() const { return handle_ != nullptr; }

    // Throws code 3 if there is nothing to join.
    void join() {
        require(joinable(), KC_CODE_INVALID_HANDLE);
        const detail::Uncancelled uncancelled;
        departure_->wait();
        finish();
    }
    // False if the time expired first. Runs on the steady clock, for a century at most; a duration
    // of zero or less tests.
    template <class Rep, class Period>
    bool join_for(std::chrono::duration<Rep, Period> duration) {
        constexpr std::chrono::microseconds kCentury = std::chrono::years(100);
        require(joinable(), KC_CODE_INVALID_HANDLE);
        const detail::Uncancelled uncancelled;
        const std::chrono::microseconds time(to_timeout(duration));
        if (!departure_->wait_for(std::min(time, kCentury))) return false;
        finish();
        return true;
    }

    // What the callable returned, if that is a Status or KCSTATUS, else success; or what was given
    // to KxExitThread. An error of code 1 if the thread was cancelled or left by pthread_exit.
    // Throws code 0x1003 before the thread was joined.
    Status exit_status() const {
        require(!joinable(), KC_CODE_BUSY);
        return status_;
    }

    // Null once it was joined. Nobody else may destroy it.
    HANDLE handle() const { return handle_; }

  private:
    static constexpr KCSTATUS error(UINT32 code) {
        return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, code);
    }
    static void require(bool condition, UINT32 code) {
        if (!condition) throw Error(error(code));
    }

    bool destroy() { return !KC_IS_ERROR(service_.call<&IOsalVtbl::KxDestroyThread>(handle_)); }

    // The thread is gone.
    void finish() {
        status_ = service_.call<&IOsalVtbl::KxGetThreadExitStatus>(handle_);
        if (!destroy()) {
            status_ = error(KC_CODE_FAILED);
            exit_in_its_place();
            destroy();
        }
        handle_ = nullptr;
    }

    // Needs a thread, since KxExitThread ends its caller.
    void exit_in_its_place() {
        pthread_t thread;
        require(pthread_create(&thread, nullptr, &Thread::exit_for, this) == 0,
                KC_CODE_NO_RESOURCES);
        pthread_join(thread, nullptr);
    }
    static void* exit_for(void* self) {
        const auto* thread = static_cast<const Thread*>(self);
        thread->service_.call<&IOsalVtbl::KxExitThread>(thread->handle_, thread->status_.value(),
                                                        FALSE);
        return nullptr;
    }

    Service service_;
    std::shared_ptr<detail::Departure> departure_;
    HANDLE handle_ = nullptr;
    Status status_;
};

}  // namespace kx
