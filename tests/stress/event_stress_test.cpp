// Events under load: hand-overs of which none may be lost, waits that are cancelled at any moment,
// and events that are destroyed as soon as a wait for them has succeeded.
#include "osal/internal/valgrind.h"
#include "osal/thread.h"
#include "support/event_test.h"
#include "support/sizes.h"

namespace osal_test {
namespace {

constexpr INT64 kPatient = 60'000'000;

// OSAL_TEST_HANDOVERS is the number for each number of waiters.
std::uint64_t hand_overs() {
    return from_environment("OSAL_TEST_HANDOVERS", kSanitized ? 2'000 : 20'000);
}

class EventStress : public EventTest {
  protected:
    // A wait that does not sleep.
    KCSTATUS wait_once_signalled(HANDLE handle) {
        while (!is_signalled(handle))
            sched_yield();
        return wait(handle, 0);
    }
    // Statuses that the waits build; not kept, for there are too many.
    void forget_statuses() { statuses_.take(); }

    StatusRecorder statuses_;
};
OSAL_BOTH_WAYS(EventStress);

// A place for one item, with the event that tells of it, and the one that tells that it was taken.
struct Slot {
    HANDLE ready;
    HANDLE taken;
    std::atomic<std::uint64_t> item = 0;
};

// Producers put the numbers from 1 up in a slot each, one after the other; waiters take them. A
// waiter that is woken for nothing waits again: a signal wakes at least one of them.
class HandOvers : public EventStress {
  protected:
    void run(int waiters, int producers, bool several) {
        several_ = several;
        stop_ = make(KxNotificationEvent);
        for (int i = 0; i < producers; ++i) {
            Slot& slot = slots_.emplace_back();
            slot.ready = make(KxSynchronizationEvent);
            slot.taken = make(KxSynchronizationEvent);
            all_.push_back(slot.ready);
        }
        all_.push_back(stop_);
        const std::uint64_t each = hand_overs() / static_cast<std::uint64_t>(producers);
        {
            std::deque<RawThread> consumers;
            for (int i = 0; i < waiters; ++i)
                consumers.emplace_back([this] { consume(); });
            {
                std::deque<RawThread> threads;
                for (Slot& slot : slots_)
                    threads.emplace_back([this, &slot, each] { produce(slot, each); });
            }
            signal(stop_);
            signal(slots_.front().ready);
        }
        const auto count = static_cast<std::uint64_t>(producers);
        EXPECT_EQ(received_, count * each);
        EXPECT_EQ(sum_, count * (each * (each + 1) / 2));
    }

  private:
    void produce(Slot& slot, std::uint64_t items) {
        for (std::uint64_t item = 1; item <= items; ++item) {
            slot.item = item;
            signal(slot.ready);
            while (slot.item != 0)
                if (wait(slot.taken, kPatient) != KC_OK) {
                    ADD_FAILURE() << "a signal was lost at item " << item;
                    return;
                }
        }
    }
    void consume() {
        while (!is_signalled(stop_)) {
            if (several_) {
                wait_any(all_, kPatient);
                forget_statuses();
            } else {
                wait(slots_.front().ready, kPatient);
            }
            for (Slot& slot : slots_)
                take_from(slot);
        }
        signal(slots_.front().ready);  // tells the next waiter of the end
    }
    void take_from(Slot& slot) {
        const std::uint64_t item = slot.item.exchange(0);
        if (item == 0) return;
        ++received_;
        sum_ += item;
        signal(slot.taken);
    }
    bool several_ = false;
    HANDLE stop_ = nullptr;
    std::deque<Slot> slots_;
    std::vector<HANDLE> all_;
    std::atomic<std::uint64_t> received_ = 0;
    std::atomic<std::uint64_t> sum_ = 0;
};
OSAL_BOTH_WAYS(HandOvers);

TEST_P(HandOvers, ToTwoWaitersForOneEvent) {
    run(2, 1, false);
}
TEST_P(HandOvers, ToFourWaitersForOneEvent) {
    run(4, 1, false);
}
TEST_P(HandOvers, ToEightWaitersForOneEvent) {
    run(8, 1, false);
}
TEST_P(HandOvers, ToTwoWaitersForAnyOfTwoEvents) {
    run(2, 2, true);
}
TEST_P(HandOvers, ToFourWaitersForAnyOfThreeEvents) {
    run(4, 3, true);
}
TEST_P(HandOvers, ToEightWaitersForAnyOfTwoEvents) {
    run(8, 2, true);
}

// Each round of a wait for all takes exactly one signal of each event.
TEST_P(EventStress, AWaitForAllTakesOneSignalOfEachEventEachTime) {
    const std::uint64_t rounds = hand_overs() / 8;
    std::vector<HANDLE> ready, taken;
    for (int i = 0; i < 4; ++i) {
        ready.push_back(make(KxSynchronizationEvent));
        taken.push_back(make(KxSynchronizationEvent));
    }
    std::deque<RawThread> signallers;
    for (int i = 0; i < 4; ++i)
        signallers.emplace_back([&, i] {
            for (std::uint64_t round = 0; round < rounds; ++round) {
                BOOLEAN previous = 1;
                CALL(KxSignalEvent)(osal, ready[i], &previous);
                EXPECT_FALSE(previous);
                EXPECT_EQ(wait(taken[i], kPatient), KC_OK);
            }
        });
    for (std::uint64_t round = 0; round < rounds; ++round) {
        ASSERT_EQ(wait_all(ready, kPatient), KC_OK) << round;
        forget_statuses();
        for (HANDLE handle : ready)
            EXPECT_FALSE(is_signalled(handle));
        for (HANDLE handle : taken)
            signal(handle);
    }
}

// Nothing but the event orders the two threads: for ThreadSanitizer to see.
TEST_P(EventStress, AWaiterSeesWhatCameBeforeASignalThatFoundTheEventSignalled) {
    HANDLE handle = make(KxSynchronizationEvent);
    HANDLE other = make(KxSynchronizationEvent);
    std::atomic<std::uint64_t> signalled = 0;
    std::uint64_t written = 0;
    osal::announce_atomic(signalled);
    const std::uint64_t rounds = hand_overs() / 20;
    RawThread signaller([&] {
        for (std::uint64_t round = 1; round <= rounds; ++round) {
            signal(handle);
            written = round;
            signal(handle);
            signalled.store(round, std::memory_order_relaxed);
            EXPECT_EQ(wait(other, kPatient), KC_OK);
        }
    });
    for (std::uint64_t round = 1; round <= rounds; ++round) {
        while (signalled.load(std::memory_order_relaxed) != round)
            sched_yield();
        ASSERT_EQ(wait(handle, 0), KC_OK);
        EXPECT_EQ(written, round);
        signal(other);
    }
}

// The thread that signals may still be in the call when the waiter is out. helgrind is spared the
// waits that expire while the signal comes: the platform then signals its condition once more,
// without the mutex.
TEST_P(EventStress, AnEventMayBeDestroyedRightAfterASuccessfulWait) {
    std::atomic<HANDLE> offered = nullptr;
    std::atomic<bool> end = false;
    RawThread signaller([&] {
        while (!end)
            if (HANDLE handle = offered.exchange(nullptr)) {
                osal::announce_acquire(offered);
                signal(handle);
            }
    });
    const std::uint64_t rounds = hand_overs() / 4;
    for (std::uint64_t round = 0; round < rounds; ++round) {
        HANDLE handle = nullptr, other = nullptr;
        ASSERT_EQ(CALL(KxAllocEvent)(osal, kBothTypes[round % 2], &handle), KC_OK);
        ASSERT_EQ(CALL(KxAllocEvent)(osal, KxSynchronizationEvent, &other), KC_OK);
        osal::announce_release(offered);
        offered = handle;
        if (round % 4 == 0)
            ASSERT_EQ(wait_any({other, handle}, kPatient), 1u);
        else if (round % 4 == 1)
            ASSERT_EQ(wait(handle, kPatient), KC_OK);
        else if (round % 4 == 2 || under_helgrind())
            ASSERT_EQ(wait_once_signalled(handle), KC_OK);
        else
            while (wait(handle, 0) != KC_OK) {
            }
        ASSERT_EQ(CALL(KxDestroyEvent)(osal, handle), KC_OK) << round;
        ASSERT_EQ(CALL(KxDestroyEvent)(osal, other), KC_OK);
        forget_statuses();
    }
    end = true;
}

// Gives back what cancelled waits left on an event; the number of registrations.
std::size_t clear_registrations(PIOsal osal, HANDLE handle) NO_THREAD_SAFETY_ANALYSIS {
    LIST_ENTRY* head = &event_behind(handle)->multiWaitList;
    std::size_t count = 0;
    for (; !OsalIsListEmpty(head); ++count) {
        auto* registration = osal::record_of<osal::Registration>(
            OsalRemoveHeadList(head), offsetof(osal::Registration, SingleEntry));
        EXPECT_EQ(registration->pMasterEvent, nullptr);
        EXPECT_EQ(KxFreeMemory(osal, registration), KC_OK);
    }
    return count;
}

class CancelledWaits : public EventStress {
  protected:
    // A cancelled wait may have been signalled: the platform then signals for another waiter,
    // without the mutex, which helgrind takes for a mistake.
    void SetUp() override { SKIP_UNDER_HELGRIND(); }
    // Cancels a thread that does nothing but wait, at some moment, while another signals.
    void cancel_in(const std::function<void()>& one_wait, const std::vector<HANDLE>& events) {
        const std::uint64_t rounds = hand_overs() / 100;
        for (std::uint64_t round = 0; round < rounds; ++round) {
            RawThread waiter([&] {
                for (;;)
                    one_wait();
            });
            const std::uint64_t signals = round % 16;
            for (std::uint64_t i = 0; i < signals; ++i)
                signal(events[(round + i) % events.size()]);
            if (round % 3 == 0) nap(microseconds(20 * (round % 50)));
            waiter.cancel();
            for (HANDLE handle : events)
                signal(handle);
            reset(events);
            ASSERT_TRUE(waiter.join());
            expect_usable(events);
        }
    }

  private:
    void reset(const std::vector<HANDLE>& events) {
        for (HANDLE handle : events)
            EXPECT_EQ(CALL(KxResetEvent)(osal, handle, nullptr), KC_OK);
    }
    void expect_usable(const std::vector<HANDLE>& events) {
        std::size_t left = 0;
        for (HANDLE handle : events)
            left += registrations(handle);
        EXPECT_EQ(record->MemoryPagedInUse, left * sizeof(osal::Registration));
        EXPECT_LE(left, events.size()) << "those of one wait";
        for (HANDLE handle : events) {
            signal(handle);
            EXPECT_EQ(wait(handle, 0), KC_OK);
            EXPECT_TRUE(mutex_is_free(handle));
            clear_registrations(osal, handle);
        }
        reset(events);
        EXPECT_EQ(record->MemoryPagedInUse, 0u);
        forget_statuses();
    }
};
OSAL_BOTH_WAYS(CancelledWaits);

TEST_P(CancelledWaits, ForOneEvent) {
    HANDLE handle = make(KxSynchronizationEvent);
    for (INT64 timeout : {INT64{-1}, kPatient})
        cancel_in([&] { wait(handle, timeout); }, {handle});
}

TEST_P(CancelledWaits, ForAnyOfSeveralEvents) {
    const auto events =
        make_all({KxSynchronizationEvent, KxSynchronizationEvent, KxSynchronizationEvent});
    for (INT64 timeout : {INT64{-1}, kPatient})
        cancel_in([&] { wait_any(events, timeout); }, events);
}

TEST_P(CancelledWaits, ForAllOfSeveralEvents) {
    const auto events =
        make_all({KxSynchronizationEvent, KxSynchronizationEvent, KxSynchronizationEvent});
    for (INT64 timeout : {INT64{-1}, kPatient})
        cancel_in([&] { wait_all(events, timeout); }, events);
}

TEST_P(CancelledWaits, ForTheExitOfAThread) {
    HANDLE end = make(KxNotificationEvent);
    const struct {
        PIOsal osal;
        HANDLE end;
    } context = {osal, end};
    using Context = decltype(context);
    HANDLE thread = nullptr;
    const auto routine = [](HANDLE self, PVOID argument) -> void* {
        auto* given = static_cast<Context*>(argument);
        KxWaitForSingleEvent(given->osal, given->end, -1);
        KxExitThread(given->osal, self, 7, FALSE);
        return nullptr;
    };
    ASSERT_EQ(CALL(KxCreateThread)(osal, KX_PRIORITY_NORMAL, routine,
                                   const_cast<std::remove_const_t<Context>*>(&context), &thread),
              KC_OK);
    const std::uint64_t rounds = hand_overs() / 50;
    for (std::uint64_t round = 0; round < rounds; ++round) {
        RawThread waiter([&] {
            for (;;)
                CALL(KxWaitForThreadExit)(osal, thread, round % 2 == 0 ? -1 : kPatient);
        });
        if (round % 3 == 0) nap(microseconds(20 * (round % 50)));
        waiter.cancel();
        ASSERT_TRUE(waiter.join());
        EXPECT_EQ(CALL(KxSetThreadPriority)(osal, thread, KX_PRIORITY_NORMAL), KC_OK)
            << "takes the mutex";
    }
    signal(end);
    EXPECT_EQ(CALL(KxWaitForThreadExit)(osal, thread, -1), KC_OK);
    EXPECT_EQ(CALL(KxGetThreadExitStatus)(osal, thread), 7u);
    EXPECT_EQ(CALL(KxDestroyThread)(osal, thread), KC_OK);
    forget_statuses();
}

}  // namespace
}  // namespace osal_test
