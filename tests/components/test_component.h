// Between the tests of the component runtime and the component libraries built for them.
//
// The libraries do nothing of their own: each routine that the runtime calls tells the test program
// so, under the component's name, and returns what it is told. A test can thus act from inside any
// routine.
#pragma once

#include "osal/component.h"

OSAL_BEGIN_DECLS

// Defined and exported by the test program. The result is a status; for "DllGetClassObject" it is
// the HRESULT. Events: "DllStart", "DllGetClassObject", "CreateInstance", "Release" (of the
// factory), "DllStop", "unloaded".
HRESULT component_event(const char* component, const char* event);

OSAL_END_DECLS

namespace test_component {

inline constexpr GUID kAlpha = {0xA1FAA1FA, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
inline constexpr GUID kBeta = {0xBE7ABE7A, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
inline constexpr GUID kShared = {0x58A2ED00, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};  // of alpha and beta
inline constexpr GUID kOsal = {
    0x9074B2E1, 0xB573, 0x11D2, {0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94, 0x64}};
inline constexpr GUID kNobodys = {0x58A2ED00, 1, 1, {1, 1, 1, 1, 1, 1, 1, 2}};
inline constexpr GUID kInstance = {0x17E2FACE, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};

// What CreateInstance gives out: static, not counted.
struct Instance {
    const char* component;
    GUID clsid;   // asked of DllGetClassObject last
    void* outer;  // as CreateInstance got them
    GUID iid;
};

}  // namespace test_component
