// Fork children of tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace osal_test {

// Runs a function in a fork child; true if it returned true there within a minute.
template <class Function>
bool holds_in_child(Function function) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        _exit(function() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace osal_test
