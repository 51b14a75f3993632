// Index of the timer queue: from a tick to the last timer that is due in it.
//
// The queue is a delta list, in which the place of a timer is found by walking. The index finds it
// in a number of steps that depends on the range of ticks only: a tree of 16-way nodes, each of
// which looks at one digit of the tick, the highest first. A node stands only where ticks differ,
// so that each has two branches or more and there are fewer nodes than timers. Each timer in the
// queue therefore lends the index one node, and nothing is ever allocated.
//
// Everything here is guarded by g_OsalTimerQueueMutex.
#pragma once

#include <cstdint>

#include "osal/types.h"

struct _KX_TIMER_HANDLE_;

namespace osal {

using Timer = _KX_TIMER_HANDLE_;
struct IndexNode;

// What hangs below a node: nothing, a timer, or a further node (tagged in the lowest bit).
class Branch {
  public:
    Branch() = default;
    explicit Branch(Timer* timer) : word_(reinterpret_cast<std::uintptr_t>(timer)) {}
    explicit Branch(IndexNode* node) : word_(reinterpret_cast<std::uintptr_t>(node) | kNode) {}

    bool empty() const { return word_ == 0; }
    bool is_node() const { return (word_ & kNode) != 0; }
    Timer* timer() const { return reinterpret_cast<Timer*>(word_); }
    IndexNode* node() const { return reinterpret_cast<IndexNode*>(word_ - kNode); }

  private:
    static constexpr std::uintptr_t kNode = 1;
    std::uintptr_t word_;
};

// Lent by a timer while that is in the queue; part of the tree or one of the free nodes.
struct IndexNode {
    static constexpr unsigned kDigitBits = 4;
    static constexpr unsigned kBranches = 1u << kDigitBits;

    UINT64 prefix;  // what all ticks below share; this digit and the lower ones are zero
    UINT16 used;    // which branches are not empty; 0 in a free node
    UINT8 shift;    // position of this node's digit, in bits
    union {
        Branch branches[kBranches];
        LIST_ENTRY free;  // link among the free nodes
    };
};

// Enters a timer, whose expiry is set, as the last of its tick, and takes its node on loan. Returns
// the timer that comes before it in the queue, or null if it comes first.
Timer* index_insert(Timer* timer);

// Fetches into the cache what insertions at these ticks will touch, all at a time: one after the
// other, each would wait for memory at every step. At most kScouts ticks.
constexpr unsigned kScouts = 16;
void index_prefetch(const UINT64* ticks, unsigned count);

// Takes out a timer that is still linked in the queue and gives its node back.
void index_erase(Timer* timer);

// Forgets everything.
void index_clear();

}  // namespace osal
