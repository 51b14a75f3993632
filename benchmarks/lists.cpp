// List services against the same steps written in place, and against the standard list.
#include <list>

#include "harness.h"
#include "library.h"

namespace {

using bench::keep;

struct Item {
    LIST_ENTRY link;
    std::uint64_t value;
};

constexpr std::uint64_t kItems = 1000;

void link_last(LIST_ENTRY* head, LIST_ENTRY* entry) {
    LIST_ENTRY* last = head->Blink;
    entry->Flink = head;
    entry->Blink = last;
    last->Flink = entry;
    head->Blink = entry;
}

LIST_ENTRY* unlink_first(LIST_ENTRY* head) {
    LIST_ENTRY* entry = head->Flink;
    if (entry == head) return nullptr;
    entry->Blink->Flink = entry->Flink;
    entry->Flink->Blink = entry->Blink;
    entry->Flink = nullptr;
    entry->Blink = nullptr;
    return entry;
}

// A queue of a thousand: one in at the end, one out at the front.
void queue(bench::Report& report, PIOsal osal) {
    static Item raw_items[kItems], table_items[kItems];
    LIST_ENTRY raw_head = {&raw_head, &raw_head}, table_head;
    osal->lpVtbl->KxInitializeListHead(osal, &table_head);
    std::list<std::uint64_t> standard;
    for (std::uint64_t i = 0; i < kItems; ++i) {
        link_last(&raw_head, &raw_items[i].link);
        osal->lpVtbl->KxInsertTailList(osal, &table_head, &table_items[i].link);
        standard.push_back(i);
    }
    report.race("Queue of 1,000 entries", "first to last", 1,
                {{"in place",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          link_last(&raw_head, unlink_first(&raw_head));
                  }},
                 {"list services, by table",
                  [&, osal](std::uint64_t n) {
                      for (; n != 0; --n)
                          osal->lpVtbl->KxInsertTailList(
                              osal, &table_head, osal->lpVtbl->KxRemoveHeadList(osal, &table_head));
                  }},
                 {"list services, by name",
                  [&, osal](std::uint64_t n) {
                      for (; n != 0; --n)
                          KxInsertTailList(osal, &table_head, KxRemoveHeadList(osal, &table_head));
                  }},
                 {"std::list", [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          const std::uint64_t value = standard.front();
                          standard.pop_front();
                          standard.push_back(value);
                      }
                  }}});
}

// An entry is put in behind another one in the middle and taken out again.
void middle(bench::Report& report, PIOsal osal) {
    LIST_ENTRY head, anchor, entry;
    osal->lpVtbl->KxInitializeListHead(osal, &head);
    osal->lpVtbl->KxInsertTailList(osal, &head, &anchor);
    std::list<std::uint64_t> standard(2);
    const auto place = std::next(standard.begin());
    report.race("In and out in the middle", "insert after, remove", 1,
                {{"in place",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          LIST_ENTRY* next = anchor.Flink;
                          entry.Flink = next;
                          entry.Blink = &anchor;
                          next->Blink = &entry;
                          anchor.Flink = &entry;
                          entry.Blink->Flink = entry.Flink;
                          entry.Flink->Blink = entry.Blink;
                      }
                  }},
                 {"list services, by table",
                  [&, osal](std::uint64_t n) {
                      for (; n != 0; --n) {
                          osal->lpVtbl->KxInsertEntryAfter(osal, &head, &entry, &anchor);
                          osal->lpVtbl->KxRemoveEntryList(osal, &entry);
                      }
                  }},
                 {"std::list", [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          standard.erase(standard.insert(place, n));
                  }}});
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv, {"lists", "Lists", "one entry in and out", "", ""});
    bench::Library library;
    bench::Instance osal;
    queue(report, osal);
    middle(report, osal);
    return report.finish();
}
