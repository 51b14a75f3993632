// Helpers of tests of timers and work items.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "osal/linux/internal/schedule.h"
#include "osal/osal.h"
#include "support/threads.h"

namespace osal_test {

// Whether every worker sleeps with nothing queued.
bool workers_idle();

// The heads of the timer queues and of the queue of work items, for threads that are stopped.
PKX_TIMER_HANDLE first_timer();
PKX_TIMER_HANDLE first_fed_timer();
PLIST_ENTRY work_item_queue();

// Stops the workers; queued items stay queued until the object goes, and none runs.
class StoppedWorkers {
  public:
    StoppedWorkers();
};

// Stops the timer thread, so that a test passes the ticks itself: OsalServiceTimerQueues.
class StoppedTimerThread {
  public:
    StoppedTimerThread();
};

// Stops every thread of the library.
class StoppedThreads {
  public:
    StoppedThreads();
};

// Keeps all eight workers in routines that wait.
class BusyWorkers {
  public:
    static constexpr int kItems = 8;

    explicit BusyWorkers(PIOsal osal);
    ~BusyWorkers();
    void release_one();
    void release();  // all
    void finish();   // releases all and waits until they are out

  private:
    struct Gate;
    PIOsal osal_;
    std::shared_ptr<Gate> gate_;
    std::vector<HANDLE> items_;
};

// Items with a number each that note the order in which they are run.
class RunOrder {
  public:
    explicit RunOrder(PIOsal osal) : osal_(osal) {}
    ~RunOrder();
    void schedule(int number);
    std::vector<int> taken();

  private:
    struct Numbered {
        RunOrder* order;
        int number;
    };
    static void* note(HANDLE item, void* context);

    PIOsal osal_;
    std::mutex mutex_;
    std::vector<int> taken_;
    std::vector<std::unique_ptr<Numbered>> numbered_;
    std::vector<HANDLE> items_;
};

}  // namespace osal_test
