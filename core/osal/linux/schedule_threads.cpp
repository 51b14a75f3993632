// Start and end of the library's own threads.
#include "osal/linux/internal/schedule_threads.h"

#include <atomic>
#include <initializer_list>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "osal/internal/atomics.h"

namespace osal {
namespace {

constexpr pthread_t kNone = 0;

// The thread that left last, not joined yet.
constinit std::atomic<pthread_t> last_to_leave{kNone};

// The process that library threads were started in, or the fork child that was last told of its
// parent's; 0 if none were started.
constinit std::atomic<pid_t> home{0};

void join(pthread_t thread) {
    if (thread != kNone) pthread_join(thread, nullptr);
}

}  // namespace

// The signals that a thread raises by what it does itself stay open: blocked, they would kill the
// process without its handlers.
sigset_t block_signals_but_faults() {
    sigset_t blocked, before;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    return before;
}

bool start_library_thread(ThreadRoutine routine, void* argument) {
    pthread_t thread;
    home.store(getpid());
    // A thread inherits the mask of its maker, so that no signal can slip in before it runs.
    const sigset_t callers = block_signals_but_faults();
    const bool started = pthread_create(&thread, nullptr, routine, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    return started;
}

void enter_library_thread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

void leave_library_thread(INT32& live_count) {
    // In the chain before the count drops: who sees the count at zero finds the thread there.
    join(last_to_leave.exchange(pthread_self()));
    decrement(live_count);
    pthread_exit(nullptr);
}

void join_library_threads() {
    join(last_to_leave.exchange(kNone));
}

bool forget_threads_of_parent() {
    const pid_t last_home = home.load();
    if (last_home == 0 || last_home == getpid()) return false;
    home.store(getpid());  // a child of this child is one as well
    last_to_leave.store(kNone);
    return true;
}

}  // namespace osal
