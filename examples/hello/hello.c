#include <stdio.h>

#include "host/lcm.h"
#include "osal/osal.h"

OSAL_DEFINE_IDENTIFIERS

int main(void) {
    IOsal* osal;
    if (KC_IS_ERROR(LcmStart(NULL)) ||
        KC_IS_ERROR(LcmCreateInstance(&CLSID_OrvaneOsal, NULL, &IID_IOrvaneOsal_1, (void**)&osal)))
        return 1;
    char* name = osal->lpVtbl->KxAllocPagedMemory(osal, 16);
    snprintf(name, 16, "%s", "component");
    printf("%s hashes to %u\n", name, osal->lpVtbl->KxStrHash(osal, name, 1009));
    osal->lpVtbl->KxFreeMemory(osal, name);
    osal->lpVtbl->Release(osal);
    LcmStop();
    return 0;
}
