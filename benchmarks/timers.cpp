// Timers: what arming, cancelling and expiring cost while many others are pending.
//
// The library's timer thread is stopped, and the ticks are passed here, so that the sorting in and
// the firing are measured and not the sleep between two ticks.
//
// A timer that comes alone finds nothing of its place in the cache when many are pending. What that
// alone costs is shown beside it: a bare list whose place needs no finding.
#include <algorithm>
#include <random>

#include <pthread.h>
#include <time.h>

#include "harness.h"
#include "library.h"
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_UV
#include <uv.h>
#endif

// Internal names of the library that tests and debuggers may use.
OSAL_BEGIN_DECLS
extern BOOLEAN g_OsalTimerThreadExit;
extern INT32 g_OsalNumTimerThreads;
void OsalServiceTimerQueues(void);
OSAL_END_DECLS

namespace {

using bench::Contender;
using bench::Ns;

constexpr std::size_t kBatch = 1000;  // timers armed between two ticks
constexpr std::uint64_t kHourMs = 3'600'000;
constexpr std::uint64_t kTickMs = 10;

std::uint64_t fired = 0;

// Time-outs within two hours of each other, so far off that nothing that is pending comes due.
std::vector<std::uint64_t> far_timeouts_ms(std::size_t count, std::uint64_t least_ms = kHourMs,
                                           unsigned seed = 1) {
    std::mt19937_64 random(seed);
    std::vector<std::uint64_t> timeouts(count);
    for (std::uint64_t& timeout : timeouts)
        timeout = least_ms + random() % (2 * kHourMs);
    return timeouts;
}

const std::vector<std::uint64_t>& batch_timeouts() {
    static const auto timeouts = far_timeouts_ms(kBatch);
    return timeouts;
}

// The timers of one implementation. pending of them are armed for good, and a batch comes and goes.
class OsalTimers {
  public:
    static constexpr const char* kName = "timer services";
    OsalTimers(PIOsal osal, std::size_t pending, std::uint64_t least_ms = kHourMs)
        : osal_(osal), timers_(pending + kBatch) {
        for (HANDLE& timer : timers_)
            osal->lpVtbl->KxAllocTimer(osal, fire, nullptr, FALSE, &timer);
        const auto timeouts = far_timeouts_ms(pending, least_ms);
        for (std::size_t i = 0; i < pending; ++i)
            arm(kBatch + i, timeouts[i]);
        OsalServiceTimerQueues();
    }
    ~OsalTimers() {
        for (HANDLE timer : timers_) {
            osal_->lpVtbl->KxCancelTimer(osal_, timer);
            osal_->lpVtbl->KxDestroyTimer(osal_, timer);
        }
    }
    OsalTimers(const OsalTimers&) = delete;
    OsalTimers& operator=(const OsalTimers&) = delete;

    void arm(std::size_t timer, std::uint64_t timeout_ms) {
        osal_->lpVtbl->KxScheduleTimer(osal_, timers_[timer], timeout_ms * 1000);
    }
    void cancel(std::size_t timer) { osal_->lpVtbl->KxCancelTimer(osal_, timers_[timer]); }
    void pass_time() { OsalServiceTimerQueues(); }

  private:
    static void* fire(HANDLE, PVOID) {
        ++fired;
        return nullptr;
    }
    PIOsal osal_;
    std::vector<HANDLE> timers_;
};

#ifdef HAVE_UV
class UvTimers {
  public:
    static constexpr const char* kName = "libuv";
    UvTimers(PIOsal, std::size_t pending) : timers_(pending + kBatch) {
        uv_loop_init(&loop_);
        for (uv_timer_t& timer : timers_)
            uv_timer_init(&loop_, &timer);
        const auto timeouts = far_timeouts_ms(pending);
        for (std::size_t i = 0; i < pending; ++i)
            arm(kBatch + i, timeouts[i]);
    }
    ~UvTimers() {
        for (uv_timer_t& timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    UvTimers(const UvTimers&) = delete;
    UvTimers& operator=(const UvTimers&) = delete;

    void arm(std::size_t timer, std::uint64_t timeout_ms) {
        uv_timer_start(
            &timers_[timer], [](uv_timer_t*) { ++fired; }, timeout_ms, 0);
    }
    void cancel(std::size_t timer) { uv_timer_stop(&timers_[timer]); }
    void pass_time() { uv_run(&loop_, UV_RUN_NOWAIT); }

  private:
    uv_loop_t loop_;
    std::vector<uv_timer_t> timers_;
};
#endif

#ifdef HAVE_GLIB
class GlibTimers {
  public:
    static constexpr const char* kName = "GLib";
    GlibTimers(PIOsal, std::size_t pending) : timers_(pending + kBatch) {
        const auto timeouts = far_timeouts_ms(pending);
        for (std::size_t i = 0; i < pending; ++i)
            arm(kBatch + i, timeouts[i]);
    }
    ~GlibTimers() {
        for (std::size_t i = kBatch; i < timers_.size(); ++i)
            cancel(i);
        g_main_context_unref(context_);
    }
    GlibTimers(const GlibTimers&) = delete;
    GlibTimers& operator=(const GlibTimers&) = delete;

    void arm(std::size_t timer, std::uint64_t timeout_ms) {
        GSource* source = g_timeout_source_new(static_cast<guint>(timeout_ms));
        g_source_set_callback(source, fire, nullptr, nullptr);
        g_source_attach(source, context_);
        g_source_unref(source);
        timers_[timer] = source;
    }
    void cancel(std::size_t timer) { g_source_destroy(timers_[timer]); }
    void pass_time() { g_main_context_iteration(context_, FALSE); }

  private:
    static gboolean fire(void*) {
        ++fired;
        return G_SOURCE_REMOVE;
    }
    GMainContext* context_ = g_main_context_new();
    std::vector<GSource*> timers_;
};
#endif

// Whole batches, at least n operations' worth; the time is cut to n.
template <class Batch>
Contender by_batches(const char* name, Batch batch) {
    return {name, [batch](std::uint64_t n) {
                const std::uint64_t batches = (n + kBatch - 1) / kBatch;
                const Ns begin = bench::now();
                for (std::uint64_t i = 0; i < batches; ++i)
                    batch();
                const auto done = static_cast<double>(batches * kBatch);
                return (bench::now() - begin) * static_cast<double>(n) / done;
            }};
}

template <class Timers>
Contender arm_and_cancel(Timers& timers) {
    return by_batches(Timers::kName, [&timers] {
        for (std::size_t i = 0; i < kBatch; ++i)
            timers.arm(i, batch_timeouts()[i]);
        timers.pass_time();
        for (std::size_t i = 0; i < kBatch; ++i)
            timers.cancel(i);
    });
}

template <class Timers>
Contender arm_and_expire(Timers& timers) {
    return by_batches(Timers::kName, [&timers] {
        fired = 0;
        for (std::size_t i = 0; i < kBatch; ++i)
            timers.arm(i, 0);
        while (fired < kBatch)
            timers.pass_time();
    });
}

// GLib looks at each pending source whenever it looks at any; beyond this it only takes time.
constexpr std::size_t kMostForGlib = 10'000;

void race(bench::Report& report, PIOsal osal, std::size_t pending) {
    const std::string label = bench::count_name(pending);
    const auto x = static_cast<double>(pending);
    OsalTimers timers(osal, pending);
    std::vector<Contender> cancels = {arm_and_cancel(timers)};
    std::vector<Contender> expires = {arm_and_expire(timers)};
#ifdef HAVE_UV
    UvTimers uv(osal, pending);
    cancels.push_back(arm_and_cancel(uv));
    expires.push_back(arm_and_expire(uv));
#endif
#ifdef HAVE_GLIB
    GlibTimers glib(osal, pending <= kMostForGlib ? pending : 0);
    if (pending <= kMostForGlib) {
        cancels.push_back(arm_and_cancel(glib));
        expires.push_back(arm_and_expire(glib));
    }
#endif
    report.race("Arm, pass a tick, cancel", label, x, cancels, {.divide_rounds = 2});
    report.race("Arm and expire", label, x, expires, {.divide_rounds = 2});
}

constexpr std::uint64_t kMonthMs = 30 * 24 * kHourMs;
constexpr std::size_t kPlaces = 1 << 18;  // more than a cache holds

// One timer comes and goes in each tick, at another place among the pending ones each time.
class LoneTimer {
  public:
    LoneTimer(PIOsal osal, std::size_t pending) : timers_(osal, pending, kMonthMs) {}

    void come_and_go(std::uint64_t n) {
        for (; n != 0; --n) {
            timers_.arm(0, places_ms_[next_++ % kPlaces] - passed_ms_);
            timers_.pass_time();
            passed_ms_ += kTickMs;
            timers_.cancel(0);
        }
    }

  private:
    OsalTimers timers_;
    const std::vector<std::uint64_t> places_ms_ = far_timeouts_ms(kPlaces, kMonthMs, 2);
    std::uint64_t passed_ms_ = 0;
    std::size_t next_ = 0;
};

// The least that a list of such records can cost: an entry comes and goes behind a record that is
// known, but not before the entry before it has gone. The lock is taken as often as the services
// take theirs: to arm, to pass a tick and to cancel.
class BareList {
  public:
    BareList(PIOsal osal, std::size_t length) : osal_(osal), records_(length) {
        for (Record*& record : records_)
            record = new (osal->lpVtbl->KxAllocPagedMemory(osal, sizeof(Record))) Record{};
        std::mt19937_64 random(1);
        std::shuffle(records_.begin(), records_.end(), random);
        for (std::size_t i = 0; i < length; ++i)
            link(records_[i], records_[(i + 1) % length]);
        for (Record*& place : places_)
            place = records_[random() % length];
    }
    ~BareList() {
        for (Record* record : records_)
            osal_->lpVtbl->KxFreeMemory(osal_, record);
    }
    BareList(const BareList&) = delete;
    BareList& operator=(const BareList&) = delete;

    void come_and_go(std::uint64_t n) {
        Record entry{};
        for (std::size_t known = 0; n != 0; --n) {
            Record* before = places_[next_++ % kPlaces + known];
            locked([] {});
            locked([&] {
                link(&entry, before->next);
                link(before, &entry);
                entry.next->delta -= entry.delta;
            });
            locked([&] {
                link(before, entry.next);
                entry.next->delta += entry.delta;
            });
            known = entry.next->delta;  // zero, but that is only known once it is there
        }
    }

  private:
    struct Record {
        char front[40];
        Record *next, *previous;
        std::size_t delta;
        char back[192];
    };
    static void link(Record* before, Record* after) {
        before->next = after;
        after->previous = before;
    }
    template <class Work>
    void locked(Work work) {
        pthread_mutex_lock(&mutex_);
        work();
        pthread_mutex_unlock(&mutex_);
    }

    PIOsal osal_;
    std::vector<Record*> records_;
    std::vector<Record*> places_ = std::vector<Record*>(kPlaces);
    std::size_t next_ = 0;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

void race_alone(bench::Report& report, PIOsal osal, std::size_t pending) {
    BareList list(osal, pending);
    LoneTimer timer(osal, pending);
    report.race("One timer a tick: arm, pass the tick, cancel", bench::count_name(pending),
                static_cast<double>(pending),
                {{"bare list, place known", [&](std::uint64_t n) { list.come_and_go(n); }},
                 {"timer services", [&](std::uint64_t n) { timer.come_and_go(n); }}},
                {.divide_rounds = 2});
}

// A tick of many milliseconds is interrupted on any machine that has something else to do.
Ns processor_time() {
    timespec used;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<Ns>(used.tv_sec) * 1e9 + static_cast<Ns>(used.tv_nsec);
}

// The tick after many timers were armed at once; the operation is the whole tick.
void sort_in(bench::Report& report, PIOsal osal, std::size_t count) {
    std::vector<HANDLE> timers(count);
    for (HANDLE& timer : timers)
        osal->lpVtbl->KxAllocTimer(
            osal, [](HANDLE, PVOID) -> void* { return nullptr; }, nullptr, FALSE, &timer);
    const auto timeouts = far_timeouts_ms(count);
    report.race("The tick that sorts in just armed timers", bench::count_name(count),
                static_cast<double>(count),
                {{"timer services",
                  [&](std::uint64_t n) {
                      Ns sum = 0;
                      for (; n != 0; --n) {
                          for (std::size_t i = 0; i < count; ++i)
                              osal->lpVtbl->KxScheduleTimer(osal, timers[i], timeouts[i] * 1000);
                          const Ns begin = processor_time();
                          OsalServiceTimerQueues();
                          sum += processor_time() - begin;
                          for (HANDLE timer : timers)
                              osal->lpVtbl->KxCancelTimer(osal, timer);
                      }
                      return sum;
                  }}},
                {.fixed_count = 1, .divide_rounds = 4});
    for (HANDLE timer : timers)
        osal->lpVtbl->KxDestroyTimer(osal, timer);
}

void stop_timer_thread() {
    __atomic_store_n(&g_OsalTimerThreadExit, TRUE, __ATOMIC_RELEASE);
    while (__atomic_load_n(&g_OsalNumTimerThreads, __ATOMIC_ACQUIRE) != 0)
        sched_yield();
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"timers", "Timers", "one timer armed and cancelled, or expired",
                          "A thousand timers are armed between two ticks, whose cost is counted. "
                          "The first column is the library itself. GLib is left out above 10,000 "
                          "pending timers. A timer that comes alone in its tick is beside a bare "
                          "list of as many records, in which an entry comes and goes at a place "
                          "that needs no finding: what cannot be helped. The tick that sorts in is "
                          "in processor time.",
                          "timers pending"});
#ifndef HAVE_UV
    report.missing("libuv");
#endif
#ifndef HAVE_GLIB
    report.missing("GLib");
#endif
    bench::Library library;
    bench::Instance osal;
    stop_timer_thread();
    for (std::size_t pending : {1'000, 10'000, 100'000, 1'000'000})
        race(report, osal, pending);
    for (std::size_t pending : {1'000, 10'000, 100'000, 1'000'000})
        race_alone(report, osal, pending);
    for (std::size_t count : {1'000, 10'000, 100'000})
        sort_in(report, osal, count);
    return report.finish();
}
