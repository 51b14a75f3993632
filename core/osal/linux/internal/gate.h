// A lock for a few loads and stores, which costs one locked instruction a turn; a mutex costs two.
//
// Nothing is called, waited for or unwound behind a gate, so a thread that finds it closed spins
// for a moment, and sleeps in between if whoever is behind it lost the processor there. The store
// that opens it is the last access to it: its record may be freed by the next who gets through.
#pragma once

#include <atomic>

#include "osal/internal/annotations.h"
#include "osal/internal/atomics.h"
#include "osal/internal/valgrind.h"

namespace osal {

struct CAPABILITY("gate") Gate {
    UINT32 closed;   // 1 while somebody is behind it; atomic
    UINT32 watched;  // valgrind looks on; never changes

    void init() NO_THREAD_SAFETY_ANALYSIS {
        closed = 0;
        watched = under_valgrind();
        announce_atomics(closed);
    }
    void enter() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS {
        if (!try_enter()) [[unlikely]]
            enter_later();
        if (watched) [[unlikely]]
            announce_acquire_apart(closed);
    }
    void leave() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (watched) [[unlikely]]
            announce_release_apart(closed);
        store(closed, UINT32{0});
    }

  private:
    bool try_enter() {
        return std::atomic_ref<UINT32>(closed).exchange(1, std::memory_order_acquire) == 0;
    }
    void enter_later();
};

// Behind a gate for a scope.
class SCOPED_CAPABILITY Behind {
  public:
    explicit Behind(Gate& gate) ACQUIRE(gate) : gate_(gate) { gate_.enter(); }
    ~Behind() RELEASE() { gate_.leave(); }
    Behind(const Behind&) = delete;
    Behind& operator=(const Behind&) = delete;

  private:
    Gate& gate_;
};

}  // namespace osal
