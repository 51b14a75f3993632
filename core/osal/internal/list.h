// List helpers for use inside the library; the exported list services call them too.
//
// Nothing is checked and no lock is taken: whoever owns a list guards it.
#pragma once

#include <cstddef>

#include "osal/list.h"

inline void OsalInitializeListHead(PLIST_ENTRY head) {
    head->Flink = head;
    head->Blink = head;
}

inline bool OsalIsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head;
}

inline void OsalInsertEntryAfter(PLIST_ENTRY entry, PLIST_ENTRY after) {
    PLIST_ENTRY next = after->Flink;
    entry->Flink = next;
    entry->Blink = after;
    next->Blink = entry;
    after->Flink = entry;
}

inline void OsalInsertEntryBefore(PLIST_ENTRY entry, PLIST_ENTRY before) {
    OsalInsertEntryAfter(entry, before->Blink);
}

inline void OsalInsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    OsalInsertEntryAfter(entry, head);
}

inline void OsalInsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    OsalInsertEntryBefore(entry, head);
}

// Takes an entry out and leaves its own pointers as they are: for records that are wiped next.
inline void OsalUnlinkEntry(PLIST_ENTRY entry) {
    PLIST_ENTRY next = entry->Flink;
    PLIST_ENTRY previous = entry->Blink;
    previous->Flink = next;
    next->Blink = previous;
}

inline void OsalRemoveEntryList(PLIST_ENTRY entry) {
    OsalUnlinkEntry(entry);
    entry->Blink = KX_LIST_POISON;
    entry->Flink = KX_LIST_POISON;
}

inline PLIST_ENTRY OsalRemoveHeadList(PLIST_ENTRY head) {
    if (OsalIsListEmpty(head)) return nullptr;
    PLIST_ENTRY entry = head->Flink;
    OsalRemoveEntryList(entry);
    return entry;
}

inline PLIST_ENTRY OsalRemoveTailList(PLIST_ENTRY head) {
    if (OsalIsListEmpty(head)) return nullptr;
    PLIST_ENTRY entry = head->Blink;
    OsalRemoveEntryList(entry);
    return entry;
}

namespace osal {

// The record that embeds an entry at the given offset: record_of<Timer>(entry, offsetof(...)).
template <class Record>
Record* record_of(PLIST_ENTRY entry, std::size_t offset) {
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(entry) - offset);
}

}  // namespace osal
