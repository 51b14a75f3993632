// A client in C++20: headers and library, nothing else.
#include <cstdio>
#include <string_view>
#include <type_traits>

#include "osal/osal.h"

static_assert(std::is_standard_layout_v<GUID> && std::is_trivial_v<GUID>);
static_assert(std::is_standard_layout_v<LIST_ENTRY> && sizeof(LIST_ENTRY) == 16);
static_assert(sizeof(IOsalVtbl) == 90 * sizeof(void*));
static_assert(std::is_same_v<WCHAR, std::uint16_t>);
static_assert(KC_IS_ERROR(0xC7F10000) && !KC_IS_ERROR(1) && KC_FACILITY(0xC7F10004) == 2033);

namespace {

struct Client {
    Client() {
        DllStart();
        void* object = nullptr;
        if (DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &object) != KC_S_OK) return;
        auto* factory = static_cast<LCM_IClassFactory*>(object);
        void* instance = nullptr;
        factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IOrvaneOsal_1, &instance);
        factory->lpVtbl->Release(factory);
        osal = static_cast<PIOsal>(instance);
    }
    ~Client() {
        if (osal != nullptr) osal->lpVtbl->Release(osal);
        DllStop();
    }
    PIOsal osal = nullptr;
};

bool works(PIOsal osal) {
    void* same = nullptr;
    if (osal->lpVtbl->QueryInterface(osal, &IID_IOrvaneOsal_1, &same) != KC_OK) return false;
    if (same != osal || osal->lpVtbl->Release(osal) != 1) return false;
    auto* text = static_cast<char*>(KxAllocNonPagedMemory(osal, 8));
    if (text == nullptr) return false;
    KxFillMemory(osal, text, 8, 'x');
    const bool filled = std::string_view(text, 8) == "xxxxxxxx";
    return osal->lpVtbl->KxFreeMemory(osal, text) == KC_OK && filled &&
           KxStrHash(osal, "AB", 1000) == 106;
}

}  // namespace

int main() {
    Client client;
    if (client.osal != nullptr && works(client.osal)) return 0;
    std::fputs("the library does not work\n", stderr);
    return 1;
}
