/* What helgrind says of the C library's conditions alone, for tests/under_valgrind.
 *
 * A wait that is cancelled, or expires, while a signal comes may have taken a wake-up that was
 * meant for another waiter. The C library then signals its condition once more from within the
 * wait, without the mutex, and helgrind reports a caller that signals without it. No caller does
 * here.
 *
 * usage: condition_reports cancelled|expired
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <time.h>

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
static int ended;

static void unlock(void* held) {
    pthread_mutex_unlock(held);
}

static void* wait_for_ever(void* unused) {
    pthread_mutex_lock(&mutex);
    pthread_cleanup_push(unlock, &mutex);
    for (;;)
        pthread_cond_wait(&condition, &mutex);
    pthread_cleanup_pop(1);
    return unused;
}

static void* expire(void* unused) {
    for (int end = 0; !end;) {
        struct timespec now;
        pthread_mutex_lock(&mutex);
        clock_gettime(CLOCK_REALTIME, &now);
        pthread_cond_timedwait(&condition, &mutex, &now);
        end = ended;
        pthread_mutex_unlock(&mutex);
    }
    return unused;
}

static void signal_under_mutex(int last) {
    pthread_mutex_lock(&mutex);
    pthread_cond_signal(&condition);
    ended = last;
    pthread_mutex_unlock(&mutex);
}

int main(int argc, char** argv) {
    const int cancelled = argc > 1 && strcmp(argv[1], "cancelled") == 0;
    const struct timespec nap = {0, 1000000};
    pthread_t threads[2];
    for (int round = 0; round < (cancelled ? 100 : 1); ++round) {
        for (int i = 0; i < 2; ++i)
            pthread_create(&threads[i], NULL, cancelled ? wait_for_ever : expire, NULL);
        nanosleep(&nap, NULL);
        if (cancelled) pthread_cancel(threads[0]);
        for (int left = cancelled ? 1 : 2000; left != 0; --left) {
            signal_under_mutex(left == 1);
            sched_yield();
        }
        if (cancelled) pthread_cancel(threads[1]);
        for (int i = 0; i < 2; ++i)
            pthread_join(threads[i], NULL);
    }
    return 0;
}
