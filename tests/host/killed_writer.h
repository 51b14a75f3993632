// Writers of the registry library that are killed in the middle of writing.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>

#include "host/tsreg.h"
#include "support/registry_folder.h"

namespace osal_test {

inline HANDLE create(const char* path) {
    HANDLE key = nullptr;
    TsRegCreateKeyExA(TSREG_LOCAL_MACHINE, path, 0, nullptr, 0, 0, nullptr, &key, nullptr);
    return key;
}

inline KCSTATUS set(HANDLE key, const std::string& name, const std::string& data) {
    return TsRegSetValueExA(key, name.c_str(), 0, KX_REG_BINARY, data.data(),
                            static_cast<UINT32>(data.size()));
}

inline KCSTATUS get(HANDLE key, const std::string& name, std::string& data) {
    data.resize(1 << 16);
    auto size = static_cast<UINT32>(data.size());
    const KCSTATUS status =
        TsRegQueryValueExA(key, name.c_str(), nullptr, nullptr, data.data(), &size);
    data.resize(status == KC_OK ? size : 0);
    return status;
}

// The data that belong to a number, so that a torn value shows.
inline std::string pattern(UINT32 number) {
    std::string data(1 + number % 5000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(number * 31 + i);
    return data;
}

inline int exit_of(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs a writer in a child process and kills it that long after the first number that it
// acknowledged; returns the last one.
inline UINT32 last_of_killed(void (*writer)(int acknowledge), useconds_t after_us) {
    int pipes[2];
    EXPECT_EQ(pipe(pipes), 0);
    const pid_t child = fork();
    if (child == 0) writer(pipes[1]);
    close(pipes[1]);
    UINT32 last = 0;
    EXPECT_EQ(read(pipes[0], &last, sizeof last), static_cast<ssize_t>(sizeof last));
    usleep(after_us);
    kill(child, SIGKILL);
    while (read(pipes[0], &last, sizeof last) == sizeof last) {
    }
    close(pipes[0]);
    EXPECT_EQ(exit_of(child), 128 + SIGKILL);
    return last;
}

// Writes values 0, 1, ... and says after each that it was acknowledged.
[[noreturn]] inline void write_until_killed(int acknowledge) {
    HANDLE key = create("Killed");
    for (UINT32 number = 0;; ++number) {
        if (set(key, std::to_string(number % 50), pattern(number)) != KC_OK) _exit(1);
        if (write(acknowledge, &number, sizeof number) != sizeof number) _exit(2);
    }
}

class Durability : public testing::Test {
  protected:
    // Kills a writer after a while; what it had acknowledged must be there, and nothing be torn.
    void kill_a_writer(useconds_t after_us) {
        check_values(last_of_killed(write_until_killed, after_us));
    }

    // Each of the last 50 values acknowledged, or the one that was being written when it ended.
    void check_values(UINT32 last) {
        HANDLE key = create("Killed");
        for (UINT32 back = 0; back < 50 && back <= last; ++back) {
            const UINT32 number = last - back;
            std::string data;
            ASSERT_EQ(get(key, std::to_string(number % 50), data), KC_OK) << number;
            const bool newer = back == 49 && data == pattern(last + 1);
            EXPECT_TRUE(newer || data == pattern(number)) << number << " of " << last;
        }
        TsRegCloseKey(key);
    }

    void kill_writers(int rounds) {
        srand(1);
        for (int round = 0; round < rounds && !HasFailure(); ++round)
            kill_a_writer(static_cast<useconds_t>(rand() % 20'000));
    }

    RegistryFolder folder;
};

}  // namespace osal_test
