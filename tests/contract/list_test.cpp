// Lists, by export and by slot.
#include "osal/list.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <vector>

#include "osal/internal/list.h"
#include "support/service_test.h"

namespace osal_test {
namespace {

class List : public BothWays {
  protected:
    List() { CALL(KxInitializeListHead)(osal, &head); }

    // The entries in order, checked in both directions.
    std::vector<LIST_ENTRY*> entries() {
        std::vector<LIST_ENTRY*> forward, backward;
        for (LIST_ENTRY* entry = head.Flink; entry != &head; entry = entry->Flink)
            forward.push_back(entry);
        for (LIST_ENTRY* entry = head.Blink; entry != &head; entry = entry->Blink)
            backward.push_back(entry);
        std::reverse(backward.begin(), backward.end());
        EXPECT_EQ(forward, backward);
        return forward;
    }

    using Entries = std::vector<LIST_ENTRY*>;
    LIST_ENTRY head, a, b, c;
};
OSAL_BOTH_WAYS(List);

void expect_unlinked(const LIST_ENTRY& entry) {
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(entry.Flink), 0xBAADF00Du);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(entry.Blink), 0xBAADF00Du);
}

TEST_P(List, ANewHeadPointsToItselfBothWaysAndIsEmpty) {
    EXPECT_EQ(head.Flink, &head);
    EXPECT_EQ(head.Blink, &head);
    EXPECT_EQ(CALL(KxIsListEmpty)(osal, &head), 1);
}

TEST_P(List, AListWithAnEntryIsNotEmpty) {
    CALL(KxInsertTailList)(osal, &head, &a);
    EXPECT_EQ(CALL(KxIsListEmpty)(osal, &head), 0);
}

TEST_P(List, InsertTailKeepsTheOrderOfInsertion) {
    for (LIST_ENTRY* entry : {&a, &b, &c})
        CALL(KxInsertTailList)(osal, &head, entry);
    EXPECT_EQ(entries(), (Entries{&a, &b, &c}));
}

TEST_P(List, InsertHeadReversesTheOrderOfInsertion) {
    for (LIST_ENTRY* entry : {&a, &b, &c})
        CALL(KxInsertHeadList)(osal, &head, entry);
    EXPECT_EQ(entries(), (Entries{&c, &b, &a}));
}

TEST_P(List, InsertAfterLinksDirectlyAfterTheEntryGiven) {
    CALL(KxInsertTailList)(osal, &head, &a);
    CALL(KxInsertTailList)(osal, &head, &b);
    CALL(KxInsertEntryAfter)(osal, &head, &c, &a);
    EXPECT_EQ(entries(), (Entries{&a, &c, &b}));
}

TEST_P(List, InsertBeforeLinksDirectlyBeforeTheEntryGiven) {
    CALL(KxInsertTailList)(osal, &head, &a);
    CALL(KxInsertTailList)(osal, &head, &b);
    CALL(KxInsertEntryBefore)(osal, &head, &c, &b);
    EXPECT_EQ(entries(), (Entries{&a, &c, &b}));
}

TEST_P(List, InsertAfterAndBeforeDoNotUseTheListHead) {
    CALL(KxInsertTailList)(osal, &head, &a);
    CALL(KxInsertEntryAfter)(osal, nullptr, &b, &a);
    CALL(KxInsertEntryBefore)(osal, nullptr, &c, &a);
    EXPECT_EQ(entries(), (Entries{&c, &a, &b}));
}

TEST_P(List, RemoveEntryJoinsTheNeighboursAndMarksTheEntry) {
    for (LIST_ENTRY* entry : {&a, &b, &c})
        CALL(KxInsertTailList)(osal, &head, entry);
    CALL(KxRemoveEntryList)(osal, &b);
    EXPECT_EQ(entries(), (Entries{&a, &c}));
    expect_unlinked(b);
}

TEST_P(List, RemovingTheOnlyEntryLeavesAnEmptyList) {
    CALL(KxInsertTailList)(osal, &head, &a);
    CALL(KxRemoveEntryList)(osal, &a);
    EXPECT_EQ(CALL(KxIsListEmpty)(osal, &head), 1);
    EXPECT_EQ(entries(), Entries{});
}

TEST_P(List, RemoveHeadReturnsTheFirstEntryUnlinked) {
    for (LIST_ENTRY* entry : {&a, &b, &c})
        CALL(KxInsertTailList)(osal, &head, entry);
    EXPECT_EQ(CALL(KxRemoveHeadList)(osal, &head), &a);
    expect_unlinked(a);
    EXPECT_EQ(entries(), (Entries{&b, &c}));
}

TEST_P(List, RemoveTailReturnsTheLastEntryUnlinked) {
    for (LIST_ENTRY* entry : {&a, &b, &c})
        CALL(KxInsertTailList)(osal, &head, entry);
    EXPECT_EQ(CALL(KxRemoveTailList)(osal, &head), &c);
    expect_unlinked(c);
    EXPECT_EQ(entries(), (Entries{&a, &b}));
}

TEST_P(List, RemoveHeadOfAnEmptyListReturnsNullAndLeavesTheHead) {
    EXPECT_EQ(CALL(KxRemoveHeadList)(osal, &head), nullptr);
    EXPECT_EQ(head.Flink, &head);
    EXPECT_EQ(head.Blink, &head);
}

TEST_P(List, RemoveTailOfAnEmptyListReturnsNullAndLeavesTheHead) {
    EXPECT_EQ(CALL(KxRemoveTailList)(osal, &head), nullptr);
    EXPECT_EQ(head.Flink, &head);
    EXPECT_EQ(head.Blink, &head);
}

TEST_P(List, TheInstanceIsIgnored) {
    CALL(KxInitializeListHead)(nullptr, &head);
    CALL(KxInsertHeadList)(nullptr, &head, &b);
    CALL(KxInsertTailList)(nullptr, &head, &c);
    CALL(KxInsertEntryAfter)(nullptr, &head, &a, &head);
    EXPECT_EQ(entries(), (Entries{&a, &b, &c}));
    EXPECT_EQ(CALL(KxIsListEmpty)(nullptr, &head), 0);
    EXPECT_EQ(CALL(KxRemoveHeadList)(nullptr, &head), &a);
    EXPECT_EQ(CALL(KxRemoveTailList)(nullptr, &head), &c);
    CALL(KxRemoveEntryList)(nullptr, &b);
    EXPECT_EQ(CALL(KxIsListEmpty)(nullptr, &head), 1);
    CALL(KxInsertEntryBefore)(nullptr, &head, &a, &head);
    EXPECT_EQ(entries(), Entries{&a});
}

// Random operations beside a deque of the same entries.
TEST_P(List, BehavesAsADequeDoes) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    std::vector<LIST_ENTRY> pool(50);
    std::vector<LIST_ENTRY*> spare;
    for (LIST_ENTRY& entry : pool)
        spare.push_back(&entry);
    std::deque<LIST_ENTRY*> model;

    auto pick = [&](std::size_t size) { return random() % size; };
    for (int round = 0; round < 5000; ++round) {
        if (!spare.empty() && random() % 2 == 0) {
            LIST_ENTRY* entry = spare.back();
            spare.pop_back();
            const std::size_t at = model.empty() ? 0 : pick(model.size());
            switch (model.empty() ? random() % 2 : random() % 4) {
                case 0:
                    CALL(KxInsertHeadList)(osal, &head, entry);
                    model.push_front(entry);
                    break;
                case 1:
                    CALL(KxInsertTailList)(osal, &head, entry);
                    model.push_back(entry);
                    break;
                case 2:
                    CALL(KxInsertEntryAfter)(osal, &head, entry, model[at]);
                    model.insert(model.begin() + static_cast<long>(at) + 1, entry);
                    break;
                default:
                    CALL(KxInsertEntryBefore)(osal, &head, entry, model[at]);
                    model.insert(model.begin() + static_cast<long>(at), entry);
            }
        } else if (!model.empty()) {
            const std::size_t which = random() % 3;
            const std::size_t at = which == 0   ? 0
                                   : which == 1 ? model.size() - 1
                                                : pick(model.size());
            LIST_ENTRY* entry = model[at];
            if (which == 0)
                ASSERT_EQ(CALL(KxRemoveHeadList)(osal, &head), entry);
            else if (which == 1)
                ASSERT_EQ(CALL(KxRemoveTailList)(osal, &head), entry);
            else
                CALL(KxRemoveEntryList)(osal, entry);
            expect_unlinked(*entry);
            model.erase(model.begin() + static_cast<long>(at));
            spare.push_back(entry);
        }
        ASSERT_EQ(entries(), Entries(model.begin(), model.end())) << "round " << round;
    }
}

// The helpers used inside the library behave as the services do.
TEST(ListHelpers, ServeTheSameRing) {
    LIST_ENTRY head, a, b, c, d;
    OsalInitializeListHead(&head);
    EXPECT_TRUE(OsalIsListEmpty(&head));
    EXPECT_EQ(OsalRemoveHeadList(&head), nullptr);
    EXPECT_EQ(OsalRemoveTailList(&head), nullptr);
    OsalInsertTailList(&head, &b);
    OsalInsertHeadList(&head, &a);
    OsalInsertEntryAfter(&d, &b);
    OsalInsertEntryBefore(&c, &d);
    EXPECT_EQ(KxRemoveHeadList(nullptr, &head), &a);
    EXPECT_EQ(OsalRemoveTailList(&head), &d);
    EXPECT_EQ(OsalRemoveHeadList(&head), &b);
    OsalRemoveEntryList(&c);
    for (const LIST_ENTRY& entry : {a, b, c, d})
        expect_unlinked(entry);
    EXPECT_TRUE(KxIsListEmpty(nullptr, &head));
}

}  // namespace
}  // namespace osal_test
