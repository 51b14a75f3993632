#include <cstdio>

#include "osal/osal.h"

int main() {
    DllStart();
    LCM_IClassFactory* factory;
    IOsal* osal;
    if (DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, (void**)&factory) != KC_S_OK ||
        factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IOrvaneOsal_1, (void**)&osal) != 0)
        return 1;
    UINT64 now;
    KxGetSystemTime(osal, &now);
    std::printf("%llu seconds since 1970\n", (unsigned long long)(now - KX_UNIX_EPOCH) / 10000000);
    OsalReleaseReference(osal);
    DllStop();
}
