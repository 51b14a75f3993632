// What valgrind has to be told: it knows neither atomic accesses nor cancelled waits.
//
// The requests are instructions that do nothing anywhere else. They are compiled in wherever the
// headers of valgrind are installed.
#pragma once

#include <pthread.h>

#if __has_include(<valgrind/helgrind.h>)
#include <valgrind/helgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#define VALGRIND_HG_DISABLE_CHECKING(start, length) ((void)(start), (void)(length))
#define ANNOTATE_HAPPENS_BEFORE(address) ((void)(address))
#define ANNOTATE_HAPPENS_AFTER(address) ((void)(address))
#define VALGRIND_HG_MUTEX_LOCK_POST(mutex) ((void)(mutex))
#define VALGRIND_DO_CLIENT_REQUEST_STMT(request, a, b, c, d, e) ((void)(a), (void)(b))
#endif

namespace osal {

inline bool under_valgrind() {
    return RUNNING_ON_VALGRIND != 0;
}

// To be said of words that are reached by atomic accesses only, and of mutexes, before a second
// thread sees them: the platform still looks at a mutex that it has just given to the next thread.
template <class Word>
void announce_atomic(Word& word) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a pointer is a word like any other
    VALGRIND_HG_DISABLE_CHECKING(&word, sizeof word);
}
template <class... Words>
void announce_atomics(Words&... words) {
    (..., announce_atomic(words));
}

// To be said before an atomic step after which others may have what this thread had, and by them
// after they have seen it.
template <class Word>
void announce_release(const Word& word) {
    ANNOTATE_HAPPENS_BEFORE(&word);
}
template <class Word>
void announce_acquire(const Word& word) {
    ANNOTATE_HAPPENS_AFTER(&word);
}

// The same out of line, for paths whose registers count.
template <class Word>
[[gnu::noinline, gnu::cold]] void announce_release_apart(const Word& word) {
    announce_release(word);
}
template <class Word>
[[gnu::noinline, gnu::cold]] void announce_acquire_apart(const Word& word) {
    announce_acquire(word);
}

// To be said when a wait is left by cancellation, which takes the mutex again.
inline void announce_cancelled_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    VALGRIND_HG_MUTEX_LOCK_POST(mutex);
    VALGRIND_DO_CLIENT_REQUEST_STMT(_VG_USERREQ__HG_PTHREAD_COND_WAIT_POST, condition, mutex, 1, 1,
                                    0);
}

}  // namespace osal
