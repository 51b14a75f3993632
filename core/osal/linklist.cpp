// List services: the exported face of the list helpers. The instance is ignored throughout.
#include "osal/list.h"

#include "osal/internal/list.h"

void KxInitializeListHead(PIOsal, PLIST_ENTRY pListEntry) {
    OsalInitializeListHead(pListEntry);
}

void KxInsertEntryAfter(PIOsal, PLIST_ENTRY, PLIST_ENTRY pListEntry, PLIST_ENTRY pAfterEntry) {
    OsalInsertEntryAfter(pListEntry, pAfterEntry);
}

void KxInsertEntryBefore(PIOsal, PLIST_ENTRY, PLIST_ENTRY pListEntry, PLIST_ENTRY pBeforeEntry) {
    OsalInsertEntryBefore(pListEntry, pBeforeEntry);
}

void KxInsertHeadList(PIOsal, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry) {
    OsalInsertHeadList(pListHead, pListEntry);
}

void KxInsertTailList(PIOsal, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry) {
    OsalInsertTailList(pListHead, pListEntry);
}

BOOLEAN KxIsListEmpty(PIOsal, PLIST_ENTRY pListHead) {
    return OsalIsListEmpty(pListHead);
}

void KxRemoveEntryList(PIOsal, PLIST_ENTRY pListEntry) {
    OsalRemoveEntryList(pListEntry);
}

PLIST_ENTRY KxRemoveHeadList(PIOsal, PLIST_ENTRY pListHead) {
    return OsalRemoveHeadList(pListHead);
}

PLIST_ENTRY KxRemoveTailList(PIOsal, PLIST_ENTRY pListHead) {
    return OsalRemoveTailList(pListHead);
}
