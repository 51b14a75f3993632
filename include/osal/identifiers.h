/* Class and interface identifiers, one list for declarations, definitions, exports and tests. */
#ifndef OSAL_IDENTIFIERS_H
#define OSAL_IDENTIFIERS_H

#include "osal/types.h"

/* X(name, Data1, Data2, Data3, the eight bytes of Data4) */
#define OSAL_IDENTIFIERS(X)                                                                       \
    X(CLSID_OrvaneOsal, 0x9074B2E1, 0xB573, 0x11D2, 0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94,     \
      0x64)                                                                                       \
    X(IID_IOrvaneOsal_1, 0x9074B2E0, 0xB573, 0x11D2, 0x82, 0xE6, 0x00, 0x08, 0xC7, 0x29, 0x94,    \
      0x64)                                                                                       \
    X(CLSID_ObjectManagerDataStore, 0x7FDB405F, 0x8F95, 0x11D0, 0xBA, 0xD9, 0x00, 0xC0, 0x4F,     \
      0xC2, 0x8D, 0x48)                                                                           \
    X(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46)   \
    X(IID_IClassFactory, 0x00000001, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,    \
      0x46)                                                                                       \
    X(IID_IObjectManager_1, 0x9F376C29, 0x4F41, 0x11D2, 0x90, 0xAB, 0x00, 0xA0, 0xC9, 0x25, 0xD2, \
      0x48)                                                                                       \
    X(IID_IObjectManager_2, 0x7496CBA4, 0xC0F6, 0x4E8D, 0xBA, 0xAB, 0x7A, 0x59, 0x80, 0x9B, 0x3A, \
      0xDD)                                                                                       \
    X(IID_ISCObjectManager_1, 0xF5BF7C63, 0x24DB, 0x11D3, 0xBD, 0x1F, 0x9F, 0x0F, 0xED, 0x48,     \
      0x78, 0x65)                                                                                 \
    X(IID_ISCObjectManager_2, 0x99D7A180, 0x1E1D, 0x4F8D, 0x94, 0xE1, 0x2E, 0xD3, 0x62, 0x70,     \
      0xD5, 0x4B)                                                                                 \
    X(CLSID_SecurityContextManager, 0x7F4F2EB7, 0x07B3, 0x11D3, 0xBB, 0xF2, 0x00, 0xA0, 0xC9,     \
      0xEA, 0x53, 0xEF)                                                                           \
    X(IID_ISecurityContext_1, 0x7F4F2EB6, 0x07B3, 0x11D3, 0xBB, 0xF2, 0x00, 0xA0, 0xC9, 0xEA,     \
      0x53, 0xEF)                                                                                 \
    X(CLSID_SecurityAttributeManager, 0x59B15C79, 0x0FBE, 0x11D3, 0xBB, 0xF3, 0x00, 0xA0, 0xC9,   \
      0xEA, 0x53, 0xEF)                                                                           \
    X(IID_IContextAttribute_1, 0x360B325B, 0x0F94, 0x11D3, 0xBB, 0xF3, 0x00, 0xA0, 0xC9, 0xEA,    \
      0x53, 0xEF)                                                                                 \
    X(IID_IPassiveContextAttribute_1, 0x35277243, 0x7D36, 0x11D5, 0xBC, 0x31, 0x00, 0xA0, 0xC9,   \
      0xEA, 0x53, 0xEF)

OSAL_BEGIN_DECLS

#define OSAL_DECLARE_IDENTIFIER(name, ...) extern const GUID name;
OSAL_IDENTIFIERS(OSAL_DECLARE_IDENTIFIER)
#undef OSAL_DECLARE_IDENTIFIER

OSAL_END_DECLS

/* Defines all of them at file scope, without a semicolon: for one source of a program or library
 * that reaches osal.so through the component runtime only and so is not linked with it. */
#define OSAL_DEFINE_IDENTIFIERS OSAL_IDENTIFIERS(OSAL_DEFINE_IDENTIFIER)
#define OSAL_DEFINE_IDENTIFIER(name, d1, d2, d3, ...) const GUID name = {d1, d2, d3, {__VA_ARGS__}};

#endif
