// Keys that are derived, with a value that can be read.
#pragma once

#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

// The value of a secret of `length` bytes that C_DeriveKey makes of `base`; of the length that the
// mechanism has by itself for 0. The check ends where the token refuses.
Bytes derived(Bench& bench, CK_MECHANISM_TYPE type, View parameter, CK_OBJECT_HANDLE base,
              CK_ULONG length);

}  // namespace kestrel::probe
