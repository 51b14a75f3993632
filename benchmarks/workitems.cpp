// Work items against other libraries' thread pools: many tiny items, and one on an idle pool.
//
// Each pool has the eight workers that the library's has. What a pool wants of its user is done as
// that pool documents it: kept records for the work items and libuv, one push a call for the
// others.
#include <atomic>
#include <memory>
#include <thread>

#include "harness.h"
#include "library.h"
#ifdef HAVE_APRUTIL
#include <apr_general.h>
#include <apr_thread_pool.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_TBB
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#endif
#ifdef HAVE_UV
#include <uv.h>
#endif

namespace {

using bench::Contender;
using bench::Ns;

constexpr unsigned kWorkers = 8;

// What every routine does.
std::atomic<std::uint64_t> left{0};
std::atomic<Ns> ran_at{0};

void count_one() {
    if (left.fetch_sub(1, std::memory_order_acq_rel) == 1) left.notify_one();
}
void run_one() {
    ran_at.store(bench::now(), std::memory_order_relaxed);
    count_one();
}

// Asleep, so that the workers have the cores to themselves.
void wait_for_all() {
    for (std::uint64_t now; (now = left.load(std::memory_order_acquire)) != 0;)
        left.wait(now);
}

// A pool under test: queues n items that call the routine given at its making.
struct Pool {
    virtual ~Pool() = default;
    virtual void push(std::uint64_t n) = 0;
    virtual void finish() {}  // what has to be done for the items to be over
};

class OsalPool : public Pool {
  public:
    OsalPool(PIOsal osal, std::uint64_t most, void (*work)()) : osal_(osal), items_(most) {
        for (HANDLE& item : items_)
            osal->lpVtbl->KxAllocWorkItem(osal, routine, reinterpret_cast<void*>(work), &item);
    }
    ~OsalPool() override {
        for (HANDLE item : items_)
            osal_->lpVtbl->KxDestroyWorkItem(osal_, item);
    }
    void push(std::uint64_t n) override {
        for (std::uint64_t i = 0; i < n; ++i)
            osal_->lpVtbl->KxScheduleWorkItem(osal_, items_[i], KX_PRIORITY_NORMAL);
    }

  private:
    static void* routine(HANDLE, PVOID context) {
        reinterpret_cast<void (*)()>(context)();
        return nullptr;
    }
    PIOsal osal_;
    std::vector<HANDLE> items_;
};

#ifdef HAVE_GLIB
class GlibPool : public Pool {
  public:
    GlibPool() { pool_ = g_thread_pool_new(routine, nullptr, kWorkers, TRUE, nullptr); }
    ~GlibPool() override { g_thread_pool_free(pool_, FALSE, TRUE); }
    explicit GlibPool(void (*work)()) : GlibPool() { work_ = work; }
    void push(std::uint64_t n) override {
        for (; n != 0; --n)
            g_thread_pool_push(pool_, reinterpret_cast<void*>(work_), nullptr);
    }

  private:
    static void routine(void* work, void*) { reinterpret_cast<void (*)()>(work)(); }
    GThreadPool* pool_;
    void (*work_)() = nullptr;
};
#endif

#ifdef HAVE_UV
class UvPool : public Pool {
  public:
    UvPool(std::uint64_t most, void (*work)()) : requests_(most) {
        uv_loop_init(&loop_);
        for (uv_work_t& request : requests_)
            request.data = reinterpret_cast<void*>(work);
    }
    ~UvPool() override { uv_loop_close(&loop_); }
    void push(std::uint64_t n) override {
        for (std::uint64_t i = 0; i < n; ++i)
            uv_queue_work(&loop_, &requests_[i], routine, [](uv_work_t*, int) {});
    }
    void finish() override { uv_run(&loop_, UV_RUN_DEFAULT); }

  private:
    static void routine(uv_work_t* request) { reinterpret_cast<void (*)()>(request->data)(); }
    uv_loop_t loop_;
    std::vector<uv_work_t> requests_;
};
#endif

#ifdef HAVE_APRUTIL
class AprPool : public Pool {
  public:
    explicit AprPool(void (*work)()) : work_(work) {
        apr_pool_create(&memory_, nullptr);
        apr_thread_pool_create(&pool_, kWorkers, kWorkers, memory_);
    }
    ~AprPool() override {
        apr_thread_pool_destroy(pool_);
        apr_pool_destroy(memory_);
    }
    void push(std::uint64_t n) override {
        for (; n != 0; --n)
            apr_thread_pool_push(pool_, routine, reinterpret_cast<void*>(work_),
                                 APR_THREAD_TASK_PRIORITY_NORMAL, nullptr);
    }

  private:
    static void* APR_THREAD_FUNC routine(apr_thread_t*, void* work) {
        reinterpret_cast<void (*)()>(work)();
        return nullptr;
    }
    apr_pool_t* memory_ = nullptr;
    apr_thread_pool_t* pool_ = nullptr;
    void (*work_)();
};
#endif

#ifdef HAVE_TBB
class TbbPool : public Pool {
  public:
    explicit TbbPool(void (*work)()) : arena_(kWorkers + 1), work_(work) {}
    void push(std::uint64_t n) override {
        for (; n != 0; --n)
            arena_.enqueue(work_);
    }

  private:
    tbb::global_control limit_{tbb::global_control::max_allowed_parallelism, kWorkers + 1};
    tbb::task_arena arena_;
    void (*work_)();
};
#endif

using Pools = std::vector<std::pair<std::string, std::shared_ptr<Pool>>>;

Pools make_pools(PIOsal osal, std::uint64_t most, void (*work)()) {
    Pools pools;
    pools.emplace_back("work items", std::make_shared<OsalPool>(osal, most, work));
#ifdef HAVE_GLIB
    pools.emplace_back("GThreadPool", std::make_shared<GlibPool>(work));
#endif
#ifdef HAVE_UV
    pools.emplace_back("libuv", std::make_shared<UvPool>(most, work));
#endif
#ifdef HAVE_APRUTIL
    pools.emplace_back("apr_thread_pool", std::make_shared<AprPool>(work));
#endif
#ifdef HAVE_TBB
    pools.emplace_back("TBB", std::make_shared<TbbPool>(work));
#endif
    return pools;
}

// From the first push until the last item has run.
void throughput(bench::Report& report, PIOsal osal, std::uint64_t items) {
    std::vector<Contender> contenders;
    for (const auto& [name, pool] : make_pools(osal, items, count_one))
        contenders.emplace_back(name, [pool](std::uint64_t n) {
            left.store(n);
            pool->push(n);
            pool->finish();
            wait_for_all();
        });
    report.race("Throughput, tiny items", bench::count_name(items), static_cast<double>(items),
                contenders, {.fixed_count = items, .divide_rounds = items > 100'000 ? 8 : 2});
}

// From the push until the routine runs, with every worker asleep.
void latency(bench::Report& report, PIOsal osal) {
    std::vector<Contender> contenders;
    for (const auto& [name, pool] : make_pools(osal, 1, run_one))
        contenders.emplace_back(name, [pool](std::uint64_t n) {
            Ns sum = 0;
            for (; n != 0; --n) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                left.store(1);
                const Ns begin = bench::now();
                pool->push(1);
                wait_for_all();
                sum += ran_at.load() - begin;
                pool->finish();
            }
            return sum;
        });
    report.race("Latency, one item", "on an idle pool", 1, contenders, {.fixed_count = 10});
}

void say_what_is_missing(bench::Report& report) {
#ifndef HAVE_GLIB
    report.missing("GLib");
#endif
#ifndef HAVE_UV
    report.missing("libuv");
#endif
#ifndef HAVE_APRUTIL
    report.missing("apr_thread_pool");
#endif
#ifndef HAVE_TBB
    report.missing("TBB");
#endif
    (void)report;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"workitems", "Work items", "one item, queued and run",
                          "Every pool has eight workers. The first column is the library itself, "
                          "so the ratios of the others say how much slower they are.",
                          ""});
    say_what_is_missing(report);
    bench::unpin();
    setenv("UV_THREADPOOL_SIZE", "8", 1);
#ifdef HAVE_APRUTIL
    apr_initialize();
#endif
    bench::Library library;
    bench::Instance osal;
    latency(report, osal);
    for (std::uint64_t items : {10'000, 1'000'000})
        if (items <= 10'000 || !report.quick())
            throughput(report, osal, items);
        else
            throughput(report, osal, items / 10);
    return report.finish();
}
