// Events, and waits for one or several of them. See osal/event.h.
//
//     kx::Event work(service), stop(service, kx::Reset::manual);
//     kx::EventSet either{&work, &stop};
//     while (either.wait_any() == 0)
//         do_what_there_is();  // perhaps nothing
//
// A wait may return without a reason: another waiter was faster, or a reset was. Whoever waits for
// work checks for himself that there is some.
//
// All waits are cancellation points while they sleep. Time-outs run on the realtime clock, whose
// steps move them; see osal/timeout.hpp for their range. A wait that the platform refuses is
// thrown, with code 1.
#pragma once

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <span>
#include <vector>

#include "osal/event.h"
#include "osal/interface.hpp"
#include "osal/timeout.hpp"

namespace kx {

// Whether the wait that a signal ends resets the event, or only Event::reset() does. A manual event
// releases all waiters.
enum class Reset : KX_EVENT_TYPE {
    automatic = KxSynchronizationEvent,
    manual = KxNotificationEvent
};

namespace detail {

// What a wait returned: false for a time-out. Results up to the last index are successes; what is
// neither that nor an error says that the platform refused the wait.
inline bool ended_before_timeout(KCSTATUS status, std::size_t last_index) {
    if (KC_IS_ERROR(status) && KC_CODE(status) == KC_CODE_TIMED_OUT) return false;
    if (check(status) <= last_index) return true;
    throw Error(KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_FAILED));
}

}  // namespace detail

// An event, not signalled at first. Safe on any thread; destroyed once nobody uses it any more.
class Event {
  public:
    explicit Event(const Service& service, Reset reset = Reset::automatic) : service_(service) {
        check(service_.call<&IOsalVtbl::KxAllocEvent>(static_cast<KX_EVENT_TYPE>(reset), &handle_));
    }
    ~Event() { service_.call<&IOsalVtbl::KxDestroyEvent>(handle_); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    // True if the event was signalled already: signals are not counted.
    bool signal() {
        BOOLEAN former;
        check(service_.call<&IOsalVtbl::KxSignalEvent>(handle_, &former));
        return former != FALSE;
    }
    // True if the event was signalled.
    bool reset() {
        BOOLEAN former;
        check(service_.call<&IOsalVtbl::KxResetEvent>(handle_, &former));
        return former != FALSE;
    }

    void wait() { wait_within(KX_WAIT_FOREVER); }
    // False if the time expired. A duration of zero or less tests the event.
    template <class Rep, class Period>
    bool wait_for(std::chrono::duration<Rep, Period> duration) {
        return wait_within(to_timeout(duration));
    }

    HANDLE handle() const { return handle_; }
    const Service& service() const { return service_; }

  private:
    bool wait_within(INT64 timeout) {
        const KCSTATUS status = service_.call<&IOsalVtbl::KxWaitForSingleEvent>(handle_, timeout);
        return detail::ended_before_timeout(status, 0);
    }

    const Service service_;
    HANDLE handle_ = nullptr;
};

// Events that are waited for together, by their indexes. Refers to them: they have to live as long.
// Making a set allocates, waiting takes what the library needs of the paged pool of the first
// event's instance. A thread that is cancelled while it waits leaves that taken. Waits on several
// threads do not disturb each other. Throws code 4 for an empty set.
class EventSet {
  public:
    EventSet(std::initializer_list<Event*> events)
        : EventSet(std::span(events.begin(), events.size())) {}
    explicit EventSet(std::span<Event* const> events) : service_(service_of(events)) {
        handles_.reserve(events.size());
        for (const Event* event : events)
            handles_.push_back(event->handle());
    }

    // The index of a signalled event, the lowest at entry, which is reset if it is automatic; or 0
    // for no reason. If several are found signalled after a sleep, all automatic ones of them are
    // reset, though one index is returned.
    std::size_t wait_any() { return *any_within(KX_WAIT_FOREVER); }

    // Nothing if the time expired. An automatic event that is signalled in that very moment may be
    // reset all the same. A duration of zero or less tests the events one after the other, and
    // resets the one that it returns only.
    template <class Rep, class Period>
    std::optional<std::size_t> wait_any_for(std::chrono::duration<Rep, Period> duration) {
        const INT64 timeout = to_timeout(duration);
        return timeout == 0 ? test_any() : any_within(timeout);
    }

    // Waits until each event was found signalled once, not all at the same time. Automatic ones are
    // reset as they are found.
    void wait_all() { all_within(KX_WAIT_FOREVER); }

    // False if the time expired; the events that were found signalled before stay reset. The time
    // starts anew with each event that is signalled meanwhile, and is a microsecond at least.
    template <class Rep, class Period>
    bool wait_all_for(std::chrono::duration<Rep, Period> duration) {
        const INT64 timeout = to_timeout(duration);
        return all_within(timeout == 0 ? 1 : timeout);  // a poll would not say whether it succeeded
    }

    std::size_t size() const { return handles_.size(); }

  private:
    static const Service& service_of(std::span<Event* const> events) {
        if (events.empty())
            throw Error(
                KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_INVALID_ARGUMENT));
        return events.front()->service();
    }

    KCSTATUS wait(BOOLEAN all, INT64 timeout) {
        return service_.call<&IOsalVtbl::KxWaitForMultipleEvents>(
            static_cast<UINT32>(handles_.size()), handles_.data(), all, timeout);
    }
    std::optional<std::size_t> any_within(INT64 timeout) {
        const KCSTATUS status = wait(FALSE, timeout);
        if (!detail::ended_before_timeout(status, size() - 1)) return std::nullopt;
        return status;
    }
    bool all_within(INT64 timeout) { return detail::ended_before_timeout(wait(TRUE, timeout), 0); }

    std::optional<std::size_t> test_any() {
        for (std::size_t i = 0; i < size(); ++i)
            if (detail::ended_before_timeout(
                    service_.call<&IOsalVtbl::KxWaitForSingleEvent>(handles_[i], INT64{0}), 0))
                return i;
        return std::nullopt;
    }

    Service service_;
    std::vector<HANDLE> handles_;
};

}  // namespace kx
