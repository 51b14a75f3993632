/* Circular, intrusive, doubly linked lists.
 *
 * A list is a ring through a head; an empty head points at itself both ways. Entries are embedded
 * in their owners' records, and no function allocates. No argument is checked. No lock is taken:
 * the owner of a list guards it. Every function ignores pThis, which may be null.
 */
#ifndef OSAL_LIST_H
#define OSAL_LIST_H

#include "osal/iosal.h"

/* Both pointers of an entry that was unlinked, so that a use after removal faults recognisably. */
#define KX_LIST_POISON ((PLIST_ENTRY)(uintptr_t)0xBAADF00Du)

OSAL_BEGIN_DECLS

/* Makes an empty list of a head. */
void KxInitializeListHead(PIOsal pThis, PLIST_ENTRY pListEntry);

/* Links pListEntry directly after (before) another entry or head. pListHead is not used. */
void KxInsertEntryAfter(PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry,
                        PLIST_ENTRY pAfterEntry);
void KxInsertEntryBefore(PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry,
                         PLIST_ENTRY pBeforeEntry);

/* Links an entry as the first (last) of a list. */
void KxInsertHeadList(PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry);
void KxInsertTailList(PIOsal pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry);

/* 1 if the list has no entry, else 0. */
BOOLEAN KxIsListEmpty(PIOsal pThis, PLIST_ENTRY pListHead);

/* Unlinks an entry and sets both its pointers to KX_LIST_POISON. The entry must be linked. */
void KxRemoveEntryList(PIOsal pThis, PLIST_ENTRY pListEntry);

/* Unlinks the first (last) entry as KxRemoveEntryList does and returns it; null if there is none.
 */
PLIST_ENTRY KxRemoveHeadList(PIOsal pThis, PLIST_ENTRY pListHead);
PLIST_ENTRY KxRemoveTailList(PIOsal pThis, PLIST_ENTRY pListHead);

OSAL_END_DECLS

#endif
