// Fixture of tests of events, and a hand on the condition waits that osal.so makes.
#pragma once

#include <deque>
#include <initializer_list>
#include <vector>

#include "osal/event.h"
#include "osal/internal/atomics.h"
#include "osal/linux/internal/event.h"
#include "support/recorders.h"
#include "support/service_test.h"
#include "support/threads.h"

namespace osal_test {

constexpr KCSTATUS kWaitTimedOut = 0xC7F1000A;
constexpr KX_EVENT_TYPE kBothTypes[] = {KxSynchronizationEvent, KxNotificationEvent};

inline osal::Event* event_behind(HANDLE handle) {
    return static_cast<osal::Event*>(handle);
}

inline bool is_signalled(HANDLE handle) {
    return osal::is_signalled(event_behind(handle));
}

// Registrations of waits for several events on one event.
inline std::size_t registrations(HANDLE handle) NO_THREAD_SAFETY_ANALYSIS {
    osal::Event* event = event_behind(handle);
    pthread_mutex_lock(&event->mutex.native);
    const std::size_t length = length_of(event->multiWaitList);
    pthread_mutex_unlock(&event->mutex.native);
    return length;
}

// Threads that sleep on one event, and registrations on it.
inline UINT32 listeners(HANDLE handle) NO_THREAD_SAFETY_ANALYSIS {
    osal::Event* event = event_behind(handle);
    pthread_mutex_lock(&event->mutex.native);
    const UINT32 count = event->listeners;
    pthread_mutex_unlock(&event->mutex.native);
    return count;
}

inline bool mutex_is_free(HANDLE handle) {
    pthread_mutex_t* native = &event_behind(handle)->mutex.native;
    return elsewhere([native] {
        if (pthread_mutex_trylock(native) != 0) return false;
        pthread_mutex_unlock(native);
        return true;
    });
}

// Takes the place of the condition waits of the thread that makes it; those of other threads go on
// as ever. The body gets the condition's mutex locked, as the platform does; no deadline stands for
// a wait without limit. One object at a time on a thread.
class ConditionWaits {
  public:
    using Body = std::function<int(pthread_mutex_t*, const timespec*)>;

    explicit ConditionWaits(Body body) : body_(std::move(body)) {
        current_ = this;
        untimed_.emplace("osal.so", "pthread_cond_wait", &ConditionWaits::wait);
        timed_.emplace("osal.so", "pthread_cond_timedwait", &ConditionWaits::timed_wait);
    }
    ~ConditionWaits() {
        timed_.reset();
        untimed_.reset();
        current_ = nullptr;
    }
    int count() const { return count_; }

  private:
    static int wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
        if (current_ == nullptr) return pthread_cond_wait(condition, mutex);
        ++current_->count_;
        return current_->body_(mutex, nullptr);
    }
    static int timed_wait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                          const timespec* deadline) {
        if (current_ == nullptr) return pthread_cond_timedwait(condition, mutex, deadline);
        ++current_->count_;
        return current_->body_(mutex, deadline);
    }

    // The thread's own: workers on their way to sleep come by here as well.
    static inline thread_local ConditionWaits* current_ = nullptr;
    Body body_;
    int count_ = 0;
    std::optional<Interpose> untimed_;
    std::optional<Interpose> timed_;
};

// Does something in the middle of a condition wait, with its mutex free.
template <class Function>
void unlocked(pthread_mutex_t* mutex, Function function) {
    pthread_mutex_unlock(mutex);
    function();
    pthread_mutex_lock(mutex);
}

// Destroys its events at the end; by then every registration must have been given back.
class EventTest : public BothWays {
  protected:
    ~EventTest() override {
        for (HANDLE handle : handles_) {
            EXPECT_EQ(registrations(handle), 0u);
            EXPECT_EQ(CALL(KxDestroyEvent)(osal, handle), KC_OK);
        }
        EXPECT_EQ(record->EventInUse, 0u);
        EXPECT_EQ(record->MemoryPagedInUse, 0u) << "registrations";
    }

    HANDLE make(KX_EVENT_TYPE type, bool signalled = false) {
        HANDLE handle = nullptr;
        EXPECT_EQ(CALL(KxAllocEvent)(osal, type, &handle), KC_OK);
        if (signalled) signal(handle);
        handles_.push_back(handle);
        return handle;
    }
    std::vector<HANDLE> make_all(std::initializer_list<KX_EVENT_TYPE> types) {
        std::vector<HANDLE> handles;
        for (KX_EVENT_TYPE type : types)
            handles.push_back(make(type));
        return handles;
    }
    // Takes a handle off the list of those to be destroyed.
    HANDLE let_go(HANDLE handle) {
        std::erase(handles_, handle);
        return handle;
    }

    void signal(HANDLE handle) { EXPECT_EQ(CALL(KxSignalEvent)(osal, handle, nullptr), KC_OK); }
    KCSTATUS wait(HANDLE handle, INT64 timeout) {
        return CALL(KxWaitForSingleEvent)(osal, handle, timeout);
    }
    KCSTATUS wait_any(std::vector<HANDLE> handles, INT64 timeout) {
        return wait_several(handles, FALSE, timeout);
    }
    KCSTATUS wait_all(std::vector<HANDLE> handles, INT64 timeout) {
        return wait_several(handles, TRUE, timeout);
    }
    KCSTATUS wait_several(std::vector<HANDLE>& handles, BOOLEAN all, INT64 timeout) {
        return CALL(KxWaitForMultipleEvents)(osal, static_cast<UINT32>(handles.size()),
                                             handles.data(), all, timeout);
    }

  private:
    std::vector<HANDLE> handles_;
};

}  // namespace osal_test
