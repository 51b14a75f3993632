// Text of callers, which may lie at any address.
#pragma once

#include "osal/types.h"

namespace osal {

// A 16-bit unit that is read where it lies: wide strings inside packed records start at odd
// addresses.
typedef WCHAR LooseUnit __attribute__((aligned(1)));

}  // namespace osal
