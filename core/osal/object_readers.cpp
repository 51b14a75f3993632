// Look-ups by handle that take no lock; see the header.
#include "osal/internal/object_readers.h"

#include "osal/internal/object.h"

namespace osal {
namespace {

constexpr unsigned kCellBits = 5;
constinit ReaderCell cells[1 << kCellBits] = {};

ReaderCell& cell_of(std::uintptr_t thread) {
    constexpr UINT64 kSpread = 0x9E3779B97F4A7C15;
    return cells[thread / 64 * kSpread >> (64 - kCellBits)];
}

// To be called before a look begins. Sequentially consistent: whoever frees a block and does not
// know of this thread yet is seen by all looks of it.
[[gnu::noinline]] void note_looker(Lookers& lookers) {
    std::uintptr_t found = Lookers::kNobody;
    if (!lookers.thread.compare_exchange_strong(found, thread_token()))
        lookers.thread.store(Lookers::kMany);
}

bool is_noted(const Lookers& lookers) {
    const std::uintptr_t noted = lookers.thread.load();
    return noted == thread_token() || noted == Lookers::kMany;
}

// Marks the calling thread as a reader for the scope. Nothing in it waits, calls out or can be
// cancelled.
class Reading {
  public:
    explicit Reading(Lookers& lookers) : cell_(cell_of(thread_token())) {
        if (!is_noted(lookers)) [[unlikely]]
            note_looker(lookers);
        owns_ = cell_.owner.load(std::memory_order_relaxed) == thread_token();
        if (owns_) [[likely]]
            enter_as_owner();
        else
            enter_beside_owner();
    }
    ~Reading() {
        if (owns_) [[likely]]
            cell_.busy.store(0, std::memory_order_release);
        else
            cell_.others.fetch_sub(1, std::memory_order_release);
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

  private:
    void enter_as_owner() {
        // Orders this look behind the last one of a thread whose control block this one got.
        (void)cell_.busy.load(std::memory_order_acquire);
        cell_.busy.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);  // made a real one by process_barrier
    }
    // Becomes the owner from the next look on if there is none.
    [[gnu::noinline]] void enter_beside_owner() {
        cell_.others.fetch_add(1);
        std::uintptr_t nobody = 0;
        if (cell_.owner.load() == nobody && barrier_granted())
            cell_.owner.compare_exchange_strong(nobody, thread_token());
    }

    ReaderCell& cell_;
    bool owns_;
};

// A preallocated object is not plainly live: its opening may run client code under the instance
// lock, and forgets the references it finds.
constexpr bool plainly_live(UINT64 state, UCHAR generation) {
    constexpr UINT8 flags = OBJ_FLAG_IN_USE | OBJ_FLAG_FREE | OBJ_FLAG_PREALLOCATED | kEndingFlags;
    return (state & state_of(flags, kHandedOver, 0xFF, 0)) ==
               state_of(OBJ_FLAG_IN_USE, 0, generation, 0) &&
           state >= kOneReference;
}

bool reference_plainly_live(pObject ob, UCHAR generation) {
    std::atomic_ref<UINT64> state = state_word(ob);
    UINT64 found = state.load();
    while (plainly_live(found, generation))
        if (state.compare_exchange_weak(found, found + kOneReference)) return true;
    return false;
}

}  // namespace

pObject reference_unlocked(pObjectInfo oi, UINT32 handle) {
    Reading reading(oi->lookers);
    pObject ob = named_slot(oi, handle);
    return ob != nullptr && reference_plainly_live(ob, handle_generation(handle)) ? ob : nullptr;
}

// The calling thread itself does not look. Where the barrier was not granted, no cell has an owner.
void await_readers(pObjectInfo oi) {
    const std::uintptr_t looker = oi->lookers.thread.load();
    if (looker == Lookers::kNobody || looker == thread_token()) return;
    if (barrier_granted()) process_barrier();
    for (ReaderCell& cell : cells)
        while (cell.busy.load() != 0 || cell.others.load() != 0)
            pause_for_mark();
}

}  // namespace osal
