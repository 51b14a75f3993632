// Index of the timer queue.
#include "osal/linux/internal/schedule_index.h"

#include <bit>

#include "osal/internal/list.h"
#include "osal/linux/internal/schedule.h"

namespace osal {
namespace {

constexpr std::size_t kCacheLine = 64;

constinit Branch root{};
constinit LIST_ENTRY free_nodes = {&free_nodes, &free_nodes};

unsigned digit_of(UINT64 tick, const IndexNode& node) {
    return static_cast<unsigned>(tick >> node.shift) % IndexNode::kBranches;
}

// The smallest tick that can lie below a branch that is not empty.
UINT64 lowest_tick(Branch branch) {
    return branch.is_node() ? branch.node()->prefix : branch.timer()->expiry;
}

// Whether a tick differs from those below a node in no digit above the node's own.
bool covers(const IndexNode& node, UINT64 tick) {
    return (tick ^ node.prefix) >> node.shift < IndexNode::kBranches;
}

Branch highest_branch(const IndexNode& node, unsigned used) {
    return node.branches[std::bit_width(used) - 1];
}

Timer* last_timer(Branch branch) {
    while (branch.is_node())
        branch = highest_branch(*branch.node(), branch.node()->used);
    return branch.timer();
}

IndexNode* take_free_node() {
    return record_of<IndexNode>(OsalRemoveHeadList(&free_nodes), offsetof(IndexNode, free));
}

IndexNode* new_node() {
    IndexNode* node = take_free_node();
    for (Branch& branch : node->branches)
        branch = Branch{};
    return node;
}

void add_free_node(IndexNode* node) {
    node->used = 0;
    OsalInsertHeadList(&free_nodes, &node->free);
}

// Where the way to a tick ends: at the branch of that tick, at an empty one, or at one whose ticks
// all differ from it.
struct Place {
    Branch* branch = &root;
    Branch* parent = nullptr;  // the branch of the node that holds it; null at the root
    Branch below{};            // the last branch passed with lower ticks only
};

Place find_place(UINT64 tick) {
    Place place;
    while (place.branch->is_node() && covers(*place.branch->node(), tick)) {
        IndexNode& node = *place.branch->node();
        const unsigned digit = digit_of(tick, node);
        if (const unsigned lower = node.used & ((1u << digit) - 1))
            place.below = highest_branch(node, lower);
        place.parent = place.branch;
        place.branch = &node.branches[digit];
    }
    return place;
}

Timer* last_not_after(const Place& place, UINT64 tick) {
    const Branch branch = *place.branch;
    return last_timer(!branch.empty() && lowest_tick(branch) <= tick ? branch : place.below);
}

void mark_used(const Place& place, UINT64 tick) {
    if (place.parent == nullptr) return;
    IndexNode& node = *place.parent->node();
    node.used |= static_cast<UINT16>(1u << digit_of(tick, node));
}

// Puts a node at the highest digit in which the tick of a timer and those below a branch differ.
Branch split(Branch branch, Timer* timer) {
    const UINT64 other = lowest_tick(branch);
    const auto difference = static_cast<unsigned>(std::bit_width(other ^ timer->expiry)) - 1;
    IndexNode& node = *new_node();
    node.shift = static_cast<UINT8>(difference / IndexNode::kDigitBits * IndexNode::kDigitBits);
    node.prefix = timer->expiry >> node.shift >> IndexNode::kDigitBits << IndexNode::kDigitBits
                                                                       << node.shift;
    node.branches[digit_of(other, node)] = branch;
    node.branches[digit_of(timer->expiry, node)] = Branch(timer);
    node.used =
        static_cast<UINT16>(1u << digit_of(other, node) | 1u << digit_of(timer->expiry, node));
    return Branch(&node);
}

// Empties a branch; a node with one branch left gives way to it.
void prune(const Place& place, UINT64 tick) {
    *place.branch = Branch{};
    if (place.parent == nullptr) return;
    IndexNode* node = place.parent->node();
    node->used &= static_cast<UINT16>(~(1u << digit_of(tick, *node)));
    if (!std::has_single_bit(node->used)) return;
    *place.parent = highest_branch(*node, node->used);
    add_free_node(node);
}

// The branch at which a node of the tree hangs.
Branch* branch_of(const IndexNode* node) {
    Branch* branch = &root;
    while (branch->node() != node)
        branch = &branch->node()->branches[digit_of(node->prefix, *branch->node())];
    return branch;
}

// Frees a node for its timer to take along: whatever it does in the tree another one does from now.
void return_node(IndexNode* node) {
    if (node->used == 0) return OsalRemoveEntryList(&node->free);
    Branch* branch = branch_of(node);
    IndexNode* substitute = take_free_node();
    *substitute = *node;
    *branch = Branch(substitute);
}

void fetch(Branch branch) {
    if (branch.is_node()) {
        const char* node = reinterpret_cast<const char*>(branch.node());
        for (std::size_t line = 0; line < sizeof(IndexNode); line += kCacheLine)
            __builtin_prefetch(node + line);
    } else if (!branch.empty()) {
        __builtin_prefetch(&branch.timer()->pNextTimerStruct);
        __builtin_prefetch(&branch.timer()->expiry);
    }
}

// One step down towards the timer before a tick. Does not go back up when a way ends blind.
Branch step_down(const IndexNode& node, UINT64 tick) {
    unsigned used = node.used;
    if (covers(node, tick))
        used &= (2u << digit_of(tick, node)) - 1;
    else if (node.prefix > tick)
        used = 0;
    return used != 0 ? highest_branch(node, used) : Branch{};
}

bool shares_tick(const Timer* timer, const Timer* other) {
    return other != nullptr && other->expiry == timer->expiry;
}

}  // namespace

Timer* index_insert(Timer* timer) {
    const UINT64 tick = timer->expiry;
    add_free_node(&timer->node);
    const Place place = find_place(tick);
    Timer* before = last_not_after(place, tick);
    if (place.branch->empty()) mark_used(place, tick);
    if (place.branch->empty() || lowest_tick(*place.branch) == tick)
        *place.branch = Branch(timer);
    else
        *place.branch = split(*place.branch, timer);
    return before;
}

void index_prefetch(const UINT64* ticks, unsigned count) {
    Branch scouts[kScouts];
    for (unsigned i = 0; i < count; ++i)
        scouts[i] = root;
    for (bool moved = true; moved;) {
        moved = false;
        for (unsigned i = 0; i < count; ++i) {
            if (!scouts[i].is_node()) continue;
            scouts[i] = step_down(*scouts[i].node(), ticks[i]);
            fetch(scouts[i]);
            moved = true;
        }
    }
    for (unsigned i = 0; i < count; ++i)
        if (!scouts[i].empty()) fetch(Branch(scouts[i].timer()->pNextTimerStruct));
}

void index_erase(Timer* timer) {
    const Place place = find_place(timer->expiry);
    if (place.branch->timer() == timer) {
        if (shares_tick(timer, timer->pPrevTimerStruct))
            *place.branch = Branch(timer->pPrevTimerStruct);
        else
            prune(place, timer->expiry);
    }
    return_node(&timer->node);
}

void index_clear() {
    root = Branch{};
    OsalInitializeListHead(&free_nodes);
}

}  // namespace osal
