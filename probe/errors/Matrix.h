// What every function says without a library, and every one with a session without that.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addMatrix(Plan& plan);

}  // namespace kestrel::probe
