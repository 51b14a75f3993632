#include "interrupt.h"

#include <signal.h>

#include <atomic>

namespace wordindex {
namespace {

std::atomic<bool> was_interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

}  // namespace

void catch_interrupt() {
    struct sigaction action = {};
    action.sa_handler = [](int) { was_interrupted = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(SIGINT, &action, nullptr);
}

bool interrupted() {
    return was_interrupted;
}

}  // namespace wordindex
