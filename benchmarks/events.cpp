// Events against the same thing made of a mutex and a condition: the platform's, and those of other
// libraries. Waits for one of several events against poll over eventfds.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "library.h"
#include "peers.h"
#include "team.h"

namespace {

using bench::Contender;

// What the made-up events are made of: a mutex and a condition each.

struct Pthread {
    static constexpr const char* kName = "pthread";
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
    void wait() { pthread_cond_wait(&condition, &mutex); }
    void unlock_and_wake() {
        unlock();
        pthread_cond_signal(&condition);
    }
};

struct Standard {
    static constexpr const char* kName = "std";
    std::mutex mutex;
    std::condition_variable condition;
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void wait() {
        std::unique_lock<std::mutex> held(mutex, std::adopt_lock);
        condition.wait(held);
        held.release();
    }
    void unlock_and_wake() {
        unlock();
        condition.notify_one();
    }
};

#ifdef HAVE_GLIB
struct Glib {
    static constexpr const char* kName = "GLib";
    GMutex mutex{};
    GCond condition{};
    void lock() { g_mutex_lock(&mutex); }
    void unlock() { g_mutex_unlock(&mutex); }
    void wait() { g_cond_wait(&condition, &mutex); }
    void unlock_and_wake() {
        unlock();
        g_cond_signal(&condition);
    }
};
#endif

#ifdef HAVE_APR
struct Apr {
    static constexpr const char* kName = "APR";
    apr_pool_t* pool = nullptr;
    apr_thread_mutex_t* mutex = nullptr;
    apr_thread_cond_t* condition = nullptr;
    Apr() {
        apr_pool_create(&pool, nullptr);
        apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_DEFAULT, pool);
        apr_thread_cond_create(&condition, pool);
    }
    void lock() { apr_thread_mutex_lock(mutex); }
    void unlock() { apr_thread_mutex_unlock(mutex); }
    void wait() { apr_thread_cond_wait(condition, mutex); }
    void unlock_and_wake() {
        unlock();
        apr_thread_cond_signal(condition);
    }
};
#endif

#ifdef HAVE_NSPR
struct Nspr {
    static constexpr const char* kName = "NSPR";
    PRLock* mutex = PR_NewLock();
    PRCondVar* condition = PR_NewCondVar(mutex);
    void lock() { PR_Lock(mutex); }
    void unlock() { PR_Unlock(mutex); }
    void wait() { PR_WaitCondVar(condition, PR_INTERVAL_NO_TIMEOUT); }
    // Has to be told under the lock, and wakes when that is given back.
    void unlock_and_wake() {
        PR_NotifyCondVar(condition);
        unlock();
    }
};
#endif

#ifdef HAVE_ABSEIL
struct Abseil {
    static constexpr const char* kName = "Abseil";
    absl::Mutex mutex;
    absl::CondVar condition;
    void lock() { mutex.Lock(); }
    void unlock() { mutex.Unlock(); }
    void wait() { condition.Wait(&mutex); }
    void unlock_and_wake() {
        unlock();
        condition.Signal();
    }
};
#endif

// An event that releases one waiter and is reset by that.
template <class Parts>
class MadeUpEvent {
  public:
    static constexpr const char* kName = Parts::kName;
    explicit MadeUpEvent(PIOsal) {}
    void set() {
        parts_.lock();
        if (set_) return parts_.unlock();
        set_ = true;
        parts_.unlock_and_wake();
    }
    void reset() {
        parts_.lock();
        set_ = false;
        parts_.unlock();
    }
    void wait() {
        parts_.lock();
        while (!set_)
            parts_.wait();
        set_ = false;
        parts_.unlock();
    }

  private:
    Parts parts_;
    bool set_ = false;
};

// The same without a mutex: a word, and the kernel only for who sleeps.
class FutexEvent {
  public:
    static constexpr const char* kName = "futex";
    explicit FutexEvent(PIOsal) {}
    void set() {
        if (word_.exchange(kSet) == kSleeping) futex(FUTEX_WAKE_PRIVATE, 1);
    }
    void reset() { word_.exchange(kClear); }
    void wait() {
        std::uint32_t found = kSet;
        if (word_.compare_exchange_strong(found, kClear)) return;
        while (word_.exchange(kSleeping) != kSet)
            futex(FUTEX_WAIT_PRIVATE, kSleeping);
    }

  private:
    static constexpr std::uint32_t kClear = 0, kSet = 1, kSleeping = 2;
    void futex(int operation, std::uint32_t value) {
        syscall(SYS_futex, &word_, operation, value, nullptr, nullptr, 0);
    }
    std::atomic<std::uint32_t> word_{kClear};
};

class Event {
  public:
    static constexpr const char* kName = "event services";
    explicit Event(PIOsal osal, KX_EVENT_TYPE type = KxSynchronizationEvent) : osal_(osal) {
        osal->lpVtbl->KxAllocEvent(osal, type, &handle_);
    }
    ~Event() { osal_->lpVtbl->KxDestroyEvent(osal_, handle_); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set() { osal_->lpVtbl->KxSignalEvent(osal_, handle_, nullptr); }
    void reset() { osal_->lpVtbl->KxResetEvent(osal_, handle_, nullptr); }
    void wait() { osal_->lpVtbl->KxWaitForSingleEvent(osal_, handle_, -1); }
    HANDLE handle() const { return handle_; }

  private:
    PIOsal osal_;
    HANDLE handle_ = nullptr;
};

// A contender a kind of event.
template <template <class> class Make, class... Arguments>
std::vector<Contender> of_each_kind(Arguments&&... arguments) {
    std::vector<Contender> contenders;
    contenders.push_back(Make<MadeUpEvent<Pthread>>::make(arguments...));
    contenders.push_back(Make<Event>::make(arguments...));
    contenders.push_back(Make<FutexEvent>::make(arguments...));
    contenders.push_back(Make<MadeUpEvent<Standard>>::make(arguments...));
#ifdef HAVE_GLIB
    contenders.push_back(Make<MadeUpEvent<Glib>>::make(arguments...));
#endif
#ifdef HAVE_APR
    contenders.push_back(Make<MadeUpEvent<Apr>>::make(arguments...));
#endif
#ifdef HAVE_NSPR
    contenders.push_back(Make<MadeUpEvent<Nspr>>::make(arguments...));
#endif
#ifdef HAVE_ABSEIL
    contenders.push_back(Make<MadeUpEvent<Abseil>>::make(arguments...));
#endif
    return contenders;
}

template <class Kind>
struct SetReset {
    static Contender make(PIOsal osal) {
        return {Kind::kName, [event = std::make_shared<Kind>(osal)](std::uint64_t n) {
                    for (; n != 0; --n) {
                        event->set();
                        event->reset();
                    }
                }};
    }
};

template <class Kind>
struct SetWait {
    static Contender make(PIOsal osal) {
        return {Kind::kName, [event = std::make_shared<Kind>(osal)](std::uint64_t n) {
                    for (; n != 0; --n) {
                        event->set();
                        event->wait();
                    }
                }};
    }
};

// Each thread wakes the other one and waits to be woken.
template <class Kind>
struct PingPong {
    static Contender make(PIOsal osal, bench::Team& team) {
        auto ping = std::make_shared<Kind>(osal), pong = std::make_shared<Kind>(osal);
        return {Kind::kName, [ping, pong, &team](std::uint64_t n) {
                    return team.run([&](unsigned who) {
                        for (std::uint64_t left = n; left != 0; --left) {
                            if (who == 0) ping->set();
                            (who == 0 ? pong : ping)->wait();
                            if (who == 1) pong->set();
                        }
                    });
                }};
    }
};

class EventFds {
  public:
    explicit EventFds(UINT32 count) {
        for (UINT32 i = 0; i < count; ++i)
            polled_.push_back({eventfd(0, EFD_NONBLOCK), POLLIN, 0});
        eventfd_write(polled_.back().fd, 1);
    }
    ~EventFds() {
        for (const pollfd& one : polled_)
            close(one.fd);
    }
    EventFds(const EventFds&) = delete;
    EventFds& operator=(const EventFds&) = delete;
    void wait() { poll(polled_.data(), polled_.size(), -1); }

  private:
    std::vector<pollfd> polled_;
};

// The last of several events is set and stays so.
void wait_any(bench::Report& report, PIOsal osal, UINT32 count) {
    EventFds fds(count);
    std::vector<std::unique_ptr<Event>> events;
    std::vector<HANDLE> handles;
    for (UINT32 i = 0; i < count; ++i) {
        events.push_back(std::make_unique<Event>(osal, KxNotificationEvent));
        handles.push_back(events.back()->handle());
    }
    events.back()->set();
    report.race("Wait for any of several, the last being set", bench::count_name(count), count,
                {{"poll over eventfds",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          fds.wait();
                  }},
                 {"event services", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          osal->lpVtbl->KxWaitForMultipleEvents(osal, count, handles.data(), FALSE,
                                                                -1);
                  }}});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"events", "Events", "what the group says, once",
                          "The others are events made of a mutex, a condition and a flag, which "
                          "wake after unlocking and only if the flag was not set. A ping-pong is a "
                          "round trip between two threads.",
                          "events"});
    bench::use_peers(report);
    bench::Library library;
    bench::Instance osal;
    report.race("Set and reset", "nobody waits", 1, of_each_kind<SetReset>(PIOsal(osal)));
    report.race("Set and wait", "on one thread", 1, of_each_kind<SetWait>(PIOsal(osal)));
    for (UINT32 count : {2, 8, 64})
        wait_any(report, osal, count);
    bench::Team one_core(2, 1), two_cores(2);
    report.race("Ping-pong on one core", "round trip", 1,
                of_each_kind<PingPong>(PIOsal(osal), one_core));
    report.race("Ping-pong between two cores", "round trip", 1,
                of_each_kind<PingPong>(PIOsal(osal), two_cores));
    return report.finish();
}
