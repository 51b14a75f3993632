// Threads through the C++ face.
#include "osal/thread.hpp"

#include <errno.h>
#include <signal.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/face_test.h"
#include "support/faults.h"
#include "support/threads.h"

namespace osal_test {
namespace {

using namespace std::chrono_literals;

constexpr KCSTATUS kAnyStatus = 0x1234;
constexpr KCSTATUS kUnwound = KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_FAILED);
// What KxGetThreadExitStatus returns of a thread that runs.
constexpr KCSTATUS kStillRuns = KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_BUSY);

void cancel_this_thread() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

// Sets a flag when it goes.
struct Mark {
    explicit Mark(std::atomic<bool>& flag) : flag(flag) {}
    ~Mark() { flag = true; }
    Mark(const Mark&) = delete;
    std::atomic<bool>& flag;
};

class Threads : public FaceTest {
  protected:
    // How a thread with a routine ends: its status and whether its frame was unwound.
    template <class Leave>
    kx::Status status_after(Leave leave) {
        std::atomic<bool> unwound = false;
        kx::Thread thread(service, [&] {
            Mark mark(unwound);
            leave();
        });
        thread.join();
        EXPECT_TRUE(unwound);
        return thread.exit_status();
    }
};

TEST_F(Threads, RunACallableWithArguments) {
    std::string written;
    kx::Thread thread(
        service,
        [](std::unique_ptr<int> number, const std::string& text, std::string& out) {
            out = text + std::to_string(*number);
        },
        std::make_unique<int>(7), "seven is ", std::ref(written));
    thread.join();
    EXPECT_EQ(written, "seven is 7");
}

struct Counter {
    void add(int more) { count += more; }
    int count = 0;
};

TEST_F(Threads, RunMembersAndMoveOnlyCallables) {
    Counter counter;
    kx::Thread(service, &Counter::add, &counter, 3).join();
    kx::Thread(service, [&counter, more = std::make_unique<int>(4)]() mutable {
        counter.add(*more);
    }).join();
    EXPECT_EQ(counter.count, 7);
}

TEST_F(Threads, DestroyTheCallableBeforeAJoinReturns) {
    std::atomic<bool> gone = false;
    auto mark = std::make_unique<Mark>(gone);
    kx::Thread thread(service, [mark = std::move(mark)] {});
    thread.join();
    EXPECT_TRUE(gone);
}

TEST_F(Threads, ReturnTheirExitStatus) {
    kx::Thread plain(service, [] { return kAnyStatus; });
    kx::Thread with_parts(service, [] { return kx::Status(kAnyStatus); });
    kx::Thread other_type(service, [] { return std::string("ignored"); });
    kx::Thread nothing(service, [] {});
    for (kx::Thread* thread : {&plain, &with_parts, &other_type, &nothing})
        thread->join();
    EXPECT_EQ(plain.exit_status(), kx::Status(kAnyStatus));
    EXPECT_EQ(with_parts.exit_status(), kx::Status(kAnyStatus));
    EXPECT_EQ(other_type.exit_status(), kx::Status());
    EXPECT_EQ(nothing.exit_status(), kx::Status());
}

TEST_F(Threads, MayReturnTheStatusOfOneThatRuns) {
    kx::Thread thread(service, [] { return kStillRuns; });
    thread.join();
    EXPECT_EQ(thread.exit_status(), kx::Status(kStillRuns));
}

TEST_F(Threads, HaveNoExitStatusBeforeTheyAreJoined) {
    kx::Thread thread(service, [] {});
    EXPECT_TRUE(thread.joinable());
    EXPECT_NE(thread.handle(), nullptr);
    EXPECT_EQ(code_of([&] { (void)thread.exit_status(); }), KC_CODE_BUSY);
    thread.join();
    EXPECT_FALSE(thread.joinable());
    EXPECT_EQ(thread.handle(), nullptr);
    EXPECT_EQ(code_of([&] { thread.join(); }), KC_CODE_INVALID_HANDLE);
    EXPECT_EQ(code_of([&] { thread.join_for(1ms); }), KC_CODE_INVALID_HANDLE);
}

TEST_F(Threads, AJoinMayExpire) {
    std::atomic<bool> go = false;
    kx::Thread thread(service, [&] { EXPECT_TRUE(eventually([&] { return go.load(); })); });
    const auto start = Clock::now();
    EXPECT_FALSE(thread.join_for(20ms));
    EXPECT_GE(Clock::now() - start, 20ms);
    EXPECT_FALSE(thread.join_for(0s));
    EXPECT_FALSE(thread.join_for(-1us)) << "not without limit";
    EXPECT_TRUE(thread.joinable());
    go = true;
    EXPECT_TRUE(thread.join_for(std::chrono::hours::max()));
    EXPECT_FALSE(thread.joinable());
}

TEST_F(Threads, AreJoinedAtTheEndOfTheirScope) {
    std::atomic<bool> done = false;
    {
        kx::Thread thread(service, [&] {
            nap(milliseconds(20));
            done = true;
        });
    }
    EXPECT_TRUE(done);
}

TEST_F(Threads, MayBeMoved) {
    std::atomic<int> ended = 0;
    std::vector<kx::Thread> threads;
    threads.reserve(5);
    for (int i = 0; i < 5; ++i)
        threads.emplace_back(service, [&] { ++ended; });
    kx::Thread moved = std::move(threads.back());
    EXPECT_FALSE(threads.back().joinable());
    EXPECT_TRUE(moved.joinable());
    threads.pop_back();
    moved.join();
    moved = kx::Thread(service, [] { return kAnyStatus; });
    moved = kx::Thread(service, [] {});
    EXPECT_TRUE(moved.joinable()) << "the one before was joined";
    threads.clear();
    EXPECT_EQ(ended, 5);
}

TEST_F(Threads, AJoinedStatusMovesAlong) {
    kx::Thread thread(service, [] { return kAnyStatus; });
    thread.join();
    kx::Thread moved = std::move(thread);
    EXPECT_EQ(moved.exit_status(), kx::Status(kAnyStatus));
}

TEST_F(Threads, ThatAreCancelledCanBeJoined) {
    EXPECT_EQ(status_after(cancel_this_thread), kx::Status(kUnwound));
}

TEST_F(Threads, ThatLeaveByPthreadExitCanBeJoined) {
    EXPECT_EQ(status_after([] { pthread_exit(nullptr); }), kx::Status(kUnwound));
}

TEST_F(Threads, ThatLeaveInAnyWayCanBeJoinedByAScopeEndOrInTime) {
    { kx::Thread thread(service, cancel_this_thread); }
    kx::Thread thread(service, cancel_this_thread);
    EXPECT_TRUE(thread.join_for(kPatience));
    EXPECT_EQ(thread.exit_status(), kx::Status(kUnwound));
}

TEST_F(Threads, MayCallTheServiceThatEndsThem) {
    std::atomic<HANDLE> handle = nullptr;
    std::atomic<bool> unwound = false;
    kx::Thread thread(service, [&] {
        Mark mark(unwound);
        EXPECT_TRUE(eventually([&] { return handle != nullptr; }));
        service.call<&IOsalVtbl::KxExitThread>(handle.load(), kAnyStatus, FALSE);
    });
    handle = thread.handle();
    thread.join();
    EXPECT_TRUE(unwound);
    EXPECT_EQ(thread.exit_status(), kx::Status(kAnyStatus));
}

TEST_F(Threads, AreGoneWhenTheyAreJoined) {
    static std::atomic<bool> gone;
    for (const auto leave : {+[] {}, +[] { pthread_exit(nullptr); }, &cancel_this_thread}) {
        gone = false;
        kx::Thread(service, [leave] {
            struct Late {
                ~Late() {
                    nap(milliseconds(20));
                    gone = true;
                }
            };
            thread_local const Late late;
            (void)&late;
            leave();
        }).join();
        EXPECT_TRUE(gone);
    }
}

// What the thread did to plain data is seen after a join.
TEST_F(Threads, AJoinSeesWhatTheThreadWrote) {
    for (const auto leave : {+[] {}, &cancel_this_thread}) {
        int plain = 0;
        kx::Thread(service, [&] {
            plain = 42;
            leave();
        }).join();
        EXPECT_EQ(plain, 42);
    }
}

TEST_F(Threads, ACancelledOwnerJoinsItsThreads) {
    std::atomic<bool> done = false;
    kx::Thread owner(service, [&] {
        kx::Thread owned(service, [&] {
            nap(milliseconds(20));
            done = true;
        });
        cancel_this_thread();
    });
    owner.join();
    EXPECT_TRUE(done);
}

TEST_F(Threads, ACancellationWaitsForAJoinToEnd) {
    std::atomic<bool> done = false;
    bool joined = false;
    kx::Thread owner(service, [&] {
        kx::Thread owned(service, [&] {
            nap(milliseconds(20));
            done = true;
        });
        pthread_cancel(pthread_self());
        owned.join();
        joined = done;
        pthread_testcancel();
        ADD_FAILURE();
    });
    owner.join();
    EXPECT_TRUE(joined);
    EXPECT_EQ(owner.exit_status(), kx::Status(kUnwound));
}

int refuse(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
}

TEST_F(Threads, ThatCannotBeStartedAreThrown) {
    std::atomic<bool> gone = false;
    const auto start = [&] { kx::Thread thread(service, [m = std::make_unique<Mark>(gone)] {}); };
    const Interpose refusal("osal.so", "pthread_create", &refuse);
    EXPECT_EQ(code_of(start), KC_CODE_NO_RESOURCES);
    EXPECT_TRUE(gone) << "the callable goes on the creator's thread";
    const HeapFault fault(1, true);
    EXPECT_EQ(code_of(start), KC_CODE_FAILED);
}

// The executable, which the face is part of, makes the thread that a join needs.
constexpr const char* kThisProgram = "";

TEST_F(Threads, AJoinThatIsRefusedAThreadMayBeTriedAgain) {
    kx::Thread thread(service, cancel_this_thread);
    {
        const Interpose refusal(kThisProgram, "pthread_create", &refuse);
        EXPECT_EQ(code_of([&] { thread.join(); }), KC_CODE_NO_RESOURCES);
        EXPECT_EQ(code_of([&] { thread.join_for(kPatience); }), KC_CODE_NO_RESOURCES);
    }
    EXPECT_TRUE(thread.joinable());
    thread.join();
    EXPECT_EQ(thread.exit_status(), kx::Status(kUnwound));
}

TEST_F(Threads, AScopeEndThatIsRefusedAThreadLeavesTheRecord) {
    HANDLE handle;
    {
        const Interpose refusal(kThisProgram, "pthread_create", &refuse);
        kx::Thread thread(service, cancel_this_thread);
        handle = thread.handle();
    }
    EXPECT_NE(counters().MemoryPagedInUse, 0u);
    std::thread([&] { service.call<&IOsalVtbl::KxExitThread>(handle, KC_OK, FALSE); }).join();
    EXPECT_EQ(service.call<&IOsalVtbl::KxDestroyThread>(handle), KC_OK);
}

TEST_F(Threads, KeepTheirInstance) {
    kx::Service own("short-lived");
    kx::Thread thread(own, [] { nap(milliseconds(10)); });
    own = service;
    thread.join();
}

void leave_late(void* value) {
    nap(milliseconds(50));
    pthread_exit(value);
}

// A thread that was not gone yet would return into code that is unloaded.
TEST(FaceThreads, TheRuntimeMayStopRightAfterAJoin) {
    for (const auto leave : {+[] {}, &cancel_this_thread}) {
        {
            const kx::Runtime runtime;
            const Interpose lateness("osal.so", "pthread_exit", &leave_late);
            const kx::Service service("unloaded at once");
            const kx::Thread thread(service, leave);
        }
        nap(milliseconds(100));
    }
}

TEST(FaceThreads, AnExceptionOutOfTheCallableEndsTheProcess) {
    EXPECT_EXIT(
        {
            kx::Runtime runtime;
            kx::Service service("doomed");
            kx::Thread(service, [] { throw std::string("lost"); }).join();
        },
        testing::KilledBySignal(SIGABRT), "terminate called after throwing");
}

}  // namespace
}  // namespace osal_test
