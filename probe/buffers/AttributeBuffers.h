// Attributes, searches and random bytes: functions whose rooms are of another kind.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addAttributeBuffers(Plan& plan);

}  // namespace kestrel::probe
