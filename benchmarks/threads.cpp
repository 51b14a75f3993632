// Creation, exit and wait for the end of a thread.
#include <thread>

#include <pthread.h>

#include "harness.h"
#include "library.h"
#ifdef HAVE_APR
#include <apr_general.h>
#include <apr_thread_proc.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_UV
#include <uv.h>
#endif

namespace {

using bench::Contender;

template <class Once>
Contender repeated(std::string name, Once once) {
    return {std::move(name), [once](std::uint64_t n) {
                for (; n != 0; --n)
                    once();
            }};
}

// A routine is expected to end that way.
void* leave(HANDLE thread, PVOID osal) {
    KxExitThread(static_cast<PIOsal>(osal), thread, 0, FALSE);
    return nullptr;
}

Contender of_the_library(PIOsal osal) {
    return repeated("thread services", [osal] {
        HANDLE thread;
        osal->lpVtbl->KxCreateThread(osal, KX_PRIORITY_NORMAL, leave, osal, &thread);
        osal->lpVtbl->KxWaitForThreadExit(osal, thread, -1);
        osal->lpVtbl->KxDestroyThread(osal, thread);
    });
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"threads", "Threads", "creation, exit and wait for the end", "", ""});
    bench::Library library;
    bench::Instance osal;
    std::vector<Contender> contenders = {
        repeated("pthread",
                 [] {
                     pthread_t thread;
                     pthread_create(
                         &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
                     pthread_join(thread, nullptr);
                 }),
        of_the_library(osal), repeated("std", [] { std::thread([] {}).join(); })};
#ifdef HAVE_GLIB
    contenders.push_back(repeated("GLib", [] {
        g_thread_join(g_thread_new(
            "", [](void*) -> void* { return nullptr; }, nullptr));
    }));
#else
    report.missing("GLib");
#endif
#ifdef HAVE_APR
    apr_initialize();
    contenders.push_back(repeated("APR", [] {
        apr_pool_t* pool = nullptr;
        apr_pool_create(&pool, nullptr);
        apr_thread_t* thread = nullptr;
        apr_thread_create(
            &thread, nullptr, [](apr_thread_t*, void*) -> void* { return nullptr; }, nullptr, pool);
        apr_status_t status;
        apr_thread_join(&status, thread);
        apr_pool_destroy(pool);
    }));
#else
    report.missing("APR");
#endif
#ifdef HAVE_UV
    contenders.push_back(repeated("libuv", [] {
        uv_thread_t thread;
        uv_thread_create(
            &thread, [](void*) {}, nullptr);
        uv_thread_join(&thread);
    }));
#else
    report.missing("libuv");
#endif
    report.race("Threads", "on one core", 1, contenders);
    return report.finish();
}
