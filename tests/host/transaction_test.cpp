// Transactions of the registry library: calls that take effect together or not at all.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "host/killed_writer.h"
#include "osal/internal/annotations.h"

namespace osal_test {
namespace {

constexpr KCSTATUS error(UINT32 code) {
    return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_REGISTRY, code);
}
constexpr KCSTATUS kNotFound = error(3);
constexpr KCSTATUS kLost = error(1);

// Another process that looks at the registry when it is told to: forked while there is no
// transaction, since a fork would end one.
class Observer {
  public:
    Observer() {
        EXPECT_EQ(pipe(question_), 0);
        EXPECT_EQ(pipe(answer_), 0);
        child_ = fork();
        if (child_ == 0) answer_all();
    }
    ~Observer() {
        EXPECT_EQ(write(question_[1], "", 1), 1);
        EXPECT_EQ(exit_of(child_), 0);
        for (const int end : {question_[0], question_[1], answer_[0], answer_[1]})
            close(end);
    }
    // The value of that name of the key "A" as the process sees it; "?" if there is none.
    std::string see(char name) {
        char value = 0;
        EXPECT_EQ(write(question_[1], &name, 1), 1);
        EXPECT_EQ(read(answer_[0], &value, 1), 1);
        return std::string(1, value);
    }

  private:
    [[noreturn]] void answer_all() {
        char name = 0;
        while (read(question_[0], &name, 1) == 1 && name != '\0') {
            HANDLE key = nullptr;
            std::string data;
            TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, "A", 0, KX_KEY_READ, &key);
            const KCSTATUS status = get(key, std::string(1, name), data);
            TsRegCloseKey(key);
            if (write(answer_[1], status == KC_OK ? data.data() : "?", 1) != 1) _exit(1);
        }
        _exit(0);
    }

    int question_[2] = {};
    int answer_[2] = {};
    pid_t child_ = -1;
};

class Transaction : public testing::Test {
  protected:
    static std::string value(HANDLE key, const char* name) {
        std::string data;
        return get(key, name, data) == KC_OK ? data : "?";
    }
    static KCSTATUS drop(HANDLE key, const char* name) { return TsRegDeleteValueA(key, name); }
    static KCSTATUS status_of_open(const char* path) {
        HANDLE key = nullptr;
        const KCSTATUS status = TsRegOpenKeyExA(TSREG_LOCAL_MACHINE, path, 0, KX_KEY_READ, &key);
        if (status == KC_OK) TsRegCloseKey(key);
        return status;
    }
    static std::string value_names(HANDLE key) {
        std::string names;
        char name[256];
        UINT32 length = sizeof name;
        for (UINT32 index = 0; TsRegEnumValueA(key, index, name, &length, nullptr, nullptr, nullptr,
                                               nullptr) == KC_OK;
             ++index, length = sizeof name)
            names.append(name, length).push_back(' ');
        return names;
    }
    static UINT64 written(HANDLE parent) {
        char name[256];
        UINT32 length = sizeof name;
        UINT64 time = 0;
        EXPECT_EQ(TsRegEnumKeyExA(parent, 0, name, &length, nullptr, nullptr, nullptr, &time),
                  KC_OK);
        return time;
    }

    RegistryFolder folder;
};

TEST_F(Transaction, OtherProcessesSeeAllOfItAfterItsEndAndNothingBefore) {
    HANDLE key = create("A");
    set(key, "x", "1");
    Observer other;
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(set(key, "x", "2"), KC_OK);
    EXPECT_EQ(set(key, "y", "3"), KC_OK);
    EXPECT_EQ(value(key, "x"), "2");
    EXPECT_EQ(other.see('x'), "1");
    EXPECT_EQ(other.see('y'), "?");
    EXPECT_EQ(TsRegCommit(), KC_OK);
    EXPECT_EQ(other.see('x'), "2");
    EXPECT_EQ(other.see('y'), "3");
    TsRegCloseKey(key);
}

TEST_F(Transaction, MakesTheFileIfThereIsNone) {
    ASSERT_EQ(TsRegBegin(), KC_OK);
    HANDLE key = create("A\\B");
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    EXPECT_EQ(TsRegCommit(), KC_OK);
    EXPECT_EQ(value(key, "v"), "1");
    TsRegCloseKey(key);
}

TEST_F(Transaction, TakenBackLeavesEverythingAsItWas) {
    HANDLE key = create("A");
    HANDLE parent = create("");
    TsRegCloseKey(create("A\\Gone"));
    set(key, "changed", "1");
    set(key, "deleted", "2");
    const UINT64 before = written(parent);
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(set(key, "changed", "3"), KC_OK);
    EXPECT_EQ(set(key, "new", "4"), KC_OK);
    EXPECT_EQ(drop(key, "deleted"), KC_OK);
    EXPECT_EQ(TsRegDeleteKeyA(key, "Gone"), KC_OK);
    TsRegCloseKey(create("A\\New\\Newer"));
    EXPECT_EQ(status_of_open("A\\New\\Newer"), KC_OK);
    EXPECT_EQ(TsRegRollback(), KC_OK);
    EXPECT_EQ(value(key, "changed"), "1");
    EXPECT_EQ(value_names(key), "changed deleted ");
    EXPECT_EQ(status_of_open("A\\Gone"), KC_OK);
    EXPECT_EQ(status_of_open("A\\New"), kNotFound);
    EXPECT_EQ(written(parent), before);
    TsRegCloseKey(key);
    TsRegCloseKey(parent);
}

TEST_F(Transaction, AHandleOfAKeyThatWasTakenBackNeverReachesItsSuccessor) {
    HANDLE old = create("Old");
    ASSERT_EQ(TsRegBegin(), KC_OK);
    HANDLE lost = create("Lost");
    HANDLE below = create("Lost\\Below");
    HANDLE still = create("Old");
    EXPECT_EQ(set(lost, "v", "1"), KC_OK);
    EXPECT_EQ(TsRegRollback(), KC_OK);
    HANDLE next = create("Next");
    HANDLE other = create("Other");
    std::string data;
    for (HANDLE key : {lost, below}) {
        EXPECT_EQ(set(key, "v", "2"), kNotFound);
        EXPECT_EQ(get(key, "v", data), kNotFound);
        EXPECT_EQ(drop(key, "v"), kNotFound);
        char name[256];
        UINT32 length = sizeof name;
        EXPECT_EQ(TsRegEnumKeyExA(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr),
                  kNotFound);
        HANDLE under = this;
        EXPECT_EQ(TsRegOpenKeyExA(key, "", 0, KX_KEY_READ, &under), kNotFound);
        EXPECT_EQ(TsRegDeleteKeyA(key, "x"), kNotFound);
        EXPECT_EQ(TsRegCloseKey(key), KC_OK);
    }
    EXPECT_EQ(value_names(next) + value_names(other), "");
    EXPECT_EQ(set(old, "v", "3"), KC_OK);
    EXPECT_EQ(value(still, "v"), "3");
    for (HANDLE key : {old, still, next, other})
        TsRegCloseKey(key);
}

TEST_F(Transaction, AnEnumerationCountsWhatItsTransactionChanged) {
    HANDLE key = create("A");
    for (const char* name : {"a", "b", "c", "d"})
        set(key, name, "1");
    char name[256];
    const auto number = [&](UINT32 index) {
        UINT32 length = sizeof name;
        return TsRegEnumValueA(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) ==
                       KC_OK
                   ? std::string(name, length)
                   : "?";
    };
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(number(1), "b");
    EXPECT_EQ(drop(key, "a"), KC_OK);
    EXPECT_EQ(number(2), "d");
    EXPECT_EQ(number(3), "?");
    EXPECT_EQ(set(key, "aa", "1"), KC_OK);
    EXPECT_EQ(number(2), "c");
    EXPECT_EQ(TsRegRollback(), KC_OK);
    EXPECT_EQ(number(3), "d");
    TsRegCloseKey(key);
}

TEST_F(Transaction, ACallThatFailsInItChangesNothingAndLeavesTheRest) {
    HANDLE key = create("A");
    HANDLE parent = create("");
    TsRegCloseKey(create("A\\Sub\\Below"));
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    const UINT64 before = written(parent);
    EXPECT_EQ(drop(key, "none"), kNotFound);
    EXPECT_EQ(TsRegDeleteKeyA(key, "Sub"), error(0x1003));
    EXPECT_EQ(set(key, std::string(256, 'n'), "1"), error(4));
    EXPECT_EQ(written(parent), before);
    EXPECT_EQ(set(key, "w", "2"), KC_OK);
    EXPECT_EQ(TsRegCommit(), KC_OK);
    EXPECT_EQ(value_names(key), "v w ");
    EXPECT_EQ(status_of_open("A\\Sub\\Below"), KC_OK);
    TsRegCloseKey(key);
    TsRegCloseKey(parent);
}

TEST_F(Transaction, IsOneAtATimeAndOfOneThread) {
    EXPECT_EQ(TsRegCommit(), kNotFound);
    EXPECT_EQ(TsRegRollback(), kNotFound);
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(TsRegBegin(), error(4));
    EXPECT_EQ(TsRegCommit(), KC_OK);
    EXPECT_EQ(TsRegCommit(), kNotFound);
    std::thread([] {
        EXPECT_EQ(TsRegCommit(), kNotFound);
        EXPECT_EQ(TsRegBegin(), KC_OK);
        EXPECT_EQ(TsRegRollback(), KC_OK);
    }).join();
}

TEST_F(Transaction, OtherThreadsWaitForItsEnd) {
    HANDLE key = create("A");
    set(key, "v", "1");
    ASSERT_EQ(TsRegBegin(), KC_OK);
    std::atomic<bool> done = false;
    std::vector<std::string> seen(4);
    std::vector<std::thread> threads;
    for (std::string& each : seen)
        threads.emplace_back([&] {
            each = value(key, "v");
            done = true;
        });
    usleep(20'000);
    EXPECT_FALSE(done);
    EXPECT_EQ(set(key, "v", "2"), KC_OK);
    EXPECT_EQ(TsRegCommit(), KC_OK);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(seen, std::vector<std::string>(4, "2"));
    TsRegCloseKey(key);
}

TEST_F(Transaction, ThreadsTakeTurnsWithTheirs) {
    HANDLE key = create("A");
    constexpr int kThreads = 4;
    constexpr int kTurns = 25;
    set(key, "sum", "0");
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([key] {
            for (int turn = 0; turn < kTurns; ++turn) {
                EXPECT_EQ(TsRegBegin(), KC_OK);
                const int sum = std::stoi(value(key, "sum"));
                EXPECT_EQ(set(key, "sum", std::to_string(sum + 1)), KC_OK);
                EXPECT_EQ(turn % 5 == 4 ? TsRegRollback() : TsRegCommit(), KC_OK);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(value(key, "sum"), std::to_string(kThreads * kTurns * 4 / 5));
    TsRegCloseKey(key);
}

TEST_F(Transaction, AForkOfItsThreadLosesItOnBothSides) {
    HANDLE key = create("A");
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    const auto is_lost = [key] {
        std::string data;
        return get(key, "v", data) == kLost && set(key, "v", "2") == kLost &&
               status_of_open("A") == kLost;
    };
    const pid_t child = fork();
    if (child == 0) {
        std::string data;
        const bool ended = is_lost() && TsRegRollback() == KC_OK;
        _exit(ended && get(key, "v", data) == kNotFound && set(key, "c", "1") == KC_OK ? 0 : 1);
    }
    EXPECT_TRUE(is_lost());
    EXPECT_EQ(exit_of(child), 0);
    EXPECT_EQ(TsRegCommit(), kLost);
    EXPECT_EQ(value_names(key), "c ");
    EXPECT_EQ(set(key, "v", "3"), KC_OK);
    TsRegCloseKey(key);
}

TEST_F(Transaction, AForkOfAnotherThreadWaitsForItsEnd) {
    HANDLE key = create("A");
    ASSERT_EQ(TsRegBegin(), KC_OK);
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    std::thread forking([key] {
        const pid_t child = fork();
        if (child == 0) _exit(value(key, "v") == "1" ? 0 : 1);
        EXPECT_EQ(exit_of(child), 0);
    });
    usleep(20'000);
    EXPECT_EQ(TsRegCommit(), KC_OK);
    forking.join();
    TsRegCloseKey(key);
}

// The frame that a cancelled thread leaves is unmarked: the address checker would take what it
// marked for the frames of the next functions.
NO_ADDRESS_CHECKS void* begin_and_be_cancelled(void* key) {
    EXPECT_EQ(TsRegBegin(), KC_OK);
    pthread_cancel(pthread_self());
    pthread_testcancel();
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    EXPECT_EQ(TsRegCommit(), KC_OK);
    pthread_testcancel();
    return nullptr;
}

TEST_F(Transaction, ItsThreadIsCancelledAfterItsEnd) {
    HANDLE key = create("A");
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &begin_and_be_cancelled, key), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(value(key, "v"), "1");
    TsRegCloseKey(key);
}

// What a process that was killed had set is all there if its commit was acknowledged, else not at
// all; the commit under way may have gone either way.
class KilledTransaction : public Transaction {
  protected:
    static constexpr int kValues = 20;

    [[noreturn]] static void commit_until_killed(int acknowledge) {
        HANDLE key = create("Killed");
        for (UINT32 number = 1;; ++number) {
            if (TsRegBegin() != KC_OK) _exit(1);
            for (int i = 0; i < kValues; ++i)
                if (set(key, std::to_string(i), pattern(number)) != KC_OK) _exit(2);
            if (TsRegCommit() != KC_OK) _exit(3);
            if (write(acknowledge, &number, sizeof number) != sizeof number) _exit(4);
        }
    }

    static void kill_a_writer(useconds_t after_us) {
        expect_whole(last_of_killed(commit_until_killed, after_us));
    }

    static void expect_whole(UINT32 last) {
        HANDLE key = create("Killed");
        const std::string first = value(key, "0");
        EXPECT_TRUE(first == pattern(last) || first == pattern(last + 1)) << last;
        for (int i = 1; i < kValues; ++i)
            EXPECT_EQ(value(key, std::to_string(i).c_str()), first) << i << " of " << last;
        TsRegCloseKey(key);
    }
};

TEST_F(KilledTransaction, IsThereAsAWholeOrNotAtAll) {
    const char* wanted = std::getenv("OSAL_TEST_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 10;
    srand(1);
    for (int round = 0; round < rounds && !HasFailure(); ++round)
        kill_a_writer(static_cast<useconds_t>(rand() % 20'000));
}

TEST_F(Transaction, OfAKilledProcessLeavesNothing) {
    HANDLE key = create("A");
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    const pid_t child = fork();
    if (child == 0) {
        TsRegBegin();
        for (int i = 0; i < 100; ++i)
            set(key, std::to_string(i), "x");
        if (write(pipes[1], "", 1) != 1) _exit(1);
        pause();
    }
    char ready;
    ASSERT_EQ(read(pipes[0], &ready, 1), 1);
    kill(child, SIGKILL);
    EXPECT_EQ(exit_of(child), 128 + SIGKILL);
    EXPECT_EQ(value_names(key), "");
    EXPECT_EQ(set(key, "v", "1"), KC_OK);
    TsRegCloseKey(key);
}

// A small file system of its own for the test's folder.
class FullTransaction : public Transaction {
  protected:
    ~FullTransaction() override {
        RegistryFolder::close_file();
        umount(folder.folder().c_str());
    }
};

TEST_F(FullTransaction, ThatDoesNotFitLeavesNothing) {
    if (mount("none", folder.folder().c_str(), "tmpfs", 0, "size=512k") != 0)
        GTEST_SKIP() << "may not mount a tmpfs here: " << strerror(errno);
    HANDLE key = create("A");
    ASSERT_EQ(set(key, "before", "1"), KC_OK);
    ASSERT_EQ(TsRegBegin(), KC_OK);
    KCSTATUS status = KC_OK;
    for (int i = 0; i < 10'000 && status == KC_OK; ++i)
        status = set(key, std::to_string(i), std::string(10'000, 'x'));
    if (status == KC_OK)
        status = TsRegCommit();
    else
        EXPECT_EQ(TsRegRollback(), KC_OK);
    EXPECT_EQ(status, error(5));
    EXPECT_EQ(value_names(key), "before ");
    TsRegCloseKey(key);
}

}  // namespace
}  // namespace osal_test
