/* A client in C11: headers and library, nothing else. */
#include <stdio.h>
#include <string.h>

#include "osal/osal.h"

_Static_assert(sizeof(BOOLEAN) == 1, "");
_Static_assert(sizeof(WCHAR) == 2, "");
_Static_assert(sizeof(KCSTATUS) == 4, "");
_Static_assert(sizeof(HRESULT) == 8, "");
_Static_assert(sizeof(HANDLE) == 8, "");
_Static_assert(sizeof(GUID) == 16, "");
_Static_assert(offsetof(GUID, Data4) == 8, "");
_Static_assert(sizeof(LIST_ENTRY) == 16, "");
_Static_assert(offsetof(LIST_ENTRY, Blink) == 8, "");
_Static_assert(sizeof(STRING) == 16, "");
_Static_assert(sizeof(UNICODE_STRING) == 16, "");
_Static_assert(offsetof(UNICODE_STRING, MaximumLength) == 2, "");
_Static_assert(offsetof(UNICODE_STRING, Buffer) == 8, "");
_Static_assert(sizeof(CFInstance) == 16, "");
_Static_assert(offsetof(CFInstance, cReference) == 8, "");
_Static_assert(offsetof(CFInstance, cLock) == 12, "");
_Static_assert(sizeof(LCM_IClassFactoryVtbl) == 5 * 8, "");
_Static_assert(sizeof(IOsalVtbl) == 90 * 8, "");
_Static_assert(KC_MAKE_STATUS(3, 2033, 1) == 0xC7F10001u, "");
_Static_assert(KC_MAKE_STATUS(3, 2042, 0x1001) == 0xC7FA1001u, "");

#define CHECK(condition)                                            \
    do {                                                            \
        if (!(condition)) {                                         \
            fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
            return 1;                                               \
        }                                                           \
    } while (0)

static int use(PIOsal osal) {
    static const WCHAR wide[] = {'A', 0};
    LIST_ENTRY head, entry;
    UINT64 now = 0;
    char* text = osal->lpVtbl->KxAllocPagedMemory(osal, 6);
    CHECK(text != NULL);
    osal->lpVtbl->KxCopyMemory(osal, text, "hello", 6);
    CHECK(osal->lpVtbl->KxCompareMemory(osal, text, "help!", 6) == 3);
    CHECK(osal->lpVtbl->KxStrlen(osal, text) == 5);
    CHECK(KxStrHashW(osal, wide, 1000) == 40);
    CHECK(osal->lpVtbl->KxFreeMemory(osal, text) == KC_OK);
    CHECK(KC_CODE(KxFreeMemory(osal, NULL)) == KC_CODE_INVALID_ARGUMENT);

    KxInitializeListHead(osal, &head);
    osal->lpVtbl->KxInsertTailList(osal, &head, &entry);
    CHECK(KxRemoveHeadList(osal, &head) == &entry);
    CHECK(entry.Flink == KX_LIST_POISON);
    KxGetSystemTime(osal, &now);
    CHECK(now > KX_UNIX_EPOCH);
    CHECK(KxRegisterModuleName(osal, "client") == KC_OK);
    return 0;
}

int main(void) {
    void *object = NULL, *instance = NULL;
    LCM_IClassFactory* factory;
    CHECK(DllStart() == KC_OK);
    CHECK(DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &object) == KC_S_OK);
    factory = object;
    CHECK(factory->lpVtbl->CreateInstance(factory, NULL, &IID_IOrvaneOsal_1, &instance) == KC_OK);
    if (use(instance) != 0) return 1;
    CHECK(OsalReleaseReference(instance) == 0);
    CHECK(factory->lpVtbl->Release(factory) == 0);
    DllStop();
    CHECK(memcmp(TSCOM_Table[0], &CLSID_OrvaneOsal, sizeof(GUID)) == 0);
    return 0;
}
