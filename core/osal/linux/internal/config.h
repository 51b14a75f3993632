// Registry access: the key record, the failures that the module builds, and its two conversions of
// string lists.
#pragma once

#include <cstddef>

#include "osal/internal/handle.h"
#include "osal/internal/status.h"
#include "osal/iosal.h"

struct _OSAL_CONFIG_KEY {
    HANDLE KeyHandle;   // the registry library's
    CHAR KeyName[256];  // the whole path, in the OEM code page
};

// An open key, behind the handle of a caller. Allocated by KxOpenKey and KxCreateKey on the C heap,
// freed by KxCloseKey; does not change in between, so no lock guards it. Link and Link2 are part of
// the record only.
struct _KX_KEY_HANDLE_ {
    static constexpr UINT32 kSignature = osal::four_cc("KEY ");

    LIST_ENTRY Link;
    LIST_ENTRY Link2;
    UINT32 Signature;
    _OSAL_CONFIG_KEY Key;
};
static_assert(offsetof(_KX_KEY_HANDLE_, Signature) == 32);
static_assert(offsetof(_KX_KEY_HANDLE_, Key) == 40);
static_assert(offsetof(_OSAL_CONFIG_KEY, KeyName) == 8);

OSAL_BEGIN_DECLS

// Converts a string (Multiple other than 1) or a list of strings that ends with an empty one
// (Multiple 1) to a code page. *pStrLen: room at Str in bytes on entry, bytes written on return,
// terminators included. Of an empty string nothing is written. WideStrLen is not used.
KCSTATUS WideCharToMultiByteMultiple(PIOsal pThis, UINT32 CodePage, UINT32 Multiple,
                                     const WCHAR* WideStr, INT32 WideStrLen, PCHAR Str,
                                     PUINT32 pStrLen);

// The same from a code page. *pWideCharStrLen: room at pWideCharStr in units on entry, of which a
// list can use half; units written on return. MultiByteStrLen is not used.
KCSTATUS KxMultiByteToWideCharMultiple(PIOsal pThis, UINT32 CodePage, UINT32 Multiple,
                                       const CHAR* pMultiByteStr, INT32 MultiByteStrLen,
                                       PWCHAR pWideCharStr, PUINT32 pWideCharStrLen);

OSAL_END_DECLS

namespace osal::config {

inline constexpr Module kModule{KC_FACILITY_OSAL, "config"};

// A failure as its status names it. The lines are part of the contract and say nothing about this
// source.
struct Failure {
    const char* function;
    UINT32 code;
    UINT32 line;
};

inline constexpr Failure kNarrowNoRoom{"WideCharToMultiByteMultiple", 7, 79};
inline constexpr Failure kNarrowStringTooLong{"WideCharToMultiByteMultiple", 7, 97};
inline constexpr Failure kNarrowNoListEnd{"WideCharToMultiByteMultiple", 7, 118};
inline constexpr Failure kWideNoRoom{"KxMultiByteToWideCharMultiple", 7, 159};
inline constexpr Failure kWideStringTooLong{"KxMultiByteToWideCharMultiple", 7, 175};
inline constexpr Failure kWideNoListEnd{"KxMultiByteToWideCharMultiple", 7, 196};
inline constexpr Failure kCloseHandle{"KxCloseKey", 3, 227};
inline constexpr Failure kCreateArgument{"KxCreateKey", 4, 269};
inline constexpr Failure kCreateAccess{"KxCreateKey", 4, 289};
inline constexpr Failure kCreateMemory{"KxCreateKey", 5, 342};
inline constexpr Failure kDeleteKeyHandle{"KxDeleteKey", 3, 378};
inline constexpr Failure kDeleteValueHandle{"KxDeleteValue", 3, 406};
inline constexpr Failure kDeleteValueMemory{"KxDeleteValue", 5, 414};
inline constexpr Failure kEnumKeyHandle{"KxEnumerateKey", 3, 462};
inline constexpr Failure kEnumKeyArgument{"KxEnumerateKey", 4, 469};
inline constexpr Failure kEnumKeyLength{"KxEnumerateKey", 7, 474};
inline constexpr Failure kEnumKeyName{"KxEnumerateKey", 7, 514};
inline constexpr Failure kEnumKeyMemory{"KxEnumerateKey", 5, 526};
inline constexpr Failure kEnumValueHandle{"KxEnumerateValueKey", 3, 560};
inline constexpr Failure kEnumValueArgument{"KxEnumerateValueKey", 4, 567};
inline constexpr Failure kEnumValueLength{"KxEnumerateValueKey", 7, 572};
inline constexpr Failure kEnumValueName{"KxEnumerateValueKey", 7, 645};
inline constexpr Failure kEnumValueString{"KxEnumerateValueKey", 7, 686};
inline constexpr Failure kEnumValueBinary{"KxEnumerateValueKey", 7, 703};
inline constexpr Failure kEnumValueUint32{"KxEnumerateValueKey", 7, 714};
inline constexpr Failure kEnumValueUint64{"KxEnumerateValueKey", 7, 739};
inline constexpr Failure kEnumValueType{"KxEnumerateValueKey", 4, 744};
inline constexpr Failure kEnumValueMemory{"KxEnumerateValueKey", 5, 753};
inline constexpr Failure kOpenArgument{"KxOpenKey", 4, 779};
inline constexpr Failure kOpenAccess{"KxOpenKey", 4, 799};
inline constexpr Failure kOpenMemory{"KxOpenKey", 5, 845};
inline constexpr Failure kQueryHandle{"KxQueryValueKey", 3, 898};
inline constexpr Failure kQueryArgument{"KxQueryValueKey", 4, 903};
inline constexpr Failure kQueryLength{"KxQueryValueKey", 7, 908};
inline constexpr Failure kQueryName{"KxQueryValueKey", 7, 928};
inline constexpr Failure kQueryNameBuffer{"KxQueryValueKey", 7, 962};
inline constexpr Failure kQueryString{"KxQueryValueKey", 7, 1026};
inline constexpr Failure kQueryData{"KxQueryValueKey", 7, 1045};
inline constexpr Failure kQueryMemory{"KxQueryValueKey", 5, 1053};
inline constexpr Failure kSetHandle{"KxSetValueKey", 3, 1085};
inline constexpr Failure kSetUint32{"KxSetValueKey", 4, 1117};
inline constexpr Failure kSetUint64{"KxSetValueKey", 4, 1134};
inline constexpr Failure kSetType{"KxSetValueKey", 4, 1184};
inline constexpr Failure kSetMemory{"KxSetValueKey", 5, 1188};

inline KCSTATUS fail(const Failure& failure) {
    return kModule.fail(failure.code, failure.function, failure.line);
}

// Names and strings of the registry are in the OEM code page.
constexpr UINT32 kCodePage = 2;

}  // namespace osal::config
