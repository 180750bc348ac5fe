// Operations that were not begun, or begun twice, as another, elsewhere, or ended.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addOperationErrors(Plan& plan);

}  // namespace kestrel::probe
