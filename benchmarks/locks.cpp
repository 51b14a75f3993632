// Locks that nobody else wants: acquire and release, against the platform's own and other
// libraries'.
#include <mutex>
#include <shared_mutex>

#include <pthread.h>

#include "harness.h"
#include "library.h"
#include "peers.h"
#ifdef HAVE_TBB
#include <tbb/spin_mutex.h>
#include <tbb/spin_rw_mutex.h>
#endif
#ifdef HAVE_UV
#include <uv.h>
#endif

namespace {

using bench::Contender;

// A contender that takes and releases, over and over.
template <class Take, class Release>
Contender pairs(std::string name, Take take, Release release) {
    return {std::move(name), [=](std::uint64_t n) {
                for (; n != 0; --n) {
                    take();
                    release();
                }
            }};
}

void recursive(bench::Report& report, PIOsal osal) {
    static std::recursive_mutex standard;
    static pthread_mutex_t raw = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    HANDLE mutex;
    osal->lpVtbl->KxAllocMutex(osal, 0, &mutex);
    std::vector<Contender> contenders = {
        pairs(
            "pthread", [] { pthread_mutex_lock(&raw); }, [] { pthread_mutex_unlock(&raw); }),
        pairs(
            "mutex service", [=] { osal->lpVtbl->KxAcquireMutex(osal, mutex); },
            [=] { osal->lpVtbl->KxReleaseMutex(osal, mutex); }),
        pairs(
            "std", [] { standard.lock(); }, [] { standard.unlock(); })};
#ifdef HAVE_GLIB
    static GRecMutex glib;
    contenders.push_back(pairs(
        "GLib", [] { g_rec_mutex_lock(&glib); }, [] { g_rec_mutex_unlock(&glib); }));
#endif
#ifdef HAVE_APR
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    apr_thread_mutex_t* apr = nullptr;
    apr_thread_mutex_create(&apr, APR_THREAD_MUTEX_NESTED, pool);
    contenders.push_back(pairs(
        "APR", [=] { apr_thread_mutex_lock(apr); }, [=] { apr_thread_mutex_unlock(apr); }));
#endif
#ifdef HAVE_NSPR
    PRMonitor* monitor = PR_NewMonitor();
    contenders.push_back(pairs(
        "NSPR", [=] { PR_EnterMonitor(monitor); }, [=] { PR_ExitMonitor(monitor); }));
#endif
    report.race("Mutex, recursive", "acquire, release", 1, contenders);
    osal->lpVtbl->KxDestroyMutex(osal, mutex);
}

// What a spin lock is made of, reached like a service: two calls through a table, four to the
// platform.
struct Table {
    void (*take)(pthread_mutex_t*, int*);
    void (*release)(pthread_mutex_t*, int);
};
constexpr Table kDeferring = {[](pthread_mutex_t* mutex, int* type) {
                                  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, type);
                                  pthread_mutex_lock(mutex);
                              },
                              [](pthread_mutex_t* mutex, int type) {
                                  pthread_mutex_unlock(mutex);
                                  pthread_setcanceltype(type, nullptr);
                              }};
// Written by another unit, for all that the compiler knows.
const Table* table() {
    const Table* that = &kDeferring;
    asm volatile("" : "+r"(that));
    return that;
}

void plain(bench::Report& report, PIOsal osal) {
    static std::mutex standard;
    static pthread_mutex_t raw = PTHREAD_MUTEX_INITIALIZER;
    HANDLE lock;
    osal->lpVtbl->KxAllocSpinLock(osal, &lock);
    std::vector<Contender> contenders = {
        pairs(
            "pthread mutex", [] { pthread_mutex_lock(&raw); }, [] { pthread_mutex_unlock(&raw); }),
        pairs(
            "the same, cancellation deferred",
            [] {
                int type;
                pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
                pthread_mutex_lock(&raw);
            },
            [] {
                int type;
                pthread_mutex_unlock(&raw);
                pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
            }),
        {"the same, through a table",
         [that = table()](std::uint64_t n) {
             int type;
             for (; n != 0; --n) {
                 that->take(&raw, &type);
                 that->release(&raw, type);
             }
         }},
        {"spin-lock service, export",
         [=](std::uint64_t n) {
             KCSPIN_STATE state;
             for (; n != 0; --n) {
                 KxAcquireSpinLock(osal, lock, &state);
                 KxReleaseSpinLock(osal, lock, state);
             }
         }},
        {"spin-lock service",
         [=](std::uint64_t n) {
             KCSPIN_STATE state;
             for (; n != 0; --n) {
                 osal->lpVtbl->KxAcquireSpinLock(osal, lock, &state);
                 osal->lpVtbl->KxReleaseSpinLock(osal, lock, state);
             }
         }},
        pairs(
            "std", [] { standard.lock(); }, [] { standard.unlock(); })};
#ifdef HAVE_ABSEIL
    static absl::Mutex abseil;
    contenders.push_back(pairs(
        "Abseil", [] { abseil.Lock(); }, [] { abseil.Unlock(); }));
#endif
#ifdef HAVE_GLIB
    static GMutex glib;
    contenders.push_back(pairs(
        "GLib", [] { g_mutex_lock(&glib); }, [] { g_mutex_unlock(&glib); }));
#endif
#ifdef HAVE_NSPR
    PRLock* nspr = PR_NewLock();
    contenders.push_back(pairs(
        "NSPR", [=] { PR_Lock(nspr); }, [=] { PR_Unlock(nspr); }));
#endif
#ifdef HAVE_TBB
    static tbb::spin_mutex spin;
    contenders.push_back(pairs(
        "TBB, spinning", [] { spin.lock(); }, [] { spin.unlock(); }));
#endif
#ifdef HAVE_UV
    static uv_mutex_t uv;
    uv_mutex_init(&uv);
    contenders.push_back(pairs(
        "libuv", [] { uv_mutex_lock(&uv); }, [] { uv_mutex_unlock(&uv); }));
#endif
    report.race("Spin lock", "acquire, release", 1, contenders);
    osal->lpVtbl->KxDestroySpinLock(osal, lock);
}

// The raw lock has the attribute that the library's has: writers are preferred.
pthread_rwlock_t* raw_read_write_lock() {
    static pthread_rwlock_t raw = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
    return &raw;
}

void read_write(bench::Report& report, PIOsal osal, bool write) {
    pthread_rwlock_t* raw = raw_read_write_lock();
    HANDLE lock;
    osal->lpVtbl->KxAllocReadWriteLock(osal, &lock);
    const auto acquire = write ? osal->lpVtbl->KxAcquireLockForWriteAccess
                               : osal->lpVtbl->KxAcquireLockForReadAccess;
    const auto raw_acquire = write ? pthread_rwlock_wrlock : pthread_rwlock_rdlock;
    std::vector<Contender> contenders = {
        pairs(
            "pthread", [=] { raw_acquire(raw); }, [=] { pthread_rwlock_unlock(raw); }),
        pairs(
            "read/write lock service", [=] { acquire(osal, lock, TRUE); },
            [=] { osal->lpVtbl->KxReleaseReadWriteLock(osal, lock); })};
    static std::shared_mutex standard;
    contenders.push_back(
        write ? pairs(
                    "std", [] { standard.lock(); }, [] { standard.unlock(); })
              : pairs(
                    "std", [] { standard.lock_shared(); }, [] { standard.unlock_shared(); }));
#ifdef HAVE_ABSEIL
    static absl::Mutex abseil;
    contenders.push_back(
        write ? pairs(
                    "Abseil", [] { abseil.WriterLock(); }, [] { abseil.WriterUnlock(); })
              : pairs(
                    "Abseil", [] { abseil.ReaderLock(); }, [] { abseil.ReaderUnlock(); }));
#endif
#ifdef HAVE_GLIB
    static GRWLock glib;
    contenders.push_back(write ? pairs(
                                     "GLib", [] { g_rw_lock_writer_lock(&glib); },
                                     [] { g_rw_lock_writer_unlock(&glib); })
                               : pairs(
                                     "GLib", [] { g_rw_lock_reader_lock(&glib); },
                                     [] { g_rw_lock_reader_unlock(&glib); }));
#endif
#ifdef HAVE_APR
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    apr_thread_rwlock_t* apr = nullptr;
    apr_thread_rwlock_create(&apr, pool);
    const auto apr_acquire = write ? apr_thread_rwlock_wrlock : apr_thread_rwlock_rdlock;
    contenders.push_back(pairs(
        "APR", [=] { apr_acquire(apr); }, [=] { apr_thread_rwlock_unlock(apr); }));
#endif
#ifdef HAVE_TBB
    static tbb::spin_rw_mutex spin;
    contenders.push_back(
        write ? pairs(
                    "TBB, spinning", [] { spin.lock(); }, [] { spin.unlock(); })
              : pairs(
                    "TBB, spinning", [] { spin.lock_shared(); }, [] { spin.unlock_shared(); }));
#endif
    report.race(write ? "Read/write lock, write access" : "Read/write lock, read access",
                "acquire, release", 1, contenders);
    osal->lpVtbl->KxDestroyReadWriteLock(osal, lock);
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"locks", "Locks without contention", "acquisition and release",
                          "A spin lock makes the cancellation of its holder deferred; what that "
                          "costs at least, and at least through a table of services, are the "
                          "second and third column.",
                          ""});
    bench::use_peers(report);
#ifndef HAVE_TBB
    report.missing("TBB");
#endif
#ifndef HAVE_UV
    report.missing("libuv");
#endif
    bench::Library library;
    bench::Instance osal;
    recursive(report, osal);
    plain(report, osal);
    read_write(report, osal, false);
    read_write(report, osal, true);
    return report.finish();
}
